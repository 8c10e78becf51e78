// qzpgetmemhandle: makes the record of one file.
#include <cstring>

#include "hostcalls.h"
#include "outcome.h"

qz::FileHandle* qzpgetmemhandle(qz::ExtensionObject* module, qz::Journal* journal) noexcept {
  using namespace qz;
  auto* h = static_cast<FileHandle*>(allocate(module->modulePool, sizeof(FileHandle), kZeroFill));
  if (h == nullptr) {
    journalStatus(journal, Status::noMemory);
    return nullptr;
  }
  std::memcpy(h->eyecatcher, "nevo", sizeof h->eyecatcher);
  h->objectName = h->nameText;
  h->headerWord = 0;
  std::memcpy(h->nameText, "QZ Member Handle", sizeof h->nameText);
  h->pool = module->modulePool;
  h->ops = module;
  h->module = module;
  h->fd = -1;
  return h;
}
