#include "progress.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

#include "signals.hpp"
#include "sizes.hpp"
#include "terminal.hpp"

namespace qzpfile {
namespace {

using namespace std::chrono_literals;

constexpr std::int64_t kLookEvery = 1 << 20;  // bytes
constexpr auto kFirstShow = 500ms;
constexpr auto kShowEvery = 200ms;
constexpr auto kLineEvery = 1s;  // if each update is a line of its own

std::string minutesAndSeconds(double seconds) {
  const auto whole = std::llround(std::min(seconds, 1e9));
  return whole < 3600 ? fmt::format("{}:{:02}", whole / 60, whole % 60)
                      : fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
}

void toStandardError(const std::string& text) { std::fputs(text.c_str(), stderr); }

}  // namespace

Progress::Progress(ProgressChoice choice, std::string label, std::optional<std::int64_t> total)
    : label_(std::move(label)),
      total_(total),
      shown_(choice == ProgressChoice::always ||
             (choice == ProgressChoice::automatic && isTerminal(STDERR_FILENO))),
      onTerminal_(isTerminal(STDERR_FILENO)),
      always_(choice == ProgressChoice::always),
      nextLook_(kLookEvery),
      start_(Clock::now()),
      nextShow_(start_ + kFirstShow) {}

void Progress::end() {
  if (!std::exchange(shown_, false)) return;
  if (always_) {
    show(true);
  } else if (lineOpen_) {
    toStandardError("\r" + std::string(terminalWidth(STDERR_FILENO) - 1, ' ') + "\r");
    lineOpen_ = false;
  }
}

void Progress::advance(std::int64_t bytes) {
  done_ += bytes;
  answerSignals();
  if (done_ >= nextLook_) look();
}

void Progress::answerSignals() {
  checkInterrupt();
  if (takeProgressRequest()) {
    toStandardError((lineOpen_ ? "\r" : "") + line(Clock::now()) + "\n");
    lineOpen_ = false;
  }
}

void Progress::look() {
  nextLook_ = done_ + kLookEvery;
  if (shown_ && Clock::now() >= nextShow_) show(false);
}

void Progress::show(bool ended) {
  const Clock::time_point now = Clock::now();
  std::string text = line(now);
  if (onTerminal_) {
    // One column stays free: a full line would wrap.
    const std::size_t width = std::max<std::size_t>(terminalWidth(STDERR_FILENO), 2) - 1;
    text.resize(width, ' ');
    text.insert(text.begin(), '\r');
  }
  if (ended || !onTerminal_) text += '\n';
  toStandardError(text);
  lineOpen_ = onTerminal_ && !ended;
  nextShow_ = now + (onTerminal_ ? kShowEvery : kLineEvery);
}

std::string Progress::line(Clock::time_point now) const {
  const double seconds = std::chrono::duration<double>(now - start_).count();
  const double rate = seconds > 0 ? static_cast<double>(done_) / seconds : 0;
  std::string text = label_ + "  " + readableSize(static_cast<double>(done_));
  if (total_ && *total_ > 0) {
    const double share = static_cast<double>(done_) / static_cast<double>(*total_);
    text += fmt::format(" of {}  {:.0f}%", readableSize(static_cast<double>(*total_)),
                        100 * std::min(share, 1.0));
  }
  text += fmt::format("  {}/s", readableSize(rate));
  if (total_ && rate > 0 && *total_ >= done_) {
    text +=
        fmt::format("  {} left", minutesAndSeconds(static_cast<double>(*total_ - done_) / rate));
  }
  return text;
}

}  // namespace qzpfile
