#include "tool/shell.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

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

// The program, through the emulator where the kernel does not run it.
std::string program() {
  std::string path = QZIOP_PROGRAMS "/qzpfile";
  for (const std::string& launcher : {std::string(), std::string("qemu-i386 ")}) {
    if (system(launcher + path + " --version >/dev/null 2>&1") == 0) return launcher + path;
  }
  ADD_FAILURE() << path << " does not run";
  return path;
}

std::string preamble() {
  static const std::string q = program();
  return "exec </dev/null; umask 022; Q='" + q + "'; ";
}

}  // namespace

// Every folder begins with `in`, 10 pages and a half of text, and `good`, packed from it.
Shell::Shell() : folder_(QZIOP_PROGRAMS "/shell-XXXXXX") {
  if (mkdtemp(folder_.data()) == nullptr) std::abort();
  prepare("seq 1000000 | head -c 43008 >in; $Q pack --page-size 4K in good");
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

void Shell::prepare(const std::string& line) const {
  const Outcome outcome = run("set -e; " + line);
  ASSERT_EQ(outcome.status, 0) << line << "\n" << outcome.err;
}

void runCases(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Shell shell;
    if (c.prepare != nullptr) shell.prepare(c.prepare);
    const Outcome outcome = shell.run(c.line);
    EXPECT_EQ(outcome.status, c.status) << outcome.out << outcome.err;
    const auto check = [](const char* wanted, const std::string& text) {
      if (wanted == nullptr) {
        EXPECT_EQ(text, "");
      } else {
        EXPECT_NE(text.find(wanted), std::string::npos) << "wanted: " << wanted << "\n" << text;
      }
    };
    check(c.out, outcome.out);
    check(c.err, outcome.err);
  }
}

}  // namespace qztest
