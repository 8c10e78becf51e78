// qzpcount: runs the module's inner paths a known number of times, for a tool that counts
// instructions, or times them. Each path has its own function `count_...`, whose inclusive count
// divided by its calls is the path's; a count with an emulator starts and stops at mark().
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "qziop.hpp"

namespace {

constexpr std::int32_t kPageSize = 4096;
constexpr std::int64_t kPages = 256;
constexpr std::int64_t kRounds = 64;
constexpr int kTimedRepeats = 200;
constexpr std::int64_t kOwnPages = 16384;  // no cache of the processor holds them
constexpr int kBuffers = 4;

void require(qz::Status status) {
  if (status == qz::Status::ok) return;
  std::fprintf(stderr, "qzpcount: status 0x%08X\n", static_cast<unsigned>(status));
  std::exit(1);
}

// The handles and memory that the paths use.
struct Work {
  qz::FileHandle* handle;
  const qz::OperationTable* table;
  qz::PageRequest request;
};

}  // namespace

extern "C" {

// The comments in the assembler text keep the compiler from merging the functions.

// Marks the begin and the end of a path.
[[gnu::noinline]] void mark() { asm volatile("" ::: "memory"); }

[[gnu::noinline]] void count_nothing(Work*) { asm volatile("" ::: "memory"); }

[[gnu::noinline]] void count_page_read_miss(Work* w) {
  asm volatile("# count_page_read_miss" ::: "memory");
  require(w->table->qzpread(w->handle, &w->request, nullptr));
}
[[gnu::noinline]] void count_page_read_hit(Work* w) {
  asm volatile("# count_page_read_hit" ::: "memory");
  require(w->table->qzpread(w->handle, &w->request, nullptr));
}
[[gnu::noinline]] void count_page_return(Work* w) {
  asm volatile("# count_page_return" ::: "memory");
  require(w->table->qzpbufreturn(w->handle, w->request.buffer, nullptr));
}
[[gnu::noinline]] void count_page_write(Work* w) {
  asm volatile("# count_page_write" ::: "memory");
  require(w->table->qzpwrite(w->handle, &w->request, nullptr));
}
[[gnu::noinline]] void count_block_first_read(Work* w) {
  asm volatile("# count_block_first_read" ::: "memory");
  require(w->table->qzpread(w->handle, &w->request, nullptr));
}
[[gnu::noinline]] void count_block_return(Work* w) {
  asm volatile("# count_block_return" ::: "memory");
  require(w->table->qzpbufreturn(w->handle, w->request.buffer, nullptr));
}

}  // extern "C"

