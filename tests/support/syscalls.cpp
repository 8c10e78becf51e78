#include "support/syscalls.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <link.h>
#include <sys/uio.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace qztest {

namespace {

struct Range {
  const void* address;
  const void* begin;
  const void* end;
};

int findLibrary(dl_phdr_info* info, std::size_t /*size*/, void* data) {
  auto* range = static_cast<Range*>(data);
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const auto& header = info->dlpi_phdr[i];
    if (header.p_type != PT_LOAD || (header.p_flags & PF_X) == 0) continue;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): load addresses come as numbers
    const auto* begin = reinterpret_cast<const char*>(info->dlpi_addr + header.p_vaddr);
    if (range->address >= begin && range->address < begin + header.p_memsz) {
      range->begin = begin;
      range->end = begin + header.p_memsz;
      return 1;
    }
  }
  return 0;
}

// The C library's function behind one that this program defines.
template <class Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// One system call of the module: fails it as planned, or makes it, and records it.
// `make(bytes)` makes the call with that many bytes.
template <class Make>
auto systemCall(CallRecord record, bool misaligned, Make make) {
  const Fault* fault = calls().next(record.call);
  using Result = decltype(make(std::size_t{}));
  Result result = 0;
  if (fault != nullptr && fault->result != kShort) {
    result = static_cast<Result>(fault->result);
    errno = static_cast<int>(fault->error);
  } else if (misaligned) {
    result = -1;
    errno = EINVAL;
  } else {
    result =
        make(static_cast<std::size_t>(fault != nullptr ? (record.length + 1) / 2 : record.length));
  }
  record.result = result;
  record.error = result == -1 ? errno : 0;
  calls().record(record);
  errno = record.error != 0 ? record.error : errno;
  return result;
}

}  // namespace

Calls& calls() {
  static Calls instance;
  return instance;
}

const char* nameOf(Call call) {
  static const char* const names[] = {
      "pread",         "pwrite",          "read",       "readv",     "lseek",
      "ftruncate",     "fsync",           "statfs",     "getenv",    "poolCreate",
      "extensionLoad", "converterCreate", "treeCreate", "memAlloc",  "memFree",
      "destroy",       "fileOpen",        "fileReopen", "fileClose", "taskWait"};
  static_assert(std::size(names) == static_cast<std::size_t>(Call::count));
  return names[static_cast<int>(call)];
}

void Calls::watch(const void* address) {
  Range range{address, nullptr, nullptr};
  if (address != nullptr) dl_iterate_phdr(findLibrary, &range);
  begin_ = range.begin;
  end_ = range.end;
}

void Calls::plan(std::vector<Fault> faults) {
  faults_ = std::move(faults);
  faultsMet_ = 0;
  std::fill(std::begin(made_), std::end(made_), 0);
}

const Fault* Calls::next(Call call) {
  if (faults_.empty()) return nullptr;
  const int number = ++made_[static_cast<int>(call)];
  for (const Fault& fault : faults_) {
    if (fault.call == call && number >= fault.nth && number - fault.nth < fault.count) {
      ++faultsMet_;
      return &fault;
    }
  }
  return nullptr;
}

int Calls::count(Call call) const {
  return static_cast<int>(std::count_if(
      trace_.begin(), trace_.end(), [call](const auto& record) { return record.call == call; }));
}

const CallRecord& Calls::at(Call call, int place) const {
  static const CallRecord none{};
  for (const CallRecord& record : trace_)
    if (record.call == call && place-- == 0) return record;
  return none;
}

bool Calls::isMisaligned(const void* memory, std::int64_t length, std::int64_t offset) const {
  return alignment_ != 0 &&
         (reinterpret_cast<std::uintptr_t>(memory) | static_cast<std::uint64_t>(length) |
          static_cast<std::uint64_t>(offset)) %
                 alignment_ !=
             0;
}

std::string Calls::io() const {
  std::string text;
  for (const CallRecord& record : trace_) {
    if (record.call > Call::lastSystemCall) continue;
    const bool transfers = record.call <= Call::readv;
    const bool positioned = record.call != Call::fsync && record.call != Call::statfs &&
                            record.call != Call::read && record.call != Call::readv;
    text += (text.empty() ? "" : " ") + std::string(nameOf(record.call));
    if (transfers) text += " " + std::to_string(record.length);
    if (positioned) text += (transfers ? "@" : " ") + std::to_string(record.offset);
    if (record.result == -1) {
      text += "!" + std::to_string(record.error);
    } else if (transfers && record.call != Call::readv && record.result != record.length) {
      text += "=" + std::to_string(record.result);
    }
  }
  return text;
}

std::string Calls::hostCalls() const {
  std::string text;
  for (const CallRecord& record : trace_) {
    if (record.call <= Call::environment) continue;
    const bool creates = record.call >= Call::poolCreate && record.call <= Call::memAlloc;
    text += (text.empty() ? "" : " ") + std::string(nameOf(record.call));
    if (creates || record.call == Call::memFree || record.call == Call::destroy)
      text += std::string(":") + static_cast<char>(record.target);
    if (record.call == Call::memAlloc) {
      text += std::to_string(record.length) + (record.offset != 0 ? "z" : "");
    } else if (record.call == Call::taskWait) {
      text += ":" + std::to_string(record.length);
    } else if (record.call == Call::fileClose && record.flags != 0) {
      text += ":remove";
    } else if (record.call == Call::fileOpen || record.call == Call::fileReopen) {
      text += fmt::format(":{:x}@{}", record.flags, record.offset);
    }
    text += (record.result == 0) == creates ? "!" : "";
  }
  return text;
}

}  // namespace qztest

