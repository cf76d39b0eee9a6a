#pragma once

namespace tallow {

// A place in the source. (What std::source_location is, for every compiler that builds this
// project.)
struct SourceLocation {
  static constexpr SourceLocation current(const char* file = __builtin_FILE(),
                                          const char* function = __builtin_FUNCTION(),
                                          int line = __builtin_LINE()) {
    return {file, function, line};
  }

  const char* file = "";
  const char* function = "";
  int line = 0;
};

}  // namespace tallow
