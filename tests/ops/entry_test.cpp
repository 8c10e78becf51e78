// The library as a host loads it: names, entry function, extension object and host services.
#include <array>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <set>
#include <sstream>

#include "support/fixture.h"

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
  std::array<char, 4096> chunk{};
  while (std::size_t got = std::fread(chunk.data(), 1, chunk.size(), pipe))
    output.append(chunk.data(), got);
  EXPECT_EQ(pclose(pipe), 0) << command;
  return output;
}

TEST(Library, ExportsItsNamesAndImportsNoFormatter) {
  std::set<std::string> exported;
  std::set<std::string> imported;
  std::istringstream lines(outputOf("readelf -W --dyn-syms " QZIOP_MODULE));
  for (std::string line; std::getline(lines, line);) {
    std::array<std::string, 8> field;  // number, value, size, type, binding, visibility, section
    std::istringstream words(line);
    for (std::string& word : field) words >> word;
    if (field[4] == "GLOBAL" || field[4] == "WEAK")
      (field[6] == "UND" ? imported : exported).insert(field[7].substr(0, field[7].find('@')));
  }
  std::set<std::string> expected(kOperations.begin(), kOperations.end());
  expected.insert({"Exported_QZHandle", "qziop", "qzextent", "qzWait", "qzlMessageToBuf",
                   "qzlMessageToJnl", "qzlStatusToBuf", "qzlStatusToJnl", "qzpdestroy",
                   "qzpgetreqversion", "qzpgetversion"});
  EXPECT_EQ(exported, expected);
  EXPECT_TRUE(imported.count("fsync") == 1) << "imports were not understood";
  // Of allocators only the one that the tests watch.
  for (const char* name :
       {"malloc", "realloc", "_Znwm", "_Znwj", "_ZdlPv", "aligned_alloc", "snprintf", "vsnprintf",
        "printf", "open", "open64", "close", "unlink", "pthread_create", "pthread_mutex_lock"}) {
    EXPECT_EQ(imported.count(name), 0U) << name;
  }
}

TEST(Library, IsHardenedAndVersioned) {
  const std::string text = outputOf("readelf -W -d -l " QZIOP_MODULE);
  for (const char* wanted : {"[libqziop.so.3]", "GNU_RELRO", "NOW"}) {
    EXPECT_NE(text.find(wanted), std::string::npos) << wanted;
  }
  EXPECT_EQ(std::filesystem::canonical(QZIOP_MODULE).filename(), "libqziop.so.3.3.1");
}

class EntryTest : public FileTest {
 protected:
  qz::ExtensionObject* enter() {
    calls().clear();
    recorder.entries.clear();
    return Library::get().qziop(host.handle(), journal);
  }
};

TEST_F(EntryTest, ExtensionObject) {
  EXPECT_EQ(std::memcmp(module->eyecatcher, "nevo", 4), 0);
  EXPECT_EQ(module->objectName, module->nameText);
  EXPECT_EQ(std::memcmp(module->nameText, "QZ Paged I/O", 12), 0);
  EXPECT_EQ(module->host, host.handle());
  EXPECT_EQ(module->modulePool, host.pool("qziop pool"));
  EXPECT_EQ(module->bufferPool, host.pool("qziop buffer pool"));
  void* slots[21];
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
  const std::string object = "memAlloc:m" + std::to_string(sizeof(qz::ExtensionObject));
  const std::string pools = "poolCreate:m poolCreate:b ";
  const struct {
    Fault fault;
    std::string made;
    std::string released;
    const char* journal;
  } rows[] = {
      {{Call::poolCreate, 1}, "poolCreate:m!", "", ""},
      {{Call::poolCreate, 2}, "poolCreate:m poolCreate:b!", " destroy:m", ""},
      {{Call::memAlloc, 1}, pools + object + "!", " destroy:b destroy:m", "4:002"},
      {{Call::extensionLoad, 1},
       pools + object + " extensionLoad:e!",
       " memFree:m destroy:b destroy:m",
       ""},
      {{Call::converterCreate, 1},
       pools + object + " extensionLoad:e converterCreate:c!",
       " destroy:e memFree:m destroy:b destroy:m",
       ""},
  };
  for (const auto& row : rows) {
    calls().plan({row.fault});
    EXPECT_EQ(enter(), nullptr);
    EXPECT_EQ(calls().hostCalls(), row.made + row.released);
    EXPECT_EQ(recorder.entries, row.journal);
    // Releases that fail are journalled one by one, and the unwinding goes on.
    calls().plan({row.fault,
                  {Call::destroy, 1, kEveryLater, -1, 0x80FFE102},
                  {Call::memFree, 1, kEveryLater, -1, 0x80FFE101}});
    EXPECT_EQ(enter(), nullptr);
    std::string wanted = row.journal;
    std::istringstream words(row.released);
    for (std::string word; words >> word;) {
      wanted += wanted.empty() ? "4:80FFE10" : " 4:80FFE10";
      wanted += word == "memFree:m" ? '1' : '2';
    }
    EXPECT_EQ(recorder.entries, wanted);
    journal = nullptr;
    calls().plan({row.fault});
    EXPECT_EQ(enter(), nullptr);
    EXPECT_EQ(recorder.entries, "");
    journal = &recorder;
  }
}

