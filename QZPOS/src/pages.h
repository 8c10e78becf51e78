// Page and block arithmetic. Pages and blocks are numbered from 1; page 1 begins right after the
// header. Numbers, counts and offsets are signed 64-bit throughout.
#pragma once

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <limits>
#include <numeric>
#include <optional>

#include "qzpos.h"

namespace qz {

// Linux moves at most this many bytes with one call. No page and no block is larger, so a transfer
// of fewer bytes than were asked for reached the end of the file or failed part way.
inline constexpr std::int32_t kMostBytesOfACall = 0x7FFFF000;

constexpr std::int64_t pageOffset(std::int64_t page, std::int32_t pageSize,
                                  std::int64_t headerSize) {
  // Unsigned arithmetic: an offset beyond the largest one becomes negative, which the system
  // refuses.
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(page - 1) *
                                       static_cast<std::uint64_t>(pageSize) +
                                   static_cast<std::uint64_t>(headerSize));
}
static_assert(pageOffset(1, 4096, 100) == 100);
static_assert(pageOffset(3, 512, 100) == 1124);
static_assert(pageOffset((std::int64_t{1} << 32) + 1, 512, 0) == std::int64_t{1} << 41);

inline std::int64_t pageOffset(const FileHandle& h, std::int64_t page) {
  return pageOffset(page, h.pageSize, h.headerSize);
}

// Size of a file with a header and whole pages; no value when no file can be that long.
constexpr std::optional<std::int64_t> wholeFileBytes(std::int64_t pageCount, std::int32_t pageSize,
                                                     std::int64_t headerSize) {
  std::int64_t bytes = 0;
  if (__builtin_mul_overflow(pageCount, std::int64_t{pageSize}, &bytes)) return std::nullopt;
  if (__builtin_add_overflow(bytes, headerSize, &bytes)) return std::nullopt;
  return bytes;
}
static_assert(wholeFileBytes(4, 512, 100) == 2148);
static_assert(!wholeFileBytes(std::numeric_limits<std::int64_t>::max(), 512, 0));

// The page `count` pages after `page`, but at most the largest page number.
constexpr std::int64_t pageOn(std::int64_t page, std::int64_t count) {
  return page + std::min(count, std::numeric_limits<std::int64_t>::max() - page);
}

constexpr std::int64_t pageAfter(std::int64_t page) {
  return page == std::numeric_limits<std::int64_t>::max() ? page : page + 1;
}
static_assert(pageOn(std::numeric_limits<std::int64_t>::max() - 1, 5) ==
              pageAfter(std::numeric_limits<std::int64_t>::max()));

constexpr std::int64_t blockOfPage(std::int64_t page, std::int32_t pagesPerBlock) {
  return (page - 1) / pagesPerBlock + 1;
}
static_assert(blockOfPage(1, 8) == 1 && blockOfPage(8, 8) == 1 && blockOfPage(9, 8) == 2);

constexpr std::int64_t firstPageOfBlock(std::int64_t blockNumber, std::int32_t pagesPerBlock) {
  return (blockNumber - 1) * pagesPerBlock + 1;
}
static_assert(firstPageOfBlock(1, 8) == 1 && firstPageOfBlock(3, 8) == 17);

// The last page of the block that begins at `firstPage`, in a file of `pageCount` pages.
constexpr std::int64_t lastPageOfBlock(std::int64_t firstPage, std::int32_t pagesPerBlock,
                                       std::int64_t pageCount) {
  return firstPage + std::min<std::int64_t>(pagesPerBlock - 1, pageCount - firstPage);
}
static_assert(lastPageOfBlock(9, 8, 20) == 16 && lastPageOfBlock(17, 8, 20) == 20);

// True for the first page of a block.
constexpr bool beginsBlock(std::int64_t page, std::int32_t pagesPerBlock) {
  return (page - 1) % pagesPerBlock == 0;
}

// True for a page that the block holds now; never for an empty block.
inline bool coversPage(const BlockRecord& block, std::int64_t page) {
  return block.firstPage <= page && page <= block.lastPage;
}

// True for a page that the block has room for, whether it holds the page or not: its extent.
inline bool extentContains(const BlockRecord& block, std::int64_t page,
                           std::int32_t pagesPerBlock) {
  return block.firstPage != 0 && block.firstPage <= page && page - block.firstPage < pagesPerBlock;
}

// The page's position in the block's extent, from 0. A block has less than 2 GiB, so 32 bits are
// enough inside it, and they are faster on a 32-bit machine.
inline std::int32_t slotIndex(const BlockRecord& block, std::int64_t page) {
  return static_cast<std::int32_t>(page - block.firstPage);
}

// The same for an address in the block's data.
inline std::int32_t slotIndex(const BlockRecord& block, const void* address,
                              std::int32_t pageSize) {
  return static_cast<std::int32_t>(static_cast<const char*>(address) - block.data) / pageSize;
}

// Byte offset of the page in the block's data.
inline std::int32_t slotBegin(const BlockRecord& block, std::int64_t page, std::int32_t pageSize) {
  return slotIndex(block, page) * pageSize;
}

inline char* slotOf(const FileHandle& h, const BlockRecord& block, std::int64_t page) {
  assert(extentContains(block, page, h.pagesPerBlock));
  return block.data + slotBegin(block, page, h.pageSize);
}

// Stale bits: bit i % 8 of byte i / 8 stands for the i-th page of the block's extent.
constexpr std::uint8_t staleMask(std::int32_t index) {
  return static_cast<std::uint8_t>(1U << (index & 7));
}

inline bool isStale(const BlockRecord& block, std::int32_t index) {
  return (block.staleBits[index >> 3] & staleMask(index)) != 0;
}

inline void markStale(BlockRecord* block, std::int32_t index) {
  block->staleBits[index >> 3] |= staleMask(index);
}

inline void clearStale(BlockRecord* block, std::int32_t index) {
  block->staleBits[index >> 3] &= static_cast<std::uint8_t>(~staleMask(index));
}

// Least common multiple; no value when a number is below 1 or the result does not fit the 31 bits
// of a size.
constexpr std::optional<std::int32_t> commonSize(std::int64_t a, std::int64_t b) {
  std::int64_t multiple = 0;
  if (a < 1 || b < 1) return std::nullopt;
  if (__builtin_mul_overflow(a, b / std::gcd(a, b), &multiple)) return std::nullopt;
  if (multiple > std::numeric_limits<std::int32_t>::max()) return std::nullopt;
  return static_cast<std::int32_t>(multiple);
}
static_assert(commonSize(3000, 262144) == 98304000);
static_assert(!commonSize(0x40000001, 4));

}  // namespace qz
