// Fault loops: scripts of operations in which every host call and system call is failed in turn,
// alone, with all later ones of its kind, and in pairs. The model says what each operation must
// come to and what the file must hold. A failing case names its script, call and fault;
// QZIOP_FAULTS_THIN takes only every n-th pair.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <sstream>

#include "support/driver.h"
#include "support/failures.h"
#include "support/names.h"

namespace qztest {
namespace {

using qz::Status;
using Table = qz::OperationTable;

// Reads and flushes that are always interrupted are made again for ever.
bool mayLast(Call call, const Failure& result) {
  return result.count == 1 && (call == Call::pwrite || result.error != EINTR);
}

// --- Scripts

struct Script {
  const char* name;
  const char* before;  // the file's making, without faults
  const char* steps;
  bool pairs = false;
};

// Steps of these scripts: "writeOwn 3" writes a page from the caller's own memory, "write 3" from
// the buffer held last; "append" writes the page after the last one; "return" ends the oldest hold;
// "readMany" has a page, a count and options; "reopen 1" changes to the next shape; "handle" makes
// and frees another handle. All other steps are named after the operation.
constexpr const char* kNine =
    "create; header 100; append; append; append; append; append; append; append; append; append; "
    "close; open; close";
constexpr const char* kEight =
    "create; header 100; append; append; append; append; append; append; append; append; close; "
    "open; close";

const Script kScripts[] = {
    {"Create", "",
     "name; info; create; header 4096; append; append; append; append; append; flush; close"},
    {"Acquired", "",
     "create; header 10; acquire; write 1; acquire; acquire; return; write 2; close", true},
    {"Preopen", kNine,
     "preopen 4096; open; read 1; return; read 2; read 9; read 10; return; close"},
    {"Rewrite", kNine, "open; read 3; write 3; read 3; return; writeOwn 8; read 8; write 9; close"},
    {"ReadMany", kNine,
     "open; readMany 1 5 0; readMany 2 6 8; readMany 9 4 0; readMany 10 1 0; close"},
    {"Truncate", kNine,
     "open; read 9; return; read 2; return; truncate 6; writeOwn 7; truncate 5; truncate 0; "
     "writeOwn 1; close"},
    {"Buffers", kNine,
     "open; add 2; read 1; read 5; read 9; acquire; return; remove 1; return; return; remove 2; "
     "close"},
    {"Reopen", kNine,
     "open; read 1; reopen 1; read 6; writeOwn 10; reopen 2; return; writeOwn 11; return; "
     "reopen 3; read 3; close"},
    {"FlushAtClose", kNine, "openFlushing; writeOwn 10; writeOwn 11; close", true},
    {"Header", kNine, "open; header 4096; writeOwn 10; header 7; header 8192; flush; close", true},
    {"Delete", kNine,
     "open; writeOwn 10; close; delete; handle; create; header 1; writeOwn 1; closeAndDelete"},
    {"AppendOnly", "",
     "createWriteOnly; header 4096; append; append; append; append; append; append; flush; "
     "writeOwn 2; append; close"},
    {"Collect", kEight,
     "open; writeOwn 9; writeOwn 10; read 9; writeOwn 10; write 11; truncate 10; close", true},
    {"InOrder", kNine,
     "openInOrder; read 1; return; read 2; return; read 4; read 3; return; read 1; close"},
};

struct Point {
  std::size_t step;
  Call call;
  int nth;  // of its kind in the step

  bool operator==(const Point&) const = default;
};
struct Planned {
  Point point;
  Failure result;
};

class Play {
 public:
  Play(const Script& script, Shape shape, std::vector<Planned> faults)
      : script_(script), shape_(shape), faults_(std::move(faults)), world_(memoryFolder()) {
    world_.settle(shape);
    world_.h->openRetryCount = kRetries;
  }

