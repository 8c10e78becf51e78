// The commands: what each takes on the command line, and the function that runs it.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "failure.hpp"
#include "iomode.hpp"
#include "paged.hpp"
#include "progress.hpp"
#include "sizes.hpp"

namespace qzpfile {

// A parsed command line.
struct Invocation {
  std::string first;   // the first file: INPUT, SRC, A or FILE
  std::string second;  // the second: OUTPUT, DST or B
  std::string modulePath;
  bool verbose = false;
  bool json = false;
  bool quiet = false;
  bool sparse = true;  // runs of zeros become holes
  bool force = false;
  bool raw = false;
  bool append = false;
  bool keepGoing = false;
  bool everyMode = false;
  bool map = false;
  bool yes = false;
  bool dryRun = false;
  int formatVersion = kLatestVersion;
  std::optional<std::int64_t> pageSize;
  std::optional<std::int64_t> headerSize;
  std::optional<std::int64_t> page;    // put: the first page to write; truncate: pages to keep
  std::optional<std::string> setFrom;  // header: where the new header comes from
  std::vector<PageRange> pages = {{}};
  IoRequest io;
  ProgressChoice progress = ProgressChoice::automatic;
};

// Options of a command, besides --help, --module and --verbose, which all commands have.
enum Option : unsigned {
  optionNewSizes = 0x1,  // --page-size, --header-size of a new file
  optionRaw = 0x2,       // --raw with --page-size and --header-size
  optionIo = 0x4,        // --io
  optionBlockSize = 0x8,
  optionBuffers = 0x10,
  optionForce = 0x20,
  optionProgress = 0x40,
  optionFormat = 0x80,
  optionKeepGoing = 0x100,
  optionPages = 0x200,
  optionAppend = 0x400,
  optionSet = 0x800,
  optionFormatVersion = 0x100000,
  optionEveryMode = 0x200000,
  optionRepair = 0x400000,  // --dry-run, --yes
  optionQuiet = 0x10000,
  optionSparse = 0x20000,
  optionMap = 0x40000,
};
inline constexpr unsigned kIoOptions = optionIo | optionBlockSize | optionBuffers;
inline constexpr unsigned kResultOptions = optionFormat | optionQuiet;

// A positional argument.
struct Argument {
  const char* name;  // "INPUT", or "[PAGE]" if it is optional; null: none
  const char* text;
};

struct Command {
  const char* name;
  const char* summary;   // one line for the list of commands
  const char* text;      // what the command does, for its own help
  const char* examples;  // lines "command<tab>what it does"
  Argument first;
  Argument second;  // a file, except for the page numbers of put and truncate
  unsigned options;
  Exit (*run)(const Invocation&);
};

std::span<const Command> commands();

// The geometry given by --raw, --page-size and --header-size; nothing without --raw.
std::optional<RawGeometry> rawGeometry(const Invocation& call);

// The pages of --pages. Throws if `file` does not have them.
std::vector<PageRange> pagesOf(const Invocation& call, const File& file);

// Checks the sizes of a packed file.
Geometry ownGeometry(int version, std::int64_t pageSize, std::int64_t headerSize,
                     const std::string& file);

Exit runBench(const Invocation& call);
Exit runCat(const Invocation& call);
Exit runCompare(const Invocation& call);
Exit runCopy(const Invocation& call);
Exit runDump(const Invocation& call);
Exit runHeader(const Invocation& call);
Exit runInfo(const Invocation& call);
Exit runPack(const Invocation& call);
Exit runPut(const Invocation& call);
Exit runRepair(const Invocation& call);
Exit runRm(const Invocation& call);
Exit runTrace(const Invocation& call);
Exit runTruncate(const Invocation& call);
Exit runUnpack(const Invocation& call);
Exit runVerify(const Invocation& call);

}  // namespace qzpfile
