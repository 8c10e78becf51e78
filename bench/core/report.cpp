#include "report.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <fstream>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>

namespace qzbench {
namespace {

std::string valueInFile(const char* path, const std::string& key) {
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    if (line.rfind(key, 0) != 0) continue;
    const std::size_t at = line.find_first_not_of(" \t:=\"", key.size());
    const std::size_t end = line.find_last_not_of('"');
    return at == std::string::npos ? "" : line.substr(at, end + 1 - at);
  }
  return "";
}

std::string intervalText(const Interval& interval) {
  return fmt::format("{:.3f} ({:.3f} to {:.3f})", interval.value, interval.low, interval.high);
}

std::string goalText(const Goal& goal) {
  switch (goal.quantity) {
    case Quantity::wall:
      return fmt::format("{} <= {:.2f} of {}", goal.who, goal.limit, goal.against);
    case Quantity::cpu:
      return fmt::format("{} <= {:.2f} of {}, processor time", goal.who, goal.limit, goal.against);
    case Quantity::wallNs:
      return fmt::format("{} <= {:.0f} ns", goal.who, goal.limit);
    case Quantity::readCalls:
      break;
  }
  return fmt::format("{} <= {:.0f} reading calls an operation", goal.who, goal.limit);
}

std::string countText(double count) {
  return std::isnan(count) ? "-" : fmt::format("{:.3g}", count);
}

std::map<std::string, double> readLines(const std::string& path) {
  std::ifstream file(path);
  std::map<std::string, double> counts;
  std::string name;
  for (double count = 0; file >> name >> count;) counts[name] = count;
  if (!file.eof() || counts.empty()) throw Failure(path + ": has no counts");
  return counts;
}

nlohmann::json jsonOf(const Interval& interval) {
  return {{"value", interval.value}, {"low", interval.low}, {"high", interval.high}};
}

// All goals of the contests, in order.
std::vector<std::pair<const Outcome*, const GoalOutcome*>> goalsOf(
    const std::vector<Outcome>& outcomes) {
  std::vector<std::pair<const Outcome*, const GoalOutcome*>> goals;
  for (const Outcome& outcome : outcomes) {
    for (const GoalOutcome& goal : outcome.goals) goals.emplace_back(&outcome, &goal);
  }
  return goals;
}

bool isFinal(Verdict verdict) { return verdict == Verdict::met || verdict == Verdict::missed; }

}  // namespace

RunFacts runFacts(int argc, const char* const* argv) {
  RunFacts facts;
  for (int i = 0; i < argc; ++i) facts.command += fmt::format("{}{}", i == 0 ? "" : " ", argv[i]);
  const std::time_t now = std::time(nullptr);
  facts.date = fmt::format("{:%Y-%m-%d %H:%M} UTC", fmt::gmtime(now));
  facts.machine = fmt::format("{}, {} MiB", valueInFile("/proc/cpuinfo", "model name"),
                              std::stoll(valueInFile("/proc/meminfo", "MemTotal")) / 1024);
  utsname system = {};
  uname(&system);
  facts.system = fmt::format("{} {}, {}", system.sysname, system.release,
                             valueInFile("/etc/os-release", "PRETTY_NAME"));
  return facts;
}

std::string textOf(const RunFacts& facts) {
  return fmt::format(
      "{}\n{}\n{}\n{}\n"
      "ns: the mean of all turns of a contestant. Some leave early, and the machine's speed "
      "changes,\n"
      "so ratios are those of paired turns, not of this column.\n",
      facts.date, facts.machine, facts.system, facts.command);
}

std::string textOf(const Outcome& outcome) {
  std::string text = fmt::format("\n{}; {} ({} rounds of {})\n", outcome.work, outcome.variant,
                                 outcome.rounds, outcome.whole ? "whole runs" : "slices");
  text += fmt::format("  {:<40} {:>12}  {:<27}{:<27}{:>6}{:>8}{:>8}{:>7}\n", "", "ns",
                      "time, of the floor", "processor time", "instr.", "reads", "writes", "turns");
  for (const Standing& s : outcome.standings) {
    text += fmt::format("  {:<40} {:>12.1f}  {:<27}{:<27}{:>6}{:>8}{:>8}{:>7}\n", s.name,
                        s.wallNs.value, intervalText(s.wallRatio), intervalText(s.cpuRatio),
                        countText(s.instructions), countText(s.readCalls), countText(s.writeCalls),
                        s.turns);
  }
  for (const GoalOutcome& g : outcome.goals) {
    text += fmt::format("  {:<11} {}: {}\n", nameOf(g.verdict), goalText(g.goal),
                        intervalText(g.value));
  }
  if (outcome.isVoid()) {
    text += fmt::format("  void: the floor took {:.3f} of itself\n", outcome.control().value);
  }
  return text;
}

std::vector<PathCount> readCounts(const std::vector<std::string>& files) {
  if (files.empty()) return {};
  std::vector<std::map<std::string, double>> columns(files.size());
  std::transform(files.begin(), files.end(), columns.begin(), readLines);
  const auto cell = [&](std::size_t column, const std::string& path) {
    if (column >= columns.size()) return std::numeric_limits<double>::quiet_NaN();
    const auto found = columns[column].find(path);
    if (found == columns[column].end()) {
      throw Failure(fmt::format("{}: has no {}", files[column], path));
    }
    return found->second;
  };
  std::vector<PathCount> counts;
  for (const auto& [path, instructions] : columns[0]) {
    if (instructions > 0) {
      counts.push_back({path, instructions, cell(1, path), cell(2, path), cell(3, path)});
    }
  }
  return counts;
}

