#include "program.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <limits>

#include "files.h"

namespace qzbench {
namespace {

double nanoseconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_usec) * 1e3;
}

std::string textIn(const Descriptor& file) {
  std::array<char, 512> text = {};
  return pread(file.get(), text.data(), text.size(), 0) < 0
             ? "?"
             : std::string(text.data(), strnlen(text.data(), text.size()));
}

}  // namespace

Sample timedProgram(std::size_t operations, const std::vector<std::string>& command) {
  std::vector<std::string> words = command;
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  const Descriptor said(memfd_create("said", MFD_CLOEXEC));
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, said.get(), STDERR_FILENO);

  pid_t child = 0;
  rusage used = {};
  int outcome = 0;
  const Moment start = momentNow();
  const int error =
      posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
  siginfo_t ending = {};
  const bool ended =
      error == 0 && waitid(P_PID, static_cast<id_t>(child), &ending, WEXITED | WNOWAIT) == 0;
  const Moment end = momentNow();
  // A process that has ended and was not waited for still has its figures.
  const double childWaited = ended ? waitedOf(child) : 0;
  const bool collected = ended && wait4(child, &outcome, 0, &used) == child;

  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw Failure(command[0] + ": " + std::strerror(error));
  if (!collected || outcome != 0) throw Failure(command[0] + ": " + textIn(said));
  constexpr double kNobodyCounted = std::numeric_limits<double>::quiet_NaN();
  return {.wallNs = takenNs(start, end) - childWaited,
          .cpuNs = nanoseconds(used.ru_utime) + nanoseconds(used.ru_stime),
          .operations = static_cast<double>(operations),
          .readCalls = kNobodyCounted,
          .writeCalls = kNobodyCounted,
          .instructions = kNobodyCounted};
}

}  // namespace qzbench
