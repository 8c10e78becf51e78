#include "support/names.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "qzpos.h"
#include "qzstandin.h"

namespace qztest {

namespace {

using qz::Status;
using Names = std::map<std::string, std::int64_t>;

#define NAME(name)   \
  case Status::name: \
    return #name

// The name of a module code, null for any other status. With a switch the compiler reports a code
// that has no name here.
const char* nameOfCode(Status status) {
  switch (status) {
    NAME(ok);
    NAME(noMemory);
    NAME(badArgument);
    NAME(fileNotFound);
    NAME(accessRefused);
    NAME(isDirectory);
    NAME(noHeaderYet);
    NAME(noFileName);
    NAME(noDescriptor);
    NAME(busy);
    NAME(ioFailed);
    NAME(notRemoved);
    NAME(inexactPageSize);
    NAME(endOfFile);
    NAME(pageOutOfRange);
    NAME(noBuffer);
    NAME(notWritable);
    NAME(noSpace);
    NAME(readOnlyFileSystem);
    NAME(buffersMissing);
    NAME(readOutOfSequence);
    NAME(notHeld);
    NAME(writeOutOfSequence);
    NAME(shorterThanHeader);
    NAME(misfit);
    NAME(wrongLength);
    NAME(notTruncated);
    NAME(notOpen);
    NAME(alreadyOpen);
    NAME(unsupportedFile);
    NAME(accessNote);
    NAME(deleteWhileOpen);
    NAME(shortHeaderReport);
    NAME(fileNameLine);
    NAME(reopenFailed);
    NAME(cannotRemoveReport);
  }
  return nullptr;
}

#define VALUE(name) std::pair(#name, static_cast<std::int64_t>(qz::name))

Names allStatuses() {
  Names names = {{"ok", 0},
                 VALUE(hostNoMemory),
                 VALUE(hostBadParameters),
                 VALUE(hostDeviceError),
                 VALUE(hostNoDevice),
                 VALUE(hostStaleFile),
                 VALUE(hostFileNotFound),
                 VALUE(hostAccessRefused),
                 VALUE(hostNoSpace),
                 VALUE(hostIsDirectory),
                 VALUE(hostBadName),
                 VALUE(hostNoDescriptor),
                 VALUE(hostCloseFailed),
                 VALUE(hostNotRemoved),
                 VALUE(hostReadOnlyFileSystem),
                 VALUE(hostLocked),
                 VALUE(hostProgramRunning),
                 VALUE(hostDeviceBusy),
                 VALUE(hostNoLocks),
                 VALUE(hostTryAgain),
                 VALUE(hostOtherFailure),
                 VALUE(hostUnsupportedFile),
                 VALUE(hostForeignBlock),
                 VALUE(hostBlocksLive),
                 VALUE(hostTextTooLong),
                 VALUE(hostBadText),
                 VALUE(hostUnknownOption),
                 VALUE(hostWrongValueType),
                 VALUE(hostNoSuchExtension),
                 VALUE(hostNoEncoding)};
  for (const Status code : qz::kStatusCodes) {
    names[nameOfCode(code)] = static_cast<std::int64_t>(code);
  }
  return names;
}

const Names& statuses() {
  static const Names names = allStatuses();
  return names;
}

const Names& settings() {
  static const Names names = {VALUE(openOrRemove),
                              VALUE(openOrKeep),
                              VALUE(createOrReplace),
                              VALUE(noRead),
                              VALUE(readSequential),
                              VALUE(readRandom),
                              VALUE(readOrdered),
                              VALUE(readMany),
                              VALUE(readHint),
                              VALUE(noWrite),
                              VALUE(writeNewPages),
                              VALUE(rewritePages),
                              VALUE(optionAccessVariant),
                              VALUE(optionKeepBufferCount),
                              VALUE(optionDirectIo),
                              VALUE(optionFlushAtClose),
                              VALUE(statePreopened),
                              VALUE(stateOpen),
                              VALUE(directIo),
                              VALUE(blockMode),
                              VALUE(directIoFit),
                              VALUE(directIoUntested),
                              VALUE(directIoTestFailed),
                              VALUE(directIoNfs),
                              VALUE(directIoNoMemory),
                              VALUE(kContiguous),
                              VALUE(kRemoveFile),
                              VALUE(accessWrite),
                              VALUE(accessRead),
                              VALUE(accessExclusive),
                              VALUE(accessShared),
                              VALUE(accessNoLock),
                              {"scattered", 0},  // of readMany: without kContiguous
                              {"ownWrite", qz::accessWrite << 16},  // see optionOwnAccessMode
                              {"ownExclusive", qz::accessExclusive << 16},
                              {"ownNoLock", qz::accessNoLock << 16}};
  return names;
}

#undef NAME
#undef VALUE

Names allErrors() {
  constexpr int kLastError = 133;  // EHWPOISON
  Names names;
  for (int error = 1; error <= kLastError; ++error) {
    if (const char* name = strerrorname_np(error); name != nullptr) names[name] = error;
  }
  return names;
}

std::int64_t valueOfName(const std::string& name) {
  static const Names errors = allErrors();
  for (const Names* names : {&settings(), &statuses(), &errors}) {
    if (const auto found = names->find(name); found != names->end()) return found->second;
  }
  throw std::invalid_argument("no such name: " + name);
}

}  // namespace

std::string nameOfStatus(std::uint32_t status) {
  if (const char* name = nameOfCode(Status{status}); name != nullptr) return name;
  for (const auto& [name, value] : statuses()) {
    if (value == status) return name;
  }
  return fmt::format("{:#x}", status);
}

std::string nameOfError(int error) {
  const char* name = strerrorname_np(error);
  return name != nullptr ? name : std::to_string(error);
}

std::int64_t valueOf(const std::string& text) {
  std::int64_t value = 0;
  std::istringstream words(text);
  for (std::string word; std::getline(words, word, '+');) {
    const bool number = word.find_first_of("0123456789-") == 0;
    value |= number ? std::stoll(word, nullptr, 0) : valueOfName(word);
  }
  return value;
}

}  // namespace qztest
