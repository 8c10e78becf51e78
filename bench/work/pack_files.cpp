// qzpfile pack and unpack beside dd with the same block size and flags. Both end with the file on
// disk; qzpfile also makes or checks a checksum.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "../core/passes.h"
#include "../core/program.h"
#include "../peers/bare.h"
#include "work.h"

namespace qzbench {
namespace {

constexpr std::int32_t kPageSize = 64 << 10;
constexpr std::int64_t kHeaderSize = 64 << 10;  // of what qzpfile packs

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
  if (header != 0 && header != kHeaderSize) throw Failure(path + ": not of the right length");
  const Ring ring(1, kPageSize);
  std::int64_t wrong = 0;
  for (std::int64_t page = 1; page <= geometry.pages; ++page) {
    const off_t offset = header + (page - 1) * kPageSize;
    if (pread(file.get(), ring.at(0), kPageSize, offset) != kPageSize) failWithErrno(path);
    wrong += isStamped(ring.at(0), kPageSize, page) ? 0 : 1;
  }
  requireStamps(wrong, path);
}

// Has the input in the page cache, and room for the output in memory that was in use just now: a
// machine under another one has to ask that one for pages that it has not used for some seconds.
// Takes as much memory as the file has bytes.
void settleMemory(const std::string& input, const Geometry& geometry) {
  const Descriptor file(input, O_RDONLY);
  const Ring ring(static_cast<std::size_t>(geometry.pages), kPageSize);
  while (const ssize_t bytes = read(file.get(), ring.at(0), kPageSize)) {
    if (bytes < 0) failWithErrno(input);
  }
}

// Runs a program that makes `output` of `input`, from a disk at rest.
Participant maker(std::string name, const std::string& input, const std::string& output,
                  const Geometry& geometry, std::vector<std::string> command) {
  return {std::move(name), [input, output, geometry, command = std::move(command)] {
            unlink(output.c_str());
            sync();
            settleMemory(input, geometry);
            const Sample sample = timedProgram(static_cast<std::size_t>(geometry.pages), command);
            checkOutput(output, geometry);
            return sample;
          }};
}

std::vector<std::string> ddCommand(const std::string& input, const std::string& output,
                                   const Mode& mode) {
  return {"dd", "if=" + input, "of=" + output, fmt::format("bs={}", mode.transfers), "conv=fsync"};
}

}  // namespace

void packFiles(Runner& run) {
  const Geometry geometry = {kPageSize, run.settings().directBytes / kPageSize};
  const std::string& plain = run.disk().stamped(geometry);
  const std::string packed = run.disk().file("packed");
  const std::string output = run.disk().file("made");
  const std::string& tool = run.settings().tool;
  const auto pages = static_cast<std::size_t>(geometry.pages);
  timedProgram(pages, {tool, "pack", "--page-size", "64K", plain, packed});
  for (const Mode& mode : kModes) {
    const auto contestOf = [&](const char* command, const std::string& input,
                               std::vector<std::string> dd) {
      Contest contest;
      contest.work = fmt::format("qzpfile {}, {} MiB", command, geometry.bytes() >> 20U);
      contest.variant = fmt::format("--io {}, {} a transfer", mode.name, mode.transfers);
      contest.plotLabel = fmt::format("qzpfile {}, {}", command, mode.name);
      std::vector<std::string> own = {tool, command, "--io", mode.name, input, output};
      if (input == plain) own.insert(own.end(), {"--page-size", "64K"});
      contest.participants = {maker("dd", input, output, geometry, std::move(dd)),
                              maker("qziop", input, output, geometry, std::move(own))};
      contest.goals = {{Quantity::wall, "qziop", "dd", 1.10}};
      contest.warmUp = false;
      run.hold(contest, 3);
    };
    std::vector<std::string> dd = ddCommand(plain, output, mode);
    if (mode.direct) dd.emplace_back("oflag=direct");
    contestOf("pack", plain, dd);
    dd = ddCommand(packed, output, mode);
    dd.push_back(fmt::format("iflag=skip_bytes{}", mode.direct ? ",direct" : ""));
    dd.push_back(fmt::format("skip={}", kHeaderSize));
    contestOf("unpack", packed, dd);
  }
  unlink(packed.c_str());
  unlink(output.c_str());
  run.disk().drop(geometry);
}

}  // namespace qzbench
