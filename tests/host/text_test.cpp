// Texts of the stand-in host: message catalogue, journal, name encoding, options.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "qziop.hpp"
#include "support/names.h"

namespace {

using qz::HostStatus;
using qz::JournalLevel;
using qz::Status;

constexpr auto kAccessNote = static_cast<std::uint32_t>(Status::accessNote);
constexpr auto kFileNameLine = static_cast<std::uint32_t>(Status::fileNameLine);

// The ranges of the module's codes and of the host's statuses.
constexpr std::uint32_t kModuleCodes = 0x803FC000;
constexpr std::uint32_t kHostStatuses = 0x80FFE000;
constexpr std::uint32_t kRange = 0x1000;

bool hasName(std::uint32_t status) { return !qztest::nameOfStatus(status).starts_with("0x"); }

// If a text had more placeholders than the module passes inserts, formatting it would read
// arbitrary memory.
TEST(CatalogueTest, EveryStatusHasItsOwnTextAndOnlyItsInserts) {
  std::set<std::string> texts = {qz::statusText(qz::hostOk)};
  for (const std::uint32_t first : {kModuleCodes, kHostStatuses}) {
    for (std::uint32_t status = first; status < first + kRange; ++status) {
      const std::string text = qz::statusText(status);
      EXPECT_TRUE(texts.insert(text).second) << text;
      EXPECT_EQ(text.find("has no text") == std::string::npos, hasName(status)) << text;
      EXPECT_EQ(std::count(text.begin(), text.end(), '%'), qz::insertsOf(Status{status})) << text;
    }
  }
  const std::uint32_t nameless = kHostStatuses;
  EXPECT_NE(qz::statusText(nameless).find(fmt::format("0x{:08X}", nameless)), std::string::npos);
}

using Rows = std::multiset<std::string>;

// The rows that are only in `wanted` or only in the document's tables of module codes, compared by
// their first two columns.
std::vector<std::string> differences(const char* document, const Rows& wanted) {
  std::ifstream file(QZIOP_SOURCES + std::string("/docs/") + document);
  Rows rows;
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("| 0x803FC")) rows.insert(line.substr(0, line.find(" |", 13)));
  }
  std::vector<std::string> found;
  std::ranges::set_symmetric_difference(rows, wanted, std::back_inserter(found));
  return found;
}

// A code that kStatusCodes lacks is not tested; one that a document lacks is not explained to
// users.
TEST(StatusTest, TheArrayAndTheDocumentsHaveEveryCode) {
  Rows codes;
  Rows inserts;
  for (const Status status : qz::kStatusCodes) {
    const auto number = static_cast<std::uint32_t>(status);
    const std::string start = fmt::format("| 0x{:08X} | ", number);
    codes.insert(start + '`' + qztest::nameOfStatus(number) + '`');
    const char* texts[] = {"", "the file name", "a description, the file name"};
    if (const int count = qz::insertsOf(status); count > 0) inserts.insert(start + texts[count]);
  }
  const std::vector<std::string> none;
  EXPECT_EQ(differences("status-codes.md", codes), none);
  EXPECT_EQ(differences("host-contract.md", inserts), none);
  for (std::uint32_t number = kModuleCodes; number < kModuleCodes + kRange; ++number) {
    const bool listed =
        std::ranges::find(qz::kStatusCodes, Status{number}) != std::end(qz::kStatusCodes);
    EXPECT_EQ(listed, hasName(number)) << qztest::nameOfStatus(number);
  }
}

struct JournalTest : testing::Test {
  // The module's functions with variable arguments, which call a journal's slots.
  template <class Function>
  Function* exported(const char* name) const {
    return reinterpret_cast<Function*>(module->symbol(name));
  }

  qz::StandInHost host;
  qz::Result<qz::Module> module = qz::Module::load(host.handle(), nullptr, QZIOP_MODULE);
  decltype(qzlMessageToBuf)* messageToBuf = exported<decltype(qzlMessageToBuf)>("qzlMessageToBuf");
  decltype(qzlMessageToJnl)* messageToJnl = exported<decltype(qzlMessageToJnl)>("qzlMessageToJnl");
  decltype(qzlStatusToBuf)* statusToBuf = exported<decltype(qzlStatusToBuf)>("qzlStatusToBuf");
  decltype(qzlStatusToJnl)* statusToJnl = exported<decltype(qzlStatusToJnl)>("qzlStatusToJnl");
  qz::StandInJournal journal;
  std::u32string buffer = std::u32string(1024, U'#');
  std::uint32_t added = 99;
};

