// For programs that have SQLite and this layer linked into them: makes the layer the one that files
// are opened with. Built into SQLite's test program by scripts/sqlite-suite, not into qzvfs.so.
#include <sqlite3ext.h>

#include <cstdio>
#include <cstdlib>

extern "C" int sqlite3_qzvfs_init(sqlite3*, char**, const sqlite3_api_routines*);

// SQLite calls this at the end of its start. Without QZVFS_IO its own layer stays the default, so
// that one program tests both.
extern "C" int qzvfs_as_default(const char* /*unused*/) {
  if (std::getenv("QZVFS_IO") == nullptr) return SQLITE_OK;
  char* message = nullptr;
  const int code = sqlite3_qzvfs_init(nullptr, &message, nullptr);
  if (code != SQLITE_OK && code != SQLITE_OK_LOAD_PERMANENTLY) {
    std::fprintf(stderr, "%s\n", message != nullptr ? message : "the layer was not registered");
    return code;
  }
  return sqlite3_vfs_register(sqlite3_vfs_find("qz"), 1);
}
