// A progress line on standard error for long work. Each call costs an addition and two tests; the
// clock is read once per MiB.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace qzpfile {

enum class ProgressChoice { automatic, always, never };

class Progress {
 public:
  // total: bytes of the whole work, if known. `automatic` shows the line only on a terminal, and
  // only for work that takes longer than half a second.
  Progress(ProgressChoice choice, std::string label, std::optional<std::int64_t> total);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress() { end(); }

  // Erases the line, or writes the last one, before other output goes to the terminal.
  void end();

  // Adds to the work done and handles signals: SIGUSR1 prints a line, others throw Interrupted.
  void advance(std::int64_t bytes);
  // Handles signals while the program waits.
  void answerSignals();

 private:
  using Clock = std::chrono::steady_clock;

  void look();
  void show(bool ended);
  std::string line(Clock::time_point now) const;

  std::string label_;
  std::optional<std::int64_t> total_;
  bool shown_;       // at all
  bool onTerminal_;  // one line, rewritten in place
  bool always_;
  bool lineOpen_ = false;
  std::int64_t done_ = 0;
  std::int64_t nextLook_;
  Clock::time_point start_;
  Clock::time_point nextShow_;
};

}  // namespace qzpfile
