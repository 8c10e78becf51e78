// The library as a host loads it: names, entry function, extension object and host services.
#include <fmt/format.h>

#include <array>
#include <cstring>
#include <set>

#include "script.h"

namespace qztest {
namespace {

using qz::Status;

constexpr std::array kOperations = {
    "qzpbufacquire",    "qzpbufadd",       "qzpbufremove", "qzpbufreturn", "qzpclose",
    "qzpfreememhandle", "qzpgetmemhandle", "qzpinfo",      "qzpopen",      "qzppsize",
    "qzpread",          "qzpwrite",        "qzpreadmany",  "qzptruncate",  "qzpsetfilename",
    "qzppreopen",       "qzpdelete",       "qzpgetstatus", "qzpflush",     "qzpwritehdr",
    "qzpreopen"};

std::string outputOf(const std::string& command) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  for (int c = 0; (c = std::fgetc(pipe)) != EOF;) output += static_cast<char>(c);
  EXPECT_EQ(pclose(pipe), 0) << command;
  return output;
}

TEST(Library, ExportsItsNamesAndImportsNoFormatter) {
  const std::string names = " " QZIOP_MODULE " | sed 's/[@ ].*//' | LC_ALL=C sort | xargs echo";
  std::set<std::string> expected(kOperations.begin(), kOperations.end());
  expected.insert({"Exported_QZHandle", "qziop", "qzextent", "qzWait", "qzlMessageToBuf",
                   "qzlMessageToJnl", "qzlStatusToBuf", "qzlStatusToJnl", "qzpdestroy",
                   "qzpgetreqversion", "qzpgetversion"});
  EXPECT_EQ(outputOf("nm -DP --defined-only" + names),
            fmt::format("{}\n", fmt::join(expected, " ")));
  const std::string imported = " " + outputOf("nm -DP --undefined-only" + names);
  EXPECT_NE(imported.find(" fsync "), std::string::npos) << "imports were not understood";
  // Of allocators only the one that the tests watch.
  for (const char* name :
       {"malloc", "realloc", "_Znwm", "_Znwj", "_ZdlPv", "aligned_alloc", "snprintf", "vsnprintf",
        "printf", "open", "open64", "close", "unlink", "pthread_create", "pthread_mutex_lock"}) {
    EXPECT_EQ(imported.find(fmt::format(" {} ", name)), std::string::npos) << name;
  }
}

TEST(Library, IsHardenedAndVersioned) {
  const std::string text = outputOf("readelf -W -d -l " QZIOP_MODULE "; readlink -f " QZIOP_MODULE);
  for (const char* wanted : {"[libqziop.so.3]", "GNU_RELRO", "NOW", "/libqziop.so.3.3.1\n"}) {
    EXPECT_NE(text.find(wanted), std::string::npos) << wanted;
  }
}

class EntryTest : public ScriptTest {
 protected:
  qz::ExtensionObject* enter(std::vector<Fault> faults) {
    calls().plan(std::move(faults));
    calls().clear();
    recorder.entries.clear();
    return Library::get().qziop(host.handle(), journal);
  }
};

TEST_F(EntryTest, ExtensionObject) {
  EXPECT_EQ(std::string(module->eyecatcher, 4), "nevo");
  EXPECT_EQ(std::string(module->nameText, 12), "QZ Paged I/O");
  EXPECT_TRUE(module->objectName == module->nameText && module->host == host.handle());
  EXPECT_EQ(module->modulePool, host.pool("qziop pool"));
  EXPECT_EQ(module->bufferPool, host.pool("qziop buffer pool"));
  void* slots[kOperations.size()];
  std::memcpy(slots, &module->operations, sizeof slots);
  for (std::size_t i = 0; i < kOperations.size(); ++i)
    EXPECT_EQ(slots[i], Library::get().symbol(kOperations.at(i))) << kOperations.at(i);
  EXPECT_EQ(reinterpret_cast<void*>(module->qzpdestroy), Library::get().symbol("qzpdestroy"));
  std::uint32_t v[3];
  EXPECT_EQ(module->qzpgetreqversion(nullptr, &v[0], &v[1], &v[2]), Status::ok);
  EXPECT_TRUE(v[0] == 3 && v[1] == 2 && v[2] == 1);
  EXPECT_EQ(module->qzpgetversion(nullptr, &v[0], &v[1], &v[2]), Status::ok);
  EXPECT_TRUE(v[0] == 3 && v[1] == 3 && v[2] == 1);
}

TEST_F(EntryTest, UnwindsInOrderFromEveryFailure) {
  const std::string made =
      fmt::format("poolCreate:m poolCreate:b memAlloc:m{}", sizeof(qz::ExtensionObject));
  const std::string services = made + " extensionLoad:e converterCreate:c!";
  const struct {
    Fault fault;
    std::string hostCalls;
    const char *journal, *refused;  // entries; those where releases are refused
  } rows[] = {
      {{Call::poolCreate, 1}, "poolCreate:m!", "", ""},
      {{Call::poolCreate, 2}, "poolCreate:m poolCreate:b! destroy:m", "", "4:00000002"},
      {{Call::memAlloc}, made + "! destroy:b destroy:m", "4:002", "4:002 4:00000002 4:00000002"},
      {{Call::extensionLoad},
       made + " extensionLoad:e! memFree:m destroy:b destroy:m",
       "",
       "4:00000001 4:00000002 4:00000002"},
      {{Call::converterCreate},
       services + " destroy:e memFree:m destroy:b destroy:m",
       "",
       "4:00000002 4:00000001 4:00000002 4:00000002"},
  };
  const Fault noDestroy{Call::destroy, 1, kEveryLater, -1, 2};
  const Fault noFree{Call::memFree, 1, kEveryLater, -1, 1};
  for (const auto& row : rows) {
    EXPECT_EQ(enter({row.fault}), nullptr);
    EXPECT_EQ(calls().hostCalls(), row.hostCalls);
    EXPECT_EQ(recorder.entries, row.journal);
    EXPECT_EQ(enter({row.fault, noDestroy, noFree}), nullptr);
    EXPECT_EQ(recorder.entries, row.refused);
    journal = nullptr;
    EXPECT_EQ(enter({row.fault}), nullptr);
    EXPECT_EQ(recorder.entries, "");
    journal = &recorder;
  }
}

TEST_F(EntryTest, DestroyReleasesAllAndReturnsTheModulePoolsStatus) {
  for (const int failing : {0, 1, 2, 3, 4}) {
    qz::ExtensionObject* second = enter({});
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(calls().at(Call::poolCreate, 0).offset, 0);
    EXPECT_EQ(calls().at(Call::poolCreate, 1).offset, 0x100000);
    calls().clear();
    calls().plan({{Call::destroy, failing, 1, -1, 0x80FFE102}});
    EXPECT_EQ(second->qzpdestroy(second), failing == 4 ? 0x80FFE102 : 0);
    std::string trace = calls().hostCalls();
    trace.erase(std::remove(trace.begin(), trace.end(), '!'), trace.end());
    EXPECT_EQ(trace, "destroy:c destroy:e destroy:b memFree:m destroy:m");
    EXPECT_EQ(recorder.entries, "");
  }
}

template <class Function>
Function* service(const char* name) {
  return reinterpret_cast<Function*>(Library::get().symbol(name));
}

std::string waited;  // what was waited for, and how
qz::Task* currentTask = nullptr;

TEST(Wait, ResolvesItsTask) {
  // The flag as a full word: only its low byte may arrive.
  auto* const wait =
      service<qz::HostStatus(void*, qz::Word, qz::Word, qz::Word, unsigned, unsigned)>("qzWait");
  qz::Task tasks[3]{};
  for (qz::Task& task : tasks) {
    task.taskWait = [](qz::Task* self, qz::Word a1, qz::Word a2, qz::Word a3, std::uint8_t flag,
                       std::uint32_t time) -> qz::HostStatus {
      waited = fmt::format("{} {} {} {} {} {}", fmt::ptr(self), a1, a2, a3, flag, time);
      return 77;
    };
  }
  const auto waitedFor = [](const qz::Task& task) {
    return waited == fmt::format("{} 1 2 3 254 4", fmt::ptr(&task));
  };
  qz::QZHandle host{};
  host.currentTask = [](qz::QZHandle*) { return currentTask; };
  for (qz::QZHandle* const known : {static_cast<qz::QZHandle*>(nullptr), &host}) {
    EXPECT_EQ(Library::get().qzextent(known), 0U);
    EXPECT_EQ(*Library::get().exportedHandle, known);
    EXPECT_EQ(wait(nullptr, 0, 0, 0, 0, 0), 0x803FC009);
  }
  EXPECT_EQ(waited, "");
  host.mainTask = &tasks[1];
  EXPECT_TRUE(wait(&host, 1, 2, 3, 0x1FE, 4) == 77 && waitedFor(tasks[1]));
  currentTask = tasks;
  EXPECT_TRUE(wait(&host, 1, 2, 3, 0x1FE, 4) == 77 && waitedFor(tasks[0]));
  EXPECT_TRUE(wait(&tasks[2], 1, 2, 3, 0x1FE, 4) == 77 && waitedFor(tasks[2]));
}

TEST(Forwarding, HandsArgumentsOnAndResultsBack) {
  ShortJournal journal;
  journal.fileName = U"f";
  journal.messageResult = 77;
  char32_t buffer[8];
  std::uint32_t length = 0;
  const auto level = qz::JournalLevel::note;
  EXPECT_EQ(service<decltype(qzlMessageToBuf)>("qzlMessageToBuf")(&journal, 1, 2, 3, 4, 5, 6),
            qz::hostBadText);
  EXPECT_EQ(service<decltype(qzlMessageToJnl)>("qzlMessageToJnl")(&journal, level, U"a %d %s", 7, 5,
                                                                  U"f"),
            77U);
  service<decltype(qzlStatusToJnl)>("qzlStatusToJnl")(&journal, level, 0x803FC824, U"f");
  EXPECT_EQ(journal.entries, "buf123456 2:a 5 ~ 2:824(~)");
  EXPECT_EQ(service<decltype(qzlStatusToBuf)>("qzlStatusToBuf")(&journal, 0x803FC825, buffer, 2,
                                                                &length, U"g"),
            qz::hostTextTooLong);
}

// A report is the status's text and the line with the file's name in one message, in a buffer
// that grows by 4096 bytes as long as the text does not fit.
TEST_F(EntryTest, ReportsGrowTheirBuffer) {
  playRows("set textLength %1 nameLineLength %2; fail %3; flush -> 81E%4; host -> %5; texts -> %6",
           R"(
0 | 0 |  |  {!81E} | memAlloc:m4096 memFree:m | 4 [1024 1020]
1500 | 0 |  |  {!81E} | memAlloc:m4096 memFree:m memAlloc:m8192 memFree:m | 1500 [1024 2048 548]
4 | 1500 |  |  {!81E} | memAlloc:m4096 memAlloc:m8192 memFree:m memFree:m | 1504 [1024 1020 2044]
1500 | 0 | memAlloc#2 |  | memAlloc:m4096 memFree:m memAlloc:m8192! | 0 [1024]
4 | 1500 | memAlloc#2 |  | memAlloc:m4096 memAlloc:m8192! memFree:m | 0 [1024 1020]
0 | 0 | memAlloc |  | memAlloc:m4096! | 0 []
0 | 0 | memFree!80FFE101 |  {!81E 4:80FFE101} | memAlloc:m4096 memFree:m! | 4 [1024 1020])");
}

TEST_F(EntryTest, ReportsThatNeverFitAreGivenUp) {
  playRows("set textLength %1 nameLineLength %2; flush -> 81E%3; count memAlloc %4", R"(
11264 | 0 |  {!81E} | 11
11265 | 0 |  | 11
4 | 11260 |  {!81E} | 11
4 | 11261 |  | 11)");
  journal = nullptr;
  play("flush -> 81E; host ->");
}

}  // namespace
}  // namespace qztest
