// qzextent: makes the host toolkit known to the module.
#include "qzhost.h"

qz::QZHandle* Exported_QZHandle = nullptr;

qz::HostStatus qzextent(qz::QZHandle* host) noexcept {
  Exported_QZHandle = host;
  return 0;
}
