// System calls on the file, and what their results mean. The only place that includes the system
// headers of file I/O. Each operation decides which calls it retries.
#pragma once

#include <sys/uio.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "qzpos.h"

namespace qz {

// Result of one transfer: bytes moved, or -1 with the error number.
struct Transfer {
  ssize_t result;
  std::int32_t error;  // 0 unless `result` is negative

  [[nodiscard]] bool failed() const { return result < 0; }
};

inline Transfer transferred(ssize_t result) {
  return {.result = result, .error = result < 0 ? errno : 0};
}

inline Transfer readAt(int fd, void* data, std::int32_t bytes, std::int64_t offset) {
  return transferred(pread64(fd, data, static_cast<std::size_t>(bytes), offset));
}

inline Transfer writeAt(int fd, const void* data, std::int32_t bytes, std::int64_t offset) {
  return transferred(pwrite64(fd, data, static_cast<std::size_t>(bytes), offset));
}

// Repeats a transfer for as long as signals interrupt it.
template <class Call>
Transfer retryingEintr(Call call) {
  for (;;) {
    const Transfer transfer = call();
    if (!transfer.failed() || transfer.error != EINTR) return transfer;
  }
}

// The disk, the quota or the file-size limit is exhausted.
inline bool meansNoSpace(std::int32_t error) {
  return error == EFBIG || error == ENOSPC || error == EDQUOT;
}

inline Status statusOfError(std::int32_t error) {
  return meansNoSpace(error) ? Status::noSpace : Status::ioFailed;
}

// A write stores all of its bytes or has failed; a partial one counts as missing space.
inline Status judgeWrite(const Transfer& transfer, std::int32_t wanted) {
  if (transfer.failed()) return statusOfError(transfer.error);
  if (transfer.result == 0) return Status::ioFailed;
  return transfer.result < wanted ? Status::noSpace : Status::ok;
}

// Direct I/O wants memory aligned to this many bytes.
inline constexpr std::uintptr_t kDirectAlignment = 4096;

inline bool isAligned(const void* memory) {
  return reinterpret_cast<std::uintptr_t>(memory) % kDirectAlignment == 0;
}

}  // namespace qz
