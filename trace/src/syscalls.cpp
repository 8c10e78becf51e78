#include "syscalls.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "recorder.h"

namespace qz::trace {
namespace {

// --- The functions that the module calls instead

struct Originals {
  decltype(&::pread64) pread64;
  decltype(&::pwrite64) pwrite64;
  decltype(&::read) read;
  decltype(&::readv) readv;
  decltype(&::lseek64) lseek64;
  decltype(&::ftruncate64) ftruncate64;
  decltype(&::fsync) fsync;
  decltype(&::statfs64) statfs64;
};
Originals originals;

void addTransfer(Text* text, int fd, std::size_t bytes, off64_t offset) {
  text->field("fd", fd);
  text->field("bytes", bytes);
  text->field("offset", offset);
}

ssize_t recordedPread64(int fd, void* data, std::size_t bytes, off64_t offset) {
  return recordCall(
      "pread64", [&](Text& text) { addTransfer(&text, fd, bytes, offset); },
      [&] { return originals.pread64(fd, data, bytes, offset); });
}

ssize_t recordedPwrite64(int fd, const void* data, std::size_t bytes, off64_t offset) {
  return recordCall(
      "pwrite64", [&](Text& text) { addTransfer(&text, fd, bytes, offset); },
      [&] { return originals.pwrite64(fd, data, bytes, offset); });
}

ssize_t recordedRead(int fd, void* data, std::size_t bytes) {
  return recordCall(
      "read",
      [&](Text& text) {
        text.field("fd", fd);
        text.field("bytes", bytes);
      },
      [&] { return originals.read(fd, data, bytes); });
}

ssize_t recordedReadv(int fd, const iovec* vector, int entries) {
  return recordCall(
      "readv",
      [&](Text& text) {
        std::size_t bytes = 0;
        for (int i = 0; i < entries; ++i) bytes += vector[i].iov_len;
        text.field("fd", fd);
        text.field("bytes", bytes);
        text.field("entries", entries);
      },
      [&] { return originals.readv(fd, vector, entries); });
}

off64_t recordedLseek64(int fd, off64_t offset, int whence) noexcept {
  return recordCall(
      "lseek64",
      [&](Text& text) {
        text.field("fd", fd);
        text.field("offset", offset);
      },
      [&] { return originals.lseek64(fd, offset, whence); });
}

int recordedFtruncate64(int fd, off64_t bytes) noexcept {
  return recordCall(
      "ftruncate64",
      [&](Text& text) {
        text.field("fd", fd);
        text.field("bytes", bytes);
      },
      [&] { return originals.ftruncate64(fd, bytes); });
}

int recordedFsync(int fd) {
  return recordCall(
      "fsync", [&](Text& text) { text.field("fd", fd); }, [&] { return originals.fsync(fd); });
}

int recordedStatfs64(const char* path, struct statfs64* out) noexcept {
  return recordCall(
      "statfs64",
      [&](Text& text) {
        text.key("path");
        text.string(path);
      },
      [&] { return originals.statfs64(path, out); });
}

struct Redirection {
  const char* name;
  void* recorded;
  void** original;
};

template <class Function>
Redirection redirection(const char* name, Function* recorded, Function** original) {
  return {name, reinterpret_cast<void*>(recorded), reinterpret_cast<void**>(original)};
}

// --- Redirecting the module's calls

using Dynamic = ElfW(Dyn);
using Symbol = ElfW(Sym);
#if __SIZEOF_POINTER__ == 8
using Relocation = ElfW(Rela);
constexpr auto kRelocations = DT_RELA;
constexpr auto kRelocationBytes = DT_RELASZ;
constexpr std::size_t symbolOf(const Relocation& r) { return ELF64_R_SYM(r.r_info); }
constexpr unsigned typeOf(const Relocation& r) { return ELF64_R_TYPE(r.r_info); }
constexpr unsigned kCallSlot = R_X86_64_JUMP_SLOT;
constexpr unsigned kAddressSlot = R_X86_64_GLOB_DAT;
#else
using Relocation = ElfW(Rel);
constexpr auto kRelocations = DT_REL;
constexpr auto kRelocationBytes = DT_RELSZ;
constexpr std::size_t symbolOf(const Relocation& r) { return ELF32_R_SYM(r.r_info); }
constexpr unsigned typeOf(const Relocation& r) { return ELF32_R_TYPE(r.r_info); }
constexpr unsigned kCallSlot = R_386_JMP_SLOT;
constexpr unsigned kAddressSlot = R_386_GLOB_DAT;
#endif

// The loader makes the library's slots read-only after it has filled them.
void store(void** slot, void* value) {
  const auto pageBytes = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  char* page = reinterpret_cast<char*>(slot) - reinterpret_cast<std::uintptr_t>(slot) % pageBytes;
  if (mprotect(page, pageBytes, PROT_READ | PROT_WRITE) != 0) return;
  __atomic_store_n(slot, value, __ATOMIC_RELEASE);
  mprotect(page, pageBytes, PROT_READ);
}

// The loader's records store addresses as numbers.
void* pointer(std::uintptr_t address) {
  return reinterpret_cast<void*>(address);  // NOLINT(performance-no-int-to-ptr)
}

class Slots {
 public:
  explicit Slots(const link_map& map) : base_(map.l_addr) {
    for (const Dynamic* entry = map.l_ld; entry->d_tag != DT_NULL; ++entry) note(*entry);
  }

