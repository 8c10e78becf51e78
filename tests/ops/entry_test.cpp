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

// The module may take over no name of its host, and no call of the C library behind the host's
// back.
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

// Programs are linked to the name with the first number only; the file has the whole version.
TEST(Library, IsHardenedAndVersioned) {
  const std::string text = outputOf("readelf -W -d -l " QZIOP_MODULE "; readlink -f " QZIOP_MODULE);
  for (const char* wanted :
       {"[libqziop.so.3]", "GNU_RELRO", "NOW", "/libqziop.so." QZIOP_VERSION "\n"}) {
    EXPECT_NE(text.find(wanted), std::string::npos) << wanted;
  }
}

class EntryTest : public ScriptTest {
 protected:
  qz::ExtensionObject* enter(const std::string& faults) {
    play("fail " + faults);
    calls().clear();
    recorder.entries.clear();
    return Library::get().qziop(host.handle(), journal);
  }
};

// Hosts read these fields at fixed offsets.
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

// A host that refuses one step must get back everything made before it.
TEST_F(EntryTest, UnwindsInOrderFromEveryFailure) {
  const std::string made =
      fmt::format("poolCreate:m poolCreate:b memAlloc:m{}", sizeof(qz::ExtensionObject));
  const std::string services = made + " extensionLoad:e converterCreate:c!";
  const std::string undone = " memFree:m destroy:b destroy:m";
  // The calls; the journal's entries; those where releases are refused.
  const std::array<std::string, 4> rows[] = {
      {"poolCreate", "poolCreate:m!", "", ""},
      {"poolCreate number 2", "poolCreate:m poolCreate:b! destroy:m", "", "error 0x2"},
      {"memAlloc", made + "! destroy:b destroy:m", "error noMemory",
       "error noMemory, error 0x2, error 0x2"},
      {"extensionLoad", made + " extensionLoad:e!" + undone, "", "error 0x1, error 0x2, error 0x2"},
      {"converterCreate", services + " destroy:e" + undone, "",
       "error 0x2, error 0x1, error 0x2, error 0x2"}};
  for (const auto& [fault, hostCalls, journalled, refused] : rows) {
    EXPECT_EQ(enter(fault), nullptr);
    EXPECT_EQ(calls().hostCalls(), hostCalls);
    EXPECT_EQ(recorder.entries, journalled);
    EXPECT_EQ(enter(fault + " and destroy always with 2 and memFree always with 1"), nullptr);
    EXPECT_EQ(recorder.entries, refused);
    journal = nullptr;
    EXPECT_EQ(enter(fault), nullptr);
    EXPECT_EQ(recorder.entries, "");
    journal = &recorder;
  }
}

// A pool with blocks left is a leak that only this status shows.
TEST_F(EntryTest, DestroyReleasesAllAndReturnsTheModulePoolsStatus) {
  const std::pair<std::string, std::string> rows[] = {
      {"nothing", "destroy:c destroy:e destroy:b memFree:m destroy:m"},
      {"destroy times 3 with hostBlocksLive",
       "destroy:c! destroy:e! destroy:b! memFree:m destroy:m"},
      {"destroy number 4 with hostBlocksLive",
       "destroy:c destroy:e destroy:b memFree:m destroy:m!"}};
  for (const auto& [faults, hostCalls] : rows) {
    qz::ExtensionObject* second = enter("nothing");
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(calls().at(Call::poolCreate, 0).offset, 0);
    EXPECT_EQ(calls().at(Call::poolCreate, 1).offset, 0x100000);
    calls().clear();
    play("fail " + faults);
    EXPECT_EQ(second->qzpdestroy(second),
              hostCalls.back() == '!' ? qz::hostBlocksLive : qz::hostOk);
    EXPECT_EQ(calls().hostCalls(), hostCalls);
    EXPECT_EQ(recorder.entries, "");
  }
}

qz::Task tasks[3];
qz::Task* currentTask = nullptr;
std::string waited;  // which task, and how

