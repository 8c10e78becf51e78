// A file under construction. It has no name, or on some file systems a temporary name beside its
// target, and takes the target's name when it is complete. A failure before that leaves the target
// unchanged and no new file.
#pragma once

#include <sys/types.h>

#include <string>

namespace qzpfile {

// The folder of a name; "." for a name without a folder.
std::string folderOf(const std::string& name);

// What a new file inherits from the file that it is made from, so that nobody gains access.
struct Origin {
  mode_t mode = 0666;          // permission bits
  gid_t group = gid_t(-1);     // -1: there is no origin file
  bool hasAccessList = false;  // its group bits then stand for more than its group
};
// The origin for a copy of an open file. A pipe or device gives the default origin.
Origin originOf(int fd);

class NewFile {
 public:
  // Throws if the target exists, unless `force` is set, and for any target that is not a regular
  // file. Follows symbolic links. A replaced file passes on its permissions, owner and group, as
  // far as the caller may set them.
  NewFile(const std::string& target, bool force, const Origin& origin);
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;
  ~NewFile();  // removes the file unless it was committed

  // A path that opens the file until it is committed, even if its folder is moved.
  const std::string& path() const { return path_; }
  int fd() const { return fd_; }

  // Gives the file its name and flushes the folder. The contents must already be on disk.
  void commit();

 private:
  void make();
  void settlePermissions() const;
  void takeName();
  void moveIntoPlace() const;
  void flushFolder() const;
  void release();

  std::string shown_;      // the target as the user wrote it
  std::string name_;       // within its folder, links resolved
  std::string temporary_;  // in the same folder; empty: the file has no name
  std::string path_;
  Origin origin_;
  bool force_;
  bool replaces_ = false;
  mode_t mode_;  // from the replaced file, or from the umask
  uid_t owner_ = uid_t(-1);
  gid_t group_ = gid_t(-1);
  int folder_ = -1;
  bool canFlushFolder_ = true;
  int fd_ = -1;
};

}  // namespace qzpfile