// Inserts must replace their placeholders and nothing else: a percent sign in a name must not act
// as a placeholder, and a null name must not be read.
TEST_F(JournalTest, FillsInInserts) {
  const char32_t* const none = nullptr;
  const std::u32string text = U"%s|%s|%d|%d|100%%|%x|%";
  EXPECT_EQ(messageToJnl(&journal, JournalLevel::note, text.data(),
                         static_cast<std::uint32_t>(text.size()), U"a%s%n", none, -7, INT32_MAX),
            0U);
  EXPECT_EQ(statusToJnl(&journal, JournalLevel::error, kAccessNote, U"Read Access: \u00E9",
                        U"/d/\U0001F4BE"),
            0U);
  const auto entries = journal.entries();
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_EQ(entries[0].text, "a%s%n|(no name)|-7|2147483647|100%|%x|%");
  EXPECT_EQ(entries[0].level, JournalLevel::note);
  EXPECT_EQ(entries[1].text, "Read Access: \u00E9 [file /d/\U0001F4BE]");
  EXPECT_EQ(entries[1].status, kAccessNote);
  EXPECT_EQ(entries[1].level, JournalLevel::error);
  const auto word = [](const void* place) { return reinterpret_cast<qz::Word>(place); };
  EXPECT_EQ(
      messageToBuf(&journal, word(U"<%s>"), 4, word(buffer.data()), 1024, word(&added), U"100%s"),
      0U);
  EXPECT_EQ(buffer.substr(0, added), U"<100%%s>") << "its use as a message restores the one %";
  EXPECT_EQ(messageToJnl(&journal, JournalLevel::note, nullptr, 0), 0U);
  EXPECT_EQ(messageToJnl(&journal, JournalLevel::note, nullptr, 3), qz::hostBadText);
}

// A text that is cut off would pass as a whole message.
TEST_F(JournalTest, ATextThatDoesNotFitIsRefusedWhole) {
  const std::u32string name(3000, U'n');
  const auto needed = static_cast<std::uint32_t>(name.size() + std::u32string(U" [file ]").size());
  for (const std::uint32_t capacity : {0U, 1U, needed - 1, needed}) {
    buffer.assign(capacity, U'#');
    const bool fits = capacity == needed;
    EXPECT_EQ(statusToBuf(&journal, kFileNameLine, buffer.data(), capacity, &added, name.c_str()),
              fits ? 0U : qz::hostTextTooLong);
    EXPECT_EQ(added, fits ? needed : 0U);
    EXPECT_TRUE(fits || buffer == std::u32string(capacity, U'#'));
  }
}

// A file name with control characters must not change the terminal or forge a line.
TEST_F(JournalTest, StandardErrorGetsOneCleanLinePerEntry) {
  qz::StandInJournal printed(qz::JournalSink::standardError);
  testing::internal::CaptureStderr();
  printed.append(JournalLevel::note, 0, "one a\nb\x1B[31m");
  printed.append(JournalLevel::error, 1, "two");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "note: one a?b?[31m\nerror: two\n");
  EXPECT_TRUE(printed.entries().empty());
}

// A program with a log of its own must get each entry whole, of its journal and of the host's
// default journal.
TEST(JournalFunctionTest, EachEntryReachesTheProgram) {
  using Entries = std::vector<qz::JournalEntry>;
  const qz::JournalFunction store = [](void* context, const qz::JournalEntry& entry) noexcept {
    static_cast<Entries*>(context)->push_back(entry);
  };
  Entries own;
  Entries ofDefault;
  qz::StandInJournal journal(qz::JournalSink::function, store, &own);
  qz::StandInHost host({{}, qz::JournalSink::function, store, &ofDefault});
  qz::QZHandle* handle = host.handle();
  EXPECT_EQ(handle->extensionLoad(handle, U"qzeavlx", 7, &journal), nullptr);
  EXPECT_EQ(handle->extensionLoad(handle, U"other", 5, handle->defaultJournal), nullptr);
  EXPECT_EQ(journal.append(JournalLevel::note, 0, "a\nb"), 0U);
  ASSERT_EQ(own.size(), 2U);
  EXPECT_EQ(own[0].level, JournalLevel::error);
  EXPECT_EQ(own[0].status, qz::hostNoSuchExtension);
  EXPECT_EQ(own[0].text, qz::statusText(qz::hostNoSuchExtension));
  EXPECT_EQ(own[1].level, JournalLevel::note);
  EXPECT_EQ(own[1].text, "a\nb") << "unlike on a terminal, nothing is replaced";
  ASSERT_EQ(ofDefault.size(), 1U);
  EXPECT_EQ(ofDefault[0].text, own[0].text);
  EXPECT_TRUE(journal.entries().empty() && host.defaultJournal().entries().empty());
  qz::StandInJournal discarding(qz::JournalSink::function);
  EXPECT_EQ(discarding.append(JournalLevel::error, 1, "two"), 0U);
}

