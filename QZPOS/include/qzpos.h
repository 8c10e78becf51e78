// The module "QZ Paged I/O": its records, status codes and operations.
//
// A host calls qzextent and qziop once, takes file handles from the operation table of the
// extension object, fills in their caller settings and drives each file through the table.
// A file is a header of `headerSize` bytes followed by `pageCount` pages of `pageSize` bytes;
// pages are numbered from 1.
//
// The i386 layouts asserted here are a binary contract with the host. A 64-bit target keeps the
// order of the fields, with pointers one machine word wide.
#pragma once

#include "qzhost.h"

namespace qz {

// Outcome of an operation: always one of these codes, never a host's own status. Those appear only
// in journals, and as the HostStatus that qzpdestroy and qzWait return.
//
// Numbers are in order and never reused. A new code takes the number after the last 0x803FC8xx
// code, not one of a gap.
enum class Status : std::uint32_t {
  ok = 0,
  noMemory = 0x803FC002,
  badArgument = 0x803FC009,  // or a name or handle that could not be released
  fileNotFound = 0x803FC801,
  accessRefused = 0x803FC802,
  isDirectory = 0x803FC803,
  noHeaderYet = 0x803FC804,   // pre-open of a file that is to be created or replaced
  noFileName = 0x803FC805,    // none set, or the host cannot use it
  noDescriptor = 0x803FC806,  // the host has no file descriptor left
  busy = 0x803FC807,
  ioFailed = 0x803FC808,         // a system call failed, or the host refused to free memory
  notRemoved = 0x803FC809,       // the file could not be removed or released
  inexactPageSize = 0x803FC80A,  // a page size was chosen, but not as requested
  endOfFile = 0x803FC80B,        // never reported to a journal
  pageOutOfRange = 0x803FC80C,
  noBuffer = 0x803FC80D,     // all allowed buffers are held, or none could be made
  notWritable = 0x803FC80E,  // opened without write access
  noSpace = 0x803FC80F,      // disk, quota or file-size limit, or a partial write
  readOnlyFileSystem = 0x803FC810,
  buffersMissing = 0x803FC811,  // fewer buffers were added than requested
  readOutOfSequence = 0x803FC812,
  notHeld = 0x803FC814,  // the address is not one that the caller holds
  writeOutOfSequence = 0x803FC815,
  shorterThanHeader = 0x803FC816,
  misfit = 0x803FC818,       // the file is not header plus whole pages
  wrongLength = 0x803FC81B,  // a page write of other than `pageSize` bytes
  notTruncated = 0x803FC81C,
  notOpen = 0x803FC81E,
  alreadyOpen = 0x803FC81F,      // or still attached after a close that failed
  unsupportedFile = 0x803FC820,  // the host cannot handle this kind or size of file
  accessNote = 0x803FC821,       // journal only: access hints and I/O type
  deleteWhileOpen = 0x803FC823,
  shortHeaderReport = 0x803FC824,  // journal only: pre-open read a short header
  fileNameLine = 0x803FC825,       // journal only: names the file of a report
  reopenFailed = 0x803FC826,
  cannotRemoveReport = 0x803FCFD4,  // journal only: delete could not open the file
};

// Every code but `ok`, for hosts and tests that go through them all.
inline constexpr Status kStatusCodes[] = {
    Status::noMemory,
    Status::badArgument,
    Status::fileNotFound,
    Status::accessRefused,
    Status::isDirectory,
    Status::noHeaderYet,
    Status::noFileName,
    Status::noDescriptor,
    Status::busy,
    Status::ioFailed,
    Status::notRemoved,
    Status::inexactPageSize,
    Status::endOfFile,
    Status::pageOutOfRange,
    Status::noBuffer,
    Status::notWritable,
    Status::noSpace,
    Status::readOnlyFileSystem,
    Status::buffersMissing,
    Status::readOutOfSequence,
    Status::notHeld,
    Status::writeOutOfSequence,
    Status::shorterThanHeader,
    Status::misfit,
    Status::wrongLength,
    Status::notTruncated,
    Status::notOpen,
    Status::alreadyOpen,
    Status::unsupportedFile,
    Status::accessNote,
    Status::deleteWhileOpen,
    Status::shortHeaderReport,
    Status::fileNameLine,
    Status::reopenFailed,
    Status::cannotRemoveReport,
};

// How many inserts, each a text, the module gives the text of a status: a description and the
// file's name for `accessNote`, the file's name for the other three.
constexpr int insertsOf(Status status) {
  switch (status) {
    case Status::accessNote:
      return 2;
    case Status::shortHeaderReport:
    case Status::fileNameLine:
    case Status::cannotRemoveReport:
      return 1;
    default:
      return 0;
  }
}

// Values of FileHandle::openMode.
enum OpenMode : std::uint32_t {
  openOrRemove = 0,     // existing file; removed when its buffers cannot be set up
  openOrKeep = 1,       // existing file; kept when its buffers cannot be set up, unless it is empty
  createOrReplace = 2,  // created, or cut to 0 bytes; removed when the open fails after that
};

// Values of FileHandle::readAccess. Other codes are accepted and mean no hint.
enum ReadAccess : std::uint32_t {
  noRead = 0,  // with write access: opened write-only
  readSequential = 1,
  readRandom = 2,
  readOrdered = 4,
  readMany = 8,
  readHint = 16,
};

// Values of FileHandle::writeAccess.
enum WriteAccess : std::uint32_t {
  noWrite = 0,
  writeNewPages = 1,  // only the page after the last may be written
  rewritePages = 2,
};

// Bits of FileHandle::openOptions.
enum OpenOption : std::uint32_t {
  optionAccessVariant = 0x2,        // host access mode gains 0x20 and loses 0x04 and 0x08
  optionKeepBufferCount = 0x10,     // no default for `bufferCount` of a file only appended to
  optionDirectIo = 0x100,           // direct I/O is wanted
  optionFlushAtClose = 0x200,       // close flushes first
  optionOwnAccessMode = 0x03FF0000  // any of them: the upper 16 bits are the host access mode
};

// Bits of FileHandle::stateFlags.
enum StateFlag : std::uint32_t {
  statePreopened = 0x1,
  stateOpen = 0x2,
};

// Bits of FileHandle::directIoMode. Combinations in use: 0, directIo, directIo | blockMode.
enum IoMode : std::uint32_t {
  directIo = 0x1,   // O_DIRECT
  blockMode = 0x2,  // multi-page blocks instead of single pages
};

// Values of FileHandle::directIoSupport; only the sign decides.
enum DirectIoSupport : std::int32_t {
  directIoFit = 0x10000,
  directIoUntested = 0,
  directIoTestFailed = -1,
  directIoNfs = -2,
  directIoNoMemory = -3,
};

// Bits of PageRequest::flags.
inline constexpr std::uint32_t kCallersMemory = 0x10;  // `buffer` is the caller's own memory

// Bits of the options of qzpreadmany.
inline constexpr std::uint32_t kContiguous = 0x8;  // one area beginning at the first `buffer`

// Bits of the flags of qzpclose.
inline constexpr std::uint32_t kRemoveFile = 0x1;

// A doubly linked list of records: a head and a tail, as the handle stores them.
template <class Node>
struct List {
  Node* head;
  Node* tail;
};

// One page in memory. The module owns the record and its data; the caller borrows `data`
// between a read or acquire and the write or return that ends the hold.
struct PageBuffer {
  void* treeLinks[2];  // for the page tree
  PageBuffer* next;
  PageBuffer* prev;
  char* data;               // `pageSize` bytes
  std::int64_t pageNumber;  // the tree's key; 0: holds no page
  std::int32_t validBytes;  // what the read returned, or the length written
  std::uint8_t held;        // 1 on pageHeldList
  std::int32_t extraHolds;  // holds of the same page beyond the first
};
static_assert(std::is_standard_layout_v<PageBuffer>);
static_assert(atContractOffset(sizeof(PageBuffer), 40));
static_assert(atContractOffset(offsetof(PageBuffer, next), 8));
static_assert(atContractOffset(offsetof(PageBuffer, prev), 12));
static_assert(atContractOffset(offsetof(PageBuffer, data), 16));
static_assert(atContractOffset(offsetof(PageBuffer, pageNumber), 20));
static_assert(atContractOffset(offsetof(PageBuffer, validBytes), 28));
static_assert(atContractOffset(offsetof(PageBuffer, held), 32));
static_assert(atContractOffset(offsetof(PageBuffer, extraHolds), 36));

// `pagesPerBlock` consecutive pages in memory.
struct BlockRecord {
  BlockRecord* next;
  BlockRecord* prev;
  char* data;                // `blockBytes` bytes
  std::int64_t blockNumber;  // 0: empty, or the write block
  std::int64_t firstPage;    // 0: empty
  std::int64_t lastPage;     // 0: empty
  std::int64_t holdCount;    // one for each page that was read, or 1: acquired whole
  std::int64_t lastPageHandedOut;
  std::int64_t validBytes;  // from the start of `data`; negative: the read failed
  std::int64_t dirtyPages;  // write block only: pages collected, not yet written
  std::int32_t readErrno;   // of the last failed read
  std::uint8_t* staleBits;  // bit i % 8 of byte i / 8: read page firstPage + i again
};
static_assert(std::is_standard_layout_v<BlockRecord>);
static_assert(atContractOffset(sizeof(BlockRecord), 76));
static_assert(atContractOffset(offsetof(BlockRecord, next), 0));
static_assert(atContractOffset(offsetof(BlockRecord, prev), 4));
static_assert(atContractOffset(offsetof(BlockRecord, data), 8));
static_assert(atContractOffset(offsetof(BlockRecord, blockNumber), 12));
static_assert(atContractOffset(offsetof(BlockRecord, firstPage), 20));
static_assert(atContractOffset(offsetof(BlockRecord, lastPage), 28));
static_assert(atContractOffset(offsetof(BlockRecord, holdCount), 36));
static_assert(atContractOffset(offsetof(BlockRecord, lastPageHandedOut), 44));
static_assert(atContractOffset(offsetof(BlockRecord, validBytes), 52));
static_assert(atContractOffset(offsetof(BlockRecord, dirtyPages), 60));
static_assert(atContractOffset(offsetof(BlockRecord, readErrno), 68));
static_assert(atContractOffset(offsetof(BlockRecord, staleBits), 72));

struct ExtensionObject;
class RecordIndex;

// The record of one file. The host writes the caller settings before pre-open or open and reads
// outcomes through qzpgetstatus; every other field belongs to the module. One caller at a time.
struct FileHandle {
  char eyecatcher[4];  // "nevo"
  const char* objectName;
  std::uint32_t headerWord;
  char32_t* fileName;            // zero-terminated; null before qzpsetfilename
  std::uint32_t fileNameLength;  // characters
  std::uint32_t openMode;        // caller setting, OpenMode
  std::uint32_t readAccess;      // caller setting, ReadAccess
  std::uint32_t writeAccess;     // caller setting, WriteAccess
  std::int32_t pageSize;         // caller setting, bytes; 0: open chooses
  std::int64_t pageCount;        // caller setting; 0: open computes it. Counts collected pages, too
  std::int64_t
      fileSize;  // caller setting, bytes; 0: open takes the file's. Without collected pages
  std::int64_t headerSize;           // caller setting, bytes; where page 1 begins
  std::int64_t sequentialStartPage;  // caller setting; 0 means 1
  std::int32_t minPageSize;
  std::int32_t maxPageSize;
  std::int32_t defaultPageSize;
  std::int32_t autoPageSizeLimit;
  std::int32_t hostPageSize;         // 0: qzpinfo has not run for this file
  std::int32_t bufferCount;          // caller setting, most buffers held at once; below 1: chosen
  std::uint32_t openOptions;         // caller setting, OpenOption bits
  std::int64_t requestedBlockBytes;  // caller setting, block transfer size; 0 means 256 KiB
  std::int32_t openRetryCount;       // caller setting, further attempts on a busy file
  char nameText[16];                 // "QZ Member Handle"
  MemoryPool* pool;
  ExtensionObject* ops;           // through which the module calls its own operations
  std::int32_t fileNameCapacity;  // characters
  std::uint32_t stateFlags;       // StateFlag bits
  ExtensionObject* module;
  HostFile* hostFile;  // non-null while the file is physically open
  List<PageBuffer> pageFreeList;
  List<PageBuffer> pageHeldList;
  List<BlockRecord> blockFreeList;
  List<BlockRecord> blockHeldList;
  List<BlockRecord> blockAcquiredList;
  BlockRecord* lastBlock;   // where the last read found its page
  BlockRecord* writeBlock;  // collects appended pages; on no list
  PageTree* pageTree;       // page mode only
  std::int64_t nextPage;    // after the last one transferred
  std::int64_t lastPageRead;
  std::int64_t pageBuffersAllocated;
  std::int64_t firstBlockRead;
  std::int64_t blocksAllocated;  // the write block included
  std::int64_t bitmapBytes;      // of a block's stale bits
  std::int32_t blockBytes;
  std::int32_t pagesPerBlock;
  std::int32_t directIoSupport;  // DirectIoSupport
  std::int32_t heldCount;
  std::uint32_t directIoMode;  // IoMode bits
  std::int32_t fd;             // -1: no file
  Status status;               // of the last operation
  std::int32_t lastErrno;
  std::uint32_t hostErrorDetail1;
  std::uint32_t hostErrorDetail2;
  char fsTypeName[8];  // "linux" or "nfs"; empty: not tested

