#include "support/failures.h"

#include <cerrno>
#include <map>

#include "qzstandin.h"

namespace qztest {

const Failures& failuresOf(Call call) {
  static const Failures reads = {{-1, EIO}, {-1, EINTR}, {-1, EINTR, 3}, {kShort, 0}, {0, 0}};
  static const Failures writes = {{-1, ENOSPC}, {-1, EFBIG}, {-1, EDQUOT}, {-1, EIO},
                                  {-1, EINTR},  {kShort, 0}, {0, 0}};
  static const Failures syncs = {
      {-1, EINTR, 5}, {-1, ETIMEDOUT}, {-1, ETIMEDOUT, 2}, {-1, EIO}, {-1, ENOSPC}};
  static const Failures breaks = {{-1, EIO}};
  static const Failures denials = {{0, 0}};
  static const Failures releases = {{-1, qz::hostForeignBlock}};
  static const Failures closes = {{-1, qz::hostNotRemoved}, {-1, qz::hostCloseFailed}};
  // Every status of an open, and one beyond at either end; a busy file that the last retry opens.
  static const Failures opens = [] {
    Failures all = {{EINVAL, qz::hostBadParameters}, {EAGAIN, qz::hostLocked, kRetries}};
    for (auto status = qz::hostNoMemory - 1; status <= qz::hostUnsupportedFile + 1; ++status)
      all.push_back({EACCES, status});
    return all;
  }();
  static std::map<Call, Failures> failures = {
      {Call::pwrite, writes},      {Call::pread, reads},      {Call::read, reads},
      {Call::readv, reads},        {Call::fsync, syncs},      {Call::lseek, breaks},
      {Call::ftruncate, breaks},   {Call::statfs, breaks},    {Call::memAlloc, denials},
      {Call::treeCreate, denials}, {Call::memFree, releases}, {Call::destroy, releases},
      {Call::fileClose, closes},   {Call::fileOpen, opens},   {Call::fileReopen, opens}};
  return failures[call];
}

}  // namespace qztest
