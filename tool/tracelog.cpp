#include "tracelog.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "failure.hpp"
#include "signals.hpp"
#include "sizes.hpp"

namespace qzpfile {
namespace {

using Json = nlohmann::json;

constexpr int kVersion = 1;
constexpr std::size_t kSlowest = 5;
constexpr std::uint32_t kEndOfFile = static_cast<std::uint32_t>(qz::Status::endOfFile);

std::int64_t number(const Json& line, const char* name) {
  return line.value(name, std::int64_t{0});
}

std::string text(const Json& line, const char* name) { return line.value(name, std::string()); }

std::uint64_t hexadecimal(std::string_view digits) {
  std::uint64_t value = 0;
  if (digits.starts_with("0x")) digits.remove_prefix(2);
  std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
  return value;
}

std::uint32_t statusOf(const Json& line) {
  if (text(line, "status") == "ok") return 0;
  return static_cast<std::uint32_t>(hexadecimal(text(line, "status")));
}

std::optional<std::int64_t> pageOf(const Json& line) {
  return line.contains("page") ? std::optional(number(line, "page")) : std::nullopt;
}

bool movesPages(const std::string& call) {
  return call == "pread64" || call == "pwrite64" || call == "readv";
}

// True for operations that transfer headers, not pages.
bool isAboutHeaders(const std::string& operation) {
  return operation == "qzpwritehdr" || operation == "qzppreopen" || operation == "qzpopen";
}

struct Hints {
  std::string text;
  BufferShape shape;
};

Hints hintsOf(const BufferShape& shape, const char* remark = "") {
  const std::int64_t blockBytes = std::int64_t{shape.pagesPerBlock} * shape.pageSize;
  return {fmt::format("{}, {}{}",
                      shape.pagesPerBlock == 0
                          ? "page by page"
                          : "blocks of " + readableSize(static_cast<double>(blockBytes)),
                      counted(shape.buffers, "buffer"), remark),
          shape};
}

// The hints to replay besides those that were used: buffers of about the same memory, and four
// times as many of the same buffers.
std::vector<Hints> otherHints(const BufferShape& used) {
  constexpr std::int64_t kMostBuffers = 1 << 20;
  const std::int64_t buffers = std::max(used.buffers, 1);
  const std::int64_t pagesPerBuffer = std::max(used.pagesPerBlock, 1);
  const std::int64_t memory = buffers * pagesPerBuffer * used.pageSize;
  const auto shape = [&](std::int64_t count, std::int64_t pagesPerBlock) {
    return BufferShape{.pageSize = used.pageSize,
                       .buffers = static_cast<std::int32_t>(std::min(count, kMostBuffers)),
                       .pagesPerBlock = static_cast<std::int32_t>(pagesPerBlock)};
  };
  std::vector<Hints> hints = {
      hintsOf(shape(4 * buffers, used.pagesPerBlock), " (four times as many)")};
  if (used.pagesPerBlock != 0) hints.push_back(hintsOf(shape(buffers * pagesPerBuffer, 0)));
  for (const std::int64_t blockBytes : {256 << 10, 4 << 20}) {
    const std::int64_t pagesPerBlock = blockBytes / used.pageSize;
    const bool whole = blockBytes % used.pageSize == 0 && pagesPerBlock > 1;
    if (!whole || pagesPerBlock == used.pagesPerBlock) continue;
    hints.push_back(hintsOf(shape(std::max<std::int64_t>(memory / blockBytes, 2), pagesPerBlock)));
  }
  return hints;
}

// One open file, with the models that replay its pages.
class Replay {
 public:
  Replay(const BufferShape& used, std::int64_t pages)
      : inBlocks_(used.pagesPerBlock != 0), hints_(otherHints(used)) {
    BufferShape flat = used;
    flat.pagesPerBlock = 0;
    hints_.insert(hints_.begin(), {hintsOf(used), hintsOf(flat)});
    for (const Hints& hints : hints_) models_.push_back(CacheModel::make(hints.shape, pages));
  }

