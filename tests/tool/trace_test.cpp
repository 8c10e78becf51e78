// qzpfile trace: its report on a trace.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <string>

#include "qziop.hpp"
#include "tool/shell.h"

namespace qztest {
namespace {

using Json = nlohmann::json;
namespace fs = std::filesystem;

constexpr std::int32_t kPage = 4096;

// Reads, rewrites, appends, truncates and flushes pages in an order that depends on `seed`, with
// several holds at a time.
void workAtRandom(qz::PagedFile& file, unsigned seed) {
  std::minstd_rand random(seed);
  std::map<std::int64_t, qz::PageHold> holds;
  for (int step = 0; step < 400; ++step) {
    const std::int64_t pages = file.settings().pageCount;
    const auto page = static_cast<std::int64_t>(random() % static_cast<unsigned>(pages)) + 1;
    const auto choice = static_cast<unsigned>(random() % 100);
    if (choice < 50) {
      if (auto hold = file.read(page); hold && !holds.contains(page)) {
        holds.emplace(page, std::move(*hold));
      }
    } else if (choice < 70 && !holds.empty()) {
      holds.erase(holds.begin());
    } else if (choice < 80 && !holds.empty()) {
      EXPECT_TRUE(file.write(holds.begin()->second, holds.begin()->first));
      holds.erase(holds.begin());
    } else if (choice < 97) {
      alignas(kPage) static char own[kPage];
      EXPECT_TRUE(file.write(own, pages + 1));
    } else if (choice == 97) {
      holds.clear();
      EXPECT_TRUE(file.truncate(pages - 1));
    } else {
      EXPECT_TRUE(file.flush());
    }
  }
}

// Works on files in all shapes and records it into `trace`. Runs in a child process.
void recordRandomWork(const fs::path& folder, const fs::path& trace) {
  setenv("QZIOP_TRACE", trace.c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
  qz::StandInHost host;
  const auto module = qz::Module::load(host.handle(), nullptr, QZIOP_TRACE_MODULE);
  ASSERT_TRUE(module) << module.error().message();
  for (unsigned seed = 0; seed < 12; ++seed) {
    const fs::path name = folder / ("file" + std::to_string(seed));
    std::ofstream(name) << std::string(std::size_t{30} * kPage, 'x');
    auto file = module->newFile();
    qz::FileHandle& settings = file->settings();
    settings.pageSize = kPage;
    settings.openMode = qz::openOrKeep;
    settings.bufferCount = static_cast<std::int32_t>(1 + seed / 3);
    settings.writeAccess = qz::rewritePages;
    // Page by page through the system's cache, page by page past it, in blocks past it.
    settings.readAccess = seed % 3 == 1 ? qz::readRandom : qz::readOrdered;
    settings.openOptions = seed % 3 == 0 ? 0U : qz::optionDirectIo;
    settings.requestedBlockBytes = std::int64_t{4} * kPage;
    EXPECT_TRUE(file->setName(name.string()));
    ASSERT_TRUE(file->open());
    workAtRandom(*file, seed);
    EXPECT_TRUE(file->close());
  }
}

// The tool predicts the calls under other settings with a model of the cache. For the settings of
// the recorded run the prediction must be exact.
TEST(Trace, ReplaysExactlyWhatWasRecorded) {
  const fs::path folder = QZIOP_PROGRAMS "/trace-work";
  fs::create_directories(folder);
  const fs::path trace = folder / "trace.json";
  const pid_t child = fork();
  if (child == 0) {
    recordRandomWork(folder, trace);
    std::_Exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  ASSERT_EQ(status, 0);
  const Outcome outcome = Shell().run("$Q trace --format json " + trace.string());
  ASSERT_EQ(outcome.ended(), "OK") << outcome.said();
  const Json document = Json::parse(outcome.out);
  EXPECT_EQ(document.at("files").size(), 12U);
  for (const Json& file : document.at("files")) {
    ASSERT_EQ(file.at("uses").size(), 1U);
    const Json& use = file.at("uses").at(0);
    EXPECT_EQ(use.at("recorded"), use.at("replayed")) << file;
    EXPECT_GT(use.at("recorded").at("calls"), 10);
  }
  fs::remove_all(folder);
}

// The summary must have the counts of the recorded command: pages, hits, calls and failures.
TEST(Trace, SumsUpWhatWasRecorded) {
  playLines(R"(
cat good --io buffered -> OK 11 pages read many at a time
verify good --io buffered -> OK 12 pages read: 0 from memory (hits), 12 from the file (misses)
pack --io buffered --page-size 4K in x -> OK  pages written, 0 of them without a call
info no
  -> OK 1 x qzppreopen no: The file or a folder on the way to it does not exist: No such file or
  directory (0x803FC801), first in line
)",
            "QZIOP_TRACE=t $Q %1 --module " QZIOP_TRACE_MODULE " >/dev/null 2>&1; $Q trace t");
}

// The trace of a killed program may end in zero bytes or inside a line and must still be read. Any
// other file that is no trace must be refused.
TEST(Trace, RefusesWhatIsNoTrace) {
  playLines(R"(
$Q trace good -> DATAERR ! is not a trace of the module
$Q trace no -> NOINPUT ! No such file
: >t; $Q trace t -> DATAERR ! is empty
echo '{"qziop_trace":2}' >t; $Q trace t -> DATAERR ! version 2
echo '{"qziop_trace":1}' >t; $Q trace t -> OK 0 operations
printf '{"qziop_trace":1}\n{"id":1,"op":"qzpinfo","status":"ok","ns":5}\n\0\0\0' >t; $Q trace t >s;
  ! grep incomplete s && cat s -> OK 1 operation
printf '{"qziop_trace":1}\n{"id":1,"op":"qzpin' >t; $Q trace t -> OK the last line is incomplete
printf '{"qziop_trace":1}\n{"id":1,"op":\n{}\n' >t; $Q trace t
  -> DATAERR ! line 2 is not a trace record
printf '{"qziop_trace":1}\n{"id":"1"}\n' >t; $Q trace t -> DATAERR ! line 2 is not a trace record
)");
}

}  // namespace
}  // namespace qztest
