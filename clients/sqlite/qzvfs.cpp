// The SQLite file layer "qz", a loadable extension: a shim over SQLite's own file layer. Main
// databases get file methods that send pages through the module; every other file is opened by the
// layer underneath, which returns its own methods.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "database.h"

SQLITE_EXTENSION_INIT1

namespace qzvfs {
namespace {

// What SQLite allocates for an open file: this record, then the file of the layer underneath.
struct File {
  sqlite3_file base;
  Database* database;
};
static_assert(sizeof(File) % alignof(std::max_align_t) == 0);

// Created by the first load and never destroyed: connections may be closed while the program exits.
struct Layer {
  qz::StandInHost host{{.hostPageSize = {},
                        .defaultJournal = qz::JournalSink::function,
                        .journalFunction = nullptr,
                        .journalContext = nullptr}};
  qz::Result<qz::Module> module;
  sqlite3_vfs* lower;
  sqlite3_vfs vfs;

  explicit Layer(sqlite3_vfs* under) : module(load(host)), lower(under), vfs(*under) {}

  static qz::Result<qz::Module> load(qz::StandInHost& host) {
    parkDescriptors(host);
    return qz::Module::load(host.handle());
  }
};
Layer* layer = nullptr;

sqlite3_file* lowerPart(File* file) { return reinterpret_cast<sqlite3_file*>(file + 1); }
File* ours(sqlite3_file* file) { return reinterpret_cast<File*>(file); }
Database& databaseOf(sqlite3_file* file) { return *ours(file)->database; }
sqlite3_file* lowerOf(sqlite3_file* file) { return lowerPart(ours(file)); }
const sqlite3_io_methods& under(sqlite3_file* file) { return *lowerOf(file)->pMethods; }

// SQLite is C: no exception may pass through it.
template <class Work>
int guarded(Work work) noexcept {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    return SQLITE_IOERR_NOMEM;
  }
}

int xClose(sqlite3_file* file) {
  Database* const database = ours(file)->database;
  const int written = guarded([&] { return database->writeBack(); });
  const int closed = under(file).xClose(lowerOf(file));
  delete database;
  return written != SQLITE_OK ? written : closed;
}

int xRead(sqlite3_file* file, void* data, int bytes, sqlite3_int64 offset) {
  return guarded([&] { return databaseOf(file).read(data, bytes, offset); });
}

int xWrite(sqlite3_file* file, const void* data, int bytes, sqlite3_int64 offset) {
  return guarded([&] { return databaseOf(file).write(data, bytes, offset); });
}

int xTruncate(sqlite3_file* file, sqlite3_int64 bytes) {
  return guarded([&] { return databaseOf(file).truncate(bytes); });
}

int xSync(sqlite3_file* file, int flags) {
  return guarded([&] { return databaseOf(file).sync(flags); });
}

int xFileSize(sqlite3_file* file, sqlite3_int64* bytes) {
  return guarded([&] { return databaseOf(file).fileSize(bytes); });
}

// The first lock ends the time in which other connections could change the file.
int xLock(sqlite3_file* file, int level) {
  const int code = under(file).xLock(lowerOf(file), level);
  if (code == SQLITE_OK && level == SQLITE_LOCK_SHARED) databaseOf(file).stale();
  return code;
}

int xUnlock(sqlite3_file* file, int level) {
  const int written = guarded([&] { return databaseOf(file).writeBack(); });
  const int code = under(file).xUnlock(lowerOf(file), level);
  return written != SQLITE_OK ? written : code;
}

int xCheckReservedLock(sqlite3_file* file, int* reserved) {
  return under(file).xCheckReservedLock(lowerOf(file), reserved);
}

// PRAGMA qz_io returns the I/O mode.
int pragma(Database& database, char** arguments) {
  if (sqlite3_stricmp(arguments[1], "qz_io") != 0) return SQLITE_NOTFOUND;
  arguments[0] = sqlite3_mprintf("%s", database.describe().c_str());
  return arguments[0] != nullptr ? SQLITE_OK : SQLITE_NOMEM;
}

int control(sqlite3_file* file, int operation, void* argument) {
  Database& database = databaseOf(file);
  switch (operation) {
    case SQLITE_FCNTL_PRAGMA: {
      const int code = pragma(database, static_cast<char**>(argument));
      if (code != SQLITE_NOTFOUND) return code;
      break;
    }
    case SQLITE_FCNTL_MMAP_SIZE:
      return SQLITE_NOTFOUND;  // pages are not mapped
    case SQLITE_FCNTL_LAST_ERRNO:
      if (!database.lastErrno()) break;
      *static_cast<int*>(argument) = *database.lastErrno();
      return SQLITE_OK;
    case SQLITE_FCNTL_SYNC:  // comes with each commit, even with synchronous=OFF
      if (const int code = database.writeBack(); code != SQLITE_OK) return code;
      break;
    case SQLITE_FCNTL_CKPT_START:
      database.setCheckpointing(true);
      break;
    case SQLITE_FCNTL_CKPT_DONE:
      database.setCheckpointing(false);
      break;
    case SQLITE_FCNTL_CHUNK_SIZE:
      if (const int code = database.setChunked(); code != SQLITE_OK) return code;
      break;
    case SQLITE_FCNTL_SIZE_HINT:
      // The layer underneath enlarges a file only if it grows in chunks.
      if (!database.isChunked()) return SQLITE_OK;
      database.stale();
      break;
    default:
      break;
  }
  const int code = under(file).xFileControl(lowerOf(file), operation, argument);
  if (operation == SQLITE_FCNTL_VFSNAME && code == SQLITE_OK) {
    auto* const name = static_cast<char**>(argument);
    *name = sqlite3_mprintf("qz/%z", *name);
    if (*name == nullptr) return SQLITE_NOMEM;
  }
  return code;
}

int xFileControl(sqlite3_file* file, int operation, void* argument) {
  return guarded([&] { return control(file, operation, argument); });
}

int xSectorSize(sqlite3_file* file) { return under(file).xSectorSize(lowerOf(file)); }

// Atomic write groups would apply to the descriptor underneath.
int xDeviceCharacteristics(sqlite3_file* file) {
  return under(file).xDeviceCharacteristics(lowerOf(file)) & ~SQLITE_IOCAP_BATCH_ATOMIC;
}

int xShmMap(sqlite3_file* file, int region, int bytes, int extend, void volatile** memory) {
  return under(file).xShmMap(lowerOf(file), region, bytes, extend, memory);
}

// A reader of a write-ahead log keeps its file lock. The locks in shared memory begin and end the
// time in which other connections can change the file.
int xShmLock(sqlite3_file* file, int offset, int count, int flags) {
  Database& database = databaseOf(file);
  const bool unlocks = (flags & SQLITE_SHM_UNLOCK) != 0;
  const int written = unlocks ? guarded([&] { return database.writeBack(); }) : int{SQLITE_OK};
  const int code = under(file).xShmLock(lowerOf(file), offset, count, flags);
  if (!unlocks && code == SQLITE_OK) {
    const int before = guarded([&] { return database.writeBack(); });
    database.stale();
    if (before != SQLITE_OK) return before;
  }
  return written != SQLITE_OK ? written : code;
}

void xShmBarrier(sqlite3_file* file) { under(file).xShmBarrier(lowerOf(file)); }

int xShmUnmap(sqlite3_file* file, int remove) {
  return under(file).xShmUnmap(lowerOf(file), remove);
}

// Version 2: shared memory, but no mapped pages.
constexpr sqlite3_io_methods kMethods = {2,
                                         xClose,
                                         xRead,
                                         xWrite,
                                         xTruncate,
                                         xSync,
                                         xFileSize,
                                         xLock,
                                         xUnlock,
                                         xCheckReservedLock,
                                         xFileControl,
                                         xSectorSize,
                                         xDeviceCharacteristics,
                                         xShmMap,
                                         xShmLock,
                                         xShmBarrier,
                                         xShmUnmap,
                                         nullptr,
                                         nullptr};

// A parameter of the database's name as a number from `least` to `most`.
template <class Number>
bool numberParameter(const char* name, const char* key, std::int64_t least, std::int64_t most,
                     Number* value) {
  const char* const text = sqlite3_uri_parameter(name, key);
  if (text == nullptr) return true;
  char* end = nullptr;
  const long long number = std::strtoll(text, &end, 10);
  if (end != text && *end == '\0' && number >= least && number <= most) {
    *value = static_cast<Number>(number);
    return true;
  }
  sqlite3_log(SQLITE_CANTOPEN, "qzvfs: %s=%s: must be a number from %lld to %lld", key, text,
              static_cast<long long>(least), static_cast<long long>(most));
  return false;
}

// A misspelt parameter has no effect, as in SQLite, but is logged.
void warnOfUnknown(const char* name) {
  constexpr int firstWithKeys = 3031000;
  if (sqlite3_libversion_number() < firstWithKeys) return;
  static constexpr const char* known[] = {"io",    "block",     "buffers", "vfs",  "mode",
                                          "cache", "immutable", "nolock",  "psow", "modeof"};
  const char* key = nullptr;
  for (int i = 0; (key = sqlite3_uri_key(name, i)) != nullptr; ++i) {
    if (std::ranges::none_of(known, [&](const char* one) { return std::strcmp(one, key) == 0; })) {
      sqlite3_log(SQLITE_WARNING, "qzvfs: the parameter %s is not known", key);
    }
  }
}

// The system's cache makes repeated reads fast as long as the database fits into it.
qz::Io automatic(sqlite3_file* lower) {
  sqlite3_int64 bytes = 0;
  if (lower->pMethods->xFileSize(lower, &bytes) != SQLITE_OK) return qz::Io::buffered;
  const std::int64_t memory = std::int64_t{sysconf(_SC_PHYS_PAGES)} * sysconf(_SC_PAGESIZE);
  return bytes > memory ? qz::Io::direct : qz::Io::buffered;
}

// The parameter of the name, else the environment variable.
bool readWish(const char* name, sqlite3_file* lower, Wish* wish) {
  warnOfUnknown(name);
  const char* asked = sqlite3_uri_parameter(name, "io");
  if (asked == nullptr) asked = std::getenv("QZVFS_IO");
  wish->asked = asked != nullptr ? asked : "auto";
  if (wish->asked == "auto") {
    wish->io = automatic(lower);
  } else if (wish->asked == "buffered") {
    wish->io = qz::Io::buffered;
  } else if (wish->asked == "direct") {
    wish->io = qz::Io::direct;
  } else if (wish->asked == "block") {
    wish->io = qz::Io::block;
  } else {
    sqlite3_log(SQLITE_CANTOPEN, "qzvfs: io=%s: must be buffered, direct, block or auto", asked);
    return false;
  }
  return numberParameter(name, "block", 512, 1 << 26, &wish->blockBytes) &&
         numberParameter(name, "buffers", 1, 65536, &wish->buffers);
}

int openDatabase(const char* name, File* file, int flags, int* flagsOut) {
  sqlite3_file* const lower = lowerPart(file);
  int opened = flags;
  const int code = layer->lower->xOpen(layer->lower, name, lower, flags, &opened);
  if (code != SQLITE_OK) return code;
  if (flagsOut != nullptr) *flagsOut = opened;
  const int made = guarded([&] {
    Wish wish;
    wish.writable = (opened & SQLITE_OPEN_READWRITE) != 0;
    if (!readWish(name, lower, &wish)) return SQLITE_CANTOPEN;
    file->database = new Database(*layer->module, lower, name, std::move(wish));
    return SQLITE_OK;
  });
  if (made != SQLITE_OK) {
    lower->pMethods->xClose(lower);
    return made;
  }
  file->base.pMethods = &kMethods;
  return SQLITE_OK;
}

int xOpen(sqlite3_vfs* /*vfs*/, const char* name, sqlite3_file* file, int flags, int* flagsOut) {
  file->pMethods = nullptr;
  if ((flags & SQLITE_OPEN_MAIN_DB) != 0 && name != nullptr) {
    std::memset(lowerPart(ours(file)), 0, static_cast<std::size_t>(layer->lower->szOsFile));
    return openDatabase(name, ours(file), flags, flagsOut);
  }
  return layer->lower->xOpen(layer->lower, name, file, flags, flagsOut);
}

// Calls that concern no open file go to the layer underneath, with its own record.
template <auto Member>
struct Forward;
template <class Result, class... Arguments,
          Result (*sqlite3_vfs::*Member)(sqlite3_vfs*, Arguments...)>
struct Forward<Member> {
  static Result call(sqlite3_vfs* /*vfs*/, Arguments... arguments) {
    return (layer->lower->*Member)(layer->lower, arguments...);
  }
};

// Where the layer underneath has an entry, ours forwards to it.
template <auto Member>
void forward(sqlite3_vfs* vfs) {
  if (vfs->*Member != nullptr) vfs->*Member = Forward<Member>::call;
}

void fill(sqlite3_vfs* vfs) {
  vfs->szOsFile += static_cast<int>(sizeof(File));
  vfs->pNext = nullptr;
  vfs->zName = "qz";
  vfs->pAppData = nullptr;
  vfs->xOpen = xOpen;
  forward<&sqlite3_vfs::xDelete>(vfs);
  forward<&sqlite3_vfs::xAccess>(vfs);
  forward<&sqlite3_vfs::xFullPathname>(vfs);
  forward<&sqlite3_vfs::xDlOpen>(vfs);
  forward<&sqlite3_vfs::xDlError>(vfs);
  forward<&sqlite3_vfs::xDlSym>(vfs);
  forward<&sqlite3_vfs::xDlClose>(vfs);
  forward<&sqlite3_vfs::xRandomness>(vfs);
  forward<&sqlite3_vfs::xSleep>(vfs);
  forward<&sqlite3_vfs::xCurrentTime>(vfs);
  forward<&sqlite3_vfs::xGetLastError>(vfs);
  if (vfs->iVersion >= 2) forward<&sqlite3_vfs::xCurrentTimeInt64>(vfs);
  if (vfs->iVersion >= 3) {
    forward<&sqlite3_vfs::xSetSystemCall>(vfs);
    forward<&sqlite3_vfs::xGetSystemCall>(vfs);
    forward<&sqlite3_vfs::xNextSystemCall>(vfs);
  }
}

// SQLite's registry of file layers is not locked here: in practice one thread at a time loads
// extensions, and a second load finds the layer by its name.
int registerLayer(char** message) {
  if (sqlite3_vfs_find("qz") != nullptr) return SQLITE_OK;
  sqlite3_vfs* const lower = sqlite3_vfs_find(nullptr);
  if (lower == nullptr) return SQLITE_ERROR;
  auto made = std::make_unique<Layer>(lower);
  if (!made->module) {
    if (message != nullptr) {
      *message = sqlite3_mprintf("qzvfs: %s", made->module.error().message().c_str());
    }
    return SQLITE_ERROR;
  }
  layer = made.release();
  fill(&layer->vfs);
  return sqlite3_vfs_register(&layer->vfs, 0);
}

}  // namespace
}  // namespace qzvfs

// The entry point that SQLite looks for in qzvfs.so. The layer stays until the process ends.
extern "C" __attribute__((visibility("default"))) int sqlite3_qzvfs_init(
    sqlite3* /*database*/, char** message, const sqlite3_api_routines* routines) {
  SQLITE_EXTENSION_INIT2(routines)
  const int code = qzvfs::guarded([&] { return qzvfs::registerLayer(message); });
  return code == SQLITE_OK ? SQLITE_OK_LOAD_PERMANENTLY : code;
}