  // Fields that only the module uses, behind those of the contract.
  RecordIndex* index;            // null: few records, or no memory for it
  std::int32_t emptyFreePages;   // records without a page on pageFreeList
  std::int32_t emptyFreeBlocks;  // records without pages on blockFreeList
  std::uint8_t sizeUnknown;      // 1: qzpopen has not succeeded yet; `fileSize` is the caller's
  std::uint32_t closes;          // completed closes; each frees all records made before it
};
static_assert(std::is_standard_layout_v<FileHandle>);
static_assert(atContractOffset(offsetof(FileHandle, eyecatcher), 0));
static_assert(atContractOffset(offsetof(FileHandle, objectName), 4));
static_assert(atContractOffset(offsetof(FileHandle, headerWord), 8));
static_assert(atContractOffset(offsetof(FileHandle, fileName), 12));
static_assert(atContractOffset(offsetof(FileHandle, fileNameLength), 16));
static_assert(atContractOffset(offsetof(FileHandle, openMode), 20));
static_assert(atContractOffset(offsetof(FileHandle, readAccess), 24));
static_assert(atContractOffset(offsetof(FileHandle, writeAccess), 28));
static_assert(atContractOffset(offsetof(FileHandle, pageSize), 32));
static_assert(atContractOffset(offsetof(FileHandle, pageCount), 36));
static_assert(atContractOffset(offsetof(FileHandle, fileSize), 44));
static_assert(atContractOffset(offsetof(FileHandle, headerSize), 52));
static_assert(atContractOffset(offsetof(FileHandle, sequentialStartPage), 60));
static_assert(atContractOffset(offsetof(FileHandle, minPageSize), 68));
static_assert(atContractOffset(offsetof(FileHandle, maxPageSize), 72));
static_assert(atContractOffset(offsetof(FileHandle, defaultPageSize), 76));
static_assert(atContractOffset(offsetof(FileHandle, autoPageSizeLimit), 80));
static_assert(atContractOffset(offsetof(FileHandle, hostPageSize), 84));
static_assert(atContractOffset(offsetof(FileHandle, bufferCount), 88));
static_assert(atContractOffset(offsetof(FileHandle, openOptions), 92));
static_assert(atContractOffset(offsetof(FileHandle, requestedBlockBytes), 96));
static_assert(atContractOffset(offsetof(FileHandle, openRetryCount), 104));
static_assert(atContractOffset(offsetof(FileHandle, nameText), 108));
static_assert(atContractOffset(offsetof(FileHandle, pool), 124));
static_assert(atContractOffset(offsetof(FileHandle, ops), 128));
static_assert(atContractOffset(offsetof(FileHandle, fileNameCapacity), 132));
static_assert(atContractOffset(offsetof(FileHandle, stateFlags), 136));
static_assert(atContractOffset(offsetof(FileHandle, module), 140));
static_assert(atContractOffset(offsetof(FileHandle, hostFile), 144));
static_assert(atContractOffset(offsetof(FileHandle, pageFreeList), 148));
static_assert(atContractOffset(offsetof(FileHandle, pageHeldList), 156));
static_assert(atContractOffset(offsetof(FileHandle, blockFreeList), 164));
static_assert(atContractOffset(offsetof(FileHandle, blockHeldList), 172));
static_assert(atContractOffset(offsetof(FileHandle, blockAcquiredList), 180));
static_assert(atContractOffset(offsetof(FileHandle, lastBlock), 188));
static_assert(atContractOffset(offsetof(FileHandle, writeBlock), 192));
static_assert(atContractOffset(offsetof(FileHandle, pageTree), 196));
static_assert(atContractOffset(offsetof(FileHandle, nextPage), 200));
static_assert(atContractOffset(offsetof(FileHandle, lastPageRead), 208));
static_assert(atContractOffset(offsetof(FileHandle, pageBuffersAllocated), 216));
static_assert(atContractOffset(offsetof(FileHandle, firstBlockRead), 224));
static_assert(atContractOffset(offsetof(FileHandle, blocksAllocated), 232));
static_assert(atContractOffset(offsetof(FileHandle, bitmapBytes), 240));
static_assert(atContractOffset(offsetof(FileHandle, blockBytes), 248));
static_assert(atContractOffset(offsetof(FileHandle, pagesPerBlock), 252));
static_assert(atContractOffset(offsetof(FileHandle, directIoSupport), 256));
static_assert(atContractOffset(offsetof(FileHandle, heldCount), 260));
static_assert(atContractOffset(offsetof(FileHandle, directIoMode), 264));
static_assert(atContractOffset(offsetof(FileHandle, fd), 268));
static_assert(atContractOffset(offsetof(FileHandle, status), 272));
static_assert(atContractOffset(offsetof(FileHandle, lastErrno), 276));
static_assert(atContractOffset(offsetof(FileHandle, hostErrorDetail1), 280));
static_assert(atContractOffset(offsetof(FileHandle, hostErrorDetail2), 284));
static_assert(atContractOffset(offsetof(FileHandle, fsTypeName), 288));
static_assert(atContractOffset(offsetof(FileHandle, index), 296));

// One page read or write. The first field is also the key given to the page tree.
struct PageRequest {
  std::int64_t pageNumber;
  char* buffer;         // read: out, the page inside a module buffer. write: in, the page's bytes
  std::uint32_t flags;  // write: kCallersMemory
  std::uint32_t reserved;
  std::int32_t length;  // write: in, must be `pageSize`. read: out (see qzpread)
};
static_assert(std::is_standard_layout_v<PageRequest>);
static_assert(atContractOffset(sizeof(PageRequest), 24));
static_assert(atContractOffset(offsetof(PageRequest, pageNumber), 0));
static_assert(atContractOffset(offsetof(PageRequest, buffer), 8));
static_assert(atContractOffset(offsetof(PageRequest, flags), 12));
static_assert(atContractOffset(offsetof(PageRequest, reserved), 16));
static_assert(atContractOffset(offsetof(PageRequest, length), 20));

// What a caller wants of a page size, in bytes; 0: not given.
struct PageSizeRequest {
  std::int32_t minimumSize;
  std::int32_t maximumSize;
  std::int32_t multiple;
};
static_assert(sizeof(PageSizeRequest) == 12);

// Outcome of a handle's last operation.
struct StatusReport {
  Status status;
  std::int32_t lastErrno;
  std::uint32_t hostErrorDetail1;
  std::uint32_t hostErrorDetail2;
  std::uint32_t directIoMode;
};
static_assert(sizeof(StatusReport) == 20);
static_assert(offsetof(StatusReport, lastErrno) == 4);
static_assert(offsetof(StatusReport, hostErrorDetail1) == 8);
static_assert(offsetof(StatusReport, hostErrorDetail2) == 12);
static_assert(offsetof(StatusReport, directIoMode) == 16);

// Access hints of a physical open or reopen; the codes are those of the handle's fields.
struct AccessHints {
  std::uint32_t readAccess;
  std::uint32_t writeAccess;
  std::uint32_t openOptions;
};
static_assert(sizeof(AccessHints) == 12);

// The 21 operations, in slot order. The module calls its own qzpclose, qzpinfo, qzptruncate and
// qzpflush through this table, so a host that replaces one of them changes that use too.
struct OperationTable {
  Status (*qzpbufacquire)(FileHandle*, void** bufferOut, Journal*);
  Status (*qzpbufadd)(FileHandle*, std::int32_t* countInOut, Journal*);
  Status (*qzpbufremove)(FileHandle*, std::int32_t count, Journal*);
  Status (*qzpbufreturn)(FileHandle*, void* address, Journal*);
  Status (*qzpclose)(FileHandle*, std::uint32_t flags, Journal*);
  Status (*qzpfreememhandle)(FileHandle*, Journal*);
  FileHandle* (*qzpgetmemhandle)(ExtensionObject*, Journal*);
  Status (*qzpinfo)(FileHandle*, Journal*);
  Status (*qzpopen)(FileHandle*, Journal*);
  Status (*qzppsize)(FileHandle*, const PageSizeRequest*, Journal*);
  Status (*qzpread)(FileHandle*, PageRequest*, Journal*);
  Status (*qzpwrite)(FileHandle*, PageRequest*, Journal*);
  Status (*qzpreadmany)(FileHandle*, PageRequest* const* requests, std::int64_t startPage,
                        std::int32_t count, std::uint32_t options, Journal*);
  Status (*qzptruncate)(FileHandle*, std::int64_t newPageCount, Journal*);
  Status (*qzpsetfilename)(FileHandle*, const char32_t* name, std::int32_t length, Journal*);
  Status (*qzppreopen)(FileHandle*, void* buffer, std::int32_t* lengthInOut, Journal*);
  Status (*qzpdelete)(FileHandle*, Journal*);
  Status (*qzpgetstatus)(FileHandle*, StatusReport*);
  Status (*qzpflush)(FileHandle*, Journal*);
  Status (*qzpwritehdr)(FileHandle*, const void* header, std::int32_t* lengthInOut, Journal*);
  Status (*qzpreopen)(FileHandle*, const AccessHints*, Journal*);
};
static_assert(sizeof(OperationTable) == slotOffset(21));

// What qziop returns. It lives until qzpdestroy and is never changed by the module.
struct ExtensionObject {
  char eyecatcher[4];      // "nevo"
  const char* objectName;  // nameText of this object
  std::uint32_t headerWord;
  Status (*qzpgetreqversion)(ExtensionObject*, std::uint32_t*, std::uint32_t*, std::uint32_t*);
  Status (*qzpgetversion)(ExtensionObject*, std::uint32_t*, std::uint32_t*, std::uint32_t*);
  QZHandle* host;
  HostStatus (*qzpdestroy)(ExtensionObject*);
  UnusedSlot unused28[2];
  MemoryPool* modulePool;  // records, bitmaps, names, texts
  char nameText[12];       // "QZ Paged I/O", not terminated
  char unused52[64];       // as allocated
  OperationTable operations;
  MemoryPool* bufferPool;  // page and block data, staging buffers
  TreeExtension* eavl;
  Converter* converter;
};
static_assert(std::is_standard_layout_v<ExtensionObject>);
static_assert(atContractOffset(sizeof(ExtensionObject), 212));
static_assert(atContractOffset(offsetof(ExtensionObject, eyecatcher), 0));
static_assert(atContractOffset(offsetof(ExtensionObject, objectName), 4));
static_assert(atContractOffset(offsetof(ExtensionObject, headerWord), 8));
static_assert(atContractOffset(offsetof(ExtensionObject, qzpgetreqversion), 12));
static_assert(atContractOffset(offsetof(ExtensionObject, qzpgetversion), 16));
static_assert(atContractOffset(offsetof(ExtensionObject, host), 20));
static_assert(atContractOffset(offsetof(ExtensionObject, qzpdestroy), 24));
static_assert(atContractOffset(offsetof(ExtensionObject, modulePool), 36));
static_assert(atContractOffset(offsetof(ExtensionObject, nameText), 40));
static_assert(atContractOffset(offsetof(ExtensionObject, unused52), 52));
static_assert(atContractOffset(offsetof(ExtensionObject, operations), 116));
static_assert(atContractOffset(offsetof(ExtensionObject, bufferPool), 200));
static_assert(atContractOffset(offsetof(ExtensionObject, eavl), 204));
static_assert(atContractOffset(offsetof(ExtensionObject, converter), 208));

}  // namespace qz

