// A file in the making. It has no name, or where the file system cannot do that a temporary one
// beside its target, and takes the target's name when it is whole. Until then a failure leaves the
// target as it was, and nothing else.
#pragma once

#include <sys/types.h>

#include <string>

namespace qzpfile {

// The folder that a name is in; "." for a name alone.
std::string folderOf(const std::string& name);

// What a new file inherits from the file that it is made from: it never lets more people in.
struct Origin {
  mode_t mode = 0666;          // permission bits
  gid_t group = gid_t(-1);     // -1: not made from a file
  bool hasAccessList = false;  // its group bits then stand for more than its group
};
// The origin that an open file is. A pipe or device stands for no file.
Origin originOf(int fd);

class NewFile {
 public:
  // Refuses a target that exists, unless `force`; and one that is no regular file in any case. A
  // symbolic link stands for what it points to. A replaced file hands down its permissions, owner
  // and group, as far as the caller may give them.
  NewFile(const std::string& target, bool force, const Origin& origin);
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;
  ~NewFile();  // removes the file unless it was committed

  // A path that opens the file until it is committed, wherever its folder is moved meanwhile.
  const std::string& path() const { return path_; }
  int fd() const { return fd_; }

  // Gives the file its name and makes that last. What is in the file must be on disk already.
  void commit();

 private:
  void make();
  void settlePermissions() const;
  void takeName();
  void moveIntoPlace() const;
  void flushFolder() const;
  void release();

  std::string shown_;      // the target as the user wrote it
  std::string name_;       // in its folder, links resolved
  std::string temporary_;  // in the same folder; empty: the file has no name
  std::string path_;
  Origin origin_;
  bool force_;
  bool replaces_ = false;
  mode_t mode_;  // wanted, of a file that is replaced or by the umask
  uid_t owner_ = uid_t(-1);
  gid_t group_ = gid_t(-1);
  int folder_ = -1;
  bool canFlushFolder_ = true;
  int fd_ = -1;
};

}  // namespace qzpfile
