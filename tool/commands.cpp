#include "commands.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace qzpfile {
namespace {

constexpr Argument kFile = {
    "FILE",
    "a file made by pack, a SQLite database or write-ahead log, or with --raw any paged file"};
constexpr Argument kNone = {nullptr, nullptr};

constexpr std::array kCommands = {
    Command{"pack",
            "pack a file or a pipe into a paged file",
            "Packs INPUT into the paged file OUTPUT: a header that describes the file, then pages "
            "of one size. OUTPUT gets its name when it is complete and on disk; a failure leaves "
            "nothing behind.",
            "qzpfile pack backup.tar backup.qzp\tpack a file\n"
            "tar c src | qzpfile pack - src.qzp\tpack what a program writes\n"
            "qzpfile pack --io block --block-size 16M big.img big.qzp\tpast the cache, in blocks",
            {"INPUT", "the file to pack, - for standard input"},
            {"OUTPUT", "the paged file to make"},
            optionNewSizes | optionFormatVersion | kIoOptions | optionForce | optionProgress |
                kResultOptions,
            runPack},
    Command{
        "unpack",
        "restore what was packed",
        "Writes the bytes that were packed into INPUT to OUTPUT and checks them against the "
        "checksum in the header. OUTPUT gets its name when it is complete. Standard output may "
        "already have received bytes when damage is found: check the exit status.",
        "qzpfile unpack backup.qzp backup.tar\tunpack into a file\n"
        "qzpfile unpack src.qzp - | tar t\tunpack into a pipe",
        {"INPUT", "a file made by pack"},
        {"OUTPUT", "the file to make, - for standard output"},
        kIoOptions | optionForce | optionKeepGoing | optionSparse | optionProgress | kResultOptions,
        runUnpack},
    Command{"info", "show sizes, kind and I/O mode of a paged file",
            "Shows how FILE is divided into header and pages, what kind of file it is, and the I/O "
            "mode that it is read in. With --map, reads all pages and draws where data, zeros and "
            "holes are.",
            "qzpfile info backup.qzp\tlook at a file\n"
            "qzpfile info --io direct places.db\tsee whether direct I/O is available\n"
            "qzpfile info --format json backup.qzp\tfor programs",
            kFile, kNone, optionRaw | kIoOptions | optionMap | optionProgress | optionFormat,
            runInfo},
    Command{"cat", "write pages to standard output",
            "Writes the pages of FILE to standard output as they are, padding included.",
            "qzpfile cat --pages 3-5,9 backup.qzp > pages.bin\tfour pages\n"
            "qzpfile cat places.db | sha256sum\tall pages",
            kFile, kNone,
            optionRaw | kIoOptions | optionPages | optionKeepGoing | optionSparse | optionProgress,
            runCat},
    Command{"dump", "show pages in hexadecimal and text",
            "Shows the pages of FILE in hexadecimal and as text. Offsets count from the start of "
            "the file; a line * replaces lines that repeat the line above it.",
            "qzpfile dump --pages 1 places.db\tthe first page\n"
            "qzpfile dump --raw --page-size 4K --pages 7- data.bin\tfrom page 7 on",
            kFile, kNone, optionRaw | kIoOptions | optionPages | optionKeepGoing, runDump},
    Command{
        "put",
        "write pages from standard input",
        "Writes whole pages from standard input into FILE, starting at PAGE or after the last "
        "page. In a file made by pack, the header is kept up to date, input that ends inside the "
        "last page of the file ends the payload, and appended pages turn the zeros that padded "
        "the old last page into payload.",
        "qzpfile put backup.qzp 3 < page.bin\treplace page 3, and more pages if there is more "
        "input\n"
        "qzpfile put --append --raw --page-size 4K data.bin < pages.bin\tadd pages",
        kFile,
        {"[PAGE]", "the first page to write, counted from 1"},
        optionRaw | kIoOptions | optionAppend | optionProgress | kResultOptions,
        runPut},
    Command{"truncate",
            "truncate a paged file",
            "Truncates FILE to its first PAGES pages. In a file made by pack the header is kept up "
            "to date.",
            "qzpfile truncate backup.qzp 100\tkeep the first 100 pages",
            kFile,
            {"PAGES", "pages to keep"},
            optionRaw | kIoOptions | kResultOptions,
            runTruncate},
    Command{"header", "read or replace the header",
            "Writes the bytes before page 1 to standard output; on a terminal in hexadecimal. With "
            "--set, replaces them and pads them with zeros. A file made by pack takes only a "
            "header that matches its pages.",
            "qzpfile header backup.qzp > header.bin\tsave the header\n"
            "qzpfile header --set header.bin backup.qzp\tput it back",
            kFile, kNone, optionRaw | optionSet | kResultOptions, runHeader},
    Command{"copy",
            "copy a paged file page by page",
            "Copies SRC to DST through the module. A file made by pack is checked while it is "
            "copied and can get other page and header sizes; other files keep theirs. DST gets its "
            "name when it is complete and on disk.",
            "qzpfile copy --page-size 16K backup.qzp wide.qzp\tother pages, same payload\n"
            "qzpfile copy places.db places-copy.db\ta SQLite database that nobody is writing to\n"
            "qzpfile copy --raw --page-size 4K --header-size 512 a.dat b.dat\tany paged file",
            {"SRC", kFile.text},
            {"DST", "the file to make"},
            optionNewSizes | optionFormatVersion | optionRaw | kIoOptions | optionForce |
                optionKeepGoing | optionSparse | optionProgress | kResultOptions,
            runCopy},
    Command{
        "compare",
        "compare two paged files page by page",
        "Compares the pages of A and B and reports the first page that differs. Files made by pack "
        "with different page sizes are compared by payload. Exit status 1: the files differ.",
        "qzpfile compare backup.qzp copy.qzp\tthe first difference\n"
        "qzpfile compare --keep-going --format json a.db b.db\tall differences, for programs",
        {"A", kFile.text},
        {"B", "the file to compare with A"},
        optionRaw | kIoOptions | optionKeepGoing | kResultOptions | optionProgress,
        runCompare},
    Command{"verify", "check a paged file",
            "Checks that FILE is a header plus whole pages and that every page matches its "
            "checksum. Reads FILE once; with --every-mode, once in every I/O mode that the file "
            "system allows, and all modes must give the same bytes. With --map, continues after "
            "damage and draws where it is. Exit status 1: FILE is damaged.",
            "qzpfile verify backup.qzp\tcheck a file\n"
            "qzpfile verify --map backup.qzp\tsee where the damage is\n"
            "qzpfile verify --keep-going --format json backup.qzp\tlist all damage",
            kFile, kNone,
            optionRaw | optionIo | optionBlockSize | optionEveryMode | optionMap | optionKeepGoing |
                kResultOptions | optionProgress,
            runVerify},
    Command{"bench", "measure reading a paged file",
            "Reads FILE in every I/O mode that the file system allows, in order and at random, "
            "alternating with bare pread calls of the same size in the same mode. Shows both rates "
            "and their ratio.",
            "qzpfile bench backup.qzp\tthis file on this disk\n"
            "qzpfile bench --block-size 1M --format json backup.qzp\tsmaller blocks, for programs",
            kFile, kNone, optionRaw | optionBlockSize | optionFormat | optionProgress, runBench},
    Command{"repair",
            "repair a file made by pack",
            "Finishes or undoes an interrupted change of FILE, removes bytes after its last page, "
            "and recomputes checksums where the pages are proven to be right. Names each page that "
            "is lost. If data would be lost for good, changes nothing unless --yes is given. Exit "
            "status 1: FILE is still not good.",
            "qzpfile repair --dry-run backup.qzp\tsee what would be done\n"
            "qzpfile repair --yes backup.qzp\tkeep what can be kept",
            {"FILE", "a file made by pack"},
            kNone,
            optionRepair | kResultOptions | optionProgress,
            runRepair},
    Command{"trace",
            "sum up a trace of the module",
            "Sums up what libqziop-trace.so recorded into FILE: operations and their time, hits "
            "and misses, pages and bytes moved, the slowest operations, every failure, and how "
            "many calls other hints would have needed.",
            "QZIOP_TRACE=t.json qzpfile pack --module libqziop-trace.so a.tar a.qzp\trecord one\n"
            "qzpfile trace t.json\tsum it up\n"
            "qzpfile trace --format json t.json\tfor programs",
            {"FILE", "a file that QZIOP_TRACE named"},
            kNone,
            optionFormat,
            runTrace},
    Command{
        "rm", "remove a paged file", "Removes FILE if it is a paged file; with --raw, any file.",
        "qzpfile rm backup.qzp\tremove a file", kFile, kNone, optionRaw | kResultOptions, runRm},
};

}  // namespace

