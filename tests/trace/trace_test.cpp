// The trace library: what it records, and that it harms neither the program nor its files.
//
// A process records into one file until it ends, so each test does its work in a child process and
// looks at the file afterwards.
#include <dlfcn.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "qziop.hpp"
#include "support/syscalls.h"

namespace qztest {
namespace {

using Json = nlohmann::json;
namespace fs = std::filesystem;

class TraceTest : public testing::Test {
 protected:
  TraceTest() {
    std::string pattern = (fs::temp_directory_path() / "qztrace-XXXXXX").string();
    folder = mkdtemp(pattern.data());
    trace = folder / "trace%s.json";  // in a message the %s must be text
  }
  ~TraceTest() override { fs::remove_all(folder); }

  // Runs `work` in a child process that records into `trace`. Returns its status as waitpid gives
  // it.
  int inChild(const std::function<void()>& work) {
    const pid_t child = fork();
    if (child == 0) {
      setenv("QZIOP_TRACE", trace.c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
      work();
      std::_Exit(HasFailure() ? 1 : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
  }

  // All lines but the first, which tells the version: one for each operation.
  static std::vector<Json> linesOf(const fs::path& file) {
    std::vector<Json> lines;
    std::ifstream stream(file);
    std::string text;
    while (std::getline(stream, text) && text.front() != '\0') lines.push_back(Json::parse(text));
    EXPECT_FALSE(lines.empty()) << file << " is not there or empty";
    if (!lines.empty()) lines.erase(lines.begin());
    return lines;
  }

  // A file of `pages` pages of 512 bytes.
  std::string makeFile(int pages, const char* called = "pages") {
    std::string name = folder / called;
    std::ofstream(name) << std::string(static_cast<std::size_t>(pages) * 512, 'x');
    return name;
  }

  fs::path folder;
  fs::path trace;
};

// A host, the module behind the trace, and a file open for reading and writing.
struct Session {
  explicit Session(const std::string& name, qz::Journal* journal = nullptr) {
    EXPECT_TRUE(module) << module.error().message();
    file = *module->newFile(journal);
    file->settings().pageSize = 512;
    file->settings().bufferCount = 2;
    file->settings().readAccess = qz::readRandom;
    file->settings().writeAccess = qz::rewritePages;
    EXPECT_TRUE(file->setName(name));
    EXPECT_TRUE(file->open());
  }

  qz::StandInHost host{{.hostPageSize = {}, .defaultJournal = qz::JournalSink::memory}};
  qz::Result<qz::Module> module = qz::Module::load(host.handle(), nullptr, QZIOP_TRACE_MODULE);
  std::optional<qz::PagedFile> file;
};

void* symbolOf(const char* library, const char* name) {
  return dlsym(dlopen(library, RTLD_NOW | RTLD_LOCAL), name);
}

// A trace that lacks an operation or its calls would mislead its reader.
TEST_F(TraceTest, RecordsEachOperationWithArgumentsResultAndCalls) {
  const std::string name = makeFile(3, "\u20AC\U0001F7FF");
  ASSERT_EQ(inChild([&] {
              Session session(name);
              { const auto page = session.file->read(2); }
              EXPECT_EQ(session.file->read(5).status(), qz::Status::pageOutOfRange);
              EXPECT_TRUE(session.file->truncate(1));
              EXPECT_TRUE(session.file->close());
            }),
            0);
  std::map<std::string, Json> lines;
  for (const Json& line : linesOf(trace)) {
    EXPECT_GE(line.at("ns"), 0);
    if (line.at("status") != "ok") {
      EXPECT_EQ(line.at("status"),
                fmt::format("0x{:08X}", static_cast<std::uint32_t>(qz::Status::pageOutOfRange)));
      EXPECT_EQ(line.at("page"), 5);
    } else {
      lines[line.at("op")] = line;
    }
  }
  EXPECT_EQ(lines.at("qzpopen").at("name"), name);
  EXPECT_EQ(lines.at("qzpopen").at("pages"), 3);
  EXPECT_EQ(lines.at("qzpopen").at("page_size"), 512);
  EXPECT_EQ(lines.at("qzpread").at("page"), 2);
  const Json& call = lines.at("qzpread").at("calls").at(0);
  EXPECT_EQ(call.at("call"), "pread64");
  EXPECT_EQ(call.at("bytes"), 512);
  EXPECT_EQ(call.at("offset"), 512);
  EXPECT_EQ(call.at("result"), 512);
  EXPECT_GT(call.at("ns"), 0);
  EXPECT_GE(lines.at("qzpread").at("ns"), call.at("ns"));
  EXPECT_EQ(lines.at("qzpbufreturn").at("buffer"), lines.at("qzpread").at("buffer"));
  EXPECT_EQ(lines.at("qzptruncate").at("calls").size(), 2U) << "lseek64 and ftruncate64";
  EXPECT_EQ(lines.at("qzpinfo").at("in"), lines.at("qzpsetfilename").at("id"));
  EXPECT_EQ(lines.count("qziop") + lines.count("qzpdestroy"), 2U);
}

// An operation that another operation calls must be recorded, with the caller: here the close by a
// read of a file that was shrunk behind the module's back.
TEST_F(TraceTest, ShowsTheOperationsThatAnOperationCalls) {
  const std::string name = makeFile(3);
  ASSERT_EQ(inChild([&] {
              Session session(name);
              fs::resize_file(name, 1100);
              EXPECT_EQ(session.file->read(3).status(), qz::Status::misfit);
            }),
            0);
  const std::vector<Json> lines = linesOf(trace);
  for (std::size_t i = 1; i < lines.size(); ++i) {
    if (lines[i].at("op") != "qzpread") continue;
    EXPECT_EQ(lines[i - 1].at("op"), "qzpclose");
    EXPECT_EQ(lines[i - 1].at("in"), lines[i].at("id"));
    EXPECT_LE(lines[i - 1].at("ns"), lines[i].at("ns"));
    return;
  }
  FAIL() << "no read";
}

// The trace must show each system call that the module makes, and no other. This program's own
// replacements of these calls record them as well.
TEST_F(TraceTest, ShowsTheCallsThatWereMade) {
  const std::string name = makeFile(40);
  std::string made;
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(inChild([&] {
              calls().watch(symbolOf(QZIOP_TRACE_MODULE, "qziop"));
              Session session(name);
              calls().clear();
              for (int page = 1; page <= 40; page += 3) {
                auto hold = session.file->read(page);
                if (page % 2 == 0) {
                  EXPECT_TRUE(session.file->write(*hold, page));
                }
              }
              EXPECT_TRUE(session.file->flush());
              std::string text;
              for (const CallRecord& call : calls().trace()) {
                text += std::string(nameOf(call.call)) + std::to_string(call.result) + " ";
              }
              EXPECT_EQ(write(ends[1], text.data(), text.size()), ssize_t(text.size()));
            }),
            0);
  char buffer[4096];
  made.assign(buffer, static_cast<std::size_t>(read(ends[0], buffer, sizeof buffer)));
  std::string recorded;
  for (const Json& line : linesOf(trace)) {
    if (!line.contains("calls") || line.at("op") == "qzpinfo") continue;
    for (const Json& call : line.at("calls")) {
      std::string kind = call.at("call");
      if (kind.ends_with("64")) kind.resize(kind.size() - 2);
      recorded += kind + std::to_string(call.at("result").get<int>()) + " ";
    }
  }
  EXPECT_EQ(recorded, made);
  EXPECT_FALSE(made.empty());
}

// The last lines before a crash are those that explain it.
TEST_F(TraceTest, HasAllLinesOfAProcessThatIsKilled) {
  const std::string name = makeFile(2);
  const int status = inChild([&] {
    Session session(name);
    for (int i = 0; i < 3000; ++i) {
      const auto page = session.file->read(1 + i % 2);
    }
    raise(SIGKILL);
  });
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_GT(fs::file_size(trace), 512U * 1024) << "more than one mapped part";
  std::size_t reads = 0;
  for (const Json& line : linesOf(trace)) reads += line.at("op") == "qzpread" ? 1 : 0;
  EXPECT_EQ(reads, 3000U);
}

// Threads that wrote into each other's lines would make the trace unreadable.
TEST_F(TraceTest, KeepsTheLinesOfThreadsApart) {
  const std::string name = makeFile(2);
  ASSERT_EQ(inChild([&] {
              const Session session(name);
              const auto work = [&] {
                for (int round = 0; round < 500; ++round) {
                  EXPECT_TRUE(session.module->newFile());
                }
              };
              std::thread threads[] = {std::thread(work), std::thread(work), std::thread(work)};
              for (std::thread& thread : threads) thread.join();
            }),
            0);
  std::set<int> ids;
  std::set<int> threads;
  for (const Json& line : linesOf(trace)) {
    EXPECT_TRUE(ids.insert(line.at("id").get<int>()).second);
    threads.insert(line.at("thread").get<int>());
  }
  EXPECT_EQ(ids.size(), 8U + 3 * 500 * 2);
  EXPECT_EQ(threads.size(), 4U);
}

// Without QZIOP_TRACE the host must get the module's own table, and no file be made.
TEST_F(TraceTest, DoesNothingUnlessAskedTo) {
  const std::string name = makeFile(1);
  ASSERT_EQ(inChild([&] {
              unsetenv("QZIOP_TRACE");  // NOLINT(concurrency-mt-unsafe)
              Session session(name);
              const auto* own = reinterpret_cast<void*>(session.module->table().qzpread);
              EXPECT_EQ(own, symbolOf(QZIOP_MODULE, "qzpread"));
              EXPECT_TRUE(session.file->read(1));
            }),
            0);
  EXPECT_FALSE(fs::exists(trace));
}

// A host may load the trace library with global names. The module must still call its own
// functions, or each operation would be recorded twice.
TEST_F(TraceTest, ItsGlobalNamesDoNotReplaceTheModules) {
  const std::string name = makeFile(1);
  ASSERT_EQ(inChild([&] {
              ASSERT_NE(dlopen(QZIOP_TRACE_MODULE, RTLD_NOW | RTLD_GLOBAL), nullptr);
              Session session(name);
              EXPECT_TRUE(session.file->read(1));
            }),
            0);
  std::size_t reads = 0;
  for (const Json& line : linesOf(trace)) reads += line.at("op") == "qzpread" ? 1 : 0;
  EXPECT_EQ(reads, 1U);
}

std::string journalled(const qz::StandInJournal& journal) {
  std::string text;
  for (const qz::JournalEntry& entry : journal.entries()) text += entry.text + "\n";
  return text;
}

// A file that is no trace must stay as it is when QZIOP_TRACE names it; the program goes on without
// a trace. An older trace is replaced.
TEST_F(TraceTest, OverwritesNothingButATrace) {
  const std::string name = makeFile(1);
  std::ofstream(trace) << "precious";
  ASSERT_EQ(inChild([&] {
              qz::StandInHost host({.hostPageSize = {}, .defaultJournal = qz::JournalSink::memory});
              const auto module = qz::Module::load(host.handle(), nullptr, QZIOP_TRACE_MODULE);
              EXPECT_TRUE(module);
              EXPECT_NE(journalled(host.defaultJournal())
                            .find("trace%s.json cannot be the trace: it exists and is not a trace"),
                        std::string::npos)
                  << journalled(host.defaultJournal());
            }),
            0);
  std::string contents;
  std::ifstream(trace) >> contents;
  EXPECT_EQ(contents, "precious");
  fs::remove(trace);
  for (const unsigned flushes : {3U, 1U}) {
    ASSERT_EQ(inChild([&] {
                Session session(name);
                for (unsigned i = 0; i < flushes; ++i) {
                  EXPECT_TRUE(session.file->flush());
                }
              }),
              0);
    EXPECT_EQ(linesOf(trace).size(), 8U + flushes) << "of this process only";
  }
}

// A forked process must not write into its parent's trace.
TEST_F(TraceTest, GivesEachProcessAFileOfItsOwn) {
  const std::string name = makeFile(1);
  const std::string other = makeFile(1, "other");
  ASSERT_EQ(inChild([&] {
              Session session(name);
              EXPECT_EQ(inChild([&] {
                          EXPECT_TRUE(session.file->read(1));
                          const Session own(other);
                        }),
                        0);
              EXPECT_TRUE(session.file->read(1));
            }),
            0);
  std::size_t files = 0;
  for (const auto& entry : fs::directory_iterator(folder)) {
    const std::string file = entry.path().filename();
    if (!file.starts_with("trace%s.json")) continue;
    ++files;
    linesOf(entry.path());
  }
  EXPECT_EQ(files, 2U);
}

// Where there is no room for the trace the program must go on and get one message; the trace must
// end with a whole line.
TEST_F(TraceTest, EndsWithAWholeLineWhereTheDiskIsFull) {
  const std::string name = makeFile(1);
  ASSERT_EQ(inChild([&] {
              signal(SIGXFSZ, SIG_IGN);
              const rlimit limit = {0x80000, 0x80000};
              ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
              qz::StandInJournal journal;
              Session session(name, &journal);
              for (int i = 0; i < 5000; ++i) {
                EXPECT_TRUE(session.file->read(1));
              }
              // An operation without a journal may have been the first without room.
              EXPECT_EQ(journalled(journal) + journalled(session.host.defaultJournal()),
                        "qziop-trace: the trace ends here: File too large\n");
            }),
            0);
  EXPECT_GT(linesOf(trace).size(), 1000U);
  std::ifstream file(trace);
  file.seekg(-1, std::ios::end);
  EXPECT_EQ(file.get(), '\n');
}

}  // namespace
}  // namespace qztest
