// The toolkit's handle, its options, tasks and text converter.
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>

#include "objects.h"
#include "utf.h"

namespace qz {
namespace {

constexpr std::u32string_view kPageSizeOption = U"host.pagesize";

HostStatus optionGet(QZHandle* self, const char32_t* key, std::uint32_t keyLength,
                     std::uint32_t valueType, void* value, std::uint32_t* valueBytes) noexcept {
  const std::optional<std::int32_t>& pageSize = static_cast<HostRecords*>(self)->hostPageSize;
  if (key == nullptr || std::u32string_view(key, keyLength) != kPageSizeOption || !pageSize) {
    return hostUnknownOption;
  }
  if (valueType != kOptionInt32 || *valueBytes < sizeof *pageSize) return hostWrongValueType;
  std::memcpy(value, &*pageSize, sizeof *pageSize);
  *valueBytes = sizeof *pageSize;
  return hostOk;
}

Task* currentTask(QZHandle* self) noexcept { return &static_cast<HostRecords*>(self)->current; }

HostStatus taskWait(Task* /*task*/, Word /*a1*/, Word /*a2*/, Word /*a3*/, std::uint8_t /*flag*/,
                    std::uint32_t waitTime) noexcept {
  timespec left = {static_cast<time_t>(waitTime / 1000),
                   static_cast<long>(waitTime % 1000) * 1'000'000};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
  return hostOk;
}

// Converts whole characters only. hostTextTooLong if not all fit, hostBadText for a character that
// has no UTF-8.
HostStatus convert(Converter* /*converter*/, const char32_t* text, std::size_t textBytes,
                   char* output, std::size_t capacity, Word /*a6*/, Word /*a7*/) noexcept {
  const std::size_t characters = textBytes / sizeof *text;
  char bytes[kUtf8Bytes];  // near the end of the output
  std::size_t used = 0;
  for (std::size_t i = 0; i < characters; ++i) {
    const bool roomy = capacity - used >= kUtf8Bytes;
    const std::size_t length = encodeUtf8(text[i], roomy ? output + used : bytes);
    if (length == 0) return hostBadText;
    if (length > capacity - used) return hostTextTooLong;
    if (!roomy) std::memcpy(output + used, bytes, length);
    used += length;
  }
  return hostOk;
}

HostStatus destroyConverter(Converter* self) noexcept {
  auto* converter = static_cast<Utf8Converter*>(self);
  converter->host->converters.remove(converter);
  return hostOk;
}

Converter* createConverter(EncodingServices* self, Word encoding, Word /*a3*/,
                           Journal* journal) noexcept try {
  if (encoding != kUtf8Encoding) {
    journalStatus(journal, hostNoEncoding);
    return nullptr;
  }
  HostRecords* host = static_cast<Encodings*>(self)->host;
  return host->converters.add(std::make_unique<Utf8Converter>(host));
} catch (const std::bad_alloc&) {
  journalStatus(journal, hostNoMemory);
  return nullptr;
}

HostStatus journalMessage(Journal* journal, std::u32string_view text, ...) noexcept {
  std::va_list arguments;
  va_start(arguments, text);
  const HostStatus status =
      journal->messageToJnl(journal, JournalLevel::error, text.data(),
                            static_cast<std::uint32_t>(text.size()), arguments);
  va_end(arguments);
  return status;
}

}  // namespace

void journalStatus(Journal* journal, HostStatus status, ...) noexcept {
  if (journal == nullptr) return;
  std::va_list none;
  va_start(none, status);
  journal->statusToJnl(journal, JournalLevel::error, status, none);
  va_end(none);
}

void journalFileFailure(Journal* journal, HostStatus status, std::u32string_view fileName,
                        int errorNumber) noexcept try {
  if (journal == nullptr) return;
  const std::u32string what = toUtf32(statusText(status));
  const std::u32string name(fileName);
  const std::u32string reason = toUtf32(std::strerror(errorNumber));
  journalMessage(journal, U"%s [file %s]: %s", what.c_str(), name.c_str(), reason.c_str());
} catch (const std::bad_alloc&) {
  journalStatus(journal, status);
}

Utf8Converter::Utf8Converter(HostRecords* owner) : Converter{}, host(owner) {
  Converter::destroy = destroyConverter;
  Converter::convert = qz::convert;
}

Encodings::Encodings(HostRecords* owner) : EncodingServices{}, host(owner) {
  converterCreate = createConverter;
  systemEncoding = kUtf8Encoding;
}

HostRecords::HostRecords(const StandInOptions& options)
    : QZHandle{},
      hostPageSize(options.hostPageSize),
      journal(options.defaultJournal, options.journalFunction, options.journalContext),
      files(this),
      encodings(this) {
  current.taskWait = taskWait;
  main.taskWait = taskWait;
  poolCreate = createPool;
  extensionLoad = loadExtension;
  QZHandle::currentTask = qz::currentTask;
  QZHandle::optionGet = qz::optionGet;
  defaultJournal = &journal;
  encodingServices = &encodings;
  fileService = &files;
  mainTask = &main;
}

StandInHost::StandInHost(const StandInOptions& options)
    : records_(std::make_unique<HostRecords>(options)) {}

StandInHost::~StandInHost() = default;

QZHandle* StandInHost::handle() noexcept { return records_.get(); }

StandInJournal& StandInHost::defaultJournal() noexcept { return records_->journal; }

void StandInHost::setHostPageSize(std::optional<std::int32_t> bytes) noexcept {
  records_->hostPageSize = bytes;
}

std::size_t StandInHost::liveObjects() const noexcept {
  const HostRecords& records = *records_;
  return records.pools.size() + records.extensions.size() + records.trees.size() +
         records.converters.size() + records.openFiles.size();
}

}  // namespace qz
