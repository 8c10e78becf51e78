// Pages that identify themselves in every cache line.
#pragma once

#include <cstdint>
#include <cstring>

namespace qzbench {

inline constexpr std::int32_t kCacheLine = 64;

// Page and version change every bit.
constexpr std::uint64_t stampSeed(std::int64_t page, std::int64_t version) {
  return static_cast<std::uint64_t>(page) * 0x9E3779B97F4A7C15U +
         static_cast<std::uint64_t>(version) * 0xC2B2AE3D27D4EB4FU;
}

// Writes one word of every cache line.
inline void stamp(char* at, std::int32_t pageSize, std::int64_t page, std::int64_t version = 0) {
  std::uint64_t word = stampSeed(page, version);
  for (std::int32_t i = 0; i < pageSize; i += kCacheLine, ++word) {
    std::memcpy(at + i, &word, sizeof(word));
  }
}

// Reads one word of every cache line; true when they are what `stamp` wrote.
inline bool isStamped(const char* at, std::int32_t pageSize, std::int64_t page,
                      std::int64_t version = 0) {
  std::uint64_t word = stampSeed(page, version);
  std::uint64_t difference = 0;
  for (std::int32_t i = 0; i < pageSize; i += kCacheLine, ++word) {
    std::uint64_t found = 0;
    std::memcpy(&found, at + i, sizeof(found));
    difference |= found ^ word;
  }
  return difference == 0;
}

}  // namespace qzbench