  // Plays the script with its faults, then without any on the same handle, which must go as
  // `clean` did. Returns the calls after the last fault.
  std::vector<Point> run(std::vector<Status>* clean) {
    SCOPED_TRACE(described());
    perform(script_.before, false);
    perform(script_.steps, true);
    for (const auto& [point, result] : faults_)
      EXPECT_NE(std::count(points_.begin(), points_.end(), point), 0) << "the fault was not met";
    recover();
    statuses_.clear();
    perform(script_.before, false);
    perform(script_.steps, false);
    if (faults_.empty()) {
      for (const Status status : statuses_) {
        EXPECT_TRUE(status == Status::ok || status == Status::endOfFile ||
                    status == Status::readOutOfSequence || status == Status::writeOutOfSequence);
      }
      *clean = statuses_;
    }
    EXPECT_EQ(statuses_, *clean) << "another outcome of the run after the faults";
    driver_.compareFile();
    EXPECT_TRUE(!driver_.isAttached() || driver_.close(0) == Status::ok);
    world_.finish();
    return {points_.begin() + static_cast<std::ptrdiff_t>(afterFaults_), points_.end()};
  }

 private:
  std::string described() const {
    std::string text = fmt::format("{} {}", script_.name, nameOf(shape_));
    for (const auto& [point, result] : faults_) {
      text += fmt::format(", step {} {} {}: result {} error {} x{}", point.step + 1,
                          nameOf(point.call), point.nth, result.result, result.error, result.count);
    }
    return text;
  }

  // The faults that lie in a step.
  std::vector<Fault> faultsOf(std::size_t step, bool isName) const {
    std::vector<Fault> faults;
    for (const auto& [point, result] : faults_) {
      const bool lasts = result.count == kEveryLater && point.step < step;
      if (point.step != step && !lasts) continue;
      const int nth = lasts ? 1 : point.nth;
      // A name whose memory could not be freed is still in use.
      const bool kept = isName && point.call == Call::memFree && nth == 1;
      faults.push_back({point.call, nth, kept ? 1 : result.count, kept ? kNotDone : result.result,
                        result.error});
    }
    return faults;
  }

  void perform(const std::string& steps, bool faulty) {
    std::istringstream list(steps);
    std::string step;
    for (std::size_t number = 0; std::getline(list, step, ';'); ++number) {
      // A new file is without its header first; else a host closes a file that lacks something.
      if ((driver_.isAdrift() && step.find("header") == std::string::npos) ||
          ::testing::Test::HasFailure())
        return;
      SCOPED_TRACE(step);
      std::istringstream words(step);
      std::string word;
      std::int64_t a[3] = {};
      words >> word >> a[0] >> a[1] >> a[2];
      const auto faults = faulty ? faultsOf(number, word == "name") : std::vector<Fault>();
      driver_.plan(faults);
      calls().plan(faults);
      const Status status = act(word, a);
      calls().plan({});
      driver_.plan({});
      statuses_.push_back(status);
      checkJournal(word, status, faults);
      if (!faults.empty()) driver_.compareFile();
      if (faulty) collect(number);
      EXPECT_TRUE(word != "name" || status == Status::ok || name() == Status::ok);
    }
  }

  // Takes down the calls that the step made.
  void collect(std::size_t step) {
    int made[static_cast<int>(Call::count)] = {};
    for (const CallRecord& record : calls().trace()) {
      const int nth = ++made[static_cast<int>(record.call)];
      if (failuresOf(record.call).empty()) continue;
      points_.push_back({step, record.call, nth});
      for (const auto& [point, result] : faults_) {
        if (point.step == step && point.call == record.call && nth >= point.nth &&
            nth - point.nth < result.count)
          afterFaults_ = points_.size();
      }
    }
  }

