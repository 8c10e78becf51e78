// The records through which the host toolkit serves the module.
//
// Every host object is a record in host memory whose words are function pointers and data fields
// at fixed positions. Slot n is the n-th machine word: byte offset 4n on i386, which is the binary
// contract, and 8n on a 64-bit target. Operations take the object as their first argument, except
// those of the page tree, which take the address of its anchor.
//
// The host owns every object declared here. An operation that creates something returns null on
// failure; one that only acts returns a HostStatus, 0 for success.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace qz {

// A status of the host toolkit: 0 is success. The module's own codes are in qzpos.h.
using HostStatus = std::uint32_t;

// An argument or data word that the module passes on without looking at it.
using Word = std::uintptr_t;

// A slot that the module does not use.
using UnusedSlot = void*;

struct QZHandle;
struct Journal;
struct Task;

constexpr std::size_t slotOffset(std::size_t slot) { return slot * sizeof(void*); }

// True when a field lies where the i386 contract puts it; other targets keep only the order.
constexpr bool atContractOffset(std::size_t actual, std::size_t contract) {
  return sizeof(void*) != 4 || actual == contract;
}

// memAlloc flag: the block comes back zero-filled. 0 leaves its contents undefined.
inline constexpr std::uint32_t kZeroFill = 0x80000000;

// What poolCreate is told. The words are host codes: all 0 for a pool of small records, the first
// 0x100000 for one of data areas.
struct PoolAttributes {
  std::uint32_t words[3];
};
static_assert(sizeof(PoolAttributes) == 12);

// Answer of qzWait when there is no task to wait through.
inline constexpr HostStatus kNoTask = 0x803FC009;

// A source of memory. Blocks go back to the pool that they came from.
// Blocks of 4096 bytes and more from the pool "qziop buffer pool" are aligned to 4096 bytes, those
// of 512 and more to 512: direct I/O relies on it.
struct MemoryPool {
  UnusedSlot unused0[2];
  HostStatus (*destroy)(MemoryPool* pool);
  void* (*memAlloc)(MemoryPool* pool, std::size_t bytes, std::uint32_t flags);
  HostStatus (*memFree)(MemoryPool* pool, void* block);
};
static_assert(std::is_standard_layout_v<MemoryPool>);
static_assert(offsetof(MemoryPool, destroy) == slotOffset(2));
static_assert(offsetof(MemoryPool, memAlloc) == slotOffset(3));
static_assert(offsetof(MemoryPool, memFree) == slotOffset(4));

// Levels of journal entries.
enum class JournalLevel : std::uint32_t { note = 2, error = 4 };

// The host's message sink. A status is rendered with the text that the host's catalogue has for
// it; inserts ("%s": zero-terminated UTF-32 text, "%d": 32-bit number) come as an argument list.
struct Journal {
  UnusedSlot unused0[4];
  HostStatus (*messageToBuf)(Journal* journal, Word a1, Word a2, Word a3, Word a4, Word a5,
                             std::va_list arguments);
  // textLength: characters of `text`, which need not be terminated.
  HostStatus (*messageToJnl)(Journal* journal, JournalLevel level, const char32_t* text,
                             std::uint32_t textLength, std::va_list arguments);
  // capacity and *lengthOut count characters. Nonzero when the text does not fit.
  HostStatus (*statusToBuf)(Journal* journal, std::uint32_t status, char32_t* buffer,
                            std::uint32_t capacity, std::uint32_t* lengthOut,
                            std::va_list arguments);
  HostStatus (*statusToJnl)(Journal* journal, JournalLevel level, std::uint32_t status,
                            std::va_list arguments);
};
static_assert(std::is_standard_layout_v<Journal>);
static_assert(offsetof(Journal, messageToBuf) == slotOffset(4));
static_assert(offsetof(Journal, messageToJnl) == slotOffset(5));
static_assert(offsetof(Journal, statusToBuf) == slotOffset(6));
static_assert(offsetof(Journal, statusToJnl) == slotOffset(7));

// How treeCreate is told where the key lies in a node. The first, third and fourth words are
// host codes: 1, 6, 1 for a signed 64-bit key with one entry per key.
struct TreeAttributes {
  std::uint32_t first;
  std::uint32_t keyOffset;  // bytes from the start of a node
  std::uint32_t third;
  std::uint32_t fourth;
};
static_assert(sizeof(TreeAttributes) == 16);

// Optional lock of a page tree.
struct TreeGuard {
  UnusedSlot unused0[3];
  void (*guardEnter)(TreeGuard* guard, Word a1, Word a2);
  void (*guardLeave)(TreeGuard* guard);
};
static_assert(offsetof(TreeGuard, guardEnter) == slotOffset(3));
static_assert(offsetof(TreeGuard, guardLeave) == slotOffset(4));

struct TreeAnchor {
  void* root;  // null: the tree reaches no node
  UnusedSlot unused1[2];
};

