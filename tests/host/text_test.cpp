// Texts of the stand-in host: message catalogue, journal, name encoding, options.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "qzpos.h"
#include "qzstandin.h"

namespace {

using qz::HostStatus;
using qz::Journal;
using qz::JournalLevel;
using qz::Status;

HostStatus statusToJnl(Journal* journal, std::uint32_t status, ...) {
  std::va_list arguments;
  va_start(arguments, status);
  const HostStatus result = journal->statusToJnl(journal, JournalLevel::error, status, arguments);
  va_end(arguments);
  return result;
}

HostStatus messageToJnl(Journal* journal, std::u32string_view text, ...) {
  std::va_list arguments;
  va_start(arguments, text);
  const HostStatus result = journal->messageToJnl(
      journal, JournalLevel::note, text.data(), static_cast<std::uint32_t>(text.size()), arguments);
  va_end(arguments);
  return result;
}

HostStatus statusToBuf(Journal* journal, std::uint32_t status, char32_t* buffer,
                       std::uint32_t capacity, std::uint32_t* length, ...) {
  std::va_list arguments;
  va_start(arguments, length);
  const HostStatus result =
      journal->statusToBuf(journal, status, buffer, capacity, length, arguments);
  va_end(arguments);
  return result;
}

HostStatus messageToBuf(Journal* journal, std::u32string_view text, char32_t* buffer,
                        std::uint32_t capacity, std::uint32_t* length, ...) {
  std::va_list arguments;
  va_start(arguments, length);
  const HostStatus result = journal->messageToBuf(
      journal, reinterpret_cast<qz::Word>(text.data()), text.size(),
      reinterpret_cast<qz::Word>(buffer), capacity, reinterpret_cast<qz::Word>(length), arguments);
  va_end(arguments);
  return result;
}

constexpr auto kFileNameLine = static_cast<std::uint32_t>(Status::fileNameLine);

// The module gives inserts to these alone; a placeholder in any other text would take an insert
// that is not there.
TEST(CatalogueTest, EveryStatusHasItsOwnTextAndOnlyItsInserts) {
  std::vector<std::uint32_t> statuses = {0,          0x803FC002, 0x803FC009, 0x803FC81B,
                                         0x803FC81C, 0x803FC81E, 0x803FC81F, 0x803FC820,
                                         0x803FC821, 0x803FC823, 0x803FC824, 0x803FC825,
                                         0x803FC826, 0x803FCFD4, 0x803FC818};
  for (std::uint32_t status = 0x803FC801; status <= 0x803FC816; ++status) {
    if (status != 0x803FC813) statuses.push_back(status);
  }
  for (std::uint32_t status = 0x80FFE001; status <= 0x80FFE015; ++status) {
    statuses.push_back(status);
  }
  for (std::uint32_t status = 0x80FFE101; status <= 0x80FFE108; ++status) {
    statuses.push_back(status);
  }
  std::set<std::string> texts;
  for (const std::uint32_t status : statuses) {
    const std::string text = qz::statusText(status);
    EXPECT_EQ(text.find("has no text"), std::string::npos) << std::hex << status;
    EXPECT_TRUE(texts.insert(text).second) << text;
    const auto percents = std::count(text.begin(), text.end(), '%');
    const int inserts = status == 0x803FC821 ? 2
                        : status == 0x803FC824 || status == kFileNameLine || status == 0x803FCFD4
                            ? 1
                            : 0;
    EXPECT_EQ(percents, inserts) << text;
  }
  EXPECT_NE(qz::statusText(0x80FFE016).find("0x80FFE016"), std::string::npos);
}

TEST(JournalTest, FillsInInserts) {
  qz::StandInJournal journal;
  const char32_t* const none = nullptr;
  EXPECT_EQ(messageToJnl(&journal, U"%s|%s|%d|%d|100%%|%x|%", U"a%s%n", none, -7, INT32_MAX), 0U);
  EXPECT_EQ(messageToJnl(&journal, U""), 0U);
  EXPECT_EQ(statusToJnl(&journal, 0x803FC821, U"Read Access: \u00E9", U"/d/\U0001F4BE"), 0U);
  EXPECT_EQ(statusToJnl(&journal, 0x80FFE101), 0U);
  const auto entries = journal.entries();
  ASSERT_EQ(entries.size(), 4U);
  EXPECT_EQ(entries[0].text, "a%s%n|(no name)|-7|2147483647|100%|%x|%");
  EXPECT_EQ(entries[0].level, JournalLevel::note);
  EXPECT_EQ(entries[1].text, "");
  EXPECT_EQ(entries[2].text, "Read Access: \u00E9 [file /d/\U0001F4BE]");
  EXPECT_EQ(entries[2].status, 0x803FC821U);
  EXPECT_EQ(entries[3].level, JournalLevel::error);
  journal.clear();
  EXPECT_TRUE(journal.entries().empty());
  EXPECT_EQ(journal.messageToJnl(&journal, JournalLevel::note, nullptr, 3, nullptr),
            qz::hostBadText);
}

// Status text, file-name line, the whole journalled as a message: how the module reports.
TEST(JournalTest, AFileNameIsNeverAFormat) {
  for (const char32_t* name : {U"/tmp/%s%d%n", U"%", U"100%%", U"\u00FC/%%s"}) {
    qz::StandInJournal journal;
    std::u32string buffer(1024, U'\0');
    std::uint32_t first = 0;
    std::uint32_t second = 0;
    ASSERT_EQ(statusToBuf(&journal, 0x803FC801, buffer.data(), 1024, &first), 0U);
    ASSERT_EQ(statusToBuf(&journal, kFileNameLine, &buffer[first], 1024 - first, &second, name),
              0U);
    ASSERT_EQ(messageToJnl(&journal, std::u32string_view(buffer).substr(0, first + second)), 0U);
    EXPECT_EQ(journal.entries()[0].text,
              qz::statusText(0x803FC801) + " [file " + qz::toUtf8(name) + "]");
    std::uint32_t length = 0;
    ASSERT_EQ(messageToBuf(&journal, U"<%s>", buffer.data(), 1024, &length, name), 0U);
    ASSERT_EQ(messageToJnl(&journal, std::u32string_view(buffer).substr(0, length)), 0U);
    EXPECT_EQ(journal.entries()[1].text, "<" + qz::toUtf8(name) + ">");
  }
}

TEST(JournalTest, ATextThatDoesNotFitIsRefusedWhole) {
  qz::StandInJournal journal;
  const std::u32string name(3000, U'n');
  const std::uint32_t needed = 3000 + 8;  // " [file " and "]"
  for (const std::uint32_t capacity : {0U, 1U, needed - 1, needed}) {
    std::u32string buffer(capacity + 1, U'#');
    std::uint32_t length = 99;
    const HostStatus status =
        statusToBuf(&journal, kFileNameLine, buffer.data(), capacity, &length, name.c_str());
    EXPECT_EQ(status, capacity == needed ? 0U : qz::hostTextTooLong);
    EXPECT_EQ(length, capacity == needed ? needed : 0U);
    EXPECT_EQ(buffer[capacity], U'#');
    if (capacity < needed) {
      EXPECT_EQ(buffer, std::u32string(capacity + 1, U'#'));
    }
  }
}

TEST(JournalTest, StandardErrorGetsOneCleanLinePerEntry) {
  qz::StandInJournal journal(qz::JournalSink::standardError);
  testing::internal::CaptureStderr();
  messageToJnl(&journal, U"one %s", U"a\nb\x1B[31m");
  statusToJnl(&journal, 0x80FFE006);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "note: one a?b?[31m\nerror: " + qz::statusText(0x80FFE006) + "\n");
  EXPECT_TRUE(journal.entries().empty());
}

