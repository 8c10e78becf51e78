// A file's whole life in each of the three shapes, and in all of them after one another with
// pages held, against the model; with O_DIRECT as the file system has it where it has it.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <random>

#include "support/driver.h"

namespace qztest {
namespace {

using qz::Status;

bool takesDirectIo(const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_DIRECT, 0600);
  if (fd >= 0) {
    close(fd);
    unlink(path.c_str());
  }
  return fd >= 0;
}

class SequenceTest : public ::testing::TestWithParam<std::tuple<Shape, DirectIo>> {
 protected:
  static constexpr std::int64_t kPages = 19;  // four blocks and a part of one

  void SetUp() override {
    setDirectIo(std::get<1>(GetParam()));
    if (std::get<1>(GetParam()) == DirectIo::real && !takesDirectIo(world.path))
      GTEST_SKIP() << "no O_DIRECT on the file system of " << world.path;
  }
  void TearDown() override { world.finish(); }

  static std::uint32_t optionsOf(Shape shape) {
    return shape == Shape::buffered ? 0U : qz::optionDirectIo;
  }
  static std::uint32_t readOf(Shape shape) {
    return shape == Shape::block ? qz::readOrdered : qz::readMany;
  }
  void openAs(Shape shape, std::uint32_t mode) {
    ASSERT_EQ(driver.open(mode, optionsOf(shape), readOf(shape), qz::rewritePages), Status::ok);
    ASSERT_EQ(world.h->directIoMode, static_cast<std::uint32_t>(shape == Shape::block    ? 3
                                                                : shape == Shape::direct ? 1
                                                                                         : 0));
    driver.compareFile();
  }
  void append(std::int64_t until) {
    while (driver.pages() < until) {
      const std::int64_t page = driver.pages() + 1;
      if (page % 3 == 0) driver.acquire();
      driver.write(page, page % 3 == 0 ? driver.holds() - 1 : -1, page % 2 == 0 ? 8 : 0);
    }
  }
  // Reads all pages in order or shuffled; rewrites some, returns the others.
  void readAll(bool shuffled) {
    std::vector<std::int64_t> pages(static_cast<std::size_t>(driver.pages()));
    for (std::size_t i = 0; i < pages.size(); ++i) pages[i] = static_cast<std::int64_t>(i) + 1;
    if (shuffled) std::shuffle(pages.begin(), pages.end(), random);
    for (const std::int64_t page : pages) {
      EXPECT_EQ(driver.read(page), Status::ok);
      const int hold = driver.holds() - 1;
      if (shuffled && page % 4 == 0) {
        driver.write(page, hold);
      } else if (page % 4 == 1) {
        driver.write(page, hold, 0, true);
      } else {
        driver.giveBack(hold);
      }
    }
    EXPECT_EQ(driver.read(driver.pages() + 1), Status::endOfFile);
  }
  void use() {
    append(kPages);
    readAll(false);
    readAll(true);
    driver.readMany(2, 15, 0);
    driver.readMany(2, 15, qz::kContiguous);
    driver.truncate(kPages - 5);
    append(kPages + 3);
    driver.writeHeader(100);
    EXPECT_EQ(driver.flush(), Status::ok);
    driver.compareFile();
  }

  World world;
  Driver driver{world, {kPage, kPagesPerBlock, kHeader, 3}};
  std::mt19937 random{1};
};

TEST_P(SequenceTest, OneShape) {
  const Shape shape = std::get<0>(GetParam());
  openAs(shape, qz::createOrReplace);
  driver.writeHeader(static_cast<std::int32_t>(kHeader));
  use();
  EXPECT_EQ(driver.close(0), Status::ok);
  openAs(shape, qz::openOrKeep);
  readAll(true);
  EXPECT_EQ(driver.close(0), Status::ok);
  driver.compareFile();
  EXPECT_EQ(driver.preopen(static_cast<std::int32_t>(kHeader)), Status::ok);
  openAs(shape, qz::openOrKeep);
  readAll(false);
  EXPECT_EQ(driver.close(qz::kRemoveFile), Status::ok);
  EXPECT_FALSE(driver.exists());
}

TEST_P(SequenceTest, AllShapesInTurnWithPagesHeld) {
  openAs(std::get<0>(GetParam()), qz::createOrReplace);
  driver.writeHeader(7);
  append(kPages);
  for (int turn = 0; turn < 9; ++turn) {
    // Two holds go along into the next shape and are ended there, one by a write.
    EXPECT_EQ(driver.read(1 + turn), Status::ok);
    EXPECT_EQ(driver.read(2 + turn), Status::ok);
    const Shape shape = kShapes[(turn + static_cast<int>(std::get<0>(GetParam()))) % 3];
    ASSERT_EQ(driver.reopen(shape != Shape::buffered, readOf(shape), qz::rewritePages), Status::ok);
    EXPECT_EQ(driver.read(10), Status::ok);
    driver.write(turn % 2 == 0 ? 1 + turn : driver.pages() + 1, 0);
    driver.giveBack(turn % 2);
    driver.giveBack(0);
    append(driver.pages() + 2);
    readAll(true);
  }
  EXPECT_EQ(driver.close(0), Status::ok);
  driver.compareFile();
}

INSTANTIATE_TEST_SUITE_P(Shapes, SequenceTest,
                         ::testing::Combine(::testing::ValuesIn(kShapes),
                                            ::testing::Values(DirectIo::simulated, DirectIo::real)),
                         [](const auto& instance) {
                           return std::string(nameOf(std::get<0>(instance.param))) +
                                  (std::get<1>(instance.param) == DirectIo::real ? "Real" : "");
                         });

}  // namespace
}  // namespace qztest
