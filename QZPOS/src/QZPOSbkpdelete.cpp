// qzpdelete: removes the named file, by opening it and having the host remove it at the close.
#include "hostcalls.h"
#include "outcome.h"

namespace qz {
namespace {

constexpr std::uint32_t kAccessMode = 5;          // writing, exclusive
constexpr std::uint32_t kAccessModeVariant = 37;  // the same without locks

Status removeFile(FileHandle* h, Journal* journal) {
  OpenParameters parameters = {};
  parameters.fileName = h->fileName;
  parameters.fileNameLength = h->fileNameLength;
  parameters.permissions = kFilePermissions;
  parameters.openFlags = openflag::readWrite;
  const bool variant = (h->openOptions & optionAccessVariant) != 0;
  FileService* service = h->module->host->fileService;
  HostStatus hostStatus = 0;
  h->hostFile = service->fileOpen(service, &parameters, 1,
                                  variant ? kAccessModeVariant : kAccessMode, journal, &hostStatus);
  if (hostStatus != 0 || h->hostFile == nullptr) {
    journalWithName(journal, Status::cannotRemoveReport, *h);
    return Status::notRemoved;
  }
  parameters.removeAtClose = 1;
  if (closeHostFile(h->hostFile, &parameters, journal) != 0) {
    // If the caller closes the handle now, the close must not take the file for empty.
    h->sizeUnknown = 1;
    return Status::notRemoved;
  }
  h->hostFile = nullptr;
  h->pageCount = 0;
  h->fileSize = 0;
  return Status::ok;
}

}  // namespace
}  // namespace qz

qz::Status qzpdelete(qz::FileHandle* h, qz::Journal* journal) noexcept {
  using namespace qz;
  if (h->hostFile != nullptr) return Status::deleteWhileOpen;
  if (h->fileName == nullptr) return Status::noFileName;
  return removeFile(h, journal);
}
