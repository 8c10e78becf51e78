// The functions that a host calls by name: the same as the module's.
#include <atomic>

#include "module.h"
#include "qzpoperations.h"
#include "recorder.h"

using qz::Status;
using qz::trace::addStatus;
using qz::trace::isLoaded;
using qz::trace::RealModule;
using qz::trace::realModule;
using qz::trace::record;
using qz::trace::Text;

namespace {

constexpr qz::OperationTable kRecorded = {
#define SLOT(name) .name = (name),
    QZP_EACH_OPERATION(SLOT)
#undef SLOT
};

std::atomic<int> recordedObjects = 0;

}  // namespace

qz::QZHandle* Exported_QZHandle = nullptr;

qz::HostStatus qzextent(qz::QZHandle* host) noexcept {
  Exported_QZHandle = host;
  return isLoaded(realModule()) ? realModule().qzextent(host) : 0;
}

qz::ExtensionObject* qziop(qz::QZHandle* host, qz::Journal* journal) noexcept {
  const RealModule& module = realModule();
  if (!isLoaded(module)) {
    qz::trace::report(host, journal, "the module cannot be loaded", module.failure);
    return nullptr;
  }
  qz::trace::begin(host, journal);
  qz::ExtensionObject* object = record(
      "qziop", nullptr, journal, [&] { return module.qziop(host, journal); }, [](Text&) {},
      [](Text& text, const qz::ExtensionObject* made) {
        addStatus(&text, made != nullptr ? Status::ok : Status::noMemory);
      });
  if (object != nullptr && qz::trace::isRecording()) {
    object->operations = kRecorded;
    object->qzpdestroy = qzpdestroy;
    ++recordedObjects;
  }
  return object;
}

qz::HostStatus qzpdestroy(qz::ExtensionObject* object) noexcept {
  const bool recorded = object->qzpdestroy == qzpdestroy;
  const qz::HostStatus result = record(
      "qzpdestroy", nullptr, nullptr, [&] { return realModule().qzpdestroy(object); }, [](Text&) {},
      [](Text& text, qz::HostStatus status) { addStatus(&text, Status{status}); });
  if (recorded && --recordedObjects == 0) qz::trace::settle();
  return result;
}

Status qzpgetreqversion(qz::ExtensionObject* object, std::uint32_t* first, std::uint32_t* second,
                        std::uint32_t* third) noexcept {
  return realModule().qzpgetreqversion(object, first, second, third);
}

Status qzpgetversion(qz::ExtensionObject* object, std::uint32_t* first, std::uint32_t* second,
                     std::uint32_t* third) noexcept {
  return realModule().qzpgetversion(object, first, second, third);
}