// A tree of the caller's own records, found by a signed 64-bit key inside them. Inserting a node
// that is already in the tree, and removing or finding a key that is not, change nothing.
// Destroying the tree touches no node.
struct PageTree {
  UnusedSlot unused0[2];
  HostStatus (*destroy)(PageTree* tree);
  TreeAnchor anchor;
  TreeGuard* guard;  // may be null
  void (*treeInsert)(TreeAnchor* anchor, void* node);
  void* (*treeFind)(TreeAnchor* anchor, const std::int64_t* key);
  UnusedSlot unused9;
  void (*treeRemove)(TreeAnchor* anchor, const std::int64_t* key);
};
static_assert(std::is_standard_layout_v<PageTree>);
static_assert(offsetof(PageTree, destroy) == slotOffset(2));
static_assert(offsetof(PageTree, anchor) == slotOffset(3));
static_assert(offsetof(PageTree, anchor) + offsetof(TreeAnchor, root) == slotOffset(3));
static_assert(offsetof(PageTree, guard) == slotOffset(6));
static_assert(offsetof(PageTree, treeInsert) == slotOffset(7));
static_assert(offsetof(PageTree, treeFind) == slotOffset(8));
static_assert(offsetof(PageTree, treeRemove) == slotOffset(10));

// The extension "qzeavl": makes page trees.
struct TreeExtension {
  UnusedSlot unused0[2];
  HostStatus (*destroy)(TreeExtension* extension);
  UnusedSlot unused3[6];
  PageTree* (*treeCreate)(TreeExtension* extension, const TreeAttributes* attributes,
                          Journal* journal, const char* name);
};
static_assert(offsetof(TreeExtension, destroy) == slotOffset(2));
static_assert(offsetof(TreeExtension, treeCreate) == slotOffset(9));

// Turns UTF-32 text into the host's narrow encoding.
struct Converter {
  UnusedSlot unused0[2];
  HostStatus (*destroy)(Converter* converter);
  UnusedSlot unused3;
  // textBytes: bytes (not characters) of `text`; capacity: bytes of `output`, never exceeded.
  HostStatus (*convert)(Converter* converter, const char32_t* text, std::size_t textBytes,
                        char* output, std::size_t capacity, Word a6, Word a7);
};
static_assert(offsetof(Converter, destroy) == slotOffset(2));
static_assert(offsetof(Converter, convert) == slotOffset(4));

struct EncodingServices {
  UnusedSlot unused0[16];
  Converter* (*converterCreate)(EncodingServices* services, Word encoding, Word a3,
                                Journal* journal);
  UnusedSlot unused17[23];
  Word systemEncoding;
};
static_assert(offsetof(EncodingServices, converterCreate) == slotOffset(16));
static_assert(offsetof(EncodingServices, systemEncoding) == slotOffset(40));

// A thread of the host that can wait.
struct Task {
  UnusedSlot unused0[16];
  // waitTime: milliseconds in the stand-in host.
  HostStatus (*taskWait)(Task* task, Word a1, Word a2, Word a3, std::uint8_t flag,
                         std::uint32_t waitTime);
};
static_assert(offsetof(Task, taskWait) == slotOffset(16));

// Open flags as the host's file service takes them: the values of Linux on i386, which are those
// of x86-64 as well.
namespace openflag {
inline constexpr std::uint32_t readOnly = 0;
inline constexpr std::uint32_t writeOnly = 1;
inline constexpr std::uint32_t readWrite = 2;
inline constexpr std::uint32_t create = 0x40;
inline constexpr std::uint32_t direct = 0x4000;
}  // namespace openflag

// The record exchanged with the file service. Begun all zero for every call.
struct OpenParameters {
  const char32_t* fileName;
  std::uint32_t fileNameLength;  // characters
  std::uint32_t unused8[2];
  std::uint32_t permissions;  // of a file that the open creates
  std::uint32_t openFlags;    // of openflag
  std::uint32_t removeAtClose;
  // Set by an open or reopen that fails: the system's error number and two words of the host. A
  // success leaves 0 as error number.
  std::int32_t systemErrno;
  std::uint32_t errorDetail1;
  std::uint32_t errorDetail2;
  std::uint32_t unused40[9];
};
static_assert(std::is_standard_layout_v<OpenParameters>);
static_assert(atContractOffset(sizeof(OpenParameters), 76));
static_assert(atContractOffset(offsetof(OpenParameters, fileName), 0));
static_assert(atContractOffset(offsetof(OpenParameters, fileNameLength), 4));
static_assert(atContractOffset(offsetof(OpenParameters, permissions), 16));
static_assert(atContractOffset(offsetof(OpenParameters, openFlags), 20));
static_assert(atContractOffset(offsetof(OpenParameters, removeAtClose), 24));
static_assert(atContractOffset(offsetof(OpenParameters, systemErrno), 28));
static_assert(atContractOffset(offsetof(OpenParameters, errorDetail1), 32));
static_assert(atContractOffset(offsetof(OpenParameters, errorDetail2), 36));

struct FileInfo {
  std::int32_t fd;    // operating-system file descriptor
  std::int64_t size;  // bytes
};
static_assert(atContractOffset(offsetof(FileInfo, size), 4));
static_assert(atContractOffset(sizeof(FileInfo), 12));

struct HostFile;

