#include "report.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/utsname.h>

#include <ctime>
#include <fstream>
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

std::string spreadText(const Spread& spread) {
  return fmt::format("{:.3f} ({:.3f} to {:.3f})", spread.median, spread.low, spread.high);
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

nlohmann::json jsonOf(const Spread& spread) {
  return {{"median", spread.median}, {"low", spread.low}, {"high", spread.high}};
}

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
  return fmt::format("{}\n{}\n{}\n{}\n", facts.date, facts.machine, facts.system, facts.command);
}

std::string textOf(const Outcome& outcome) {
  std::string text = fmt::format("\n{}; {} ({} rounds of {:.0f})\n", outcome.work, outcome.variant,
                                 outcome.rounds, outcome.operations);
  text += fmt::format("  {:<40} {:>12}  {:<28}{:<28}{:>6} {:>6}\n", "", "ns", "time, of the floor",
                      "processor time", "reads", "writes");
  for (const Standing& s : outcome.standings) {
    text +=
        fmt::format("  {:<40} {:>12.1f}  {:<28}{:<28}{:>6.3g} {:>6.3g}\n", s.name, s.wallNs.median,
                    spreadText(s.wallRatio), spreadText(s.cpuRatio), s.readCalls, s.writeCalls);
  }
  for (const GoalOutcome& g : outcome.goals) {
    text += fmt::format("  {:<6} {}: {}\n", g.isMet() ? "met" : "MISSED", goalText(g.goal),
                        spreadText(g.value));
  }
  if (outcome.isNoisy()) {
    text += fmt::format("  noisy: the floor took {:.3f} of itself\n", outcome.noise().median);
  }
  return text;
}

std::string goalSummary(const std::vector<Outcome>& outcomes) {
  int met = 0;
  std::string missed;
  for (const Outcome& outcome : outcomes) {
    for (const GoalOutcome& g : outcome.goals) {
      if (g.isMet()) {
        ++met;
      } else {
        missed += fmt::format("  missed: {}; {}: {}: {}\n", outcome.work, outcome.variant,
                              goalText(g.goal), spreadText(g.value));
      }
    }
  }
  return fmt::format("\n{} goals met\n{}", met, missed);
}

std::string jsonOf(const RunFacts& facts, const std::vector<Outcome>& outcomes) {
  nlohmann::json root = {{"date", facts.date},
                         {"command", facts.command},
                         {"machine", facts.machine},
                         {"system", facts.system},
                         {"contests", nlohmann::json::array()}};
  for (const Outcome& outcome : outcomes) {
    nlohmann::json contest = {{"work", outcome.work},
                              {"variant", outcome.variant},
                              {"rounds", outcome.rounds},
                              {"operations", outcome.operations},
                              {"noisy", outcome.isNoisy()}};
    for (const Standing& s : outcome.standings) {
      contest["participants"].push_back({{"name", s.name},
                                         {"ns", jsonOf(s.wallNs)},
                                         {"ratio", jsonOf(s.wallRatio)},
                                         {"cpuRatio", jsonOf(s.cpuRatio)},
                                         {"readCalls", s.readCalls},
                                         {"writeCalls", s.writeCalls}});
    }
    for (const GoalOutcome& g : outcome.goals) {
      contest["goals"].push_back(
          {{"goal", goalText(g.goal)}, {"value", jsonOf(g.value)}, {"met", g.isMet()}});
    }
    root["contests"].push_back(std::move(contest));
  }
  return root.dump(2) + "\n";
}

}  // namespace qzbench
