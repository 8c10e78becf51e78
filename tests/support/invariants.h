// What must hold of a handle between any two operations.
#pragma once

#include <cstddef>
#include <string>

#include "qzpos.h"

namespace qztest {

// Lists, tree, counters, write block and state bits of a handle, and the blocks that its pools
// have out: exactly those that the handle accounts for, and the extension object.
// Returns what is broken, or nothing.
std::string brokenInvariant(const qz::FileHandle& h, std::size_t moduleBlocks,
                            std::size_t bufferBlocks);

}  // namespace qztest
