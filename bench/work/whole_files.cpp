// qzpfile's pack and unpack beside dd with the same block size and flags, and beside cp; verify
// beside xxhsum. All end with the file on disk; qzpfile also makes or checks a checksum.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "../core/passes.h"
#include "../core/program.h"
#include "../peers/bare.h"
#include "work.h"

namespace qzbench {
namespace {

constexpr std::int32_t kPageSize = 64 << 10;
// Before the pages of what qzpfile packs: the header and the checksum page of their only group.
constexpr std::int64_t kBeforePages = 2 * std::int64_t{kPageSize};
constexpr std::int64_t kMostPages = kPageSize / 8 - 1;  // of one group

struct Mode {
  const char* name;
  const char* transfers;  // bytes of one
  bool direct;
};
constexpr Mode kModes[] = {
    {"buffered", "64K", false}, {"direct", "64K", true}, {"block", "4M", true}};

// The pages of the output, wherever they begin, are the input's.
void checkOutput(const std::string& path, const Geometry& geometry) {
  const Descriptor file(path, O_RDONLY);
  struct stat facts = {};
  if (fstat(file.get(), &facts) != 0) failWithErrno(path);
  const std::int64_t header = facts.st_size - geometry.bytes();
  if (header != 0 && header != kBeforePages) throw Failure(path + ": not of the right length");
  const Ring ring(1, kPageSize);
  std::int64_t wrong = 0;
  for (std::int64_t page = 1; page <= geometry.pages; ++page) {
    const off_t offset = header + (page - 1) * kPageSize;
    if (pread(file.get(), ring.at(0), kPageSize, offset) != kPageSize) failWithErrno(path);
    wrong += isStamped(ring.at(0), kPageSize, page) ? 0 : 1;
  }
  requireStamps(wrong, path);
}

// Runs a program that makes `output` of `input`.
Participant maker(std::string name, const std::string& output, const Geometry& geometry,
                  std::vector<std::string> command) {
  const auto pages = static_cast<std::size_t>(geometry.pages);
  return {std::move(name),
          [=, command = std::move(command)](std::size_t) {
            unlink(output.c_str());
            const Sample sample = timedProgram(pages, command);
            checkOutput(output, geometry);
            return sample;
          },
          pages};
}

std::vector<std::string> ddCommand(const std::string& input, const std::string& output,
                                   const Mode& mode) {
  return {"dd", "if=" + input, "of=" + output, fmt::format("bs={}", mode.transfers), "conv=fsync"};
}

// The same bytes that pack and unpack write, by a program that nobody told of pages.
std::vector<std::string> cpCommand(const std::string& input, const std::string& output) {
  return {"sh", "-c", "cp \"$0\" \"$1\" && sync \"$1\"", input, output};
}

void verifyFile(Runner& run, const std::string& packed, const Geometry& geometry) {
  const auto pages = static_cast<std::size_t>(geometry.pages);
  const auto runs = [&](std::string name, std::vector<std::string> command) {
    return Participant{
        std::move(name),
        [=, command = std::move(command)](std::size_t) { return timedProgram(pages, command); },
        pages};
  };
  Contest contest;
  contest.whole = true;
  contest.work = fmt::format("qzpfile verify, {} MiB", geometry.bytes() >> 20U);
  contest.variant = "--io buffered, in the page cache";
  contest.plotLabel = "qzpfile verify";
  contest.participants = {
      runs("xxhsum -H3", {"xxhsum", "-q", "-H3", packed}),
      runs("qziop", {run.settings().tool, "verify", "--io", "buffered", packed})};
  contest.goals = {{Quantity::wall, "qziop", "xxhsum -H3", 1.10}};
  run.hold(contest);
}

}  // namespace

void wholeFiles(Runner& run) {
  const Geometry geometry = {kPageSize,
                             std::min(run.settings().wholeBytes / kPageSize, kMostPages)};
  const std::string& plain = run.disk().stamped(geometry);
  const std::string packed = run.disk().file("packed");
  const std::string output = run.disk().file("made");
  const std::string& tool = run.settings().tool;
  const auto pages = static_cast<std::size_t>(geometry.pages);
  timedProgram(pages, {tool, "pack", "--page-size", "64K", plain, packed});
  verifyFile(run, packed, geometry);
  for (const Mode& mode : kModes) {
    const auto contestOf = [&](const char* command, const std::string& input,
                               std::vector<std::string> dd) {
      Contest contest;
      contest.whole = true;
      contest.work = fmt::format("qzpfile {}, {} MiB", command, geometry.bytes() >> 20U);
      contest.variant = fmt::format("--io {}, {} a transfer", mode.name, mode.transfers);
      contest.plotLabel = fmt::format("qzpfile {}, {}", command, mode.name);
      std::vector<std::string> own = {tool, command, "--io", mode.name, input, output};
      if (input == plain) own.insert(own.end(), {"--page-size", "64K"});
      contest.participants = {maker("dd", output, geometry, std::move(dd)),
                              maker("qziop", output, geometry, std::move(own)),
                              maker("cp, then sync", output, geometry, cpCommand(plain, output))};
      contest.goals = {{Quantity::wall, "qziop", "dd", 1.10}};
      run.hold(contest);
    };
    std::vector<std::string> dd = ddCommand(plain, output, mode);
    if (mode.direct) dd.emplace_back("oflag=direct");
    contestOf("pack", plain, dd);
    dd = ddCommand(packed, output, mode);
    dd.push_back(fmt::format("iflag=skip_bytes{}", mode.direct ? ",direct" : ""));
    dd.push_back(fmt::format("skip={}", kBeforePages));
    contestOf("unpack", packed, dd);
  }
  unlink(packed.c_str());
  unlink(output.c_str());
  run.disk().drop(geometry);
}

}  // namespace qzbench
