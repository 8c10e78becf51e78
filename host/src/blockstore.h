// Where the memory of a pool comes from. A store knows every block that it has out, so that a
// foreign or freed address is refused without being looked at.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

namespace qz {

inline constexpr std::size_t kStorePage = 4096;
inline constexpr std::size_t kRegionBytes = std::size_t{2} << 20U;  // also a huge page

// What direct I/O asks of a block that it reads or writes: pages below 4096 bytes go to disks with
// sectors of 512.
constexpr std::size_t alignmentOf(std::size_t blockBytes) {
  constexpr std::size_t kSector = 512;
  if (blockBytes >= kStorePage) return kStorePage;
  return blockBytes >= kSector ? kSector : 16;
}

// A block as a store gives it.
struct Allocation {
  void* address;  // null: there is no memory
  bool isZero;    // all of it, as memory that the system has just mapped is
};

// A larger request is taken for a mistake: 4 GiB, where an address has 32 bits 2 GiB.
inline constexpr std::size_t kLargestBlock =
    sizeof(void*) == 8 ? std::size_t{1} << (sizeof(void*) * 4) : std::size_t{1} << 31U;

// A list through the `next` and `prev` of its items: joining and leaving take no memory.
template <class Item>
struct RoomyList {
  Item* head = nullptr;

  void push(Item* item) {
    item->prev = nullptr;
    item->next = head;
    if (head != nullptr) head->prev = item;
    head = item;
  }
  void remove(Item* item) {
    (item->prev != nullptr ? item->prev->next : head) = item->next;
    if (item->next != nullptr) item->next->prev = item->prev;
  }
};

// Memory in regions of 2 MiB that lie at multiples of 2 MiB.
//
// Blocks below a page come from slabs: 64 KiB cut into slots of one size, which are whole cache
// lines, so that threads that use different blocks do not wait for each other's stores. Larger ones
// take whole pages of a region, those of 64 KiB and more in regions advised for huge pages;
// ordinary memory makes a disk transfer one segment per page. Blocks beyond a region are mapped on
// their own. Bookkeeping lies apart from the blocks. Memory that becomes free goes back to the
// system, but for one empty region of each kind, one empty slab of each size and a few mappings,
// which opening and closing a file again would only ask for, and have cleared, anew.
class RegionStore {
 public:
  RegionStore();
  RegionStore(const RegionStore&) = delete;
  RegionStore& operator=(const RegionStore&) = delete;
  ~RegionStore();

  // A block aligned as alignmentOf says.
  Allocation allocate(std::size_t bytes) noexcept;

  // Takes a block back: the bytes that were asked for, or nothing when it is not one of ours.
  std::optional<std::size_t> release(void* block) noexcept;

 private:
  struct Slab;
  struct Region;
  struct Mapping {
    std::size_t asked;
    std::size_t mapped;
  };
  static constexpr std::size_t kSlotSizes = 11;

  // Where pages were found; no region: there is no memory.
  struct PageRun {
    Region* region;
    std::size_t first;
  };

  void* allocateSlot(std::size_t bytes);
  void* allocatePages(std::size_t bytes);
  Allocation allocateMapping(std::size_t bytes);
  char* takeSpare(std::size_t mapped) noexcept;
  bool keepSpare(char* block, std::size_t mapped) noexcept;
  std::size_t releaseSlot(Slab* slab, std::size_t slot) noexcept;
  std::optional<std::size_t> releaseMapping(void* block) noexcept;
  Slab* addSlab(std::size_t sizeIndex);
  Region* addRegion(bool huge);
  PageRun takePages(std::size_t pages, bool huge);
  void givePages(PageRun run, std::size_t pages) noexcept;

  std::unordered_map<std::uintptr_t, std::unique_ptr<Region>> regions_;  // by address
  std::array<RoomyList<Region>, 2> roomyRegions_;  // with a free page: ordinary, huge
  std::array<std::size_t, 2> emptyRegions_ = {};
  std::array<RoomyList<Slab>, kSlotSizes> roomySlabs_;  // with a free slot
  std::array<std::size_t, kSlotSizes> emptySlabs_ = {};
  std::unordered_map<void*, Mapping> mappings_;
  std::vector<std::pair<char*, std::size_t>> spareMappings_;  // with their bytes
  std::size_t spareBytes_ = 0;
};

// One heap block for each, so that a sanitizer sees what happens around and after it.
class HeapStore {
 public:
  HeapStore() = default;
  HeapStore(const HeapStore&) = delete;
  HeapStore& operator=(const HeapStore&) = delete;
  ~HeapStore();

  // As those of RegionStore.
  Allocation allocate(std::size_t bytes) noexcept;
  std::optional<std::size_t> release(void* block) noexcept;

 private:
  std::unordered_map<void*, std::size_t> blocks_;  // bytes asked for
};

#ifdef __SANITIZE_ADDRESS__
using BlockStore = HeapStore;
#else
using BlockStore = RegionStore;
#endif

}  // namespace qz
