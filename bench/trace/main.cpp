// qzptracecost FOLDER: what the trace adds to an operation. Reads and returns pages of a file in
// FOLDER through the module, through the trace library while it does not record, and while it
// records, in alternation; shows the best round of each.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "qziop.hpp"

namespace {

constexpr std::int32_t kPageSize = 4096;
constexpr int kRounds = 60;
constexpr int kPairs = 500;

[[noreturn]] void fail(const qz::Error& error) {
  std::fprintf(stderr, "qzptracecost: %s\n", error.message().c_str());
  std::exit(1);
}

// A file of two pages, the first of which is held: a read of it makes no system call, a read of the
// second makes one.
class Reader {
 public:
  Reader(qz::StandInHost& host, const char* library, const std::string& name)
      : module_(qz::Module::load(host.handle(), nullptr, library)) {
    if (!module_) fail(module_.error());
    auto file = module_->newFile();
    if (!file) fail(file.error());
    file_ = std::move(*file);
    qz::FileHandle& settings = file_->settings();
    settings.pageSize = kPageSize;
    settings.bufferCount = 3;
    settings.readAccess = qz::readRandom;
    if (const auto named = file_->setName(name); !named) fail(named.error());
    if (const auto opened = file_->open(); !opened) fail(opened.error());
    auto held = file_->read(1);
    if (!held) fail(held.error());
    held->release();  // the close ends the hold
  }

  // Keeps the shortest time of an operation, in nanoseconds.
  void round(std::int64_t page, double* best) {
    const qz::OperationTable& table = file_->table();
    qz::PageRequest request{};
    request.pageNumber = page;
    const auto began = std::chrono::steady_clock::now();
    for (int i = 0; i < kPairs; ++i) {
      const qz::Status status = table.qzpread(file_->handle(), &request, nullptr);
      if (status != qz::Status::ok) fail(qz::errorOf(file_->handle(), status));
      table.qzpbufreturn(file_->handle(), request.buffer, nullptr);
    }
    const std::chrono::duration<double, std::nano> spent = std::chrono::steady_clock::now() - began;
    *best = std::min(*best, spent.count() / (2 * kPairs));
  }

 private:
  qz::Result<qz::Module> module_;
  std::optional<qz::PagedFile> file_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return std::fputs("usage: qzptracecost FOLDER\n", stderr), 64;
  const std::string folder = argv[1];
  const std::string name = folder + "/pages";
  const std::string trace = folder + "/trace.json";
  std::FILE* const file = std::fopen(name.c_str(), "w");
  const std::string contents(std::size_t{2} * kPageSize, 'x');
  if (file == nullptr || std::fputs(contents.c_str(), file) < 0 || std::fclose(file) != 0) {
    return std::perror(name.c_str()), 1;
  }
  qz::StandInHost host;
  unsetenv("QZIOP_TRACE");
  Reader plain(host, QZIOP_MODULE, name);
  Reader idle(host, QZIOP_TRACE_MODULE, name);
  setenv("QZIOP_TRACE", trace.c_str(), 1);
  Reader recording(host, QZIOP_TRACE_MODULE, name);
  std::printf("%-42s %10s %10s %10s %8s\n", "ns an operation, best of rounds in turn", "module",
              "not asked", "recording", "added");
  for (const std::int64_t page : {1, 2}) {
    double best[3] = {1e9, 1e9, 1e9};
    for (int i = 0; i < kRounds; ++i) {
      plain.round(page, &best[0]);
      idle.round(page, &best[1]);
      recording.round(page, &best[2]);
    }
    std::printf("%-42s %10.0f %10.0f %10.0f %8.0f\n",
                page == 1 ? "read in memory, return" : "read by one pread of 4 KiB, return",
                best[0], best[1], best[2], best[2] - best[0]);
  }
  std::remove(name.c_str());
  std::remove(trace.c_str());
  return 0;
}