  void count(const Transfers& recorded) { recorded_ += recorded; }

  // Applies one successful operation.
  void apply(const std::string& operation, const Json& line) {
    for (const auto& model : models_) apply(*model, operation, line);
  }

  void addTo(FileSum* file) const {
    auto use = std::ranges::find(file->uses, hints_[0].text, &UseSum::hints);
    if (use == file->uses.end()) {
      use = file->uses.emplace(use);
      use->hints = hints_[0].text;
      use->inBlocks = inBlocks_;
      for (std::size_t i = 2; i < models_.size(); ++i) {
        use->alternatives.push_back({hints_[i].text, {}});
      }
    }
    ++use->opens;
    use->recorded += recorded_;
    use->replayed += models_[0]->transfers();
    use->pageByPage += models_[1]->transfers();
    for (std::size_t i = 2; i < models_.size(); ++i) {
      use->alternatives[i - 2].transfers += models_[i]->transfers();
    }
  }

 private:
  static void apply(CacheModel& model, const std::string& operation, const Json& line) {
    const std::int64_t page = number(line, "page");
    const CacheModel::Address address = hexadecimal(text(line, "buffer"));
    const auto count = static_cast<std::int32_t>(number(line, "count"));
    if (operation == "qzpread") {
      model.read(page, address);
    } else if (operation == "qzpwrite") {
      const bool own = (number(line, "flags") & qz::kCallersMemory) != 0;
      model.write(page, own ? CacheModel::kOwnMemory : address);
    } else if (operation == "qzpbufreturn") {
      model.returnHold(address);
    } else if (operation == "qzpbufacquire") {
      model.acquire(address);
    } else if (operation == "qzpreadmany") {
      model.readMany(page, count, (number(line, "options") & qz::kContiguous) != 0);
    } else if (operation == "qzptruncate") {
      model.truncate(number(line, "pages"));
    } else if (operation == "qzpflush" || operation == "qzpclose") {
      model.writeBack();
    } else if (operation == "qzpbufadd") {
      model.addBuffers(static_cast<std::int32_t>(number(line, "count_out")));
    } else if (operation == "qzpbufremove") {
      model.addBuffers(-count);
    }
  }

  bool inBlocks_;
  std::vector<Hints> hints_;  // the hints used, the same without blocks, then others
  std::vector<std::unique_ptr<CacheModel>> models_;
  Transfers recorded_;
};

struct Handle {
  std::string name;
  std::size_t file = 0;  // index in summary_.files
  std::unique_ptr<Replay> replay;
};

class Reader {
 public:
  void addLine(const Json& line, std::int64_t lineNumber) {
    const std::string operation = text(line, "op");
    const bool nested = line.contains("in");
    OperationSum& sum = summary_.operations[operation];
    const std::int64_t nanoseconds = number(line, "ns");
    const std::int64_t inside = takeInside(number(line, "id"));
    ++summary_.operationCount;
    ++sum.count;
    sum.nanoseconds += nanoseconds;
    sum.ownNanoseconds += nanoseconds - inside;
    sum.longest = std::max(sum.longest, nanoseconds);
    if (nested) inside_[number(line, "in")] += nanoseconds;
    first_ = std::min(first_, number(line, "at"));
    last_ = std::max(last_, number(line, "at") + nanoseconds);
    threads_.insert(number(line, "thread"));
    summary_.linesLost += number(line, "lines_lost_before");

    Handle& handle = handleOf(line, operation);
    const std::int64_t systemNanoseconds = addSystemCalls(line, operation, handle, &sum);
    noteSlow({nanoseconds - inside, operation, handle.name, pageOf(line), systemNanoseconds});
    const std::uint32_t status = statusOf(line);
    if (status == 0) {
      addPages(line, operation, handle);
    } else if (status != kEndOfFile) {
      ++sum.failed;
      noteFailure(line, operation, handle.name, status, lineNumber);
    }
  }

