// qziop: what the host loads the module for. Makes the pools, the tree extension and the
// converter, and returns the extension object with the operation table.
//
// When a step fails, what the steps before it made is released; a release that the host refuses is
// journalled. The host reports why the step failed; qziop itself reports only that there is no
// memory for the extension object.
#include <cstring>

#include "hostcalls.h"
#include "outcome.h"
#include "qzpoperations.h"

namespace qz {
namespace {

constexpr OperationTable kOperations = {
#define SLOT(name) .name = (name),
    QZP_EACH_OPERATION(SLOT)
#undef SLOT
};

void stamp(ExtensionObject* module, QZHandle* host) {
  std::memcpy(module->eyecatcher, "nevo", sizeof module->eyecatcher);
  module->objectName = module->nameText;
  module->qzpdestroy = qzpdestroy;
  module->host = host;
  module->qzpgetreqversion = qzpgetreqversion;
  module->qzpgetversion = qzpgetversion;
  std::memcpy(module->nameText, "QZ Paged I/O", sizeof module->nameText);
  module->operations = kOperations;
}

// Makes the tree extension and the converter. On failure it releases both, frees the object and
// returns null.
ExtensionObject* loadServices(ExtensionObject* module, QZHandle* host, Journal* journal) {
  MemoryPool* modulePool = module->modulePool;
  module->eavl = host->extensionLoad(host, U"qzeavl", 6, journal);
  if (module->eavl != nullptr) {
    EncodingServices* services = host->encodingServices;
    module->converter = services->converterCreate(services, services->systemEncoding, 0, journal);
    if (module->converter != nullptr) return module;
    judgeRelease(module->eavl->destroy(module->eavl), journal);
  }
  freeOrJournal(modulePool, module, journal);
  return nullptr;
}

ExtensionObject* makeModule(MemoryPool* modulePool, MemoryPool* bufferPool, QZHandle* host,
                            Journal* journal) {
  auto* module =
      static_cast<ExtensionObject*>(allocate(modulePool, sizeof(ExtensionObject), kAsAllocated));
  if (module == nullptr) {
    journalStatus(journal, Status::noMemory);
    return nullptr;
  }
  module->modulePool = modulePool;
  module->bufferPool = bufferPool;
  return loadServices(module, host, journal);
}

}  // namespace
}  // namespace qz

qz::ExtensionObject* qziop(qz::QZHandle* host, qz::Journal* journal) noexcept {
  using namespace qz;
  PoolAttributes attributes = {};
  MemoryPool* modulePool = host->poolCreate(host, &attributes, journal, "qziop pool");
  if (modulePool == nullptr) return nullptr;
  attributes.words[0] = 0x100000;
  MemoryPool* bufferPool = host->poolCreate(host, &attributes, journal, "qziop buffer pool");
  if (bufferPool != nullptr) {
    ExtensionObject* module = makeModule(modulePool, bufferPool, host, journal);
    if (module != nullptr) {
      stamp(module, host);
      return module;
    }
    judgeRelease(bufferPool->destroy(bufferPool), journal);
  }
  judgeRelease(modulePool->destroy(modulePool), journal);
  return nullptr;
}

qz::HostStatus qzpdestroy(qz::ExtensionObject* module) noexcept {
  qz::MemoryPool* modulePool = module->modulePool;
  module->converter->destroy(module->converter);
  module->eavl->destroy(module->eavl);
  module->bufferPool->destroy(module->bufferPool);
  qz::freeMemory(modulePool, module);
  return modulePool->destroy(modulePool);
}

qz::Status qzpgetreqversion(qz::ExtensionObject* /*module*/, std::uint32_t* first,
                            std::uint32_t* second, std::uint32_t* third) noexcept {
  *first = 3;
  *second = 2;
  *third = 1;
  return qz::Status::ok;
}

qz::Status qzpgetversion(qz::ExtensionObject* /*module*/, std::uint32_t* first,
                         std::uint32_t* second, std::uint32_t* third) noexcept {
  *first = 3;
  *second = 3;
  *third = 1;
  return qz::Status::ok;
}
