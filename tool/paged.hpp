// Paged files as the commands use them: opened through the module's operation table, with every
// failure thrown as one that names the file, the page and the offset.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "failure.hpp"
#include "geometry.hpp"
#include "iomode.hpp"
#include "qziop.hpp"
#include "qzstandin.h"

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

// A file as it was found: its geometry, and how long it is.
struct Source {
  std::string name;
  Geometry geometry;
  Measure measured;
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
void requireWhole(const Source& source);

// All `headerSize` bytes before page 1.
std::vector<std::byte> readHeader(Session& session, const Source& source);

class File {
 public:
  static File openToRead(Session& session, const Source& source, const IoRequest& io, Use use);
  // Opens in exactly the mode asked for; else nothing, and *refused says why.
  static std::optional<File> openInMode(Session& session, const Source& source, const IoRequest& io,
                                        IoOutcome* refused);
  static File openToChange(Session& session, const Source& source, const IoRequest& io);
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
  std::int64_t pageCount() const { return paged_.settings().pageCount; }
  // The mode that was obtained and why, in words.
  std::string describeIo() const;

  qz::PageHold read(std::int64_t page);
  // Pages from `first` on into `area`, as many as fill it, bypassing the cache.
  void readMany(std::int64_t first, std::span<std::byte> area);
  // Fails when the file has been cut since it was opened: readMany does not notice.
  void requireUncut() const;
  void write(std::int64_t page, std::span<const std::byte> bytes);
  void truncate(std::int64_t pages);
  // Bytes for the start of the header area; the rest of it becomes zeros.
  void writeHeader(std::span<const std::byte> bytes);
  // Puts everything on disk.
  void flush();
  // The same, and closes the file.
  void finish();
  // The module removes a file that it wrote to and that ends up without a byte; ours was there
  // before, and stays.
  void keepEmpty();

 private:
  File(qz::PagedFile paged, std::string name, const Geometry& geometry, IoOutcome io,
       Purpose purpose);
  void open(const IoRequest& request, const char* what);
  [[noreturn]] void fail(const char* what, const qz::Error& error) const;
  [[noreturn]] void failAt(const char* what, std::int64_t page, const qz::Error& error) const;

  qz::PagedFile paged_;
  std::string name_;
  Geometry geometry_;
  IoOutcome io_;
  Purpose purpose_;
};

// A page's bytes where the module keeps them.
inline std::span<const std::byte> bytesOf(const qz::PageHold& hold) {
  return std::as_bytes(std::span(hold.data(), static_cast<std::size_t>(hold.bytes())));
}

}  // namespace qzpfile