namespace {

struct Path {
  const char* name;
  void (*run)(Work*);
  int runs = 0;
  std::vector<std::int64_t> tookNs = {};
};
Path nothing = {"nothing", count_nothing};
Path pageReadMiss = {"page_read_miss", count_page_read_miss};
Path pageReadHit = {"page_read_hit", count_page_read_hit};
Path pageReturn = {"page_return", count_page_return};
Path pageWrite = {"page_write", count_page_write};
Path blockFirstRead = {"block_first_read", count_block_first_read};
Path blockReturn = {"block_return", count_block_return};
Path* const kPaths[] = {&nothing,   &pageReadMiss,   &pageReadHit, &pageReturn,
                        &pageWrite, &blockFirstRead, &blockReturn};

bool timing = false;

std::int64_t nowNs(clockid_t clock) {
  timespec now = {};
  clock_gettime(clock, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

void measure(Path& path, Work* work) {
  ++path.runs;
  const std::int64_t before = timing ? nowNs(CLOCK_MONOTONIC) : 0;
  mark();
  path.run(work);
  mark();
  if (timing) path.tookNs.push_back(nowNs(CLOCK_MONOTONIC) - before);
}

qz::PagedFile opened(const qz::Module& module, const std::string& path, std::uint32_t options) {
  auto file = module.newFile();
  if (!file) require(file.status());
  qz::FileHandle& handle = file->settings();
  handle.pageSize = kPageSize;
  handle.bufferCount = kBuffers;
  handle.openOptions = options;
  handle.readAccess = (options & qz::optionDirectIo) != 0 ? qz::readOrdered : qz::readRandom;
  handle.writeAccess = qz::rewritePages;
  handle.openMode = qz::openOrKeep;
  require(file->setName(path).status());
  require(file->open().status());
  return std::move(*file);
}

void countPageMode(const qz::Module& module, const std::string& path) {
  const qz::PagedFile file = opened(module, path, 0);
  Work work = {file.handle(), &file.table(), {}};
  work.request.length = kPageSize;
  for (std::int64_t i = 0; i < kRounds; ++i) {
    measure(nothing, &work);
    work.request.pageNumber = i % kPages + 1;
    measure(pageReadMiss, &work);
    measure(pageReturn, &work);
    // A page stays cached after it was written.
    measure(pageReadMiss, &work);
    measure(pageWrite, &work);
    measure(pageReadHit, &work);
    measure(pageWrite, &work);
  }
}

void countBlockMode(const qz::Module& module, const std::string& path) {
  const qz::PagedFile file = opened(module, path, qz::optionDirectIo);
  Work work = {file.handle(), &file.table(), {}};
  // The first page of each block brings it in.
  for (std::int64_t page = 1; page <= kPages; ++page) {
    work.request.pageNumber = page;
    if (page % file.handle()->pagesPerBlock == 1) {
      require(work.table->qzpread(work.handle, &work.request, nullptr));
      require(work.table->qzpbufreturn(work.handle, work.request.buffer, nullptr));
    } else {
      measure(blockFirstRead, &work);
      measure(blockReturn, &work);
    }
  }
}

std::int64_t medianOf(std::vector<std::int64_t> values) {
  const auto middle = values.begin() + std::ssize(values) / 2;
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// The median of each path's runs, minus that of an empty run.
void printTimes() {
  for (const Path* path : kPaths) {
    const std::int64_t ns = medianOf(path->tookNs) - medianOf(nothing.tookNs);
    std::printf("took %s %ld\n", path->name, static_cast<long>(ns));
  }
}

// Prints what a read and a return of each page in order take, beside bare reads into as many
// buffers: medians of slices taken in turn, of the thread's processor time. With `noread` loaded
// before the C library, neither makes a system call, which leaves the module's own time.
void printOwnTime(const qz::Module& module, const std::string& path) {
  constexpr int kSlices = 100;
  const qz::PagedFile file = opened(module, path, 0);
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  static std::array<std::array<char, kPageSize>, kBuffers> buffers;
  Work work = {file.handle(), &file.table(), {}};
  work.request.length = kPageSize;
  const auto bare = [&](std::int64_t page) {
    std::array<char, kPageSize>& buffer = buffers[static_cast<std::size_t>(page) % kBuffers];
    if (pread(fd, buffer.data(), buffer.size(), page * kPageSize) != kPageSize) {
      require(qz::Status::endOfFile);
    }
  };
  const auto throughModule = [&](std::int64_t page) {
    work.request.pageNumber = page + 1;
    require(work.table->qzpread(work.handle, &work.request, nullptr));
    require(work.table->qzpbufreturn(work.handle, work.request.buffer, nullptr));
  };
  const auto sliceNs = [&](const auto& read) {
    const std::int64_t before = nowNs(CLOCK_THREAD_CPUTIME_ID);
    for (std::int64_t page = 0; page < kOwnPages; ++page) read(page);
    return nowNs(CLOCK_THREAD_CPUTIME_ID) - before;
  };
  std::vector<std::int64_t> bareNs;
  std::vector<std::int64_t> moduleNs;
  std::vector<std::int64_t> moreNs;
  for (int i = 0; i < kSlices; ++i) {
    bareNs.push_back(sliceNs(bare));
    moduleNs.push_back(sliceNs(throughModule));
    moreNs.push_back(moduleNs.back() - bareNs.back());
  }
  close(fd);
  const auto perPage = [](const std::vector<std::int64_t>& ns) {
    return static_cast<double>(medianOf(ns)) / kOwnPages;
  };
  std::printf("own pread %.1f qziop %.1f more %.1f\n", perPage(bareNs), perPage(moduleNs),
              perPage(moreNs));
}

}  // namespace

// Arguments: a folder for the file, in which O_DIRECT works; then "time" to time the paths, or
// "own" for the module's own time.
int main(int argc, char** argv) {
  timing = argc == 3 && std::strcmp(argv[2], "time") == 0;
  const bool own = argc == 3 && std::strcmp(argv[2], "own") == 0;
  if (argc != 2 && !timing && !own) {
    std::fprintf(stderr, "usage: qzpcount FOLDER [time|own]\n");
    return 2;
  }
  // A program that counts instructions between marks needs their addresses.
  std::printf("mark %p\n", reinterpret_cast<void*>(&mark));
  for (const Path* path : kPaths) {
    std::printf("place %s %p\n", path->name, reinterpret_cast<void*>(path->run));
  }
  std::fflush(stdout);
  const std::string path = std::string(argv[1]) + "/qzpcount." + std::to_string(getpid());
  const std::vector<char> page(kPageSize, 'q');
  std::FILE* data = std::fopen(path.c_str(), "wbe");
  for (std::int64_t i = 0; i < (own ? kOwnPages : kPages) && data != nullptr; ++i) {
    std::fwrite(page.data(), page.size(), 1, data);
  }
  if (data == nullptr || std::fclose(data) != 0) {
    std::perror(path.c_str());
    return 1;
  }
  {
    qz::StandInHost host;
    auto module = qz::Module::load(host.handle());
    if (!module) {
      std::fprintf(stderr, "qzpcount: %s\n", module.error().message().c_str());
      return 1;
    }
    if (own) printOwnTime(*module, path);
    for (int i = 0; i < (timing ? kTimedRepeats : own ? 0 : 1); ++i) {
      countPageMode(*module, path);
      countBlockMode(*module, path);
    }
  }
  unlink(path.c_str());
  for (const Path* done : kPaths) std::printf("runs %s %d\n", done->name, done->runs);
  if (timing) printTimes();
  return 0;
}
