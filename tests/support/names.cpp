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

using Names = std::map<std::string, std::int64_t>;

#define STATUS(name) std::pair(#name, static_cast<std::int64_t>(qz::Status::name))
#define VALUE(name) std::pair(#name, static_cast<std::int64_t>(qz::name))

const Names& statuses() {
  static const Names names = {STATUS(ok),
                              STATUS(noMemory),
                              STATUS(badArgument),
                              STATUS(fileNotFound),
                              STATUS(accessRefused),
                              STATUS(isDirectory),
                              STATUS(noHeaderYet),
                              STATUS(noFileName),
                              STATUS(noDescriptor),
                              STATUS(busy),
                              STATUS(ioFailed),
                              STATUS(notRemoved),
                              STATUS(inexactPageSize),
                              STATUS(endOfFile),
                              STATUS(pageOutOfRange),
                              STATUS(noBuffer),
                              STATUS(notWritable),
                              STATUS(noSpace),
                              STATUS(readOnlyFileSystem),
                              STATUS(buffersMissing),
                              STATUS(readOutOfSequence),
                              STATUS(notHeld),
                              STATUS(writeOutOfSequence),
                              STATUS(shorterThanHeader),
                              STATUS(misfit),
                              STATUS(wrongLength),
                              STATUS(notTruncated),
                              STATUS(notOpen),
                              STATUS(alreadyOpen),
                              STATUS(unsupportedFile),
                              STATUS(accessNote),
                              STATUS(deleteWhileOpen),
                              STATUS(shortHeaderReport),
                              STATUS(fileNameLine),
                              STATUS(reopenFailed),
                              STATUS(cannotRemoveReport),
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
                              VALUE(accessNoLock)};
  return names;
}

#undef STATUS
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
  static const auto names = [] {
    std::map<std::int64_t, std::string> byValue;
    for (const auto& [name, value] : statuses()) byValue[value] = name;
    return byValue;
  }();
  const auto found = names.find(status);
  return found != names.end() ? found->second : fmt::format("{:#x}", status);
}

std::string nameOfError(int error) {
  const char* name = strerrorname_np(error);
  return name != nullptr ? name : std::to_string(error);
}

std::int64_t valueOf(const std::string& text) {
  if (text.find_first_of("0123456789-") == 0) return std::stoll(text, nullptr, 0);
  std::int64_t value = 0;
  std::istringstream names(text);
  for (std::string name; std::getline(names, name, '+');) value |= valueOfName(name);
  return value;
}

}  // namespace qztest
