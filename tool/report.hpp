// What a successful command reports: text, or with --format json one document; nothing with
// --quiet.
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "commands.hpp"
#include "iomode.hpp"

namespace qzpfile {

// A member of the JSON document, after "file".
struct Member {
  const char* name;
  std::variant<std::int64_t, std::string, IoOutcome> value;
};

// Prints the line "NAME: TEXT", or the document of the schema "qzpfile/COMMAND" with the file's
// name and `members`.
void reportResult(const Invocation& call, Exit exit, const char* command, const std::string& name,
                  const std::string& text, const std::vector<Member>& members);

// Prints a warning on standard error, even with --quiet.
void warn(const std::string& name, const std::string& text);

}  // namespace qzpfile
