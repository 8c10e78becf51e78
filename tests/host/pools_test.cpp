// The stand-in host's pools and what they take their memory from.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <initializer_list>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "../../host/src/blockstore.h"
#include "qzstandin.h"

namespace {

using qz::MemoryPool;
using qz::PoolCounts;

// Fills every block of a store with one random byte, so that overlapping blocks show.
template <class Store>
struct StoreTest : testing::Test {
  void allocate(std::size_t bytes) {
    const qz::Allocation taken = store.allocate(bytes);
    auto* block = static_cast<char*>(taken.address);
    ASSERT_NE(block, nullptr);
    // Blocks of 512 bytes and more are used for direct I/O.
    const std::uintptr_t alignment = bytes < 512 ? 16 : bytes < 4096 ? 512 : 4096;
    ASSERT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignment, 0U) << bytes;
    ASSERT_TRUE(!taken.isZero || std::string_view(block, bytes) == std::string(bytes, '\0'));
    const std::string contents(bytes, static_cast<char>(random() | 1U));
    contents.copy(block, bytes);
    ASSERT_TRUE(blocks.emplace(block, contents).second);
  }
  void free(typename std::map<char*, std::string>::iterator place) {
    const auto [block, contents] = *place;
    ASSERT_EQ(std::string_view(block, contents.size()), contents);
    blocks.erase(place);
    if (contents.size() > 1) {
      ASSERT_FALSE(store.release(block + contents.size() / 2));
    }
    ASSERT_EQ(store.release(block), contents.size());
    ASSERT_FALSE(store.release(block)) << "freed twice";
  }

  Store store;
  std::map<char*, std::string> blocks;
  std::mt19937 random{1};
};

using Stores = testing::Types<qz::RegionStore, qz::HeapStore>;
TYPED_TEST_SUITE(StoreTest, Stores);

// Blocks must be aligned, not overlap, and be freed once only. The sizes lie around those at which
// the store allocates in another way; others are random.
TYPED_TEST(StoreTest, BlocksAreAlignedApartAndKnown) {
  for (int round = 0; round < 3; ++round) {
    for (const std::size_t bytes : {0U, 1U, 40U, 76U, 511U, 512U, 600U, 1024U, 4095U, 4096U, 4097U,
                                    8192U, 65536U, 262144U, 2097152U, 2097153U}) {
      for (int block = 0; block < 3; ++block) this->allocate(bytes);
    }
    while (!this->blocks.empty()) this->free(this->blocks.begin());
  }
  for (int step = 0; step < 6000 && !this->HasFailure(); ++step) {
    const bool grows = step / 1000 % 2 == 0;
    if (this->blocks.empty() || this->random() % 8 < (grows ? 6U : 2U)) {
      const std::size_t most = std::size_t{16} << this->random() % 14;
      this->allocate(this->random() % most);
    } else {
      this->free(std::next(this->blocks.begin(),
                           static_cast<std::ptrdiff_t>(this->random() % this->blocks.size())));
    }
  }
}

std::size_t mappedPages() {
  std::size_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  return pages;
}

// A pool must not keep the memory of its largest use for ever.
TEST(RegionStoreTest, MemoryGoesBackToTheSystem) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer maps and unmaps memory at times of its own";
#endif
  qz::RegionStore store;
  std::vector<void*> blocks;
  blocks.reserve(600'000);
  const std::size_t before = mappedPages();
  for (const std::size_t bytes : {64U, 4096U, 65536U, 3U << 20U}) {
    for (std::size_t total = 0; total < (32U << 20U); total += bytes) {
      blocks.push_back(store.allocate(bytes).address);
    }
  }
  EXPECT_GE(mappedPages(), before + (128U << 20U) / 4096);
  for (void* block : blocks) ASSERT_TRUE(store.release(block));
  // Empty regions and 20 MiB of spare mappings.
  EXPECT_LE(mappedPages(), before + (32U << 20U) / 4096);
}

