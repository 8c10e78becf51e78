// Bytes as people read them: offset, hexadecimal, text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace qzpfile {

// Lines of up to `perLine` bytes that begin with their offset, counted from `offset` for the
// first byte. Lines that repeat the one above are replaced by one line "*", except the last.
std::string hexDump(std::span<const std::byte> bytes, std::int64_t offset, std::size_t perLine);

// As many bytes a line as standard output has room for, 16 unless it is a narrow terminal.
std::size_t bytesPerLine();

}  // namespace qzpfile
