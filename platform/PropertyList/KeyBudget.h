#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace tallow::PropertyList {

// The library keeps the keys of a large dictionary in a hash table of fixed size, with a hash that
// anybody can make collide, and replaces an entry by counting through all of them. This adds up
// what the dictionaries of one list would cost there, so that a list made to be slow is refused
// before.
class KeyBudget {
 public:
  // False when the budget is used up. A key whose final text is not known yet (it holds escapes) is
  // given as an empty text.
  bool spend(std::span<const std::string_view> keys);

 private:
  std::size_t _spent = 0;
};

}  // namespace tallow::PropertyList