  void redirect(const Redirection& to) const {
    redirectIn(calls_, callBytes_, to);
    redirectIn(others_, otherBytes_, to);
  }

 private:
  void note(const Dynamic& entry) {
    const void* address = pointer(entry.d_un.d_ptr);
    if (entry.d_tag == DT_SYMTAB) symbols_ = static_cast<const Symbol*>(address);
    if (entry.d_tag == DT_STRTAB) names_ = static_cast<const char*>(address);
    if (entry.d_tag == DT_JMPREL) calls_ = static_cast<const Relocation*>(address);
    if (entry.d_tag == DT_PLTRELSZ) callBytes_ = entry.d_un.d_val;
    if (entry.d_tag == kRelocations) others_ = static_cast<const Relocation*>(address);
    if (entry.d_tag == kRelocationBytes) otherBytes_ = entry.d_un.d_val;
  }

  void redirectIn(const Relocation* table, std::size_t bytes, const Redirection& to) const {
    if (symbols_ == nullptr || names_ == nullptr) return;
    for (std::size_t i = 0; table != nullptr && i < bytes / sizeof *table; ++i) {
      const unsigned type = typeOf(table[i]);
      if (type != kCallSlot && type != kAddressSlot) continue;
      if (std::strcmp(names_ + symbols_[symbolOf(table[i])].st_name, to.name) != 0) continue;
      auto** const slot = static_cast<void**>(pointer(base_ + table[i].r_offset));
      *to.original = *slot;
      store(slot, to.recorded);
    }
  }

  std::uintptr_t base_;
  const Symbol* symbols_ = nullptr;
  const char* names_ = nullptr;
  const Relocation* calls_ = nullptr;
  std::size_t callBytes_ = 0;
  const Relocation* others_ = nullptr;
  std::size_t otherBytes_ = 0;
};

}  // namespace

void redirectSystemCalls(void* library) {
  link_map* map = nullptr;
  if (dlinfo(library, RTLD_DI_LINKMAP, &map) != 0) return;
  const Slots slots(*map);
  const Redirection redirections[] = {
      redirection("pread64", recordedPread64, &originals.pread64),
      redirection("pwrite64", recordedPwrite64, &originals.pwrite64),
      redirection("read", recordedRead, &originals.read),
      redirection("readv", recordedReadv, &originals.readv),
      redirection("lseek64", recordedLseek64, &originals.lseek64),
      redirection("ftruncate64", recordedFtruncate64, &originals.ftruncate64),
      redirection("fsync", recordedFsync, &originals.fsync),
      redirection("statfs64", recordedStatfs64, &originals.statfs64),
  };
  for (const Redirection& to : redirections) slots.redirect(to);
}

}  // namespace qz::trace
