// A run of bytes cut into the pages of the tool's own files, and put together again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>

#include "paged.hpp"
#include "progress.hpp"
#include "streams.hpp"

namespace qzpfile {

// Writes a new file of the tool's own: header, pages, header again when all is known.
class PayloadWriter {
 public:
  // Writes a header that says that the file is in the making. file and progress must outlive it.
  PayloadWriter(File& file, Progress& progress);

  // Where the next bytes of the payload go; never empty. Then tell how many they are.
  std::span<std::byte> room();
  void filled(std::size_t bytes);
  // The same for bytes that lie elsewhere.
  void append(std::span<const std::byte> bytes);
  // Pads the last page, completes the header, puts everything on disk and closes the file.
  // headerTail: what the header area holds after the header itself.
  Header finish(std::span<const std::byte> headerTail);

 private:
  void writePages();

  File& file_;
  Progress& progress_;
  Header header_;
  AlignedBuffer batch_;
  std::size_t used_ = 0;
  std::int64_t nextPage_ = 1;
};

// Hands the payload of one of the tool's own files to `sink`, piece by piece, and then holds its
// checksum against the header's. Throws when it does not fit: what went to `sink` is then wrong.
void readPayload(File& file, Progress& progress,
                 const std::function<void(std::span<const std::byte>)>& sink);

// The part of a page that is payload; the rest is padding.
std::span<const std::byte> payloadOf(const Header& header, std::int64_t page,
                                     std::span<const std::byte> bytes);

}  // namespace qzpfile
