#include "support/hostcalls.h"

#include <string_view>

#include "support/syscalls.h"

namespace qztest {

namespace {

// The stand-in host's own operations. It has one function for each slot, whatever the object.
struct Originals {
  decltype(qz::QZHandle::poolCreate) poolCreate;
  decltype(qz::MemoryPool::memAlloc) memAlloc;
  decltype(qz::MemoryPool::memFree) memFree;
  decltype(qz::QZHandle::extensionLoad) extensionLoad;
  decltype(qz::TreeExtension::treeCreate) treeCreate;
  decltype(qz::EncodingServices::converterCreate) converterCreate;
  decltype(qz::FileService::fileOpen) fileOpen;
  decltype(qz::FileMethods::fileReopen) fileReopen;
  decltype(qz::FileMethods::fileClose) fileClose;
};
Originals originals;
const qz::MemoryPool* bufferPool = nullptr;
DirectIo directIo = DirectIo::simulated;

template <class Slot>
void replace(Slot& slot, Slot& original, Slot replacement) {
  if (slot != replacement) {
    original = slot;
    slot = replacement;
  }
}

// Makes an object, or fails as planned; `create` returns it.
template <class Create>
auto created(CallRecord record, Create create) -> decltype(create()) {
  auto* object = calls().next(record.call) != nullptr ? nullptr : create();
  record.result = object != nullptr ? 1 : 0;
  calls().record(record);
  return object;
}

// Releases an object; a planned fault only takes the place of the result.
template <class Release>
qz::HostStatus released(CallRecord record, Release release) {
  const Fault* fault = calls().next(record.call);
  qz::HostStatus status = 0;
  if (fault == nullptr || fault->result != kNotDone) status = release();
  if (fault != nullptr) status = fault->error;
  record.result = status;
  calls().record(record);
  return status;
}

int idOf(const qz::MemoryPool* pool) { return pool == bufferPool ? 'b' : 'm'; }
int idOf(const qz::TreeExtension* /*extension*/) { return 'e'; }
int idOf(const qz::Converter* /*converter*/) { return 'c'; }
int idOf(const qz::PageTree* /*tree*/) { return 't'; }

template <class Object>
decltype(Object::destroy) originalDestroy;

template <class Object>
qz::HostStatus destroy(Object* object) {
  return released({Call::destroy, idOf(object)}, [&] { return originalDestroy<Object>(object); });
}

template <class Object>
void replaceDestroy(Object* object) {
  replace(object->destroy, originalDestroy<Object>, destroy<Object>);
}

void* memAlloc(qz::MemoryPool* pool, std::size_t bytes, std::uint32_t flags) {
  return created({Call::memAlloc, idOf(pool), static_cast<std::int64_t>(bytes), flags},
                 [&] { return static_cast<char*>(originals.memAlloc(pool, bytes, flags)); });
}

qz::HostStatus memFree(qz::MemoryPool* pool, void* block) {
  return released({Call::memFree, idOf(pool)}, [&] { return originals.memFree(pool, block); });
}

qz::MemoryPool* poolCreate(qz::QZHandle* host, const qz::PoolAttributes* attributes,
                           qz::Journal* journal, const char* name) {
  const bool forBuffers = std::string_view(name) == "qziop buffer pool";
  qz::MemoryPool* pool =
      created({Call::poolCreate, forBuffers ? 'b' : 'm', 0, attributes->words[0]},
              [&] { return originals.poolCreate(host, attributes, journal, name); });
  if (pool == nullptr) return nullptr;
  if (forBuffers) {
    bufferPool = pool;
  } else if (bufferPool == pool) {
    bufferPool = nullptr;  // the address of an earlier one, used again
  }
  replace(pool->memAlloc, originals.memAlloc, memAlloc);
  replace(pool->memFree, originals.memFree, memFree);
  replaceDestroy(pool);
  return pool;
}

qz::PageTree* treeCreate(qz::TreeExtension* extension, const qz::TreeAttributes* attributes,
                         qz::Journal* journal, const char* name) {
  qz::PageTree* tree = created({Call::treeCreate, 't', attributes->keyOffset}, [&] {
    return originals.treeCreate(extension, attributes, journal, name);
  });
  if (tree != nullptr) replaceDestroy(tree);
  return tree;
}

qz::TreeExtension* extensionLoad(qz::QZHandle* host, const char32_t* name, std::uint32_t length,
                                 qz::Journal* journal) {
  qz::TreeExtension* extension = created({Call::extensionLoad, 'e', length}, [&] {
    return originals.extensionLoad(host, name, length, journal);
  });
  if (extension != nullptr) {
    replaceDestroy(extension);
    replace(extension->treeCreate, originals.treeCreate, treeCreate);
  }
  return extension;
}

qz::Converter* converterCreate(qz::EncodingServices* services, qz::Word encoding, qz::Word word,
                               qz::Journal* journal) {
  qz::Converter* converter =
      created({Call::converterCreate, 'c', 0, static_cast<std::int64_t>(word)},
              [&] { return originals.converterCreate(services, encoding, word, journal); });
  if (converter != nullptr) replaceDestroy(converter);
  return converter;
}

// An open or reopen: fails as planned, or goes through `open`, which is not to see O_DIRECT when
// that is simulated. Pages that the buffer pool aligns can be held to an alignment; smaller ones
// cannot.
template <class Open>
void opened(CallRecord record, qz::OpenParameters* parameters, qz::HostStatus* status, Open open) {
  record.flags = parameters->openFlags;
  if (const Fault* fault = calls().next(record.call)) {
    parameters->systemErrno = static_cast<std::int32_t>(fault->result);
    parameters->errorDetail1 = 11;
    parameters->errorDetail2 = 22;
    *status = fault->error;
  } else {
    if (directIo != DirectIo::real) parameters->openFlags &= ~qz::openflag::direct;
    open();
    parameters->openFlags = record.flags;
    const bool direct = (record.flags & qz::openflag::direct) != 0;
    const bool enforced = directIo == DirectIo::simulated && direct;
    if (*status == 0) calls().requireAlignment(enforced ? 512 : 0);
  }
  record.result = *status;
  calls().record(record);
}

qz::HostStatus fileReopen(qz::HostFile* file, qz::OpenParameters* parameters,
                          std::uint32_t accessMode, qz::Journal* journal) {
  qz::HostStatus status = 0;
  opened({Call::fileReopen, 0, 0, accessMode}, parameters, &status,
         [&] { status = originals.fileReopen(file, parameters, accessMode, journal); });
  return status;
}

qz::HostStatus fileClose(qz::HostFile* file, qz::OpenParameters* parameters, qz::Journal* journal) {
  CallRecord record{Call::fileClose};
  record.flags = parameters->removeAtClose;
  const Fault* fault = calls().next(Call::fileClose);
  const qz::HostStatus status =
      fault != nullptr ? fault->error : originals.fileClose(file, parameters, journal);
  record.result = status;
  calls().record(record);
  return status;
}

qz::HostFile* fileOpen(qz::FileService* service, qz::OpenParameters* parameters, qz::Word one,
                       std::uint32_t accessMode, qz::Journal* journal, qz::HostStatus* status) {
  qz::HostFile* file = nullptr;
  opened({Call::fileOpen, static_cast<int>(parameters->permissions), static_cast<std::int64_t>(one),
          accessMode},
         parameters, status,
         [&] { file = originals.fileOpen(service, parameters, one, accessMode, journal, status); });
  if (file != nullptr) {
    replace(file->fileMethods->fileReopen, originals.fileReopen, fileReopen);
    replace(file->fileMethods->fileClose, originals.fileClose, fileClose);
  }
  return file;
}

// Waits for nothing.
qz::HostStatus taskWait(qz::Task* /*task*/, qz::Word a1, qz::Word a2, qz::Word a3,
                        std::uint8_t flag, std::uint32_t waitTime) {
  const auto words = static_cast<std::int64_t>(a1 | a2 | a3 | flag);
  calls().record({Call::taskWait, 0, waitTime, words});
  return 0;
}

}  // namespace

void recordHostCalls(qz::StandInHost& host) {
  qz::QZHandle* handle = host.handle();
  replace(handle->poolCreate, originals.poolCreate, poolCreate);
  replace(handle->extensionLoad, originals.extensionLoad, extensionLoad);
  replace(handle->encodingServices->converterCreate, originals.converterCreate, converterCreate);
  replace(handle->fileService->fileOpen, originals.fileOpen, fileOpen);
  handle->mainTask->taskWait = taskWait;
  if (qz::Task* task = handle->currentTask(handle); task != nullptr) task->taskWait = taskWait;
}

void setDirectIo(DirectIo way) {
  directIo = way;
  calls().requireAlignment(0);
}

}  // namespace qztest
