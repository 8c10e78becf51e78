// The main database file of one connection: pages through the module, all else through SQLite's
// own file layer underneath.
//
// The module counts pages and may have some in memory, so what it knows is looked at again
// whenever another connection may have changed the file: after each lock that was taken, and after
// every change that the layer underneath made. Pages that it collects are written to the file
// before any lock is given up and before that layer touches the file.
#pragma once

#include <sqlite3ext.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include "descriptors.h"
#include "qziop.hpp"

namespace qzvfs {

// What the parameters of a database's name ask for.
struct Wish {
  qz::Io io = qz::Io::buffered;
  std::string asked;  // as it was written; "auto" by default
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

  // Each returns a result code of SQLite.
  int read(void* data, int bytes, sqlite3_int64 offset);
  int write(const void* data, int bytes, sqlite3_int64 offset);
  int truncate(sqlite3_int64 bytes);
  int sync(int flags);
  int fileSize(sqlite3_int64* bytes);
  // Hands collected pages to the system.
  int writeBack();
  // The layer underneath grows the file in chunks.
  int setChunked();
  bool isChunked() const noexcept { return chunked_; }
  // Others may have changed the file, or the layer underneath has.
  void stale() noexcept { looked_ = false; }

  sqlite3_file* lower() const noexcept { return lower_; }
  void setCheckpointing(bool on) noexcept { checkpointing_ = on; }
  // errno of the last failure of the module; nothing when it never failed.
  std::optional<int> lastErrno() const noexcept { return errno_; }
  // The mode of I/O of the pages, and why it is not the one asked for.
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
  bool known_;  // identity_ is that of the file underneath
  std::optional<qz::PagedFile> file_;
  qz::Io io_ = qz::Io::buffered;  // as the module was asked to open the file
  std::unique_ptr<char, Free> aligned_;
  int pageSize_ = 0;     // of the last page that was asked for
  bool looked_ = false;  // the next field holds while no other program changes the file
  bool usable_ = false;  // pages go through the module
  bool cached_ = false;  // blocks were read: their pages may be in memory
  bool checkpointing_ = false;
  bool chunked_ = false;
  std::string whyNot_;  // of pages that do not go through the module
  std::string whyNotDirect_;
  std::optional<int> errno_;  // of the last failure
};

}  // namespace qzvfs
