#include "platform/Base/ICULibrary.h"

#include "platform/Base/LazyLibrary.h"

namespace tallow {

namespace {

// The headers rename each function by version; the second macro gives the name after that.
#define TALLOW_TEXT(name) #name
#define TALLOW_SYMBOL(name) TALLOW_TEXT(name)
#define TALLOW_FIND(library, member, function) library.find(member, TALLOW_SYMBOL(function))

const ICULibrary* load() {
  const LazyLibrary common("libicuuc.so." U_ICU_VERSION_SHORT);
  const LazyLibrary international("libicui18n.so." U_ICU_VERSION_SHORT);
  static ICULibrary icu;
  const bool complete = TALLOW_FIND(common, icu.strFromUTF8WithSub, u_strFromUTF8WithSub) &&
                        TALLOW_FIND(common, icu.errorName, u_errorName) &&
                        TALLOW_FIND(common, icu.foldCase, u_foldCase) &&
                        TALLOW_FIND(common, icu.hasBinaryProperty, u_hasBinaryProperty) &&
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
