#pragma once

#include <memory>
#include <string_view>

#include "platform/Base/Result.h"

namespace tallow {

// A compiled pattern in the dialect that the bag's patterns are written in (ICU regular
// expressions). Matching is bounded: a match that needs more than its budget of steps, stack or
// time (a quarter of a second) counts as no match, so that no pattern can hang the service; so does
// any text above 1 MiB, and a pattern above 64 KiB does not compile. Immutable; any thread may
// match with it at once. The engine is loaded when the first pattern is compiled.
class RegularExpression {
 public:
  struct Options {
    bool caseInsensitive = false;
  };
  enum class Match { Found, NotFound, GaveUp };

  // Error domain "RegularExpression", code = the library's, description says where the pattern
  // breaks.
  static Result<RegularExpression> compile(std::string_view pattern, Options options);

  // Whether the expression matches anywhere in `text` (UTF-8; malformed bytes become U+FFFD).
  Match firstMatchIn(std::string_view text) const;

 private:
  struct Compiled;
  explicit RegularExpression(std::shared_ptr<const Compiled> compiled);
  std::shared_ptr<const Compiled> _compiled;
};

// Whether the whole of `text` matches `pattern`, in which '*' stands for any run of characters and
// '?' for exactly one; letters compare without regard to case (Unicode simple folding). Never
// takes more steps than the text is long times the pattern.
bool isLikeIgnoringCase(std::string_view text, std::string_view pattern);

}  // namespace tallow
