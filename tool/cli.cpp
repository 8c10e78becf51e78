#include "cli.hpp"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <limits>
#include <map>
#include <span>
#include <utility>

#include "help.hpp"
#include "terminal.hpp"
#include "text.hpp"

namespace qzpfile {
namespace {

// Adds an option whose text goes through `parse`. If `parse` rejects the text, the error message
// says what is wanted.
template <class Parse, class Store>
CLI::Option* addParsed(CLI::App& app, const std::string& name, const char* type, const char* wanted,
                       const char* text, Parse parse, Store store) {
  const auto take = [name, wanted, parse, store](const std::string& word) {
    const auto value = parse(word);
    if (!value) {
      throw CLI::ValidationError(name, fmt::format("\"{}\" is not {}", word, wanted));
    }
    store(*value);
  };
  return app.add_option_function<std::string>(name, take, text)->type_name(type);
}

template <std::int64_t least, std::int64_t most>
std::optional<std::int64_t> sizeWithin(const std::string& word) {
  const auto size = parseSize(word);
  return size && *size >= least && *size <= most ? size : std::nullopt;
}

template <class Value>
auto oneOf(std::map<std::string, Value> values) {
  return [values = std::move(values)](const std::string& word) {
    const auto found = values.find(word);
    return found == values.end() ? std::nullopt : std::optional<Value>(found->second);
  };
}

constexpr std::int64_t kMaxBuffers = 65536;

void addSizeOptions(CLI::App& app, const Command& command, Invocation& call) {
  const bool raw = (command.options & optionRaw) != 0;
  const bool makes = (command.options & optionNewSizes) != 0;
  if (raw) {
    app.add_flag("--raw", call.raw,
                 "treat the file as header and pages, whatever its first bytes are; give the sizes "
                 "with --page-size and --header-size");
  }
  addParsed(app, "--page-size", "SIZE", "a size from 1 byte to 1 GiB, such as 4096 or 64K",
            !makes ? "page size of a --raw file"
            : raw  ? "page size of the new file; with --raw, of both files"
                   : "page size, 512 to 1G (default: chosen for moving whole files)",
            sizeWithin<1, kMaxPageSize>, [&call](std::int64_t size) { call.pageSize = size; });
  addParsed(app, "--header-size", "SIZE", "a size from 0 bytes to 1 GiB, such as 4096 or 4K",
            !makes ? "header size of a --raw file (default: 0)"
            : raw  ? "header size of the new file; with --raw, of both files"
                   : "offset of page 1, 64 or more (default: the page size, but 4K to 64K)",
            sizeWithin<0, kMaxHeaderSize>, [&call](std::int64_t size) { call.headerSize = size; });
}

void addIoOptions(CLI::App& app, const Command& command, Invocation& call) {
  if ((command.options & optionIo) != 0) {
    addParsed(
        app, "--io", "MODE", "one of auto, buffered, direct, block",
        "auto, buffered (through the system's cache), direct (past the cache, page by page) or "
        "block (past the cache, in large blocks); auto chooses by the command and the file "
        "system",
        oneOf<IoChoice>({{"auto", IoChoice::automatic},
                         {"buffered", IoChoice::buffered},
                         {"direct", IoChoice::direct},
                         {"block", IoChoice::block}}),
        [&call](IoChoice choice) { call.io.choice = choice; });
  }
  if ((command.options & optionBlockSize) != 0) {
    addParsed(app, "--block-size", "SIZE", "a size from 1 byte to 1 GiB, such as 4M",
              "size of a block in block mode (default: 4M)", sizeWithin<1, kMaxPageSize>,
              [&call](std::int64_t size) { call.io.blockBytes = static_cast<std::int32_t>(size); });
  }
  if ((command.options & optionBuffers) != 0) {
    addParsed(app, "--buffers", "N", "a number from 1 to 65536",
              "number of the module's buffers, 1 to 65536 (default: 1)", sizeWithin<1, kMaxBuffers>,
              [&call](std::int64_t count) { call.io.buffers = static_cast<std::int32_t>(count); });
  }
}

void addOtherOptions(CLI::App& app, const Command& command, Invocation& call) {
  const auto has = [&command](Option option) { return (command.options & option) != 0; };
  if (has(optionPages)) {
    addParsed(app, "--pages", "LIST", "a list of pages, such as 7, 3-9, 3-, -9 or 1,3,7-9",
              "only these pages, counted from 1, in this order: 7, 3-9, 3-, -9 or 1,3,7-9",
              parsePageList,
              [&call](std::vector<PageRange> ranges) { call.pages = std::move(ranges); });
  }
  if (has(optionFormatVersion)) {
    addParsed(app, "--format-version", "N", "1 or 2",
              "version of the file format: 2 (default), or 1 for programs that read only version 1",
              sizeWithin<1, kLatestVersion>,
              [&call](std::int64_t version) { call.formatVersion = static_cast<int>(version); });
  }
  if (has(optionEveryMode)) {
    app.add_flag("--every-mode", call.everyMode,
                 "read in every I/O mode that the file system allows, and compare");
  }
  if (has(optionRepair)) {
    app.add_flag("-n,--dry-run", call.dryRun, "show what would be done and change nothing");
    app.add_flag("-y,--yes", call.yes, "accept the loss of what cannot be kept");
  }
  if (has(optionAppend)) {
    app.add_flag("--append", call.append, "write after the last page");
  }
  if (has(optionSet)) {
    app.add_option("--set", call.setFrom,
                   "replace the header with the bytes of this file, - for "
                   "standard input")
        ->type_name("INPUT");
  }
  if (has(optionForce)) app.add_flag("-f,--force", call.force, "replace an existing file");
  if (has(optionKeepGoing)) {
    const std::string partial =
        "if the file has the wrong length, use its whole pages (exit status 65";
    const bool judges = command.run == runVerify || command.run == runCompare;
    app.add_flag("-k,--keep-going", call.keepGoing,
                 judges ? "list all findings, not only the first"
                 : command.run == runDump
                     ? partial + ")"
                     : "report damaged pages and continue; " + partial + " in both cases)");
  }
  if (has(optionMap)) {
    app.add_flag("--map", call.map, "draw the whole file, one character for each run of pages");
  }
  if (has(optionSparse)) {
    addParsed(app, "--sparse", "WHEN", "one of auto, never",
              "auto: 64 KiB or more of zeros become a hole in a regular file; never: all zeros "
              "are written (default: auto)",
              oneOf<bool>({{"auto", true}, {"never", false}}),
              [&call](bool sparse) { call.sparse = sparse; });
  }
  if (has(optionQuiet)) app.add_flag("-q,--quiet", call.quiet, "print only errors and warnings");
  if (has(optionFormat)) {
    addParsed(app, "--format", "FORMAT", "text or json", "text or json (default: text)",
              oneOf<bool>({{"text", false}, {"json", true}}),
              [&call](bool json) { call.json = json; });
  }
  if (has(optionProgress)) {
    addParsed(app, "--progress", "WHEN", "one of auto, always, never",
              "show progress: auto (on a terminal), always or never (default: auto)",
              oneOf<ProgressChoice>({{"auto", ProgressChoice::automatic},
                                     {"always", ProgressChoice::always},
                                     {"never", ProgressChoice::never}}),
              [&call](ProgressChoice choice) { call.progress = choice; });
  }
}

void addArguments(CLI::App& app, const Command& command, Invocation& call) {
  app.add_option(command.first.name, call.first, command.first.text)->required();
  if (command.second.name == nullptr) {
    return;
  }
  std::string name = command.second.name;
  const bool optional = name.front() == '[';
  if (optional) name = name.substr(1, name.size() - 2);
  CLI::Option* const second =
      name.rfind("PAGE", 0) == 0
          ? addParsed(app, name, "N", "a page number", command.second.text,
                      sizeWithin<0, std::numeric_limits<std::int64_t>::max() - 1>,
                      [&call](std::int64_t page) { call.page = page; })
          : app.add_option(name, call.second, command.second.text);
  second->required(!optional);
}

void addCommand(CLI::App& program, const Command& command, Invocation& call) {
  CLI::App& app = *program.add_subcommand(command.name);
  addArguments(app, command, call);
  if ((command.options & (optionNewSizes | optionRaw)) != 0) addSizeOptions(app, command, call);
  addIoOptions(app, command, call);
  addOtherOptions(app, command, call);
  app.add_option("--module", call.modulePath,
                 "libqziop.so to load (default: the one beside this "
                 "program, else the installed one)")
      ->type_name("PATH");
  app.add_flag("-v,--verbose", call.verbose, "show the module's journal on standard error");
  app.set_help_flag("-h,--help", "show this help");
}

Failure usageFailure(const std::string& what, const std::string& command) {
  return Failure(Exit::usage, what)
      .tryThis(fmt::format("qzpfile {}--help", command.empty() ? "" : command + " "));
}

// An unknown name, with the known name that was probably meant.
Failure unknownName(const char* what, const std::string& name,
                    const std::vector<std::string>& known, const std::string& command) {
  const std::string meant = closest(name, known);
  const std::string help = fmt::format("qzpfile {}--help", command.empty() ? "" : command + " ");
  return Failure(Exit::usage, fmt::format("there is no {} \"{}\"", what, name))
      .tryThis(meant.empty() ? help : fmt::format("{}, if that was meant, or {}", meant, help));
}

// Throws if the line does not begin with a command or an option of the program itself.
void requireCommand(const std::vector<std::string>& words) {
  if (words.empty()) {
    throw usageFailure("name a command", "");
  }
  const std::string& first = words.front();
  std::vector<std::string> known = {"help", "--help", "-h", "--version", "-V"};
  for (const Command& command : commands()) known.emplace_back(command.name);
  if (std::ranges::find(known, first) == known.end()) {
    throw unknownName(first.starts_with('-') ? "option" : "command", first, known, "");
  }
}

// Rejects long options that the parser would misread: unknown ones, whose value would pass for a
// file; "--io=", which would take the next word; and "--force=no".
void checkOptions(const CLI::App& app, std::span<const std::string> words) {
  std::vector<std::string> known;
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& name : option->get_lnames()) known.push_back("--" + name);
  }
  bool isValue = false;
  for (const std::string& word : words) {
    if (std::exchange(isValue, false) && !word.starts_with("--")) continue;
    if (word == "--") return;
    const bool isLong = word.starts_with("--");
    if (!word.starts_with('-') || word == "-") continue;
    const std::size_t equals = isLong ? word.find('=') : std::string::npos;
    const std::string name = isLong ? word.substr(0, equals) : word.substr(0, 2);
    const CLI::Option* const option = app.get_option_no_throw(name);
    if (option == nullptr) throw unknownName("option", name, known, app.get_name());
    const bool takesValue = option->get_items_expected_max() > 0;
    isValue = takesValue && equals == std::string::npos;
    if (equals == std::string::npos) continue;
    if (!takesValue) {
      throw usageFailure(fmt::format("{} takes no value: \"{}\"", name, word), app.get_name());
    }
    if (equals + 1 == word.size()) {
      throw usageFailure(fmt::format("{} has no value after the =", name), app.get_name());
    }
  }
}

