// The message catalogue: one text for every status of the module and of this host.
//
// Only accessNote, shortHeaderReport, fileNameLine and cannotRemoveReport have inserts; no other
// text may contain a placeholder. The file-name line directly follows the text of a failure, so it
// begins with its own separator.
#include <cstdio>

#include "qzpos.h"
#include "qzstandin.h"

namespace qz {
namespace {

// The text of a module code, null for any other status. A switch, so that the compiler reports a
// code without a text.
// NOLINTNEXTLINE(readability-function-size): one case for each code
const char* moduleText(Status status) {
  switch (status) {
    case Status::ok:
      return "Success";
    case Status::noMemory:
      return "There is not enough memory";
    case Status::badArgument:
      return "An argument is not valid, or a name, handle or task could not be found or released";
    case Status::fileNotFound:
      return "The file or a folder on the way to it does not exist";
    case Status::accessRefused:
      return "Access to the file was refused";
    case Status::isDirectory:
      return "The name stands for a directory, not a file";
    case Status::noHeaderYet:
      return "A file that is to be created or replaced has no header to read yet";
    case Status::noFileName:
      return "No file name was given, or it cannot be used";
    case Status::noDescriptor:
      return "No further file can be opened: all file descriptors are in use";
    case Status::busy:
      return "The file is in use, or cannot be locked at the moment";
    case Status::ioFailed:
      return "Reading, writing or releasing the file or its memory failed";
    case Status::notRemoved:
      return "The file could not be removed or released";
    case Status::inexactPageSize:
      return "No page size meets the request exactly; the nearest was chosen";
    case Status::endOfFile:
      return "The file has no further page";
    case Status::pageOutOfRange:
      return "The page number is outside the file";
    case Status::noBuffer:
      return "No page buffer is free: all that may be held at once are held";
    case Status::notWritable:
      return "The file was not opened for writing";
    case Status::noSpace:
      return "The disk, the quota or the size that a file may have is used up";
    case Status::readOnlyFileSystem:
      return "The file system is read-only";
    case Status::buffersMissing:
      return "Fewer page buffers could be added than were asked for";
    case Status::readOutOfSequence:
      return "A page of a file opened for reading in order was read out of order";
    case Status::notHeld:
      return "The address returned or written is not that of a held page";
    case Status::writeOutOfSequence:
      return "The page written is neither the next new page nor one that may be rewritten";
    case Status::shorterThanHeader:
      return "The file is shorter than its header";
    case Status::misfit:
      return "The file is not a header followed by whole pages";
    case Status::wrongLength:
      return "The length written is not the page size";
    case Status::notTruncated:
      return "The file could not be cut to its new length";
    case Status::notOpen:
      return "The file is not open";
    case Status::alreadyOpen:
      return "The file is open already, or an earlier close did not finish";
    case Status::unsupportedFile:
      return "This kind or size of file cannot be handled";
    case Status::accessNote:
      return "%s [file %s]";
    case Status::deleteWhileOpen:
      return "The file cannot be removed while it is open";
    case Status::shortHeaderReport:
      return "The file ends before the header that was to be read [file %s]";
    case Status::fileNameLine:
      return " [file %s]";
    case Status::reopenFailed:
      return "The file could not be reopened with its new access hints";
    case Status::cannotRemoveReport:
      return "The file could not be opened for its removal [file %s]";
  }
  return nullptr;
}

struct HostText {
  HostStatus status;
  const char* text;
};

constexpr HostText kHostTexts[] = {
    {hostNoMemory, "The host has not enough memory"},
    {hostBadParameters, "The system does not take this combination of parameters for the file"},
    {hostDeviceError, "The device that holds the file reported an error"},
    {hostNoDevice, "The device that holds the file does not exist"},
    {hostStaleFile, "The server that holds the file has lost it or cannot be reached"},
    {hostFileNotFound, "The host found no such file or folder"},
    {hostAccessRefused, "The system refused access to the file"},
    {hostNoSpace, "There is no space for a new file"},
    {hostIsDirectory, "The host was asked to open a directory as a file"},
    {hostBadName,
     "The file name is empty, too long, or cannot be written in the system's "
     "encoding"},
    {hostNoDescriptor, "The system has no file descriptor left"},
    {hostCloseFailed, "Closing the file failed; data written to it may be lost"},
    {hostNotRemoved, "The system could not remove the file"},
    {hostReadOnlyFileSystem, "The file is on a read-only file system"},
    {hostLocked, "The file is locked by another open file"},
    {hostProgramRunning, "The file is a program that is running"},
    {hostDeviceBusy, "The device that holds the file is busy"},
    {hostNoLocks, "The system could not lock the file"},
    {hostTryAgain, "The file is not available at the moment"},
    {hostOtherFailure, "The system could not open the file"},
    {hostUnsupportedFile,
     "The host opens only regular files and block devices of a size that it "
     "can address"},
    {hostForeignBlock, "The memory to be freed is not a block in use of this pool"},
    {hostBlocksLive, "A memory pool was destroyed while blocks of it were in use"},
    {hostTextTooLong, "A text does not fit its buffer"},
    {hostBadText, "A text is missing or its length is beyond reason"},
    {hostUnknownOption, "The option does not exist or is not set"},
    {hostWrongValueType, "The option's value has another type or needs more room"},
    {hostNoSuchExtension, "The host has no extension of this name"},
    {hostNoEncoding, "The host has no converter for this encoding"},
};

}  // namespace

std::string statusText(std::uint32_t status) {
  if (const char* text = moduleText(Status{status}); text != nullptr) return text;
  for (const HostText& entry : kHostTexts) {
    if (entry.status == status) return entry.text;
  }
  char words[64];
  std::snprintf(words, sizeof words, "Status 0x%08X has no text in the message catalogue", status);
  return words;
}

}  // namespace qz
