// Signals: SIGINT, SIGTERM, SIGHUP and SIGPIPE end the program after the work in hand has been
// undone; SIGUSR1 asks for a line about progress; SIGXFSZ is ignored, so that a file size limit is
// an error like a full disk.
#pragma once

namespace qzpfile {

void installSignals();

// Throws Interrupted when a signal asked the program to end.
void checkInterrupt();

// True once after each SIGUSR1.
bool takeProgressRequest();

// Names the file that a second SIGINT removes on the spot, when the first is not answered; null:
// none. The text must stay where it is until the next call.
void setUnfinishedFile(const char* path);

// Ends the program by the signal itself, so that its parent sees the cause.
[[noreturn]] void dieOf(int signal);

}  // namespace qzpfile
