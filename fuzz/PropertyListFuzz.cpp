// Whatever a list decodes to can be written in both formats and reads back as the same; what XML
// has spelled once is written in the same bytes again. (The library writes some equal objects of a
// binary list sometimes once and sometimes twice.)

#include <algorithm>
#include <cmath>

#include "fuzz/FuzzTarget.h"
#include "fuzz/Require.h"
#include "platform/PropertyList/PropertyList.h"

using tallow::Data;
using tallow::Value;
using tallow::PropertyList::Format;

namespace {

// A NaN counts as equal to another. A date is counted from another day in the list, which costs the
// last digits of one that is far from it.
bool isSame(const Value& a, const Value& b) {
  if (a.date() != nullptr && b.date() != nullptr) {
    const double one = a.date()->secondsSince1970;
    const double other = b.date()->secondsSince1970;
    return one == other || std::abs(one - other) <= 1e-6 + 1e-12 * std::abs(one) ||
           (std::isnan(one) && std::isnan(other));
  }
  if (a.isReal() && b.isReal() && std::isnan(a.realValue()) && std::isnan(b.realValue()))
    return true;
  const auto areSame = [](const auto& one, const auto& other) { return isSame(one, other); };
  if (a.array() != nullptr && b.array() != nullptr)
    return std::equal(a.array()->begin(), a.array()->end(), b.array()->begin(), b.array()->end(),
                      areSame);
  if (a.dictionary() != nullptr && b.dictionary() != nullptr)
    return std::equal(a.dictionary()->begin(), a.dictionary()->end(), b.dictionary()->begin(),
                      b.dictionary()->end(), [](const auto& one, const auto& other) {
                        return one.key == other.key && isSame(one.value, other.value);
                      });
  return a == b;
}

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
