#include "runner.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <memory>

namespace qzbench {
namespace {

// The host outlives the module, which outlives the files.
struct Loaded {
  explicit Loaded(const std::string& path)
      : module(value(qz::Module::load(host.handle(), &host.defaultJournal(), path))) {}

  qz::StandInHost host;
  qz::Module module;
};

// A process that keeps one processor busy.
class BusyLoop {
 public:
  BusyLoop() : child_(fork()) {
    if (child_ == -1) failWithErrno("fork");
    if (child_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (volatile unsigned turns = 0;;) turns = turns + 1;
  }
  BusyLoop(const BusyLoop&) = delete;
  BusyLoop& operator=(const BusyLoop&) = delete;
  ~BusyLoop() {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
  }

 private:
  pid_t child_;
};

std::unique_ptr<Loaded>& loaded() {
  static std::unique_ptr<Loaded> instance;
  return instance;
}

}  // namespace

const qz::Module& module() {
  if (!loaded()) throw Failure("the module is not loaded");
  return loaded()->module;
}

qz::PagedFile openFile(const OpenSettings& settings) {
  qz::PagedFile file = value(module().newFile());
  qz::FileHandle& handle = file.settings();
  handle.pageSize = settings.pageSize;
  handle.readAccess = settings.readAccess;
  handle.writeAccess = settings.writeAccess;
  handle.openMode = settings.openMode;
  handle.openOptions = settings.openOptions;
  handle.bufferCount = settings.bufferCount;
  handle.requestedBlockBytes = settings.blockBytes;
  require(file.setName(settings.path));
  require(file.open());
  return file;
}

Runner::Runner(const Settings& settings, Report report)
    : settings_(settings),
      report_(std::move(report)),
      disk_(settings.diskFolder),
      memory_(settings.memoryFolder) {
  loaded() = std::make_unique<Loaded>(settings.module);
}

Runner::~Runner() { loaded().reset(); }

void Runner::hold(const Contest& contest) {
  const std::string description = contest.work + "; " + contest.variant;
  if (description.find(settings_.only) == std::string::npos) return;
  outcomes_.push_back(qzbench::hold(contest, settings_.effort));
  report_(outcomes_.back());
  if (!settings_.busy) return;
  const BusyLoop loop;
  busyOutcomes_.push_back(qzbench::hold(contest, settings_.effort));
  busyOutcomes_.back().variant += ", beside a busy loop";
  report_(busyOutcomes_.back());
}

}  // namespace qzbench
