// The check of a host: it finds every promise kept by the stand-in host, and names the promise that
// a host breaks. Promises are numbered H1 to H48, as in docs/host-contract.md.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "qzphostcheck.h"
#include "qzpos.h"
#include "qzstandin.h"

namespace qztest {
namespace {

using namespace qz;  // NOLINT(google-build-using-namespace): every record of the host is used here

// A stand-in host whose journal the check can read.
struct TriedHost {
  TriedHost() : host({.hostPageSize = 8192, .defaultJournal = JournalSink::memory}) {}

  // The limit is high for slow machines; a test of a host that never returns sets a low one.
  std::vector<PromiseReport> check(int secondsPerPromise = 60) {
    HostCheckOptions options;
    options.secondsPerPromise = secondsPerPromise;
    options.entries = [this] {
      std::vector<std::string> texts;
      for (const JournalEntry& entry : host.defaultJournal().entries()) texts.push_back(entry.text);
      return texts;
    };
    return checkHost(host.handle(), options);
  }

  StandInHost host;
};

// H6 and H7 are about what the host does with the module, which the check cannot see. H42 is about
// a refusal of direct I/O, which not every system has.
bool mayGoUntested(int promise) { return promise == 6 || promise == 7 || promise == 42; }

// The check must not accuse a host that keeps its promises.
TEST(HostCheck, TheStandInHostKeepsEveryPromise) {
  TriedHost tried;
  int number = 0;
  for (const PromiseReport& report : tried.check()) {
    EXPECT_EQ(report.number, ++number);
    EXPECT_TRUE(report.verdict == Verdict::kept || mayGoUntested(report.number))
        << "H" << report.number << ": " << report.reason;
    EXPECT_NE(report.verdict, Verdict::broken) << report.reason;
  }
  EXPECT_EQ(number, 48);
  EXPECT_EQ(tried.host.liveObjects(), 0U) << "the check leaves the host as it was";
}

// Promises about the entries of the journal (H8, H25, H45) must not count as kept where the check
// cannot read the entries.
TEST(HostCheck, SaysWhatNeedsTheEntriesOfTheJournal) {
  TriedHost tried;
  for (const PromiseReport& report : checkHost(tried.host.handle())) {
    const bool needsEntries = report.number == 8 || report.number == 25 || report.number == 45;
    const Verdict wanted = needsEntries ? Verdict::notTested : Verdict::kept;
    EXPECT_TRUE(report.verdict == wanted || mayGoUntested(report.number))
        << "H" << report.number << ": " << report.reason;
  }
}

// --- Hosts that break a promise
//
// Each replaces slots of a stand-in host. `real` has the slots from before. The slots of objects
// that the host makes later are replaced by `change`, once each object is made.

struct {
  QZHandle host;
  Journal journal;
  EncodingServices services;
  FileService files;
  MemoryPool pool;
  TreeExtension extension;
  PageTree tree;
  Converter converter;
  FileMethods methods;
} real;

template <class Object>
void (*change)(Object*);

void changePools(QZHandle* host, void (*how)(MemoryPool*)) {
  change<MemoryPool> = how;
  host->poolCreate = [](QZHandle* self, const PoolAttributes* attributes, Journal* journal,
                        const char* name) {
    MemoryPool* pool = real.host.poolCreate(self, attributes, journal, name);
    real.pool = *pool;
    change<MemoryPool>(pool);
    return pool;
  };
}

void changeTrees(QZHandle* host, void (*how)(PageTree*)) {
  change<PageTree> = how;
  host->extensionLoad = [](QZHandle* self, const char32_t* name, std::uint32_t length,
                           Journal* journal) {
    TreeExtension* extension = real.host.extensionLoad(self, name, length, journal);
    if (extension == nullptr) return extension;
    real.extension = *extension;
    extension->treeCreate = [](TreeExtension* from, const TreeAttributes* attributes, Journal* log,
                               const char* treeName) {
      PageTree* tree = real.extension.treeCreate(from, attributes, log, treeName);
      real.tree = *tree;
      change<PageTree>(tree);
      return tree;
    };
    return extension;
  };
}

void changeConverters(QZHandle* host, void (*how)(Converter*)) {
  change<Converter> = how;
  host->encodingServices->converterCreate = [](EncodingServices* services, Word encoding, Word a3,
                                               Journal* journal) {
    Converter* converter = real.services.converterCreate(services, encoding, a3, journal);
    real.converter = *converter;
    change<Converter>(converter);
    return converter;
  };
}

void changeFiles(QZHandle* host, void (*how)(HostFile*)) {
  change<HostFile> = how;
  host->fileService->fileOpen = [](FileService* self, OpenParameters* parameters, Word one,
                                   std::uint32_t mode, Journal* journal, HostStatus* status) {
    HostFile* file = real.files.fileOpen(self, parameters, one, mode, journal, status);
    if (file != nullptr) {
      if (real.methods.fileClose == nullptr) real.methods = *file->fileMethods;
      change<HostFile>(file);
    }
    return file;
  };
}

std::int64_t& keyOf(void* node) {
  return *reinterpret_cast<std::int64_t*>(static_cast<char*>(node) + 5 * sizeof(void*));
}

HostStatus realStatusToBuf(Journal* journal, std::uint32_t status, char32_t* buffer,
                           std::uint32_t capacity, std::uint32_t* length, ...) {
  std::va_list inserts;
  va_start(inserts, length);
  const HostStatus result =
      real.journal.statusToBuf(journal, status, buffer, capacity, length, inserts);
  va_end(inserts);
  return result;
}

// For the records of broken pools, which the check uses from several threads.
std::mutex poolMutex;

// The address of each block that was moved, with the one that the real pool gave it.
std::map<void*, void*>& moved() {
  static std::map<void*, void*> blocks;
  return blocks;
}

// Allocates `distance` bytes more and returns the address behind them.
void* allocateBehind(MemoryPool* pool, std::size_t bytes, std::uint32_t flags,
                     std::size_t distance) {
  auto* block = static_cast<char*>(real.pool.memAlloc(pool, bytes + distance, flags));
  if (block == nullptr || distance == 0) return block;
  const std::lock_guard lock(poolMutex);
  moved()[block + distance] = block;
  return block + distance;
}

HostStatus freeMoved(MemoryPool* pool, void* block) {
  const std::lock_guard lock(poolMutex);
  const auto found = moved().find(block);
  if (found == moved().end()) return real.pool.memFree(pool, block);
  void* const address = found->second;
  moved().erase(found);
  return real.pool.memFree(pool, address);
}

// Moves every block by `distance` of its size.
void shiftBlocks(QZHandle* host, unsigned (*distance)(std::size_t bytes)) {
  static decltype(distance) shift;
  shift = distance;
  changePools(host, [](MemoryPool* pool) {
    pool->memFree = freeMoved;
    pool->memAlloc = [](MemoryPool* self, std::size_t bytes, std::uint32_t flags) {
      return allocateBehind(self, bytes, flags, shift(bytes));
    };
  });
}

struct BrokenHost {
  int promise;  // the number behind the H
  const char* how;
  void (*apply)(QZHandle*);
};

const BrokenHost kBrokenHosts[] = {
    {1, "a slot of the journal is null",
     [](QZHandle* host) { host->defaultJournal->messageToBuf = nullptr; }},
    {2, "the conversion throws",
     [](QZHandle* host) {
       changeConverters(host, [](Converter* converter) {
         converter->convert = [](Converter*, const char32_t*, std::size_t, char*, std::size_t, Word,
                                 Word) -> HostStatus { throw std::runtime_error("no"); };
       });
     }},
    {3, "an extension of any name is loaded",
     [](QZHandle* host) {
       host->extensionLoad = [](QZHandle* self, const char32_t*, std::uint32_t, Journal* journal) {
         return real.host.extensionLoad(self, U"qzeavl", 6, journal);
       };
     }},
    {4, "the main task moves",
     [](QZHandle* host) {
       changePools(host, [](MemoryPool*) {});
       host->poolCreate = [](QZHandle* self, const PoolAttributes* attributes, Journal* journal,
                             const char* name) {
         static Task tasks[2];
         self->mainTask = self->mainTask == &tasks[0] ? &tasks[1] : &tasks[0];
         *self->mainTask = *real.host.mainTask;
         return real.host.poolCreate(self, attributes, journal, name);
       };
     }},
    {5, "one thread at a time gets memory",
     [](QZHandle* host) {
       changePools(host, [](MemoryPool* pool) {
         pool->memAlloc = [](MemoryPool* self, std::size_t bytes, std::uint32_t flags) -> void* {
           static std::atomic<int> inside = 0;
           const bool alone = ++inside == 1;
           sched_yield();
           void* block = alone ? real.pool.memAlloc(self, bytes, flags) : nullptr;
           --inside;
           return block;
         };
       });
     }},
    {8, "a refusal is not reported",
     [](QZHandle* host) {
       host->extensionLoad = [](QZHandle* self, const char32_t* name, std::uint32_t length,
                                Journal*) {
         return real.host.extensionLoad(self, name, length, nullptr);
       };
     }},
    {9, "an option that does not fit is left out in silence",
     [](QZHandle* host) {
       host->optionGet = [](QZHandle* self, const char32_t* key, std::uint32_t length,
                            std::uint32_t type, void* value, std::uint32_t* bytes) -> HostStatus {
         if (*bytes < 4) return 0;
         return real.host.optionGet(self, key, length, type, value, bytes);
       };
     }},
    {10, "a block is allocated twice",
     [](QZHandle* host) {
       changePools(host, [](MemoryPool* pool) {
         static void* last = nullptr;
         pool->memAlloc = [](MemoryPool* self, std::size_t bytes, std::uint32_t flags) {
           if (bytes == 1000 && last != nullptr) return last;
           void* block = real.pool.memAlloc(self, bytes, flags);
           if (bytes == 1000) last = block;
           return block;
         };
         pool->memFree = [](MemoryPool* self, void* block) {
           if (block == last) last = nullptr;
           return real.pool.memFree(self, block);
         };
       });
     }},
    {11, "the flag for zero bytes is ignored",
     [](QZHandle* host) {
       changePools(host, [](MemoryPool* pool) {
         pool->memAlloc = [](MemoryPool* self, std::size_t bytes, std::uint32_t) {
           return real.pool.memAlloc(self, bytes, 0);
         };
       });
     }},
    {12, "a small block lies at an odd address",
     [](QZHandle* host) {
       shiftBlocks(host, [](std::size_t bytes) { return bytes == 40 ? 1U : 0U; });
     }},
    {13, "a page buffer is aligned to 512 bytes only",
     [](QZHandle* host) {
       shiftBlocks(host, [](std::size_t bytes) { return bytes >= 4096 ? 512U : 0U; });
     }},
    {14, "a buffer of a sector is aligned to 64 bytes only",
     [](QZHandle* host) {
       shiftBlocks(host, [](std::size_t bytes) { return bytes >= 512 && bytes < 4096 ? 64U : 0U; });
     }},
    {15, "only the last block can be freed",
     [](QZHandle* host) {
       changePools(host, [](MemoryPool* pool) {
         static std::vector<void*> blocks;
         pool->memAlloc = [](MemoryPool* self, std::size_t bytes, std::uint32_t flags) {
           const std::lock_guard lock(poolMutex);
           blocks.push_back(real.pool.memAlloc(self, bytes, flags));
           return blocks.back();
         };
         pool->memFree = [](MemoryPool* self, void* block) -> HostStatus {
           const std::lock_guard lock(poolMutex);
           if (blocks.back() != block) return hostForeignBlock;
           blocks.pop_back();
           return real.pool.memFree(self, block);
         };
       });
     }},
    {16, "a pool cannot be destroyed",
     [](QZHandle* host) {
       changePools(host, [](MemoryPool* pool) {
         pool->destroy = [](MemoryPool*) -> HostStatus { return hostBlocksLive; };
       });
     }},
    {17, "a name must be terminated",
     [](QZHandle* host) {
       host->extensionLoad = [](QZHandle* self, const char32_t* name, std::uint32_t length,
                                Journal* journal) {
         length += name[length] != 0 ? 1 : 0;
         return real.host.extensionLoad(self, name, length, journal);
       };
     }},
    {18, "two inserts change places",
     [](QZHandle* host) {
       host->defaultJournal->statusToBuf = [](Journal* self, std::uint32_t status, char32_t* buffer,
                                              std::uint32_t capacity, std::uint32_t* length,
                                              std::va_list inserts) {
         if (Status{status} != Status::accessNote) {
           return real.journal.statusToBuf(self, status, buffer, capacity, length, inserts);
         }
         const auto* first = va_arg(inserts, const char32_t*);
         const auto* second = va_arg(inserts, const char32_t*);
         return realStatusToBuf(self, status, buffer, capacity, length, second, first);
       };
     }},
    {19, "a status has no text",
     [](QZHandle* host) {
       host->defaultJournal->statusToBuf = [](Journal* self, std::uint32_t status, char32_t* buffer,
                                              std::uint32_t capacity, std::uint32_t* length,
                                              std::va_list inserts) {
         *length = 0;
         if (Status{status} == Status::reopenFailed) return HostStatus{hostUnknownOption};
         return real.journal.statusToBuf(self, status, buffer, capacity, length, inserts);
       };
     }},
    {19, "only statuses of this version have a text",
     [](QZHandle* host) {
       host->defaultJournal->statusToBuf = [](Journal* self, std::uint32_t status, char32_t* buffer,
                                              std::uint32_t capacity, std::uint32_t* length,
                                              std::va_list inserts) {
         const bool later = statusText(status).find("has no text") != std::string::npos;
         if (later) return HostStatus{hostUnknownOption};
         return real.journal.statusToBuf(self, status, buffer, capacity, length, inserts);
       };
     }},
    {20, "a text has a placeholder that gets no insert",
     [](QZHandle* host) {
       host->defaultJournal->statusToBuf = [](Journal* self, std::uint32_t status, char32_t* buffer,
                                              std::uint32_t capacity, std::uint32_t* length,
                                              std::va_list inserts) {
         if (Status{status} == Status::misfit) {
           status = static_cast<std::uint32_t>(Status::shortHeaderReport);
         }
         return real.journal.statusToBuf(self, status, buffer, capacity, length, inserts);
       };
     }},
    {21, "a text is terminated behind the capacity",
     [](QZHandle* host) {
       host->defaultJournal->statusToBuf = [](Journal* self, std::uint32_t status, char32_t* buffer,
                                              std::uint32_t capacity, std::uint32_t* length,
                                              std::va_list inserts) {
         if (capacity < 100) buffer[capacity] = 0;
         return real.journal.statusToBuf(self, status, buffer, capacity, length, inserts);
       };
     }},
    {22, "a text that does not fit is left out in silence",
     [](QZHandle* host) {
       host->defaultJournal->statusToBuf = [](Journal* self, std::uint32_t status, char32_t* buffer,
                                              std::uint32_t capacity, std::uint32_t* length,
                                              std::va_list inserts) {
         real.journal.statusToBuf(self, status, buffer, capacity, length, inserts);
         return HostStatus{0};
       };
     }},
    {23, "percent signs of a name stay single",
     [](QZHandle* host) {
       host->defaultJournal->statusToBuf = [](Journal* self, std::uint32_t status, char32_t* buffer,
                                              std::uint32_t capacity, std::uint32_t* length,
                                              std::va_list inserts) {
         const HostStatus result =
             real.journal.statusToBuf(self, status, buffer, capacity, length, inserts);
         std::u32string text(buffer, *length);
         for (std::size_t at = 0; (at = text.find(U"%%", at)) != std::u32string::npos; ++at) {
           text.erase(at, 1);
         }
         text.copy(buffer, text.size());
         *length = static_cast<std::uint32_t>(text.size());
         return result;
       };
     }},
    {24, "the name line begins without a separator",
     [](QZHandle* host) {
       host->defaultJournal->statusToBuf = [](Journal* self, std::uint32_t status, char32_t* buffer,
                                              std::uint32_t capacity, std::uint32_t* length,
                                              std::va_list inserts) {
         const HostStatus result =
             real.journal.statusToBuf(self, status, buffer, capacity, length, inserts);
         if (Status{status} != Status::fileNameLine || *length == 0) return result;
         const std::u32string text(buffer, *length);
         *length -= static_cast<std::uint32_t>(text.find(U"file"));
         text.copy(buffer, *length, text.find(U"file"));
         return result;
       };
     }},
    {25, "a message makes two entries",
     [](QZHandle* host) {
       host->defaultJournal->messageToJnl = [](Journal* self, JournalLevel level,
                                               const char32_t* text, std::uint32_t length,
                                               std::va_list inserts) {
         std::va_list again;
         va_copy(again, inserts);
         real.journal.messageToJnl(self, level, text, length, again);
         va_end(again);
         return real.journal.messageToJnl(self, level, text, length, inserts);
       };
     }},
    {26, "a key is not found",
     [](QZHandle* host) {
       changeTrees(host, [](PageTree* tree) {
         tree->treeFind = [](TreeAnchor* anchor, const std::int64_t* key) {
           return *key == 40 ? nullptr : real.tree.treeFind(anchor, key);
         };
       });
     }},
    {27, "a removal takes a neighbour when the key is missing",
     [](QZHandle* host) {
       changeTrees(host, [](PageTree* tree) {
         tree->treeRemove = [](TreeAnchor* anchor, const std::int64_t* key) {
           const bool missing = real.tree.treeFind(anchor, key) == nullptr;
           const std::int64_t victim = missing ? *key - 1 : *key;
           real.tree.treeRemove(anchor, &victim);
         };
       });
     }},
    {28, "a second insert removes the node",
     [](QZHandle* host) {
       changeTrees(host, [](PageTree* tree) {
         tree->treeInsert = [](TreeAnchor* anchor, void* node) {
           if (real.tree.treeFind(anchor, &keyOf(node)) == node) {
             real.tree.treeRemove(anchor, &keyOf(node));
           } else {
             real.tree.treeInsert(anchor, node);
           }
         };
       });
     }},
#ifndef __SANITIZE_ADDRESS__  // which does not tell how much memory is in use
    {29, "an insert takes memory",
     [](QZHandle* host) {
       changeTrees(host, [](PageTree* tree) {
         tree->treeInsert = [](TreeAnchor* anchor, void* node) {
           static std::vector<std::string> notes;
           notes.emplace_back(64, 'x');
           real.tree.treeInsert(anchor, node);
         };
       });
     }},
#endif
    {30, "an insert marks the node",
     [](QZHandle* host) {
       changeTrees(host, [](PageTree* tree) {
         tree->treeInsert = [](TreeAnchor* anchor, void* node) {
           static_cast<void**>(node)[2] = anchor;
           real.tree.treeInsert(anchor, node);
         };
       });
     }},
    {31, "a removal clears the node removed before",
     [](QZHandle* host) {
       changeTrees(host, [](PageTree* tree) {
         tree->treeRemove = [](TreeAnchor* anchor, const std::int64_t* key) {
           static void* last = nullptr;
           if (last != nullptr) *static_cast<void**>(last) = nullptr;
           last = real.tree.treeFind(anchor, key);
           real.tree.treeRemove(anchor, key);
         };
       });
     }},
    {32, "the root is kept elsewhere as well",
     [](QZHandle* host) {
       changeTrees(host, [](PageTree* tree) {
         static void* root = nullptr;
         tree->treeInsert = [](TreeAnchor* anchor, void* node) {
           real.tree.treeInsert(anchor, node);
           root = anchor->root;
         };
         tree->treeRemove = [](TreeAnchor* anchor, const std::int64_t* key) {
           real.tree.treeRemove(anchor, key);
           root = anchor->root;
         };
         tree->treeFind = [](TreeAnchor* anchor, const std::int64_t* key) {
           anchor->root = root;
           return real.tree.treeFind(anchor, key);
         };
       });
     }},
    {33, "the end of a tree clears a node",
     [](QZHandle* host) {
       changeTrees(host, [](PageTree* tree) {
         static void* last = nullptr;
         tree->treeInsert = [](TreeAnchor* anchor, void* node) {
           last = node;
           real.tree.treeInsert(anchor, node);
         };
         tree->destroy = [](PageTree* self) {
           if (last != nullptr) *static_cast<void**>(last) = nullptr;
           return real.tree.destroy(self);
         };
       });
     }},
    {34, "a guard cannot be left",
     [](QZHandle* host) {
       changeTrees(host, [](PageTree* tree) {
         static TreeGuard guard = {{}, [](TreeGuard*, Word, Word) {}, nullptr};
         tree->guard = &guard;
       });
     }},
    {35, "a conversion is terminated behind the capacity",
     [](QZHandle* host) {
       changeConverters(host, [](Converter* converter) {
         converter->convert = [](Converter* self, const char32_t* text, std::size_t bytes,
                                 char* output, std::size_t capacity, Word a6, Word a7) {
           output[capacity] = '\0';
           return real.converter.convert(self, text, bytes, output, capacity, a6, a7);
         };
       });
     }},
    {36, "a conversion knows only ASCII",
     [](QZHandle* host) {
       changeConverters(host, [](Converter* converter) {
         converter->convert = [](Converter* self, const char32_t* text, std::size_t bytes,
                                 char* output, std::size_t capacity, Word a6, Word a7) {
           const HostStatus status =
               real.converter.convert(self, text, bytes, output, capacity, a6, a7);
           for (std::size_t i = 0; i < capacity; ++i) output[i] = output[i] < 0 ? '?' : output[i];
           return status;
         };
       });
     }},
    {37, "a success does not set the status",
     [](QZHandle* host) {
       host->fileService->fileOpen = [](FileService* self, OpenParameters* parameters, Word one,
                                        std::uint32_t mode, Journal* journal, HostStatus* status) {
         HostStatus own = 0;
         HostFile* file = real.files.fileOpen(self, parameters, one, mode, journal, &own);
         if (file == nullptr) *status = own;
         return file;
       };
     }},
    {38, "an open with O_CREAT truncates the file",
     [](QZHandle* host) {
       host->fileService->fileOpen = [](FileService* self, OpenParameters* parameters, Word one,
                                        std::uint32_t mode, Journal* journal, HostStatus* status) {
         if ((parameters->openFlags & openflag::create) != 0) parameters->openFlags |= O_TRUNC;
         return real.files.fileOpen(self, parameters, one, mode, journal, status);
       };
     }},
    {39, "the descriptor has been read from",
     [](QZHandle* host) {
       changeFiles(host, [](HostFile* file) { lseek(file->fileInfo->fd, 1, SEEK_SET); });
     }},
    {40, "sizes have 32 bits",
     [](QZHandle* host) {
       changeFiles(host, [](HostFile* file) {
         file->fileInfo->size = static_cast<std::uint32_t>(file->fileInfo->size);
       });
     }},
    {41, "a failure has no error number",
     [](QZHandle* host) {
       host->fileService->fileOpen = [](FileService* self, OpenParameters* parameters, Word one,
                                        std::uint32_t mode, Journal* journal, HostStatus* status) {
         HostFile* file = real.files.fileOpen(self, parameters, one, mode, journal, status);
         if (parameters->systemErrno == ENOENT) parameters->systemErrno = 0;
         return file;
       };
     }},
    {42, "a refusal of direct I/O is an I/O error",
     [](QZHandle* host) {
       host->fileService->fileOpen = [](FileService* self, OpenParameters* parameters, Word one,
                                        std::uint32_t mode, Journal* journal, HostStatus* status) {
         HostFile* file = real.files.fileOpen(self, parameters, one, mode, journal, status);
         if (parameters->systemErrno == EINVAL) parameters->systemErrno = EIO;
         return file;
       };
     }},
    {43, "a reopen changes nothing",
     [](QZHandle* host) {
       changeFiles(host, [](HostFile* file) {
         file->fileMethods->fileReopen = [](HostFile*, OpenParameters*, std::uint32_t, Journal*) {
           return HostStatus{0};
         };
       });
     }},
    {44, "no file is removed at its close",
     [](QZHandle* host) {
       changeFiles(host, [](HostFile* file) {
         file->fileMethods->fileClose = [](HostFile* self, OpenParameters* parameters,
                                           Journal* journal) {
           parameters->removeAtClose = 0;
           return real.methods.fileClose(self, parameters, journal);
         };
       });
     }},
    {44, "a close leaves the descriptor open",
     [](QZHandle* host) {
       changeFiles(host, [](HostFile* file) {
         file->fileMethods->fileClose = [](HostFile* self, OpenParameters* parameters,
                                           Journal* journal) {
           const int fd = self->fileInfo->fd;
           const HostStatus status = real.methods.fileClose(self, parameters, journal);
           if (status == hostOk) dup2(STDIN_FILENO, fd);
           return status;
         };
       });
     }},
    {45, "a failed open is not reported",
     [](QZHandle* host) {
       host->fileService->fileOpen = [](FileService* self, OpenParameters* parameters, Word one,
                                        std::uint32_t mode, Journal*, HostStatus* status) {
         return real.files.fileOpen(self, parameters, one, mode, nullptr, status);
       };
     }},
    {46, "a pipe is refused without the status for it",
     [](QZHandle* host) {
       host->fileService->fileOpen = [](FileService* self, OpenParameters* parameters, Word one,
                                        std::uint32_t mode, Journal* journal, HostStatus* status) {
         HostFile* file = real.files.fileOpen(self, parameters, one, mode, journal, status);
         if (*status == hostUnsupportedFile) *status = hostOtherFailure;
         return file;
       };
     }},
    {47, "a wait does not end",
     [](QZHandle* host) {
       host->currentTask(host)->taskWait = [](Task*, Word, Word, Word, std::uint8_t,
                                              std::uint32_t) -> HostStatus {
         for (;;) pause();
       };
     }},
    {48, "no file is locked",
     [](QZHandle* host) {
       host->fileService->fileOpen = [](FileService* self, OpenParameters* parameters, Word one,
                                        std::uint32_t mode, Journal* journal, HostStatus* status) {
         return real.files.fileOpen(self, parameters, one, mode | accessNoLock, journal, status);
       };
     }},
};

// Under the sanitizer a fork takes long, so only every fourth host is tried.
#ifdef __SANITIZE_ADDRESS__
constexpr std::size_t kStep = 4;
#else
constexpr std::size_t kStep = 1;
#endif

// The check must name the promise that a host breaks, and no other.
TEST(HostCheck, ABrokenPromiseIsNamedAndNoOther) {
  for (std::size_t i = 0; i < std::size(kBrokenHosts); i += kStep) {
    const BrokenHost& broken = kBrokenHosts[i];
    SCOPED_TRACE(broken.how);
    TriedHost tried;
    QZHandle* const host = tried.host.handle();
    real = {};
    real.host = *host;
    real.journal = *host->defaultJournal;
    real.services = *host->encodingServices;
    real.files = *host->fileService;
    broken.apply(host);
    bool named = false;
    for (const PromiseReport& report : tried.check(broken.promise == 47 ? 5 : 60)) {
      const bool own = report.number == broken.promise;
      const bool untested = report.verdict == Verdict::notTested && mayGoUntested(report.number);
      named = named || (own && (report.verdict == Verdict::broken || untested));
      EXPECT_TRUE(own || report.verdict != Verdict::broken)
          << "H" << report.number << ": " << report.reason;
    }
    EXPECT_TRUE(named) << "H" << broken.promise << " was not found to be broken";
  }
}

}  // namespace
}  // namespace qztest
