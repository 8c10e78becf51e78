#include "terminal.hpp"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

#include "sizes.hpp"

namespace qzpfile {

std::size_t terminalWidth(int fd) {
  winsize size = {};
  if (ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
    return size.ws_col;
  }
  const char* const columns = std::getenv("COLUMNS");
  const auto width = parseSize(columns == nullptr ? "" : columns);
  return width && *width > 0 && *width < 10000 ? static_cast<std::size_t>(*width) : 80;
}

bool isTerminal(int fd) { return isatty(fd) == 1; }

bool wantsColour(int fd) {
  const char* const noColour = std::getenv("NO_COLOR");
  const char* const terminal = std::getenv("TERM");
  return isTerminal(fd) && (noColour == nullptr || *noColour == '\0') && terminal != nullptr &&
         std::string_view(terminal) != "dumb";
}

}  // namespace qzpfile
