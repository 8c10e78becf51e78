// Signals. Those that end a program end this one after it has undone unfinished work. SIGUSR1 asks
// for a progress line. SIGXFSZ is ignored, so that a file size limit is an error like a full disk.
// Signals that the parent ignored stay ignored, as nohup(1) requires.
#pragma once

#include <csignal>

namespace qzpfile {

void installSignals();

// Throws Interrupted when a signal asked the program to end.
void checkInterrupt();

// True once after each SIGUSR1.
bool takeProgressRequest();

// Names the file that a second signal removes at once if the first was not handled; null: none.
// folder: a descriptor. `name` must stay valid until the next call.
void setUnfinishedFile(int folder, const char* name);

// Holds signals back until the end of its scope.
class SignalsHeldBack {
 public:
  SignalsHeldBack();
  SignalsHeldBack(const SignalsHeldBack&) = delete;
  SignalsHeldBack& operator=(const SignalsHeldBack&) = delete;
  ~SignalsHeldBack();

 private:
  sigset_t before_ = {};
};

// Ends the program by the signal itself, so that its parent sees the cause.
[[noreturn]] void dieOf(int signal);

}  // namespace qzpfile
