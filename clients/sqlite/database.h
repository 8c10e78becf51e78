// The main database file of one connection: pages go through the module, everything else through
// SQLite's own file layer underneath.
//
// The module counts pages and may have some in memory. Its view is therefore updated whenever
// another connection may have changed the file: after each lock that was taken, and after every
// change by the layer underneath. Collected pages are written to the file before any lock is
// released and before that layer uses the file.
#pragma once

#include <sqlite3ext.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include "descriptors.h"
#include "qziop.hpp"

namespace qzvfs {

// The parameters of a database's name.
struct Wish {
  qz::Io io = qz::Io::buffered;
  std::string asked;  // as written; "auto" by default
  std::int64_t blockBytes = 262144;
  std::int32_t buffers = 4;
  bool writable = true;
};

struct Free {
  void operator()(void* memory) const { std::free(memory); }
};

class Database {
 public:
  // `lower` is the open file of the layer underneath, which the caller closes.
  Database(const qz::Module& module, sqlite3_file* lower, const char* path, Wish wish);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  // Each returns an SQLite result code.
  int read(void* data, int bytes, sqlite3_int64 offset);
  int write(const void* data, int bytes, sqlite3_int64 offset);
  int truncate(sqlite3_int64 bytes);
  int sync(int flags);
  int fileSize(sqlite3_int64* bytes);
  // Writes collected pages to the file.
  int writeBack();
  // Call this when the layer underneath enlarges the file in chunks.
  int setChunked();
  bool isChunked() const noexcept { return chunked_; }
  // Call this when others, or the layer underneath, may have changed the file.
  void stale() noexcept { looked_ = false; }

  sqlite3_file* lower() const noexcept { return lower_; }
  void setCheckpointing(bool on) noexcept { checkpointing_ = on; }
  // errno of the module's last failure; nothing if it never failed.
  std::optional<int> lastErrno() const noexcept { return errno_; }
  // The I/O mode of the pages, and why it is not the one asked for.
  std::string describe();

 private:
  int look(int pageSize, bool* throughModule);
  qz::Io ioFor(int pageSize, sqlite3_int64 bytes) const;
  bool tryOpen(int pageSize, sqlite3_int64 bytes);
  void makeAligned(int pageSize);
  bool isOurFile();
  int readFromBlock(void* data, int pageSize, std::int64_t page, bool* done);
  int readPage(void* data, int pageSize, std::int64_t page, bool* done);
  int failed(const qz::Error& error, int code);
  int failedWrite(const qz::Error& error, sqlite3_int64 bytes);
  void goBuffered();
  bool giveUpDirect(const qz::Error& error);
  void drop();

  const qz::Module& module_;
  sqlite3_file* lower_;
  std::string path_;
  Wish wish_;
  Identity identity_;
  bool known_;  // identity_ identifies the file underneath
  std::optional<qz::PagedFile> file_;
  qz::Io io_ = qz::Io::buffered;  // as requested of the module
  std::unique_ptr<char, Free> aligned_;
  int pageSize_ = 0;     // of the last page that was asked for
  bool looked_ = false;  // usable_ is valid until another program may change the file
  bool usable_ = false;  // pages go through the module
  bool cached_ = false;  // blocks were read, so their pages may be in memory
  bool checkpointing_ = false;
  bool chunked_ = false;
  std::string whyNot_;  // why pages do not go through the module
  std::string whyNotDirect_;
  std::optional<int> errno_;  // of the last failure
};

}  // namespace qzvfs
