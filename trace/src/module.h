// The module that the trace loads.
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
  char failure[4096];  // why the module is not loaded; empty: it is
};

// Loads the module at the first call: libqziop.so.3 or libqziop.so in the folder of this library.
// Looks up functions only in that library, not in other libraries that have the same names.
const RealModule& realModule();

inline bool isLoaded(const RealModule& module) { return module.failure[0] == '\0'; }

}  // namespace qz::trace
