// Many handles, each on a thread of its own, over one host and one module. scripts/threads runs
// this under ThreadSanitizer.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "qziop.hpp"

namespace {

constexpr int kThreads = 6;
constexpr int kRounds = 20;
constexpr int kPages = 11;

struct Use {
  qz::Io io;
  std::int32_t pageSize;
};
constexpr Use kUses[] = {{qz::Io::buffered, 512}, {qz::Io::direct, 4096}, {qz::Io::block, 4096}};

// Makes, fills, reads and closes a file; the first failure, or nothing.
std::string useFile(const qz::Module& module, qz::Journal* journal, const std::string& name,
                    const Use& use, char mark) {
  auto file = module.newFile(journal);
  if (!file) return file.error().message();
  auto done = file->open(name, {.pageSize = use.pageSize,
                                .opening = qz::Opening::replace,
                                .writing = qz::Writing::anyPage,
                                .io = use.io,
                                .blockBytes = 16384,
                                .buffers = 3});
  if (!done) return done.error().message();
  for (int page = 1; page <= kPages; ++page) {
    auto hold = file->acquire();
    if (!hold) return hold.error().message();
    std::memset(hold->data(), mark + page, static_cast<std::size_t>(use.pageSize));
    if (done = file->write(*hold, page); !done) return done.error().message();
  }
  if (done = file->refresh(); !done) return done.error().message();
  for (int page = kPages; page >= 1; --page) {
    const auto hold = file->read(page);
    if (!hold) return hold.error().message();
    const char* data = hold->data();
    if (std::count(data, data + use.pageSize, static_cast<char>(mark + page)) != use.pageSize) {
      return "page " + std::to_string(page) + " of " + name + " has the bytes of another";
    }
  }
  // A failure that is reported, as all threads share the journal.
  if (file->read(kPages + 5).status() != qz::Status::pageOutOfRange) return "read beyond the end";
  done = file->close();
  return done ? std::string() : done.error().message();
}

// Handles share the module and the host: ThreadSanitizer must find no race between threads.
TEST(Threads, ManyHandlesOverOneModule) {
  qz::StandInHost host;
  qz::StandInJournal journal;
  auto module = qz::Module::load(host.handle(), &journal, QZIOP_MODULE);
  ASSERT_TRUE(module) << module.error().message();
  const std::string folder = QZIOP_PROGRAMS "/qzthreads" + std::to_string(getpid());
  std::filesystem::create_directory(folder);

  std::vector<std::string> problems(kThreads);
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  std::atomic<int> ready = 0;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      for (++ready; ready < kThreads;) std::this_thread::yield();  // all at once
      std::string& problem = problems[static_cast<std::size_t>(i)];
      for (int round = 0; round < kRounds && problem.empty(); ++round) {
        std::string name = folder + "/" + std::to_string(i);
        name.append(static_cast<std::size_t>(round), 'x');
        problem = useFile(*module, &journal, name, kUses[round % 3], static_cast<char>(i));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const std::string& problem : problems) EXPECT_EQ(problem, "");
  EXPECT_EQ(journal.entries().size(), std::size_t{kThreads} * kRounds) << "one report a round";

  EXPECT_EQ(module->dispose(), 0U);
  EXPECT_EQ(host.liveObjects(), 0U);
  EXPECT_EQ(host.poolCounts().leakedBlocks, 0U);
  std::filesystem::remove_all(folder);
}

}  // namespace
