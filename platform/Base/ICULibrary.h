#pragma once

#include <unicode/uchar.h>
#include <unicode/uregex.h>
#include <unicode/ustring.h>

namespace tallow {

// The ICU functions that the service calls. The library is loaded at the first call that needs it
// and stays: most runs never meet a pattern, and loading costs every start a millisecond and some
// 250 KiB of memory. Its exact version is that of the headers compiled against, as if it were
// linked.
struct ICULibrary {
  decltype(&u_strFromUTF8WithSub) strFromUTF8WithSub = nullptr;
  decltype(&u_errorName) errorName = nullptr;
  decltype(&u_foldCase) foldCase = nullptr;
  decltype(&u_hasBinaryProperty) hasBinaryProperty = nullptr;
  decltype(&uregex_open) regexOpen = nullptr;
  decltype(&uregex_clone) regexClone = nullptr;
  decltype(&uregex_close) regexClose = nullptr;
  decltype(&uregex_setText) regexSetText = nullptr;
  decltype(&uregex_setTimeLimit) regexSetTimeLimit = nullptr;
  decltype(&uregex_setStackLimit) regexSetStackLimit = nullptr;
  decltype(&uregex_setFindProgressCallback) regexSetFindProgressCallback = nullptr;
  decltype(&uregex_findNext) regexFindNext = nullptr;

  // Null where the library is missing, or the sandbox keeps it out of reach. Callable from any
  // thread.
  static const ICULibrary* shared();
};

}  // namespace tallow
