#include "support/syscalls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/uio.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "qzstandin.h"
#include "support/names.h"

namespace qztest {

namespace {

// The C library's function behind one that this program defines.
template <class Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// Makes a system call with `make(length)`. A call by the module, which its return address shows, is
// recorded, and fails where a fault is planned for it.
template <class Make>
auto systemCall(const void* caller, CallRecord record, bool misaligned, Make make) {
  const auto length = static_cast<std::size_t>(record.length);
  if (!calls().isWatched(caller)) return make(length);
  const Fault* fault = calls().next(record.call);
  decltype(make(length)) result = -1;
  if (fault != nullptr && fault->result != kShort) {
    result = static_cast<decltype(result)>(fault->result);
    errno = static_cast<int>(fault->error);
  } else if (misaligned) {
    errno = EINVAL;
  } else {
    result = make(fault != nullptr ? (length + 1) / 2 : length);
  }
  const int error = errno;
  record.result = result;
  record.error = result == -1 ? error : 0;
  calls().record(record);
  errno = error;
  return result;
}

}  // namespace

Calls& calls() {
  static Calls instance;
  return instance;
}

const char* nameOf(Call call) {
  static const char* const names[] = {
      "read",          "readv",           "pread",      "pwrite",    "lseek",
      "ftruncate",     "fsync",           "statfs",     "getenv",    "poolCreate",
      "extensionLoad", "converterCreate", "treeCreate", "memAlloc",  "memFree",
      "destroy",       "fileOpen",        "fileReopen", "fileClose", "taskWait"};
  static_assert(std::size(names) == static_cast<std::size_t>(Call::count));
  return names[static_cast<int>(call)];
}

void Calls::watch(void* address) {
  dl_find_object library{};
  _dl_find_object(address, &library);
  begin_ = library.dlfo_map_start;
  end_ = library.dlfo_map_end;
}

void Calls::plan(std::vector<Fault> faults) {
  faults_ = std::move(faults);
  std::fill(std::begin(made_), std::end(made_), 0);
}

const Fault* Calls::next(Call call) {
  if (faults_.empty()) return nullptr;
  const int number = ++made_[static_cast<int>(call)];
  const auto fault = std::ranges::find_if(faults_, [&](const Fault& planned) {
    return planned.call == call && number >= planned.nth && number - planned.nth < planned.count;
  });
  return fault != faults_.end() ? &*fault : nullptr;
}

int Calls::count(Call call) const {
  return static_cast<int>(std::ranges::count(trace_, call, &CallRecord::call));
}

const CallRecord& Calls::at(Call call, int place) const {
  static const CallRecord none{};
  for (const CallRecord& record : trace_)
    if (record.call == call && place-- == 0) return record;
  return none;
}

bool Calls::isMisaligned(const void* memory, const CallRecord& transfer) const {
  const auto numbers = reinterpret_cast<std::uintptr_t>(memory) |
                       static_cast<std::uint64_t>(transfer.length | transfer.offset);
  return alignment_ != 0 && numbers % alignment_ != 0;
}

std::string Calls::io() const {
  std::string text;
  for (const CallRecord& record : trace_) {
    if (record.call > Call::lastSystemCall) continue;
    const bool transfers = record.call <= Call::pwrite;
    const bool positioned = record.call >= Call::pread && record.call <= Call::ftruncate;
    text += (text.empty() ? "" : ", ") + std::string(nameOf(record.call));
    if (transfers) text += " " + std::to_string(record.length);
    if (positioned) text += (transfers ? " at " : " ") + std::to_string(record.offset);
    if (record.result == -1) {
      text += " fails with " + nameOfError(record.error);
    } else if (transfers && record.call != Call::readv && record.result != record.length) {
      text += " moves " + std::to_string(record.result);
    }
  }
  return text;
}

namespace {

using Bits = std::vector<std::pair<std::int64_t, const char*>>;

// The names of the bits that are set, joined by "+"; bits without a name as one number.
std::string namesOfBits(std::int64_t value, const Bits& bits) {
  std::vector<std::string> names;
  for (const auto& [bit, name] : bits) {
    if ((value & bit) == 0) continue;
    names.emplace_back(name);
    value &= ~bit;
  }
  if (value != 0) names.push_back(fmt::format("{:#x}", value));
  return fmt::format("{}", fmt::join(names, "+"));
}

std::string openFlags(std::uint32_t flags) {
  const char* const access[] = {"O_RDONLY", "O_WRONLY", "O_RDWR", "O_ACCMODE"};
  const std::string others = namesOfBits(flags & ~std::uint32_t{O_ACCMODE},
                                         {{O_CREAT, "O_CREAT"}, {O_DIRECT, "O_DIRECT"}});
  return access[flags & O_ACCMODE] + (others.empty() ? "" : "+" + others);
}

std::string accessMode(std::int64_t mode) {
  return namesOfBits(mode, {{qz::accessWrite, "write"},
                            {qz::accessRead, "read"},
                            {qz::accessExclusive, "exclusive"},
                            {qz::accessShared, "shared"},
                            {qz::accessNoLock, "noLock"}});
}

}  // namespace

std::string Calls::hostCalls() const {
  static const char* const objects[] = {"modulePool", "bufferPool", "extension", "converter",
                                        "tree"};
  std::string text;
  for (const CallRecord& record : trace_) {
    const Call call = record.call;
    if (call <= Call::environment) continue;
    text += (text.empty() ? "" : ", ") + std::string(nameOf(call));
    if (call == Call::memAlloc) {
      text += fmt::format(" {} {}{}", objects[record.target], record.length,
                          record.offset != 0 ? " zeroed" : "");
    } else if (call == Call::poolCreate || call == Call::memFree || call == Call::destroy) {
      text += fmt::format(" {}", objects[record.target]);
    } else if (call == Call::taskWait) {
      text += fmt::format(" {}", record.length);
    } else if (call == Call::fileClose && record.flags != 0) {
      text += " remove";
    } else if (call == Call::fileOpen || call == Call::fileReopen) {
      text += fmt::format(" {} for {}", openFlags(record.flags), accessMode(record.offset));
    }
    const bool creates = call >= Call::poolCreate && call <= Call::memAlloc;
    text += (record.result == 0) == creates ? " fails" : "";
  }
  return text;
}

}  // namespace qztest

