#include "blockstore.h"

#include <sys/mman.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <new>
#include <vector>

namespace qz {
namespace {

constexpr std::size_t kRegionPages = kRegionBytes / kStorePage;
constexpr std::size_t kSlabPages = 16;
constexpr std::size_t kSlabBytes = kSlabPages * kStorePage;
constexpr std::size_t kHugeFrom = std::size_t{64} << 10U;
constexpr std::size_t kMostSpareBytes = std::size_t{20} << 20U;  // five blocks of 4 MiB

constexpr std::array<std::uint16_t, 11> kSlotBytes = {64,   128,  192,  256,  384, 512,
                                                      1024, 1536, 2048, 3072, 4096};
// Slots of a slab are aligned to their size.
static_assert(std::ranges::all_of(kSlotBytes, [](std::size_t bytes) {
  constexpr std::size_t kCacheLine = 64;
  return bytes % alignmentOf(bytes) == 0 && bytes % kCacheLine == 0;
}));

// The index of the smallest slot that fits, by the bytes requested in units of 16.
constexpr std::size_t kSlotStep = 16;
constexpr auto kSizeIndexes = [] {
  std::array<std::uint8_t, kStorePage / kSlotStep + 1> indexes = {};
  for (std::size_t i = 0; i < indexes.size(); ++i) {
    while (kSlotBytes[indexes[i]] < i * kSlotStep) ++indexes[i];
  }
  return indexes;
}();

std::size_t roundUp(std::size_t bytes, std::size_t unit) {
  return (bytes + unit - 1) / unit * unit;
}

std::size_t pagesOf(std::size_t bytes) { return roundUp(bytes, kStorePage) / kStorePage; }

char* mapAnonymous(std::size_t bytes) {
  void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? nullptr : static_cast<char*>(memory);
}

bool atRegionBoundary(const char* memory) {
  return reinterpret_cast<std::uintptr_t>(memory) % kRegionBytes == 0;
}

// Zeroed memory at a multiple of 2 MiB, or null. The system often aligns such mappings by itself;
// if not, a larger mapping is cut to fit.
char* mapAligned(std::size_t bytes) {
  char* memory = mapAnonymous(bytes);
  if (memory == nullptr || atRegionBoundary(memory)) return memory;
  munmap(memory, bytes);
  memory = mapAnonymous(bytes + kRegionBytes);
  if (memory == nullptr) return nullptr;
  const std::size_t misfit = reinterpret_cast<std::uintptr_t>(memory) % kRegionBytes;
  const std::size_t before = misfit == 0 ? 0 : kRegionBytes - misfit;
  if (before != 0) munmap(memory, before);
  if (before != kRegionBytes) munmap(memory + before + bytes, kRegionBytes - before);
  return memory + before;
}

}  // namespace

// A run of pages cut into slots.
struct RegionStore::Slab {
  Slab* next;
  Slab* prev;
  Region* region;
  std::size_t firstPage;
  std::size_t sizeIndex;
  std::vector<std::uint16_t> freeSlots;
  std::vector<std::uint16_t> askedPlus1;  // for each slot: bytes requested plus 1; 0: free

  bool isEmpty() const { return freeSlots.size() == askedPlus1.size(); }
};

struct RegionStore::Region {
  Region* next;
  Region* prev;
  char* base;
  bool huge;
  std::size_t freePages = kRegionPages;
  std::array<std::uint64_t, kRegionPages / 64> used = {};
  std::array<std::uint32_t, kRegionPages> askedPlus1 = {};     // at the first page of a block
  std::array<std::unique_ptr<Slab>, kRegionPages> slabs = {};  // at the slab's first page
  std::array<Slab*, kRegionPages> slabOfPage = {};

  bool isUsed(std::size_t page) const { return ((used[page / 64] >> (page % 64)) & 1U) != 0; }

  // The first page at or after `page` that is used (`wanted`) or free.
  std::size_t seek(std::size_t page, bool wanted) const {
    while (page < kRegionPages) {
      const std::uint64_t word = (wanted ? used[page / 64] : ~used[page / 64]) >> (page % 64);
      if (word != 0) return page + static_cast<std::size_t>(std::countr_zero(word));
      page = (page / 64 + 1) * 64;
    }
    return kRegionPages;
  }

  // The start of `pages` free pages in a row, or kRegionPages.
  std::size_t findRun(std::size_t pages) const {
    std::size_t first = seek(0, false);
    while (first + pages <= kRegionPages) {
      const std::size_t end = seek(first, true);
      if (end - first >= pages) return first;
      first = seek(end, false);
    }
    return kRegionPages;
  }