TEST_F(EntryTest, DestroyReleasesAllAndReturnsTheModulePoolsStatus) {
  for (const int failing : {0, 1, 2, 3, 4}) {
    calls().plan({});
    qz::ExtensionObject* second = enter();
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(calls().trace().at(0).offset, 0);
    EXPECT_EQ(calls().trace().at(1).offset, 0x100000);
    calls().clear();
    calls().plan({{Call::destroy, failing, 1, -1, 0x80FFE102}});
    EXPECT_EQ(second->qzpdestroy(second), failing == 4 ? 0x80FFE102 : 0);
    std::string trace = calls().hostCalls();
    trace.erase(std::remove(trace.begin(), trace.end(), '!'), trace.end());
    EXPECT_EQ(trace, "destroy:c destroy:e destroy:b memFree:m destroy:m");
    EXPECT_EQ(recorder.entries, "");
  }
}

struct Waiting {
  int task = 0;  // 1 current, 2 main, 3 given
  unsigned flag = 0;
};
Waiting waiting;
qz::Task* currentTask = nullptr;

TEST(Wait, ResolvesItsTask) {
  const auto symbol = [](const char* name) { return Library::get().symbol(name); };
  // The flag as a full word: only its low byte may arrive.
  const auto wait = reinterpret_cast<qz::HostStatus (*)(void*, qz::Word, qz::Word, qz::Word,
                                                        unsigned, std::uint32_t)>(symbol("qzWait"));
  std::array<qz::Task, 3> tasks{};
  tasks[0].taskWait = [](qz::Task*, qz::Word a1, qz::Word a2, qz::Word a3, std::uint8_t flag,
                         std::uint32_t time) -> qz::HostStatus {
    waiting = {1, flag};
    return static_cast<qz::HostStatus>(a1 * 1000 + a2 * 100 + a3 * 10 + time);
  };
  tasks[1].taskWait = [](auto...) -> qz::HostStatus { return waiting = {2, 0}, 0; };
  tasks[2].taskWait = [](auto...) -> qz::HostStatus { return waiting = {3, 0}, 0; };
  qz::QZHandle host{};
  host.currentTask = [](qz::QZHandle*) { return currentTask; };
  Library::get().qzextent(nullptr);
  EXPECT_EQ(wait(nullptr, 0, 0, 0, 0, 0), 0x803FC009);
  EXPECT_EQ(Library::get().qzextent(&host), 0U);
  EXPECT_EQ(*Library::get().exportedHandle, &host);
  EXPECT_EQ(wait(nullptr, 0, 0, 0, 0, 0), 0x803FC009);
  EXPECT_EQ(waiting.task, 0);
  host.mainTask = &tasks[1];
  wait(&host, 0, 0, 0, 0, 0);
  EXPECT_EQ(waiting.task, 2);
  currentTask = tasks.data();
  EXPECT_EQ(wait(&host, 1, 2, 3, 0x1FE, 4), 1234U);
  EXPECT_EQ(waiting.task, 1);
  EXPECT_EQ(waiting.flag, 0xFEU);
  wait(&tasks[2], 0, 0, 0, 0, 0);
  EXPECT_EQ(waiting.task, 3);
}

