// Promises about memory pools.
#include <cstring>
#include <limits>
#include <vector>

#include "checks.h"

namespace qz::hostcheck {
namespace {

constexpr std::size_t kSizes[] = {1,     7,     8,      40,     76,     100,  511,
                                  512,   513,   1000,   2048,   4095,   4096, 4097,
                                  10000, 65536, 100000, 262144, 4194304};

struct Block {
  unsigned char* data;
  std::size_t bytes;
};

std::string bytesOf(std::size_t count) {
  return count == 1 ? "1 byte" : std::to_string(count) + " bytes";
}

Block allocate(MemoryPool* pool, std::size_t bytes, std::uint32_t flags) {
  auto* data = static_cast<unsigned char*>(pool->memAlloc(pool, bytes, flags));
  needed(data != nullptr, "memAlloc of " + bytesOf(bytes) + " returned null");
  return {data, bytes};
}

std::vector<MemoryPool*> bothPools(const Trial& trial) {
  return {makePool(trial, kModulePool), makePool(trial, kBufferPool)};
}

unsigned char markOf(std::size_t number) { return static_cast<unsigned char>(number % 251 + 1); }

bool isFilledWith(const Block& block, unsigned char value) {
  return block.data[0] == value && std::memcmp(block.data, block.data + 1, block.bytes - 1) == 0;
}

void blocksAreApart(const Trial& trial) {
  for (MemoryPool* pool : bothPools(trial)) {
    std::vector<Block> blocks;
    for (int round = 0; round < 3; ++round) {
      for (const std::size_t bytes : kSizes) {
        auto* data = static_cast<unsigned char*>(pool->memAlloc(pool, bytes, 0));
        promised(data != nullptr, "memAlloc of " + bytesOf(bytes) + " returns null");
        std::memset(data, markOf(blocks.size()), bytes);
        blocks.push_back({data, bytes});
      }
    }
    for (std::size_t i = 0; i < blocks.size(); ++i) {
      promised(isFilledWith(blocks[i], markOf(i)),
               "a block of " + bytesOf(blocks[i].bytes) + " overlaps another one");
    }
    constexpr std::size_t kTooMuch = std::numeric_limits<std::size_t>::max() - 0xFFFF;
    promised(pool->memAlloc(pool, kTooMuch, 0) == nullptr,
             "memAlloc of nearly the whole address space does not return null");
  }
}

void zeroMeansZero(const Trial& trial) {
  for (MemoryPool* pool : bothPools(trial)) {
    for (const std::size_t bytes : kSizes) {
      for (int round = 0; round < 3; ++round) {
        const Block block = allocate(pool, bytes, kZeroFill);
        promised(isFilledWith(block, 0),
                 "a block of " + bytesOf(bytes) + " with the flag 0x80000000 is not zero");
        std::memset(block.data, 0xA5, bytes);
        pool->memFree(pool, block.data);
        // The same memory again, without the flag that clears it.
        const Block dirty = allocate(pool, bytes, 0);
        std::memset(dirty.data, 0xA5, bytes);
        pool->memFree(pool, dirty.data);
      }
    }
  }
}

// Checks that every block of at least `least` bytes of the pool is aligned to `alignment`.
void requireAlignment(MemoryPool* pool, std::size_t least, std::size_t alignment) {
  for (const std::size_t bytes : kSizes) {
    if (bytes < least) continue;
    for (int round = 0; round < 3; ++round) {
      const Block block = allocate(pool, bytes, round == 0 ? kZeroFill : 0);
      promised(reinterpret_cast<std::uintptr_t>(block.data) % alignment == 0,
               "a block of " + bytesOf(bytes) + " lies at " +
                   hex(reinterpret_cast<std::uintptr_t>(block.data)) + ", not at a multiple of " +
                   std::to_string(alignment));
    }
  }
}

void blocksFitPointersAndNumbers(const Trial& trial) {
  struct Record {
    void* pointer;
    std::int64_t number;
  };
  for (MemoryPool* pool : bothPools(trial)) requireAlignment(pool, 1, alignof(Record));
}

void largeBuffersAreAligned(const Trial& trial) {
  requireAlignment(makePool(trial, kBufferPool), 4096, 4096);
}

void sectorBuffersAreAligned(const Trial& trial) {
  requireAlignment(makePool(trial, kBufferPool), 512, 512);
}

void blocksAreFreed(const Trial& trial) {
  for (MemoryPool* pool : bothPools(trial)) {
    std::vector<Block> blocks;
    for (const std::size_t bytes : kSizes) blocks.push_back(allocate(pool, bytes, 0));
    const std::size_t count = blocks.size();
    // Frees every third block in three passes: neither in the order of allocation nor in reverse.
    for (std::size_t i = 0; i < 3; ++i) {
      for (std::size_t at = i; at < count; at += 3) {
        const HostStatus status = pool->memFree(pool, blocks[at].data);
        promised(status == 0,
                 "memFree of a block of " + bytesOf(blocks[at].bytes) + " returns " + hex(status));
      }
    }
  }
}

void emptyPoolsEnd(const Trial& trial) {
  for (MemoryPool* pool : bothPools(trial)) {
    for (const std::size_t bytes : kSizes) {
      const Block block = allocate(pool, bytes, 0);
      needed(pool->memFree(pool, block.data) == 0, "the pool frees no block");
    }
    const HostStatus status = pool->destroy(pool);
    promised(status == 0, "destroy of a pool without blocks returns " + hex(status));
  }
}

constexpr Check kChecks[] = {
    {10, "blocks are large enough and apart", blocksAreApart},
    {11, "blocks with the flag 0x80000000 are zero", zeroMeansZero},
    {12, "blocks are aligned for pointers and 64-bit numbers", blocksFitPointersAndNumbers},
    {13, "buffers of 4096 bytes or more are aligned to 4096", largeBuffersAreAligned},
    {14, "buffers of 512 bytes or more are aligned to 512", sectorBuffersAreAligned},
    {15, "memFree frees blocks in any order", blocksAreFreed},
    {16, "a pool without blocks can be destroyed", emptyPoolsEnd},
};

}  // namespace

std::span<const Check> poolChecks() { return kChecks; }

}  // namespace qz::hostcheck
