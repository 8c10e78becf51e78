// A program may have functions with the names of the module's own. They must not replace these,
// neither in the operation table nor where the module calls itself.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "qziop.hpp"

namespace {

std::string called;  // the namesakes that ran

qz::Status decoy(const char* name) {
  called += std::string(name) + " ";
  return qz::Status::ioFailed;
}

}  // namespace

// The program exports these, and comes before the module where symbols are looked up.
qz::Status qzpread(qz::FileHandle*, qz::PageRequest*, qz::Journal*) noexcept {
  return decoy("qzpread");
}
qz::Status qzpclose(qz::FileHandle*, std::uint32_t, qz::Journal*) noexcept {
  return decoy("qzpclose");
}
qz::Status qzpinfo(qz::FileHandle*, qz::Journal*) noexcept { return decoy("qzpinfo"); }
qz::Status qzptruncate(qz::FileHandle*, std::int64_t, qz::Journal*) noexcept {
  return decoy("qzptruncate");
}
qz::HostStatus qzlStatusToJnl(qz::Journal*, qz::JournalLevel, std::uint32_t, ...) noexcept {
  decoy("qzlStatusToJnl");
  return 0;
}
qz::HostStatus qzlStatusToBuf(qz::Journal*, std::uint32_t, char32_t*, std::uint32_t, std::uint32_t*,
                              ...) noexcept {
  decoy("qzlStatusToBuf");
  return 0;
}

namespace {

TEST(NamesakesTest, TheModuleUsesItsOwnFunctions) {
  const std::string name =
      std::filesystem::temp_directory_path() / ("namesakes." + std::to_string(getpid()));
  std::ofstream(name, std::ios::binary) << std::string(4096, 'x');
  qz::StandInHost host;
  qz::StandInJournal journal;
  auto module = qz::Module::load(host.handle(), nullptr, QZIOP_MODULE);
  ASSERT_TRUE(module) << module.error().message();

  {
    auto file = module->newFile(&journal);
    ASSERT_TRUE(file);
    EXPECT_NE(file->table().qzpread, &qzpread);
    EXPECT_NE(file->table().qzpclose, &qzpclose);
    file->settings().pageSize = 1024;
    file->settings().readAccess = qz::readRandom;
    ASSERT_TRUE(file->setName(name));
    ASSERT_TRUE(file->open());
    {
      const auto page = file->read(4);
      ASSERT_TRUE(page);
      EXPECT_EQ(*page->data(), 'x');
    }
    EXPECT_FALSE(file->read(9)) << "beyond the end; its report calls functions of the module";
    EXPECT_TRUE(file->close());
  }
  EXPECT_EQ(called, "");
  EXPECT_EQ(module->dispose(), 0U);
  std::filesystem::remove(name);
}

}  // namespace