// Checks that concern more than one option.
void checkTogether(const Command& command, const Invocation& call) {
  const bool makes = (command.options & optionNewSizes) != 0;
  if (call.raw && !call.pageSize && command.run != runRm) {
    throw usageFailure("--raw needs --page-size", command.name);
  }
  if (!call.raw && !makes && (call.pageSize || call.headerSize)) {
    throw usageFailure("--page-size and --header-size need --raw: other files state their sizes",
                       command.name);
  }
  if ((call.first == "-" && command.run != runPack) ||
      (call.second == "-" && command.run != runUnpack)) {
    throw Failure(Exit::usage, "a paged file must be seekable; a pipe is not")
        .tryThis("name a file; write ./- if it is called -");
  }
  if (call.json && call.quiet) {
    throw usageFailure("--quiet and --format json cannot be used together", command.name);
  }
  if (call.map && call.quiet) {
    throw usageFailure("--quiet and --map cannot be used together", command.name);
  }
  if ((call.json || call.quiet) && command.run == runHeader && !call.setFrom) {
    throw usageFailure("--format and --quiet need --set", command.name);
  }
  if (call.json && command.run == runUnpack && call.second == "-") {
    throw usageFailure("--format json cannot be used when the payload goes to standard output",
                       command.name);
  }
  if (command.run == runPut && call.append == call.page.has_value()) {
    throw usageFailure("give either PAGE or --append", command.name);
  }
  if (call.page == 0 && command.run == runPut) {
    throw usageFailure("there is no page 0: pages are counted from 1", command.name);
  }
}

}  // namespace

