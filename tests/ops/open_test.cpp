// Open: how the host opens the file, the geometry, the buffers.
#include <fmt/format.h>

#include <filesystem>

#include "script.h"

namespace qztest {
namespace {

class OpenTest : public ScriptTest {};

// Wrong flags would lock others out, or open a file for more than was asked. Rows with numbers: a
// write access of 9 has no name and counts as one that writes; any positive support permits direct
// I/O; a bit above optionOwnAccessMode (0x04000000) does not by itself make the upper 16 bits the
// access mode, but is part of it with another (0x80000000).
TEST_F(OpenTest, AccessHintsBecomeOpenFlagsAndAccessMode) {
  playRows(R"(
    set readAccess <read> writeAccess <write> openOptions <options> openMode <mode>
    set directIoSupport <support> pageCount 9 fileSize 9
    fail fileOpen with hostFileNotFound returning ENOENT
    open -> fileNotFound unreported; hostCalls -> fileOpen <flags and access> fails
    is directIoMode <I/O> pageCount <pages> fileSize <pages>)",
           R"(
read | write | options | mode | support | flags and access | I/O | pages
noRead | noWrite | 0 | openOrKeep | directIoFit | O_RDONLY for read+shared | 0 | 9
noRead | writeNewPages | 0 | openOrKeep | directIoFit | O_WRONLY for write+exclusive | 0 | 9
readOrdered | 9 | 0 | createOrReplace | directIoFit | O_RDWR+O_CREAT for write+exclusive | 0 | 0
readSequential | writeNewPages | optionAccessVariant | openOrKeep | directIoFit | O_RDWR for write+noLock | 0 | 9
readSequential | noWrite | ownWrite+ownNoLock+0x80000000+optionAccessVariant | openOrKeep | directIoFit | O_RDONLY for write+noLock+0x8000 | 0 | 9
readSequential | noWrite | 0x04000000 | openOrKeep | directIoFit | O_RDONLY for read+shared | 0 | 9
readRandom | rewritePages | optionDirectIo | openOrKeep | directIoFit | O_RDWR+O_DIRECT for write+exclusive | directIo | 9
readMany | noWrite | optionDirectIo | openOrKeep | 1 | O_RDONLY+O_DIRECT for read+shared | directIo | 9
noRead | writeNewPages | optionDirectIo | createOrReplace | directIoFit | O_WRONLY+O_CREAT+O_DIRECT for write+exclusive | directIo+blockMode | 0
readRandom | rewritePages | optionDirectIo | openOrKeep | directIoNfs | O_RDWR for write+exclusive | 0 | 9)");
  EXPECT_TRUE(calls().at(Call::fileOpen).target == 0666 && calls().at(Call::fileOpen).length == 1);
}

// A host that opens no file must not pass as one that did: neither with a status that the module
// does not know (1), nor with success.
TEST_F(OpenTest, EveryRefusalOfTheHostFailsTheOpen) {
  play(R"(
    settle buffered; fail fileOpen with 1 returning 0; open -> ioFailed unreported
    fail fileOpen with ok returning 0; open -> ioFailed unreported
    fail nothing)");
  std::filesystem::create_directory(path);
  play("open -> isDirectory unreported; delete -> notRemoved {error cannotRemoveReport(file)}");
  setName(path + "/none/file");
  play("open -> fileNotFound unreported");
}

// A file that refuses direct I/O must be opened once more, without it. A busy file is opened again
// only if there is a host to wait through.
TEST_F(OpenTest, RefusedDirectIoAndBusyFilesAreTriedAgain) {
  play(R"(
    settle block; makeFile 2; fail fileOpen times 2 with hostBadParameters returning EINVAL
    open -> ioFailed unreported
    hostCalls -> fileOpen O_RDWR+O_DIRECT for write+exclusive fails, fileOpen O_RDWR for write+exclusive fails)");
  Library::get().qzextent(nullptr);
  play(R"(
    settle direct; set openRetryCount 5; fail fileOpen times 2 with hostDeviceBusy returning 0
    open -> busy unreported)");
  Library::get().qzextent(host.handle());
}

// With QZIOP_DISPLAY_IOP_TYPE set, the journal must tell the kind of I/O, the access, and why
// direct I/O is not used.
TEST_F(OpenTest, NotesTellTheKindOfIo) {
  setenv("QZIOP_DISPLAY_IOP_TYPE", "", 1);
  const std::string open = R"(
    makeFile 2; settle buffered; set readAccess <read> writeAccess <write> openOptions <options>
    set directIoSupport <support>; open -> ok {)";
  const std::string noDirect = "note Direct IO not being performed because <reason>: file, ";
  const std::string read = "note accessNote(Read Access: <read note>|file), ";
  const std::string write = "note accessNote(Write Access: <write note>|file), ";
  const std::string vanilla = "note accessNote(VANILLA|file)}; close";
  const std::string large =
      "note accessNote(LARGE DIRECT IO|file), "
      "note Page Size: 4096  Requested Transfer Size: 16384  Actual Transfer Size: 16384}; close";
  const std::string names = "read | write | options | support | reason | read note | write note\n";
  const auto playAll = [&] {
    playRows(open + noDirect + read + write + vanilla, names + R"(
readRandom | rewritePages | 0 | directIoFit | the application did not tell us to use Direct IO | Read Random | Rewrite Pages
readRandom | rewritePages | optionDirectIo | directIoNfs | the filesystem type is not appropriate | Read Random | Rewrite Pages
readRandom | rewritePages | 0 | directIoUntested | we were not told to use Direct IO | Read Random | Rewrite Pages)");
    playRows(
        open +
            "note Trying Direct IO with small buffers since read access is random or is "
            "many-at-a-time: file, " +
            read + write + "note accessNote(DIRECT IO|file)}; close",
        names + "readMany | noWrite | optionDirectIo | directIoFit | - | Read Many | No Write");
    playRows(open + read + write + large, names + R"(
readSequential | writeNewPages | optionDirectIo | directIoFit | - | Read Sequential | Write New Pages
noRead | writeNewPages | optionDirectIo | directIoFit | - | No Read | Write New Pages)");
    // A write access without a name has no note.
    playRows(open + read + large,
             names + "readHint | 7 | optionDirectIo | directIoFit | - | Read Hint | -");
    playRows("fail fileOpen with hostBadParameters returning EINVAL" + open + noDirect + read +
                 write + vanilla,
             names +
                 "readOrdered | rewritePages | optionDirectIo | directIoFit | the open failed for "
                 "Direct IO | Read Ordered | Rewrite Pages");
  };
  playAll();
  journal = nullptr;  // the host's default journal
  playAll();
  unsetenv("QZIOP_DISPLAY_IOP_TYPE");
}

// A file that is read or written gets at least one buffer, unless the caller wants none.
TEST_F(OpenTest, BufferCountIsChosenWhereNotGiven) {
  const std::string script = R"(
    makeFile 2; set bufferCount <asked> readAccess <read> writeAccess <write> openOptions <options>
    set sequentialStartPage 0; open; is bufferCount <chosen> sequentialStartPage 1
    lists -> <lists>)";
  settle(Shape::buffered);
  const std::string names = "asked | read | write | options | chosen | lists\n";
  playRows(script + "; closeIfAttached", names + R"(
0 | readSequential | noWrite | 0 | 1 | freePages empty empty
-5 | readHint | noWrite | optionKeepBufferCount | 1 | freePages empty empty
0 | noRead | rewritePages | optionKeepBufferCount | 1 | freePages empty empty
0 | noRead | writeNewPages | 0 | 1 | freePages empty empty
0 | noRead | writeNewPages | optionKeepBufferCount | 0 | freePages empty
0 | noRead | noWrite | 0 | 0 | freePages empty
0 | readSequential | noWrite | optionDirectIo | 1 | freeBlocks empty writeBlock empty
0 | noRead | writeNewPages | optionDirectIo+optionKeepBufferCount | 0 | writeBlock empty)");
  playRows(script + "; read 1 -> noBuffer; acquire -> noBuffer; closeIfAttached", names + R"(
-5 | noRead | noWrite | 0 | -5 | none
-5 | noRead | noWrite | optionDirectIo | -5 | none)");
}

