// Paged files as the commands use them: opened through the module's operation table, with every
// failure thrown as one that names the file, the page and the offset.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "failure.hpp"
#include "geometry.hpp"
#include "iomode.hpp"
#include "qziop.hpp"
#include "qzstandin.h"
#include "record.hpp"

namespace qzpfile {

// The host, the loaded module and the journal of one run. Files must be gone before it is.
class Session {
 public:
  // modulePath: empty for the module beside the program, else the installed one. verbose: the
  // module's journal goes to standard error.
  Session(const std::string& modulePath, bool verbose);

  // A closed handle that has its name.
  qz::PagedFile newFile(const std::string& name, Purpose purpose);

 private:
  qz::StandInHost host_;
  qz::StandInJournal journal_;
  bool verbose_;
  qz::Module module_;
};

// A change of one of the tool's own files that was interrupted. The source shows the file as it is
// once the change has been finished or undone.
enum class Unfinished {
  no,
  undecided,  // undone by the next change
  decided,    // finished by the next change
};

// "interrupted: ...", for people.
const char* describe(Unfinished unfinished);

// A file as it was found: its geometry, and how long it is.
struct Source {
  std::string name;
  Geometry geometry;
  Measure measured;
  std::int64_t actualBytes = 0;  // an unfinished change included
  Unfinished unfinished = Unfinished::no;
  ChangeRecord change = {};  // of a decided change
  bool isPartial = false;    // not whole, and taken for the whole pages that it has
  // Keeps the shared lock under which all this was read, so that no program changes the file.
  std::shared_ptr<qz::PagedFile> look = nullptr;
};

// The geometry that the command line gives with --raw.
struct RawGeometry {
  std::int32_t pageSize = 0;
  std::int64_t headerSize = 0;
};

// Looks at a file through a pre-open. Fails when it is not recognised.
Source examine(Session& session, const std::string& name, const std::optional<RawGeometry>& raw);
// The same; fails also when the file is not whole, or when a change of it was never finished.
Source examineWhole(Session& session, const std::string& name,
                    const std::optional<RawGeometry>& raw);
// The same; with keepGoing, of a file that is not whole, only the whole pages are taken, and a
// message on standard error says so.
Source examineToRead(Session& session, const std::string& name,
                     const std::optional<RawGeometry>& raw, bool keepGoing);
// The checks of examineWhole.
void requireSound(const Source& source);

// All `headerSize` bytes before the first page.
std::vector<std::byte> readHeader(const Source& source);
// The same from an open file.
std::vector<std::byte> readHeader(const Source& source, const PlainFile& file);

// What an open file is. look: keeps it open.
Source inspect(const PlainFile& file, const std::optional<RawGeometry>& raw);

class File {
 public:
  static File openToRead(Session& session, const Source& source, const IoRequest& io, Use use);
  // Opens in exactly the mode asked for; else nothing, and *refused says why.
  static std::optional<File> openInMode(Session& session, const Source& source, const IoRequest& io,
                                        IoOutcome* refused);
  // Opens and locks the file without opening its pages. Nothing that the look told is believed but
  // what the I/O mode was chosen by: `settle` takes what was found under the lock. The lock for
  // changing waits for nobody, so the look's must have ended.
  static File lockToRead(Session& session, const Source& look);
  static File lockToChange(Session& session, const Source& look, const IoRequest& io);
  void settle(const Source& source, const IoRequest& io);
  // Replaces the file `path`; messages call it `name`. fileBytes: of the finished file, if known.
  static File create(Session& session, const std::string& path, const std::string& name,
                     const Geometry& geometry, const IoRequest& io,
                     std::optional<std::int64_t> fileBytes);

  const std::string& name() const { return name_; }
  const Geometry& geometry() const { return geometry_; }
  const IoOutcome& io() const { return io_; }
  // The module's record of the file.
  const qz::FileHandle& handle() const { return paged_.settings(); }
  // False after the module closed the file because a page came back short.
  bool isOpen() const { return paged_.isOpen(); }
  // True when only the whole pages of a file that is not whole are taken for the file.
  bool isPartial() const { return isPartial_; }
  // Pages without checksum pages; of a new file, those written so far with them.
  std::int64_t pageCount() const;
  // The mode that was obtained and why, in words.
  std::string describeIo() const;

  qz::PageHold read(std::int64_t page);
  qz::PageHold readChecksumPage(std::int64_t group);
  // Pages from `first` on into `area`, as many as fill it, bypassing the cache.
  void readMany(std::int64_t first, std::span<std::byte> area);
  // Fails when the file has been cut since it was opened: readMany does not notice.
  void requireUncut() const;
  void write(std::int64_t page, std::span<const std::byte> bytes);
  void writeChecksumPage(std::int64_t group, std::span<const std::byte> bytes);
  // Cuts the file to `stored` pages, checksum pages included.
  void truncate(std::int64_t stored);
  // Bytes for the start of the header area; the rest of it becomes zeros. Pages stay whatever
  // happens: the module's cut after a failed write of a header is left out.
  void writeHeader(std::span<const std::byte> bytes);
  // Puts everything on disk.
  void flush();
  // The same, and closes the file.
  void finish();
  void close();
  // The module removes a file that it wrote to and that ends up without a byte; ours was there
  // before, and stays.
  void keepEmpty();
  int fd() const { return paged_.settings().fd; }

 private:
  File(qz::PagedFile paged, std::string name, const Geometry& geometry, IoOutcome io,
       Purpose purpose);
  void prepare(const IoRequest& request);
  void lock(const char* what);
  void believe(const Source& source);
  void open(const char* what);
  // What stands for a stored page: itself, or where an unfinished change has it.
  std::int64_t placeOf(std::int64_t stored) const;
  qz::PageHold readStored(std::int64_t stored, std::int64_t offset, std::int64_t page);
  void readRun(std::int64_t first, std::span<std::byte> area);
  [[noreturn]] void fail(const char* what, const qz::Error& error) const;
  [[noreturn]] void failAt(const char* what, std::int64_t page, std::int64_t offset,
                           const qz::Error& error) const;

  qz::PagedFile paged_;
  std::string name_;
  Geometry geometry_;
  IoOutcome io_;
  Purpose purpose_;
  std::map<std::int64_t, std::int64_t> moved_;  // stored pages of an unfinished change
  bool isPartial_ = false;
};

// A page's bytes where the module keeps them.
inline std::span<const std::byte> bytesOf(const qz::PageHold& hold) {
  return std::as_bytes(std::span(hold.data(), static_cast<std::size_t>(hold.bytes())));
}

}  // namespace qzpfile
