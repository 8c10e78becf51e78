// bkperror: one journal entry for a failure, its text followed by the line that names the file.
//
// The journal formats into our buffer; where a text does not fit, the buffer grows in fixed
// steps and the text is formatted again. Nothing here changes the handle.
#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "hostcalls.h"
#include "outcome.h"

namespace qz {
namespace {

constexpr std::uint32_t kStepBytes = 4096;
constexpr int kRetries = 10;

// The report's text and its memory. Refused releases are journalled at the very end, behind the
// report, so that they do not come between a failure and its text.
class ReportText {
 public:
  ReportText(MemoryPool* pool, Journal* journal) : pool_(pool), journal_(journal) {}
  ReportText(const ReportText&) = delete;
  ReportText& operator=(const ReportText&) = delete;
  ~ReportText() {
    freeText(buffer_);
    for (std::size_t i = 0; i < refusedCount_; ++i) journalStatus(journal_, refused_[i]);
  }

  // Formats the status at the start of the text.
  std::uint32_t putStatus(Status status) {
    for (int attempt = 0;; ++attempt) {
      freeText(std::exchange(buffer_, nullptr));
      buffer_ = take(bytes_ + kStepBytes);
      if (buffer_ == nullptr) return code(Status::noMemory);
      bytes_ += kStepBytes;
      std::uint32_t length = 0;
      const std::uint32_t result =
          qzlStatusToBuf(journal_, code(status), buffer_, capacity(), &length);
      if (result == 0) length_ = std::min(length, capacity());
      if (result == 0 || attempt == kRetries) return result;
    }
  }

  // Appends the line that names the file.
  std::uint32_t appendFileName(const char32_t* fileName) {
    for (int attempt = 0;; ++attempt) {
      std::uint32_t length = 0;
      const std::uint32_t result =
          qzlStatusToBuf(journal_, code(Status::fileNameLine), buffer_ + length_,
                         capacity() - length_, &length, fileName);
      if (result == 0) length_ += std::min(length, capacity() - length_);
      if (result == 0 || attempt == kRetries) return result;
      if (!grow()) return code(Status::noMemory);
    }
  }

  std::uint32_t journalIt() {
    return qzlMessageToJnl(journal_, JournalLevel::error, buffer_, length_);
  }

 private:
  [[nodiscard]] std::uint32_t capacity() const {
    return bytes_ / static_cast<std::uint32_t>(sizeof(char32_t));
  }

  char32_t* take(std::uint32_t bytes) {
    return static_cast<char32_t*>(allocate(pool_, bytes, kAsAllocated));
  }

  void freeText(char32_t* buffer) {
    if (buffer == nullptr) return;
    const HostStatus released = freeMemory(pool_, buffer);
    if (released != 0) refused_[refusedCount_++] = released;
  }

  // A larger buffer that begins with the text so far.
  bool grow() {
    char32_t* larger = take(bytes_ + kStepBytes);
    if (larger == nullptr) return false;
    std::memcpy(larger, buffer_, length_ * sizeof(char32_t));
    freeText(std::exchange(buffer_, larger));
    bytes_ += kStepBytes;
    return true;
  }

  MemoryPool* pool_;
  Journal* journal_;
  char32_t* buffer_ = nullptr;
  std::uint32_t bytes_ = 0;
  std::uint32_t length_ = 0;  // characters
  std::array<HostStatus, 2 * kRetries + 1> refused_ = {};
  std::size_t refusedCount_ = 0;
};

}  // namespace

std::uint32_t bkperror(FileHandle* h, Status status, Journal* journal) {
  if (journal == nullptr) return 0;
  ReportText text(h->module->modulePool, journal);
  std::uint32_t result = text.putStatus(status);
  if (result == 0) result = text.appendFileName(h->fileName);
  if (result == 0) result = text.journalIt();
  return result;
}

}  // namespace qz
