#include "module.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "syscalls.h"

namespace qz::trace {
namespace {

constexpr const char* kNames[] = {"libqziop.so.3", "libqziop.so"};

// The folder of this library behind all links, with a slash at its end.
bool findFolder(char (&folder)[PATH_MAX]) {
  Dl_info about{};
  if (dladdr(reinterpret_cast<void*>(&realModule), &about) == 0) return false;
  if (realpath(about.dli_fname, folder) == nullptr) return false;
  char* slash = std::strrchr(folder, '/');
  if (slash == nullptr) return false;
  slash[1] = '\0';
  return true;
}

// One that exists but cannot be loaded ends the search.
void* load(RealModule* module) {
  char folder[PATH_MAX];
  if (!findFolder(folder)) {
    std::snprintf(module->failure, sizeof module->failure, "the folder of the trace is not known");
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
  OperationTable& table = module->operations;
  return find(library, "qzextent", &module->qzextent) && find(library, "qziop", &module->qziop) &&
         find(library, "qzpdestroy", &module->qzpdestroy) &&
         find(library, "qzpgetreqversion", &module->qzpgetreqversion) &&
         find(library, "qzpgetversion", &module->qzpgetversion) &&
         find(library, "qzpbufacquire", &table.qzpbufacquire) &&
         find(library, "qzpbufadd", &table.qzpbufadd) &&
         find(library, "qzpbufremove", &table.qzpbufremove) &&
         find(library, "qzpbufreturn", &table.qzpbufreturn) &&
         find(library, "qzpclose", &table.qzpclose) &&
         find(library, "qzpfreememhandle", &table.qzpfreememhandle) &&
         find(library, "qzpgetmemhandle", &table.qzpgetmemhandle) &&
         find(library, "qzpinfo", &table.qzpinfo) && find(library, "qzpopen", &table.qzpopen) &&
         find(library, "qzppsize", &table.qzppsize) && find(library, "qzpread", &table.qzpread) &&
         find(library, "qzpwrite", &table.qzpwrite) &&
         find(library, "qzpreadmany", &table.qzpreadmany) &&
         find(library, "qzptruncate", &table.qzptruncate) &&
         find(library, "qzpsetfilename", &table.qzpsetfilename) &&
         find(library, "qzppreopen", &table.qzppreopen) &&
         find(library, "qzpdelete", &table.qzpdelete) &&
         find(library, "qzpgetstatus", &table.qzpgetstatus) &&
         find(library, "qzpflush", &table.qzpflush) &&
         find(library, "qzpwritehdr", &table.qzpwritehdr) &&
         find(library, "qzpreopen", &table.qzpreopen);
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
