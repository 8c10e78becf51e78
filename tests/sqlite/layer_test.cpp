// SQLite on the module, with the real SQLite: databases must have the bytes that SQLite's own file
// layer gives them, and lose nothing when processes die, disks fill up, calls fail or others write.
#include <dlfcn.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <random>
#include <string>

#include "connection.h"
#include "support/syscalls.h"

namespace {

using qztest::bytesOf;
using qztest::Connection;
using qztest::kModes;

std::string viaModule(const std::string& mode) { return "vfs=qz&io=" + mode; }
const std::string kOwnLayer = "vfs=unix";

int numberFromEnvironment(const char* name, int otherwise) {
  const char* const text = std::getenv(name);
  return text != nullptr ? std::atoi(text) : otherwise;
}

struct SqliteTest : testing::Test {
  static void SetUpTestSuite() {
    ASSERT_TRUE(qztest::loadLayer());
    void* const module = dlopen(QZIOP_MODULE, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(module, nullptr) << "the layer loaded another module";
    qztest::calls().watch(dlsym(module, "qziop"));
  }
  void SetUp() override { std::filesystem::create_directory(folder); }
  void TearDown() override {
    qztest::calls().plan({});
    std::filesystem::remove_all(folder);
  }
  // A database that does not exist yet.
  std::string fresh() { return folder + "/" + std::to_string(++files) + ".db"; }

  const std::string folder = QZIOP_PROGRAMS "/qzsqlite" + std::to_string(getpid());
  int files = 0;
};

// Runs statements in the sqlite3 program, a process that shares nothing with this one; 0: success.
int shell(const std::string& path, const std::string& sql) {
  return std::system(("sqlite3 '" + path + "' \"" + sql + "\" >/dev/null 2>&1").c_str());
}

// Runs `work` in another process. This one must not have the same database open: SQLite's locks do
// not survive a fork.
class Child {
 public:
  explicit Child(const std::function<int()>& work) : pid_(fork()) {
    if (pid_ == 0) _exit(work());
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (pid_ > 0) kill();
  }
  void kill() {
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  // Waits; true when the work returned 0.
  bool ended() {
    int status = -1;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return status == 0;
  }

 private:
  pid_t pid_;
};

std::string insertRows(int first, int last) {
  return fmt::format(
      "insert into t with recursive n(i) as (select {} union all select i+1 from n where i<{}) "
      "select i, printf('%0*d', 40+i%160, i) from n;",
      first, last);
}

// A workload of everything that moves pages: growth, indexes, rewrites, free pages, savepoints,
// vacuums.
void runWorkload(Connection& database, int pageSize, const char* journal, int rows) {
  for (const std::string& sql :
       {"pragma page_size=" + std::to_string(pageSize), std::string("pragma cache_size=50"),
        std::string("pragma journal_mode=") + journal, std::string("pragma synchronous=off"),
        std::string("create table t(a integer primary key, b text)"), insertRows(1, rows),
        std::string("create index ti on t(b)"),
        std::string("update t set b=b||'longer than it was' where a%7=0"),
        fmt::format("delete from t where a between {0} and 2*{0}", rows / 3),
        std::string("begin; savepoint s"), insertRows(rows + 1, rows + rows / 4),
        std::string("rollback to s; release s; commit"), std::string("vacuum"),
        insertRows(rows + 1, rows + rows / 2), "delete from t where a>" + std::to_string(rows),
        std::string("pragma incremental_vacuum; pragma wal_checkpoint(truncate)")}) {
    ASSERT_EQ(database.run(sql), SQLITE_OK) << sql << ": " << sqlite3_errmsg(database.handle());
  }
  ASSERT_EQ(database.ask("pragma integrity_check"), "ok");
}

// The same statements must make the same file through the module as through SQLite's own layer.
// QZIOP_ROWS makes the file larger, with pages of 4096 bytes only.
TEST_F(SqliteTest, EveryModeWritesTheBytesOfSqlitesOwnLayer) {
  const int rows = numberFromEnvironment("QZIOP_ROWS", 500);
  const bool large = std::getenv("QZIOP_ROWS") != nullptr;
  for (const int pageSize : {4096, 512, 65536}) {
    if (large && pageSize != 4096) break;
    for (const char* journal : {"delete", "wal"}) {
      SCOPED_TRACE(fmt::format("{} {}", pageSize, journal));
      const std::string own = fresh();
      {
        Connection database(own, kOwnLayer);
        ASSERT_NO_FATAL_FAILURE(runWorkload(database, pageSize, journal, rows));
      }
      for (const std::string& mode : kModes) {
        const std::string path = fresh();
        {
          Connection database(path, viaModule(mode));
          ASSERT_NO_FATAL_FAILURE(runWorkload(database, pageSize, journal, rows)) << mode;
          const std::string obtained = database.ask("pragma qz_io");
          EXPECT_EQ(obtained.find("SQLite's own"), std::string::npos) << obtained;
        }
        EXPECT_TRUE(bytesOf(path) == bytesOf(own)) << mode << " differs";
      }
    }
  }
}

// The system drops all locks of a process on a file when the process closes any descriptor of it. A
// connection that closes must not take away the locks of another one.
TEST_F(SqliteTest, AClosedConnectionLeavesTheLocksOfOthers) {
  for (const std::string& mode : kModes) {
    for (const std::string& holder : {viaModule(mode), kOwnLayer}) {
      SCOPED_TRACE(fmt::format("{}, lock held through {}", mode, holder));
      const std::string path = fresh();
      Connection locks(path, holder);
      ASSERT_EQ(locks.run("create table t(a); begin immediate; insert into t values(1)"),
                SQLITE_OK);
      for (int i = 0; i < 3; ++i) {
        Connection passing(path, viaModule(mode));
        ASSERT_EQ(passing.ask("select count(*) from t"), "0");
      }
      EXPECT_NE(shell(path, "begin immediate"), 0) << "another process got past the lock";
      EXPECT_EQ(locks.run("commit"), SQLITE_OK);
    }
  }
}

// Two processes that take turns must each see what the other one committed.
TEST_F(SqliteTest, ProcessesSeeWhatEachOtherCommitted) {
  constexpr int turns = 12;
  for (const std::string& mode : kModes) {
    for (const char* journal : {"delete", "wal"}) {
      for (const std::string& partner : {viaModule(mode), kOwnLayer}) {
        SCOPED_TRACE(fmt::format("{} {} with {}", mode, journal, partner));
        const std::string path = fresh();
        int there[2];
        int back[2];
        ASSERT_EQ(pipe(there) + pipe(back), 0);
        // A row of each turn; every third is larger than a page, and every fifth frees pages.
        const auto takeTurns = [&](const std::string& parameters, bool first, int in, int out) {
          Connection database(path, parameters);
          char token = 'x';
          for (int turn = first ? 0 : 1; turn < turns; turn += 2) {
            if (turn > 0 && ::read(in, &token, 1) != 1) return 1;
            const std::string before = std::to_string(turn);
            if (turn > 0 && database.ask("select n from c") != before) return 2;
            const std::string work = fmt::format(
                "begin immediate; update c set n=n+1; insert into t values({0}, zeroblob({1}));"
                "delete from t where a<{2}; commit",
                turn, turn % 3 == 0 ? 9000 : 100, turn % 5 == 0 ? turn - 4 : 0);
            if (database.run(work) != SQLITE_OK) return 3;
            if (::write(out, &token, 1) != 1) return 4;
          }
          return 0;
        };
        {
          Connection database(path, viaModule(mode));
          ASSERT_EQ(database.run(std::string("pragma journal_mode=") + journal +
                                 "; create table c(n); insert into c values(0);"
                                 "create table t(a, b)"),
                    SQLITE_OK);
        }
        Child second([&] { return takeTurns(partner, false, there[0], back[1]); });
        ::close(back[1]);
        EXPECT_EQ(takeTurns(viaModule(mode), true, back[0], there[1]), 0);
        EXPECT_TRUE(second.ended());
        Connection database(path, viaModule(mode));
        EXPECT_EQ(database.ask("select n from c"), std::to_string(turns));
        EXPECT_EQ(database.ask("pragma integrity_check"), "ok");
        for (const int end : {there[0], there[1], back[0]}) ::close(end);
      }
    }
  }
}

// A block holds pages that were read along with the one wanted. They must not be served after
// another process has changed them. With a write-ahead log the reader keeps its lock all the time,
// so that a new lock does not tell of the change.
TEST_F(SqliteTest, PagesInMemoryAreReadAgainAfterOthersChangedThem) {
  for (const std::string& mode : kModes) {
    for (const char* journal : {"delete", "wal"}) {
      SCOPED_TRACE(mode + " " + journal);
      const std::string path = fresh();
      Connection reader(path, viaModule(mode));
      ASSERT_EQ(reader.run(std::string("pragma journal_mode=") + journal +
                           "; pragma cache_size=0; create table t(a integer primary key, b text);" +
                           insertRows(1, 1000) + "pragma wal_checkpoint(truncate)"),
                SQLITE_OK);
      for (int round = 1; round <= 2; ++round) {
        EXPECT_EQ(reader.ask("select count(b) from t where a<20"), "19");
        ASSERT_EQ(shell(path, "update t set b=replace(b,'0','z') where a>900;" +
                                  insertRows(1000 * round + 1, 1000 * round + 1000) +
                                  "pragma wal_checkpoint(passive)"),
                  0);
        EXPECT_EQ(reader.ask("select count(*) from t where a>900 and a<1001 and b like '%zzz%'"),
                  "100");
        EXPECT_EQ(reader.ask("select count(b) from t"), std::to_string(1000 * round + 1000));
      }
      EXPECT_EQ(reader.ask("pragma integrity_check"), "ok");
    }
  }
}

// Rows that were committed must survive a kill of the process at any moment. QZIOP_KILLS: the
// number of kills in each mode.
TEST_F(SqliteTest, KilledProcessesLoseNoAcknowledgedRow) {
  const int kills = numberFromEnvironment("QZIOP_KILLS", 4);
  std::minstd_rand random(4711);
  for (const std::string& mode : kModes) {
    const std::string path = fresh();
    for (int kill = 0; kill < kills; ++kill) {
      SCOPED_TRACE(mode + ", kill " + std::to_string(kill));
      int acknowledged[2];
      ASSERT_EQ(pipe(acknowledged), 0);
      Child writer([&] {
        Connection database(path, viaModule(mode));
        if (database.run(std::string("pragma journal_mode=") + (kill % 2 == 0 ? "delete" : "wal") +
                         "; pragma synchronous=full; pragma cache_size=10;"
                         "create table if not exists t(a integer primary key, b text)") !=
            SQLITE_OK) {
          return 1;
        }
        int row = std::atoi(database.ask("select coalesce(max(a), 0) from t").c_str());
        for (;; row += 10) {
          if (database.run(insertRows(row + 1, row + 10)) != SQLITE_OK) return 1;
          const int last = row + 10;
          if (::write(acknowledged[1], &last, sizeof last) != sizeof last) return 1;
        }
      });
      ::close(acknowledged[1]);
      int last = 0;
      const auto wanted = random() % 12;
      for (unsigned i = 0; i <= wanted; ++i) {
        ASSERT_EQ(::read(acknowledged[0], &last, sizeof last), int{sizeof last});
      }
      usleep(static_cast<unsigned>(random() % 3000));
      writer.kill();
      while (::read(acknowledged[0], &last, sizeof last) == int{sizeof last}) {
      }
      ::close(acknowledged[0]);
      Connection database(path, viaModule(mode));
      EXPECT_EQ(database.ask("pragma integrity_check"), "ok");
      const int rows = std::atoi(database.ask("select count(*) from t").c_str());
      EXPECT_EQ(database.ask("select max(a) from t"), std::to_string(rows));
      EXPECT_GE(rows, last) << "a row was lost that was acknowledged";
    }
  }
}

// Inserts rows until there is no room, makes room and goes on.
void fillThenGoOn(const std::string& path, const std::string& parameters,
                  const std::function<void()>& makeRoom) {
  Connection database(path, parameters);
  ASSERT_EQ(
      database.run("pragma journal_mode=memory; create table t(a integer primary key, b text)"),
      SQLITE_OK);
  int code = SQLITE_OK;
  int rows = 0;
  for (; code == SQLITE_OK && rows < 100000; rows += 500) {
    code = database.run(insertRows(rows + 1, rows + 500));
  }
  rows -= 500;  // without those of the insert that failed
  EXPECT_EQ(code, SQLITE_FULL);
  EXPECT_EQ(database.ask("select count(*) from t"), std::to_string(rows));
  EXPECT_EQ(database.ask("pragma integrity_check"), "ok");
  makeRoom();
  EXPECT_EQ(database.run(insertRows(rows + 1, rows + 4500)), SQLITE_OK);
  EXPECT_EQ(database.ask("select count(*) from t"), std::to_string(rows + 4500));
  EXPECT_EQ(database.ask("pragma integrity_check"), "ok");
}

// A write beyond the size limit must leave a sound database, and a connection that works once there
// is room.
TEST_F(SqliteTest, AFileAtItsSizeLimitIsFullAndTheConnectionGoesOn) {
  struct rlimit before = {};
  getrlimit(RLIMIT_FSIZE, &before);
  const auto ignored = std::signal(SIGXFSZ, SIG_IGN);
  for (const std::string& mode : kModes) {
    SCOPED_TRACE(mode);
    const struct rlimit small = {1500000, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    fillThenGoOn(fresh(), viaModule(mode), [&] { setrlimit(RLIMIT_FSIZE, &before); });
    setrlimit(RLIMIT_FSIZE, &before);
  }
  std::signal(SIGXFSZ, ignored);
}

// The same on a full file system, where collected pages fail only at their write-back.
TEST_F(SqliteTest, AFullDiskIsFullAndTheConnectionGoesOn) {
  const std::string disk = folder + "/disk";
  std::filesystem::create_directory(disk);
  if (mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=2m") != 0) {
    GTEST_SKIP() << "no right to mount a small file system";
  }
  for (const std::string& mode : kModes) {
    SCOPED_TRACE(mode);
    fillThenGoOn(disk + "/full.db", viaModule(mode), [&] {
      EXPECT_EQ(mount("tmpfs", disk.c_str(), "tmpfs", MS_REMOUNT, "size=9m"), 0);
    });
    std::filesystem::remove(disk + "/full.db");
    mount("tmpfs", disk.c_str(), "tmpfs", MS_REMOUNT, "size=2m");
  }
  EXPECT_EQ(umount(disk.c_str()), 0);
}

// Bytes behind the last whole page may be another program's, or a page that SQLite is about to
// complete. They must not be truncated away.
TEST_F(SqliteTest, BytesBehindTheLastWholePageStay) {
  for (const std::string& mode : kModes) {
    SCOPED_TRACE(mode);
    const std::string paths[] = {fresh(), fresh()};
    for (const std::string& path : paths) {
      {
        Connection database(path, kOwnLayer);
        ASSERT_EQ(
            database.run("create table t(a integer primary key, b text);" + insertRows(1, 300)),
            SQLITE_OK);
      }
      std::filesystem::resize_file(path, std::filesystem::file_size(path) + 300);
    }
    const std::string parameters[] = {viaModule(mode), kOwnLayer};
    for (int i = 0; i < 2; ++i) {
      Connection database(paths[i], parameters[i]);
      EXPECT_EQ(database.ask("select count(*) from t"), "300");
      if (i == 0) {
        EXPECT_NE(database.ask("pragma qz_io").find("not whole pages"), std::string::npos);
      }
      ASSERT_EQ(database.run("update t set b='short' where a=1"), SQLITE_OK);
      EXPECT_EQ(std::filesystem::file_size(paths[i]) % 4096, 300U) << "the last part was cut";
      ASSERT_EQ(database.run(insertRows(301, 900)), SQLITE_OK);
      EXPECT_EQ(database.ask("pragma integrity_check"), "ok");
    }
    EXPECT_TRUE(bytesOf(paths[0]) == bytesOf(paths[1]));
  }
}

// A read or fstat that fails once must fail its query, and the next query must give the right
// answer.
TEST_F(SqliteTest, PassingErrorsFailOneQueryOnly) {
  sqlite3_vfs* const own = sqlite3_vfs_find("unix");
  static bool failing = false;
  static const auto lookAtFile =
      reinterpret_cast<int (*)(int, struct stat*)>(own->xGetSystemCall(own, "fstat"));
  const auto mayFail = +[](int fd, struct stat* about) {
    if (!failing) return lookAtFile(fd, about);
    errno = EIO;
    return -1;
  };
  for (const std::string& mode : kModes) {
    SCOPED_TRACE(mode);
    const std::string path = fresh();
    Connection database(path, viaModule(mode));
    ASSERT_EQ(database.run("pragma cache_size=0; create table t(a integer primary key, b text);" +
                           insertRows(1, 3000)),
              SQLITE_OK);
    const std::string sum = database.ask("select sum(length(b)) from t");
    for (const int nth : {1, 2}) {
      qztest::calls().plan({{.call = qztest::Call::pread, .nth = nth}});
      EXPECT_EQ(database.ask("select sum(length(b)) from t").substr(0, 5), "error");
      EXPECT_EQ(database.ask("select sum(length(b)) from t"), sum);
    }
    qztest::calls().plan({});

    own->xSetSystemCall(own, "fstat", reinterpret_cast<sqlite3_syscall_ptr>(mayFail));
    failing = true;
    EXPECT_EQ(database.ask("select sum(length(b)) from t").substr(0, 5), "error");
    failing = false;
    own->xSetSystemCall(own, "fstat", nullptr);
    EXPECT_EQ(database.ask("select sum(length(b)) from t"), sum);
  }
}

// A transaction with a refused write must fail, also where the write was of pages collected before,
// or was refused for its alignment (EINVAL). Nothing of it may stay, and the next one must succeed.
TEST_F(SqliteTest, RefusedWritesFailTheirTransactionAndLoseNothing) {
  for (const std::string& mode : kModes) {
    for (const int error : {EINVAL, EIO, ENOSPC}) {
      for (int nth = 1; nth <= 20; ++nth) {
        SCOPED_TRACE(fmt::format("{}, write {} fails with {}", mode, nth, strerrorname_np(error)));
        Connection database(fresh(), viaModule(mode) + "&block=32768");
        ASSERT_EQ(database.run("pragma synchronous=off; pragma cache_size=10;"
                               "create table t(a integer primary key, b text);" +
                               insertRows(1, 100)),
                  SQLITE_OK);
        qztest::calls().plan({{.call = qztest::Call::pwrite,
                               .nth = nth,
                               .error = static_cast<std::uint32_t>(error)}});
        // A read in the transaction may need pages that were collected.
        const char* const read = nth % 2 == 0 ? "select sum(length(b)) from t;" : "";
        const int code = database.run("begin;" + insertRows(101, 1200) + read + "commit");
        qztest::calls().plan({});
        if (code != SQLITE_OK) database.run("rollback");
        EXPECT_EQ(database.ask("select count(*) from t"), code == SQLITE_OK ? "1200" : "100");
        EXPECT_EQ(database.ask("pragma integrity_check"), "ok");
        EXPECT_EQ(database.run(insertRows(1201, 1300)), SQLITE_OK);
      }
    }
  }
}

// A wrong parameter must not be ignored, and the pragma must show the mode obtained.
TEST_F(SqliteTest, ParametersAreCheckedAndTheModeIsTold) {
  EXPECT_EQ(Connection(fresh(), "vfs=qz&io=quick").handle(), nullptr);
  EXPECT_EQ(Connection(fresh(), "vfs=qz&buffers=0").handle(), nullptr);
  Connection database(fresh(), "vfs=qz&io=block&block=65536&buffers=2");
  EXPECT_EQ(database.ask("pragma qz_io"), "no page yet (asked: block)");
  EXPECT_EQ(database.run("pragma page_size=1024; create table t(a)"), SQLITE_OK);
  EXPECT_EQ(database.ask("pragma qz_io").substr(0, 5), "block");
}

}  // namespace
