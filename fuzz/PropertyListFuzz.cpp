// Whatever a list decodes to can be written in both formats, reads back, and is then written in the
// same bytes again.

#include <string_view>

#include "fuzz/FuzzTarget.h"
#include "fuzz/Require.h"
#include "platform/PropertyList/PropertyList.h"

using tallow::Data;
using tallow::PropertyList::Format;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto decoded = tallow::PropertyList::decode(Data(std::span(data, size)));
  if (!decoded) return 0;
  REQUIRE(!decoded->isNil());
  for (const Format format : {Format::Binary, Format::XML}) {
    const Data written = tallow::PropertyList::encode(*decoded, format);
    const auto again = tallow::PropertyList::decode(written);
    REQUIRE(again);
    REQUIRE(tallow::PropertyList::encode(*again, format) == written);
  }
  REQUIRE(description(*decoded).size() < 20'000);
  return 0;
}
