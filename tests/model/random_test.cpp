// Random operations, valid and invalid, and random faults, on the module and on the model
// (support/driver.h). A seed always gives the same operations and outcomes. QZIOP_FIRST_SEED and
// QZIOP_SEEDS say which seed is the first and how many follow.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <random>

#include "support/driver.h"
#include "support/failures.h"

namespace qztest {
namespace {

using qz::Status;

class Walk {
 public:
  // `way`: of direct I/O, where the pages are aligned.
  Walk(std::uint64_t seed, const std::string& folder, DirectIo way)
      : random_(seed), world_(folder), way_(way), driver_(world_, prepare()) {}

  std::uint64_t run() {
    const int steps = pick(20, 500);
    for (int step = 0; step < steps && !::testing::Test::HasFailure(); ++step) {
      SCOPED_TRACE("step " + std::to_string(step));
      if (chance(12)) {
        faults_ = {fault()};
        if (chance(20)) faults_.push_back(fault());
      }
      if (driver_.isAdrift()) faults_.clear();
      driver_.plan(faults_);
      if (driver_.isAdrift()) {
        driver_.close(0);
        driver_.repair();
      } else if (driver_.isOpen()) {
        useOpen();
      } else {
        useClosed();
      }
      if (step % 25 == 0 || !faults_.empty()) driver_.compareFile();
      faults_.clear();
    }
    if (driver_.isAttached()) {
      world_.h->openOptions &= ~qz::optionFlushAtClose;
      driver_.close(0);
    }
    driver_.compareFile();
    world_.finish();
    return driver_.digest();
  }

 private:
  int pick(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random_); }
  bool chance(int percent) { return pick(1, 100) <= percent; }
  template <class T, std::size_t n>
  T one(const T (&choices)[n]) {
    return choices[pick(0, n - 1)];
  }

  Geometry prepare() {
    const bool aligned = chance(50) || way_ == DirectIo::real;
    setDirectIo(aligned ? way_ : DirectIo::unaligned);
    geometry_ = {aligned ? 4096 : 512, pick(1, 5), 0, chance(30) ? pick(16, 40) : pick(1, 4)};
    geometry_.headerBytes = aligned ? one({0, 4096, 8192}) : one({0, 1, 100, 512});
    world_.h->pageSize = geometry_.pageSize;
    world_.h->openRetryCount = pick(0, 2);
    if (chance(70)) world_.makeFile(pick(0, 20), geometry_.headerBytes);
    return geometry_;
  }

  Fault fault() {
    const Call call =
        one({Call::pwrite, Call::pwrite, Call::pwrite, Call::pread, Call::pread, Call::read,
             Call::readv, Call::lseek, Call::ftruncate, Call::fsync, Call::memAlloc, Call::memFree,
             Call::treeCreate, Call::destroy, Call::fileOpen, Call::fileReopen, Call::fileClose});
    const Failures& failures = failuresOf(call);
    const auto& [result, error, count] =
        failures.at(static_cast<std::size_t>(pick(0, static_cast<int>(failures.size()) - 1)));
    Fault made{call, pick(1, 3), std::max(count, pick(1, 2)), result, error};
    if (call == Call::memAlloc) made.nth = pick(1, 8);
    if ((call == Call::memAlloc || call == Call::pwrite) && chance(25)) made.count = kEveryLater;
    if (call == Call::fileOpen || call == Call::fileReopen) {
      made.result = one({EIO, EINVAL});
      made.nth = 1;
    }
    return made;
  }

  std::int64_t somePage() {
    if (chance(4)) {
      return one({std::int64_t{0}, std::int64_t{-1}, driver_.pages() + 2, INT64_MAX, INT64_MIN});
    }
    return pick(1, static_cast<int>(driver_.pages()) + 1);
  }

  std::uint32_t someRead() { return one({0U, 1U, 2U, 2U, 4U, 4U, 4U, 8U, 16U}); }
  std::uint32_t someWrite() { return one({0U, 1U, 2U, 2U, 2U, 2U}); }

  void useClosed() {
    const bool left = driver_.isAttached() && !driver_.isPreopened();
    if (left) world_.h->openOptions &= ~qz::optionFlushAtClose;
    const int choice = pick(1, 100);
    if (left && choice <= 70) {
      driver_.close(chance(5) ? qz::kRemoveFile : 0);
    } else if (choice <= 80) {
      const std::uint32_t options =
          (chance(65) ? qz::optionDirectIo : 0U) | (chance(5) ? qz::optionFlushAtClose : 0U);
      const auto mode = driver_.exists() && chance(93) ? one({qz::openOrKeep, qz::openOrRemove})
                                                       : qz::createOrReplace;
      if (driver_.open(mode, options, someRead(), someWrite()) == Status::misfit) {
        driver_.repair();
      } else if (driver_.isOpen() && mode == qz::createOrReplace && chance(90)) {
        driver_.writeHeader(static_cast<std::int32_t>(geometry_.headerBytes));
      }
    } else if (choice <= 86) {
      driver_.preopen(way_ == DirectIo::real ? 4096 * pick(0, 2) : pick(0, 600));
    } else if (choice <= 88) {
      driver_.erase();
    } else {
      useWrongly();
    }
  }

