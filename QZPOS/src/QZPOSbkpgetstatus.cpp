// qzpgetstatus: the outcome of the handle's last operation.
#include "qzpos.h"

qz::Status qzpgetstatus(qz::FileHandle* h, qz::StatusReport* report) noexcept {
  report->status = h->status;
  report->lastErrno = h->lastErrno;
  report->hostErrorDetail1 = h->hostErrorDetail1;
  report->hostErrorDetail2 = h->hostErrorDetail2;
  report->directIoMode = h->directIoMode;
  return qz::Status::ok;
}
