// The operations of the stand-in host, recorded and failed like system calls.
#pragma once

#include "qzstandin.h"

namespace qztest {

// Replaces the slots of a host's records; those of objects made later follow as they are made.
void recordHostCalls(qz::StandInHost& host);

// How files are opened that are to be open with O_DIRECT.
enum class DirectIo : std::uint8_t {
  simulated,  // without it; the module's transfers are held to the alignment that it asks for
  unaligned,  // without it and without that
  real
};
void setDirectIo(DirectIo way);

}  // namespace qztest