  // Every failure has its entry, and end of file has none.
  void checkJournal(const std::string& word, Status status, const std::vector<Fault>& faults) {
    const std::string& entries = world_.recorder.entries;
    const auto& trace = calls().trace();
    bool ownMemory = false;  // the report itself lacked memory, or the host reports
    bool released = true;
    for (const CallRecord& record : trace) {
      const bool fails = (record.call == Call::memAlloc) == (record.result == 0);
      ownMemory |= fails && (record.call == Call::memAlloc || record.call == Call::fileOpen ||
                             record.call == Call::fileReopen || record.call == Call::fileClose);
      released &= !fails || record.call != Call::memFree;
    }
    const std::string shown = fmt::format("{} {}", world_.did(status), calls().hostCalls());
    if (status == Status::endOfFile || (status == Status::ok && released && faults.empty())) {
      EXPECT_EQ(entries, "") << shown;
    } else if (status != Status::ok && status != Status::deleteWhileOpen && !ownMemory) {
      EXPECT_NE(entries, "") << shown;
    }
    // A refused free of staging memory is not reported.
    const bool staging = word == "writeOwn" || word == "preopen" || word == "name" ||
                         word == "info" || word == "append";
    if (!released && !staging && !ownMemory) {
      EXPECT_NE(entries.find(nameOfStatus(qz::hostForeignBlock)), std::string::npos) << shown;
    }
  }

  // What a host does after a failure: closes, mends the file's end, begins anew.
  void recover() {
    world_.h->openOptions &= ~qz::optionFlushAtClose;
    EXPECT_TRUE(!driver_.isAttached() || driver_.close(0) == Status::ok);
    driver_.compareFile();
    driver_.repair();
    EXPECT_TRUE(!driver_.exists() || driver_.erase() == Status::ok);
  }

  Status act(const std::string& word, const std::int64_t (&a)[3]);
  Status openAs(std::uint32_t mode, std::uint32_t options, std::uint32_t read,
                std::uint32_t write) {
    return driver_.open(mode, options | (shape_ == Shape::buffered ? 0U : qz::optionDirectIo), read,
                        write);
  }
  Status reopen(std::int64_t turns);
  Status name();
  Status handle();

  const Script& script_;
  Shape shape_;
  std::vector<Planned> faults_;
  World world_;
  Driver driver_{world_, {kPage, kPagesPerBlock, kHeader, 2}};
  std::vector<Status> statuses_;
  std::vector<Point> points_;
  std::size_t afterFaults_ = 0;
};

Status Play::act(const std::string& word, const std::int64_t (&a)[3]) {
  using namespace qz;
  const auto number = static_cast<std::int32_t>(a[0]);
  const std::uint32_t read = shape_ == Shape::block ? readOrdered : readRandom;
  const int last = driver_.holds() - 1;
  if (word == "create") return openAs(createOrReplace, 0, read, rewritePages);
  if (word == "createWriteOnly") return openAs(createOrReplace, 0, noRead, writeNewPages);
  if (word == "open") return openAs(openOrKeep, 0, read, rewritePages);
  if (word == "openFlushing") return openAs(openOrRemove, optionFlushAtClose, read, rewritePages);
  if (word == "openInOrder") return openAs(openOrKeep, 0, readSequential, noWrite);
  if (word == "preopen") return driver_.preopen(number);
  if (word == "close") return driver_.close(0);
  if (word == "closeAndDelete") return driver_.close(kRemoveFile);
  if (word == "delete") return driver_.erase();
  if (word == "reopen") return reopen(a[0]);
  if (word == "read") return driver_.read(a[0]);
  if (word == "readMany") {
    return driver_.readMany(a[0], static_cast<std::int32_t>(a[1]),
                            static_cast<std::uint32_t>(a[2]));
  }
  if (word == "writeOwn") return driver_.write(a[0], -1, 8);
  if (word == "write") return driver_.write(a[0], last);
  if (word == "append") return driver_.write(driver_.pages() + 1, -1, 8);
  if (word == "acquire") return driver_.acquire();
  if (word == "return") return last < 0 ? driver_.returnForeign(this) : driver_.returnHold(0);
  if (word == "add") return driver_.add(number);
  if (word == "remove") return driver_.remove(number);
  if (word == "truncate") return driver_.truncate(a[0]);
  if (word == "flush") return driver_.flush();
  if (word == "header") return driver_.writeHeader(number);
  if (word == "info") return world_.call(&Table::qzpinfo);
  if (word == "name") return name();
  if (word == "handle") return handle();
  return Status::badArgument;
}

// Into the shape so many turns on.
Status Play::reopen(std::int64_t turns) {
  const Shape shape = kShapes[(static_cast<int>(shape_) + static_cast<int>(turns)) % 3];
  return driver_.reopen(shape != Shape::buffered,
                        shape == Shape::block ? qz::readOrdered : qz::readRandom, qz::rewritePages);
}

// A name of the old one's length takes a buffer of its own.
Status Play::name() {
  const std::u32string text = world_.recorder.fileName;
  const Status status =
      world_.call(&Table::qzpsetfilename, text.data(), static_cast<std::int32_t>(text.size()));
  const bool kept = calls().at(Call::memFree).result != 0;
  EXPECT_EQ(status, kept                                     ? Status::badArgument
                    : calls().at(Call::memAlloc).result == 0 ? Status::noMemory
                                                             : Status::ok);
  return status;
}

// A handle of its own, made and freed.
Status Play::handle() {
  calls().clear();
  world_.recorder.entries.clear();
  qz::FileHandle* other = world_.module->operations.qzpgetmemhandle(world_.module, world_.journal);
  EXPECT_EQ(other != nullptr, calls().at(Call::memAlloc).result != 0);
  if (other == nullptr) return Status::noMemory;
  const Status status = world_.module->operations.qzpfreememhandle(other, world_.journal);
  EXPECT_EQ(status, calls().at(Call::memFree).result != 0 ? Status::badArgument : Status::ok);
  return status;
}

// --- The loops

struct Counts {
  int points = 0;
  int runs = 0;
  int pairs = 0;
};
Counts counts;

class FaultLoop : public ::testing::TestWithParam<std::tuple<Script, Shape>> {
 protected:
  static void TearDownTestSuite() {
    fmt::print("{} scripts in 3 shapes, {} fault points, {} faulted runs, {} pairs\n",
               std::size(kScripts), counts.points, counts.runs, counts.pairs);
  }

