// Appends COUNT zero pages to FILE, which is created if necessary, and prints how many of its pages
// are zero. Shows settings, the I/O mode obtained, blocks scanned in place, and a journal function.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <qziop.hpp>

static int failed(const qz::Error& error) {
  std::fprintf(stderr, "blocks: %s\n", error.message().c_str());
  return 1;
}

// Gets each entry of the journal.
static void note(void*, const qz::JournalEntry& entry) noexcept {
  std::fprintf(stderr, "journal: %s\n", entry.text.c_str());
}

// A hold of one page gives access to all the pages after it in its block: one read per block.
static qz::Result<std::int64_t> countZeroPages(qz::PagedFile& file) {
  std::int64_t zero = 0;
  for (std::int64_t page = 1; page <= file.pageCount();) {
    const auto hold = file.read(page);
    if (!hold) return hold.error();
    for (std::int32_t at = 0; at < hold->run(); at += file.pageSize(), ++page) {
      const char* data = hold->data() + at;
      if (std::all_of(data, data + file.pageSize(), [](char byte) { return byte == 0; })) ++zero;
    }
  }
  return zero;
}

int main(int argc, char** argv) {
  if (argc != 3) return std::fputs("usage: cpp_blocks FILE COUNT\n", stderr), 64;
  qz::StandInHost host;
  qz::StandInJournal journal(qz::JournalSink::function, note);
  const auto module = qz::Module::load(host.handle(), &journal);
  if (!module) return failed(module.error());
  auto file = module->newFile(&journal);
  if (!file) return failed(file.error());
  const auto opened = file->open(argv[1], {.opening = qz::Opening::existingOrNew,
                                           .writing = qz::Writing::anyPage,
                                           .io = qz::Io::block,
                                           .blockBytes = 1048576,
                                           .flushAtClose = true});
  if (!opened) return failed(opened.error());
  if (const qz::IoReport io = file->io(); io.asked != io.obtained) {
    std::fprintf(stderr, "blocks: I/O is %s: %s\n", nameOf(io.obtained), io.reason.c_str());
  }
  const auto extended = file->extendTo(file->pageCount() + std::atoi(argv[2]));
  if (!extended) return failed(extended.error());
  const auto zero = countZeroPages(*file);
  if (!zero) return failed(zero.error());
  std::printf("%lld of %lld pages are zero\n", static_cast<long long>(*zero),
              static_cast<long long>(file->pageCount()));
  const auto closed = file->close();
  return closed ? 0 : failed(closed.error());
}
