// The four journal functions: each turns its variadic rest into an argument list and forwards it.
#include "qzhost.h"

qz::HostStatus qzlMessageToBuf(qz::Journal* journal, qz::Word a1, qz::Word a2, qz::Word a3,
                               qz::Word a4, qz::Word a5, ...) noexcept {
  std::va_list arguments;
  va_start(arguments, a5);
  const qz::HostStatus status = journal->messageToBuf(journal, a1, a2, a3, a4, a5, arguments);
  va_end(arguments);
  return status;
}

qz::HostStatus qzlMessageToJnl(qz::Journal* journal, qz::JournalLevel level, const char32_t* text,
                               std::uint32_t textLength, ...) noexcept {
  std::va_list arguments;
  va_start(arguments, textLength);
  const qz::HostStatus status = journal->messageToJnl(journal, level, text, textLength, arguments);
  va_end(arguments);
  return status;
}

qz::HostStatus qzlStatusToBuf(qz::Journal* journal, std::uint32_t status, char32_t* buffer,
                              std::uint32_t capacity, std::uint32_t* lengthOut, ...) noexcept {
  std::va_list arguments;
  va_start(arguments, lengthOut);
  const qz::HostStatus result =
      journal->statusToBuf(journal, status, buffer, capacity, lengthOut, arguments);
  va_end(arguments);
  return result;
}

qz::HostStatus qzlStatusToJnl(qz::Journal* journal, qz::JournalLevel level, std::uint32_t status,
                              ...) noexcept {
  std::va_list arguments;
  va_start(arguments, status);
  const qz::HostStatus result = journal->statusToJnl(journal, level, status, arguments);
  va_end(arguments);
  return result;
}
