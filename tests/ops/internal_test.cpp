// The four operations that the module calls itself go through the table, where a host may have
// put another entry.
#include <fmt/format.h>

#include "script.h"

namespace qztest {
namespace {

qz::OperationTable originals;
std::string replaced;  // the calls of replaced entries

class InternalCallTest : public ScriptTest {
 protected:
  void SetUp() override {
    originals = module->operations;
    module->operations.qzpclose = [](qz::FileHandle* file, std::uint32_t flags, qz::Journal* j) {
      replaced += fmt::format("close {} ", flags);
      return originals.qzpclose(file, flags, j);
    };
    module->operations.qzpinfo = [](qz::FileHandle* file, qz::Journal* j) {
      replaced += "info ";
      return originals.qzpinfo(file, j);
    };
    module->operations.qzptruncate = [](qz::FileHandle* file, std::int64_t pages, qz::Journal* j) {
      replaced += fmt::format("truncate {} ", pages);
      return originals.qzptruncate(file, pages, j);
    };
    module->operations.qzpflush = [](qz::FileHandle* file, qz::Journal* j) {
      replaced += "flush ";
      return originals.qzpflush(file, j);
    };
  }
};

TEST_F(InternalCallTest, GoThroughTheTable) {
  const std::pair<const char*, std::string> rows[] = {
      {"set hostPageSize 0; psize 0 0 0", "info "},
      {"file 2; settle buffered; set hostPageSize 0; open", "info "},
      {"fail pread=half; read 2 -> 818 pread 4096@8192=2048 {!818}", "close 0 "},
      {"settle block; fail memAlloc; open -> 002 {4:002}", "close 0 "},
      {"settle block; set openMode 0; fail memAlloc; open -> 002 {4:002}", "close 1 "},
      {"file 2 1; settle block; open -> !818", "close 0 "},
      {"set openMode 2; fail ftruncate; open -> 81C ftruncate 0!5 {!81C}", "close 1 "},
      {"open buffered 4; fail pwrite!28; own 5 -> "
       "80F pwrite 4096@20480!28 lseek 20480 ftruncate 20480 {!80F}",
       "truncate 4 "},
      {"fail pwrite!122; header 1 -> 80F pwrite 4096@0!122 lseek 4096 ftruncate 4096 {!80F}",
       "truncate 0 "},
      {"close", "close 0 "},
      {"open block 4; own 5 6; fail pwrite; read 5 -> "
       "808 pwrite 8192@20480!5 lseek 20480 ftruncate 20480 {!808 !808}",
       "truncate 4 "},
      {"set openOptions 0x300; close -> ok fsync", "close 0 flush "}};
  setName(path);
  EXPECT_EQ(replaced, "info ");
  for (const auto& [script, wanted] : rows) {
    replaced.clear();
    play(script);
    EXPECT_EQ(replaced, wanted) << script;
  }
}

}  // namespace
}  // namespace qztest
