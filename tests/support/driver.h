// The module against a model: every call is made on both, and everything that the model knows is
// compared: status, counts, cursors, holds, the bytes of the file.
//
// The model has no cache. Where a result depends on what is cached, the model takes it from the
// system calls that the module made: a page for which there was no call must have been in memory,
// and its bytes are compared like those of any other.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "support/fixture.h"

namespace qztest {

struct Geometry {
  std::int32_t pageSize;
  std::int32_t pagesPerBlock;
  std::int64_t headerBytes;
  std::int32_t buffers;
};

// The outcome of a system call in the model.
struct CallOutcome {
  std::int64_t result;
  std::uint32_t error;
};

class Driver {
 public:
  // A file that exists already becomes the model's.
  Driver(World& world, const Geometry& geometry);

  // Faults for the next operation only.
  void plan(const std::vector<Fault>& faults);

  Status preopen(std::int32_t bytes);
  Status open(std::uint32_t mode, std::uint32_t options, std::uint32_t read, std::uint32_t write);
  Status close(std::uint32_t flags);
  Status erase();
  Status reopen(bool direct, std::uint32_t read, std::uint32_t write);
  Status read(std::int64_t page);
  Status readMany(std::int64_t page, std::int32_t count, std::uint32_t options);
  // Writes from hold number `hold`, with new bytes unless `asItIs`; -1: from the caller's own
  // memory, `shift` bytes off its alignment.
  Status write(std::int64_t page, int hold, int shift = 0, bool asItIs = false);
  Status writeSized(std::int64_t page, std::int32_t bytes);
  Status acquire();
  Status returnHold(int hold);
  Status returnForeign(void* address);
  Status add(std::int32_t count);
  Status remove(std::int32_t count);
  Status truncate(std::int64_t pages);
  Status flush();
  Status writeHeader(std::int32_t bytes);

  // Expects the file to have the model's bytes.
  void compareFile() const;
  // Removes a part of a page that a failure left at the end of the file, as a host does.
  void repair();

  bool isOpen() const { return open_; }
  bool isAttached() const { return attached_; }
  bool isPreopened() const { return preopened_; }
  // The handle counts pages that the file lacks, after a truncate or cut back that failed. The host
  // should close it.
  bool isAdrift() const;
  bool exists() const { return exists_; }
  std::int64_t pages() const { return pageCount_; }
  int holds() const { return static_cast<int>(holds_.size()); }
  // A digest of all calls and statuses so far.
  std::uint64_t digest() const { return digest_; }

 private:
  struct Hold {
    char* at;
    std::int64_t page;  // 0: acquired
    bool ofBlock;       // part of a block, also after a reopen with page buffers
    bool modified;      // its bytes may differ from the file's
  };

  bool inBlocks() const { return (world_.h->directIoMode & qz::blockMode) != 0; }
  std::int64_t offsetOf(std::int64_t page) const { return (page - 1) * file_.pageSize + header_; }
  std::int64_t size() const { return static_cast<std::int64_t>(disk_.size()); }
  std::int64_t collectedEnd() const {
    return firstCollected_ + static_cast<std::int64_t>(collected_.size());
  }
  bool isCollected(std::int64_t page) const {
    return page >= firstCollected_ && page < collectedEnd();
  }
  // Bytes of the model's file; fewer where it ends.
  std::string_view bytesAt(std::int64_t offset, std::int64_t bytes) const;
  std::string_view onDisk(std::int64_t page) const {
    return bytesAt(offsetOf(page), file_.pageSize);
  }

  // What an operation does about its failures.
  enum class Reports : std::uint8_t {
    all,         // reports each, and stores its error number
    numberless,  // reports each
    some,        // leaves some reports to the host or to another operation
    notEvenKept  // nor stores the status in the handle
  };

  const Fault* refusal(Call call);
  // The outcome that a system call of `length` bytes must have had.
  CallOutcome expect(Call call, std::int64_t length);
  CallOutcome store(std::int64_t offset, const std::string& bytes);
  Status writeBack();
  Status cut(std::int64_t pages);
  Status sync();
  Status closing(std::uint32_t flags);
  Status opening(std::uint32_t mode);
  Status physicalOpen(std::uint32_t mode);
  Status settling(std::uint32_t mode);
  Status transferred(const CallRecord& call, std::int64_t page);
  Status readChecks(std::int64_t page) const;
  Status writeChecks(std::int64_t page) const;
  Status writing(std::int64_t page, const std::string& data, bool* holdEnds);
  void hold(std::int64_t page);

  void expectErrorNumber(Status status) const;
  Status check(const std::string& what, Status actual, Status wanted,
               Reports reports = Reports::all);
  void expectWritesInPlace() const;

  World& world_;
  const Geometry file_;
  Calls expected_;  // plans the same faults for the model's calls
  std::uint32_t version_ = 0;
  std::int32_t lastErrno_ = 0;
  std::uint64_t digest_ = 14695981039346656037ULL;

  bool exists_ = false;
  std::string disk_;
  bool attached_ = false;
  bool open_ = false;
  bool preopened_ = false;
  bool sizeUnknown_ = false;  // attached, and not open since
  bool writable_ = false;
  bool shortOfBuffers_ = false;  // an open, reopen or add lacked memory
  std::int64_t header_ = 0;
  std::int64_t pageCount_ = 0;
  std::int64_t fileSize_ = 0;
  std::int64_t nextPage_ = 0;
  std::int64_t lastPageRead_ = 0;
  std::uint32_t readAccess_ = 0;
  std::uint32_t writeAccess_ = 0;
  std::int64_t firstCollected_ = 0;
  std::vector<std::string> collected_;
  std::vector<Hold> holds_;
  std::multimap<std::int64_t, std::string> torn_;  // old bytes, still cached, of half written pages
  std::map<std::int64_t, Status> failedReads_;     // page mode repeats the status of a failed read
  std::set<std::int64_t> shortBlocks_;             // first pages of cached blocks that came short
};

}  // namespace qztest
