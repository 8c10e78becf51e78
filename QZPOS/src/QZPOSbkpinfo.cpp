// qzpinfo: page-size limits from the host's page size, and the direct-I/O verdict from the file
// system that holds the file. It runs before the file is opened, and needs no more than its name.
#include <cstring>
#include <iterator>

#include "hostcalls.h"
#include "io.h"
#include "outcome.h"
#include "pages.h"

namespace qz {
namespace {

constexpr std::int32_t kBasePageSize = 4096;
constexpr std::int32_t kMinPageSize = 512;
constexpr std::int32_t kMaxPageSize = 0x40000000;
constexpr std::int32_t kAutoLimit = 0x10000;
constexpr std::int32_t kLargeAutoLimit = 0x40000;
constexpr std::int64_t kNfsMagic = 0x6969;

std::int32_t optionPageSize() {
  QZHandle* host = Exported_QZHandle;
  if (host == nullptr) return kBasePageSize;
  constexpr char32_t key[] = U"host.pagesize";
  std::int32_t value = kBasePageSize;
  std::uint32_t valueBytes = sizeof value;
  const HostStatus missing =
      host->optionGet(host, key, std::size(key) - 1, kOptionInt32, &value, &valueBytes);
  return missing == 0 ? value : kBasePageSize;
}

// Cuts a path to its directory, in place; "." when it has none.
const char* directoryOf(char* path) {
  char* slash = std::strrchr(path, '/');
  if (slash == nullptr) return ".";
  *(slash == path ? slash + 1 : slash) = '\0';
  return path;
}

void testFileSystem(FileHandle* h, const char* directory) {
  std::memset(h->fsTypeName, 0, sizeof(std::uint32_t));
  h->directIoSupport = directIoFit;
  struct statfs64 fileSystem = {};
  if (statfs64(directory, &fileSystem) == -1) {
    h->directIoSupport = directIoTestFailed;
  } else if (fileSystem.f_type == kNfsMagic) {
    h->directIoSupport = directIoNfs;
    std::memcpy(h->fsTypeName, "nfs", sizeof "nfs");
  } else {
    std::memcpy(h->fsTypeName, "linux", sizeof "linux");
  }
}

// The buffer is cleared before the conversion, so that a name whose characters take several bytes
// each is terminated wherever it ends.
void judgeDirectIo(FileHandle* h) {
  ExtensionObject* module = h->module;
  const std::size_t textBytes = std::size_t{h->fileNameLength} * sizeof(char32_t);
  const std::size_t bufferBytes = textBytes + sizeof(char32_t);
  h->directIoSupport = directIoFit;
  auto* path = static_cast<char*>(allocate(module->modulePool, bufferBytes, kAsAllocated));
  if (path == nullptr) {
    h->directIoSupport = directIoNoMemory;
    return;
  }
  std::memset(path, 0, bufferBytes);
  module->converter->convert(module->converter, h->fileName, textBytes, path, textBytes, 0, 0);
  testFileSystem(h, directoryOf(path));
  freeMemory(module->modulePool, path);
}

void settlePageSizes(FileHandle* h, std::int32_t hostPageSize) {
  h->minPageSize = kMinPageSize;
  h->maxPageSize = kMaxPageSize;
  h->defaultPageSize = std::max(hostPageSize, kBasePageSize);
  h->autoPageSizeLimit = hostPageSize >= kAutoLimit ? kLargeAutoLimit : kAutoLimit;
  h->hostPageSize = hostPageSize;
}

}  // namespace
}  // namespace qz

qz::Status qzpinfo(qz::FileHandle* h, qz::Journal* /*journal*/) noexcept {
  using namespace qz;
  if (h->fileName == nullptr) return Status::noFileName;
  // An option that gives no usable size counts as absent.
  const std::int32_t hostPageSize =
      commonSize(optionPageSize(), kBasePageSize).value_or(kBasePageSize);
  judgeDirectIo(h);
  settlePageSizes(h, hostPageSize);
  return Status::ok;
}