using qztest::Call;
using qztest::CallRecord;
using qztest::calls;
using qztest::real;
using qztest::systemCall;

// The names that the module imports, on every platform: those with explicit 64-bit offsets.
extern "C" {

ssize_t pread64(int fd, void* data, std::size_t bytes, off64_t offset) {
  static auto* const next = real<ssize_t(int, void*, std::size_t, off64_t)>("pread64");
  const CallRecord record{Call::pread, fd, static_cast<std::int64_t>(bytes), offset};
  return systemCall(__builtin_return_address(0), record, calls().isMisaligned(data, record),
                    [&](std::size_t length) { return next(fd, data, length, offset); });
}

ssize_t pwrite64(int fd, const void* data, std::size_t bytes, off64_t offset) {
  static auto* const next = real<ssize_t(int, const void*, std::size_t, off64_t)>("pwrite64");
  const CallRecord record{Call::pwrite, fd, static_cast<std::int64_t>(bytes), offset};
  return systemCall(__builtin_return_address(0), record, calls().isMisaligned(data, record),
                    [&](std::size_t length) { return next(fd, data, length, offset); });
}

ssize_t read(int fd, void* data, std::size_t bytes) {
  static auto* const next = real<ssize_t(int, void*, std::size_t)>("read");
  const CallRecord record{Call::read, fd, static_cast<std::int64_t>(bytes)};
  return systemCall(__builtin_return_address(0), record, calls().isMisaligned(data, {Call::read}),
                    [&](std::size_t length) { return next(fd, data, length); });
}

// A short result ends inside the vector: half of its entries.
ssize_t readv(int fd, const iovec* vector, int entries) {
  static auto* const next = real<ssize_t(int, const iovec*, int)>("readv");
  return systemCall(__builtin_return_address(0), {Call::readv, fd, entries}, false,
                    [&](std::size_t count) { return next(fd, vector, static_cast<int>(count)); });
}

off64_t lseek64(int fd, off64_t offset, int whence) noexcept {
  static auto* const next = real<off64_t(int, off64_t, int)>("lseek64");
  return systemCall(__builtin_return_address(0), {Call::lseek, fd, 0, offset}, false,
                    [&](std::size_t) { return next(fd, offset, whence); });
}

int ftruncate64(int fd, off64_t bytes) noexcept {
  static auto* const next = real<int(int, off64_t)>("ftruncate64");
  return systemCall(__builtin_return_address(0), {Call::ftruncate, fd, 0, bytes}, false,
                    [&](std::size_t) { return next(fd, bytes); });
}

int fsync(int fd) {
  static auto* const next = real<int(int)>("fsync");
  return systemCall(__builtin_return_address(0), {Call::fsync, fd}, false,
                    [&](std::size_t) { return next(fd); });
}

int statfs64(const char* path, struct statfs64* out) noexcept {
  static auto* const next = real<int(const char*, struct statfs64*)>("statfs64");
  return systemCall(__builtin_return_address(0), {Call::statfs}, false, [&](std::size_t) {
    const int result = next(path, out);
    calls().statfsPath = path;
    if (calls().fileSystemType != 0) out->f_type = static_cast<int>(calls().fileSystemType);
    return result;
  });
}

#ifndef __SANITIZE_ADDRESS__
// NOLINTNEXTLINE(bugprone-reserved-identifier): what the C library calls it
void* __libc_calloc(std::size_t count, std::size_t bytes);

void* calloc(std::size_t count, std::size_t bytes) noexcept {
  if (!calls().isWatched(__builtin_return_address(0))) return __libc_calloc(count, bytes);
  const bool given = calls().ownAllocations++ < calls().ownAllocationsGiven;
  return given ? __libc_calloc(count, bytes) : nullptr;
}
#endif

char* getenv(const char* name) noexcept {
  static auto* const next = real<char*(const char*)>("getenv");
  if (calls().isWatched(__builtin_return_address(0))) calls().record({Call::environment});
  return next(name);
}
}
