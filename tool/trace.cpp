// qzpfile trace FILE: sums up what libqziop-trace.so recorded.
#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>

#include "commands.hpp"
#include "json.hpp"
#include "text.hpp"
#include "tracelog.hpp"

namespace qzpfile {
namespace {

std::string readableTime(std::int64_t nanoseconds) {
  const auto value = static_cast<double>(nanoseconds);
  if (nanoseconds < 10'000) return fmt::format("{} ns", nanoseconds);
  if (nanoseconds < 10'000'000) return fmt::format("{:.1f} us", value / 1e3);
  if (nanoseconds < 10'000'000'000) return fmt::format("{:.1f} ms", value / 1e6);
  return fmt::format("{:.1f} s", value / 1e9);
}

std::string readable(const Transfers& transfers) {
  return fmt::format("{:>12} {:>12}", counted(transfers.calls, "call"),
                     readableSize(static_cast<double>(transfers.bytes)));
}

std::string orNoFile(const std::string& name) {
  return name.empty() ? "(no file)" : printable(name);
}

std::string reasonOf(const FailureSum& failure) {
  std::string reason = qz::statusText(failure.status);
  if (failure.errorNumber != 0) reason += fmt::format(": {}", std::strerror(failure.errorNumber));
  return reason;
}

void printOperations(const TraceSummary& summary) {
  fmt::print("\n{:<17} {:>9} {:>7} {:>10} {:>10} {:>10} {:>9}\n", "operation", "count", "failed",
             "total", "own", "longest", "calls");
  for (const auto& [name, sum] : summary.operations) {
    fmt::print("{:<17} {:>9} {:>7} {:>10} {:>10} {:>10} {:>9}\n", printable(name), sum.count,
               sum.failed, readableTime(sum.nanoseconds), readableTime(sum.ownNanoseconds),
               readableTime(sum.longest), sum.systemCalls);
  }
  fmt::print("own: time without nested operations; calls: system calls of the module\n");
}

void printUse(const UseSum& use) {
  const auto line = [](const std::string& what, const Transfers& transfers) {
    fmt::print("    {:<50} {}\n", what, readable(transfers));
  };
  fmt::print("  opened {}: {}\n", counted(use.opens, "time"), use.hints);
  if (use.recorded.calls == 0 && use.replayed.calls == 0) return;
  line("calls that moved pages", use.recorded);
  line("a replay with the same hints", use.replayed);
  for (const Alternative& other : use.alternatives) line(other.hints, other.transfers);
  if (use.inBlocks) {
    fmt::print("    calls saved by blocks: {} (without blocks a replay takes {})\n",
               use.pageByPage.calls - use.recorded.calls, use.pageByPage.calls);
  }
}

void printFile(const FileSum& file) {
  if (file.systemCalls.empty() && file.uses.empty()) return;  // named, but not used
  fmt::print("\n{}\n", printable(file.name));
  if (file.pagesRead > 0) {
    fmt::print("  {} read: {} from memory (hits), {} from the file (misses)\n",
               counted(file.pagesRead, "page"), file.hits, file.pagesRead - file.hits);
  }
  if (file.pagesReadMany > 0) {
    fmt::print("  {} read many at a time\n", counted(file.pagesReadMany, "page"));
  }
  if (file.pagesWritten > 0) {
    fmt::print("  {} written, {} of them without a call\n", counted(file.pagesWritten, "page"),
               file.collected);
  }
  for (const auto& [name, moved] : file.systemCalls) {
    fmt::print("  {:<52} {}\n", printable(name), readable(moved));
  }
  for (const UseSum& use : file.uses) printUse(use);
}

void printText(const TraceSummary& summary, const std::string& name) {
  fmt::print("{}: {} of {} in {}, {}\n", printable(name),
             counted(summary.operationCount, "operation"),
             printable(summary.program.substr(summary.program.rfind('/') + 1)),
             readableTime(summary.nanoseconds), counted(summary.threads, "thread"));
  if (summary.endsInsideALine) fmt::print("the last line is incomplete: the program was killed\n");
  if (summary.linesLost > 0) {
    fmt::print("{} not recorded because memory ran out\n", counted(summary.linesLost, "operation"));
  }
  printOperations(summary);
  for (const FileSum& file : summary.files) printFile(file);
  fmt::print("\nslowest\n");
  for (const SlowOperation& slow : summary.slowest) {
    fmt::print("  {:>10} {} {}{}, {} of it in system calls\n", readableTime(slow.nanoseconds),
               printable(slow.operation), orNoFile(slow.file),
               slow.page ? fmt::format(" page {}", *slow.page) : "",
               readableTime(slow.systemNanoseconds));
  }
  fmt::print("\nfailures{}\n", summary.failures.empty() ? ": none" : "");
  for (const FailureSum& failure : summary.failures) {
    fmt::print("  {} x {} {}: {} (0x{:08X}), first in line {}{}\n", failure.count,
               printable(failure.operation), orNoFile(failure.file), reasonOf(failure),
               failure.status, failure.firstLine,
               failure.firstPage ? fmt::format(", page {}", *failure.firstPage) : "");
  }
}

nlohmann::ordered_json json(const Transfers& transfers) {
  return {{"calls", transfers.calls}, {"bytes", transfers.bytes}};
}

nlohmann::ordered_json json(const UseSum& use) {
  nlohmann::ordered_json entry;
  entry["hints"] = use.hints;
  entry["opens"] = use.opens;
  entry["recorded"] = json(use.recorded);
  entry["replayed"] = json(use.replayed);
  if (use.inBlocks) entry["calls_saved_by_blocks"] = use.pageByPage.calls - use.recorded.calls;
  auto& others = entry["other_hints"] = nlohmann::ordered_json::array();
  for (const Alternative& other : use.alternatives) {
    auto& one = others.emplace_back();
    one["hints"] = other.hints;
    one["replayed"] = json(other.transfers);
  }
  return entry;
}

nlohmann::ordered_json json(const FileSum& file) {
  nlohmann::ordered_json entry;
  entry["file"] = file.name;
  entry["pages_read"] = file.pagesRead;
  entry["hits"] = file.hits;
  entry["misses"] = file.pagesRead - file.hits;
  entry["pages_read_many"] = file.pagesReadMany;
  entry["pages_written"] = file.pagesWritten;
  entry["pages_written_without_a_call"] = file.collected;
  auto& calls = entry["system_calls"] = nlohmann::ordered_json::object();
  for (const auto& [name, moved] : file.systemCalls) calls[name] = json(moved);
  auto& uses = entry["uses"] = nlohmann::ordered_json::array();
  for (const UseSum& use : file.uses) uses.push_back(json(use));
  return entry;
}

void printJson(const TraceSummary& summary, const std::string& name) {
  nlohmann::ordered_json document = jsonDocument("trace", Exit::good);
  document["file"] = name;
  document["program"] = summary.program;
  document["started"] = summary.started;
  document["operations"] = summary.operationCount;
  document["threads"] = summary.threads;
  document["nanoseconds"] = summary.nanoseconds;
  document["complete"] = !summary.endsInsideALine && summary.linesLost == 0;
  auto& operations = document["by_operation"] = nlohmann::ordered_json::object();
  for (const auto& [operation, sum] : summary.operations) {
    operations[operation] = {{"count", sum.count},
                             {"failed", sum.failed},
                             {"nanoseconds", sum.nanoseconds},
                             {"own_nanoseconds", sum.ownNanoseconds},
                             {"longest_nanoseconds", sum.longest},
                             {"system_calls", sum.systemCalls}};
  }
  auto& files = document["files"] = nlohmann::ordered_json::array();
  for (const FileSum& file : summary.files) files.push_back(json(file));
  auto& slowest = document["slowest"] = nlohmann::ordered_json::array();
  for (const SlowOperation& slow : summary.slowest) {
    nlohmann::ordered_json entry;
    entry["operation"] = slow.operation;
    entry["file"] = slow.file;
    if (slow.page) entry["page"] = *slow.page;
    entry["nanoseconds"] = slow.nanoseconds;
    entry["system_call_nanoseconds"] = slow.systemNanoseconds;
    slowest.push_back(std::move(entry));
  }
  auto& failures = document["failures"] = nlohmann::ordered_json::array();
  for (const FailureSum& failure : summary.failures) {
    nlohmann::ordered_json entry;
    entry["operation"] = failure.operation;
    entry["file"] = failure.file;
    entry["status"] = failure.status;
    entry["status_text"] = qz::statusText(failure.status);
    if (failure.errorNumber != 0) entry["errno"] = failure.errorNumber;
    entry["count"] = failure.count;
    entry["first_line"] = failure.firstLine;
    if (failure.firstPage) entry["first_page"] = *failure.firstPage;
    failures.push_back(std::move(entry));
  }
  printJsonDocument(document);
}

}  // namespace

Exit runTrace(const Invocation& call) {
  const TraceSummary summary = readTrace(call.first);
  if (call.json) {
    printJson(summary, call.first);
  } else {
    printText(summary, call.first);
  }
  return Exit::good;
}

}  // namespace qzpfile
