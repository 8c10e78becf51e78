// qzpfile info FILE: geometry, payload and how the file can be read here.
#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "commands.hpp"
#include "json.hpp"
#include "text.hpp"

namespace qzpfile {
namespace {

void printText(const Source& source, const File& file, std::int64_t pages) {
  const auto line = [](const char* label, const std::string& value) {
    fmt::print("{:<13}{}\n", label, value);
  };
  const auto bytes = [](std::int64_t count) {
    return count < 1024
               ? counted(count, "byte")
               : fmt::format("{} bytes ({})", count, readableSize(static_cast<double>(count)));
  };
  line("file", printable(source.name));
  line("kind", kindName(source.geometry.kind));
  if (source.geometry.header)
    line("format", fmt::format("version {}", source.geometry.header->version));
  line("page size", bytes(source.geometry.pageSize));
  line("header size", bytes(source.geometry.headerSize));
  line("pages", fmt::to_string(pages));
  line("file size", bytes(source.actualBytes));
  if (const auto& header = source.geometry.header) {
    line("payload", bytes(header->payloadBytes));
    line("checksum", fmt::format("{:016x}", header->payloadChecksum));
  }
  if (source.unfinished != Unfinished::no) line("change", describe(source.unfinished));
  line("I/O", file.describeIo());
}

void printJson(const Source& source, const File& file, std::int64_t pages) {
  nlohmann::ordered_json document = jsonDocument("info", Exit::good);
  document["file"] = source.name;
  document["kind"] = kindName(source.geometry.kind);
  if (source.geometry.header) document["format_version"] = source.geometry.header->version;
  document["page_size"] = source.geometry.pageSize;
  document["header_size"] = source.geometry.headerSize;
  document["pages"] = pages;
  document["file_size"] = source.actualBytes;
  if (const auto& header = source.geometry.header) {
    document["payload_size"] = header->payloadBytes;
    document["payload_checksum"] = fmt::format("{:016x}", header->payloadChecksum);
  }
  if (source.unfinished != Unfinished::no) {
    document["unfinished_change"] = describe(source.unfinished);
  }
  document["io"] = jsonIo(file.io());
  printJsonDocument(document);
}

}  // namespace

Exit runInfo(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  const Source source = examineWhole(session, call.first, rawGeometry(call));
  File file = File::openToRead(session, source, call.io, Use::wholeFile);
  if (call.json) {
    printJson(source, file, file.pageCount());
  } else {
    printText(source, file, file.pageCount());
  }
  return Exit::good;
}

}  // namespace qzpfile
