// A file in the making: it has a temporary name beside its target and takes the target's name
// when it is whole. Until then a failure leaves the target as it was, and nothing else.
#pragma once

#include <string>

namespace qzpfile {

// The folder that a name is in; "." for a name alone.
std::string folderOf(const std::string& name);

class NewFile {
 public:
  // Refuses a target that exists, unless `force`; and one that is no regular file in any case. A
  // symbolic link stands for what it points to.
  NewFile(const std::string& target, bool force);
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;
  ~NewFile();  // removes the file unless it was committed

  const std::string& temporaryName() const { return temporary_; }
  int fd() const { return fd_; }

  // Gives the file its name and makes that last. What is in the file must be on disk already.
  void commit();

 private:
  void rename() const;

  std::string shown_;   // the target as the user wrote it
  std::string target_;  // links resolved
  std::string folder_;
  std::string temporary_;
  bool force_;
  unsigned mode_;  // permission bits of the finished file
  int fd_ = -1;
};

}  // namespace qzpfile
