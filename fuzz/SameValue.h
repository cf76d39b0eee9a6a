#pragma once

#include <algorithm>
#include <cmath>

#include "platform/Base/Value.h"

namespace tallow {

// Whether a value that has been written and read back is what it was. Its bytes do not tell: the
// library writes some equal objects of a binary list sometimes once and sometimes twice.
//
// A NaN counts as equal to another. A date is counted from another day in the list, which costs the
// last digits of one that is far from it.
inline bool isSame(const Value& a, const Value& b) {
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

}  // namespace tallow
