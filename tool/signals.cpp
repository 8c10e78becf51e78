#include "signals.hpp"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "failure.hpp"

namespace qzpfile {
namespace {

// Read and written by signal handlers: lock-free, hence safe there.
std::atomic<int> endSignal = 0;
std::atomic<bool> progressRequested = false;
std::atomic<const char*> unfinishedFile = nullptr;
static_assert(std::atomic<int>::is_always_lock_free);
static_assert(std::atomic<const char*>::is_always_lock_free);

void onEnd(int signal) {
  // A second SIGPIPE does not force an exit.
  if (endSignal.exchange(signal) == 0 || signal == SIGPIPE) {
    return;
  }
  if (const char* const path = unfinishedFile.load(); path != nullptr) unlink(path);
  dieOf(signal);
}

void onProgressRequest(int /*signal*/) { progressRequested = true; }

void handle(int signal, void (*handler)(int), int flags) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = flags;
  sigaction(signal, &action, nullptr);
}

}  // namespace

void installSignals() {
  // Without SA_RESTART: a wait for a pipe ends at once.
  handle(SIGINT, onEnd, 0);
  handle(SIGTERM, onEnd, 0);
  handle(SIGHUP, onEnd, 0);
  handle(SIGPIPE, onEnd, 0);
  handle(SIGUSR1, onProgressRequest, SA_RESTART);
  handle(SIGXFSZ, SIG_IGN, 0);
}

void checkInterrupt() {
  if (const int signal = endSignal.load(std::memory_order_relaxed); signal != 0) {
    throw Interrupted{signal};
  }
}

bool takeProgressRequest() {
  return progressRequested.load(std::memory_order_relaxed) && progressRequested.exchange(false);
}

void setUnfinishedFile(const char* path) { unfinishedFile = path; }

void dieOf(int signal) {
  handle(signal, SIG_DFL, 0);
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, signal);
  sigprocmask(SIG_UNBLOCK, &only, nullptr);
  raise(signal);
  _exit(128 + signal);
}

}  // namespace qzpfile
