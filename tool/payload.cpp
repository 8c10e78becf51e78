#include "payload.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <vector>

namespace qzpfile {

PayloadWriter::PayloadWriter(File& file, Progress& progress)
    : file_(file),
      progress_(progress),
      header_{.pageSize = file.geometry().pageSize,
              .headerSize = static_cast<std::int32_t>(file.geometry().headerSize),
              .changing = true},
      batch_(batchBytes(file.geometry().pageSize)) {
  file_.writeHeader(encodeHeader(header_));
}

std::span<std::byte> PayloadWriter::room() { return batch_.bytes().subspan(used_); }

void PayloadWriter::filled(std::size_t bytes) {
  used_ += bytes;
  header_.payloadBytes += static_cast<std::int64_t>(bytes);
  if (room().empty()) writePages();
}

void PayloadWriter::append(std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const auto piece = bytes.first(std::min(bytes.size(), room().size()));
    std::ranges::copy(piece, room().begin());
    filled(piece.size());
    bytes = bytes.subspan(piece.size());
  }
}

void PayloadWriter::writePages() {
  const auto pageSize = static_cast<std::size_t>(header_.pageSize);
  for (std::size_t at = 0; at < used_; at += pageSize) {
    const auto page = batch_.bytes().subspan(at, pageSize);
    header_.payloadChecksum += pageChecksum(page, nextPage_);
    file_.write(nextPage_, page);
    ++nextPage_;
  }
  progress_.advance(static_cast<std::int64_t>(used_));
  used_ = 0;
}

Header PayloadWriter::finish(std::span<const std::byte> headerTail) {
  const auto pageSize = static_cast<std::size_t>(header_.pageSize);
  if (const std::size_t beyond = used_ % pageSize; beyond != 0) {
    const auto padding = room().first(pageSize - beyond);
    std::ranges::fill(padding, std::byte{0});
    used_ += padding.size();
  }
  writePages();
  header_.changing = false;
  const auto fixed = encodeHeader(header_);
  std::vector<std::byte> area(fixed.begin(), fixed.end());
  area.insert(area.end(), headerTail.begin(), headerTail.end());
  file_.writeHeader(area);
  file_.finish();
  return header_;
}

void readPayload(File& file, Progress& progress,
                 const std::function<void(std::span<const std::byte>)>& sink) {
  const Header& header = *file.geometry().header;
  std::uint64_t checksum = 0;
  for (std::int64_t page = 1; page <= header.pageCount(); ++page) {
    const qz::PageHold hold = file.read(page);
    checksum += pageChecksum(bytesOf(hold), page);
    sink(payloadOf(header, page, bytesOf(hold)));
    progress.advance(header.pageSize);
  }
  if (checksum != header.payloadChecksum) {
    throw Failure(Exit::badData,
                  fmt::format("is damaged: the header promises the checksum {:016x}, the pages "
                              "have {:016x}",
                              header.payloadChecksum, checksum),
                  file.name())
        .tryThis("get a whole copy of the file; \"qzpfile cat\" reads its pages as they are");
  }
}

std::span<const std::byte> payloadOf(const Header& header, std::int64_t page,
                                     std::span<const std::byte> bytes) {
  const std::int64_t before = (page - 1) * header.pageSize;
  return bytes.first(static_cast<std::size_t>(
      std::min<std::int64_t>(header.payloadBytes - before, header.pageSize)));
}

}  // namespace qzpfile