  void* neverHeld() {
    const qz::FileHandle& h = *world_.h;
    const int choice = pick(1, 3);
    if (choice == 1 && h.writeBlock != nullptr) return h.writeBlock->data;
    if (choice == 2 && h.pageFreeList.tail != nullptr) return h.pageFreeList.tail->data;
    return &world_;
  }

  // Calls that the handle must refuse, or that meet the end of the file.
  Status useWrongly() {
    const int choice = pick(1, 9);
    const std::int32_t size = geometry_.pageSize;
    if (choice == 1) return driver_.writeSized(1, one({0, -1, size - 1, size + 1}));
    if (choice == 2) return driver_.returnForeign(neverHeld());
    if (choice == 3) return driver_.erase();
    if (choice == 4) return driver_.preopen(way_ == DirectIo::real ? 4096 : 8);
    if (choice == 5) return driver_.writeHeader(-1);
    if (choice == 6) return driver_.truncate(one({std::int64_t{-1}, driver_.pages() + 1}));
    if (choice == 7) return driver_.readMany(somePage(), one({0, -1}), 0);
    if (choice == 8) return driver_.write(driver_.pages() + 2, -1);
    return driver_.read(one({std::int64_t{0}, driver_.pages() + 1, driver_.pages() + 2}));
  }

  Status useOpen() {
    const int choice = pick(1, 100);
    const int hold = driver_.holds() > 0 ? pick(0, driver_.holds() - 1) : -1;
    const auto header = static_cast<int>(geometry_.headerBytes);
    if (choice <= 28) return driver_.read(somePage());
    if (choice <= 58) return writeSomething(hold);
    if (choice <= 73 && hold >= 0) return driver_.returnHold(hold);
    if (choice <= 79) return driver_.acquire();
    if (choice <= 83) return driver_.readMany(somePage(), pick(1, 6), one({0U, qz::kContiguous}));
    if (choice <= 86) return driver_.truncate(pick(0, static_cast<int>(driver_.pages())));
    if (choice <= 88) return driver_.flush();
    if (choice <= 89) return driver_.writeHeader(pick(0, header));
    if (choice <= 91) return driver_.add(chance(5) ? 40 : pick(-1, 2));
    if (choice <= 92) return driver_.remove(pick(0, 2));
    if (choice <= 95) return driver_.reopen(chance(65), someRead(), someWrite());
    if (choice <= 97) return useWrongly();
    return driver_.close(chance(10) ? qz::kRemoveFile : 0);
  }

  Status writeSomething(int hold) {
    constexpr int kMostPages = 50;
    if (driver_.pages() > kMostPages) return driver_.truncate(pick(0, kMostPages));
    const std::int64_t page = chance(55) ? driver_.pages() + 1 : somePage();
    return driver_.write(page, chance(60) ? hold : -1, chance(30) ? 8 : 0, chance(20));
  }

  std::mt19937_64 random_;
  World world_;
  DirectIo way_;
  Geometry geometry_{};
  Driver driver_;
  std::vector<Fault> faults_;
};

std::uint64_t numberOf(const char* variable, std::uint64_t otherwise) {
  const char* text = std::getenv(variable);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

std::uint64_t walk(std::uint64_t seed) {
  return Walk(seed, memoryFolder(), DirectIo::simulated).run();
}

// After any order of operations and faults, statuses, counts and bytes must be those of the model.
TEST(RandomModel, Seeds) {
#ifdef __SANITIZE_ADDRESS__
  constexpr std::uint64_t kUsual = 300;
#else
  constexpr std::uint64_t kUsual = sizeof(void*) == 4 ? 300 : 2000;
#endif
  const std::uint64_t first = numberOf("QZIOP_FIRST_SEED", 1);
  const std::uint64_t last = first + numberOf("QZIOP_SEEDS", kUsual);
  for (std::uint64_t seed = first; seed < last && !HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    const std::uint64_t digest = walk(seed);
    if (seed % 100 == 0) {
      EXPECT_EQ(walk(seed), digest) << "the seed does not replay";
    }
    // With many buffers the module finds records through its index, or walks the lists if the index
    // gets no memory or too little. Both must find the same records.
    if (seed % 4 == 0) {
      calls().ownAllocationsGiven = static_cast<int>(seed / 4 % 4);
      EXPECT_EQ(walk(seed), digest) << "the index differs from the lists";
      calls().ownAllocationsGiven = kEveryLater;
    }
  }
}

// The same with real O_DIRECT: the alignment that the simulation demands must be the kernel's.
TEST(RandomModel, RealDirectIo) {
  const std::string folder = std::filesystem::temp_directory_path();
  const int fd = open(folder.c_str(), O_TMPFILE | O_RDWR | O_DIRECT, 0600);
  if (fd < 0) GTEST_SKIP() << "no O_DIRECT in " << folder << ": " << std::strerror(errno);
  close(fd);
  for (std::uint64_t seed = 1; seed <= 40 && !HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Walk(seed, folder, DirectIo::real).run();
  }
}

}  // namespace
}  // namespace qztest