// A file whose name is not UTF-8 must be opened under exactly its bytes.
TEST(TextTest, NamesSurviveWhateverTheirBytes) {
  std::mt19937 random(3);
  for (int round = 0; round < 5000; ++round) {
    std::string bytes(random() % 12, '\0');
    for (char& byte : bytes) {
      // Bytes that begin, continue and break characters of UTF-8.
      constexpr unsigned char kSpecial[] = {0xC3, 0xA9, 0xED, 0xA0, 0x80, 0xF0, 0x9F, 0x92,
                                            0xBE, 0xC0, 0xF4, 0x90, 0x41, 0xFF, 0xE2, 0x82};
      byte = static_cast<char>(random() % 4 == 0 ? random() % 256 : kSpecial[random() % 16]);
    }
    ASSERT_EQ(qz::toUtf8(qz::toUtf32(bytes)), bytes);
  }
}

// Bytes that are not UTF-8 become the code points U+DC80 to U+DCFF, and bytes again when converted
// back. Other code points that are not characters become U+FFFD.
TEST(TextTest, BytesThatAreNoCharactersHaveCodePointsOfTheirOwn) {
  const std::u32string known{0xE9, 0x20AC, 0x1F4BE, 0xDCFF, 0xDCC0, 0xDC80};
  EXPECT_EQ(qz::toUtf8(known), "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x92\xBE\xFF\xC0\x80");
  EXPECT_EQ(qz::toUtf32(qz::toUtf8(known)), known);
  EXPECT_EQ(qz::toUtf8(std::u32string{0xD800, 0x110000, 0xDC41}), "\uFFFD\uFFFD\uFFFD");
}

// A name that ends inside a character would be another name. If a character does not fit or has no
// UTF-8, the text must be refused, and only the whole characters before it stored.
TEST(TextTest, ConverterStoresWholeCharactersThatFit) {
  qz::StandInHost host;
  qz::EncodingServices* services = host.handle()->encodingServices;
  qz::Converter* converter =
      services->converterCreate(services, services->systemEncoding, 0, nullptr);
  // Characters of 1, 2, 3 and 4 bytes, and one that has no UTF-8.
  const std::u32string text{U'a', 0xE9, 0x20AC, 0x1F4BE, 0xD800};
  constexpr std::size_t kStored[] = {0, 1, 1, 3, 3, 3, 6, 6, 6, 6, 10, 10};  // by capacity
  constexpr std::size_t kAllBytes = 5 * sizeof(char32_t);
  for (std::size_t capacity = 0; capacity < std::size(kStored); ++capacity) {
    std::string output(16, '#');
    EXPECT_EQ(converter->convert(converter, text.data(), kAllBytes, output.data(), capacity, 0, 0),
              capacity < 10 ? qz::hostTextTooLong : qz::hostBadText);
    EXPECT_EQ(output, qz::toUtf8(text).substr(0, kStored[capacity]) +
                          std::string(16 - kStored[capacity], '#'));
  }
  EXPECT_EQ(converter->convert(converter, text.data(), kAllBytes - sizeof(char32_t),
                               std::string(10, '#').data(), 10, 0, 0),
            qz::hostOk);
  EXPECT_EQ(converter->destroy(converter), 0U);
  EXPECT_EQ(services->converterCreate(services, services->systemEncoding + 1, 0, nullptr), nullptr);
}

// An option's value may be stored only if name and type are the option's and there is room for it.
TEST(ToolkitTest, OptionsAreStoredWholeOrRefused) {
  constexpr std::int32_t kPageSize = 6144;
  constexpr std::int32_t kUntouched = -1;
  constexpr std::uint32_t kOtherType = qz::kOptionInt32 - 1;
  qz::StandInHost host({kPageSize, qz::JournalSink::memory});
  const struct {
    std::u32string_view key;
    std::uint32_t type, room;
    HostStatus status;
  } rows[] = {{U"host.pagesize", qz::kOptionInt32, 8, qz::hostOk},
              {U"host.pagesize", kOtherType, 4, qz::hostWrongValueType},
              {U"host.pagesize", qz::kOptionInt32, 3, qz::hostWrongValueType},
              {U"host.pagesizes", qz::kOptionInt32, 4, qz::hostUnknownOption},
              {U"host.page", qz::kOptionInt32, 4, qz::hostUnknownOption}};
  for (const auto& [key, type, room, status] : rows) {
    SCOPED_TRACE(qz::toUtf8(key) + " " + std::to_string(room));
    std::int32_t value = kUntouched;
    std::uint32_t bytes = room;
    EXPECT_EQ(
        host.handle()->optionGet(host.handle(), key.data(), static_cast<std::uint32_t>(key.size()),
                                 type, &value, &bytes),
        status);
    EXPECT_EQ(value, status == qz::hostOk ? kPageSize : kUntouched);
    EXPECT_EQ(bytes, status == qz::hostOk ? sizeof value : room);
  }
}

// A wait that ended early would make the module's retries of a busy file useless.
TEST(ToolkitTest, AWaitTakesTheTimeAskedFor) {
  qz::StandInHost host;
  qz::QZHandle* handle = host.handle();
  const auto start = std::chrono::steady_clock::now();
  qz::Task* task = handle->currentTask(handle);
  EXPECT_EQ(task->taskWait(task, 0, 0, 0, 0, 30), 0U);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
}

}  // namespace
