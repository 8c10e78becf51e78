#include "connection.h"

#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>

namespace qztest {

bool loadLayer() {
  sqlite3* loader = nullptr;
  char* message = nullptr;
  sqlite3_open(":memory:", &loader);
  sqlite3_enable_load_extension(loader, 1);
  const int code = sqlite3_load_extension(loader, QZVFS, nullptr, &message);
  if (code != SQLITE_OK) std::fprintf(stderr, "%s: %s\n", QZVFS, message);
  sqlite3_free(message);
  sqlite3_close(loader);
  return code == SQLITE_OK;
}

std::string bytesOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

Connection::Connection(const std::string& path, const std::string& parameters) {
  const std::string name = "file:" + path + "?" + parameters;
  constexpr int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_URI;
  if (sqlite3_open_v2(name.c_str(), &database_, flags, nullptr) != SQLITE_OK) {
    std::fprintf(stderr, "%s: %s\n", name.c_str(), sqlite3_errmsg(database_));
    close();
    return;
  }
  sqlite3_extended_result_codes(database_, 1);
  sqlite3_busy_timeout(database_, 10000);
}

int Connection::run(const std::string& sql) {
  return sqlite3_exec(database_, sql.c_str(), nullptr, nullptr, nullptr);
}

std::string Connection::ask(const std::string& sql) {
  sqlite3_stmt* statement = nullptr;
  int code = sqlite3_prepare_v2(database_, sql.c_str(), -1, &statement, nullptr);
  std::string answer;
  if (code == SQLITE_OK) code = sqlite3_step(statement);
  if (code == SQLITE_ROW) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
    answer = text != nullptr ? text : "null";
  } else if (code != SQLITE_DONE) {
    answer = "error " + std::to_string(code);
  }
  sqlite3_finalize(statement);
  return answer;
}

int Connection::close() {
  sqlite3* const database = database_;
  database_ = nullptr;
  return sqlite3_close(database);
}

}  // namespace qztest
