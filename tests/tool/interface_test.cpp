// What programs and people rely on: JSON, usage errors, help, man page and completion.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "tool/shell.h"

namespace qztest {
namespace {

using Json = nlohmann::json;

const char* const kCommands[] = {"pack",   "unpack",   "info",   "cat",  "dump",
                                 "put",    "truncate", "header", "copy", "compare",
                                 "verify", "bench",    "rm"};

std::string contentsOf(const std::string& path) {
  std::ifstream file(path);
  EXPECT_TRUE(file.is_open()) << path;
  return {std::istreambuf_iterator<char>(file), {}};
}

// The document of a run, which must be all of standard output, with nothing on standard error.
Json documentOf(const Shell& shell, const std::string& line, int status, const char* schema) {
  SCOPED_TRACE(line);
  const Outcome outcome = shell.run(line);
  EXPECT_EQ(outcome.status, status);
  EXPECT_EQ(outcome.err, "");
  Json document = Json::parse(outcome.out, nullptr, false);
  EXPECT_FALSE(document.is_discarded()) << outcome.out;
  EXPECT_EQ(document.value("schema", ""), schema);
  EXPECT_EQ(document.value("schema_version", 0), 1);
  EXPECT_EQ(document.value("exit_status", -1), status);
  return document;
}

TEST(Interface, SpeaksJson) {
  const Shell shell;
  shell.prepare(
      "cp good bad; printf 'Y' | dd of=bad bs=1 seek=20000 conv=notrunc status=none; "
      "cp good cut; truncate -s -100 cut");
  Json info = documentOf(shell, "$Q info good --format json", 0, "qzpfile/info");
  EXPECT_EQ(info["kind"], "qzpfile");
  EXPECT_EQ(info["pages"], 11);
  EXPECT_EQ(info["file_size"], 49152);
  EXPECT_EQ(info["payload_size"], 43008);
  EXPECT_EQ(info["payload_checksum"].get<std::string>().size(), 16U);
  EXPECT_EQ(info["io"]["obtained"], "buffered");

  Json verified = documentOf(shell, "$Q verify good --format=json", 0, "qzpfile/verify");
  EXPECT_EQ(verified["good"], true);
  EXPECT_EQ(verified["pages_read"], 11);
  EXPECT_EQ(verified["findings"], Json::array());
  verified = documentOf(shell, "$Q verify bad --format json", 1, "qzpfile/verify");
  EXPECT_EQ(verified["findings"][0]["what"], "checksum");
  verified = documentOf(shell, "$Q verify cut --format json", 1, "qzpfile/verify");
  EXPECT_EQ(verified["findings"][0]["what"], "not_whole");
  EXPECT_EQ(verified["bytes_expected"], 49152);
  EXPECT_EQ(verified["bytes_found"], 49052);
  EXPECT_EQ(verified["left_over_bytes"], 3996);

  Json compared = documentOf(shell, "$Q compare good bad --format json", 1, "qzpfile/compare");
  EXPECT_EQ(compared["differences"], Json::parse(R"([{"what": "page", "page": 4, "offset_a": 20000,
                                                      "offset_b": 20000}])"));

  Json bench = documentOf(shell, "$Q bench good --format json", 0, "qzpfile/bench");
  EXPECT_GE(bench["results"].size(), 2U);
  for (const Json& result : bench["results"]) {
    EXPECT_EQ(result["bytes"], 45056);
    EXPECT_GT(result["module_bytes_per_second"].get<std::int64_t>(), 0);
    EXPECT_GT(result["ratio"].get<double>(), 0);
  }

