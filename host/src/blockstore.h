// The memory of a pool. A store records every block in use, so it refuses a foreign or freed
// address without reading from it.
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

// The alignment that direct I/O needs for a block: pages below 4096 bytes are used on disks with
// sectors of 512 bytes.
constexpr std::size_t alignmentOf(std::size_t blockBytes) {
  constexpr std::size_t kSector = 512;
  if (blockBytes >= kStorePage) return kStorePage;
  return blockBytes >= kSector ? kSector : 16;
}

// A block that a store has allocated.
struct Allocation {
  void* address;  // null: memory ran out
  bool isZero;    // all bytes of it, because the system has just mapped it
};

// The largest block: 4 GiB, or 2 GiB where an address has 32 bits. A larger request is refused.
inline constexpr std::size_t kLargestBlock =
    sizeof(void*) == 8 ? std::size_t{1} << (sizeof(void*) * 4) : std::size_t{1} << 31U;

// A list that links its items through their `next` and `prev`: adding and removing items takes no
// memory.
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

// Memory in regions of 2 MiB, aligned to 2 MiB.
//
// Blocks smaller than a page come from slabs: 64 KiB divided into slots of one size, which are
// whole cache lines, so that threads that use different blocks do not wait for each other's stores.
// Larger blocks take whole pages of a region. Blocks of 64 KiB and more use regions advised for
// huge pages, because in ordinary memory a disk transfer needs one segment per page. Blocks larger
// than a region have their own mappings. Bookkeeping is kept apart from the blocks. Free memory
// goes back to the system, except one empty region and slab of each kind and a few mappings: a file
// that is closed and opened again uses them without mapping and clearing them again.
class RegionStore {
 public:
  RegionStore();
  RegionStore(const RegionStore&) = delete;
  RegionStore& operator=(const RegionStore&) = delete;
  ~RegionStore();

  // A block aligned as alignmentOf says.
  Allocation allocate(std::size_t bytes) noexcept;

  // Frees a block. Returns its requested size; no value if the address is not a block of this
  // store.
  std::optional<std::size_t> release(void* block) noexcept;

 private:
  struct Slab;
  struct Region;
  struct Mapping {
    std::size_t asked;
    std::size_t mapped;
  };
  static constexpr std::size_t kSlotSizes = 11;

  // Consecutive free pages. A null region: memory ran out.
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
  std::vector<std::pair<char*, std::size_t>> spareMappings_;  // with their sizes
  std::size_t spareBytes_ = 0;
};

// One heap block for each block, so that a sanitizer sees accesses outside it and after it was
// freed.
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
  std::unordered_map<void*, std::size_t> blocks_;  // requested bytes
};

#ifdef __SANITIZE_ADDRESS__
using BlockStore = HeapStore;
#else
using BlockStore = RegionStore;
#endif

}  // namespace qz
