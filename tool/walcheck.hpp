// The checksums of a SQLite write-ahead log: of its header, and of each frame over all frames
// before it. Pure functions, safe on any bytes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace qzpfile {

class WalCheck {
 public:
  // header: the 32 bytes before the first frame.
  explicit WalCheck(std::span<const std::byte> header);

  bool isHeaderGood() const { return headerGood_; }
  // Takes the frames in order. Returns false for a frame of this log whose checksum does not follow
  // from the frames before it. The next frame is then checked against the stored checksum.
  bool take(std::span<const std::byte> frame);
  std::int64_t frames() const { return frames_; }
  // Frames of an earlier run after the last frame of this one, not yet overwritten.
  std::int64_t leftOver() const { return leftOver_; }

 private:
  using Sum = std::array<std::uint32_t, 2>;
  Sum sumOf(Sum sum, std::span<const std::byte> bytes) const;

  bool bigEndian_;
  std::array<std::byte, 8> salts_{};
  Sum sum_{};
  bool headerGood_ = false;
  std::int64_t frames_ = 0;
  std::int64_t leftOver_ = 0;
};

}  // namespace qzpfile
