// qzpshapes: works on one file in one shape of the module (buffered, direct or block).
//
//   qzpshapes change FILE SHAPE PAGESIZE   creates the file, reads, rewrites, appends, truncates
//   qzpshapes read FILE SHAPE PAGESIZE     expects the pages that "change" leaves
//
// Every page tells its number and version. Prints the shape obtained. If a call fails, or a page is
// not as written, prints the reason and ends with exit status 1.
#include <fmt/format.h>
#include <sysexits.h>

#include <cstring>
#include <memory>
#include <optional>
#include <qziop.hpp>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr std::int32_t kPages = 700;
constexpr std::int32_t kBlockBytes = 1 << 20;

// What the file must hold: the version of each page.
using Versions = std::vector<std::uint32_t>;

struct Page {
  std::unique_ptr<char, decltype(&std::free)> bytes;
  explicit Page(std::int32_t size)
      : bytes(
            static_cast<char*>(std::aligned_alloc(4096, (std::size_t(size) + 4095) / 4096 * 4096)),
            &std::free) {}
};

void stamp(char* at, std::int32_t bytes, std::int64_t page, std::uint32_t version) {
  const auto word = static_cast<std::uint64_t>(page) << 32U | version;
  for (std::int32_t i = 0; i + 8 <= bytes; i += 8) std::memcpy(at + i, &word, 8);
}

bool isStamped(const char* at, std::int32_t bytes, std::int64_t page, std::uint32_t version) {
  const auto word = static_cast<std::uint64_t>(page) << 32U | version;
  for (std::int32_t i = 0; i + 8 <= bytes; i += 8) {
    if (std::memcmp(at + i, &word, 8) != 0) return false;
  }
  return true;
}

// The first failure ends the run.
struct Failed {
  std::string what;
};

void require(const qz::Result<void>& done, std::string_view what) {
  if (!done) throw Failed{fmt::format("{}: {}", what, done.error().message())};
}

class File {
 public:
  File(const qz::Module& module, const std::string& name, std::string_view shape,
       std::int32_t pageSize)
      : file_(create(module)), shape_(shape), page_(pageSize) {
    require(file_.setName(name), "name");
    settings().pageSize = pageSize;
    settings().headerSize = 4096;
    settings().requestedBlockBytes = kBlockBytes;
    settings().bufferCount = 3;
    settings().openRetryCount = 5;  // for locks that a network file system refuses for a moment
    if (shape != "buffered") settings().openOptions = qz::optionDirectIo;
    settings().readAccess = shape == "block" ? qz::readOrdered : qz::readRandom;
  }

  void open(std::uint32_t mode, std::uint32_t writeAccess) {
    settings().openMode = mode;
    settings().writeAccess = writeAccess;
    require(file_.open(), "open");
    if (mode != qz::createOrReplace) return;
    const Page header(4096);
    std::memset(header.bytes.get(), 'H', 4096);
    settings().headerSize = 4096;
    std::int32_t length = 4096;
    require(file_.writeHeader(header.bytes.get(), &length), "write the header");
  }

  void write(std::int64_t page, std::uint32_t version) {
    stamp(page_.bytes.get(), settings().pageSize, page, version);
    require(file_.write(page_.bytes.get(), page), fmt::format("write page {}", page));
  }

  // In place, through a hold.
  void rewrite(std::int64_t page, std::uint32_t version) {
    qz::Result<qz::PageHold> hold = read(page);
    stamp(hold->data(), settings().pageSize, page, version);
    require(file_.write(*hold, page), fmt::format("rewrite page {}", page));
  }

  void check(std::int64_t page, std::uint32_t version) {
    const qz::Result<qz::PageHold> hold = read(page);
    if (!isStamped(hold->data(), settings().pageSize, page, version)) {
      throw Failed{fmt::format("page {} is not as written", page)};
    }
  }

  void checkAll(const Versions& versions) {
    if (settings().pageCount != std::int64_t(versions.size())) {
      throw Failed{fmt::format("{} pages, not {}", settings().pageCount, versions.size())};
    }
    for (std::size_t i = 0; i < versions.size(); ++i) check(std::int64_t(i) + 1, versions[i]);
  }

