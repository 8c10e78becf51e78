// qzpfile: parses the command line, runs the command, and turns failures into messages and an exit
// status.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <new>
#include <string>
#include <system_error>
#include <vector>

#include "cli.hpp"
#include "failure.hpp"
#include "signals.hpp"
#include "terminal.hpp"

namespace qzpfile {
namespace {

// Reserves closed standard descriptors, so that no file gets their numbers and no message goes to a
// file. Each is opened for the other direction, so using it still fails.
void occupyStandardDescriptors() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) < 0) open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

Failure outputFailure(int errorNumber) {
  checkInterrupt();
  return systemFailure(Purpose::output, "cannot write", "standard output", errorNumber);
}

Exit run(const std::vector<std::string>& words) {
  try {
    const auto parsed = parseCommandLine(words);
    Exit exit = Exit::good;
    if (const auto* text = std::get_if<std::string>(&parsed)) {
      fmt::print("{}", *text);
    } else {
      const auto& [command, call] = std::get<ParsedCommand>(parsed);
      exit = command->run(call);
    }
    if (std::fflush(stdout) != 0) throw outputFailure(errno);
    return exit;
  } catch (const std::system_error& error) {  // from fmt::print
    throw outputFailure(error.code().value());
  }
}

Exit report(const Failure& failure, bool json) {
  // Standard output may be the cause of the failure.
  if (!json || std::fputs(failure.json().c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
    std::fputs(failure.text(wantsColour(STDERR_FILENO)).c_str(), stderr);
  }
  return failure.exit();
}

int runAndReport(const std::vector<std::string>& words) {
  const bool json = asksForJson(words);
  try {
    return static_cast<int>(run(words));
  } catch (const Interrupted& interrupted) {
    dieOf(interrupted.signal);
  } catch (const Failure& failure) {
    return static_cast<int>(report(failure, json));
  } catch (const std::bad_alloc&) {
    return static_cast<int>(report(
        Failure(Exit::ioError, "out of memory").tryThis("use smaller pages or blocks"), json));
  }
}

}  // namespace
}  // namespace qzpfile

int main(int argc, char** argv) {
  try {
    qzpfile::occupyStandardDescriptors();
    qzpfile::installSignals();
    return qzpfile::runAndReport(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
  } catch (const std::exception& error) {  // the report itself ran out of memory
    std::fprintf(stderr, "qzpfile: %s\n", error.what());
    return static_cast<int>(qzpfile::Exit::ioError);
  }
}