TEST(TextTest, NamesSurviveWhateverTheirBytes) {
  std::mt19937 random(3);
  for (int round = 0; round < 5000; ++round) {
    std::string bytes(random() % 12, '\0');
    for (char& byte : bytes) {
      constexpr unsigned char kTelling[] = {0xC3, 0xA9, 0xED, 0xA0, 0x80, 0xF0, 0x9F, 0x92,
                                            0xBE, 0xC0, 0xF4, 0x90, 0x41, 0xFF, 0xE2, 0x82};
      byte = static_cast<char>(random() % 4 == 0 ? random() % 256 : kTelling[random() % 16]);
    }
    ASSERT_EQ(qz::toUtf8(qz::toUtf32(bytes)), bytes);
  }
  struct Case {
    std::u32string text;
    std::string bytes;
  };
  for (const Case& c : {Case{U"\u00E9\u20AC\U0001F4BE", "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x92\xBE"},
                        Case{std::u32string{0xDCFF}, "\xFF"},
                        Case{std::u32string{0xDCFF, 0xDCC0, 0xDC80}, "\xFF\xC0\x80"}}) {
    EXPECT_EQ(qz::toUtf8(c.text), c.bytes);
    EXPECT_EQ(qz::toUtf32(c.bytes), c.text);
  }
  EXPECT_EQ(qz::toUtf8(std::u32string{0xD800, 0x110000, 0xDC41}), "\uFFFD\uFFFD\uFFFD");
}

