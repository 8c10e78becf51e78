// Adds up the bytes of each FILE, all files at once: with one host and one module, and with one
// handle for each thread.
#include <cstdio>
#include <qziop.hpp>
#include <string>
#include <thread>
#include <vector>

struct Sum {
  explicit Sum(const char* file) : name(file) {}
  std::string name;
  std::uint64_t total = 0;
  std::string problem;  // empty: the sum is valid
};

static void add(const qz::Module& module, Sum* sum) {
  auto file = module.newFile();
  if (!file) {
    sum->problem = file.error().message();
    return;
  }
  const auto opened = file->open(sum->name, {.pageSize = 512, .reading = qz::Reading::inOrder});
  if (!opened) {
    sum->problem = opened.error().message();
    return;
  }
  for (std::int64_t page = 1; page <= file->pageCount(); ++page) {
    const auto hold = file->read(page);
    if (!hold) {
      sum->problem = hold.error().message();
      return;
    }
    for (std::int32_t i = 0; i < hold->bytes(); ++i) {
      sum->total += static_cast<unsigned char>(hold->data()[i]);
    }
  }
}

int main(int argc, char** argv) {
  qz::StandInHost host({.hostPageSize = {}, .defaultJournal = qz::JournalSink::memory});
  const auto module = qz::Module::load(host.handle());
  if (!module) return std::fprintf(stderr, "%s\n", module.error().message().c_str()), 1;
  std::vector<Sum> sums(argv + 1, argv + argc);
  std::vector<std::thread> threads;
  threads.reserve(sums.size());
  for (Sum& sum : sums) threads.emplace_back([&] { add(*module, &sum); });
  for (std::thread& thread : threads) thread.join();
  int result = 0;
  for (const Sum& sum : sums) {
    if (!sum.problem.empty()) result = 1;
    std::printf("%s: %s\n", sum.name.c_str(),
                sum.problem.empty() ? std::to_string(sum.total).c_str() : sum.problem.c_str());
  }
  return result;
}
