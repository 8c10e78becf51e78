#include "tool/shell.h"

#include <fmt/format.h>
#include <sys/wait.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace qztest {
namespace {

std::string contentsOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

int system(const std::string& line) {
  const int result = std::system(line.c_str());  // NOLINT(concurrency-mt-unsafe,cert-env33-c)
  return WIFEXITED(result) ? WEXITSTATUS(result) : 128 + WTERMSIG(result);
}

// The definitions that stand before each line. If the kernel cannot run the program, the emulator
// runs it.
std::string preamble() {
  static const std::string path = QZIOP_PROGRAMS "/qzpfile";
  static const bool runs = system(path + " --version >/dev/null 2>&1") == 0;
  const std::string preload = "LD_PRELOAD=" QZIOP_PROGRAMS "/libtool_faults.so ";
  return "exec </dev/null; umask 022; export ASAN_OPTIONS=verify_asan_link_order=0\n"
         "Q='" +
         std::string(runs ? "" : "qemu-i386 ") + path + "' FAULTY='" +
         (runs ? "env " : "qemu-i386 -E ") + preload + path + "'\n" +
         "poke() { printf \"$1\" | dd of=$3 bs=1 seek=$2 conv=notrunc status=none; }\n" +
         fmt::format("USAGE={} IOERR={}\n", EX_USAGE, EX_IOERR);
}

// With one space for the end of a line and the spaces that begin the next.
std::string inOneLine(std::string text) {
  for (std::size_t at = 0; (at = text.find('\n')) != std::string::npos;) {
    const std::size_t next = std::min(text.find_first_not_of(' ', at + 1), text.size());
    text.replace(at, next - at, " ");
  }
  return text;
}

// Cuts off the end of *text that begins with the mark, and returns what follows the mark.
std::string cutFrom(std::string* text, std::string_view mark) {
  const std::size_t at = text->find(mark);
  if (at == std::string::npos) return "";
  std::string end = text->substr(at + mark.size());
  text->resize(at);
  return end;
}

}  // namespace

std::string Outcome::said() const { return inOneLine(out + err); }

std::string Outcome::ended() const {
  switch (status) {
    case 0:
      return "OK";
    case 1:
      return "DIFFERS";
    case EX_USAGE:
      return "USAGE";
    case EX_DATAERR:
      return "DATAERR";
    case EX_NOINPUT:
      return "NOINPUT";
    case EX_CANTCREAT:
      return "CANTCREAT";
    case EX_IOERR:
      return "IOERR";
    case EX_NOPERM:
      return "NOPERM";
    default:
      const char* const signal = status > 128 ? sigabbrev_np(status - 128) : nullptr;
      return signal == nullptr ? std::to_string(status) : std::string("SIG") + signal;
  }
}

// Every folder begins with three files: `in`, text of 10 and a half pages; `good` and `good1`,
// packed from it in versions 2 and 1 of the file format.
Shell::Shell() : folder_(QZIOP_PROGRAMS "/shell-XXXXXX") {
  if (mkdtemp(folder_.data()) == nullptr) std::abort();
  expectGood(
      "seq 1000000 | head -c 43008 >in; $Q pack --page-size 4K in good; "
      "$Q pack --format-version 1 --page-size 4K in good1");
}

Shell::~Shell() {
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder_)) {
    EXPECT_EQ(entry.path().filename().string().find(".qzpfile-"), std::string::npos)
        << "left behind: " << entry.path();
  }
  std::filesystem::remove_all(folder_);
}

Outcome Shell::run(const std::string& line) const {
  const std::string out = folder_ + ".out";
  const std::string err = folder_ + ".err";
  std::ofstream(folder_ + ".sh") << preamble() << "cd " << folder_ << "\n" << line << "\n";
  Outcome outcome;
  outcome.status = system("/bin/sh " + folder_ + ".sh >" + out + " 2>" + err);
  outcome.out = contentsOf(out);
  outcome.err = contentsOf(err);
  for (const char* suffix : {".sh", ".out", ".err"}) std::filesystem::remove(folder_ + suffix);
  return outcome;
}

void Shell::expectGood(const std::string& line) const {
  const Outcome outcome = run("set -e; " + line);
  ASSERT_EQ(outcome.status, 0) << line << "\n" << outcome.out << outcome.err;
}

std::vector<std::string> rowsOf(const std::string& text) {
  std::vector<std::string> rows;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.empty()) continue;
    if (line.front() == ' ') {
      rows.back() += line.substr(line.find_first_not_of(' ') - 1);
    } else {
      rows.push_back(line);
    }
  }
  return rows;
}

void playLines(const std::string& rows, std::string_view frame) {
  for (const std::string& row : rowsOf(rows)) {
    SCOPED_TRACE(row);
    const std::size_t arrow = row.rfind(" -> ");
    ASSERT_NE(arrow, std::string::npos);
    std::string ended = row.substr(arrow + 4);
    const std::string err = cutFrom(&ended, " ! ");
    const std::string out = cutFrom(&ended, " ");
    const Outcome outcome =
        Shell().run(std::string(frame).replace(frame.find("%1"), 2, row.substr(0, arrow)));
    EXPECT_EQ(outcome.ended(), ended) << outcome.out << outcome.err;
    const auto check = [](const std::string& wanted, const std::string& text) {
      const bool found = inOneLine(text).find(wanted) != std::string::npos;
      EXPECT_TRUE(wanted.empty() ? text.empty() : found) << text;
    };
    check(out, outcome.out);
    check(err, outcome.err);
  }
}

}  // namespace qztest