std::string textOf(const std::vector<PathCount>& counts) {
  if (counts.empty()) return "";
  std::string text = fmt::format(
      "\ninstructions outside the kernel, and time with the kernel's part\n"
      "  {:<24}{:>8}{:>8}{:>8}{:>12}{:>10}\n",
      "", "native", "i386", "ratio", "native ns", "i386 ns");
  for (const PathCount& count : counts) {
    text += fmt::format("  {:<24}{:>8.0f}{:>8.0f}{:>8.2f}{:>12}{:>10}  {}\n", count.path,
                        count.native, count.i386, count.ratio(), countText(count.nativeNs),
                        countText(count.i386Ns), count.isMet() ? "met" : "MISSED");
  }
  return text;
}

std::string goalSummary(const std::vector<Outcome>& outcomes,
                        const std::vector<PathCount>& counts) {
  std::map<Verdict, std::vector<std::string>> goals;
  for (const auto& [outcome, goal] : goalsOf(outcomes)) {
    goals[goal->verdict].push_back(fmt::format("{}; {}: {}: {}", outcome->work, outcome->variant,
                                               goalText(goal->goal), intervalText(goal->value)));
  }
  for (const PathCount& count : counts) {
    goals[count.isMet() ? Verdict::met : Verdict::missed].push_back(
        fmt::format("{}: i386 <= {:.1f} of native, instructions: {:.2f}", count.path,
                    PathCount::kLimit, count.ratio()));
  }
  std::string text = fmt::format("\n{} goals met\n", goals[Verdict::met].size());
  for (const Verdict verdict : {Verdict::missed, Verdict::undecided, Verdict::voided}) {
    for (const std::string& goal : goals[verdict]) {
      text += fmt::format("  {}: {}\n", nameOf(verdict), goal);
    }
  }
  return text;
}

std::string agreement(const std::vector<Outcome>& quiet, const std::vector<Outcome>& busy) {
  const auto goals = goalsOf(quiet);
  const auto again = goalsOf(busy);
  std::map<std::string, int> kinds = {{"agree", 0}, {"open in one of the two", 0}};
  std::string text;
  for (std::size_t i = 0; i < goals.size(); ++i) {
    const auto& [outcome, goal] = goals[i];
    const Verdict other = again[i].second->verdict;
    const bool same = goal->verdict == other;
    const bool contradict = !same && isFinal(goal->verdict) && isFinal(other);
    ++kinds[same ? "agree" : contradict ? "CONTRADICT" : "open in one of the two"];
    if (same) continue;
    text += fmt::format("  {}, beside a busy loop {}: {}; {}: {}: {}, beside a busy loop {}\n",
                        nameOf(goal->verdict), nameOf(other), outcome->work, outcome->variant,
                        goalText(goal->goal), intervalText(goal->value),
                        intervalText(again[i].second->value));
  }
  std::string heading = "\nverdicts without and with a busy loop:";
  for (const auto& [kind, count] : kinds) heading += fmt::format(" {} {},", count, kind);
  heading.back() = '\n';
  return heading + text;
}

std::string jsonOf(const RunFacts& facts, const std::vector<Outcome>& outcomes,
                   const std::vector<PathCount>& counts) {
  nlohmann::json root = {{"date", facts.date},
                         {"command", facts.command},
                         {"machine", facts.machine},
                         {"system", facts.system},
                         {"contests", nlohmann::json::array()}};
  for (const Outcome& outcome : outcomes) {
    nlohmann::json contest = {{"work", outcome.work},
                              {"variant", outcome.variant},
                              {"rounds", outcome.rounds},
                              {"whole", outcome.whole},
                              {"void", outcome.isVoid()}};
    for (const Standing& s : outcome.standings) {
      contest["participants"].push_back({{"name", s.name},
                                         {"ns", jsonOf(s.wallNs)},
                                         {"ratio", jsonOf(s.wallRatio)},
                                         {"cpuRatio", jsonOf(s.cpuRatio)},
                                         {"turns", s.turns},
                                         {"instructions", s.instructions},
                                         {"readCalls", s.readCalls},
                                         {"writeCalls", s.writeCalls}});
    }
    for (const GoalOutcome& g : outcome.goals) {
      contest["goals"].push_back(
          {{"goal", goalText(g.goal)}, {"value", jsonOf(g.value)}, {"verdict", nameOf(g.verdict)}});
    }
    root["contests"].push_back(std::move(contest));
  }
  for (const PathCount& count : counts) {
    root["instructions"].push_back({{"path", count.path},
                                    {"native", count.native},
                                    {"i386", count.i386},
                                    {"nativeNs", count.nativeNs},
                                    {"i386Ns", count.i386Ns},
                                    {"met", count.isMet()}});
  }
  return root.dump(2) + "\n";
}

std::string plotDataOf(const std::vector<Outcome>& outcomes) {
  std::string lines;
  int row = 0;
  for (const Outcome& outcome : outcomes) {
    if (outcome.plotLabel.empty()) continue;
    ++row;
    for (std::size_t i = 1; i + 1 < outcome.standings.size(); ++i) {
      const Standing& s = outcome.standings[i];
      lines += fmt::format("{}\t{}\t{}\t{:.4f}\t{:.4f}\t{:.4f}\n", row, outcome.plotLabel, s.name,
                           s.wallRatio.value, s.wallRatio.low, s.wallRatio.high);
    }
  }
  return lines;
}

}  // namespace qzbench
