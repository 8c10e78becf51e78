// A line on standard error about long work. It costs an addition and two tests per call; the
// clock is looked at once per MiB.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace qzpfile {

enum class ProgressChoice { automatic, always, never };

class Progress {
 public:
  // total: bytes of the whole work, when known. `automatic` shows the line on a terminal only,
  // and only for work that takes longer than half a second.
  Progress(ProgressChoice choice, std::string label, std::optional<std::int64_t> total);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress() { end(); }

  // Takes the line away, or writes the last one, before something else is written to the terminal.
  void end();

  // Adds to the work done and answers signals: SIGUSR1 with a line; throws Interrupted.
  void advance(std::int64_t bytes);
  // Answers signals while the program waits and no work is done.
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
