// qzpfile rm FILE.
#include <fmt/format.h>

#include "commands.hpp"

namespace qzpfile {

Exit runRm(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  if (!call.raw) examine(session, call.first, std::nullopt);
  qz::PagedFile file = session.newFile(call.first, Purpose::input);
  if (const auto removed = file.remove(); !removed) {
    throw moduleFailure(Purpose::input, "cannot remove", call.first, removed.error());
  }
  fmt::print("{}: removed\n", call.first);
  return Exit::good;
}

}  // namespace qzpfile
