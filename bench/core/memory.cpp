#include "memory.h"

#include <sys/mman.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include "measure.h"

namespace qzbench {
namespace {

constexpr std::size_t kSmallPage = 4096;
constexpr std::size_t kHugePage = std::size_t{2} << 20U;

std::size_t roundedUp(std::size_t bytes, std::size_t unit) {
  return (bytes + unit - 1) / unit * unit;
}

// A mapping that begins at a multiple of `alignment`; the excess before it is unmapped.
char* mapAligned(std::size_t bytes, std::size_t alignment) {
  void* area =
      mmap(nullptr, bytes + alignment, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (area == MAP_FAILED) failWithErrno("mmap");
  const auto start = reinterpret_cast<std::uintptr_t>(area);
  const std::size_t before = roundedUp(start, alignment) - start;
  if (before != 0) munmap(area, before);
  char* aligned = static_cast<char*>(area) + before;
  munmap(aligned + bytes, alignment - before);
  return aligned;
}

// Areas of destroyed rings, by size and alignment.
std::map<std::pair<std::size_t, std::size_t>, std::vector<char*>>& keptAreas() {
  static std::map<std::pair<std::size_t, std::size_t>, std::vector<char*>> kept;
  return kept;
}

}  // namespace

void Unmap::operator()(char* area) const noexcept { munmap(area, mapped); }

Ring::Ring(std::size_t count, std::size_t bytes, MemoryKind kind)
    : count_(count), step_(roundedUp(bytes, kSmallPage)), next_(count - 1) {
  const std::size_t unit = kind == MemoryKind::huge ? kHugePage : kSmallPage;
  const Keep size = {roundedUp(count_ * step_, unit), unit};
  auto& kept = keptAreas()[{size.bytes, unit}];
  if (!kept.empty()) {
    area_ = std::unique_ptr<char[], Keep>(kept.back(), size);
    kept.pop_back();
    return;
  }
  char* area = mapAligned(size.bytes, unit);
  area_ = std::unique_ptr<char[], Keep>(area, size);
  if (kind == MemoryKind::huge) madvise(area, size.bytes, MADV_HUGEPAGE);
  std::memset(area, 0, size.bytes);
}

void Ring::Keep::operator()(char* area) const noexcept {
  keptAreas()[{bytes, unit}].push_back(area);
}

}  // namespace qzbench
