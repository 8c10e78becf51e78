#include "support/hostcalls.h"

#include <string_view>

#include "support/syscalls.h"

namespace qztest {

namespace {

// The stand-in host's own operations, by their slots. All objects of a kind share them.
template <class Object, class Function>
Function* functionOf(Function* Object::*slot);
template <auto slot>
decltype(functionOf(slot)) original;

const qz::MemoryPool* poolOfBuffers = nullptr;
DirectIo directIo = DirectIo::simulated;

template <auto slot, class Object>
void replace(Object* object, decltype(functionOf(slot)) replacement) {
  if (object->*slot == replacement) return;
  original<slot> = object->*slot;
  object->*slot = replacement;
}

// Makes an object, or fails as planned; `create` returns it.
template <class Create>
auto created(CallRecord record, Create create) -> decltype(create()) {
  auto* object = calls().next(record.call) != nullptr ? nullptr : create();
  record.result = object != nullptr ? 1 : 0;
  calls().record(record);
  return object;
}

// Frees memory, destroys an object or closes a file, and returns the planned fault, if any, in
// place of the result. A faulted close leaves the file open.
template <class Release>
qz::HostStatus released(CallRecord record, Release release) {
  const Fault* fault = calls().next(record.call);
  qz::HostStatus status = 0;
  const bool keeps = record.call == Call::fileClose;
  if (fault == nullptr || (!keeps && fault->result != kNotDone)) status = release();
  if (fault != nullptr) status = fault->error;
  record.result = status;
  calls().record(record);
  return status;
}

HostObject kindOf(const qz::MemoryPool* pool) {
  return pool == poolOfBuffers ? bufferPool : modulePool;
}
HostObject kindOf(const qz::TreeExtension* /*extension*/) { return treeExtension; }
HostObject kindOf(const qz::Converter* /*converter*/) { return converter; }
HostObject kindOf(const qz::PageTree* /*tree*/) { return pageTree; }

template <class Object>
qz::HostStatus destroy(Object* object) {
  return released({Call::destroy, kindOf(object)},
                  [&] { return original<&Object::destroy>(object); });
}

void* memAlloc(qz::MemoryPool* pool, std::size_t bytes, std::uint32_t flags) {
  return created({Call::memAlloc, kindOf(pool), static_cast<std::int64_t>(bytes), flags}, [&] {
    return static_cast<char*>(original<&qz::MemoryPool::memAlloc>(pool, bytes, flags));
  });
}

qz::HostStatus memFree(qz::MemoryPool* pool, void* block) {
  return released({Call::memFree, kindOf(pool)},
                  [&] { return original<&qz::MemoryPool::memFree>(pool, block); });
}

qz::MemoryPool* poolCreate(qz::QZHandle* host, const qz::PoolAttributes* attributes,
                           qz::Journal* journal, const char* name) {
  const bool forBuffers = std::string_view(name) == "qziop buffer pool";
  qz::MemoryPool* pool =
      created({Call::poolCreate, forBuffers ? bufferPool : modulePool, 0, attributes->words[0]},
              [&] { return original<&qz::QZHandle::poolCreate>(host, attributes, journal, name); });
  if (pool == nullptr) return nullptr;
  // A pool of records may get the address that a pool of buffers had before.
  if (forBuffers || poolOfBuffers == pool) poolOfBuffers = forBuffers ? pool : nullptr;
  replace<&qz::MemoryPool::memAlloc>(pool, memAlloc);
  replace<&qz::MemoryPool::memFree>(pool, memFree);
  replace<&qz::MemoryPool::destroy>(pool, destroy<qz::MemoryPool>);
  return pool;
}

qz::PageTree* treeCreate(qz::TreeExtension* extension, const qz::TreeAttributes* attributes,
                         qz::Journal* journal, const char* name) {
  qz::PageTree* tree = created({Call::treeCreate, pageTree, attributes->keyOffset}, [&] {
    return original<&qz::TreeExtension::treeCreate>(extension, attributes, journal, name);
  });
  if (tree != nullptr) replace<&qz::PageTree::destroy>(tree, destroy<qz::PageTree>);
  return tree;
}

qz::TreeExtension* extensionLoad(qz::QZHandle* host, const char32_t* name, std::uint32_t length,
                                 qz::Journal* journal) {
  qz::TreeExtension* extension = created({Call::extensionLoad, treeExtension}, [&] {
    return original<&qz::QZHandle::extensionLoad>(host, name, length, journal);
  });
  if (extension != nullptr) {
    replace<&qz::TreeExtension::destroy>(extension, destroy<qz::TreeExtension>);
    replace<&qz::TreeExtension::treeCreate>(extension, treeCreate);
  }
  return extension;
}

qz::Converter* converterCreate(qz::EncodingServices* services, qz::Word encoding, qz::Word word,
                               qz::Journal* journal) {
  qz::Converter* made = created({Call::converterCreate, converter}, [&] {
    return original<&qz::EncodingServices::converterCreate>(services, encoding, word, journal);
  });
  if (made != nullptr) replace<&qz::Converter::destroy>(made, destroy<qz::Converter>);
  return made;
}

// An open or reopen: fails as planned, or is made by `open`, without O_DIRECT where direct I/O is
// simulated. There, transfers must be aligned to the smallest sector from now on.
template <class Open>
void opened(CallRecord record, qz::OpenParameters* parameters, qz::HostStatus* status, Open open) {
  record.flags = parameters->openFlags;
  if (const Fault* fault = calls().next(record.call)) {
    parameters->systemErrno = static_cast<std::int32_t>(fault->result);
    parameters->errorDetail1 = kRefusedDetail1;
    parameters->errorDetail2 = kRefusedDetail2;
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
  opened({Call::fileReopen, 0, 0, accessMode}, parameters, &status, [&] {
    status = original<&qz::FileMethods::fileReopen>(file, parameters, accessMode, journal);
  });
  return status;
}

qz::HostStatus fileClose(qz::HostFile* file, qz::OpenParameters* parameters, qz::Journal* journal) {
  return released({.call = Call::fileClose, .flags = parameters->removeAtClose},
                  [&] { return original<&qz::FileMethods::fileClose>(file, parameters, journal); });
}

qz::HostFile* fileOpen(qz::FileService* service, qz::OpenParameters* parameters, qz::Word one,
                       std::uint32_t accessMode, qz::Journal* journal, qz::HostStatus* status) {
  qz::HostFile* file = nullptr;
  opened({Call::fileOpen, static_cast<int>(parameters->permissions), static_cast<std::int64_t>(one),
          accessMode},
         parameters, status, [&] {
           file = original<&qz::FileService::fileOpen>(service, parameters, one, accessMode,
                                                       journal, status);
         });
  if (file != nullptr) {
    replace<&qz::FileMethods::fileReopen>(file->fileMethods, fileReopen);
    replace<&qz::FileMethods::fileClose>(file->fileMethods, fileClose);
  }
  return file;
}

// Records the wait and returns at once.
qz::HostStatus taskWait(qz::Task* /*task*/, qz::Word /*a1*/, qz::Word /*a2*/, qz::Word /*a3*/,
                        std::uint8_t /*flag*/, std::uint32_t waitTime) {
  calls().record({Call::taskWait, 0, waitTime});
  return 0;
}

}  // namespace

void recordHostCalls(qz::StandInHost& host) {
  qz::QZHandle* handle = host.handle();
  replace<&qz::QZHandle::poolCreate>(handle, poolCreate);
  replace<&qz::QZHandle::extensionLoad>(handle, extensionLoad);
  replace<&qz::EncodingServices::converterCreate>(handle->encodingServices, converterCreate);
  replace<&qz::FileService::fileOpen>(handle->fileService, fileOpen);
  handle->mainTask->taskWait = taskWait;
  if (qz::Task* task = handle->currentTask(handle); task != nullptr) task->taskWait = taskWait;
}

void setDirectIo(DirectIo way) {
  directIo = way;
  calls().requireAlignment(0);
}

}  // namespace qztest
