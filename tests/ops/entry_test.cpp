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

// An export beyond these could replace a function of the host. An import of an allocator, of file
// or formatting functions would act without the host.
TEST(Library, ExportsAndImportsNothingBeyondItsContract) {
  const std::string names = " " QZIOP_MODULE " | sed 's/[@ ].*//' | LC_ALL=C sort | xargs echo";
  std::set<std::string> expected(kOperations.begin(), kOperations.end());
  expected.insert({"Exported_QZHandle", "qziop", "qzextent", "qzWait", "qzlMessageToBuf",
                   "qzlMessageToJnl", "qzlStatusToBuf", "qzlStatusToJnl", "qzpdestroy",
                   "qzpgetreqversion", "qzpgetversion"});
  EXPECT_EQ(outputOf("nm -DP --defined-only" + names),
            fmt::format("{}\n", fmt::join(expected, " ")));
  const std::string imported = " " + outputOf("nm -DP --undefined-only" + names);
  EXPECT_NE(imported.find(" fsync "), std::string::npos) << "imports were not understood";
  // calloc is allowed: the module's index of records uses it.
  for (const char* name :
       {"malloc", "realloc", "_Znwm", "_Znwj", "_ZdlPv", "aligned_alloc", "snprintf", "vsnprintf",
        "printf", "open", "open64", "close", "unlink", "pthread_create", "pthread_mutex_lock"}) {
    EXPECT_EQ(imported.find(fmt::format(" {} ", name)), std::string::npos) << name;
  }
}

// Programs link to the name with the major version only; the file's name has the whole version.
TEST(Library, IsHardenedAndVersioned) {
  const std::string text = outputOf("readelf -W -d -l " QZIOP_MODULE "; readlink -f " QZIOP_MODULE);
  for (const char* wanted :
       {"[libqziop.so.3]", "GNU_RELRO", "NOW", "/libqziop.so." QZIOP_VERSION "\n"}) {
    EXPECT_NE(text.find(wanted), std::string::npos) << wanted;
  }
}

class EntryTest : public ScriptTest {
 protected:
  // Calls the entry function with these faults.
  qz::ExtensionObject* enter(const std::string& faults) {
    play("fail " + faults);
    calls().clear();
    recorder.entries.clear();
    return Library::get().qziop(host.handle(), journal);
  }
};

// Hosts find the module's names, pools, operations and versions in this object.
TEST_F(EntryTest, TheExtensionObjectIsFilledIn) {
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
  using Version = std::array<std::uint32_t, 3>;
  Version v;
  EXPECT_EQ(module->qzpgetreqversion(nullptr, &v[0], &v[1], &v[2]), Status::ok);
  EXPECT_EQ(v, (Version{3, 2, 1})) << "the version of the host that the module requires";
  EXPECT_EQ(module->qzpgetversion(nullptr, &v[0], &v[1], &v[2]), Status::ok);
  EXPECT_EQ(v, (Version{3, 3, 1})) << "the module's own version";
}

// If one step of the start fails, everything made before it must be freed, last first, and each
// refusal to free be journalled.
TEST_F(EntryTest, AFailedStartFreesWhatItMade) {
  const std::string made =
      fmt::format("poolCreate modulePool, poolCreate bufferPool, memAlloc modulePool {}",
                  sizeof(qz::ExtensionObject));
  const std::string services = made + ", extensionLoad, converterCreate fails";
  const std::string undone = ", memFree modulePool, destroy bufferPool, destroy modulePool";
  const std::string noFree = "error hostForeignBlock";
  const std::string noDestroy = "error hostBlocksLive";
  // The fault; the host calls; the journal's entries; the entries where memFree and destroy fail,
  // too.
  const std::array<std::string, 4> rows[] = {
      {"poolCreate", "poolCreate modulePool fails", "", ""},
      {"poolCreate number 2",
       "poolCreate modulePool, poolCreate bufferPool fails, destroy modulePool", "", noDestroy},
      {"memAlloc", made + " fails, destroy bufferPool, destroy modulePool", "error noMemory",
       fmt::format("error noMemory, {0}, {0}", noDestroy)},
      {"extensionLoad", made + ", extensionLoad fails" + undone, "",
       fmt::format("{0}, {1}, {1}", noFree, noDestroy)},
      {"converterCreate", services + ", destroy extension" + undone, "",
       fmt::format("{1}, {0}, {1}, {1}", noFree, noDestroy)}};
  for (const auto& [fault, hostCalls, journalled, refused] : rows) {
    EXPECT_EQ(enter(fault), nullptr);
    EXPECT_EQ(calls().hostCalls(), hostCalls);
    EXPECT_EQ(recorder.entries, journalled);
    EXPECT_EQ(enter(fault + " and destroy always with hostBlocksLive"
                            " and memFree always with hostForeignBlock"),
              nullptr);
    EXPECT_EQ(recorder.entries, refused);
    journal = nullptr;
    EXPECT_EQ(enter(fault), nullptr);
    EXPECT_EQ(recorder.entries, "");
    journal = &recorder;
  }
}

