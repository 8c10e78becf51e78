// qzpfile bench FILE: compares reading through the module with bare pread calls, in alternating
// rounds.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <new>
#include <nlohmann/json.hpp>
#include <numeric>
#include <random>
#include <utility>
#include <vector>

#include "commands.hpp"
#include "json.hpp"
#include "signals.hpp"
#include "text.hpp"

namespace qzpfile {
namespace {

constexpr int kRounds = 5;
constexpr std::int64_t kRandomPages = 4096;  // at most, per round

struct Figure {
  IoChoice mode;
  bool random;
  std::int64_t bytes;
  double moduleSeconds;  // the best round
  double bareSeconds;
};

// The baseline: plain pread calls, as a program without the module would make them.
class BareFile {
 public:
  BareFile(const std::string& name, bool direct)
      : fd_(open(name.c_str(), O_RDONLY | O_CLOEXEC | (direct ? O_DIRECT : 0))) {
    if (fd_ < 0) throw systemFailure(Purpose::input, "cannot open", name, errno);
  }
  BareFile(const BareFile&) = delete;
  BareFile& operator=(const BareFile&) = delete;
  ~BareFile() { close(fd_); }

  void read(std::span<std::byte> area, std::int64_t offset, const std::string& name) const {
    if (pread(fd_, area.data(), area.size(), offset) <= 0) {
      throw systemFailure(Purpose::input, "cannot read", name, errno);
    }
  }

 private:
  int fd_;
};

// Memory from the module's pool. It may use huge pages, which speed up direct I/O; the comparison
// is about calls, not about memory.
class PoolMemory {
 public:
  PoolMemory(qz::MemoryPool* pool, std::size_t bytes)
      : pool_(pool), data_(static_cast<std::byte*>(pool->memAlloc(pool, bytes, 0))), size_(bytes) {
    if (data_ == nullptr) throw std::bad_alloc();
  }
  PoolMemory(const PoolMemory&) = delete;
  PoolMemory& operator=(const PoolMemory&) = delete;
  ~PoolMemory() { pool_->memFree(pool_, data_); }

  std::span<std::byte> bytes() const { return {data_, size_}; }

