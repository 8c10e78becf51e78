// qzpbench: compares the module's times with those of the bare calls and of other ways to keep
// pages in a file.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "contests/work.h"
#include "core/report.h"

namespace qzbench {
namespace {

struct Work {
  const char* name;
  void (*run)(Runner&);
};

constexpr Work kWork[] = {
    {"read-pages", readPages},       {"read-blocks", readBlocks},
    {"hit-pages", hitPages},         {"direct-pages", readDirectPages},
    {"threads", readOnThreads},      {"append-pages", appendPages},
    {"append-blocks", appendBlocks}, {"rewrite-pages", rewritePages},
    {"read-many", readMany},         {"open-close", openAndClose},
    {"grow-reads", growReads},       {"grow-appends", growAppends},
    {"grow-tree", growTree},         {"whole-files", wholeFiles},
#ifdef QZPBENCH_HAS_QZVFS
    {"sqlite", sqliteLayers},
#endif
};

void saveText(const std::string& path, const std::string& text) {
  std::ofstream file(path);
  file << text;
  if (!file.flush()) throw Failure(path + ": cannot be written");
}

int run(const Settings& settings, const RunFacts& facts, const std::vector<PathCount>& counts,
        const std::string& output) {
  std::string text = textOf(facts);
  std::fputs(text.c_str(), stdout);
  Runner runner(settings, [&text](const Outcome& outcome) {
    const std::string rows = textOf(outcome);
    std::fputs(rows.c_str(), stdout);
    std::fflush(stdout);
    text += rows;
  });
  for (const Work& work : kWork) {
    const auto& wanted = settings.work;
    if (!wanted.empty() && std::find(wanted.begin(), wanted.end(), work.name) == wanted.end()) {
      continue;
    }
    work.run(runner);
  }
  std::string summary = textOf(counts) + goalSummary(runner.outcomes(), counts);
  if (settings.busy) summary += agreement(runner.outcomes(), runner.busyOutcomes());
  std::fputs(summary.c_str(), stdout);
  if (output.empty()) return 0;
  saveText(output + ".txt", text + summary);
  saveText(output + ".json", jsonOf(facts, runner.outcomes(), counts));
  saveText(output + ".dat", plotDataOf(runner.outcomes()));
  return 0;
}

int runCommand(int argc, char** argv) {
  Settings settings;
  settings.tool = std::filesystem::read_symlink("/proc/self/exe").replace_filename("qzpfile");
  std::vector<std::string> countFiles;
  std::string output;
  CLI::App app("Times qziop beside the bare calls and other ways to keep pages in a file.");
  std::vector<std::string> names;
  for (const Work& work : kWork) names.emplace_back(work.name);
  app.add_option("work", settings.work, "what to run (default: everything)")
      ->check(CLI::IsMember(names));
  app.add_option("--only", settings.only, "run only contests whose description has this text");
  app.add_option("--dir", settings.diskFolder, "folder on the disk for the files")
      ->capture_default_str();
  app.add_option("--memory-dir", settings.memoryFolder, "folder in memory that takes O_DIRECT")
      ->capture_default_str();
  app.add_option("--module", settings.module, "the library (default: the one beside this program)");
  app.add_option("--tool", settings.tool, "qzpfile")->capture_default_str();
  app.add_option("--page-sizes", settings.pageSizes, "bytes")
      ->delimiter(',')
      ->capture_default_str();
  app.add_option("--buffers", settings.bufferCounts, "buffer counts of the growth rows, rising")
      ->delimiter(',')
      ->capture_default_str();
  double leastSeconds = settings.effort.leastNs / 1e9;
  double mostSeconds = settings.effort.mostNs / 1e9;
  app.add_option("--least", leastSeconds, "least seconds of each contestant")
      ->capture_default_str();
  app.add_option("--most", mostSeconds, "most seconds of a contest whose goals stay open")
      ->capture_default_str();
  app.add_flag("--busy", settings.busy,
               "repeat each contest beside a busy loop and compare the verdicts");
  app.add_option("--warm-bytes", settings.warmBytes, "size of files in the page cache")
      ->transform(CLI::AsSizeValue(false))
      ->capture_default_str();
  app.add_option("--direct-bytes", settings.directBytes, "size of files read from the disk")
      ->transform(CLI::AsSizeValue(false))
      ->capture_default_str();
  app.add_option("--whole-bytes", settings.wholeBytes, "size of files that programs work on")
      ->transform(CLI::AsSizeValue(false))
      ->capture_default_str();
  app.add_option("--counts", countFiles,
                 "instruction counts of this machine and of i386, then their times")
      ->expected(2, 4);
  app.add_option("--output", output, "also write OUTPUT.txt, OUTPUT.json and, to plot, OUTPUT.dat");
  CLI11_PARSE(app, argc, argv);
  settings.effort = {.leastNs = leastSeconds * 1e9, .mostNs = mostSeconds * 1e9};
  return run(settings, runFacts(argc, argv), readCounts(countFiles), output);
}

}  // namespace
}  // namespace qzbench

int main(int argc, char** argv) {
  try {
    return qzbench::runCommand(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "qzpbench: %s\n", error.what());
    return 1;
  }
}
