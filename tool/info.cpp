// qzpfile info FILE: shows geometry, payload and how the file can be read here.
#include <fmt/format.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <optional>

#include "commands.hpp"
#include "json.hpp"
#include "map.hpp"
#include "report.hpp"
#include "streams.hpp"
#include "terminal.hpp"
#include "text.hpp"

namespace qzpfile {
namespace {

// Reads all payload pages except those in holes.
class Survey {
 public:
  Survey(const Invocation& call, const Source& source, File& file)
      : call_(call), source_(source), file_(file), map_(source) {}

  // Exit::ioError when a page could not be read.
  Exit run() {
    const Geometry& geometry = source_.geometry;
    const std::int64_t pages = file_.pageCount();
    Progress progress(call_.progress, "info", pages * geometry.pageSize);
    for (std::int64_t page = 1; page <= pages; ++page) {
      const std::int64_t group = geometry.groupOf(page);
      if (geometry.pagesPerGroup != 0 && page == geometry.firstOfGroup(group)) {
        map_.add(PageState::checksums);
      }
      look(page);
      progress.advance(geometry.pageSize);
    }
    map_.finish();
    return exit_;
  }

  const PageMap& map() const { return map_; }

 private:
  void look(std::int64_t page) {
    // An unfinished change has pages in other places.
    if (source_.unfinished == Unfinished::no && map_.nextIsHole()) {
      return map_.add(PageState::hole);
    }
    try {
      file_.readMany(page, bytes_.bytes());
      file_.requireUncut();
      map_.addRead(bytes_.bytes());
    } catch (const Failure& failure) {
      if (failure.exit() != Exit::ioError) throw;
      map_.add(PageState::unread);
      exit_ = failure.exit();
      warn(source_.name, fmt::format("page {} (file offset {}): {}", page,
                                     source_.geometry.offsetOf(page), failure.reason()));
    }
  }

  const Invocation& call_;
  const Source& source_;
  File& file_;
  PageMap map_;
  AlignedBuffer bytes_{static_cast<std::size_t>(source_.geometry.pageSize)};
  Exit exit_ = Exit::good;
};

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

void printJson(const Source& source, const File& file, std::int64_t pages, Exit exit,
               const PageMap* map) {
  nlohmann::ordered_json document = jsonDocument("info", exit);
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
  if (map != nullptr) document["map"] = map->runs();
  printJsonDocument(document);
}

}  // namespace

Exit runInfo(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  const Source source = examineWhole(session, call.first, rawGeometry(call));
  File file = File::openToRead(session, source, call.io, Use::wholeFile);
  std::optional<Survey> survey;
  Exit exit = Exit::good;
  if (call.map) exit = survey.emplace(call, source, file).run();
  if (call.json) {
    printJson(source, file, file.pageCount(), exit, survey ? &survey->map() : nullptr);
    return exit;
  }
  printText(source, file, file.pageCount());
  if (survey) {
    fmt::print("{}",
               survey->map().drawing(terminalWidth(STDOUT_FILENO), wantsColour(STDOUT_FILENO)));
  }
  return exit;
}

}  // namespace qzpfile
