#include "platform/Base/LazyLibrary.h"

#include <dlfcn.h>

namespace tallow {

LazyLibrary::LazyLibrary(const char* fileName)
    : _handle(dlopen(fileName, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE)) {}

void* LazyLibrary::_symbol(const char* name) const {
  return _handle != nullptr ? dlsym(_handle, name) : nullptr;
}

}  // namespace tallow
