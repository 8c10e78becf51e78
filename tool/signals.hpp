// Signals: those that end a program end it after the work in hand has been undone; SIGUSR1 asks for
// a line about progress; SIGXFSZ is ignored, so that a file size limit is an error like a full
// disk. What the caller of the program had ignored stays ignored, as nohup(1) wants it.
#pragma once

#include <csignal>

namespace qzpfile {

void installSignals();

// Throws Interrupted when a signal asked the program to end.
void checkInterrupt();

// True once after each SIGUSR1.
bool takeProgressRequest();

// Names the file that a second signal removes on the spot, when the first is not answered; null:
// none. folder: a descriptor. The text must stay where it is until the next call.
void setUnfinishedFile(int folder, const char* name);

// Signals wait until the end of its scope.
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
