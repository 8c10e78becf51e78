#include "report.hpp"

#include <fmt/format.h>

#include <cstdio>

#include "json.hpp"
#include "text.hpp"

namespace qzpfile {

void reportResult(const Invocation& call, Exit exit, const char* command, const std::string& name,
                  const std::string& text, const nlohmann::ordered_json& members) {
  if (call.quiet) return;
  if (!call.json) {
    fmt::print("{}: {}\n", printable(name), printable(text));
    return;
  }
  nlohmann::ordered_json document = jsonDocument(command, exit);
  document["file"] = name;
  document.update(members);
  printJsonDocument(document);
}

void warn(const std::string& name, const std::string& text) {
  fmt::print(stderr, "qzpfile: {}: {}\n", printable(name), printable(text));
}

}  // namespace qzpfile
