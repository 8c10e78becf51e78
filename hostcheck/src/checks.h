// What the checks of single promises share.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "qzphostcheck.h"

namespace qz::hostcheck {

// Exceptions that end a check: the promise is broken, or it cannot be tested. It cannot be tested
// if another promise that it needs is broken.
struct Broken {
  std::string found;
};
struct Untested {
  std::string why;
};

inline void promised(bool kept, const std::string& found) {
  if (!kept) throw Broken{found};
}
inline void needed(bool there, const std::string& why) {
  if (!there) throw Untested{why};
}

std::string hex(std::uint64_t value);

// The host under test.
struct Trial {
  QZHandle* host;
  Journal* journal;  // never null
  const HostCheckOptions& options;
  std::string folder;  // empty, for this check alone

  std::vector<std::string> entries() const {
    needed(options.entries != nullptr, "it needs a function that returns the journal's entries");
    return options.entries();
  }
};

struct Check {
  int number;
  const char* what;
  void (*run)(const Trial&);
};

std::span<const Check> recordChecks();
std::span<const Check> poolChecks();
std::span<const Check> journalChecks();
std::span<const Check> treeChecks();
std::span<const Check> textChecks();
std::span<const Check> fileChecks();

// --- Ways to use a host in checks of something else

inline constexpr PoolAttributes kModulePool = {{0, 0, 0}};
inline constexpr PoolAttributes kBufferPool = {{0x100000, 0, 0}};
MemoryPool* makePool(const Trial& trial, const PoolAttributes& attributes);

inline HostStatus statusToBuf(Journal* journal, std::uint32_t status, char32_t* buffer,
                              std::uint32_t capacity, std::uint32_t* length, ...) {
  std::va_list inserts;
  va_start(inserts, length);
  const HostStatus result =
      journal->statusToBuf(journal, status, buffer, capacity, length, inserts);
  va_end(inserts);
  return result;
}
inline HostStatus messageToJnl(Journal* journal, const char32_t* text, std::uint32_t length, ...) {
  std::va_list inserts;
  va_start(inserts, length);
  const HostStatus result =
      journal->messageToJnl(journal, JournalLevel::note, text, length, inserts);
  va_end(inserts);
  return result;
}
inline HostStatus statusToJnl(Journal* journal, std::uint32_t status, ...) {
  std::va_list inserts;
  va_start(inserts, status);
  const HostStatus result = journal->statusToJnl(journal, JournalLevel::note, status, inserts);
  va_end(inserts);
  return result;
}

// Converts ASCII text in both directions; other characters become '?'.
std::u32string wide(std::string_view ascii);
std::string narrow(std::u32string_view text);

}  // namespace qz::hostcheck
