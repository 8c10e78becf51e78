// The message catalogue: one text for every status of the module and of this host.
//
// The module gives inserts to four statuses only; every other text must have no placeholder. The
// file-name line comes right behind the text of a failure, so it begins with its own separator.
#include <cstdio>

#include "qzpos.h"
#include "qzstandin.h"

namespace qz {
namespace {

struct CatalogueText {
  std::uint32_t status;
  const char* text;
};

constexpr CatalogueText text(Status status, const char* words) {
  return {static_cast<std::uint32_t>(status), words};
}

constexpr CatalogueText kCatalogue[] = {
    text(Status::ok, "Success"),
    text(Status::noMemory, "There is not enough memory"),
    text(Status::badArgument,
         "An argument is not valid, or a name, handle or task could not be found or released"),
    text(Status::fileNotFound, "The file or a folder on the way to it does not exist"),
    text(Status::accessRefused, "Access to the file was refused"),
    text(Status::isDirectory, "The name stands for a directory, not a file"),
    text(Status::noHeaderYet, "A file that is to be created or replaced has no header to read yet"),
    text(Status::noFileName, "No file name was given, or it cannot be used"),
    text(Status::noDescriptor, "No further file can be opened: all file descriptors are in use"),
    text(Status::busy, "The file is in use, or cannot be locked at the moment"),
    text(Status::ioFailed, "Reading, writing or releasing the file or its memory failed"),
    text(Status::notRemoved, "The file could not be removed or released"),
    text(Status::inexactPageSize, "No page size meets the request exactly; the nearest was chosen"),
    text(Status::endOfFile, "The file has no further page"),
    text(Status::pageOutOfRange, "The page number is outside the file"),
    text(Status::noBuffer, "No page buffer is free: all that may be held at once are held"),
    text(Status::notWritable, "The file was not opened for writing"),
    text(Status::noSpace, "The disk, the quota or the size that a file may have is used up"),
    text(Status::readOnlyFileSystem, "The file system is read-only"),
    text(Status::buffersMissing, "Fewer page buffers could be added than were asked for"),
    text(Status::readOutOfSequence,
         "A page of a file opened for reading in order was read out of "
         "order"),
    text(Status::notHeld, "The address returned or written is not that of a held page"),
    text(Status::writeOutOfSequence,
         "The page written is neither the next new page nor one that "
         "may be rewritten"),
    text(Status::shorterThanHeader, "The file is shorter than its header"),
    text(Status::misfit, "The file is not a header followed by whole pages"),
    text(Status::wrongLength, "The length written is not the page size"),
    text(Status::notTruncated, "The file could not be cut to its new length"),
    text(Status::notOpen, "The file is not open"),
    text(Status::alreadyOpen, "The file is open already, or an earlier close did not finish"),
    text(Status::unsupportedFile, "This kind or size of file cannot be handled"),
    text(Status::accessNote, "%s [file %s]"),
    text(Status::deleteWhileOpen, "The file cannot be removed while it is open"),
    text(Status::shortHeaderReport,
         "The file ends before the header that was to be read [file %s]"),
    text(Status::fileNameLine, " [file %s]"),
    text(Status::reopenFailed, "The file could not be reopened with its new access hints"),
    text(Status::cannotRemoveReport, "The file could not be opened for its removal [file %s]"),
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
    {hostForeignBlock, "The memory to be freed is no block in use of this pool"},
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
  for (const CatalogueText& entry : kCatalogue) {
    if (entry.status == status) return entry.text;
  }
  char words[64];
  std::snprintf(words, sizeof words, "Status 0x%08X has no text in the message catalogue", status);
  return words;
}

}  // namespace qz
