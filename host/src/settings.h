// Turns the caller's settings into fields of a file handle, and the fields back into settings.
#pragma once

#include <cstdint>
#include <string>

#include "qziop.hpp"

namespace qz {

// Sets all caller settings of a closed handle.
void apply(const Settings& settings, FileHandle* handle);

// The I/O mode that the handle's settings ask for, and the one that its open file has.
Io askedOf(const FileHandle& handle);
Io obtainedOf(const FileHandle& handle);

// Why a file is accessed without the direct I/O that it asked for.
std::string whyBuffered(const FileHandle& handle);
std::string whyNotAligned(const FileHandle& handle, std::int64_t granule);

}  // namespace qz
