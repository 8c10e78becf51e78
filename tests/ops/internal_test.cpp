// The four operations that the module calls itself go through the table, where a host may have
// put another entry.
#include "script.h"

namespace qztest {
namespace {

qz::OperationTable originals;
std::string replaced;  // the calls of replaced entries, with their first argument

// Puts an entry of that name before an operation.
template <auto operation, class... Arguments>
void replace(qz::Status (*&entry)(qz::FileHandle*, Arguments...), const char* name) {
  static std::string called;
  called = name;
  entry = [](qz::FileHandle* file, Arguments... arguments) {
    replaced += called;
    if constexpr (sizeof...(arguments) == 2)
      replaced += std::to_string(std::get<0>(std::tuple(arguments...))) + " ";
    return (originals.*operation)(file, arguments...);
  };
}

class InternalCallTest : public ScriptTest {
 protected:
  void SetUp() override {
    qz::OperationTable& table = module->operations;
    originals = table;
    replace<&qz::OperationTable::qzpclose>(table.qzpclose, "close ");
    replace<&qz::OperationTable::qzpinfo>(table.qzpinfo, "info ");
    replace<&qz::OperationTable::qzptruncate>(table.qzptruncate, "truncate ");
    replace<&qz::OperationTable::qzpflush>(table.qzpflush, "flush ");
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
