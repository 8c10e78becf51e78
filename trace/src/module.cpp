#include "module.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "qzpoperations.h"
#include "syscalls.h"

namespace qz::trace {
namespace {

constexpr const char* kNames[] = {"libqziop.so.3", "libqziop.so"};

// The folder of this library, with links resolved and a slash at its end.
bool findFolder(char (&folder)[PATH_MAX]) {
  Dl_info about{};
  if (dladdr(reinterpret_cast<void*>(&realModule), &about) == 0) return false;
  if (realpath(about.dli_fname, folder) == nullptr) return false;
  char* slash = std::strrchr(folder, '/');
  if (slash == nullptr) return false;
  slash[1] = '\0';
  return true;
}

// A file that exists but cannot be loaded ends the search.
void* load(RealModule* module) {
  char folder[PATH_MAX];
  if (!findFolder(folder)) {
    std::snprintf(module->failure, sizeof module->failure,
                  "the folder of the trace library is unknown");
    return nullptr;
  }
  for (const char* name : kNames) {
    const int length = std::snprintf(module->path, sizeof module->path, "%s%s", folder, name);
    const bool fits = length < static_cast<int>(sizeof module->path);
    if (!fits || access(module->path, F_OK) != 0) continue;
    void* library = dlopen(module->path, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) std::snprintf(module->failure, sizeof module->failure, "%s", dlerror());
    return library;
  }
  std::snprintf(module->failure, sizeof module->failure, "there is no %s in %.3000s", kNames[0],
                folder);
  return nullptr;
}

template <class Function>
bool find(void* library, const char* name, Function* function) {
  *function = reinterpret_cast<Function>(dlsym(library, name));
  return *function != nullptr;
}

bool findAll(void* library, RealModule* module) {
  bool all = find(library, "qzextent", &module->qzextent) &&
             find(library, "qziop", &module->qziop) &&
             find(library, "qzpdestroy", &module->qzpdestroy) &&
             find(library, "qzpgetreqversion", &module->qzpgetreqversion) &&
             find(library, "qzpgetversion", &module->qzpgetversion);
#define FIND(name) all = all && find(library, #name, &module->operations.name);
  QZP_EACH_OPERATION(FIND)
#undef FIND
  return all;
}

RealModule* loadModule() {
  static RealModule module{};
  void* library = load(&module);
  if (library == nullptr) return &module;
  if (!findAll(library, &module)) {
    std::snprintf(module.failure, sizeof module.failure, "%.3000s does not have all functions",
                  module.path);
    return &module;
  }
  redirectSystemCalls(library);
  return &module;
}

}  // namespace

const RealModule& realModule() {
  static const RealModule* const module = loadModule();
  return *module;
}

}  // namespace qz::trace
