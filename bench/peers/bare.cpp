#include "bare.h"

#include <fcntl.h>

namespace qzbench {

int openFlags(const Task& task) {
  const int direct = task.direct ? O_DIRECT : 0;
  switch (task.access) {
    case Access::read:
      return O_RDONLY | direct;
    case Access::append:
      return O_WRONLY | O_CREAT | O_TRUNC | direct;
    case Access::rewrite:
      break;
  }
  return O_RDWR | direct;
}

}  // namespace qzbench
