// qzpfaultyfs FAULT SOURCE MOUNTPOINT [FUSE OPTION...]: a file system that passes everything on to
// the folder SOURCE, with one fault:
//
//   none            no fault: what FUSE itself makes of it
//   refuse-direct   an open with O_DIRECT fails with EINVAL
//   short-reads     a read of more than 512 bytes gets half of them
//   interrupted     every fifth read fails with EINTR
//   failing-writes  writes fail with EIO from byte 4 MiB of a file on
//   lost            once the file SOURCE/.lost exists, everything fails with ENOTCONN
#define FUSE_USE_VERSION 31
#include <dirent.h>
#include <fcntl.h>
#include <fuse.h>
#include <sys/stat.h>
#include <sysexits.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

namespace {

std::string fault;   // NOLINT: set once, before the file system runs
std::string source;  // NOLINT: the same

std::string real(const char* path) { return source + path; }

bool isLost() { return fault == "lost" && access((source + "/.lost").c_str(), F_OK) == 0; }

// The result of a system call as FUSE wants it.
template <class Result>
int outcome(Result result) {
  return result == -1 ? -errno : static_cast<int>(result);
}

int getAttributes(const char* path, struct stat* about, fuse_file_info* /*file*/) {
  return isLost() ? -ENOTCONN : outcome(lstat(real(path).c_str(), about));
}

int openFile(const char* path, fuse_file_info* file) {
  if (isLost()) return -ENOTCONN;
  if (fault == "refuse-direct" && (file->flags & O_DIRECT) != 0) return -EINVAL;
  const int fd = open(real(path).c_str(), file->flags & ~(O_DIRECT | O_CREAT | O_EXCL));
  if (fd == -1) return -errno;
  file->fh = static_cast<std::uint64_t>(fd);
  // Past the page cache of the kernel, which would take a short read for the end of the file.
  file->direct_io = fault == "short-reads" || fault == "interrupted";
  return 0;
}

int createFile(const char* path, mode_t mode, fuse_file_info* file) {
  if (isLost()) return -ENOTCONN;
  if (fault == "refuse-direct" && (file->flags & O_DIRECT) != 0) return -EINVAL;
  const int fd = open(real(path).c_str(), file->flags & ~O_DIRECT, mode);
  if (fd == -1) return -errno;
  file->fh = static_cast<std::uint64_t>(fd);
  return 0;
}

int fdOf(const fuse_file_info* file) { return static_cast<int>(file->fh); }

int readFile(const char* /*path*/, char* data, std::size_t bytes, off_t offset,
             fuse_file_info* file) {
  static std::atomic<int> reads{0};
  if (isLost()) return -ENOTCONN;
  if (fault == "interrupted" && ++reads % 5 == 0) return -EINTR;
  if (fault == "short-reads" && bytes > 512) bytes /= 2;
  return outcome(pread(fdOf(file), data, bytes, offset));
}

int writeFile(const char* /*path*/, const char* data, std::size_t bytes, off_t offset,
              fuse_file_info* file) {
  constexpr off_t kFailing = 4 << 20;
  if (isLost()) return -ENOTCONN;
  if (fault == "failing-writes" && offset + off_t(bytes) > kFailing) return -EIO;
  return outcome(pwrite(fdOf(file), data, bytes, offset));
}

int truncateFile(const char* path, off_t bytes, fuse_file_info* /*file*/) {
  return isLost() ? -ENOTCONN : outcome(truncate(real(path).c_str(), bytes));
}

int syncFile(const char* /*path*/, int /*dataOnly*/, fuse_file_info* file) {
  return isLost() ? -ENOTCONN : outcome(fsync(fdOf(file)));
}

int releaseFile(const char* /*path*/, fuse_file_info* file) { return outcome(close(fdOf(file))); }

int removeName(const char* path) {
  return isLost() ? -ENOTCONN : outcome(unlink(real(path).c_str()));
}

int renameFile(const char* from, const char* to, unsigned flags) {
  return isLost()
             ? -ENOTCONN
             : outcome(renameat2(AT_FDCWD, real(from).c_str(), AT_FDCWD, real(to).c_str(), flags));
}

int listFolder(const char* path, void* buffer, fuse_fill_dir_t fill, off_t /*offset*/,
               fuse_file_info* /*file*/, fuse_readdir_flags /*flags*/) {
  if (isLost()) return -ENOTCONN;
  DIR* const folder = opendir(real(path).c_str());
  if (folder == nullptr) return -errno;
  while (const dirent* entry = readdir(folder)) {  // NOLINT: one reader for each folder
    fill(buffer, entry->d_name, nullptr, 0, fuse_fill_dir_flags{});
  }
  return outcome(closedir(folder));
}

int changeMode(const char* path, mode_t mode, fuse_file_info* /*file*/) {
  return isLost() ? -ENOTCONN : outcome(chmod(real(path).c_str(), mode));
}

int linkName(const char* from, const char* to) {
  return isLost() ? -ENOTCONN : outcome(link(real(from).c_str(), real(to).c_str()));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: qzpfaultyfs FAULT SOURCE MOUNTPOINT [FUSE OPTION...]\n");
    return EX_USAGE;
  }
  fault = argv[1];
  source = argv[2];
  fuse_operations operations{};
  operations.getattr = getAttributes;
  operations.open = openFile;
  operations.create = createFile;
  operations.read = readFile;
  operations.write = writeFile;
  operations.truncate = truncateFile;
  operations.fsync = syncFile;
  operations.release = releaseFile;
  operations.unlink = removeName;
  operations.rename = renameFile;
  operations.chmod = changeMode;
  operations.readdir = listFolder;
  operations.link = linkName;
  std::vector<char*> words{argv[0]};
  words.insert(words.end(), argv + 3, argv + argc);
  return fuse_main(static_cast<int>(words.size()), words.data(), &operations, nullptr);
}
