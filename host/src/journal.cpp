// The journal: formats texts with their inserts and stores, prints or passes on the entries.
//
// The two operations that fill a buffer produce text that is formatted once more: the module
// appends the file-name line to a status text and passes both to messageToJnl. They therefore
// double each percent sign in an insert; otherwise a file name could act as a format.
#include <algorithm>
#include <bit>
#include <cstdio>
#include <new>
#include <utility>

#include "qzstandin.h"

namespace qz {
namespace {

constexpr std::uint32_t kLongestText = 1U << 24U;  // characters; a longer text is refused
constexpr std::u32string_view kNoName = U"(no name)";

enum class Percent { single, doubled };

// Takes the arguments of a list one by one.
class Inserts {
 public:
  explicit Inserts(std::va_list arguments) { va_copy(arguments_, arguments); }
  Inserts(const Inserts&) = delete;
  Inserts& operator=(const Inserts&) = delete;
  ~Inserts() { va_end(arguments_); }

  std::u32string_view text() {
    const char32_t* insert = va_arg(arguments_, const char32_t*);
    return insert != nullptr ? std::u32string_view(insert) : kNoName;
  }
  std::u32string number() {
    const std::string digits = std::to_string(va_arg(arguments_, std::int32_t));
    return {digits.begin(), digits.end()};
  }

 private:
  std::va_list arguments_;
};

void append(std::u32string* output, std::u32string_view text, Percent percent) {
  for (const char32_t character : text) {
    output->push_back(character);
    if (character == U'%' && percent == Percent::doubled) output->push_back(U'%');
  }
}

// Fills in the placeholders %s and %d; %% becomes a percent sign; any other percent sign is kept.
std::u32string format(std::u32string_view text, Inserts* inserts, Percent percent) {
  std::u32string output;
  output.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char32_t next = i + 1 < text.size() ? text[i + 1] : U'\0';
    if (text[i] != U'%' || (next != U's' && next != U'd' && next != U'%')) {
      append(&output, text.substr(i, 1), percent);
      continue;
    }
    ++i;
    if (next == U's') append(&output, inserts->text(), percent);
    if (next == U'd') output += inserts->number();
    if (next == U'%') append(&output, U"%", percent);
  }
  return output;
}

std::u32string format(std::u32string_view text, std::va_list arguments, Percent percent) {
  Inserts inserts(arguments);
  return format(text, &inserts, percent);
}

bool isText(const char32_t* text, std::size_t length) {
  return length <= kLongestText && (text != nullptr || length == 0);
}

// Stores a whole text or nothing. *lengthOut: characters stored.
HostStatus store(const std::u32string& text, char32_t* buffer, std::size_t capacity,
                 std::uint32_t* lengthOut) {
  if (lengthOut != nullptr) *lengthOut = 0;
  if (text.size() > capacity || (buffer == nullptr && !text.empty())) return hostTextTooLong;
  std::copy(text.begin(), text.end(), buffer);
  if (lengthOut != nullptr) *lengthOut = static_cast<std::uint32_t>(text.size());
  return hostOk;
}

HostStatus messageToBuf(Journal* /*journal*/, Word text, Word textLength, Word buffer,
                        Word capacity, Word lengthOut, std::va_list arguments) noexcept try {
  const auto* characters = std::bit_cast<const char32_t*>(text);
  if (!isText(characters, textLength)) return hostBadText;
  return store(format({characters, textLength}, arguments, Percent::doubled),
               std::bit_cast<char32_t*>(buffer), capacity,
               std::bit_cast<std::uint32_t*>(lengthOut));
} catch (const std::bad_alloc&) {
  return hostNoMemory;
}

HostStatus messageToJnl(Journal* journal, JournalLevel level, const char32_t* text,
                        std::uint32_t textLength, std::va_list arguments) noexcept try {
  if (!isText(text, textLength)) return hostBadText;
  return static_cast<StandInJournal*>(journal)->append(
      level, 0, toUtf8(format({text, textLength}, arguments, Percent::single)));
} catch (const std::bad_alloc&) {
  return hostNoMemory;
}

HostStatus statusToBuf(Journal* /*journal*/, std::uint32_t status, char32_t* buffer,
                       std::uint32_t capacity, std::uint32_t* lengthOut,
                       std::va_list arguments) noexcept try {
  return store(format(toUtf32(statusText(status)), arguments, Percent::doubled), buffer, capacity,
               lengthOut);
} catch (const std::bad_alloc&) {
  return hostNoMemory;
}

HostStatus statusToJnl(Journal* journal, JournalLevel level, std::uint32_t status,
                       std::va_list arguments) noexcept try {
  return static_cast<StandInJournal*>(journal)->append(
      level, status, toUtf8(format(toUtf32(statusText(status)), arguments, Percent::single)));
} catch (const std::bad_alloc&) {
  return hostNoMemory;
}

// One line for a terminal: control characters, which a file name may have, become '?'.
HostStatus print(JournalLevel level, const std::string& text) {
  std::string line = level == JournalLevel::error ? "error: " : "note: ";
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    line.push_back(byte < 0x20 || byte == 0x7F ? '?' : character);
  }
  line.push_back('\n');
  return std::fwrite(line.data(), 1, line.size(), stderr) == line.size() ? hostOk
                                                                         : hostOtherFailure;
}

}  // namespace

StandInJournal::StandInJournal(JournalSink sink, JournalFunction function, void* context) noexcept
    : Journal{}, sink_(sink), function_(function), context_(context) {
  Journal::messageToBuf = qz::messageToBuf;
  Journal::messageToJnl = qz::messageToJnl;
  Journal::statusToBuf = qz::statusToBuf;
  Journal::statusToJnl = qz::statusToJnl;
}

std::vector<JournalEntry> StandInJournal::entries() const {
  const std::lock_guard lock(mutex_);
  return entries_;
}

void StandInJournal::clear() {
  const std::lock_guard lock(mutex_);
  entries_.clear();
}

HostStatus StandInJournal::append(JournalLevel level, std::uint32_t status,
                                  std::string text) noexcept try {
  if (sink_ == JournalSink::standardError) return print(level, text);
  JournalEntry entry = {level, status, std::move(text)};
  if (sink_ == JournalSink::function) {
    if (function_ != nullptr) function_(context_, entry);
    return hostOk;
  }
  const std::lock_guard lock(mutex_);
  entries_.push_back(std::move(entry));
  return hostOk;
} catch (const std::bad_alloc&) {
  return hostNoMemory;
}

}  // namespace qz