struct FileMethods {
  UnusedSlot unused0[27];
  // Releases the host file; removes the file too when parameters->removeAtClose is 1. After a
  // failure the host file is still there.
  HostStatus (*fileClose)(HostFile* file, OpenParameters* parameters, Journal* journal);
  // Reopens the file with the new flags, under a descriptor that may be another; the old one stays
  // when that fails.
  HostStatus (*fileReopen)(HostFile* file, OpenParameters* parameters, std::uint32_t accessMode,
                           Journal* journal);
};
static_assert(offsetof(FileMethods, fileClose) == slotOffset(27));
static_assert(offsetof(FileMethods, fileReopen) == slotOffset(28));

// A file that the host has open.
struct HostFile {
  UnusedSlot unused0[3];
  FileInfo* fileInfo;
  UnusedSlot unused4[14];
  FileMethods* fileMethods;
};
static_assert(std::is_standard_layout_v<HostFile>);
static_assert(offsetof(HostFile, fileInfo) == slotOffset(3));
static_assert(offsetof(HostFile, fileMethods) == slotOffset(18));

struct FileService {
  UnusedSlot unused0[26];
  // The third argument is always 1. *status receives 0 or the reason of a null result.
  HostFile* (*fileOpen)(FileService* service, OpenParameters* parameters, Word one,
                        std::uint32_t accessMode, Journal* journal, HostStatus* status);
};
static_assert(offsetof(FileService, fileOpen) == slotOffset(26));

// Value type of optionGet: a signed 32-bit number.
inline constexpr std::uint32_t kOptionInt32 = 3;

// The host toolkit itself.
struct QZHandle {
  UnusedSlot unused0[6];
  MemoryPool* (*poolCreate)(QZHandle* host, const PoolAttributes* attributes, Journal* journal,
                            const char* name);
  UnusedSlot unused7[2];
  // nameLength: characters.
  TreeExtension* (*extensionLoad)(QZHandle* host, const char32_t* name, std::uint32_t nameLength,
                                  Journal* journal);
  UnusedSlot unused10;
  Task* (*currentTask)(QZHandle* host);  // null when there is none
  UnusedSlot unused12[2];
  // 0 when *value was stored; *valueBytes is its size, in and out.
  HostStatus (*optionGet)(QZHandle* host, const char32_t* key, std::uint32_t keyLength,
                          std::uint32_t valueType, void* value, std::uint32_t* valueBytes);
  UnusedSlot unused15[11];
  Journal* defaultJournal;
  EncodingServices* encodingServices;
  UnusedSlot unused28[2];
  FileService* fileService;
  UnusedSlot unused31[20];
  Task* mainTask;
};
static_assert(std::is_standard_layout_v<QZHandle>);
static_assert(offsetof(QZHandle, poolCreate) == slotOffset(6));
static_assert(offsetof(QZHandle, extensionLoad) == slotOffset(9));
static_assert(offsetof(QZHandle, currentTask) == slotOffset(11));
static_assert(offsetof(QZHandle, optionGet) == slotOffset(14));
static_assert(offsetof(QZHandle, defaultJournal) == slotOffset(26));
static_assert(offsetof(QZHandle, encodingServices) == slotOffset(27));
static_assert(offsetof(QZHandle, fileService) == slotOffset(30));
static_assert(offsetof(QZHandle, mainTask) == slotOffset(51));

}  // namespace qz

#define QZ_EXPORT __attribute__((visibility("default")))

// The module's side of the host services. All are exported by name.
extern "C" {

// The host handle given to the last qzextent; null before the first.
QZ_EXPORT extern qz::QZHandle* Exported_QZHandle;

// Makes the host known to the module. The host calls it before qziop. Returns 0.
QZ_EXPORT qz::HostStatus qzextent(qz::QZHandle* host) noexcept;

// Waits through the task. A null task, or the host handle in its place, stands for the current
// task, else the main task; 0x803FC009 when there is neither.
QZ_EXPORT qz::HostStatus qzWait(qz::Task* task, qz::Word a1, qz::Word a2, qz::Word a3,
                                std::uint8_t flag, std::uint32_t waitTime) noexcept;

// Forward to the journal operation of the same name and return its result. The variadic rest
// becomes the argument list. The journal must not be null.
QZ_EXPORT qz::HostStatus qzlMessageToBuf(qz::Journal* journal, qz::Word a1, qz::Word a2,
                                         qz::Word a3, qz::Word a4, qz::Word a5, ...) noexcept;
QZ_EXPORT qz::HostStatus qzlMessageToJnl(qz::Journal* journal, qz::JournalLevel level,
                                         const char32_t* text, std::uint32_t textLength,
                                         ...) noexcept;
QZ_EXPORT qz::HostStatus qzlStatusToBuf(qz::Journal* journal, std::uint32_t status,
                                        char32_t* buffer, std::uint32_t capacity,
                                        std::uint32_t* lengthOut, ...) noexcept;
QZ_EXPORT qz::HostStatus qzlStatusToJnl(qz::Journal* journal, qz::JournalLevel level,
                                        std::uint32_t status, ...) noexcept;
}
