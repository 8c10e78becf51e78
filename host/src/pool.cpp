// Memory pools.
#include <cstring>
#include <new>
#include <utility>

#include "objects.h"

namespace qz {
namespace {

Pool& poolOf(MemoryPool* pool) { return *static_cast<Pool*>(pool); }

PoolCounts& operator+=(PoolCounts& sum, const PoolCounts& more) {
  sum.liveBlocks += more.liveBlocks;
  sum.liveBytes += more.liveBytes;
  sum.allocations += more.allocations;
  sum.refusedFrees += more.refusedFrees;
  sum.leakedBlocks += more.leakedBlocks;
  return sum;
}

Allocation take(Pool& pool, std::size_t bytes) noexcept {
  const auto lock = lockUnlessAlone(pool.mutex);
  const Allocation block = pool.store.allocate(bytes);
  if (block.address == nullptr) return block;
  ++pool.counts.allocations;
  ++pool.counts.liveBlocks;
  pool.counts.liveBytes += bytes;
  return block;
}

// The block is cleared outside the lock, so that other threads do not wait.
void* memAlloc(MemoryPool* self, std::size_t bytes, std::uint32_t flags) noexcept {
  const Allocation block = take(poolOf(self), bytes);
  const bool toClear = block.address != nullptr && !block.isZero && (flags & kZeroFill) != 0;
  return toClear ? std::memset(block.address, 0, bytes) : block.address;
}

HostStatus memFree(MemoryPool* self, void* block) noexcept {
  Pool& pool = poolOf(self);
  const auto lock = lockUnlessAlone(pool.mutex);
  const std::optional<std::size_t> bytes = pool.store.release(block);
  if (!bytes) {
    ++pool.counts.refusedFrees;
    return hostForeignBlock;
  }
  --pool.counts.liveBlocks;
  pool.counts.liveBytes -= *bytes;
  return hostOk;
}

// Keeps the counts of a destroyed pool.
void retire(const Pool& pool, PoolCounts counts) noexcept try {
  counts.leakedBlocks = std::exchange(counts.liveBlocks, 0);
  counts.liveBytes = 0;
  const auto lock = lockUnlessAlone(pool.host->retiredMutex);
  pool.host->retiredPools[pool.name] += counts;
} catch (const std::bad_alloc&) {
  return;  // no memory: the counts are lost, but the pool is destroyed
}

HostStatus destroy(MemoryPool* self) noexcept {
  const Pool& pool = poolOf(self);
  const PoolCounts counts = pool.counts;
  retire(pool, counts);
  pool.host->pools.remove(&pool);
  return counts.liveBlocks == 0 ? hostOk : hostBlocksLive;
}

}  // namespace

Pool::Pool(HostRecords* owner, const char* poolName)
    : MemoryPool{}, host(owner), name(poolName != nullptr ? poolName : "") {
  MemoryPool::destroy = qz::destroy;
  MemoryPool::memAlloc = qz::memAlloc;
  MemoryPool::memFree = qz::memFree;
}

MemoryPool* createPool(QZHandle* host, const PoolAttributes* /*attributes*/, Journal* journal,
                       const char* name) noexcept try {
  auto* records = static_cast<HostRecords*>(host);
  return records->pools.add(std::make_unique<Pool>(records, name));
} catch (const std::bad_alloc&) {
  journalStatus(journal, hostNoMemory);
  return nullptr;
}

MemoryPool* StandInHost::pool(std::string_view name) noexcept {
  MemoryPool* newest = nullptr;
  records_->pools.each([&](Pool& pool) {
    if (pool.name == name) newest = &pool;
  });
  return newest;
}

PoolCounts StandInHost::poolCounts(std::string_view name) const noexcept {
  PoolCounts sum;
  {
    const auto lock = lockUnlessAlone(records_->retiredMutex);
    const auto retired = records_->retiredPools.find(name);
    if (retired != records_->retiredPools.end()) sum = retired->second;
  }
  records_->pools.each([&](const Pool& pool) {
    const auto lock = lockUnlessAlone(pool.mutex);
    if (pool.name == name) sum += pool.counts;
  });
  return sum;
}

PoolCounts StandInHost::poolCounts() const noexcept {
  PoolCounts sum;
  {
    const auto lock = lockUnlessAlone(records_->retiredMutex);
    for (const auto& [name, counts] : records_->retiredPools) sum += counts;
  }
  records_->pools.each([&](const Pool& pool) {
    const auto lock = lockUnlessAlone(pool.mutex);
    sum += pool.counts;
  });
  return sum;
}

}  // namespace qz