TEST(Forwarding, HandsArgumentsOnAndResultsBack) {
  ShortJournal journal;
  journal.fileName = U"f";
  const auto symbol = [](const char* name) { return Library::get().symbol(name); };
  const auto messageToBuf = reinterpret_cast<decltype(&qzlMessageToBuf)>(symbol("qzlMessageToBuf"));
  EXPECT_EQ(messageToBuf(&journal, 1, 2, 3, 4, 5, 6), qz::hostBadText);
  EXPECT_EQ(journal.entries, "buf123456");
  const auto messageToJnl = reinterpret_cast<decltype(&qzlMessageToJnl)>(symbol("qzlMessageToJnl"));
  journal.entries.clear();
  journal.messageResult = 77;
  EXPECT_EQ(messageToJnl(&journal, qz::JournalLevel::note, U"a %d %s", 7, 5, U"f"), 77U);
  EXPECT_EQ(journal.entries, "2:a 5 ~");
  const auto statusToBuf = reinterpret_cast<decltype(&qzlStatusToBuf)>(symbol("qzlStatusToBuf"));
  char32_t buffer[8];
  std::uint32_t length = 0;
  EXPECT_EQ(statusToBuf(&journal, 0x803FC825, buffer, 8, &length, U"g"), 0U);
  EXPECT_EQ(std::u32string_view(buffer, length), U"(g)");
  const auto statusToJnl = reinterpret_cast<decltype(&qzlStatusToJnl)>(symbol("qzlStatusToJnl"));
  journal.entries.clear();
  EXPECT_EQ(statusToJnl(&journal, qz::JournalLevel::error, 0x803FC824, U"f"), 0U);
  EXPECT_EQ(journal.entries, "4:824(~)");
}

// A report is the status's text and the line with the file's name in one message, in a buffer
// that grows by 4096 bytes as long as the text does not fit.
TEST_F(FileTest, ReportsGrowTheirBuffer) {
  const struct {
    std::uint32_t text, nameLine;
    std::vector<Fault> faults;
    std::string capacities, hostCalls, entries;
  } rows[] = {
      {0, 0, {}, "1024 1020", "memAlloc:m4096 memFree:m", "!81E"},
      {1500, 0, {}, "1024 2048 548", "memAlloc:m4096 memFree:m memAlloc:m8192 memFree:m", "!81E"},
      {4, 1500, {}, "1024 1020 2044", "memAlloc:m4096 memAlloc:m8192 memFree:m memFree:m", "!81E"},
      {1500, 0, {{Call::memAlloc, 2}}, "1024", "memAlloc:m4096 memFree:m memAlloc:m8192!", ""},
      {4, 1500, {{Call::memAlloc, 2}}, "1024 1020", "memAlloc:m4096 memAlloc:m8192! memFree:m", ""},
      {0, 0, {{Call::memAlloc, 1}}, "", "memAlloc:m4096!", ""},
      {0,
       0,
       {{Call::memFree, 1, 1, -1, 0x80FFE101}},
       "1024 1020",
       "memAlloc:m4096 memFree:m!",
       "!81E 4:80FFE101"},
  };
  for (const auto& row : rows) {
    recorder.textLength = row.text;
    recorder.nameLineLength = row.nameLine;
    recorder.capacities.clear();
    calls().plan(row.faults);
    EXPECT_EQ(flush(), Status::notOpen);
    std::string capacities;
    for (const std::uint32_t capacity : recorder.capacities)
      capacities += (capacities.empty() ? "" : " ") + std::to_string(capacity);
    EXPECT_EQ(capacities, row.capacities);
    EXPECT_EQ(calls().hostCalls(), row.hostCalls);
    EXPECT_EQ(recorder.entries, row.entries);
    if (!row.entries.empty()) {
      EXPECT_EQ(recorder.lastLength, std::max(4U, row.text) + row.nameLine);
    }
  }
}

TEST_F(FileTest, ReportsThatNeverFitAreGivenUp) {
  const struct {
    std::uint32_t text, nameLine;
    std::size_t attempts;
    bool journalled;
  } rows[] = {
      {11264, 0, 12, true}, {11265, 0, 11, false}, {4, 11260, 12, true}, {4, 11261, 12, false}};
  for (const auto& row : rows) {
    recorder.textLength = row.text;
    recorder.nameLineLength = row.nameLine;
    recorder.capacities.clear();
    EXPECT_EQ(flush(), Status::notOpen);
    EXPECT_EQ(recorder.capacities.size(), row.attempts);
    EXPECT_EQ(recorder.entries, row.journalled ? "!81E" : "");
    EXPECT_EQ(h->status, Status::notOpen);
  }
  journal = nullptr;
  EXPECT_EQ(did(flush()), "81E");
  EXPECT_EQ(calls().hostCalls(), "");
}

}  // namespace
}  // namespace qztest
