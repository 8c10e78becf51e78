// The JSON documents of --format json: each run prints one, and nothing else, on standard output.
// Sizes are integers, checksums are strings of hexadecimal digits.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "failure.hpp"
#include "iomode.hpp"

namespace qzpfile {

// Begins the document of the schema "qzpfile/NAME".
nlohmann::ordered_json jsonDocument(const std::string& name, Exit exit);

nlohmann::ordered_json jsonIo(const IoOutcome& outcome);

// File names need not be UTF-8: invalid bytes are shown as U+FFFD, and a second member NAME_hex has
// all bytes of the name in hexadecimal.
std::string jsonText(const nlohmann::ordered_json& document);

void printJsonDocument(const nlohmann::ordered_json& document);

}  // namespace qzpfile
