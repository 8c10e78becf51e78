// qzpfile: parses the command line, runs the command and turns what went wrong into words and an
// exit status.
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

Exit run(const std::vector<std::string>& words) {
  const auto parsed = parseCommandLine(words);
  Exit exit = Exit::good;
  if (const auto* text = std::get_if<std::string>(&parsed)) {
    fmt::print("{}", *text);
  } else {
    const auto& [command, call] = std::get<ParsedCommand>(parsed);
    exit = command->run(call);
  }
  if (std::fflush(stdout) != 0) {
    throw systemFailure(Purpose::output, "cannot write", "standard output", errno);
  }
  return exit;
}

Exit report(const Failure& failure, bool json) {
  if (json) {
    failure.printJson();
    std::fflush(stdout);
  } else {
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
  } catch (const std::system_error& error) {
    return static_cast<int>(report(
        systemFailure(Purpose::output, "cannot write", "standard output", error.code().value()),
        json));
  }
}

}  // namespace
}  // namespace qzpfile

int main(int argc, char** argv) {
  try {
    qzpfile::installSignals();
    return qzpfile::runAndReport(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
  } catch (const std::exception& error) {  // a report that itself found no memory
    std::fprintf(stderr, "qzpfile: %s\n", error.what());
    return static_cast<int>(qzpfile::Exit::ioError);
  }
}
