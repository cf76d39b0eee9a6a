#include "platform/Base/ICULibrary.h"

#include <dlfcn.h>

namespace tallow {

namespace {

template <class Function>
bool find(void* library, Function& function, const char* name) {
  function = reinterpret_cast<Function>(dlsym(library, name));
  return function != nullptr;
}

// The headers rename each function by version; the second macro gives the name after that.
#define TALLOW_TEXT(name) #name
#define TALLOW_SYMBOL(name) TALLOW_TEXT(name)
#define TALLOW_FIND(library, member, function) find(library, member, TALLOW_SYMBOL(function))

const ICULibrary* load() {
  void* const common = dlopen("libicuuc.so." U_ICU_VERSION_SHORT, RTLD_NOW | RTLD_LOCAL);
  void* const international = dlopen("libicui18n.so." U_ICU_VERSION_SHORT, RTLD_NOW | RTLD_LOCAL);
  if (common == nullptr || international == nullptr) return nullptr;
  static ICULibrary icu;
  const bool complete = TALLOW_FIND(common, icu.strFromUTF8WithSub, u_strFromUTF8WithSub) &&
                        TALLOW_FIND(common, icu.errorName, u_errorName) &&
                        TALLOW_FIND(common, icu.foldCase, u_foldCase) &&
                        TALLOW_FIND(international, icu.regexOpen, uregex_open) &&
                        TALLOW_FIND(international, icu.regexClone, uregex_clone) &&
                        TALLOW_FIND(international, icu.regexClose, uregex_close) &&
                        TALLOW_FIND(international, icu.regexSetText, uregex_setText) &&
                        TALLOW_FIND(international, icu.regexSetTimeLimit, uregex_setTimeLimit) &&
                        TALLOW_FIND(international, icu.regexSetStackLimit, uregex_setStackLimit) &&
                        TALLOW_FIND(international, icu.regexSetFindProgressCallback,
                                    uregex_setFindProgressCallback) &&
                        TALLOW_FIND(international, icu.regexFindNext, uregex_findNext);
  return complete ? &icu : nullptr;
}

}  // namespace

const ICULibrary* ICULibrary::shared() {
  static const ICULibrary* const kLibrary = load();
  return kLibrary;
}

}  // namespace tallow
