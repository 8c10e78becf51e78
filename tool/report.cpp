#include "report.hpp"

#include <fmt/format.h>

#include <cstdio>

#include "json.hpp"
#include "text.hpp"

namespace qzpfile {
namespace {

std::int64_t toJson(std::int64_t value) { return value; }
const std::string& toJson(const std::string& value) { return value; }
nlohmann::ordered_json toJson(const IoOutcome& outcome) { return jsonIo(outcome); }

}  // namespace

void reportResult(const Invocation& call, Exit exit, const char* command, const std::string& name,
                  const std::string& text, const std::vector<Member>& members) {
  if (call.quiet) return;
  if (!call.json) {
    fmt::print("{}: {}\n", printable(name), printable(text));
    return;
  }
  nlohmann::ordered_json document = jsonDocument(command, exit);
  document["file"] = name;
  for (const Member& member : members) {
    std::visit([&](const auto& value) { document[member.name] = toJson(value); }, member.value);
  }
  printJsonDocument(document);
}

void warn(const std::string& name, const std::string& text) {
  fmt::print(stderr, "qzpfile: {}: {}\n", printable(name), printable(text));
}

}  // namespace qzpfile
