// The stand-in host's pools and what they take their memory from.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "../../host/src/blockstore.h"
#include "qzstandin.h"

namespace {

using qz::MemoryPool;
using qz::PoolCounts;

constexpr std::size_t kSizes[] = {0,    1,    40,    76,     4095,    4096,
                                  4097, 8192, 65536, 262144, 2097152, 2097153};

bool isAligned(const void* block, std::size_t bytes) {
  return reinterpret_cast<std::uintptr_t>(block) % (bytes < 4096 ? 16 : 4096) == 0;
}

bool isFilled(const unsigned char* block, std::size_t bytes, unsigned char fill) {
  return bytes == 0 || (block[0] == fill && std::memcmp(block, block + 1, bytes - 1) == 0);
}

// Every block of a store is filled with its own byte; a neighbour's write would show.
template <class Store>
struct StoreTest : testing::Test {
  struct Block {
    std::size_t bytes;
    unsigned char fill;
  };

  void take(std::size_t bytes, bool zeroed) {
    auto* block = static_cast<unsigned char*>(store.allocate(bytes, zeroed));
    ASSERT_NE(block, nullptr) << bytes;
    ASSERT_TRUE(isAligned(block, bytes)) << bytes;
    ASSERT_TRUE(!zeroed || isFilled(block, bytes, 0)) << bytes;
    const auto fill = static_cast<unsigned char>(random() | 1U);
    std::memset(block, fill, bytes);
    ASSERT_TRUE(blocks.emplace(block, Block{bytes, fill}).second);
  }
  void give(typename std::map<unsigned char*, Block>::iterator place) {
    const auto [block, about] = *place;
    ASSERT_TRUE(isFilled(block, about.bytes, about.fill)) << about.bytes;
    blocks.erase(place);
    if (about.bytes > 1) {
      ASSERT_FALSE(store.release(block + about.bytes / 2));
    }
    ASSERT_EQ(store.release(block), about.bytes);
    ASSERT_FALSE(store.release(block)) << "freed twice";
  }

  Store store;
  std::map<unsigned char*, Block> blocks;
  std::mt19937 random{1};
};

using Stores = testing::Types<qz::RegionStore, qz::HeapStore>;
TYPED_TEST_SUITE(StoreTest, Stores);

TYPED_TEST(StoreTest, BlocksAreAlignedClearedApartAndKnown) {
  for (int round = 0; round < 3; ++round) {
    for (const std::size_t bytes : kSizes) {
      for (const bool zeroed : {false, true, true}) this->take(bytes, zeroed);
    }
    while (!this->blocks.empty()) this->give(this->blocks.begin());
  }
}

TYPED_TEST(StoreTest, RandomTakingAndGiving) {
  for (int step = 0; step < 6000; ++step) {
    const bool grows = step / 1000 % 2 == 0;
    if (this->blocks.empty() || this->random() % 8 < (grows ? 6U : 2U)) {
      const std::size_t most = std::size_t{16} << this->random() % 14;
      this->take(this->random() % most, this->random() % 2 == 0);
    } else {
      this->give(std::next(this->blocks.begin(),
                           static_cast<std::ptrdiff_t>(this->random() % this->blocks.size())));
    }
    if (testing::Test::HasFatalFailure()) return;
  }
}

std::size_t mappedBytes() {
  std::ifstream maps("/proc/self/maps");
  std::size_t total = 0;
  for (std::string line; std::getline(maps, line);) {
    char* rest = nullptr;
    const unsigned long long start = std::strtoull(line.c_str(), &rest, 16);
    total += static_cast<std::size_t>(std::strtoull(rest + 1, nullptr, 16) - start);
  }
  return total;
}

TEST(RegionStoreTest, MemoryGoesBackToTheSystem) {
  qz::RegionStore store;
  const std::size_t before = mappedBytes();
  std::vector<void*> blocks;
  for (const std::size_t bytes : {64U, 4096U, 65536U, 3U << 20U}) {
    for (std::size_t total = 0; total < (32U << 20U); total += bytes) {
      blocks.push_back(store.allocate(bytes, false));
    }
  }
  EXPECT_GE(mappedBytes(), before + (128U << 20U));
  for (void* block : blocks) ASSERT_TRUE(store.release(block));
  EXPECT_LE(mappedBytes(), before + (32U << 20U));  // the vector of addresses and an empty region
}

struct PoolTest : testing::Test {
  MemoryPool* newPool(const char* name) {
    const qz::PoolAttributes attributes{{0x100000, 0, 0}};
    return host.handle()->poolCreate(host.handle(), &attributes, nullptr, name);
  }
  qz::StandInHost host;
  MemoryPool* pool = newPool("one");
};

TEST_F(PoolTest, CountsWhatIsOutAndRefusesWhatIsForeign) {
  MemoryPool* other = newPool("two");
  void* mine = pool->memAlloc(pool, 100, 0);
  void* others = other->memAlloc(other, 5000, qz::kZeroFill);
  char local = 0;
  EXPECT_EQ(host.poolCounts("one").liveBytes, 100U);
  EXPECT_EQ(host.poolCounts().liveBytes, 5100U);
  for (void* foreign : {static_cast<void*>(nullptr), others, static_cast<void*>(&local),
                        static_cast<void*>(static_cast<char*>(mine) + 1)}) {
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
  EXPECT_EQ(host.liveObjects(), 2U);
  EXPECT_EQ(pool->destroy(pool), 0U);
  EXPECT_EQ(host.pool("one"), nullptr);
  EXPECT_EQ(other->destroy(other), qz::hostBlocksLive);
  EXPECT_EQ(host.poolCounts("two").leakedBlocks, 1U);
  EXPECT_EQ(host.poolCounts("two").liveBlocks, 0U);
  EXPECT_EQ(host.liveObjects(), 0U);
}

#ifdef __SANITIZE_ADDRESS__
TEST_F(PoolTest, SanitizerSeesUseAfterFreeAndOverflow) {
  const auto touch = [&](std::size_t bytes, std::size_t at, bool freed) {
    auto* block = static_cast<volatile char*>(pool->memAlloc(pool, bytes, 0));
    if (freed) pool->memFree(pool, const_cast<char*>(block));
    block[at] = 1;
  };
  EXPECT_DEATH(touch(76, 76, false), "heap-buffer-overflow");
  EXPECT_DEATH(touch(4096, 4096, false), "heap-buffer-overflow");
  EXPECT_DEATH(touch(262144, 0, true), "heap-use-after-free");
}
#endif

}  // namespace
