#include "recorder.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>

#include "module.h"
#include "output.h"

namespace qz::trace {
namespace {

Output output;
std::mutex beginning;
std::atomic<bool> recording = false;
std::atomic<int> threads = 0;
std::atomic<std::uint64_t> operations = 0;
std::atomic<std::uint64_t> lostLines = 0;
std::int64_t origin = 0;
QZHandle* reportTo = nullptr;

std::int64_t clock() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec * INT64_C(1'000'000'000) + time.tv_nsec;
}

void stopInChild() {
  if (recording.exchange(false)) output.abandon();
}

// Outside every operation.
void writeFirstLine() {
  Text text;
  text.add(kFirstBytes);
  text.number(1);
  text.field("pid", getpid());
  char program[4096];
  const ssize_t length = readlink("/proc/self/exe", program, sizeof program - 1);
  program[length > 0 ? length : 0] = '\0';
  text.key("program");
  text.string(program);
  text.key("module");
  text.string(realModule().path);
  char started[32] = "";
  const std::time_t time = std::time(nullptr);
  tm utc{};
  std::strftime(started, sizeof started, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&time, &utc));
  text.field("started", std::string_view(started));
  text.field("word_bytes", sizeof(void*));
  text.add("}\n");
  output.append(text.data(), text.size());
}

// Passes the text and its length through a journal that takes wide text with placeholders.
HostStatus journalLine(Journal* journal, const char32_t* text, std::uint32_t length, ...) {
  std::va_list none;
  va_start(none, length);
  const HostStatus status = journal->messageToJnl(journal, JournalLevel::error, text, length, none);
  va_end(none);
  return status;
}

}  // namespace

void report(QZHandle* host, Journal* journal, const char* what, const char* reason) {
  char line[4096];
  std::snprintf(line, sizeof line, "qziop-trace: %s: %s", what, reason);
  if (journal == nullptr && host != nullptr) journal = host->defaultJournal;
  if (journal == nullptr) {
    std::fprintf(stderr, "%s\n", line);
    return;
  }
  char32_t wide[2 * sizeof line];
  std::uint32_t length = 0;
  for (const char* c = line; *c != '\0'; ++c) {
    if (*c == '%') wide[length++] = U'%';
    wide[length++] = static_cast<unsigned char>(*c) < 0x80 ? static_cast<char32_t>(*c) : U'\uFFFD';
  }
  journalLine(journal, wide, length);
}

void begin(QZHandle* host, Journal* journal) {
  const std::lock_guard lock(beginning);
  const char* path = secure_getenv("QZIOP_TRACE");
  if (recording || path == nullptr || *path == '\0') return;
  if (const int error = output.begin(path); error != 0) {
    char what[2048];
    std::snprintf(what, sizeof what, "nothing is recorded: %.1900s cannot be the trace", path);
    report(host, journal, what,
           error == EEXIST   ? "it exists and is not a trace"
           : error == EINVAL ? "it is not a regular file"
                             : std::strerror(error));
    return;
  }
  static const int inChildren = pthread_atfork(nullptr, nullptr, stopInChild);
  if (inChildren != 0) report(host, journal, "children made by fork", std::strerror(inChildren));
  reportTo = host;
  origin = clock();
  writeFirstLine();
  recording = true;
}

void settle() { output.settle(); }

// At exit, and when the process ends by returning from main.
__attribute__((destructor)) static void settleAtExit() {
  if (recording) output.settle();
}

bool isRecording() { return recording.load(std::memory_order_relaxed); }

Line& thisThread() {
  thread_local Line line{.text = {}, .thread = ++threads};
  return line;
}

std::int64_t now() { return clock() - origin; }

Operation::Operation(const char* name, const void* handle)
    : line_(thisThread()),
      outerBegin_(line_.begin),
      outerOperation_(line_.operation),
      outerHasCalls_(line_.hasCalls) {
  line_.begin = line_.text.size();
  line_.operation = ++operations;
  line_.hasCalls = false;
  Text& text = line_.text;
  text.add("{");
  text.field("id", line_.operation);
  if (outerOperation_ != 0) text.field("in", outerOperation_);
  text.field("thread", line_.thread);
  text.field("op", std::string_view(name));
  if (handle != nullptr) text.address("handle", handle);
}

void Operation::start() { started_ = now(); }

void Operation::stop() {
  const std::int64_t ended = now();
  Text& text = line_.text;
  if (line_.hasCalls) text.add("]");
  text.field("at", started_);
  text.field("ns", ended - started_);
}

void Operation::write(Journal* journal) {
  Text& text = line_.text;
  if (const std::uint64_t lost = lostLines.exchange(0, std::memory_order_relaxed); lost != 0) {
    text.field("lines_lost_before", lost);
  }
  text.add("}\n");
  const std::size_t begin = line_.begin;
  if (text.isLost()) {
    ++lostLines;
  } else if (const int error = output.append(text.data() + begin, text.size() - begin)) {
    report(reportTo, journal, "the trace ends here", std::strerror(error));
  }
  text.cutTo(begin);
  line_.begin = outerBegin_;
  line_.operation = outerOperation_;
  line_.hasCalls = outerHasCalls_;
}

void addStatus(Text* text, Status status) {
  if (status == Status::ok) {
    text->field("status", std::string_view("ok"));
    return;
  }
  char code[16];
  const int length = std::snprintf(code, sizeof code, "0x%08X", static_cast<unsigned>(status));
  text->field("status", std::string_view(code, static_cast<std::size_t>(length)));
}

void beginCall(Line* line, std::string_view name) {
  Text& text = line->text;
  if (line->hasCalls) {
    text.add(",");
  } else {
    text.key("calls");
    text.add("[");
  }
  line->hasCalls = true;
  text.add("{");
  text.field("call", name);
}

void endCall(Line* line, std::int64_t result, int error, std::int64_t nanoseconds) {
  Text& text = line->text;
  text.field("result", result);
  if (error != 0) text.field("errno", error);
  text.field("ns", nanoseconds);
  text.add("}");
}

}  // namespace qz::trace