  TraceSummary finish() {
    for (auto& [address, handle] : handles_) endReplay(handle);
    summary_.threads = static_cast<std::int64_t>(threads_.size());
    summary_.nanoseconds = summary_.operationCount == 0 ? 0 : last_ - first_;
    for (auto& [key, failure] : failures_) summary_.failures.push_back(std::move(failure));
    std::ranges::sort(summary_.failures, {}, &FailureSum::firstLine);
    return std::move(summary_);
  }

  TraceSummary& summary() { return summary_; }

 private:
  std::int64_t takeInside(std::int64_t id) {
    const auto found = inside_.find(id);
    if (found == inside_.end()) return 0;
    const std::int64_t nanoseconds = found->second;
    inside_.erase(found);
    return nanoseconds;
  }

  // The handle of the line, under its current name. A qzpgetmemhandle makes a new handle, which may
  // have the address of an old one.
  Handle& handleOf(const Json& line, const std::string& operation) {
    if (!line.contains("handle")) return noHandle_;
    Handle& handle = handles_[text(line, "handle")];
    if (operation == "qzpgetmemhandle") handle = Handle{};
    if (line.contains("name") && handle.name != text(line, "name")) {
      handle.name = text(line, "name");
      const auto known = std::ranges::find(summary_.files, handle.name, &FileSum::name);
      handle.file = static_cast<std::size_t>(known - summary_.files.begin());
      if (known == summary_.files.end()) {
        summary_.files.emplace_back();
        summary_.files.back().name = handle.name;
      }
    }
    return handle;
  }

  FileSum* fileOf(const Handle& handle) {
    return handle.name.empty() ? nullptr : &summary_.files[handle.file];
  }

  std::int64_t addSystemCalls(const Json& line, const std::string& operation, const Handle& handle,
                              OperationSum* sum) {
    std::int64_t nanoseconds = 0;
    const auto calls = line.find("calls");
    if (calls == line.end()) return 0;
    for (const Json& call : *calls) {
      const std::string name = text(call, "call");
      const bool transfers = movesPages(name) || name == "read";
      const Transfers moved = {
          .calls = 1, .bytes = transfers ? std::max<std::int64_t>(number(call, "result"), 0) : 0};
      ++sum->systemCalls;
      nanoseconds += number(call, "ns");
      FileSum* const file = fileOf(handle);
      if (file == nullptr) continue;
      file->systemCalls[name] += moved;
      const bool counts = movesPages(name) && !isAboutHeaders(operation);
      if (counts && handle.replay != nullptr) handle.replay->count(moved);
    }
    return nanoseconds;
  }

  // Adds a successful operation.
  void addPages(const Json& line, const std::string& operation, Handle& handle) {
    FileSum* const file = fileOf(handle);
    if (file == nullptr) return;
    const bool quiet = !line.contains("calls");
    if (operation == "qzpopen" || operation == "qzpreopen") {
      endReplay(handle);
      beginReplay(line, handle);
    } else if (operation == "qzpread") {
      ++file->pagesRead;
      if (quiet) ++file->hits;
    } else if (operation == "qzpwrite") {
      ++file->pagesWritten;
      if (quiet) ++file->collected;
    } else if (operation == "qzpreadmany") {
      file->pagesReadMany += number(line, "count");
    }
    if (handle.replay != nullptr) handle.replay->apply(operation, line);
    if (operation == "qzpclose") endReplay(handle);
  }

  static void beginReplay(const Json& line, Handle& handle) {
    const BufferShape used = {
        .pageSize = static_cast<std::int32_t>(number(line, "page_size")),
        .buffers = static_cast<std::int32_t>(number(line, "buffers")),
        .pagesPerBlock = static_cast<std::int32_t>(number(line, "pages_per_block"))};
    if (used.pageSize > 0) handle.replay = std::make_unique<Replay>(used, number(line, "pages"));
  }

  void endReplay(Handle& handle) {
    if (handle.replay == nullptr) return;
    handle.replay->addTo(fileOf(handle));
    handle.replay.reset();
  }