// The operations. Unless one says otherwise: it stores its outcome in the handle's `status`,
// reports a failure with the file's name to the journal (null: reports nothing), and returns it.
// After a failed system call qzpgetstatus also gives its errno. A failed open, missing memory for
// buffers and a refused release are journalled where they happen, if at all, without that name.
extern "C" {

// Makes the module's pools, tree extension and converter and returns the extension object, to be
// given to qzpdestroy; null, with nothing left behind, when the host refuses any of them.
QZ_EXPORT qz::ExtensionObject* qziop(qz::QZHandle* host, qz::Journal* journal) noexcept;

// Releases everything that qziop made. All file handles must have been freed before. Returns the
// status of destroying the module pool.
QZ_EXPORT qz::HostStatus qzpdestroy(qz::ExtensionObject* module) noexcept;

// The version that the module requires of its host (3, 2, 1) and its own (3, 3, 1).
QZ_EXPORT qz::Status qzpgetreqversion(qz::ExtensionObject* module, std::uint32_t* first,
                                      std::uint32_t* second, std::uint32_t* third) noexcept;
QZ_EXPORT qz::Status qzpgetversion(qz::ExtensionObject* module, std::uint32_t* first,
                                   std::uint32_t* second, std::uint32_t* third) noexcept;

// A new closed handle, owned by the caller until qzpfreememhandle; null without memory.
QZ_EXPORT qz::FileHandle* qzpgetmemhandle(qz::ExtensionObject* module,
                                          qz::Journal* journal) noexcept;

// Frees a handle and its file name. While a file is attached it reports alreadyOpen, frees
// nothing and returns ok. badArgument: null handle, or a release failed. Stores no status.
QZ_EXPORT qz::Status qzpfreememhandle(qz::FileHandle* handle, qz::Journal* journal) noexcept;

// Copies `length` characters of UTF-32 path into the handle and, when the name needed a new
// buffer, runs qzpinfo. alreadyOpen, badArgument (negative length, or the host refused to free the
// old name), noMemory.
QZ_EXPORT qz::Status qzpsetfilename(qz::FileHandle* handle, const char32_t* name,
                                    std::int32_t length, qz::Journal* journal) noexcept;

// Page-size limits from the host's "host.pagesize", and whether the file system that holds the
// file takes direct I/O. noFileName, unreported. Stores no status.
QZ_EXPORT qz::Status qzpinfo(qz::FileHandle* handle, qz::Journal* journal) noexcept;

// Chooses `pageSize` within the request and stores it. For closed handles only: the buffers of an
// open file have the old size, and page I/O would run beyond them. inexactPageSize, unreported: the
// nearest size was stored. noFileName.
QZ_EXPORT qz::Status qzppsize(qz::FileHandle* handle, const qz::PageSizeRequest* request,
                              qz::Journal* journal) noexcept;

// Copies the outcome of the last operation. Always ok; changes nothing.
QZ_EXPORT qz::Status qzpgetstatus(qz::FileHandle* handle, qz::StatusReport* report) noexcept;

// Opens the file and reads *lengthInOut bytes of header into the caller's `buffer`; the file
// stays open for qzpopen, or for a qzpclose, which keeps it. shorterThanHeader: *lengthInOut is
// what was read (-1: failed) and the file is closed again. alreadyOpen, noHeaderYet, badArgument
// (negative length), open failures.
QZ_EXPORT qz::Status qzppreopen(qz::FileHandle* handle, void* buffer, std::int32_t* lengthInOut,
                                qz::Journal* journal) noexcept;

// Opens the file unless pre-opened, settles the geometry and makes the buffers. alreadyOpen, misfit
// (not header plus whole pages, negative settings, or a page larger than 0x7FFFF000 bytes),
// notTruncated, noMemory, open failures. A failure after the physical open closes the file again:
// misfit keeps it, notTruncated removes it, noMemory removes it unless `openMode` is openOrKeep.
// With optionFlushAtClose that close is refused, and the file stays attached.
QZ_EXPORT qz::Status qzpopen(qz::FileHandle* handle, qz::Journal* journal) noexcept;

// Writes back collected pages, flushes if optionFlushAtClose asks, closes the file and frees all
// buffers, held ones too. The file is removed with kRemoveFile, and also without it when it was
// open with write access and the handle says that it is empty: `pageCount` and `fileSize` both 0.
// The test is made before anything is written back. Without kRemoveFile a file that was only
// pre-opened is kept. When the flush fails or is refused (the file is read-only or only
// pre-opened), or the host's close fails, the file stays attached: clear optionFlushAtClose, then
// close again. Reports only notOpen; the write-back and the flush report their own failures.
QZ_EXPORT qz::Status qzpclose(qz::FileHandle* handle, std::uint32_t flags,
                              qz::Journal* journal) noexcept;

// Applies new access hints to an open file; its buffers are rebuilt when the I/O mode changes
// shape. Held buffers stay valid. reopenFailed, unreported: the file stays open as it was.
// ioFailed, noMemory: the new hints are in force, but buffers may be missing; close the file. A
// failed write-back returns its own status and changes no hints.
QZ_EXPORT qz::Status qzpreopen(qz::FileHandle* handle, const qz::AccessHints* hints,
                               qz::Journal* journal) noexcept;

// Removes the named file; the handle must be closed. deleteWhileOpen, noFileName, notRemoved: where
// the host's close failed the file is attached now, and qzpclose detaches it. Stores no status and
// reports only a file that cannot be opened for removal.
QZ_EXPORT qz::Status qzpdelete(qz::FileHandle* handle, qz::Journal* journal) noexcept;

// Reads a page in place: request->buffer is its address inside a module buffer, held until one
// qzpwrite or qzpbufreturn of that address. Block mode sets request->length to the bytes available
// there. endOfFile, pageOutOfRange, readOutOfSequence, noBuffer, ioFailed; misfit: the page came
// back short (page mode: request->length bytes) and the file was closed; the failures of writing
// back collected pages.
QZ_EXPORT qz::Status qzpread(qz::FileHandle* handle, qz::PageRequest* request,
                             qz::Journal* journal) noexcept;

// Reads `count` pages from `startPage` on straight into the caller's memory: page i to
// requests[i]->buffer, or with kContiguous all to requests[0]->buffer. Bypasses the cache: pages
// still collected are not seen. Pages beyond the end are not read. endOfFile, pageOutOfRange (also
// a contiguous run of more than 0x7FFFF000 bytes), ioFailed (a scattered run stores no errno).
QZ_EXPORT qz::Status qzpreadmany(qz::FileHandle* handle, qz::PageRequest* const* requests,
                                 std::int64_t startPage, std::int32_t count, std::uint32_t options,
                                 qz::Journal* journal) noexcept;

// Stores a page of exactly `pageSize` bytes, from a held buffer, whose hold ends, or with
// kCallersMemory from the caller's own memory. In block mode appended pages are collected and
// reach the file a block at a time. wrongLength, pageOutOfRange, writeOutOfSequence,
// shorterThanHeader, notHeld, noMemory, noSpace, ioFailed. If a page write straight to the file
// fails, the hold goes on and the file is cut back to `pageCount` pages. If the write-back of a
// full block fails, the hold ends, all collected pages are lost, and `pageCount` is the page before
// them.
QZ_EXPORT qz::Status qzpwrite(qz::FileHandle* handle, qz::PageRequest* request,
                              qz::Journal* journal) noexcept;

// Truncates the file to `newPageCount` pages, 0 to `pageCount`. pageOutOfRange, notTruncated, the
// failures of writing back collected pages.
QZ_EXPORT qz::Status qzptruncate(qz::FileHandle* handle, std::int64_t newPageCount,
                                 qz::Journal* journal) noexcept;

// Writes back collected pages and makes the file durable. notWritable, noSpace, ioFailed.
QZ_EXPORT qz::Status qzpflush(qz::FileHandle* handle, qz::Journal* journal) noexcept;

// Writes the header, zero-padded to `headerSize`. *lengthInOut: bytes given; then bytes stored;
// after a failure -1, 0 or the part that was stored. notWritable, badArgument (negative length),
// noMemory, noSpace, ioFailed. **noSpace with -1 has cut the file to no pages**; with a positive
// length nothing was cut.
QZ_EXPORT qz::Status qzpwritehdr(qz::FileHandle* handle, const void* header,
                                 std::int32_t* lengthInOut, qz::Journal* journal) noexcept;

// Gives the caller an empty buffer to fill and write: `pageSize` bytes in page mode, a whole block
// in block mode. It is held like a page that was read. noBuffer.
QZ_EXPORT qz::Status qzpbufacquire(qz::FileHandle* handle, void** bufferOut,
                                   qz::Journal* journal) noexcept;

// Ends a hold without writing. notHeld; ioFailed, neither stored nor reported: a buffer left from
// before a reopen could not be freed.
QZ_EXPORT qz::Status qzpbufreturn(qz::FileHandle* handle, void* address,
                                  qz::Journal* journal) noexcept;

// Adds buffers, and as many to `bufferCount`. buffersMissing: *countInOut were added.
QZ_EXPORT qz::Status qzpbufadd(qz::FileHandle* handle, std::int32_t* countInOut,
                               qz::Journal* journal) noexcept;

// Frees `count` free buffers and lowers `bufferCount`. noBuffer: fewer were free; ioFailed,
// unreported: a release failed.
QZ_EXPORT qz::Status qzpbufremove(qz::FileHandle* handle, std::int32_t count,
                                  qz::Journal* journal) noexcept;
}
