// What a command says that has done its work: text, or with --format json one document; nothing
// with
// --quiet.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "commands.hpp"

namespace qzpfile {

// The line "NAME: TEXT", or the document of the schema "qzpfile/COMMAND" with the file's name and
// `members`.
void reportResult(const Invocation& call, Exit exit, const char* command, const std::string& name,
                  const std::string& text, const nlohmann::ordered_json& members);

// Says on standard error, also with --quiet, what the user should know although nothing failed.
void warn(const std::string& name, const std::string& text);

}  // namespace qzpfile
