// Estimates what a file would have cost with other hints: replays the pages that a program read and
// wrote through a model of the module's buffers. The model counts the calls that read and write
// pages and the bytes that they transfer; it does not estimate times. Failed operations are left
// out, and so are headers, truncations and flushes, which cost the same in every mode.
#pragma once

#include <cstdint>
#include <memory>

namespace qzpfile {

struct Transfers {
  std::int64_t calls = 0;
  std::int64_t bytes = 0;

  Transfers& operator+=(const Transfers& other) {
    calls += other.calls;
    bytes += other.bytes;
    return *this;
  }
};

// The buffers of an open file.
struct BufferShape {
  std::int32_t pageSize = 0;
  std::int32_t buffers = 0;
  std::int32_t pagesPerBlock = 0;  // 0: page mode
};

// The pages in memory and their holds. A hold is identified by the address that the program got.
class CacheModel {
 public:
  using Address = std::uint64_t;
  static constexpr Address kOwnMemory = 0;  // the program's own memory: no hold ends

  static std::unique_ptr<CacheModel> make(const BufferShape& shape, std::int64_t pages);
  CacheModel(const CacheModel&) = delete;
  CacheModel& operator=(const CacheModel&) = delete;
  virtual ~CacheModel() = default;

  virtual void read(std::int64_t page, Address address) = 0;
  virtual void acquire(Address address) = 0;
  virtual void write(std::int64_t page, Address address) = 0;
  virtual void returnHold(Address address) = 0;
  virtual void writeBack() {}
  virtual void truncate(std::int64_t pages) = 0;
  virtual void addBuffers(std::int32_t count) = 0;  // negative: removes them
  // Bypasses the buffers in every mode.
  void readMany(std::int64_t page, std::int64_t count, bool contiguous);

  const Transfers& transfers() const { return transfers_; }

 protected:
  CacheModel(const BufferShape& shape, std::int64_t pages) : shape_(shape), pages_(pages) {}

  void transfer(std::int64_t count) {
    transfers_ += {.calls = 1, .bytes = count * shape_.pageSize};
  }

  BufferShape shape_;
  std::int64_t pages_;  // pages in the file, including collected pages

 private:
  Transfers transfers_;
};

}  // namespace qzpfile
