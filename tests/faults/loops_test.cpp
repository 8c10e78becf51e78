// Fault loops: scripts of operations in which every host call and system call is failed in turn,
// alone, with all later ones of its kind, and in pairs. The model (support/driver.h) knows the
// outcome of each operation and the file's bytes. A failing case names its script, call and fault;
// with QZIOP_FAULTS_THIN=n only every n-th pair is tried.
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

// Whether all later calls may fail like this one. Reads and flushes that are always interrupted
// would be repeated for ever.
bool mayFailForGood(Call call, const Failure& result) {
  return result.count == 1 && (call == Call::pwrite || result.error != EINTR);
}

// --- Scripts

struct Script {
  const char* name;
  const char* before;  // steps that make the file, without faults
  const char* steps;
  bool pairs = false;  // also fails two calls in one run
};

// Steps of these scripts, where they do more than the operation of their name:
//   writeOwn 3                  writes page 3 from the caller's own memory
//   writeNewest 3               writes page 3 from the buffer that was held last
//   append                      writes the page after the last one, as writeOwn
//   returnOldest                returns the buffer that was held first
//   readMany 1 5                reads 5 pages from page 1 on; readContiguous: with kContiguous
//   reopenInShape 1             reopens in the shape that many places after the test's own
//   makeHandle                  makes and frees another handle
//   openInOrder                 opens for sequential reading
//   openFlushing                opens with optionFlushAtClose
constexpr const char* kNine =
    "create; writeHeader 100; append; append; append; append; append; append; append; append; "
    "append; "
    "close; open; close";
constexpr const char* kEight =
    "create; writeHeader 100; append; append; append; append; append; append; append; append; "
    "close; "
    "open; close";

const Script kScripts[] = {
    {"Create", "",
     "setName; info; create; writeHeader 4096; append; append; append; append; append; flush; "
     "close"},
    {"Acquired", "",
     "create; writeHeader 10; acquire; writeNewest 1; acquire; acquire; returnOldest; "
     "writeNewest 2; close",
     true},
    {"Preopen", kNine,
     "preopen 4096; open; read 1; returnOldest; read 2; read 9; read 10; returnOldest; close"},
    {"Rewrite", kNine,
     "open; read 3; writeNewest 3; read 3; returnOldest; writeOwn 8; read 8; writeNewest 9; close"},
    {"ReadMany", kNine,
     "open; readMany 1 5; readContiguous 2 6; readMany 9 4; readMany 10 1; close"},
    {"Truncate", kNine,
     "open; read 9; returnOldest; read 2; returnOldest; truncate 6; writeOwn 7; truncate 5; "
     "truncate 0; writeOwn 1; close"},
    {"Buffers", kNine,
     "open; add 2; read 1; read 5; read 9; acquire; returnOldest; remove 1; returnOldest; "
     "returnOldest; remove 2; close"},
    {"Reopen", kNine,
     "open; read 1; reopenInShape 1; read 6; writeOwn 10; reopenInShape 2; returnOldest; "
     "writeOwn 11; returnOldest; reopenInShape 3; read 3; close"},
    {"FlushAtClose", kNine, "openFlushing; writeOwn 10; writeOwn 11; close", true},
    {"Header", kNine,
     "open; writeHeader 4096; writeOwn 10; writeHeader 7; writeHeader 8192; flush; close", true},
    {"Delete", kNine,
     "open; writeOwn 10; close; delete; makeHandle; create; writeHeader 1; writeOwn 1; "
     "closeAndDelete"},
    {"AppendOnly", "",
     "createWriteOnly; writeHeader 4096; append; append; append; append; append; append; flush; "
     "writeOwn 2; append; close"},
    {"Collect", kEight,
     "open; writeOwn 9; writeOwn 10; read 9; writeOwn 10; writeNewest 11; truncate 10; close",
     true},
    {"InOrder", kNine,
     "openInOrder; read 1; returnOldest; read 2; returnOldest; read 4; read 3; returnOldest; "
     "read 1; close"},
};

// A call of a run: the step that made it, and its number among the step's calls of that kind.
struct Point {
  std::size_t step;
  Call call;
  int nth;

