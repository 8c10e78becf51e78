// Buffers for the bare loops.
#pragma once

#include <cstddef>
#include <memory>

namespace qzbench {

enum class MemoryKind {
  ordinary,  // pages of 4 KiB
  huge,      // 2 MiB-aligned and advised for huge pages, as the stand-in host's large blocks are
};

struct Unmap {
  std::size_t mapped;
  void operator()(char* area) const noexcept;
};

// `count` buffers of `bytes`, used in turn, page-aligned and in memory from the start. The memory
// is kept for the next ring of that size, as the stand-in host's pools keep theirs.
class Ring {
 public:
  Ring(std::size_t count, std::size_t bytes, MemoryKind kind = MemoryKind::ordinary);

  char* at(std::size_t index) const { return area_.get() + index * step_; }
  std::size_t count() const { return count_; }

  // The buffer after the last one returned.
  char* next() {
    next_ = next_ + 1 == count_ ? 0 : next_ + 1;
    return at(next_);
  }

 private:
  std::size_t count_;
  std::size_t step_;
  std::size_t next_;
  struct Keep {
    std::size_t bytes;
    std::size_t unit;
    void operator()(char* area) const noexcept;
  };
  std::unique_ptr<char[], Keep> area_;
};

}  // namespace qzbench
