// Geometry at its edges, on sparse files: offsets around 2^31 and 2^32 bytes, page numbers beyond
// 2^32, the smallest and the largest page, headers of odd sizes.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "support/fixture.h"

namespace qztest {
namespace {

using qz::Status;

constexpr std::int64_t k2to31 = std::int64_t{1} << 31;
constexpr std::int64_t k2to32 = std::int64_t{1} << 32;
constexpr std::int32_t kGiB = 1 << 30;

class GeometryTest : public ::testing::Test, public World {
 protected:
  GeometryTest() : World(memoryFolder()) { setDirectIo(DirectIo::unaligned); }
  void TearDown() override { finish(); }

  // Makes a file of holes. False if the file system takes none as large.
  bool makeSparse(Shape shape, std::int32_t pageSize, std::int64_t header, std::int64_t pages) {
    settle(shape, 1);
    h->pageSize = pageSize;
    h->headerSize = header;
    h->requestedBlockBytes = std::int64_t{pageSize} * kPagesPerBlock;
    std::ofstream(path).close();
    return truncate64(path.c_str(), bytesFor(pages)) == 0;
  }
  std::int64_t bytesFor(std::int64_t pages) const { return h->headerSize + pages * h->pageSize; }

  // Reads and rewrites the last page, appends another, reads both at once, truncates.
  void useEnd(std::int64_t last) {
    ASSERT_EQ(open(), Status::ok);
    ASSERT_EQ(h->pageCount, last);
    ASSERT_EQ(read(last), Status::ok);
    EXPECT_EQ(*std::max_element(at, at + h->pageSize), 0);
    stamp(at, h->pageSize, last, 1);
    EXPECT_EQ(write(last, at), Status::ok);
    EXPECT_EQ(writeOwn(last + 1, 2), Status::ok);
    EXPECT_EQ(truncate(last + 1), Status::ok);
    EXPECT_EQ(bytesOnDisk(), bytesFor(last + 1));
    EXPECT_TRUE(onDisk(last, 1) && onDisk(last + 1, 2));
    for (const std::uint32_t options : {0U, qz::kContiguous}) {
      const CallerMemory area = callerMemory(2 * std::int64_t{h->pageSize});
      EXPECT_EQ(readMany(last, 2, options, area.get()), Status::ok);
      EXPECT_TRUE(isStamped(area.get(), h->pageSize, last, 1) &&
                  isStamped(area.get() + h->pageSize, h->pageSize, last + 1, 2));
    }
    EXPECT_EQ(read(last + 1), Status::ok);
    EXPECT_TRUE(holdsPage(last + 1, 2));
    EXPECT_EQ(returnBuffer(at), Status::ok);
    EXPECT_EQ(read(last + 2), Status::endOfFile);
    EXPECT_EQ(truncate(last - 1), Status::ok);
    EXPECT_EQ(bytesOnDisk(), bytesFor(last - 1));
    EXPECT_EQ(close(), Status::ok);
  }
};

// An offset that is computed with 32 bits would reach another page near 2 GiB and 4 GiB.
TEST_F(GeometryTest, PagesAtTheEdgesOf32BitOffsets) {
  std::int64_t refused = 0;  // size of a file that this file system does not take
  const auto useAround = [&, this](Shape shape, std::int32_t pageSize, std::int64_t header,
                                   std::int64_t edge) {
    // The page with the byte before the edge, the one with the edge, and the next.
    const std::int64_t first = std::max<std::int64_t>((edge - 1 - header) / pageSize + 1, 2);
    for (const std::int64_t last : {first, first + 1, first + 2}) {
      SCOPED_TRACE(
          fmt::format("{} {} bytes, header {}, page {}", nameOf(shape), pageSize, header, last));
      if (makeSparse(shape, pageSize, header, last)) {
        useEnd(last);
      } else {
        refused = bytesFor(last);
      }
    }
  };
  for (const Shape shape : kShapes) {
    for (const std::int32_t pageSize : {512, 4096}) {
      for (const std::int64_t header : {0LL, 1LL, 511LL, 4095LL, k2to32 + 1LL}) {
        for (const std::int64_t edge : {k2to31, k2to32, (k2to32 + 3) * pageSize})
          useAround(shape, pageSize, header, edge);
      }
    }
  }
  if (refused != 0) GTEST_SKIP() << "no file of " << refused << " bytes on this file system";
}

// The offsets of the largest pages must not overflow. Their transfers are simulated.
TEST_F(GeometryTest, PagesOfOneGiB) {
  for (const Shape shape : kShapes) {
    SCOPED_TRACE(nameOf(shape));
    ASSERT_TRUE(makeSparse(shape, kGiB, 511, 4));
    h->requestedBlockBytes = kGiB;
    if (open() == Status::noMemory) {
      GTEST_SKIP() << "this machine has no memory for pages of 1 GiB: " << nameOf(shape);
    }
    calls().plan({{Call::pread, 1, 1, kGiB}, {Call::pwrite, 1, 1, kGiB}});
    EXPECT_EQ(did(read(4)), fmt::format("ok: pread {} at {}", kGiB, 511 + 3 * std::int64_t{kGiB}));
    EXPECT_EQ(did(write(4, at)),
              fmt::format("ok: pwrite {} at {}", kGiB, 511 + 3 * std::int64_t{kGiB}));
    EXPECT_EQ(did(truncate(2)), fmt::format("ok: lseek {0}, ftruncate {0}", bytesFor(2)));
    EXPECT_EQ(close(), Status::ok);
  }
}

// A header of more than 31 bits cannot be written with one call. It must be refused, with no byte
// of the file changed.
TEST_F(GeometryTest, AHeaderBeyond31BitsIsNotWritten) {
  ASSERT_TRUE(makeSparse(Shape::buffered, kPage, k2to32 + 1, 2));
  ASSERT_EQ(open(), Status::ok);
  EXPECT_EQ(did(writeHeader("header", 6)), "noMemory");
  EXPECT_EQ(length, 0);
  EXPECT_EQ(close(), Status::ok);
  EXPECT_EQ(bytesOnDisk(), bytesFor(2));
}

}  // namespace
}  // namespace qztest