// A file that is not a header and whole pages must be refused and keep its bytes. Its page count is
// raised by one, so that the close does not remove the file as empty.
TEST_F(OpenTest, TheGeometryFitsTheFileOrTheOpenIsRefused) {
  settle(Shape::buffered);
  playRows(R"(
    makeFile 0 <bytes>; set bufferCount 3 headerSize <header> pageSize <page size>
    set pageCount <pages> fileSize <file size>; open -> <outcome>
    is pageSize <size then> pageCount <pages then>; fileBytes -> <bytes>
    closeIfAttached)",
           R"(
bytes | header | page size | pages | file size | outcome | size then | pages then | because
10000 | 0 | 0 | 0 | 0 | misfit | 4096 | 3 | a part of a page is left
4096 | 0 | 0 | 0 | 0 | ok | 512 | 8 | a file no larger than the default page has the smallest pages
4097 | 1 | 0 | 0 | 0 | ok | 4096 | 1 | a larger file has the default
0 | 100 | 0 | 0 | 0 | misfit | 512 | 1 | the file ends inside its header
88 | 600 | 512 | 0 | 0 | misfit | 512 | 1 | the same
8192 | 4096 | 4096 | 2 | 0 | misfit | 4096 | 3 | the caller counts a page too many
8192 | 4096 | 4096 | 2 | 12288 | ok | 4096 | 2 | the caller's file size is believed
8192 | 0 | 4096 | 9223372036854775807 | 0 | misfit | 4096 | 9223372036854775807 | no more can be counted)");
}

