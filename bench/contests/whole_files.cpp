// qzpfile compared with programs that do not know of pages: pack and unpack with dd (same transfer
// size and flags), copy with cp, verify with xxhsum. All programs that write end with the file on
// disk; qzpfile also makes or checks checksums. Files of version 1 have one checksum of all pages,
// files of version 2 also one for each page.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "../core/passes.h"
#include "../core/program.h"
#include "../peers/bare.h"
#include "work.h"

namespace qzbench {
namespace {

constexpr std::int32_t kPageSize = 64 << 10;
constexpr std::int64_t kMostPages = kPageSize / 8 - 1;  // of one group: one checksum page is enough
constexpr int kVersions[] = {1, 2};
// Work without disk I/O is quick: larger files keep the start of the programs out of the result.
constexpr std::int64_t kVerifyTimes = 4;
constexpr std::int64_t kMemoryTimes = 2;

// Bytes before the pages: the header and, in version 2, the checksum page of the only group.
std::int64_t beforePages(int version) { return version * std::int64_t{kPageSize}; }

struct Mode {
  const char* name;
  const char* transfers;  // bytes per transfer
  bool direct;
  bool inMemory;  // place of the files
};
// In memory, no disk hides the time of the programs themselves.
constexpr Mode kModes[] = {{"buffered", "64K", false, true},
                           {"buffered", "64K", false, false},
                           {"direct", "64K", true, false},
                           {"block", "4M", true, false}};

// Writes leftovers of earlier runs now, so that the system does not write them during the next run.
void settle(const std::string& path) {
  const Descriptor folder(path.substr(0, path.rfind('/')), O_RDONLY | O_DIRECTORY);
  if (syncfs(folder.get()) != 0) failWithErrno(path);
}

// Whole pages begin at `before`; checks some of them, including the first and the last, against the
// input.
void checkOutput(const std::string& path, const Geometry& geometry, std::int64_t before) {
  constexpr std::int64_t kLookedAt = 16;
  const Descriptor file(path, O_RDONLY);
  struct stat facts = {};
  if (fstat(file.get(), &facts) != 0) failWithErrno(path);
  if (facts.st_size != before + geometry.bytes()) {
    throw Failure(path + ": not of the right length");
  }
  const Ring ring(1, kPageSize);
  std::int64_t wrong = 0;
  for (std::int64_t i = 0; i <= kLookedAt; ++i) {
    const std::int64_t page = 1 + (geometry.pages - 1) * i / kLookedAt;
    const off_t offset = before + (page - 1) * kPageSize;
    if (pread(file.get(), ring.at(0), kPageSize, offset) != kPageSize) failWithErrno(path);
    wrong += isStamped(ring.at(0), kPageSize, page) ? 0 : 1;
  }
  requireStamps(wrong, path);
}

using Command = std::vector<std::string>;

// The files of the contests in one folder, and the commands that work on them.
class Files {
 public:
  Files(Folder& folder, std::string tool, const Geometry& geometry)
      : tool_(std::move(tool)),
        geometry_(geometry),
        plain_(folder.stampedCopy(geometry, "plain")),
        output_(folder.file("made")) {
    for (const int version : kVersions) {
      packed_.push_back(folder.file(fmt::format("packed-{}", version)));
      timedProgram(1, {tool_, "pack", "--page-size", "64K", "--format-version",
                       std::to_string(version), plain_, packed_.back()});
    }
  }
  Files(const Files&) = delete;
  Files& operator=(const Files&) = delete;
  ~Files() {
    for (const std::string& path : packed_) unlink(path.c_str());
    unlink(plain_.c_str());
    unlink(output_.c_str());
  }

  const std::string& packed(int version) const {
    return packed_[static_cast<std::size_t>(version - 1)];
  }

  Participant dd(const std::string& input, std::int64_t before, const Mode& mode,
                 bool keepsHeader) const {
    Command command = {"dd", "if=" + input, "of=" + output_, fmt::format("bs={}", mode.transfers),
                       "conv=fsync"};
    const bool readsPages = before != 0;
    if (readsPages && mode.direct) command.emplace_back("iflag=direct");
    if (readsPages && !keepsHeader) {
      command.emplace_back("iflag=skip_bytes");
      command.push_back(fmt::format("skip={}", before));
    }
    if (mode.direct && (!readsPages || keepsHeader)) command.emplace_back("oflag=direct");
    return maker("dd", command, keepsHeader ? before : 0);
  }
  Participant ddIn(const Mode& mode) const { return dd(plain_, 0, mode, false); }
  Participant ddOut(const Mode& mode) const { return dd(packed(2), beforePages(2), mode, false); }
  Participant ddCopy(const Mode& mode) const { return dd(packed(2), beforePages(2), mode, true); }
  // Copies, and then flushes to disk as the others do.
  Participant cp(const std::string& input, std::int64_t before) const {
    return maker("cp, then sync", {"sh", "-c", R"(cp "$0" "$1" && sync "$1")", input, output_},
                 before);
  }
  Participant cpIn() const { return cp(plain_, 0); }
  Participant cpCopy() const { return cp(packed(2), beforePages(2)); }

