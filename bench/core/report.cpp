#include "report.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/utsname.h>

#include <cmath>
#include <ctime>
#include <fstream>
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

// Nobody counted the calls of another program.
std::string callsText(double calls) {
  return std::isnan(calls) ? "-" : fmt::format("{:.3g}", calls);
}

std::map<std::string, double> readLines(const std::string& path) {
  std::ifstream file(path);
  std::map<std::string, double> counts;
  std::string name;
  for (double count = 0; file >> name >> count;) counts[name] = count;
  if (!file.eof() || counts.empty()) throw Failure(path + ": has no counts");
  return counts;
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
    text += fmt::format("  {:<40} {:>12.1f}  {:<28}{:<28}{:>6} {:>6}\n", s.name, s.wallNs.median,
                        spreadText(s.wallRatio), spreadText(s.cpuRatio), callsText(s.readCalls),
                        callsText(s.writeCalls));
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

std::vector<PathCount> readCounts(const std::string& nativeFile, const std::string& i386File) {
  const std::map<std::string, double> native = readLines(nativeFile);
  const std::map<std::string, double> i386 = readLines(i386File);
  std::vector<PathCount> counts;
  for (const auto& [path, instructions] : native) {
    const auto other = i386.find(path);
    if (other == i386.end()) throw Failure(fmt::format("{}: has no {}", i386File, path));
    if (instructions > 0) counts.push_back({path, instructions, other->second});
  }
  return counts;
}

std::string textOf(const std::vector<PathCount>& counts) {
  if (counts.empty()) return "";
  std::string text = fmt::format("\ninstructions outside the kernel\n  {:<24}{:>8}{:>8}{:>8}\n", "",
                                 "native", "i386", "ratio");
  for (const PathCount& count : counts) {
    text += fmt::format("  {:<24}{:>8.0f}{:>8.0f}{:>8.2f}  {}\n", count.path, count.native,
                        count.i386, count.ratio(), count.isMet() ? "met" : "MISSED");
  }
  return text;
}

std::string goalSummary(const std::vector<Outcome>& outcomes,
                        const std::vector<PathCount>& counts) {
  int met = 0;
  std::string missed;
  const auto judge = [&](bool isMet, const std::string& text) {
    met += isMet ? 1 : 0;
    if (!isMet) missed += fmt::format("  missed: {}\n", text);
  };
  for (const Outcome& outcome : outcomes) {
    for (const GoalOutcome& g : outcome.goals) {
      judge(g.isMet(), fmt::format("{}; {}: {}: {}", outcome.work, outcome.variant,
                                   goalText(g.goal), spreadText(g.value)));
    }
  }
  for (const PathCount& count : counts) {
    judge(count.isMet(), fmt::format("{}: i386 <= {:.1f} of native, instructions: {:.2f}",
                                     count.path, PathCount::kLimit, count.ratio()));
  }
  return fmt::format("\n{} goals met\n{}", met, missed);
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
  for (const PathCount& count : counts) {
    root["instructions"].push_back({{"path", count.path},
                                    {"native", count.native},
                                    {"i386", count.i386},
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
                           s.wallRatio.median, s.wallRatio.low, s.wallRatio.high);
    }
  }
  return lines;
}

}  // namespace qzbench
