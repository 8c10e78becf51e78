// The module's internal operations.
#pragma once

#include "qzpos.h"

// Declared hidden, so that calls on i386 are direct and do not go through the PLT.
#pragma GCC visibility push(hidden)

namespace qz {

// Journals `status` with the file's name as one entry. Its result concerns only the report and
// changes nothing for the operation that failed: 0, noMemory, or the journal's own status.
std::uint32_t bkperror(FileHandle* h, Status status, Journal* journal);

// Opens the file through the host, or applies new hints to the attached host file; chooses
// `directIoMode`. Stores the outcome, reports nothing.
enum class OpenKind : std::uint8_t { open, reopen };
Status bkpdoopen(FileHandle* h, OpenKind kind, std::uint32_t openMode, const AccessHints& hints,
                 Journal* journal);

// Tops up the buffers of the mode to `bufferCount` + 1 records. Stores the outcome; journals
// missing memory itself.
Status bkpbuffersetup(FileHandle* h, OpenKind kind, Journal* journal);

// Writes the collected pages; ok when there are none. Stores and reports a failure, after which
// the pages are lost and the file is cut back to the page before the first collected one.
Status bkpwriteblock(FileHandle* h, Journal* journal);

// The free record to use next, emptied and still on its free list: an empty one, else the one
// returned or written last. Null when none is free. PageBuffer in page mode, BlockRecord in block
// mode.
template <class Record>
Record* bkpfindfreebuf(FileHandle* h);

// The held page buffer that begins at `address`, or null.
PageBuffer* bkpbufmatch(const FileHandle& h, const void* address);

// The write block, held block or acquired block that contains `address`, or null.
enum class FoundIn : std::uint32_t { nowhere = 0, heldList = 1, acquiredList = 2, writeBlock = 4 };
BlockRecord* bkpblockmatch(const FileHandle& h, const void* address, FoundIn* foundIn);

// Frees every record of a list of the handle. ioFailed when the host refused to free memory. Page
// buffers must have left the tree.
template <class Record>
Status bkpdeletebuffers(FileHandle* h, List<Record>* list, Journal* journal);

}  // namespace qz

#pragma GCC visibility pop
