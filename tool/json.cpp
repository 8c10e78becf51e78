#include "json.hpp"

#include <fmt/format.h>

#include "text.hpp"

namespace qzpfile {
namespace {

// For each member NAME whose text is not UTF-8, adds a member NAME_hex with its bytes.
nlohmann::ordered_json withBytes(const nlohmann::ordered_json& value) {
  if (!value.is_structured()) return value;
  nlohmann::ordered_json out =
      value.is_array() ? nlohmann::ordered_json::array() : nlohmann::ordered_json::object();
  for (const auto& [name, member] : value.items()) {
    if (value.is_array()) {
      out.push_back(withBytes(member));
      continue;
    }
    out[name] = withBytes(member);
    const auto* const text = member.get_ptr<const std::string*>();
    if (text != nullptr && !isUtf8(*text)) out[name + "_hex"] = hexOf(*text);
  }
  return out;
}

}  // namespace

nlohmann::ordered_json jsonDocument(const std::string& name, Exit exit) {
  nlohmann::ordered_json document;
  document["schema"] = "qzpfile/" + name;
  document["schema_version"] = 1;
  document["exit_status"] = static_cast<int>(exit);
  return document;
}

nlohmann::ordered_json jsonIo(const IoOutcome& outcome) {
  nlohmann::ordered_json io;
  io["asked"] = ioName(outcome.asked);
  io["obtained"] = ioName(outcome.mode);
  if (!outcome.why.empty()) io["why"] = outcome.why;
  return io;
}

std::string jsonText(const nlohmann::ordered_json& document) {
  // ASCII only: a terminal obeys some characters outside ASCII.
  return withBytes(document).dump(2, ' ', true, nlohmann::json::error_handler_t::replace) + '\n';
}

void printJsonDocument(const nlohmann::ordered_json& document) {
  fmt::print("{}", jsonText(document));
}

}  // namespace qzpfile
