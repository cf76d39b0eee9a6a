#pragma once

#include <cstddef>

// How much a property list may ask for, whatever its size. Legitimate lists stay far below.

namespace tallow::PropertyList {

// Values and keys, each time they are referred to.
inline constexpr std::size_t kMaxNodes = 1u << 21;
// Bytes of strings and data, each time they are referred to.
inline constexpr std::size_t kMaxContentBytes = 64u << 20;
// Steps in the parts of the library whose time grows faster than the list; some ten nanoseconds
// each.
inline constexpr std::size_t kMaxWork = 100'000'000;

}  // namespace tallow::PropertyList