// Only the status of the module pool tells the host that blocks leaked: qzpdestroy must return it,
// and destroy everything else whatever that returns.
TEST_F(EntryTest, DestroyEndsAllAndReturnsTheModulePoolsStatus) {
  const struct {
    const char* faults;
    const char* hostCalls;
    qz::HostStatus status;
  } rows[] = {{"nothing",
               "destroy converter, destroy extension, destroy bufferPool, memFree modulePool, "
               "destroy modulePool",
               qz::hostOk},
              {"destroy times 3 with hostBlocksLive",
               "destroy converter fails, destroy extension fails, destroy bufferPool fails, "
               "memFree modulePool, destroy modulePool",
               qz::hostOk},
              {"destroy number 4 with hostBlocksLive",
               "destroy converter, destroy extension, destroy bufferPool, memFree modulePool, "
               "destroy modulePool fails",
               qz::hostBlocksLive}};
  for (const auto& [faults, hostCalls, status] : rows) {
    qz::ExtensionObject* second = enter("nothing");
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(calls().at(Call::poolCreate, 0).offset, 0) << "a pool of records";
    EXPECT_EQ(calls().at(Call::poolCreate, 1).offset, 0x100000) << "a pool of data areas";
    calls().clear();
    play(std::string("fail ") + faults);
    EXPECT_EQ(second->qzpdestroy(second), status);
    EXPECT_EQ(calls().hostCalls(), hostCalls);
    EXPECT_EQ(recorder.entries, "");
  }
}

qz::Task tasks[3];
qz::Task* currentTask = nullptr;
std::string waited;  // the tasks that waited, with their arguments

// qzWait must reach the task that it was given, else the host's current task, else its main task.
// Without a host or a task it must fail, not crash.
TEST(Wait, FindsItsTask) {
  // Called with a whole word as the flag: only its low byte may arrive.
  using Wait = qz::HostStatus(void*, qz::Word, qz::Word, qz::Word, unsigned, unsigned);
  auto* const wait = reinterpret_cast<Wait*>(Library::get().symbol("qzWait"));
  for (qz::Task& task : tasks) {
    task.taskWait = [](qz::Task* self, qz::Word a1, qz::Word a2, qz::Word a3, std::uint8_t flag,
                       std::uint32_t time) -> qz::HostStatus {
      waited += fmt::format("{}: {} {} {} {} {};", self - tasks, a1, a2, a3, flag, time);
      return qz::hostTryAgain;
    };
  }
  qz::QZHandle host{};
  host.currentTask = [](qz::QZHandle*) { return currentTask; };
  for (qz::QZHandle* const known : {static_cast<qz::QZHandle*>(nullptr), &host}) {
    EXPECT_EQ(Library::get().qzextent(known), 0U);
    EXPECT_EQ(*static_cast<qz::QZHandle**>(Library::get().symbol("Exported_QZHandle")), known);
    EXPECT_EQ(wait(nullptr, 0, 0, 0, 0, 0), qz::kNoTask);
  }
  host.mainTask = &tasks[1];
  EXPECT_EQ(wait(&host, 1, 2, 3, 0x1FE, 4), qz::hostTryAgain);
  currentTask = tasks;
  EXPECT_EQ(wait(&host, 1, 2, 3, 0x1FE, 4), qz::hostTryAgain);
  EXPECT_EQ(wait(&tasks[2], 1, 2, 3, 0x1FE, 4), qz::hostTryAgain);
  EXPECT_EQ(waited, "1: 1 2 3 254 4;0: 1 2 3 254 4;2: 1 2 3 254 4;");
}

// A report is one message of the status's text and the line with the file's name. Its buffer of
// 4096 bytes, 1024 characters, must grow by 4096 bytes until both fit, and be freed on every way
// out.
TEST_F(EntryTest, ReportsGrowTheirBuffer) {
  playRows(
      R"(
    set textLength <text> nameLineLength <line>; fail <fault>; flush -> <outcome>
    hostCalls -> memAlloc modulePool 4096<then>; textCapacities -> <room>; is messageLength <length>)",
      R"(
text | line | fault | outcome | then | room | length
0 | 0 | nothing | notOpen | , memFree modulePool | 1024 1020 | 4
1500 | 0 | nothing | notOpen | , memFree modulePool, memAlloc modulePool 8192, memFree modulePool | 1024 2048 548 | 1500
4 | 1500 | nothing | notOpen | , memAlloc modulePool 8192, memFree modulePool, memFree modulePool | 1024 1020 2044 | 1504
1500 | 0 | memAlloc number 2 | notOpen unreported | , memFree modulePool, memAlloc modulePool 8192 fails | 1024 | 0
4 | 1500 | memAlloc number 2 | notOpen unreported | , memAlloc modulePool 8192 fails, memFree modulePool | 1024 1020 | 0
0 | 0 | memAlloc | notOpen unreported |  fails |  | 0
0 | 0 | memFree with hostForeignBlock | notOpen {report notOpen, error hostForeignBlock} | , memFree modulePool fails | 1024 1020 | 4)");
}

// A journal whose texts never fit must not make the module ask for more memory for ever: it gives
// up after 11 buffers, the last with room for 11264 characters.
TEST_F(EntryTest, ReportsThatNeverFitAreGivenUp) {
  playRows("set textLength <text> nameLineLength <line>; flush -> <outcome>; count memAlloc 11", R"(
text | line | outcome
11264 | 0 | notOpen
11265 | 0 | notOpen unreported
4 | 11260 | notOpen
4 | 11261 | notOpen unreported)");
  journal = nullptr;
  play("flush -> notOpen unreported; hostCalls ->");
}

}  // namespace
}  // namespace qztest