  Json error = documentOf(shell, "$Q info no --format json", 66, "qzpfile/error")["error"];
  EXPECT_EQ(error["file"], "no");
  EXPECT_EQ(error["errno"], 2);
  EXPECT_EQ(error["status"], 0x803FC801U);
  EXPECT_NE(error["status_text"], "");
  EXPECT_NE(error["hint"], "");
  documentOf(shell, "$Q info good --frob --format json", 64, "qzpfile/error");
  documentOf(shell, "$Q info \"$(printf 'a\\377')\" --format json", 66, "qzpfile/error");
}

TEST(Interface, RefusesWhatItDoesNotUnderstand) {
  runCases({
      {"nothing", nullptr, "$Q", 64, nullptr, "name a command"},
      {"no such command", nullptr, "$Q frob", 64, nullptr, "there is no command \"frob\""},
      {"missing argument", nullptr, "$Q pack in", 64, nullptr, "OUTPUT is required"},
      {"words too many", nullptr, "$Q info good one --force", 64, nullptr,
       "not expected: one --force\n  try:    qzpfile info --help"},
      {"a pipe to read pages from", nullptr, "cat good | $Q info -", 64, nullptr, "not a pipe"},
      {"a pipe to write pages to", nullptr, "$Q pack in -", 64, nullptr, "not a pipe"},
      {"more buffers than memory", nullptr, "$Q info good --buffers 2000000000", 64, nullptr,
       "1 to 65536"},
      {"an option twice", nullptr, "$Q pack --io block --io direct in x", 64, nullptr, "--io"},
      {"size", nullptr, "$Q pack --page-size 4X in x", 64, nullptr, "\"4X\" is not a size"},
      {"size too large", nullptr, "$Q pack --page-size 2G in x", 64, nullptr, "1 GiB"},
      {"size beyond numbers", nullptr, "$Q pack --page-size 99999999999999999999 in x", 64, nullptr,
       "is not a size"},
      {"size that overflows", nullptr, "$Q pack --page-size 9007199254740993K in x", 64, nullptr,
       "is not a size"},
      {"negative size", nullptr, "$Q pack --page-size=-4096 in x", 64, nullptr, "is not a size"},
      {"page size too small", nullptr, "$Q pack --page-size 511 in x", 64, nullptr, "512 bytes"},
      {"header too small", nullptr, "$Q pack --header-size 63 in x", 64, nullptr, "no room"},
      {"mode", nullptr, "$Q pack --io fast in x", 64, nullptr, "auto, buffered, direct, block"},
      {"range", nullptr, "$Q cat good --pages 5-3", 64, nullptr,
       "\"5-3\" is not a page or a range"},
      {"page 0", nullptr, "$Q cat good --pages 0-3", 64, nullptr, "is not a page or a range"},
      {"only a dash", nullptr, "$Q cat good --pages -", 64, nullptr, "is not a page or a range"},
      {"no module", nullptr, "$Q info good --module ./no.so", 66, nullptr,
       "cannot load the module"},
      {"no module in that file", nullptr, "$Q info good --module ./good", 66, nullptr,
       "try:    name libqziop.so with --module"},
      {"units", nullptr,
       "for s in 4096 4K 4k 4KiB 4096B; do $Q pack -f --page-size $s in x || exit; done | uniq", 0,
       "x: 11 pages of 4096 bytes, 43008 bytes of payload, I/O buffered (asked: auto; the file "
       "is smaller than one block)\n",
       nullptr},
      {"decimal units", nullptr, "$Q pack --page-size 1MB in x", 0, "1 page of 1000000", nullptr},
      {"why not as asked", nullptr, "$Q pack --page-size 600 in x", 0,
       "I/O buffered (asked: auto; direct I/O needs page and header sizes that are multiples of "
       "4096 bytes)",
       nullptr},
  });
}

TEST(Interface, ShowsProgressAndJournalWhenAsked) {
  runCases({
      {"progress", "seq 3000000 >big", "$Q pack big x --progress always >/dev/null", 0, nullptr,
       "100%"},
      {"none unasked", "seq 3000000 >big", "$Q pack big x >/dev/null", 0, nullptr, nullptr},
      {"journal", "seq 200000 >big", "(ulimit -f 200; $Q pack -v big x)", 74, nullptr, "error: "},
      {"no colour without a terminal", nullptr, "TERM=xterm $Q info no 2>&1 | grep -ac '\033'", 1,
       "0", nullptr},
  });
}

// On a terminal, which script(1) provides: colour and progress, and neither where it is unwanted.
TEST(Interface, KnowsATerminal) {
  runCases({
      {"colour", nullptr, "TERM=xterm script -qec \"$Q info no\" /dev/null | grep -ac '\033'", 0,
       "1", nullptr},
      {"no colour", nullptr, "NO_COLOR=1 script -qec \"$Q info no\" /dev/null | grep -ac '\033'", 1,
       "0", nullptr},
      {"dumb", nullptr, "TERM=dumb script -qec \"$Q info no\" /dev/null | grep -ac '\033'", 1, "0",
       nullptr},
      {"narrow", nullptr,
       "script -qec \"stty cols 30; $Q cat good --progress always >/dev/null\" /dev/null", 0,
       "\rcat  44.0 KiB of 44.0 KiB  10\r\n", nullptr},
  });
}

TEST(Interface, HelpManPageAndCompletionAgree) {
  const Shell shell;
  const std::string bash = contentsOf(QZIOP_SOURCES "/tool/completion/qzpfile.bash");
  const std::string zsh = contentsOf(QZIOP_SOURCES "/tool/completion/_qzpfile");
  std::string man = contentsOf(QZIOP_SOURCES "/tool/man/qzpfile.1.in");
  for (std::size_t at = 0; (at = man.find('\\', at)) != std::string::npos;) man.erase(at, 1);
  const Outcome program = shell.run("$Q --help");
  for (const std::string command : kCommands) {
    SCOPED_TRACE(command);
    EXPECT_NE(program.out.find("\n  " + command + " "), std::string::npos);
    EXPECT_NE(man.find(".B " + command + "\n"), std::string::npos);
    EXPECT_NE(zsh.find("'" + command + ":"), std::string::npos);
    const Outcome help = shell.run("COLUMNS=80 $Q " + command + " --help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("\nExamples:\n  # "), std::string::npos);
    const std::regex option("--[a-z-]+");
    std::smatch list;
    ASSERT_TRUE(
        std::regex_search(bash, list, std::regex("\n    " + command + "\\) options=\"(.*)\"")));
    std::set<std::string> completed;
    std::string words = list[1].str() + " --module --verbose --help";
    words = std::regex_replace(words, std::regex("\\$raw"), "--raw --page-size --header-size");
    words = std::regex_replace(words, std::regex("\\$io"), "--io --block-size --buffers");
    for (std::sregex_iterator it(words.begin(), words.end(), option), end; it != end; ++it) {
      completed.insert(it->str());
    }
    std::set<std::string> offered;
    std::istringstream lines(help.out);
    for (std::string line; std::getline(lines, line);) {
      EXPECT_LE(line.size(), 80U) << line;
      const std::regex entry("^  (?:-., )?(--[a-z-]+).*");
      if (std::smatch match; std::regex_match(line, match, entry)) {
        offered.insert(match[1]);
        EXPECT_NE(man.find(match[1]), std::string::npos) << match[1];
        EXPECT_NE(zsh.find(match[1]), std::string::npos) << match[1];
      }
    }
    EXPECT_EQ(completed, offered);
    // Narrow: only names and example commands may be longer; examples can be pasted whole.
    std::istringstream narrow(shell.run("COLUMNS=40 $Q " + command + " --help").out);
    bool inExamples = false;
    for (std::string line; std::getline(narrow, line);) {
      if (line.find("qzpfile ") != std::string::npos) continue;
      EXPECT_LE(line.size(), 40U) << line;
      EXPECT_TRUE(!inExamples || line.rfind("  # ", 0) == 0) << line;
      inExamples = inExamples || line == "Examples:";
    }
  }
  EXPECT_EQ(shell.run("$Q --version").out.rfind("qzpfile 3.3.1\n", 0), 0U);
}

}  // namespace
}  // namespace qztest
