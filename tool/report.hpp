// What a successful command reports: text, or with --format json one document; nothing with
// --quiet.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "commands.hpp"

namespace qzpfile {

// Prints the line "NAME: TEXT", or the document of the schema "qzpfile/COMMAND" with the file's
// name and `members`.
void reportResult(const Invocation& call, Exit exit, const char* command, const std::string& name,
                  const std::string& text, const nlohmann::ordered_json& members);

// Prints a warning on standard error, even with --quiet.
void warn(const std::string& name, const std::string& text);

}  // namespace qzpfile
