// The operations of the stand-in host, recorded and failed like system calls.
#pragma once

#include "qzstandin.h"

namespace qztest {

// What an open or reopen that fails as planned leaves in the two detail words.
inline constexpr std::uint32_t kRefusedDetail1 = 11;
inline constexpr std::uint32_t kRefusedDetail2 = 22;

// Replaces the slots of a host's records, and those of each object that the host makes later.
void recordHostCalls(qz::StandInHost& host);

// How files are opened for which the module asks for O_DIRECT.
enum class DirectIo : std::uint8_t {
  simulated,  // without it; transfers that it would refuse are refused
  unaligned,  // without it; all transfers are taken
  real        // with it
};
void setDirectIo(DirectIo way);

}  // namespace qztest