  std::vector<Point> play(const std::vector<Planned>& faults) {
    return Play(script, shape, faults).run(&clean);
  }

  // Fails each call after the faults so far, in every way, `depth` deep.
  void explore(const std::vector<Planned>& before, int depth) {
    const std::vector<Point> points = play(before);
    const bool first = before.empty();
    ASSERT_FALSE(first && points.empty());
    counts.points += first ? static_cast<int>(points.size()) : 0;
    for (const Point& point : points) {
      for (const Failure& result : failuresOf(point.call)) {
        if (HasFailure()) return;
        if (!first && ++pairsSeen % thin != 0) continue;
        std::vector<Planned> faults = before;
        faults.push_back({point, result});
        counts.pairs += first ? 0 : 1;
        ++counts.runs;
        if (depth > 1) {
          explore(faults, depth - 1);
        } else {
          play(faults);
        }
        if (first && mayLast(point.call, result) && !HasFailure()) {
          faults.back().result.count = kEveryLater;
          ++counts.runs;
          play(faults);
        }
      }
    }
  }

  const Script script = std::get<0>(GetParam());
  Shape shape = std::get<1>(GetParam());
  std::vector<Status> clean;
  int thin = 1;
  int pairsSeen = 0;
};

// Runs each script once for every call that it makes, with that call failing: no failure may lose
// pages, leak memory or go unreported.
TEST_P(FaultLoop, EveryCallFailsInTurn) {
  const char* asked = std::getenv("QZIOP_FAULTS_THIN");
#ifdef __SANITIZE_ADDRESS__
  constexpr int kUsual = 7;
#else
  constexpr int kUsual = sizeof(void*) == 4 ? 7 : 1;  // emulated
#endif
  thin = asked != nullptr ? std::max(std::atoi(asked), 1) : kUsual;
  explore({}, script.pairs ? 2 : 1);
}

INSTANTIATE_TEST_SUITE_P(Scripts, FaultLoop,
                         ::testing::Combine(::testing::ValuesIn(kScripts),
                                            ::testing::ValuesIn(kShapes)),
                         [](const auto& instance) {
                           return std::get<0>(instance.param).name +
                                  std::string(nameOf(std::get<1>(instance.param)));
                         });

}  // namespace
}  // namespace qztest
