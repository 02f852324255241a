// Dynamic loading.

#include <dlfcn.h>

#include "zelrt/files.h"

void* __ZelRtLoadImage(const char* fileName) { return dlopen(fileName, RTLD_NOW); }

void* __ZelRtGetSymbol(void* handle, const char* name) {
  if (handle == nullptr || name == nullptr) return nullptr;
  dlerror();
  void* const address = dlsym(handle, name);
  return dlerror() == nullptr ? address : nullptr;
}
