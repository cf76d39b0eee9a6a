// Input: a pattern and, after a line end, a text. No pattern takes long, and a search gives the
// same answer twice unless it gave up.

#include <algorithm>
#include <string_view>

#include "fuzz/FuzzTarget.h"
#include "fuzz/Require.h"
#include "platform/Base/RegularExpression.h"

using tallow::RegularExpression;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t end = std::min(input.find('\n'), input.size());
  const std::string_view pattern = input.substr(0, end);
  const std::string_view text = input.substr(std::min(end + 1, input.size()));
  tallow::isLikeIgnoringCase(text, pattern);
  REQUIRE(tallow::isLikeIgnoringCase(text, "*"));
  const auto expression = RegularExpression::compile(pattern, {true});
  if (!expression) return 0;
  const auto first = expression->firstMatchIn(text);
  if (first == RegularExpression::Match::GaveUp) return 0;
  const auto second = expression->firstMatchIn(text);
  REQUIRE(second == first || second == RegularExpression::Match::GaveUp);
  return 0;
}