struct PoolTest : testing::Test {
  MemoryPool* newPool(const char* name) {
    return host.handle()->poolCreate(host.handle(), nullptr, nullptr, name);
  }
  qz::StandInHost host;
  MemoryPool* pool = newPool("one");
};

// A leak or a double free by the module must show in the counts and damage nothing.
TEST_F(PoolTest, CountsLiveBlocksAndRefusesForeignOnes) {
  MemoryPool* other = newPool("two");
  auto* mine = static_cast<char*>(pool->memAlloc(pool, 100, 0));
  void* others = other->memAlloc(other, 5000, qz::kZeroFill);
  char local = 0;
  EXPECT_EQ(host.poolCounts("one").liveBytes, 100U);
  EXPECT_EQ(host.poolCounts().liveBytes, 5100U);
  for (void* foreign : std::initializer_list<void*>{nullptr, others, &local, mine + 1}) {
    EXPECT_EQ(pool->memFree(pool, foreign), qz::hostForeignBlock);
  }
  EXPECT_EQ(pool->memFree(pool, mine), 0U);
  EXPECT_EQ(pool->memFree(pool, mine), qz::hostForeignBlock);
  for (const std::size_t bytes : {SIZE_MAX, SIZE_MAX / 2 + 2, SIZE_MAX - 4095}) {
    EXPECT_EQ(pool->memAlloc(pool, bytes, qz::kZeroFill), nullptr) << bytes;
  }
  const PoolCounts counts = host.poolCounts("one");
  EXPECT_EQ(counts.liveBlocks + counts.liveBytes, 0U);
  EXPECT_EQ(counts.allocations, 1U);
  EXPECT_EQ(counts.refusedFrees, 5U);
  EXPECT_EQ(host.pool("one"), pool);
  EXPECT_EQ(pool->destroy(pool), 0U);
  EXPECT_EQ(host.pool("one"), nullptr);
  EXPECT_EQ(other->destroy(other), qz::hostBlocksLive);
  EXPECT_EQ(host.poolCounts("two").leakedBlocks, 1U);
  EXPECT_EQ(host.poolCounts("two").liveBlocks, 0U);
  MemoryPool* leftOver = newPool("three");  // destroyed with the host, and its block with it
  EXPECT_NE(leftOver->memAlloc(leftOver, 5000, 0), nullptr);
  EXPECT_EQ(host.liveObjects(), 1U);
}

// A block allocated with kZeroFill must be zero, also where it reuses the memory of a freed one.
TEST_F(PoolTest, ClearsBlocksIfAskedTo) {
  for (const std::size_t bytes : {1U, 100U, 4096U, 65537U, 2097152U, 3U << 20U}) {
    for (int round = 0; round < 2; ++round) {
      auto* block = static_cast<char*>(pool->memAlloc(pool, bytes, qz::kZeroFill));
      ASSERT_NE(block, nullptr);
      EXPECT_EQ(std::count(block, block + bytes, '\0'), static_cast<std::ptrdiff_t>(bytes));
      std::fill_n(block, bytes, '#');
      EXPECT_EQ(pool->memFree(pool, block), 0U);
    }
  }
}

#ifdef __SANITIZE_ADDRESS__
// Under the address sanitizer pools must not use a region store, in which the sanitizer sees
// neither a use after free nor an overflow of the module.
TEST_F(PoolTest, SanitizerSeesUseAfterFreeAndOverflow) {
  const auto touch = [&](std::size_t at, bool freed) {
    auto* block = static_cast<volatile char*>(pool->memAlloc(pool, 4096, 0));
    if (freed) pool->memFree(pool, const_cast<char*>(block));
    block[at] = 1;
  };
  EXPECT_DEATH(touch(4096, false), "heap-buffer-overflow");
  EXPECT_DEATH(touch(0, true), "heap-use-after-free");
}
#endif

}  // namespace
