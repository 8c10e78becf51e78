// Paged files as the commands use them: opened through the module's operation table. Each failure
// is thrown with the file, the page and the offset.
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

// The host, the loaded module and the journal of one run. All files must be destroyed before it.
class Session {
 public:
  // modulePath: if empty, the module beside the program, else the installed one. verbose: show the
  // module's journal on standard error.
  Session(const std::string& modulePath, bool verbose);

  // A closed handle with its file name set.
  qz::PagedFile newFile(const std::string& name, Purpose purpose);

 private:
  qz::StandInHost host_;
  qz::StandInJournal journal_;
  bool verbose_;
  qz::Module module_;
};

// An interrupted change of a packed file. The source shows the file as it will be once the change
// is finished or undone.
enum class Unfinished {
  no,
  uncommitted,  // undone by the next change
  committed,    // finished by the next change
};

// Describes the change: "interrupted: ...".
const char* describe(Unfinished unfinished);

// A file as it was found: its geometry and length.
struct Source {
  std::string name;
  Geometry geometry;
  Measure measured;
  std::int64_t actualBytes = 0;  // including an unfinished change
  Unfinished unfinished = Unfinished::no;
  ChangeRecord change = {};  // of a committed change
  bool isPartial = false;    // the file has the wrong length; only its whole pages are used
  // Keeps the shared lock of this look, so that no program changes the file.
  std::shared_ptr<qz::PagedFile> look = nullptr;
};

// The geometry that the command line gives with --raw.
struct RawGeometry {
  std::int32_t pageSize = 0;
  std::int64_t headerSize = 0;
};

// Examines a file through a pre-open. Throws if the file is not recognised.
Source examine(Session& session, const std::string& name, const std::optional<RawGeometry>& raw);
// The same; also throws if the file has the wrong length or was left in the middle of a change.
Source examineWhole(Session& session, const std::string& name,
                    const std::optional<RawGeometry>& raw);
// The same; with keepGoing, a file of the wrong length is reduced to its whole pages, and a message
// on standard error says so.
Source examineToRead(Session& session, const std::string& name,
                     const std::optional<RawGeometry>& raw, bool keepGoing);
// The checks of examineWhole.
void requireSound(const Source& source);

// All `headerSize` bytes before the first page.
std::vector<std::byte> readHeader(const Source& source);
// The same from an open file.
std::vector<std::byte> readHeader(const Source& source, const PlainFile& file);

// Examines an open file.
Source inspect(const PlainFile& file, const std::optional<RawGeometry>& raw);

class File {
 public:
  static File openToRead(Session& session, const Source& source, const IoRequest& io, Use use);
  // Opens in exactly the mode asked for. If that fails, returns nothing and *refused says why.
  static std::optional<File> openInMode(Session& session, const Source& source, const IoRequest& io,
                                        IoOutcome* refused);
  // Opens and locks the file without opening its pages. The look only chooses the I/O mode:
  // `settle` takes what is found under the new lock. The lock for changes does not wait, so the
  // look's lock must have ended.
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
  // False after the module closed the file because of a short read.
  bool isOpen() const { return paged_.isOpen(); }
  // True when only the whole pages of a file of the wrong length are used.
  bool isPartial() const { return isPartial_; }
  // Payload pages; in a new file, all pages written so far, including checksum pages.
  std::int64_t pageCount() const;
  // The mode that was obtained, and why, in words.
  std::string describeIo() const;

  qz::PageHold read(std::int64_t page);
  qz::PageHold readChecksumPage(std::int64_t group);
  // Reads pages from `first` on until `area` is full, bypassing the cache.
  void readMany(std::int64_t first, std::span<std::byte> area);
  // Throws if the file became shorter since it was opened: readMany does not notice.
  void requireUncut() const;
  void write(std::int64_t page, std::span<const std::byte> bytes);
  void writeChecksumPage(std::int64_t group, std::span<const std::byte> bytes);
  // Truncates the file to `stored` pages, checksum pages included.
  void truncate(std::int64_t stored);
  // Writes bytes at the start of the header area and zeros after them. The pages stay even if this
  // fails: the module's truncate after a failed header write does nothing.
  void writeHeader(std::span<const std::byte> bytes);
  // Flushes everything to disk.
  void flush();
  // Flushes and closes the file.
  void finish();
  void close();
  // The module removes a written file that ends up empty. This keeps the file, which existed
  // before.
  void keepEmpty();
  int fd() const { return paged_.settings().fd; }

 private:
  File(qz::PagedFile paged, std::string name, const Geometry& geometry, IoOutcome io,
       Purpose purpose);
  void prepare(const IoRequest& request);
  void lock(const char* what);
  void believe(const Source& source);
  void open(const char* what);
  // The stored page to read: the page itself, or its copy in an unfinished change.
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
