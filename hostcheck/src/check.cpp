// Runs the checks, each in a child process, and collects their outcomes.
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "checks.h"

namespace qz {
namespace hostcheck {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// A temporary folder, removed with its contents.
class Folder {
 public:
  explicit Folder(const std::string& parent) {
    path_ = (parent.empty() ? fs::temp_directory_path() : fs::path(parent)) / "qzphostcheck-XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) fail("a folder for the check of the host");
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// The child's answer: a letter for the verdict, then the reason.
std::string tell(const Check& check, const Trial& trial) {
  try {
    check.run(trial);
    return "k";
  } catch (const Broken& broken) {
    return "b" + broken.found;
  } catch (const Untested& untested) {
    return "n" + untested.why;
  } catch (const std::bad_alloc&) {
    return "nmemory ran out in the check";
  } catch (...) {
    return "xan operation of the host threw an exception";
  }
}

// Reads the child's answer; gives up after `seconds`.
std::string listen(int fd, int seconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  std::string said;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    pollfd wait = {fd, POLLIN, 0};
    const int ready = poll(&wait, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
    if (ready == -1 && errno == EINTR) continue;
    if (ready == 0) return "t";
    char part[1024];
    const ssize_t got = read(fd, part, sizeof part);
    if (got == -1 && errno == EINTR) continue;
    if (got <= 0) return said;
    said.append(part, static_cast<std::size_t>(got));
  }
}

std::string runInChild(const Check& check, QZHandle* host, const HostCheckOptions& options) {
  const Folder folder(options.folder);
  int ends[2];
  if (pipe(ends) != 0) fail("a pipe for the check of the host");
  const pid_t child = fork();
  if (child == -1) fail("a child process for the check of the host");
  if (child == 0) {
    close(ends[0]);
    Journal* const journal = options.journal != nullptr ? options.journal : host->defaultJournal;
    const std::string said =
        journal == nullptr
            ? "nthe host has no default journal, and none was given"
            : tell(check,
                   {.host = host, .journal = journal, .options = options, .folder = folder.path()});
    const bool written = write(ends[1], said.data(), said.size()) == ssize_t(said.size());
    _exit(written ? 0 : 1);
  }
  close(ends[1]);
  std::string said = listen(ends[0], options.secondsPerPromise);
  close(ends[0]);
  if (said == "t") kill(child, SIGKILL);
  int status = 0;
  while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
  }
  if (said == "t") {
    return "bthe host did not return within " + std::to_string(options.secondsPerPromise) +
           " seconds";
  }
  if (WIFSIGNALED(status)) {
    return std::string("bthe process died in the host: ") + strsignal(WTERMSIG(status));
  }
  return said.empty() ? "bthe process ended in the host" : said;
}

std::vector<Check> allChecks() {
  std::vector<Check> all;
  for (const auto& part :
       {recordChecks(), poolChecks(), journalChecks(), treeChecks(), textChecks(), fileChecks()}) {
    all.insert(all.end(), part.begin(), part.end());
  }
  std::ranges::sort(all, {}, &Check::number);
  return all;
}

}  // namespace

std::string hex(std::uint64_t value) {
  char digits[32];
  std::snprintf(digits, sizeof digits, "0x%llX", static_cast<unsigned long long>(value));
  return digits;
}

std::u32string wide(std::string_view ascii) { return {ascii.begin(), ascii.end()}; }

std::string narrow(std::u32string_view text) {
  std::string result;
  for (const char32_t c : text) result += c < 0x80 ? static_cast<char>(c) : '?';
  return result;
}

MemoryPool* makePool(const Trial& trial, const PoolAttributes& attributes) {
  const char* name = attributes.words[0] == 0 ? "qziop pool" : "qziop buffer pool";
  MemoryPool* pool = trial.host->poolCreate(trial.host, &attributes, trial.journal, name);
  needed(pool != nullptr, "the host made no pool");
  return pool;
}

}  // namespace hostcheck

std::vector<PromiseReport> checkHost(QZHandle* host, const HostCheckOptions& options) {
  constexpr int kThrowsNothing = 2;
  std::vector<PromiseReport> reports;
  std::string thrown;
  for (const hostcheck::Check& check : hostcheck::allChecks()) {
    const std::string said = hostcheck::runInChild(check, host, options);
    const char verdict = said.front();
    std::string reason = said.substr(1);
    if (verdict == 'x') thrown += " H" + std::to_string(check.number);
    reports.push_back({check.number, check.what,
                       verdict == 'k'   ? Verdict::kept
                       : verdict == 'b' ? Verdict::broken
                                        : Verdict::notTested,
                       std::move(reason)});
  }
  if (!thrown.empty()) {
    for (PromiseReport& report : reports) {
      if (report.number != kThrowsNothing) continue;
      report.verdict = Verdict::broken;
      report.reason = "an operation threw an exception in the check of" + thrown;
    }
  }
  return reports;
}

}  // namespace qz
