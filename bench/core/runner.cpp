#include "runner.h"

#include <algorithm>
#include <memory>
#include <optional>

namespace qzbench {
namespace {

// The host outlives the module, which outlives the files.
struct Loaded {
  explicit Loaded(const std::string& path)
      : module(value(qz::Module::load(host.handle(), &host.defaultJournal(), path))) {}

  qz::StandInHost host;
  qz::Module module;
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

void Runner::hold(const Contest& contest, int rounds) {
  const int most = settings_.rounds;
  outcomes_.push_back(qzbench::hold(contest, rounds == 0 ? most : std::min(rounds, most)));
  report_(outcomes_.back());
}

}  // namespace qzbench
