// Promises about the journal and its catalogue.
#include <algorithm>
#include <vector>

#include "checks.h"
#include "qzpos.h"

namespace qz::hostcheck {
namespace {

constexpr auto kPageOutOfRange = static_cast<std::uint32_t>(Status::pageOutOfRange);
constexpr auto kAccessNote = static_cast<std::uint32_t>(Status::accessNote);
constexpr auto kFileNameLine = static_cast<std::uint32_t>(Status::fileNameLine);

// In the module's range, but not a code of this version: it stands for a code of a later module.
constexpr std::uint32_t kLaterStatus = 0x803FCFFF;
static_assert(std::ranges::find(kStatusCodes, Status{kLaterStatus}) == std::end(kStatusCodes));

// The codes of the module and of the file service, and one that no catalogue knows.
std::vector<std::uint32_t> allStatuses() {
  std::vector<std::uint32_t> all = {kLaterStatus};
  for (const Status status : kStatusCodes) all.push_back(static_cast<std::uint32_t>(status));
  for (std::uint32_t code = 0x80FFE001; code <= 0x80FFE015; ++code) all.push_back(code);
  return all;
}

// The text of a status, with enough room.
struct StatusText {
  HostStatus result;
  std::u32string text;
};

StatusText textOf(const Trial& trial, std::uint32_t status, const char32_t* first,
                  const char32_t* second) {
  std::u32string buffer(4096, U'#');
  std::uint32_t length = 0;
  const HostStatus result =
      statusToBuf(trial.journal, status, buffer.data(), static_cast<std::uint32_t>(buffer.size()),
                  &length, first, second, first, second);
  needed(length <= buffer.size(), "statusToBuf returns a length beyond the capacity");
  buffer.resize(length);
  return {result, buffer};
}

std::u32string goodTextOf(const Trial& trial, std::uint32_t status, const char32_t* first,
                          const char32_t* second) {
  StatusText found = textOf(trial, status, first, second);
  needed(found.result == 0, "statusToBuf of " + hex(status) + " returns " + hex(found.result));
  return found.text;
}

bool contains(std::u32string_view text, std::u32string_view part) {
  return text.find(part) != std::u32string_view::npos;
}

// The one entry that the journal got after the first `before` entries.
std::string newEntry(const Trial& trial, std::size_t before) {
  const std::vector<std::string> entries = trial.entries();
  promised(entries.size() == before + 1,
           "one call made " + std::to_string(entries.size() - before) + " entries");
  return entries.back();
}

bool contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

// What comes after the length must not be read.
void textsHaveALength(const Trial& trial) {
  constexpr std::u32string_view name = U"qzeavlXYZ";
  TreeExtension* const extension =
      trial.host->extensionLoad(trial.host, name.data(), 6, trial.journal);
  promised(extension != nullptr, "extensionLoad reads beyond the length of a name");
  if (trial.options.entries == nullptr) return;
  const std::size_t before = trial.entries().size();
  messageToJnl(trial.journal, U"a message that ends here, not there", 24);
  const std::vector<std::string> entries = trial.entries();
  needed(entries.size() == before + 1, "messageToJnl does not make one entry");
  promised(!contains(entries.back(), "not there"),
           "messageToJnl reads beyond the length of a text: " + entries.back());
}

void insertsAreTakenInOrder(const Trial& trial) {
  const std::u32string both = goodTextOf(trial, kAccessNote, U"first insert", U"second insert");
  const std::size_t first = both.find(U"first insert");
  promised(
      first != std::u32string::npos && both.find(U"second insert", first) != std::u32string::npos,
      "the text of " + hex(kAccessNote) +
          " does not have its two inserts in their order: " + narrow(both));
  textOf(trial, kFileNameLine, nullptr, nullptr);  // null: there is no name
  if (trial.options.entries == nullptr) return;
  const std::size_t before = trial.entries().size();
  constexpr std::u32string_view text = U"%s has %d pages, %s";
  messageToJnl(trial.journal, text.data(), static_cast<std::uint32_t>(text.size()), U"one", 4711,
               U"two");
  const std::vector<std::string> entries = trial.entries();
  needed(entries.size() == before + 1, "messageToJnl does not make one entry");
  promised(contains(entries.back(), "one has 4711 pages, two"),
           "messageToJnl makes of \"%s has %d pages, %s\": " + entries.back());
}

void everyStatusHasAText(const Trial& trial) {
  for (const std::uint32_t status : allStatuses()) {
    const StatusText found = textOf(trial, status, U"insert", U"insert");
    promised(found.result == 0 && !found.text.empty(),
             "statusToBuf of " + hex(status) +
                 (status == kLaterStatus ? ", which no module uses yet," : "") + " returns " +
                 hex(found.result) + " and " + std::to_string(found.text.size()) + " characters");
  }
}

// A placeholder without an insert would make the journal read beyond its arguments.
void textsTakeTheInsertsTheyGet(const Trial& trial) {
  for (const std::uint32_t status : allStatuses()) {
    const std::u32string one = textOf(trial, status, U"insert one", U"insert two").text;
    const std::u32string other = textOf(trial, status, U"other", U"another").text;
    const int inserts = insertsOf(Status{status});
    if (inserts == 0) {
      promised(one == other, "the text of " + hex(status) + " has a placeholder: " + narrow(one));
      continue;
    }
    promised(
        contains(one, U"insert one") && contains(one, U"insert two") == (inserts == 2),
        "the text of " + hex(status) + " does not have the inserts that it gets: " + narrow(one));
  }
}

// The longest text that a check about capacities uses.
constexpr std::u32string_view kLongName = U"a name of some length, for a text that is to be cut";

void buffersAreNotExceeded(const Trial& trial) {
  const std::u32string whole = goodTextOf(trial, kFileNameLine, kLongName.data(), nullptr);
  for (std::uint32_t capacity = 0; capacity <= whole.size() + 1; ++capacity) {
    std::u32string buffer(whole.size() + 100, U'#');
    std::uint32_t length = 0xFFFFFFFF;
    statusToBuf(trial.journal, kFileNameLine, buffer.data(), capacity, &length, kLongName.data(),
                nullptr);
    const std::string given = " for a capacity of " + std::to_string(capacity);
    promised(
        std::all_of(buffer.begin() + capacity, buffer.end(), [](char32_t c) { return c == U'#'; }),
        "statusToBuf stores more characters than it may" + given);
    promised(length <= capacity,
             "statusToBuf returns a length of " + std::to_string(length) + given);
  }
}

void textsThatDoNotFitAreRefused(const Trial& trial) {
  const std::u32string whole = goodTextOf(trial, kFileNameLine, kLongName.data(), nullptr);
  std::u32string buffer(whole.size() + 100, U'#');
  const auto all = static_cast<std::uint32_t>(whole.size());
  for (const std::uint32_t capacity : {0U, 1U, all / 2, all - 1}) {
    std::uint32_t length = 0;
    const HostStatus result = statusToBuf(trial.journal, kFileNameLine, buffer.data(), capacity,
                                          &length, kLongName.data(), nullptr);
    promised(result != 0, "statusToBuf returns 0 for a text of " + std::to_string(all) +
                              " characters and a capacity of " + std::to_string(capacity));
  }
}

void percentSignsAreDoubled(const Trial& trial) {
  const std::u32string text = goodTextOf(trial, kFileNameLine, U"a%sb%dc%", nullptr);
  promised(contains(text, U"a%%sb%%dc%%"),
           "statusToBuf makes of the name a%sb%dc%: " + narrow(text));
}

void theNameLineSeparatesItself(const Trial& trial) {
  const std::u32string text = goodTextOf(trial, kFileNameLine, U"name", nullptr);
  needed(!text.empty(), "the text of " + hex(kFileNameLine) + " is empty");
  const char32_t first = text.front();
  const bool letter = (first >= U'0' && first <= U'9') || (first >= U'A' && first <= U'Z') ||
                      (first >= U'a' && first <= U'z') || first > 0x7F;
  promised(!letter, "the text of " + hex(kFileNameLine) + " begins with a letter: " + narrow(text));
}

void entriesAreMade(const Trial& trial) {
  std::size_t before = trial.entries().size();
  constexpr std::u32string_view text = U"100 %% of a message";
  messageToJnl(trial.journal, text.data(), static_cast<std::uint32_t>(text.size()));
  const std::string message = newEntry(trial, before++);
  promised(contains(message, "100 % of a message"),
           "messageToJnl makes of \"100 %% of a message\": " + message);
  statusToJnl(trial.journal, kPageOutOfRange);
  const std::string status = newEntry(trial, before);
  const std::string wanted = narrow(goodTextOf(trial, kPageOutOfRange, nullptr, nullptr));
  promised(contains(status, wanted.c_str()), "statusToJnl of " + hex(kPageOutOfRange) +
                                                 " makes another text than statusToBuf: " + status);
}

constexpr Check kChecks[] = {
    {17, "texts have the length that is given", textsHaveALength},
    {18, "inserts are taken in their order", insertsAreTakenInOrder},
    {19, "every status has a text, also one of a later module", everyStatusHasAText},
    {20, "texts of statuses use the inserts that they get", textsTakeTheInsertsTheyGet},
    {21, "statusToBuf stays within the capacity", buffersAreNotExceeded},
    {22, "statusToBuf refuses a text that does not fit", textsThatDoNotFitAreRefused},
    {23, "percent signs of inserts are doubled", percentSignsAreDoubled},
    {24, "the file-name line begins with a separator", theNameLineSeparatesItself},
    {25, "messages and statuses make one entry each", entriesAreMade},
};

}  // namespace

std::span<const Check> journalChecks() { return kChecks; }

}  // namespace qz::hostcheck
