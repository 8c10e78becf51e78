// loader PLUGIN: runs the plugin_main of a shared library.
#include <dlfcn.h>

#include <cstdio>

int main(int argc, char** argv) {
  void* const plugin = argc == 2 ? dlopen(argv[1], RTLD_NOW) : nullptr;
  // The name as the compiler spells it: plugin_main is a C++ function.
  void* const entry = plugin != nullptr ? dlsym(plugin, "_Z11plugin_mainv") : nullptr;
  if (entry == nullptr) return std::puts("no plugin"), 1;
  return reinterpret_cast<int (*)()>(entry)();
}
