// What must hold of a handle between any two operations.
#pragma once

#include <cstddef>
#include <string>

#include "qzpos.h"

namespace qztest {

// Checks lists, tree, counters, write block and state bits of a handle, and that its pools have no
// more live blocks than the handle and the extension object use. Returns the first invariant that
// does not hold, or nothing.
std::string brokenInvariant(const qz::FileHandle& h, std::size_t moduleBlocks,
                            std::size_t bufferBlocks);

}  // namespace qztest
