// A connection to a test's database, through the layer "qz" or SQLite's own.
#pragma once

#include <sqlite3.h>

#include <string>
#include <vector>

namespace qztest {

// The modes of I/O, as the database's name gives them.
inline const std::vector<std::string> kModes = {"buffered", "direct", "block"};

// Loads the layer into this process, once; false with a message on standard error.
bool loadLayer();

// The bytes of a file.
std::string bytesOf(const std::string& path);

class Connection {
 public:
  // `parameters`: of the database's URI, such as "vfs=qz&io=direct".
  Connection(const std::string& path, const std::string& parameters);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { close(); }

  // Runs statements; the result code of the first that fails, or SQLITE_OK.
  int run(const std::string& sql);
  // The first column of the first row; "error N" with the extended result code if that fails.
  std::string ask(const std::string& sql);
  int close();
  sqlite3* handle() const { return database_; }

 private:
  sqlite3* database_ = nullptr;
};

}  // namespace qztest