// The other services are seen with the host's own journal.
TEST(Wait, ResolvesItsTask) {
  // The flag as a full word: only its low byte may arrive.
  using Wait = qz::HostStatus(void*, qz::Word, qz::Word, qz::Word, unsigned, unsigned);
  auto* const wait = reinterpret_cast<Wait*>(Library::get().symbol("qzWait"));
  for (qz::Task& task : tasks) {
    task.taskWait = [](qz::Task* self, qz::Word a1, qz::Word a2, qz::Word a3, std::uint8_t flag,
                       std::uint32_t time) -> qz::HostStatus {
      waited += fmt::format("{}: {} {} {} {} {};", self - tasks, a1, a2, a3, flag, time);
      return 77;
    };
  }
  qz::QZHandle host{};
  host.currentTask = [](qz::QZHandle*) { return currentTask; };
  for (qz::QZHandle* const known : {static_cast<qz::QZHandle*>(nullptr), &host}) {
    EXPECT_EQ(Library::get().qzextent(known), 0U);
    EXPECT_EQ(*static_cast<qz::QZHandle**>(Library::get().symbol("Exported_QZHandle")), known);
    EXPECT_EQ(wait(nullptr, 0, 0, 0, 0, 0), 0x803FC009);
  }
  host.mainTask = &tasks[1];
  EXPECT_EQ(wait(&host, 1, 2, 3, 0x1FE, 4), 77);
  currentTask = tasks;
  EXPECT_EQ(wait(&host, 1, 2, 3, 0x1FE, 4), 77);
  EXPECT_EQ(wait(&tasks[2], 1, 2, 3, 0x1FE, 4), 77);
  EXPECT_EQ(waited, "1: 1 2 3 254 4;0: 1 2 3 254 4;2: 1 2 3 254 4;");
}

// A report is the status's text and the line with the file's name in one message, in a buffer
// that grows by 4096 bytes as long as the text does not fit.
TEST_F(EntryTest, ReportsGrowTheirBuffer) {
  // "texts": characters of the message, then the room in the buffer that each text was given.
  playRows(
      R"(
    set textLength <text> nameLineLength <line>; fail <fault>; flush -> <outcome>
    host -> <calls>; texts -> <length and room>)",
      R"(
text | line | fault | outcome | calls | length and room
0 | 0 | nothing | notOpen | memAlloc:m4096 memFree:m | 4 [1024 1020]
1500 | 0 | nothing | notOpen | memAlloc:m4096 memFree:m memAlloc:m8192 memFree:m | 1500 [1024 2048 548]
4 | 1500 | nothing | notOpen | memAlloc:m4096 memAlloc:m8192 memFree:m memFree:m | 1504 [1024 1020 2044]
1500 | 0 | memAlloc number 2 | notOpen unreported | memAlloc:m4096 memFree:m memAlloc:m8192! | 0 [1024]
4 | 1500 | memAlloc number 2 | notOpen unreported | memAlloc:m4096 memAlloc:m8192! memFree:m | 0 [1024 1020]
0 | 0 | memAlloc | notOpen unreported | memAlloc:m4096! | 0 []
)"
      "0 | 0 | memFree with hostForeignBlock | notOpen {report notOpen, error hostForeignBlock} | "
      "memAlloc:m4096 memFree:m! | 4 [1024 1020]");
}

// A journal whose texts never fit must not make the module ask for more memory for ever.
TEST_F(EntryTest, ReportsThatNeverFitAreGivenUp) {
  playRows("set textLength <text> nameLineLength <line>; flush -> <outcome>; count memAlloc 11", R"(
text | line | outcome
11264 | 0 | notOpen
11265 | 0 | notOpen unreported
4 | 11260 | notOpen
4 | 11261 | notOpen unreported)");
  journal = nullptr;
  play("flush -> notOpen unreported; host ->");
}

}  // namespace
}  // namespace qztest
