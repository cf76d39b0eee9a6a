// Whatever a list decodes to can be written in both formats and reads back as the same; what XML
// has spelled once is written in the same bytes again. (The library writes some equal objects of a
// binary list sometimes once and sometimes twice.)

#include "fuzz/FuzzTarget.h"
#include "fuzz/Require.h"
#include "fuzz/SameValue.h"
#include "platform/PropertyList/PropertyList.h"

using tallow::Data;
using tallow::PropertyList::Format;

namespace {

Data rewritten(const Data& list, Format format) {
  const auto decoded = tallow::PropertyList::decode(list);
  REQUIRE(decoded);
  return tallow::PropertyList::encode(*decoded, format);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto decoded = tallow::PropertyList::decode(Data(std::span(data, size)));
  if (!decoded) return 0;
  REQUIRE(!decoded->isNil());
  const auto stored =
      tallow::PropertyList::decode(tallow::PropertyList::encode(*decoded, Format::Binary));
  REQUIRE(stored && isSame(*stored, *decoded));
  // XML replaces what it cannot spell, also in keys; what it has written once it keeps.
  const Data readable = rewritten(tallow::PropertyList::encode(*decoded, Format::XML), Format::XML);
  REQUIRE(rewritten(readable, Format::XML) == readable);
  REQUIRE(description(*decoded).size() < 20'000);
  return 0;
}