  void noteSlow(SlowOperation operation) {
    auto& slowest = summary_.slowest;
    const auto place = std::ranges::upper_bound(slowest, operation.nanoseconds, std::greater<>(),
                                                &SlowOperation::nanoseconds);
    slowest.insert(place, std::move(operation));
    if (slowest.size() > kSlowest) slowest.pop_back();
  }

  void noteFailure(const Json& line, const std::string& operation, const std::string& file,
                   std::uint32_t status, std::int64_t lineNumber) {
    const int errorNumber = errorBehind(line, operation);
    FailureSum& failure = failures_[{operation, file, status, errorNumber}];
    if (failure.count++ == 0) {
      failure.operation = operation;
      failure.file = file;
      failure.status = status;
      failure.errorNumber = errorNumber;
      failure.firstLine = lineNumber;
      failure.firstPage = pageOf(line);
    }
  }

  // A handle keeps its last error number through operations that make no system call. The number is
  // the reason only if one of this operation's own calls, or of the host's, failed.
  static int errorBehind(const Json& line, const std::string& operation) {
    const bool hostOpens = operation == "qzpopen" || operation == "qzppreopen" ||
                           operation == "qzpreopen" || operation == "qzpdelete";
    const auto calls = line.find("calls");
    const bool failed = calls != line.end() && std::ranges::any_of(*calls, [](const Json& call) {
                          return call.contains("errno");
                        });
    return hostOpens || failed ? static_cast<int>(number(line, "errno")) : 0;
  }

  using FailureKey = std::tuple<std::string, std::string, std::uint32_t, int>;

  TraceSummary summary_;
  std::unordered_map<std::string, Handle> handles_;
  Handle noHandle_;
  std::unordered_map<std::int64_t, std::int64_t>
      inside_;  // nanoseconds of nested operations, by the outer operation
  std::map<FailureKey, FailureSum> failures_;
  std::set<std::int64_t> threads_;
  std::int64_t first_ = std::numeric_limits<std::int64_t>::max();
  std::int64_t last_ = 0;
};

void readFirstLine(const std::string& words, const std::string& fileName, TraceSummary* summary) {
  const Json line = Json::parse(words, nullptr, false);
  if (!line.is_object() || !line.contains("qziop_trace")) {
    throw Failure(Exit::badData, "is not a trace of the module", fileName)
        .tryThis("record one with libqziop-trace.so and QZIOP_TRACE");
  }
  if (number(line, "qziop_trace") != kVersion) {
    throw Failure(Exit::badData,
                  fmt::format("is a trace of version {}; this program reads version {}",
                              number(line, "qziop_trace"), kVersion),
                  fileName);
  }
  summary->program = text(line, "program");
  summary->started = text(line, "started");
}

}  // namespace

TraceSummary readTrace(const std::string& fileName) {
  errno = 0;
  std::ifstream file(fileName, std::ios::binary);
  if (!file) throw systemFailure(Purpose::input, "cannot open", fileName, errno);
  Reader reader;
  std::string words;
  std::int64_t lineNumber = 0;
  try {
    while (std::getline(file, words)) {
      checkInterrupt();
      ++lineNumber;
      // Zero bytes after the last line: the program ended without closing the file.
      words.resize(std::min(words.size(), words.find('\0')));
      if (lineNumber == 1) {
        readFirstLine(words, fileName, &reader.summary());
        continue;
      }
      if (file.eof()) {
        reader.summary().endsInsideALine = !words.empty();
        break;
      }
      reader.addLine(Json::parse(words), lineNumber);
    }
  } catch (const Json::exception&) {
    throw Failure(Exit::badData, fmt::format("line {} is not a trace record", lineNumber),
                  fileName);
  }
  if (file.bad()) throw systemFailure(Purpose::input, "cannot read", fileName, errno);
  if (lineNumber == 0) throw Failure(Exit::badData, "is empty", fileName);
  return reader.finish();
}

}  // namespace qzpfile
