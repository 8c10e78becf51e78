// Makes the layer the default of a program that has SQLite and the layer linked into it.
// scripts/sqlite-suite builds it into SQLite's own test program; it is no part of qzvfs.so.
#include <sqlite3ext.h>

#include <cstdio>
#include <cstdlib>

extern "C" int sqlite3_qzvfs_init(sqlite3*, char**, const sqlite3_api_routines*);

// SQLite calls this at the end of its initialisation. Without QZVFS_IO its own layer stays the
// default, so that the same program can test both.
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
