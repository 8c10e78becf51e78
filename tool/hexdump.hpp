// Bytes for people to read: offset, hexadecimal, text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace qzpfile {

// Lines of up to `perLine` bytes that begin with their offset, counted from `offset` for the
// first byte. Lines that repeat the one above are replaced by one line "*", except the last.
std::string hexDump(std::span<const std::byte> bytes, std::int64_t offset, std::size_t perLine);

// Bytes per line: 16, or fewer on a narrow terminal.
std::size_t bytesPerLine();

}  // namespace qzpfile
