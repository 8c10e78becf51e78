// Calls of host slots, by name.
#pragma once

#include "qzpos.h"

namespace qz {

// memAlloc flags for memory whose contents do not matter.
inline constexpr std::uint32_t kAsAllocated = 0;

// Permissions of a file that an open creates.
inline constexpr std::uint32_t kFilePermissions = 0666;

inline void* allocate(MemoryPool* pool, std::size_t bytes, std::uint32_t flags) {
  return pool->memAlloc(pool, bytes, flags);
}

inline HostStatus freeMemory(MemoryPool* pool, void* block) { return pool->memFree(pool, block); }

inline HostStatus closeHostFile(HostFile* file, OpenParameters* parameters, Journal* journal) {
  return file->fileMethods->fileClose(file, parameters, journal);
}

// The page tree over single-page buffers. A reopen whose set-up failed leaves a handle without one.

// The buffer of page *page, or null. The tree gets that address as its key. There must be a tree.
inline PageBuffer* findPage(const FileHandle& h, const std::int64_t* page) {
  return static_cast<PageBuffer*>(h.pageTree->treeFind(&h.pageTree->anchor, page));
}

// There must be a tree.
inline void enterPage(const FileHandle& h, PageBuffer* buffer) {
  h.pageTree->treeInsert(&h.pageTree->anchor, buffer);
}

// Takes the buffer out of the tree, if there is a tree. For an empty buffer it changes nothing: its
// number, 0, is not in the tree.
inline void takeOutOfTree(const FileHandle& h, const PageBuffer& buffer) {
  if (h.pageTree != nullptr) h.pageTree->treeRemove(&h.pageTree->anchor, &buffer.pageNumber);
}

// The module's own operations, through the table: the host may have replaced an entry.

inline Status closeThroughTable(FileHandle* h, std::uint32_t flags, Journal* journal) {
  return h->ops->operations.qzpclose(h, flags, journal);
}

inline Status infoThroughTable(FileHandle* h, Journal* journal) {
  return h->ops->operations.qzpinfo(h, journal);
}

inline Status truncateThroughTable(FileHandle* h, std::int64_t pageCount, Journal* journal) {
  return h->ops->operations.qzptruncate(h, pageCount, journal);
}

inline Status flushThroughTable(FileHandle* h, Journal* journal) {
  return h->ops->operations.qzpflush(h, journal);
}

}  // namespace qz