 private:
  qz::MemoryPool* pool_;
  std::byte* data_;
  std::size_t size_;
};

template <class Work>
double secondsOf(Work work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class Bench {
 public:
  Bench(File& file, const Invocation& call, Progress& progress)
      : file_(file),
        progress_(progress),
        bare_(call.first, file.io().mode != IoChoice::buffered),
        transfer_(file.handle().module->bufferPool,
                  static_cast<std::size_t>(file.io().mode == IoChoice::block
                                               ? file.handle().blockBytes
                                               : file.geometry().pageSize)) {}

  Figure inOrder() {
    std::vector<std::int64_t> pages(static_cast<std::size_t>(file_.pageCount()));
    std::iota(pages.begin(), pages.end(), 1);
    return measure(pages, false);
  }

  // Each page once, in an order that is the same in every run.
  Figure atRandom() {
    std::vector<std::int64_t> pages(static_cast<std::size_t>(file_.pageCount()));
    std::iota(pages.begin(), pages.end(), 1);
    std::shuffle(pages.begin(), pages.end(), std::minstd_rand(1));
    pages.resize(std::min(pages.size(), static_cast<std::size_t>(kRandomPages)));
    return measure(pages, true);
  }

 private:
  Figure measure(const std::vector<std::int64_t>& pages, bool random) {
    Figure figure{.mode = file_.io().mode,
                  .random = random,
                  .bytes = static_cast<std::int64_t>(pages.size()) * file_.geometry().pageSize,
                  .moduleSeconds = 1e9,
                  .bareSeconds = 1e9};
    for (int round = 0; round < kRounds; ++round) {
      figure.moduleSeconds =
          std::min(figure.moduleSeconds, secondsOf([&] { readByModule(pages); }));
      figure.bareSeconds = std::min(figure.bareSeconds, secondsOf([&] { readBare(pages); }));
      progress_.advance(2 * figure.bytes);
    }
    return figure;
  }

  void readByModule(const std::vector<std::int64_t>& pages) {
    for (const std::int64_t page : pages) {
      file_.read(page);
      checkInterrupt();
    }
  }

  // Each call reads as many of the pages as the buffer holds. In block mode the pages are
  // consecutive.
  void readBare(const std::vector<std::int64_t>& pages) {
    const std::size_t step = transfer_.bytes().size() / static_cast<std::size_t>(pageSize());
    for (std::size_t i = 0; i < pages.size(); i += step) {
      bare_.read(transfer_.bytes(), file_.geometry().offsetOf(pages[i]), file_.name());
      checkInterrupt();
    }
  }

  std::int64_t pageSize() const { return file_.geometry().pageSize; }

  File& file_;
  Progress& progress_;
  BareFile bare_;
  PoolMemory transfer_;
};

double rate(std::int64_t bytes, double seconds) {
  return static_cast<double>(bytes) / std::max(seconds, 1e-9);
}

double ratio(const Figure& figure) {
  return figure.bareSeconds / std::max(figure.moduleSeconds, 1e-9);
}

void printText(const Source& source, const std::vector<Figure>& figures,
               const std::vector<IoOutcome>& skipped) {
  fmt::print("{}: {} of {}, best of {} rounds\n", printable(source.name),
             counted(source.measured.wholePages, "page"), counted(source.geometry.pageSize, "byte"),
             kRounds);
  fmt::print("{:<9} {:<9} {:>12} {:>12} {:>6}\n", "mode", "order", "module", "pread", "ratio");
  for (const Figure& figure : figures) {
    fmt::print("{:<9} {:<9} {:>10}/s {:>10}/s {:>6.2f}\n", ioName(figure.mode),
               figure.random ? "random" : "in order",
               readableSize(rate(figure.bytes, figure.moduleSeconds)),
               readableSize(rate(figure.bytes, figure.bareSeconds)), ratio(figure));
  }
  for (const IoOutcome& outcome : skipped) {
    fmt::print("not in mode {}: {}\n", ioName(outcome.asked), outcome.why);
  }
  fmt::print("ratio: the module's rate over that of bare pread calls in the same mode\n");
}

void printJson(const Source& source, const std::vector<Figure>& figures) {
  nlohmann::ordered_json document = jsonDocument("bench", Exit::good);
  document["file"] = source.name;
  document["pages"] = source.measured.wholePages;
  document["page_size"] = source.geometry.pageSize;
  document["rounds"] = kRounds;
  auto& results = document["results"] = nlohmann::ordered_json::array();
  for (const Figure& figure : figures) {
    nlohmann::ordered_json entry;
    entry["mode"] = ioName(figure.mode);
    entry["order"] = figure.random ? "random" : "in_order";
    entry["bytes"] = figure.bytes;
    entry["module_bytes_per_second"] =
        static_cast<std::int64_t>(rate(figure.bytes, figure.moduleSeconds));
    entry["pread_bytes_per_second"] =
        static_cast<std::int64_t>(rate(figure.bytes, figure.bareSeconds));
    entry["ratio"] = ratio(figure);
    results.push_back(std::move(entry));
  }
  printJsonDocument(document);
}

}  // namespace

Exit runBench(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  const Source source = examineWhole(session, call.first, rawGeometry(call));
  if (source.measured.wholePages == 0) {
    throw Failure(Exit::badData, "has no pages", call.first);
  }
  std::vector<File> files;
  std::vector<IoOutcome> skipped;
  const std::int64_t pages = source.measured.wholePages;
  std::int64_t pagesToRead = 0;
  for (const IoChoice choice : {IoChoice::buffered, IoChoice::direct, IoChoice::block}) {
    IoOutcome refused;
    if (auto file = File::openInMode(session, source, {choice, call.io.blockBytes, std::nullopt},
                                     &refused)) {
      files.push_back(*std::move(file));
      pagesToRead += pages + (choice == IoChoice::block ? 0 : std::min(pages, kRandomPages));
    } else {
      skipped.push_back(refused);
    }
  }
  std::vector<Figure> figures;
  Progress progress(call.progress, "bench", pagesToRead * source.geometry.pageSize * 2 * kRounds);
  for (File& file : files) {
    Bench bench(file, call, progress);
    figures.push_back(bench.inOrder());
    if (file.io().mode != IoChoice::block) figures.push_back(bench.atRandom());
  }
  if (call.json) {
    printJson(source, figures);
  } else {
    printText(source, figures, skipped);
  }
  return Exit::good;
}

}  // namespace qzpfile
