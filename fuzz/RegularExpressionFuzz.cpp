// Patterns come from the bag, the texts they are tried on from callers: no pair of them may crash
// the service or keep it busy.

#include <string_view>

#include "fuzz/FuzzTarget.h"
#include "platform/Base/RegularExpression.h"

using namespace tallow;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::string_view pattern = input.substr(0, input.find('\n'));
  const std::string_view text = input.substr(pattern.size());
  if (const auto expression = RegularExpression::compile(pattern, {.caseInsensitive = true})) {
    expression->firstMatchIn(text);
  }
  isLikeIgnoringCase(text, pattern);
  return 0;
}
