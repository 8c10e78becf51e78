// Drives the module through its operation table, as a host does: creates FILE with a page for each
// WORD, makes the pages durable and reads them back. The host's journal reports failures.
#include <dlfcn.h>
#include <qzpos.h>
#include <qzstandin.h>

#include <cstdio>
#include <cstring>

using qz::Status;

static Status run(const qz::OperationTable& table, qz::FileHandle* file, char** words,
                  qz::Journal* log) {
  Status status = Status::ok;
  qz::PageRequest page{};
  for (page.length = file->pageSize; status == Status::ok && *words != nullptr; ++words) {
    void* buffer = nullptr;  // a page in the module's memory, filled in place
    if (status = table.qzpbufacquire(file, &buffer, log); status != Status::ok) break;
    ++page.pageNumber;
    page.buffer = std::strncpy(static_cast<char*>(buffer), *words, std::size_t(page.length));
    status = table.qzpwrite(file, &page, log);  // ends the hold
  }
  if (status == Status::ok) status = table.qzpflush(file, log);
  for (page.pageNumber = 1; status == Status::ok; ++page.pageNumber) {
    if (status = table.qzpread(file, &page, log); status != Status::ok) break;
    std::printf("page %d: %.*s\n", int(page.pageNumber), file->pageSize, page.buffer);
    status = table.qzpbufreturn(file, page.buffer, log);
  }
  return status == Status::endOfFile ? Status::ok : status;
}

int main(int argc, char** argv) {
  void* library = argc > 2 ? dlopen("libqziop.so.3", RTLD_NOW) : nullptr;
  const char* reason = argc > 2 ? dlerror() : "usage: raw_table FILE WORD...";
  if (library == nullptr) return std::fprintf(stderr, "%s\n", reason), 1;
  auto* extent = reinterpret_cast<decltype(&qzextent)>(dlsym(library, "qzextent"));
  auto* entry = reinterpret_cast<decltype(&qziop)>(dlsym(library, "qziop"));
  qz::StandInHost host;
  qz::Journal* log = &host.defaultJournal();
  const bool known = extent != nullptr && entry != nullptr && extent(host.handle()) == 0;
  qz::ExtensionObject* module = known ? entry(host.handle(), log) : nullptr;
  if (module == nullptr) return std::fputs("the module did not start\n", stderr), 1;
  const qz::OperationTable& table = module->operations;
  qz::FileHandle* file = table.qzpgetmemhandle(module, log);
  if (file == nullptr) return 1;  // the journal has the reason
  file->openMode = qz::createOrReplace;
  file->readAccess = qz::readRandom;
  file->writeAccess = qz::rewritePages;
  file->pageSize = 4096;
  const std::u32string name = qz::toUtf32(argv[1]);
  Status status = table.qzpsetfilename(file, name.data(), int(name.size()), log);
  if (status == Status::ok) status = table.qzpopen(file, log);
  if (status == Status::ok) status = run(table, file, argv + 2, log);
  const Status closed = file->hostFile != nullptr ? table.qzpclose(file, 0, log) : Status::ok;
  if (status == Status::ok) status = closed;
  if (status != Status::ok) std::fprintf(stderr, "%s\n", qz::statusText(unsigned(status)).c_str());
  table.qzpfreememhandle(file, log);
  return module->qzpdestroy(module) == 0 && status == Status::ok ? 0 : 1;
}
