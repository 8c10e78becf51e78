// Checks a host: the stand-in host, and with --broken a host whose pools do not zero memory.
// Replace it by the handle of your own host. Prints the promises that are broken or could not be
// tested, and exits with 1 if any is broken.
#include <qzphostcheck.h>
#include <qzstandin.h>

#include <cstdio>
#include <cstring>

// A pool that ignores the flag for zeroed memory.
static qz::MemoryPool* (*makePool)(qz::QZHandle*, const qz::PoolAttributes*, qz::Journal*,
                                   const char*);
static void* (*allocate)(qz::MemoryPool*, std::size_t, std::uint32_t);

static qz::MemoryPool* makeBrokenPool(qz::QZHandle* host, const qz::PoolAttributes* attributes,
                                      qz::Journal* journal, const char* name) {
  qz::MemoryPool* pool = makePool(host, attributes, journal, name);
  if (pool == nullptr) return nullptr;
  allocate = pool->memAlloc;
  pool->memAlloc = [](qz::MemoryPool* self, std::size_t bytes, std::uint32_t) {
    return allocate(self, bytes, 0);
  };
  return pool;
}

int main(int argc, char** argv) {
  qz::StandInHost host({.hostPageSize = 4096, .defaultJournal = qz::JournalSink::memory});
  if (argc > 1 && std::strcmp(argv[1], "--broken") == 0) {
    makePool = host.handle()->poolCreate;
    host.handle()->poolCreate = makeBrokenPool;
  }

  qz::HostCheckOptions options;
  options.entries = [&host] {
    std::vector<std::string> texts;
    for (const qz::JournalEntry& entry : host.defaultJournal().entries()) {
      texts.push_back(entry.text);
    }
    return texts;
  };
  int counts[3] = {0, 0, 0};
  for (const qz::PromiseReport& report : qz::checkHost(host.handle(), options)) {
    ++counts[static_cast<int>(report.verdict)];
    if (report.verdict == qz::Verdict::kept) continue;
    const bool broken = report.verdict == qz::Verdict::broken;
    std::printf("H%d %s: %s\n    %s\n", report.number, broken ? "broken" : "not tested",
                report.what, report.reason.c_str());
  }
  std::printf("%d promises kept, %d broken, %d not tested\n", counts[0], counts[1], counts[2]);
  return counts[1] == 0 ? 0 : 1;
}
