// Promises about records, the toolkit handle, threads, options and tasks.
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "checks.h"
#include "qzpos.h"

namespace qz::hostcheck {
namespace {

constexpr std::u32string_view kTreeExtension = U"qzeavl";
constexpr std::u32string_view kPageSizeOption = U"host.pagesize";
constexpr std::u32string_view kUnknown = U"qzphostcheck.unknown";

TreeExtension* load(const Trial& trial, std::u32string_view name, Journal* journal) {
  return trial.host->extensionLoad(trial.host, name.data(), static_cast<std::uint32_t>(name.size()),
                                   journal);
}

HostStatus getOption(const Trial& trial, std::u32string_view key, std::uint32_t type, void* value,
                     std::uint32_t* bytes) {
  return trial.host->optionGet(trial.host, key.data(), static_cast<std::uint32_t>(key.size()), type,
                               value, bytes);
}

void slotsAreFilled(const Trial& trial) {
  const QZHandle& host = *trial.host;
  promised(host.poolCreate != nullptr, "poolCreate of the toolkit handle is null");
  promised(host.extensionLoad != nullptr, "extensionLoad of the toolkit handle is null");
  promised(host.currentTask != nullptr, "currentTask of the toolkit handle is null");
  promised(host.optionGet != nullptr, "optionGet of the toolkit handle is null");
  promised(host.encodingServices != nullptr, "encodingServices of the toolkit handle is null");
  promised(host.fileService != nullptr, "fileService of the toolkit handle is null");
  promised(host.encodingServices->converterCreate != nullptr, "converterCreate is null");
  promised(host.fileService->fileOpen != nullptr, "fileOpen is null");
  const Journal& journal = *trial.journal;
  promised(journal.messageToBuf != nullptr, "messageToBuf of the journal is null");
  promised(journal.messageToJnl != nullptr, "messageToJnl of the journal is null");
  promised(journal.statusToBuf != nullptr, "statusToBuf of the journal is null");
  promised(journal.statusToJnl != nullptr, "statusToJnl of the journal is null");
  const MemoryPool* pool = makePool(trial, kModulePool);
  promised(pool->destroy != nullptr, "destroy of a pool is null");
  promised(pool->memAlloc != nullptr, "memAlloc is null");
  promised(pool->memFree != nullptr, "memFree is null");
  const TreeExtension* extension = load(trial, kTreeExtension, trial.journal);
  needed(extension != nullptr, "the host loads no extension \"qzeavl\"");
  promised(extension->destroy != nullptr, "destroy of the tree extension is null");
  promised(extension->treeCreate != nullptr, "treeCreate is null");
}

// Every check catches exceptions; checkHost counts them against this promise.
void nothingIsThrown(const Trial&) {}

void makersReturnAnAddressOrNull(const Trial& trial) {
  promised(load(trial, kTreeExtension, trial.journal) != nullptr,
           "extensionLoad of \"qzeavl\" returns null");
  promised(load(trial, kUnknown, trial.journal) == nullptr,
           "extensionLoad of an unknown name returns something");
}

void recordsStay(const Trial& trial) {
  const QZHandle before = *trial.host;
  MemoryPool* const first = makePool(trial, kModulePool);
  const auto memAlloc = first->memAlloc;
  std::vector<MemoryPool*> others(100);
  for (MemoryPool*& other : others) other = makePool(trial, kBufferPool);
  promised(first->memAlloc == memAlloc, "the record of a pool changes when others are made");
  for (MemoryPool* other : others) {
    promised(other != first, "two pools have one record");
    other->destroy(other);
  }
  promised(first->memAlloc == memAlloc, "the record of a pool changes when others are destroyed");
  const QZHandle& after = *trial.host;
  promised(before.encodingServices == after.encodingServices &&
               before.fileService == after.fileService &&
               before.defaultJournal == after.defaultJournal && before.mainTask == after.mainTask,
           "a service, task or journal of the toolkit handle moves");
}

// The work of one of several threads. They share the pool.
bool useFromThread(const Trial& trial, MemoryPool* pool, unsigned char mark) {
  constexpr std::size_t kBytes = 600;
  bool good = true;
  for (int round = 0; good && round < 300; ++round) {
    auto* block = static_cast<unsigned char*>(pool->memAlloc(pool, kBytes, kZeroFill));
    if (block == nullptr) return false;
    std::memset(block, mark, kBytes);
    char32_t text[300];
    std::uint32_t length = 0;
    statusToBuf(trial.journal, static_cast<std::uint32_t>(Status::pageOutOfRange), text, 300,
                &length);
    std::int32_t value = 0;
    std::uint32_t bytes = sizeof value;
    getOption(trial, kPageSizeOption, kOptionInt32, &value, &bytes);
    trial.host->currentTask(trial.host);
    for (std::size_t i = 0; i < kBytes; ++i) good = good && block[i] == mark;
    pool->memFree(pool, block);
  }
  return good;
}

void threadsMayUseIt(const Trial& trial) {
  MemoryPool* const pool = makePool(trial, kModulePool);
  std::atomic<int> good = 0;
  std::thread threads[4];
  unsigned char mark = 0;
  for (std::thread& thread : threads) {
    thread = std::thread([&, own = ++mark] { good += useFromThread(trial, pool, own) ? 1 : 0; });
  }
  for (std::thread& thread : threads) thread.join();
  promised(good == std::ssize(threads),
           "a block that one of several threads has is refused or overwritten");
}

void aboutTheHostsCalls(const Trial&) {
  throw Untested{"it is about how the host calls the module"};
}

void refusalsAreReported(const Trial& trial) {
  load(trial, kUnknown, nullptr);  // null: no journal
  const std::size_t before = trial.entries().size();
  needed(load(trial, kUnknown, trial.journal) == nullptr, "the host refused nothing");
  promised(trial.entries().size() > before,
           "extensionLoad refuses an unknown name without an entry in the journal");
}

void optionsFitOrAreRefused(const Trial& trial) {
  struct {
    std::int32_t value = 0x5A5A5A5A;
    std::int32_t behind = 0x5A5A5A5A;
  } room;
  std::uint32_t bytes = sizeof room.value;
  promised(getOption(trial, kUnknown, kOptionInt32, &room.value, &bytes) != 0,
           "optionGet returns 0 for an option that does not exist");
  bytes = sizeof room.value;
  const bool isSet = getOption(trial, kPageSizeOption, kOptionInt32, &room.value, &bytes) == 0;
  promised(!isSet || bytes == sizeof room.value,
           "optionGet stores " + std::to_string(bytes) + " bytes of a number of 32 bits");
  room.value = 0x5A5A5A5A;
  bytes = 2;
  promised(getOption(trial, kPageSizeOption, kOptionInt32, &room.value, &bytes) != 0,
           "optionGet returns 0 for a number of 32 bits in 2 bytes");
  bytes = sizeof room.value;
  promised(getOption(trial, kPageSizeOption, kOptionInt32 + 1000, &room.value, &bytes) != 0,
           "optionGet returns 0 for a value type that does not exist");
  promised(room.behind == 0x5A5A5A5A, "optionGet stores more than 4 bytes");
}

void tasksReturn(const Trial& trial) {
  Task* task = trial.host->currentTask(trial.host);
  if (task == nullptr) task = trial.host->mainTask;
  needed(task != nullptr, "the host has neither a current nor a main task");
  promised(task->taskWait != nullptr, "taskWait is null");
  task->taskWait(task, 0, 0, 0, 0, 10);
}

constexpr Check kChecks[] = {
    {1, "slots are filled", slotsAreFilled},
    {2, "nothing is thrown through the module", nothingIsThrown},
    {3, "operations that create objects return an address, or null", makersReturnAnAddressOrNull},
    {4, "records stay where they are", recordsStay},
    {5, "several threads may use the host", threadsMayUseIt},
    {6, "the order of calls", aboutTheHostsCalls},
    {7, "one thread at a time for a handle", aboutTheHostsCalls},
    {8, "refusals are reported, a null journal is none", refusalsAreReported},
    {9, "an option fits, or is refused", optionsFitOrAreRefused},
    {47, "taskWait returns", tasksReturn},
};

}  // namespace

std::span<const Check> recordChecks() { return kChecks; }

}  // namespace qz::hostcheck