// A second open would lose the buffers of the first.
TEST_F(OpenTest, AnOpenOrAttachedFileIsNotOpenedAgain) {
  play(R"(
    open direct 2; set pageSize -1; open -> alreadyOpen
    set pageSize 4096; read 1 -> ok: pread 4096 at 4096
    fail fileClose with hostCloseFailed; close -> ioFailed unreported
    set pageSize -1; open -> alreadyOpen
    set pageSize 4096; close)");
}

// Negative sizes would lead to negative offsets.
TEST_F(OpenTest, NegativeSizesAreRefusedBeforeTheFileIsTouched) {
  playRows(R"(
    settle direct; makeFile 2; set <setting> -1; open -> misfit; count fileOpen 0
    preopen 8 -> ok: read 8
    open -> misfit; is stateFlags statePreopened
    close)",
           "setting\npageCount\nfileSize\nheaderSize\npageSize");
}

// A replaced file must start empty. If its truncate fails it is removed, so that no old page passes
// as a new one.
TEST_F(OpenTest, CreatesOrReplaces) {
  host.setHostPageSize(8192);
  play(R"(
    settle direct; set openMode createOrReplace pageCount 9 fileSize 9 pageSize 0 hostPageSize 0
    open -> ok: ftruncate 0, statfs; is pageCount 0 fileSize 0 headerSize 0 pageSize 8192
    close; fail ftruncate; open -> notTruncated: ftruncate 0 fails with EIO; is lastErrno EIO; fileBytes -> -1)");
}

// Hosts rely on the order of these calls and on their sizes.
TEST_F(OpenTest, BuffersAreMadeInOrder) {
  const std::string page =
      fmt::format(", memAlloc modulePool {}, memAlloc bufferPool 4096", sizeof(qz::PageBuffer));
  const std::string block = fmt::format(
      ", memAlloc modulePool {} zeroed, memAlloc bufferPool 16384, memAlloc modulePool 1 zeroed",
      sizeof(qz::BlockRecord));
  play("open buffered 1 1; hostCalls -> fileOpen O_RDWR for write+exclusive, treeCreate" + page +
       page);
  EXPECT_EQ(calls().at(Call::treeCreate).length, offsetof(qz::PageBuffer, pageNumber));
  play("is nextPage 1 lastPageRead 0; close");
  play("open block 1 1; hostCalls -> fileOpen O_RDWR+O_DIRECT for write+exclusive" + block + block);
  play("lists -> freeBlocks empty writeBlock empty; close");
}

// A block must hold whole pages and whole sectors. One whose size does not fit 31 bits is refused
// before memory is asked for.
TEST_F(OpenTest, BlocksAreWholePagesAndWholeTransfers) {
  const std::string script = R"(
    settle block; makeFile 0 100
    set headerSize 100 bufferCount 0 readAccess noRead writeAccess writeNewPages
    set openOptions optionDirectIo+optionKeepBufferCount 
    set pageSize <page size> requestedBlockBytes <asked>)";
  playRows(
      script + "; open; is blockBytes <block> pagesPerBlock <pages> bitmapBytes <bitmap>; close",
      R"(
page size | asked | block | pages | bitmap
4096 | 0 | 262144 | 64 | 8
3000 | 0 | 98304000 | 32768 | 4096
524288 | 0 | 524288 | 1 | 1
4096 | 6144 | 12288 | 3 | 1
4096 | -5 | 262144 | 64 | 8)");
  playRows(script + "; open -> noMemory {error noMemory}; is fd -1; count memAlloc 0", R"(
page size | asked
4096 | 2147483648
4096 | 1099511631872
1073741824 | 805306368)");
}

// An open that lacks memory frees what it made. Frees that fail must be journalled, too, before the
// missing memory.
TEST_F(OpenTest, FailedCleanUpIsJournalled) {
  play(R"(
    settle block; makeFile 2; fail memAlloc number 3 and memFree times 2 with hostForeignBlock
    open -> noMemory {error hostForeignBlock, error hostForeignBlock, error noMemory})");
}

}  // namespace
}  // namespace qztest
