// The calls that the module makes: recorded in order, and failed on demand.
//
// The test program itself defines the file system calls and exports them, so that the real
// libqziop.so finds these first. Only calls from the module's own code count; all others pass
// through. Host operations are recorded by support/hostcalls, which replaces their slots.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace qztest {

enum class Call : std::uint8_t {
  read,
  readv,
  pread,
  pwrite,
  lseek,
  ftruncate,
  fsync,
  statfs,
  lastSystemCall = statfs,
  environment,
  poolCreate,
  extensionLoad,
  converterCreate,
  treeCreate,
  memAlloc,
  memFree,
  destroy,
  fileOpen,
  fileReopen,
  fileClose,
  taskWait,
  count
};

// The objects of the host that the module allocates from, frees to or destroys.
enum HostObject : int { modulePool, bufferPool, treeExtension, converter, pageTree };

struct CallRecord {
  Call call;
  // System calls: the descriptor. poolCreate, memAlloc, memFree, destroy: the HostObject. fileOpen:
  // permissions.
  int target = 0;
  std::int64_t length = 0;  // bytes; readv: entries of the vector; taskWait: time
  std::int64_t offset = 0;  // file offset; memAlloc: flags; fileOpen, fileReopen: access mode
  std::int64_t result = 0;  // of the call; host operations: the status, or 1 for what was created
  int error = 0;            // errno when `result` is -1
  std::uint32_t flags = 0;  // fileOpen, fileReopen: open flags; fileClose: remove at close
};

inline constexpr int kEveryLater = std::numeric_limits<int>::max();
// Result of a transfer that moves only half of its bytes.
inline constexpr std::int64_t kShort = std::numeric_limits<std::int64_t>::min();
inline constexpr std::int64_t kNotDone = kShort + 1;

// Calls number `nth` to `nth` + `count` - 1 of a kind fail. A system call returns `result` with
// errno `error`, or moves half of its bytes (kShort). A host operation that creates an object
// returns null; fileOpen and fileReopen do so with system error `result` and status `error`.
// memFree and destroy do their work, unless `result` is kNotDone, and return `error`. fileClose
// returns `error` and leaves the file open.
struct Fault {
  Call call;
  int nth = 1;
  int count = 1;
  std::int64_t result = -1;
  std::uint32_t error = 5;  // EIO
};

class Calls {
 public:
  // The library whose calls count: the one that has this address. Null: none.
  void watch(void* address);

  // Under O_DIRECT a real device refuses transfers that are not aligned. So do the module's calls
  // while this is set, unless memory, offset and length are multiples of it; 0: none is refused.
  void requireAlignment(std::uint64_t bytes) { alignment_ = bytes; }

  // Replaces the planned faults; counting starts again.
  void plan(std::vector<Fault> faults);
  const std::vector<Fault>& planned() const { return faults_; }

  void clear() {
    trace_.clear();
    ownAllocations = 0;
  }
  const std::vector<CallRecord>& trace() const { return trace_; }
  int count(Call call) const;
  // Call number `place` of its kind, from 0; a record of zeros where there were fewer.
  const CallRecord& at(Call call, int place = 0) const;

  // The system calls since clear(), with bytes and offsets:
  // "pwrite 4096 at 512 moves 100, lseek 512, fsync fails with EIO". readv has its count of pages.
  std::string io() const;
  // The host's operations since clear(): "memAlloc modulePool 40 zeroed, memFree bufferPool,
  // destroy tree, fileOpen O_RDWR+O_CREAT for write+exclusive fails, fileClose remove,
  // taskWait 1000".
  std::string hostCalls() const;

  // The module takes memory from the C library only for its index of records: how often it asked
  // since clear(), and how many of its requests are granted. Not seen under the address sanitizer,
  // which replaces the allocator.
  int ownAllocations = 0;
  int ownAllocationsGiven = kEveryLater;

  // The type that statfs reports instead of the real one; 0: the real one.
  std::uint32_t fileSystemType = 0;
  std::string statfsPath;  // of the last call

  // For the functions that replace calls: counts a call; the fault planned for it, or null.
  const Fault* next(Call call);
  void record(const CallRecord& record) { trace_.push_back(record); }
  bool isWatched(const void* returnAddress) const {
    return returnAddress >= begin_ && returnAddress < end_;
  }
  bool isMisaligned(const void* memory, const CallRecord& transfer) const;

 private:
  const void* begin_ = nullptr;
  const void* end_ = nullptr;
  std::uint64_t alignment_ = 0;
  std::vector<Fault> faults_;
  int made_[static_cast<int>(Call::count)] = {};
  std::vector<CallRecord> trace_;
};

Calls& calls();

const char* nameOf(Call call);

}  // namespace qztest