TEST(TextTest, ConverterNeverExceedsItsCapacity) {
  qz::StandInHost host;
  qz::EncodingServices* services = host.handle()->encodingServices;
  qz::StandInJournal journal;
  EXPECT_EQ(services->converterCreate(services, services->systemEncoding + 1, 0, &journal),
            nullptr);
  EXPECT_EQ(journal.entries()[0].status, qz::hostNoEncoding);
  qz::Converter* converter =
      services->converterCreate(services, services->systemEncoding, 0, &journal);
  const std::u32string text = U"a\u00E9\u20AC\U0001F4BE";
  const std::string whole = qz::toUtf8(text);
  constexpr std::size_t kWholeCharacters[] = {0, 1, 1, 3, 3, 3, 6, 6, 6, 6, 10, 10};
  for (std::size_t capacity = 0; capacity < 12; ++capacity) {
    std::string output(16, '#');
    const HostStatus status =
        converter->convert(converter, text.data(), text.size() * 4, output.data(), capacity, 0, 0);
    EXPECT_EQ(status, capacity < whole.size() ? qz::hostTextTooLong : 0U);
    const std::size_t used = kWholeCharacters[capacity];
    EXPECT_EQ(output, whole.substr(0, used) + std::string(16 - used, '#'));
  }
  const char32_t bad[] = {U'a', 0xD800};
  char output[8];
  EXPECT_EQ(converter->convert(converter, bad, 8, output, 8, 0, 0), qz::hostBadText);
  EXPECT_EQ(converter->destroy(converter), 0U);
}

TEST(ToolkitTest, OptionsExtensionsAndTasks) {
  qz::StandInHost host({6144, qz::JournalSink::memory});
  qz::QZHandle* handle = host.handle();
  struct Case {
    std::u32string_view key;
    std::uint32_t type;
    std::uint32_t bytes;
    HostStatus status;
  };
  for (const Case& c : {Case{U"host.pagesize", 3, 4, 0}, Case{U"host.pagesize", 3, 8, 0},
                        Case{U"host.pagesize", 2, 4, qz::hostWrongValueType},
                        Case{U"host.pagesize", 3, 3, qz::hostWrongValueType},
                        Case{U"host.pagesizes", 3, 4, qz::hostUnknownOption},
                        Case{U"host.page", 3, 4, qz::hostUnknownOption}}) {
    std::int32_t value = -1;
    std::uint32_t bytes = c.bytes;
    EXPECT_EQ(handle->optionGet(handle, c.key.data(), static_cast<std::uint32_t>(c.key.size()),
                                c.type, &value, &bytes),
              c.status);
    EXPECT_EQ(value, c.status == 0 ? 6144 : -1);
    EXPECT_EQ(bytes, c.status == 0 ? 4U : c.bytes);
  }
  host.setHostPageSize(std::nullopt);
  std::int32_t value = -1;
  std::uint32_t bytes = 4;
  EXPECT_EQ(handle->optionGet(handle, U"host.pagesize", 13, 3, &value, &bytes),
            qz::hostUnknownOption);
  EXPECT_EQ(handle->extensionLoad(handle, U"qzeavlx", 7, handle->defaultJournal), nullptr);
  EXPECT_EQ(host.defaultJournal().entries().at(0).status, qz::hostNoSuchExtension);
  for (qz::Task* task : {handle->currentTask(handle), handle->mainTask}) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(task->taskWait(task, 0, 0, 0, 0, 30), 0U);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
  }
}

}  // namespace
