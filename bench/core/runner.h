// What the contests of a run share: settings, folders, the module and the outcomes.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "contest.h"
#include "files.h"
#include "qziop.hpp"

namespace qzbench {

struct Settings {
  std::string diskFolder = "/var/tmp";
  std::string memoryFolder = "/dev/shm";
  std::string module;             // path of the library; empty: beside the program
  std::string tool;               // path of qzpfile
  std::vector<std::string> work;  // names of the work to run; empty: everything
  std::string only;               // only contests with this text in their description
  std::vector<std::int32_t> pageSizes = {4096, 512, 65536};
  std::vector<std::int32_t> bufferCounts = {4, 64, 1024, 65536};
  Effort effort;
  bool busy = false;  // repeat each contest beside a busy loop
  std::int64_t warmBytes = std::int64_t{64} << 20U;
  std::int64_t directBytes = std::int64_t{512} << 20U;
  std::int64_t wholeBytes = std::int64_t{128} << 20U;
};

// A new file handle with caller settings, named and opened.
struct OpenSettings {
  std::string path;
  std::int32_t pageSize;
  std::uint32_t readAccess;
  std::uint32_t writeAccess = qz::noWrite;
  std::uint32_t openMode = qz::openOrKeep;
  std::uint32_t openOptions = 0;
  std::int32_t bufferCount = 4;
  std::int32_t blockBytes = 0;
};
qz::PagedFile openFile(const OpenSettings& settings);

// The loaded module. Throws Failure before Runner has loaded it.
const qz::Module& module();

class Runner {
 public:
  using Report = std::function<void(const Outcome&)>;

  Runner(const Settings& settings, Report report);
  Runner(const Runner&) = delete;
  Runner& operator=(const Runner&) = delete;
  ~Runner();

  const Settings& settings() const { return settings_; }
  Folder& disk() { return disk_; }
  Folder& memory() { return memory_; }

  // Runs a contest, keeps its outcome and reports it, unless the settings exclude it.
  void hold(const Contest& contest);

  const std::vector<Outcome>& outcomes() const { return outcomes_; }
  // The outcomes beside a busy loop, if contests are repeated there.
  const std::vector<Outcome>& busyOutcomes() const { return busyOutcomes_; }

 private:
  Settings settings_;
  Report report_;
  Folder disk_;
  Folder memory_;
  std::vector<Outcome> outcomes_;
  std::vector<Outcome> busyOutcomes_;
};

// Throws Failure if an outcome of the module is not a success.
template <class T>
T&& value(qz::Result<T>&& result) {
  if (!result) throw Failure(result.error().message());
  return std::move(*result);
}
inline void require(const qz::Result<void>& result) {
  if (!result) throw Failure(result.error().message());
}
inline void require(qz::Status status, qz::FileHandle* handle) {
  if (status != qz::Status::ok) throw Failure(qz::errorOf(handle, status).message());
}

}  // namespace qzbench