std::variant<ParsedCommand, std::string> parseCommandLine(const std::vector<std::string>& given) {
  std::vector<std::string> words = given;
  if (!words.empty() && words.front() == "help") {  // "help COMMAND" is "COMMAND --help"
    words.erase(words.begin());
    words.emplace_back("--help");
  }
  CLI::App app("Packs files into pages; reads, changes, checks and measures paged files.");
  requireCommand(words);
  app.set_help_flag("-h,--help", "show this help");
  app.set_version_flag("-V,--version", "qzpfile " QZPFILE_VERSION, "show the version");
  ParsedCommand parsed{};
  for (const Command& command : commands()) addCommand(app, command, parsed.call);
  const auto chosen = [&app]() -> const Command* {
    const auto names = app.get_subcommands();
    const auto found = std::ranges::find_if(commands(), [&](const Command& c) {
      return !names.empty() && names[0]->get_name() == c.name;
    });
    return found == commands().end() ? nullptr : &*found;
  };
  if (std::ranges::any_of(commands(), [&](const Command& c) { return words.front() == c.name; })) {
    checkOptions(*app.get_subcommand(words.front()), std::span(words).subspan(1));
  }
  try {
    app.parse(std::vector<std::string>(words.rbegin(), words.rend()));
  } catch (const CLI::CallForHelp&) {
    const Command* const command = chosen();
    const std::size_t width = terminalWidth(STDOUT_FILENO);
    return command == nullptr ? programHelp(app, width)
                              : commandHelp(*command, *app.get_subcommand(command->name), width);
  } catch (const CLI::CallForVersion& version) {
    return std::string(version.what()) + "\n";
  } catch (const CLI::ExtrasError&) {
    throw usageFailure(fmt::format("unexpected: {}", fmt::join(app.remaining(true), " ")),
                       chosen() == nullptr ? "" : chosen()->name);
  } catch (const CLI::ParseError& error) {
    throw usageFailure(error.what(), chosen() == nullptr ? "" : chosen()->name);
  }
  parsed.command = chosen();
  checkTogether(*parsed.command, parsed.call);
  return parsed;
}

bool asksForJson(const std::vector<std::string>& words) {
  const auto format = std::ranges::find(words, "--format");
  return (format != words.end() && format + 1 != words.end() && *(format + 1) == "json") ||
         std::ranges::find(words, "--format=json") != words.end();
}

}  // namespace qzpfile
