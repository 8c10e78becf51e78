#include "signals.hpp"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

#include "failure.hpp"

namespace qzpfile {
namespace {

// Signals that end a program by default and are not the program's own fault.
constexpr int kEndSignals[] = {SIGHUP,  SIGINT,  SIGQUIT, SIGPIPE,   SIGALRM,
                               SIGTERM, SIGUSR2, SIGXCPU, SIGVTALRM, SIGPROF};

// Signal handlers read and write these; lock-free atomics are safe there.
std::atomic<int> endSignal = 0;
std::atomic<bool> progressRequested = false;
std::atomic<int> unfinishedFolder = -1;
std::atomic<const char*> unfinishedName = nullptr;
static_assert(std::atomic<int>::is_always_lock_free);
static_assert(std::atomic<const char*>::is_always_lock_free);

void onEnd(int signal) {
  // A message to a closed pipe raises SIGPIPE again; that must not force an exit.
  if (endSignal.exchange(signal) == 0 || signal == SIGPIPE) {
    return;
  }
  if (const char* const name = unfinishedName.load(); name != nullptr) {
    unlinkat(unfinishedFolder, name, 0);
  }
  dieOf(signal);
}

void onProgressRequest(int /*signal*/) { progressRequested = true; }

void handle(int signal, void (*handler)(int), int flags) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = flags;
  sigaction(signal, &action, nullptr);
}

bool isIgnored(int signal) {
  struct sigaction action = {};
  sigaction(signal, nullptr, &action);
  return action.sa_handler == SIG_IGN;
}

}  // namespace

void installSignals() {
  for (const int signal : kEndSignals) {
    // Without SA_RESTART, so that a wait for a pipe ends at once.
    if (!isIgnored(signal)) handle(signal, onEnd, 0);
  }
  if (!isIgnored(SIGUSR1)) handle(SIGUSR1, onProgressRequest, SA_RESTART);
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

void setUnfinishedFile(int folder, const char* name) {
  if (name != nullptr) unfinishedFolder = folder;
  unfinishedName = name;
}

SignalsHeldBack::SignalsHeldBack() {
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, &before_);
}

SignalsHeldBack::~SignalsHeldBack() { sigprocmask(SIG_SETMASK, &before_, nullptr); }

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