  void truncate(std::int64_t pages) { require(file_.truncate(pages), "truncate"); }
  void flush() { require(file_.flush(), "flush"); }
  void close() { require(file_.close(), "close"); }

  std::string obtained() const {
    const auto mode = file_.settings().directIoMode;
    return (mode & qz::blockMode) != 0  ? "block"
           : (mode & qz::directIo) != 0 ? "direct"
                                        : "buffered";
  }

 private:
  static qz::PagedFile create(const qz::Module& module) {
    qz::Result<qz::PagedFile> file = module.newFile();
    if (!file) throw Failed{file.error().message()};
    return *std::move(file);
  }
  qz::FileHandle& settings() { return file_.settings(); }
  qz::Result<qz::PageHold> read(std::int64_t page) {
    qz::Result<qz::PageHold> hold = file_.read(page);
    if (!hold) throw Failed{fmt::format("read page {}: {}", page, hold.error().message())};
    return hold;
  }

  qz::PagedFile file_;
  std::string shape_;
  Page page_;
};

// Changes the file and returns the versions of its pages. The changes are the same every time:
// without a file this only computes what "change" left, for "read".
Versions change(File* file) {
  std::minstd_rand random(1);  // NOLINT(cert-msc51-cpp,cert-msc32-c): the same pages every time
  Versions versions(kPages, 1);
  const auto append = [&](std::uint32_t version) {
    versions.push_back(version);
    if (file != nullptr) file->write(std::int64_t(versions.size()), version);
  };
  if (file != nullptr) file->checkAll(versions);
  for (int i = 0; i < 40; ++i) {
    const std::size_t at = random() % versions.size();
    versions[at] = 2 + std::uint32_t(i);
    if (file != nullptr) file->rewrite(std::int64_t(at) + 1, versions[at]);
  }
  for (int i = 0; i < 300; ++i) append(100);
  if (file != nullptr) file->flush();
  versions.resize(versions.size() - 20);
  if (file != nullptr) file->truncate(std::int64_t(versions.size()));
  for (int i = 0; i < 5; ++i) append(200);
  if (file == nullptr) return versions;
  for (int i = 0; i < 100; ++i) {
    const std::size_t at = random() % versions.size();
    file->check(std::int64_t(at) + 1, versions[at]);
  }
  file->flush();
  file->checkAll(versions);
  return versions;
}

std::string run(const qz::Module& module, const std::vector<std::string>& words) {
  const auto pageSize = static_cast<std::int32_t>(std::stol(words[4]));
  File file(module, words[2], words[3], pageSize);
  if (words[1] == "read") {
    file.open(qz::openOrKeep, qz::noWrite);
    file.checkAll(change(nullptr));
    return file.obtained();
  }
  file.open(qz::createOrReplace, qz::writeNewPages);
  for (std::int64_t page = 1; page <= kPages; ++page) file.write(page, 1);
  file.flush();
  file.close();
  file.open(qz::openOrKeep, qz::rewritePages);
  std::string obtained = file.obtained();
  const Versions versions = change(&file);
  file.close();
  for (const char* shape : {"buffered", "direct", "block"}) {
    File again(module, words[2], shape, pageSize);
    again.open(qz::openOrKeep, qz::noWrite);
    again.checkAll(versions);
  }
  return obtained;
}

}  // namespace

int main(int argc, char** argv) try {
  const std::vector<std::string> words(argv, argv + argc);
  if (words.size() != 5) {
    fmt::print(stderr, "usage: qzpshapes change|read FILE buffered|direct|block PAGESIZE\n");
    return EX_USAGE;
  }
  qz::StandInHost host;
  const qz::Result<qz::Module> module = qz::Module::load(host.handle());
  if (!module) throw Failed{module.error().message()};
  fmt::print("{}\n", run(*module, words));
  return 0;
} catch (const Failed& failed) {
  fmt::print(stderr, "qzpshapes: {}\n", failed.what);
  return 1;
} catch (const std::exception& error) {
  fmt::print(stderr, "qzpshapes: {}\n", error.what());
  return 1;
}