  bool operator==(const Point&) const = default;
};
// A call that is to fail, and how.
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

  // Plays the script with its faults, then without any on the same handle, where each step must
  // have the status that it has in `clean`. Returns the calls after the last fault.
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
    EXPECT_EQ(statuses_, *clean) << "the run after the faults had other statuses";
    driver_.compareFile();
    EXPECT_TRUE(!driver_.isAttached() || driver_.close(0) == Status::ok);
    world_.finish();
    return {points_.begin() + static_cast<std::ptrdiff_t>(afterFaults_), points_.end()};
  }

 private:
  std::string described() const {
    std::string text = fmt::format("{} {}", script_.name, nameOf(shape_));
    for (const auto& [point, result] : faults_) {
      const std::string error = result.error < 1000 ? nameOfError(static_cast<int>(result.error))
                                                    : nameOfStatus(result.error);
      text += fmt::format(", in step {} {} number {} fails with {}, result {}, {} in a row",
                          point.step + 1, nameOf(point.call), point.nth, error,
                          result.result == kShort ? "half" : std::to_string(result.result),
                          result.count == kEveryLater ? "all" : std::to_string(result.count));
    }
    return text;
  }

  // The faults that a step meets.
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
      // A file that lacks pages is closed by its host, unless it is new and only lacks its header.
      if ((driver_.isAdrift() && step.find("writeHeader") == std::string::npos) ||
          ::testing::Test::HasFailure())
        return;
      SCOPED_TRACE(step);
      std::istringstream words(step);
      std::string word;
      std::int64_t first = 0;
      std::int64_t second = 0;
      words >> word >> first >> second;
      const auto faults = faulty ? faultsOf(number, word == "setName") : std::vector<Fault>();
      driver_.plan(faults);
      calls().plan(faults);
      const Status status = carryOut(word, first, second);
      calls().plan({});
      driver_.plan({});
      statuses_.push_back(status);
      checkJournal(word, status, faults);
      if (!faults.empty()) driver_.compareFile();
      if (faulty) recordPoints(number);
      EXPECT_TRUE(word != "setName" || status == Status::ok || setName() == Status::ok);
    }
  }

  // Adds the calls that the step made to the points that later runs can fail.
  void recordPoints(std::size_t step) {
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

  // Every failure must have its entry, and end of file none.
  void checkJournal(const std::string& word, Status status, const std::vector<Fault>& faults) {
    const std::string& entries = world_.recorder.entries;
    const auto& trace = calls().trace();
    bool excused = false;  // the report itself lacked memory, or the host reports the failure
    bool freed = true;
    for (const CallRecord& record : trace) {
      const bool fails = (record.call == Call::memAlloc) == (record.result == 0);
      excused |= fails && (record.call == Call::memAlloc || record.call == Call::fileOpen ||
                           record.call == Call::fileReopen || record.call == Call::fileClose);
      freed &= !fails || record.call != Call::memFree;
    }
    const std::string shown = fmt::format("{} {}", world_.did(status), calls().hostCalls());
    if (status == Status::endOfFile || (status == Status::ok && freed && faults.empty())) {
      EXPECT_EQ(entries, "") << shown;
    } else if (status != Status::ok && status != Status::deleteWhileOpen && !excused) {
      EXPECT_NE(entries, "") << shown;
    }
    // A memFree of staging memory that fails is not reported.
    const bool staging = word == "writeOwn" || word == "preopen" || word == "setName" ||
                         word == "info" || word == "append";
    if (!freed && !staging && !excused) {
      EXPECT_NE(entries.find(nameOfStatus(qz::hostForeignBlock)), std::string::npos) << shown;
    }
  }

  // What a host does after a failure: closes the file, cuts off a part of a page at its end, and
  // deletes it.
  void recover() {
    world_.h->openOptions &= ~qz::optionFlushAtClose;
    EXPECT_TRUE(!driver_.isAttached() || driver_.close(0) == Status::ok);
    driver_.compareFile();
    driver_.repair();
    EXPECT_TRUE(!driver_.exists() || driver_.erase() == Status::ok);
  }

  Status carryOut(const std::string& word, std::int64_t first, std::int64_t second);
  Status openAs(std::uint32_t mode, std::uint32_t options, std::uint32_t read,
                std::uint32_t write) {
    return driver_.open(mode, options | (shape_ == Shape::buffered ? 0U : qz::optionDirectIo), read,
                        write);
  }
  Status reopenInShape(std::int64_t places);
  Status setName();
  Status makeHandle();

  const Script& script_;
  Shape shape_;
  std::vector<Planned> faults_;
  World world_;
  Driver driver_{world_, {kPage, kPagesPerBlock, kHeader, 2}};
  std::vector<Status> statuses_;
  std::vector<Point> points_;
  std::size_t afterFaults_ = 0;
};

Status Play::carryOut(const std::string& word, std::int64_t first, std::int64_t second) {
  using namespace qz;
  const auto number = static_cast<std::int32_t>(first);
  const auto count = static_cast<std::int32_t>(second);
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
  if (word == "reopenInShape") return reopenInShape(first);
  if (word == "read") return driver_.read(first);
  if (word == "readMany") return driver_.readMany(first, count, 0);
  if (word == "readContiguous") return driver_.readMany(first, count, kContiguous);
  if (word == "writeOwn") return driver_.write(first, -1, 8);
  if (word == "writeNewest") return driver_.write(first, last);
  if (word == "append") return driver_.write(driver_.pages() + 1, -1, 8);
  if (word == "acquire") return driver_.acquire();
  if (word == "returnOldest") return last < 0 ? driver_.returnForeign(this) : driver_.returnHold(0);
  if (word == "add") return driver_.add(number);
  if (word == "remove") return driver_.remove(number);
  if (word == "truncate") return driver_.truncate(first);
  if (word == "flush") return driver_.flush();
  if (word == "writeHeader") return driver_.writeHeader(number);
  if (word == "info") return world_.call(&Table::qzpinfo);
  if (word == "setName") return setName();
  if (word == "makeHandle") return makeHandle();
  throw std::invalid_argument("no such step: " + word);
}

Status Play::reopenInShape(std::int64_t places) {
  const Shape shape = kShapes[(static_cast<int>(shape_) + static_cast<int>(places)) % 3];
  return driver_.reopen(shape != Shape::buffered,
                        shape == Shape::block ? qz::readOrdered : qz::readRandom, qz::rewritePages);
}

// Sets the same name again. As it is as long as the old one, it gets a new buffer.
Status Play::setName() {
  const std::u32string text = world_.recorder.fileName;
  const Status status =
      world_.call(&Table::qzpsetfilename, text.data(), static_cast<std::int32_t>(text.size()));
  const bool kept = calls().at(Call::memFree).result != 0;
  EXPECT_EQ(status, kept                                     ? Status::badArgument
                    : calls().at(Call::memAlloc).result == 0 ? Status::noMemory
                                                             : Status::ok);
  return status;
}

Status Play::makeHandle() {
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

  // Fails each call after those of `before`, in every way, and with a `depth` of 2 also pairs.
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
        if (first && mayFailForGood(point.call, result) && !HasFailure()) {
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
  constexpr int kUsual = sizeof(void*) == 4 ? 7 : 1;  // 32-bit programs run emulated
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
