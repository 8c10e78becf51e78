// Little-endian numbers in byte arrays, as packed files store them.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>

namespace qzpfile {

// 8 bytes, unless another type is given; all of them must lie within `bytes`.
template <std::unsigned_integral T = std::uint64_t>
void storeNumber(std::span<std::byte> bytes, std::size_t at, std::type_identity_t<T> value) {
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    bytes[at + i] = static_cast<std::byte>(value >> (8 * i));
  }
}

template <std::unsigned_integral T = std::uint64_t>
T loadNumber(std::span<const std::byte> bytes, std::size_t at) {
  T value = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    value |= static_cast<T>(static_cast<T>(bytes[at + i]) << (8 * i));
  }
  return value;
}

}  // namespace qzpfile
