// Tests a host toolkit: everything that the module requires of a host, without the module.
//
//   for (const qz::PromiseReport& promise : qz::checkHost(host)) ...
//
// docs/host-contract.md lists the promises, numbered H1, H2, ...
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "qzhost.h"

namespace qz {

enum class Verdict {
  kept,
  broken,
  notTested,  // nothing here can test it, or another promise that it needs is broken
};

struct PromiseReport {
  int number;        // 12 for H12
  const char* what;  // the promise in short
  Verdict verdict;
  std::string reason;  // why the verdict is not "kept": what was found
};

struct HostCheckOptions {
  // The journal to test; null: the host's default journal.
  Journal* journal = nullptr;
  // Returns the texts of that journal's entries so far, UTF-8, oldest first. Without this function,
  // promises about entries cannot be tested.
  std::function<std::vector<std::string>()> entries;
  // A folder in which files can be created, in ASCII; empty: the folder for temporary files.
  // Everything created there is removed.
  std::string folder;
  // A host operation that takes longer counts as never returning.
  int secondsPerPromise = 10;
};

// Tests every promise and reports all of them in the order of their numbers. Each is tested in its
// own child process (fork): a host that crashes or never returns breaks only that promise, and the
// calling process's host is not changed. Call this while the process has one thread. Throws
// std::system_error if no folder, pipe or child process can be created.
std::vector<PromiseReport> checkHost(QZHandle* host, const HostCheckOptions& options = {});

}  // namespace qz
