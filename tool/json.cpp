#include "json.hpp"

#include <fmt/format.h>

namespace qzpfile {

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
  return document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + '\n';
}

void printJsonDocument(const nlohmann::ordered_json& document) {
  fmt::print("{}", jsonText(document));
}

}  // namespace qzpfile