std::span<const Command> commands() { return kCommands; }

std::optional<RawGeometry> rawGeometry(const Invocation& call) {
  if (!call.raw) {
    return std::nullopt;
  }
  return RawGeometry{.pageSize = static_cast<std::int32_t>(call.pageSize.value_or(1)),
                     .headerSize = call.headerSize.value_or(0)};
}

std::vector<PageRange> pagesOf(const Invocation& call, const File& file) {
  const std::int64_t count = file.pageCount();
  std::vector<PageRange> ranges = call.pages;
  for (PageRange& range : ranges) {
    const bool toTheEnd = range.last == PageRange::kToTheEnd;
    const std::int64_t wanted = toTheEnd ? range.first : range.last;
    if (wanted > std::max<std::int64_t>(count, toTheEnd ? 1 : 0)) {
      throw Failure(Exit::usage, fmt::format("page {} is past the last page, {}", wanted, count),
                    file.name());
    }
    if (toTheEnd) range.last = count;
  }
  return ranges;
}

Geometry ownGeometry(int version, std::int64_t pageSize, std::int64_t headerSize,
                     const std::string& file) {
  if (pageSize < kMinPageSize || pageSize > kMaxPageSize) {
    throw Failure(Exit::usage,
                  fmt::format("a page size of {} is outside {} bytes to 1 GiB",
                              counted(pageSize, "byte"), kMinPageSize),
                  file);
  }
  if (headerSize < static_cast<std::int64_t>(kHeaderBytes)) {
    throw Failure(Exit::usage,
                  fmt::format("a header size of {} has no room for the header of {} bytes",
                              counted(headerSize, "byte"), kHeaderBytes),
                  file);
  }
  return Geometry{.kind = FileKind::own,
                  .pageSize = static_cast<std::int32_t>(pageSize),
                  .headerSize = headerSize,
                  .header = std::nullopt,
                  .pagesPerGroup = pagesPerGroup(version, pageSize)};
}

}  // namespace qzpfile
