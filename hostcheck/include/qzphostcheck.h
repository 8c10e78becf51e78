// Tries a host toolkit out: everything that the module asks of a host, without the module.
//
//   for (const qz::PromiseReport& promise : qz::checkHost(host)) ...
//
// docs/host-contract.md has the promises, numbered H1, H2, ...
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "qzhost.h"

namespace qz {

enum class Verdict {
  kept,
  broken,
  notTested,  // nothing here can try it, or a promise that it builds on is broken
};

struct PromiseReport {
  int number;        // 12 for H12
  const char* what;  // the promise in short
  Verdict verdict;
  std::string reason;  // of a verdict other than kept: what was found
};

struct HostCheckOptions {
  // The journal to try; null: the host's default journal.
  Journal* journal = nullptr;
  // The texts of that journal's entries so far, UTF-8, oldest first. Without it no promise about
  // entries can be tested.
  std::function<std::vector<std::string>()> entries;
  // Where files can be made, in ASCII; empty: the folder for temporary files. What is made there is
  // removed.
  std::string folder;
  // After so long a host operation counts as one that never returns.
  int secondsPerPromise = 10;
};

// Tries every promise and reports all of them in the order of their numbers. Each is tried in a
// child process (fork) of its own: a host that crashes or never returns breaks that promise and no
// more, and the calling process's host is left as it was. Call it while the process has one thread.
// Throws std::system_error when there is no folder, no pipe or no child process.
std::vector<PromiseReport> checkHost(QZHandle* host, const HostCheckOptions& options = {});

}  // namespace qz