  void mark(std::size_t first, std::size_t pages) {
    for (const std::size_t end = first + pages; first < end;) {
      const std::size_t bit = first % 64;
      const std::size_t count = std::min(64 - bit, end - first);
      used[first / 64] ^= (~std::uint64_t{0} >> (64 - count)) << bit;
      first += count;
    }
  }
};

RegionStore::RegionStore() = default;

RegionStore::~RegionStore() {
  for (const auto& [base, region] : regions_) munmap(region->base, kRegionBytes);
  for (const auto& [block, mapping] : mappings_) munmap(block, mapping.mapped);
  for (const auto& [block, mapped] : spareMappings_) munmap(block, mapped);
}

Allocation RegionStore::allocate(std::size_t bytes) noexcept try {
  if (bytes > kLargestBlock) return {nullptr, false};
  if (bytes > kRegionBytes) return allocateMapping(bytes);
  return {bytes < kStorePage ? allocateSlot(bytes) : allocatePages(bytes), false};
} catch (const std::bad_alloc&) {
  return {nullptr, false};
}

std::optional<std::size_t> RegionStore::release(void* block) noexcept {
  const auto address = reinterpret_cast<std::uintptr_t>(block);
  const auto found = regions_.find(address / kRegionBytes);
  if (found == regions_.end()) return releaseMapping(block);
  Region* region = found->second.get();
  const std::size_t page = address % kRegionBytes / kStorePage;
  Slab* slab = region->slabOfPage[page];
  if (slab == nullptr) {
    if (address % kStorePage != 0 || region->askedPlus1[page] == 0) return std::nullopt;
    const std::size_t asked = region->askedPlus1[page] - 1;
    region->askedPlus1[page] = 0;
    givePages({region, page}, pagesOf(asked));
    return asked;
  }
  const std::size_t offset = address % kRegionBytes - slab->firstPage * kStorePage;
  const std::size_t slot = offset / kSlotBytes[slab->sizeIndex];
  const bool startsSlot = offset % kSlotBytes[slab->sizeIndex] == 0;
  if (!startsSlot || slot >= slab->askedPlus1.size() || slab->askedPlus1[slot] == 0) {
    return std::nullopt;
  }
  return releaseSlot(slab, slot);
}

void* RegionStore::allocateSlot(std::size_t bytes) {
  const std::size_t sizeIndex = kSizeIndexes[(bytes + kSlotStep - 1) / kSlotStep];
  Slab* slab = roomySlabs_[sizeIndex].head;
  if (slab == nullptr) slab = addSlab(sizeIndex);
  if (slab == nullptr) return nullptr;
  if (slab->isEmpty()) --emptySlabs_[sizeIndex];
  const std::size_t slot = slab->freeSlots.back();
  slab->freeSlots.pop_back();
  slab->askedPlus1[slot] = static_cast<std::uint16_t>(bytes + 1);
  if (slab->freeSlots.empty()) roomySlabs_[sizeIndex].remove(slab);
  return slab->region->base + slab->firstPage * kStorePage + slot * kSlotBytes[sizeIndex];
}

RegionStore::Slab* RegionStore::addSlab(std::size_t sizeIndex) {
  const std::size_t slots = kSlabBytes / kSlotBytes[sizeIndex];
  auto slab = std::make_unique<Slab>();
  slab->sizeIndex = sizeIndex;
  slab->askedPlus1.resize(slots);
  slab->freeSlots.resize(slots);
  for (std::size_t i = 0; i < slots; ++i) {  // filled from the end, so that addresses ascend
    slab->freeSlots[i] = static_cast<std::uint16_t>(slots - 1 - i);
  }
  const PageRun run = takePages(kSlabPages, false);
  if (run.region == nullptr) return nullptr;
  slab->region = run.region;
  slab->firstPage = run.first;
  std::fill_n(&run.region->slabOfPage[run.first], kSlabPages, slab.get());
  roomySlabs_[sizeIndex].push(slab.get());
  ++emptySlabs_[sizeIndex];
  return (run.region->slabs[run.first] = std::move(slab)).get();
}

std::size_t RegionStore::releaseSlot(Slab* slab, std::size_t slot) noexcept {
  const std::size_t asked = slab->askedPlus1[slot] - std::size_t{1};
  slab->askedPlus1[slot] = 0;
  if (slab->freeSlots.empty()) roomySlabs_[slab->sizeIndex].push(slab);
  slab->freeSlots.push_back(static_cast<std::uint16_t>(slot));  // within its capacity
  if (!slab->isEmpty()) return asked;
  if (emptySlabs_[slab->sizeIndex] == 0) {
    ++emptySlabs_[slab->sizeIndex];
    return asked;
  }
  roomySlabs_[slab->sizeIndex].remove(slab);
  Region* region = slab->region;
  const std::size_t first = slab->firstPage;
  std::fill_n(&region->slabOfPage[first], kSlabPages, nullptr);
  region->slabs[first].reset();
  givePages({region, first}, kSlabPages);
  return asked;
}

void* RegionStore::allocatePages(std::size_t bytes) {
  const PageRun run = takePages(pagesOf(bytes), bytes >= kHugeFrom);
  if (run.region == nullptr) return nullptr;
  run.region->askedPlus1[run.first] = static_cast<std::uint32_t>(bytes + 1);
  return run.region->base + run.first * kStorePage;
}

RegionStore::PageRun RegionStore::takePages(std::size_t pages, bool huge) {
  PageRun run{roomyRegions_[huge].head, 0};
  for (; run.region != nullptr; run.region = run.region->next) {
    if (run.region->freePages < pages) continue;
    run.first = run.region->findRun(pages);
    if (run.first != kRegionPages) break;
  }
  if (run.region == nullptr) run = {addRegion(huge), 0};
  if (run.region == nullptr) return run;
  if (run.region->freePages == kRegionPages) --emptyRegions_[huge];
  run.region->mark(run.first, pages);
  run.region->freePages -= pages;
  if (run.region->freePages == 0) roomyRegions_[huge].remove(run.region);
  return run;
}

void RegionStore::givePages(PageRun run, std::size_t pages) noexcept {
  Region* region = run.region;
  if (region->freePages == 0) roomyRegions_[region->huge].push(region);
  region->mark(run.first, pages);
  region->freePages += pages;
  if (region->freePages != kRegionPages) return;
  if (emptyRegions_[region->huge] == 0) {
    ++emptyRegions_[region->huge];
    return;
  }
  roomyRegions_[region->huge].remove(region);
  munmap(region->base, kRegionBytes);
  regions_.erase(reinterpret_cast<std::uintptr_t>(region->base) / kRegionBytes);
}

RegionStore::Region* RegionStore::addRegion(bool huge) {
  auto region = std::make_unique<Region>();
  region->base = mapAligned(kRegionBytes);
  if (region->base == nullptr) return nullptr;
  // A store with a second region is large: its small blocks, used in any order, need more TLB
  // entries than the processor has. If the advice is refused, the store is only slower.
  if (huge || !regions_.empty()) madvise(region->base, kRegionBytes, MADV_HUGEPAGE);
  Region* const added = region.get();
  try {
    regions_.emplace(reinterpret_cast<std::uintptr_t>(added->base) / kRegionBytes,
                     std::move(region));
  } catch (const std::bad_alloc&) {
    munmap(added->base, kRegionBytes);
    throw;
  }
  added->huge = huge;
  roomyRegions_[huge].push(added);
  ++emptyRegions_[huge];
  return added;
}

// Returns true if the mapping is kept for the next block of its size.
bool RegionStore::keepSpare(char* block, std::size_t mapped) noexcept try {
  if (spareBytes_ + mapped > kMostSpareBytes) return false;
  spareMappings_.emplace_back(block, mapped);
  spareBytes_ += mapped;
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

// A kept mapping of that size, or null.
char* RegionStore::takeSpare(std::size_t mapped) noexcept {
  const auto found = std::find_if(spareMappings_.begin(), spareMappings_.end(),
                                  [&](const auto& spare) { return spare.second == mapped; });
  if (found == spareMappings_.end()) return nullptr;
  char* block = found->first;
  spareMappings_.erase(found);
  spareBytes_ -= mapped;
  return block;
}

Allocation RegionStore::allocateMapping(std::size_t bytes) {
  const std::size_t mapped = roundUp(bytes, kStorePage);
  char* block = takeSpare(mapped);
  const bool isNew = block == nullptr;
  if (isNew) {
    block = mapAligned(mapped);
    if (block == nullptr) return {nullptr, false};
    // The rest after the last whole 2 MiB would take a huge page for a few bytes.
    madvise(block, mapped / kRegionBytes * kRegionBytes, MADV_HUGEPAGE);
  }
  try {
    mappings_.emplace(block, Mapping{bytes, mapped});
  } catch (const std::bad_alloc&) {
    munmap(block, mapped);
    throw;
  }
  return {block, isNew};
}

std::optional<std::size_t> RegionStore::releaseMapping(void* block) noexcept {
  const auto found = mappings_.find(block);
  if (found == mappings_.end()) return std::nullopt;
  const Mapping gone = found->second;
  mappings_.erase(found);
  if (!keepSpare(static_cast<char*>(block), gone.mapped)) munmap(block, gone.mapped);
  return gone.asked;
}

HeapStore::~HeapStore() {
  for (const auto& [block, asked] : blocks_) std::free(block);
}

Allocation HeapStore::allocate(std::size_t bytes) noexcept try {
  void* block = nullptr;
  if (bytes > kLargestBlock || posix_memalign(&block, alignmentOf(bytes), bytes) != 0) {
    return {nullptr, false};
  }
  std::unique_ptr<void, decltype(&std::free)> owner(block, &std::free);
  blocks_.emplace(block, bytes);
  return {owner.release(), false};
} catch (const std::bad_alloc&) {
  return {nullptr, false};
}

std::optional<std::size_t> HeapStore::release(void* block) noexcept {
  const auto found = blocks_.find(block);
  if (found == blocks_.end()) return std::nullopt;
  const std::size_t asked = found->second;
  blocks_.erase(found);
  std::free(block);
  return asked;
}

}  // namespace qz