  Participant pack(int version, const Mode& mode) const {
    return maker(nameOf(version),
                 {tool_, "pack", "--page-size", "64K", "--format-version", std::to_string(version),
                  "--io", mode.name, plain_, output_},
                 beforePages(version));
  }
  Participant unpack(int version, const Mode& mode) const {
    return maker(nameOf(version), {tool_, "unpack", "--io", mode.name, packed(version), output_},
                 0);
  }
  // The new file has version 2.
  Participant copy(int version, const Mode& mode) const {
    return maker(nameOf(version), {tool_, "copy", "--io", mode.name, packed(version), output_},
                 beforePages(2));
  }
  Participant verify(int version) const {
    return runs(nameOf(version), {tool_, "verify", "--io", "buffered", packed(version)});
  }
  Participant xxhsum() const { return runs("xxhsum -H3", {"xxhsum", "-q", "-H3", packed(2)}); }

  static std::string nameOf(int version) { return fmt::format("qziop, version {}", version); }

 private:
  std::size_t pages() const { return static_cast<std::size_t>(geometry_.pages); }

  Participant runs(std::string name, const Command& command) const {
    const auto run = [pages = pages(), command](std::size_t) {
      return timedProgram(pages, command);
    };
    return {std::move(name), run, pages()};
  }
  // Runs a command that makes the output.
  Participant maker(std::string name, const Command& command, std::int64_t before) const {
    const auto run = [pages = pages(), command, before, output = output_,
                      geometry = geometry_](std::size_t) {
      unlink(output.c_str());
      settle(output);
      const Sample sample = timedProgram(pages, command);
      checkOutput(output, geometry, before);
      return sample;
    };
    return {std::move(name), run, pages()};
  }

  std::string tool_;
  Geometry geometry_;
  std::string plain_;
  std::string output_;
  std::vector<std::string> packed_;  // of each version
};

// The floor and qzpfile on both versions.
Contest contestOf(const char* command, const Geometry& geometry, std::string variant,
                  const Participant& floor) {
  Contest contest;
  contest.whole = true;
  contest.work = fmt::format("qzpfile {}, {} MiB", command, geometry.bytes() >> 20U);
  contest.variant = std::move(variant);
  contest.participants = {floor};
  for (const int version : kVersions) {
    contest.goals.push_back({Quantity::wall, Files::nameOf(version), floor.name, 1.10});
  }
  return contest;
}

void makeFiles(Runner& run, const Geometry& geometry, const Files& files, const Mode& mode) {
  const char* place = mode.inMemory ? "memory" : "disk";
  const std::string variant = fmt::format("--io {}, {} a transfer, in a file {}", mode.name,
                                          mode.transfers, mode.inMemory ? "in memory" : "on disk");
  const auto labelOf = [&](const char* command) {
    return fmt::format("qzpfile {}, {}, {}", command, mode.name, place);
  };
  Contest pack = contestOf("pack", geometry, variant, files.ddIn(mode));
  Contest unpack = contestOf("unpack", geometry, variant, files.ddOut(mode));
  Contest copy =
      contestOf("copy", geometry, variant, mode.direct ? files.ddCopy(mode) : files.cpCopy());
  for (const int version : kVersions) {
    pack.participants.push_back(files.pack(version, mode));
    unpack.participants.push_back(files.unpack(version, mode));
    copy.participants.push_back(files.copy(version, mode));
  }
  if (!mode.direct) {
    pack.participants.push_back(files.cpIn());
    unpack.participants.push_back(files.cpIn());
  }
  pack.plotLabel = labelOf("pack");
  unpack.plotLabel = labelOf("unpack");
  copy.plotLabel = labelOf("copy");
  run.hold(pack);
  run.hold(unpack);
  run.hold(copy);
}

Geometry geometryOf(std::int64_t bytes) {
  return {kPageSize, std::min(bytes / kPageSize, kMostPages)};
}

}  // namespace

void wholeFiles(Runner& run) {
  const std::string& tool = run.settings().tool;
  {
    const Geometry geometry = geometryOf(kVerifyTimes * run.settings().wholeBytes);
    const Files files(run.memory(), tool, geometry);
    Contest contest =
        contestOf("verify", geometry, "--io buffered, in a file in memory", files.xxhsum());
    contest.plotLabel = "qzpfile verify";
    for (const int version : kVersions) contest.participants.push_back(files.verify(version));
    run.hold(contest);
  }
  for (const Mode& mode : kModes) {
    const Geometry geometry =
        geometryOf((mode.inMemory ? kMemoryTimes : 1) * run.settings().wholeBytes);
    const Files files(mode.inMemory ? run.memory() : run.disk(), tool, geometry);
    makeFiles(run, geometry, files, mode);
  }
}

}  // namespace qzbench