using qztest::Call;
using qztest::calls;
using qztest::real;
using qztest::systemCall;

// The explicit 64-bit names and the plain ones: a plain build for x86-64 may import either.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define CALLED_BY_MODULE calls().isWatched(__builtin_return_address(0))

#define QZTEST_TRANSFER(name, memory_type, offset_type, kind)                                    \
  ssize_t name(int fd, memory_type* data, std::size_t bytes, offset_type offset) {               \
    static auto* const next = real<ssize_t(int, memory_type*, std::size_t, offset_type)>(#name); \
    if (!CALLED_BY_MODULE) return next(fd, data, bytes, offset);                                 \
    const auto length = static_cast<std::int64_t>(bytes);                                        \
    return systemCall({kind, fd, length, offset, 0, 0, 0},                                       \
                      calls().isMisaligned(data, length, offset),                                \
                      [&](std::size_t count) { return next(fd, data, count, offset); });         \
  }

#define QZTEST_SEEK(name, offset_type)                                         \
  offset_type name(int fd, offset_type offset, int whence) noexcept {          \
    static auto* const next = real<offset_type(int, offset_type, int)>(#name); \
    if (!CALLED_BY_MODULE) return next(fd, offset, whence);                    \
    return systemCall({Call::lseek, fd, 0, offset, 0, 0, 0}, false,            \
                      [&](std::size_t) { return next(fd, offset, whence); });  \
  }

#define QZTEST_FTRUNCATE(name, offset_type)                            \
  int name(int fd, offset_type bytes) noexcept {                       \
    static auto* const next = real<int(int, offset_type)>(#name);      \
    if (!CALLED_BY_MODULE) return next(fd, bytes);                     \
    return systemCall({Call::ftruncate, fd, 0, bytes, 0, 0, 0}, false, \
                      [&](std::size_t) { return next(fd, bytes); });   \
  }

#define QZTEST_STATFS(name, record_type)                                          \
  int name(const char* path, record_type* out) noexcept {                         \
    static auto* const next = real<int(const char*, record_type*)>(#name);        \
    if (!CALLED_BY_MODULE) return next(path, out);                                \
    calls().statfsPath = path;                                                    \
    return systemCall({Call::statfs, 0, 0, 0, 0, 0, 0}, false, [&](std::size_t) { \
      const int result = next(path, out);                                         \
      if (calls().fileSystemType != 0) {                                          \
        out->f_type = static_cast<decltype(out->f_type)>(calls().fileSystemType); \
      }                                                                           \
      return result;                                                              \
    });                                                                           \
  }
// NOLINTEND(bugprone-macro-parentheses)

extern "C" {

QZTEST_TRANSFER(pread, void, off_t, Call::pread)
QZTEST_TRANSFER(pread64, void, off64_t, Call::pread)
QZTEST_TRANSFER(pwrite, const void, off_t, Call::pwrite)
QZTEST_TRANSFER(pwrite64, const void, off64_t, Call::pwrite)
QZTEST_SEEK(lseek, off_t)
QZTEST_SEEK(lseek64, off64_t)
QZTEST_FTRUNCATE(ftruncate, off_t)
QZTEST_FTRUNCATE(ftruncate64, off64_t)
QZTEST_STATFS(statfs, struct statfs)
QZTEST_STATFS(statfs64, struct statfs64)

ssize_t read(int fd, void* data, std::size_t bytes) {
  static auto* const next = real<ssize_t(int, void*, std::size_t)>("read");
  if (!CALLED_BY_MODULE) return next(fd, data, bytes);
  const auto length = static_cast<std::int64_t>(bytes);
  return systemCall({Call::read, fd, length, 0, 0, 0, 0}, calls().isMisaligned(data, 0, 0),
                    [&](std::size_t count) { return next(fd, data, count); });
}

// A short result ends inside the vector: half of its entries.
ssize_t readv(int fd, const iovec* vector, int entries) {
  static auto* const next = real<ssize_t(int, const iovec*, int)>("readv");
  if (!CALLED_BY_MODULE) return next(fd, vector, entries);
  return systemCall({Call::readv, fd, entries, 0, 0, 0, 0}, false,
                    [&](std::size_t count) { return next(fd, vector, static_cast<int>(count)); });
}

int fsync(int fd) {
  static auto* const next = real<int(int)>("fsync");
  if (!CALLED_BY_MODULE) return next(fd);
  return systemCall({Call::fsync, fd, 0, 0, 0, 0, 0}, false, [&](std::size_t) { return next(fd); });
}

#ifndef __SANITIZE_ADDRESS__
// NOLINTNEXTLINE(bugprone-reserved-identifier): what the C library calls it
void* __libc_calloc(std::size_t count, std::size_t bytes);

void* calloc(std::size_t count, std::size_t bytes) noexcept {
  if (!CALLED_BY_MODULE) return __libc_calloc(count, bytes);
  ++calls().ownAllocations;
  return calls().refuseOwnMemory ? nullptr : __libc_calloc(count, bytes);
}
#endif

char* getenv(const char* name) noexcept {
  static auto* const next = real<char*(const char*)>("getenv");
  if (CALLED_BY_MODULE) calls().record({Call::environment, 0, 0, 0, 0, 0, 0});
  return next(name);
}
}
