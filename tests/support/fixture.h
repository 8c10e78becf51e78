// A host, the real module loaded into this process, one file handle and a file of its own.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "qzpos.h"
#include "qzstandin.h"
#include "support/hostcalls.h"
#include "support/syscalls.h"

namespace qztest {

using qz::Status;
using Table = qz::OperationTable;

// The library under test, loaded once per process.
struct Library {
  void* handle;
  decltype(&::qziop) qziop;
  decltype(&::qzextent) qzextent;

  static const Library& get();
  void* symbol(const char* name) const;
};

// A journal that writes its entries down by name, separated by ", ":
//   report pageOutOfRange            a failure, with the line that names the file
//   error hostForeignBlock           a status of the module or host, without that line
//   error shortHeaderReport(file)    the same with inserts; "file" stands for the file's name
//   note text: file                  a note
class NamingJournal : public qz::Journal {
 public:
  NamingJournal();

  std::string entries;
  std::u32string fileName;                // what "file" stands for
  std::uint32_t textLength = 0;           // least characters of the text of a status
  std::uint32_t nameLineLength = 0;       // least characters of the line that names the file
  std::vector<std::uint32_t> capacities;  // of the buffers that statusToBuf was given
  std::uint32_t lastLength = 0;           // characters of the last message

  void add(const std::string& entry) { entries += (entries.empty() ? "" : ", ") + entry; }
};

// The shapes of buffers and I/O that a file can be opened in.
enum class Shape : std::uint8_t { buffered, direct, block };
inline constexpr Shape kShapes[] = {Shape::buffered, Shape::direct, Shape::block};
const char* nameOf(Shape shape);

inline constexpr std::int32_t kPage = 4096;
inline constexpr std::int32_t kPagesPerBlock = 4;
inline constexpr std::int64_t kHeader = 4096;
inline constexpr std::uint32_t kOwn = qz::kCallersMemory;

// Fills a page so that every 8 bytes tell its number and version; tests whether it is so filled.
void stamp(char* data, std::int64_t bytes, std::int64_t page, std::uint32_t version);
bool isStamped(const char* data, std::int64_t bytes, std::int64_t page, std::uint32_t version);

// Memory of the caller's, aligned for direct I/O.
using CallerMemory = std::shared_ptr<char>;
CallerMemory callerMemory(std::int64_t bytes);

// A folder on a file system in memory, for World; empty where there is none.
std::string memoryFolder();

// A module with one file handle. Every operation goes through the table; it begins with an empty
// record of calls and an empty journal, and ends with a check of the invariants.
class World {
 public:
  // `folder`: where the file lies; empty: the folder of temporary files.
  explicit World(const std::string& folder = {});
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // Sets the handle for a shape: an existing file whose pages may be read and rewritten, pages of
  // kPage bytes, a header of kHeader bytes, blocks of kPagesPerBlock pages, `buffers` buffers.
  void settle(Shape shape, std::int32_t buffers = 3);
  // Makes the file without the module: a header and pages of version 0.
  void makeFile(std::int64_t pages, std::int64_t headerBytes = kHeader);
  // makeFile, settle and open.
  void openWith(Shape shape, std::int64_t pages, std::int32_t buffers = 3);
  void setName(const std::string& utf8Name);

  Status open() { return call(&Table::qzpopen); }
  Status preopen(void* buffer, std::int32_t bytes);
  Status close(std::uint32_t flags = 0) { return call(&Table::qzpclose, flags); }
  Status read(std::int64_t page);  // `at` receives the address
  Status write(std::int64_t page, void* from, std::uint32_t flags = 0);
  // Writes a page of the given version from the caller's own memory.
  Status writeOwn(std::int64_t page, std::uint32_t version = 0);
  // Reads the page, stamps it and writes it back in place.
  Status rewrite(std::int64_t page, std::uint32_t version);
  Status acquire();  // `at` receives the address
  Status returnBuffer(void* address) { return call(&Table::qzpbufreturn, address); }
  Status add(std::int32_t buffers);  // `length` receives how many
  Status remove(std::int32_t buffers) { return call(&Table::qzpbufremove, buffers); }
  Status truncate(std::int64_t pages) { return call(&Table::qzptruncate, pages); }
  Status flush() { return call(&Table::qzpflush); }
  Status writeHeader(const void* header, std::int32_t bytes);  // `length` receives the result
  Status reopen(bool direct, std::uint32_t read, std::uint32_t write);
  Status reopen(Shape shape);
  Status readMany(std::int64_t page, std::int32_t count, std::uint32_t options, char* area);

  template <class... Parameters, class... Arguments>
  Status call(Status (*Table::*operation)(qz::FileHandle*, Parameters...), Arguments... arguments) {
    begin();
    const Status status = (module->operations.*operation)(h, arguments..., journal);
    end();
    return status;
  }

  // The outcome of an operation in one line: status, system calls, journal entries.
  // "ioFailed: pread 4096 at 0 fails with EIO": a failure that the journal reports once, with no
  // other entry. "endOfFile unreported": a failure without an entry. "ok {error alreadyOpen}": all
  // other entries are listed.
  std::string did(Status status) const;

  // The size of the file; -1 if there is none.
  std::int64_t bytesOnDisk() const;
  // True if the page in the file has that version; reads without the module.
  bool onDisk(std::int64_t page, std::uint32_t version) const;
  // True if the memory at `at` holds the page in that version.
  bool holdsPage(std::int64_t page, std::uint32_t version) const {
    return isStamped(at, h->pageSize, page, version);
  }

  // Closes the file, frees the handle and destroys the module; all memory must have been freed.
  void finish();

  qz::StandInHost host;
  NamingJournal recorder;
  qz::Journal* journal = &recorder;
  qz::ExtensionObject* module = nullptr;
  qz::FileHandle* h = nullptr;
  std::string path;
  char* at = nullptr;
  qz::PageRequest request{};
  std::int32_t length = 0;

 private:
  void begin();
  void end();

  std::string folder_;
};

// A test of one file: World with GoogleTest's set-up.
class FileTest : public ::testing::Test, public World {
 protected:
  void TearDown() override { finish(); }
};

}  // namespace qztest
