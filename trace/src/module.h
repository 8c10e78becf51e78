// The module behind the trace.
#pragma once

#include "qzpos.h"

namespace qz::trace {

struct RealModule {
  decltype(&::qzextent) qzextent;
  decltype(&::qziop) qziop;
  decltype(&::qzpdestroy) qzpdestroy;
  decltype(&::qzpgetreqversion) qzpgetreqversion;
  decltype(&::qzpgetversion) qzpgetversion;
  OperationTable operations;
  char path[4096];
  char failure[4096];  // why there is none; empty: it is there
};

// Loads the module at the first call: libqziop.so.3 or libqziop.so in the folder of this library.
// Its functions are looked up in that library alone, so a namesake elsewhere in the process is
// never taken for one of them.
const RealModule& realModule();

inline bool isLoaded(const RealModule& module) { return module.failure[0] == '\0'; }

}  // namespace qz::trace
