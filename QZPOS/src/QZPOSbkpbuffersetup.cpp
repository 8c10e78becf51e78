// bkpbuffersetup: gives an open file its buffers, `bufferCount` + 1 of them. A reopen only tops
// up what is missing: records live until close, or until a change of shape frees them.
#include "notes.h"
#include "outcome.h"
#include "pages.h"
#include "records.h"

namespace qz {
namespace {

constexpr std::int64_t kDefaultBlockBytes = 0x40000;

// Describes the key of the page tree to the host.
constexpr TreeAttributes kTreeAttributes = {1, offsetof(PageBuffer, pageNumber), 6, 1};

std::int64_t requestedBytes(const FileHandle& h) {
  return h.requestedBlockBytes > 0 ? h.requestedBlockBytes : kDefaultBlockBytes;
}

// Whole pages and whole requested transfers. Blocks that exist already fix the size: their data
// areas were made for it. False when no transfer can be that large.
bool settleBlockSize(FileHandle* h) {
  if (h->blocksAllocated > 0) return true;
  std::int32_t blockBytes = commonSize(h->pageSize, requestedBytes(*h)).value_or(0);
  if (blockBytes > kMostBytesOfACall) blockBytes = 0;
  h->blockBytes = blockBytes;
  h->pagesPerBlock = blockBytes == 0 ? 0 : blockBytes / h->pageSize;
  h->bitmapBytes = (std::int64_t{h->pagesPerBlock} + 7) / 8;
  return blockBytes != 0;
}

// Makes `wanted` - `*count` records. They are counted when the set-up ends, also after a
// failure: host operations called during the set-up see the old count.
template <class MakeOne>
bool topUp(std::int64_t* count, std::int64_t wanted, Journal* journal, MakeOne makeOne) {
  std::int64_t reached = *count;
  while (reached < wanted && makeOne(reached)) ++reached;
  const bool made = reached >= wanted;
  if (!made) journalStatus(journal, Status::noMemory);
  *count = reached;
  return made;
}

bool refuse(Journal* journal) {
  journalStatus(journal, Status::noMemory);
  return false;
}

bool setUpBlocks(FileHandle* h, Journal* journal) {
  if (!settleBlockSize(h)) return refuse(journal);
  const std::int64_t wanted = std::int64_t{h->bufferCount} + 1;
  return topUp(&h->blocksAllocated, wanted, journal, [&](std::int64_t reached) {
    BlockRecord* block = makeBlock(*h, journal).block;
    if (block == nullptr) return false;
    if (reached == h->bufferCount && h->writeBlock == nullptr) {
      h->writeBlock = block;
    } else {
      joinFreeHead(h, block);
    }
    return true;
  });
}

bool setUpPages(FileHandle* h, Journal* journal) {
  TreeExtension* eavl = h->module->eavl;
  if (eavl != nullptr && h->pageTree == nullptr) {
    h->pageTree = eavl->treeCreate(eavl, &kTreeAttributes, journal, "QZIOP PageNumber Tree");
  }
  if (h->pageTree == nullptr) return refuse(journal);
  const std::int64_t wanted = std::int64_t{h->bufferCount} + 1;
  return topUp(&h->pageBuffersAllocated, wanted, journal, [&](std::int64_t) {
    PageBuffer* buffer = makePageBuffer(*h, kAsAllocated, journal);
    if (buffer == nullptr) return false;
    joinFreeHead(h, buffer);
    return true;
  });
}

const char32_t* readAccessText(std::uint32_t readAccess) {
  switch (readAccess) {
    case noRead:
      return U"Read Access: No Read";
    case readSequential:
      return U"Read Access: Read Sequential";
    case readRandom:
      return U"Read Access: Read Random";
    case readOrdered:
      return U"Read Access: Read Ordered";
    case readMany:
      return U"Read Access: Read Many";
    case readHint:
      return U"Read Access: Read Hint";
    default:
      return nullptr;
  }
}

const char32_t* writeAccessText(std::uint32_t writeAccess) {
  switch (writeAccess) {
    case noWrite:
      return U"Write Access: No Write";
    case writeNewPages:
      return U"Write Access: Write New Pages";
    case rewritePages:
      return U"Write Access: Rewrite Pages";
    default:
      return nullptr;
  }
}

const char32_t* ioTypeText(std::uint32_t ioMode) {
  if (ioMode == directIo) return U"DIRECT IO";
  return ioMode == (directIo | blockMode) ? U"LARGE DIRECT IO" : U"VANILLA";
}

void noteAccess(const FileHandle& h, const char32_t* text, Journal* journal) {
  if (text == nullptr) return;
  qzlStatusToJnl(journal, JournalLevel::note, code(Status::accessNote), text, h.fileName);
}

void noteIoType(const FileHandle& h, Journal* journal) {
  if (journal == nullptr) return;
  noteAccess(h, readAccessText(h.readAccess), journal);
  noteAccess(h, writeAccessText(h.writeAccess), journal);
  noteAccess(h, ioTypeText(h.directIoMode), journal);
  constexpr std::u32string_view sizes =
      U"Page Size: %d  Requested Transfer Size: %d  Actual Transfer Size: %d";
  static_assert(sizes.size() == 68);
  // The note's numbers are 32 bits wide.
  const auto requested = static_cast<std::int32_t>(h.requestedBlockBytes);
  if (inBlockMode(h)) writeNote(journal, sizes, h.pageSize, requested, h.blockBytes);
}

}  // namespace

Status bkpbuffersetup(FileHandle* h, OpenKind kind, Journal* journal) {
  h->nextPage = 1;
  h->lastPageRead = 0;
  const bool made = inBlockMode(*h) ? setUpBlocks(h, journal) : setUpPages(h, journal);
  indexRecords(h);
  if (kind == OpenKind::open) h->heldCount = 0;
  keep(h, made ? Status::ok : Status::noMemory);
  if (made && showsIoType()) noteIoType(*h, noteJournal(*h, journal));
  return h->status;
}

}  // namespace qz
