#pragma once

#include <plist/plist.h>

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>

#include "platform/Base/Error.h"

// What the coding and the decoding of property lists share: the library's nodes, and the parts of
// the binary format that both have to know. Included by the .cpp files of this folder only.

namespace tallow::PropertyList {

inline constexpr const char* kErrorDomain = "PropertyList";

enum ErrorCode {
  kMalformed = 1,    // no property list, truncated, or followed by something else
  kTooLarge = 2,     // more bytes, values or work than a list may take
  kTooDeep = 3,      // nested deeper than kMaxDepth, or containing itself
  kUnsupported = 4,  // kinds of value that the system has no use for
};

inline Error listError(ErrorCode code, std::string text) {
  return makeError(kErrorDomain, code, std::move(text));
}

struct NodeCloser {
  void operator()(plist_t node) const { plist_free(node); }
};
using Node = std::unique_ptr<std::remove_pointer_t<plist_t>, NodeCloser>;

// Moments of property lists count from 2001-01-01 00:00:00 UTC.
inline constexpr double kEpochSecondsSince1970 = 978307200;

// The node that the library's parser makes of one binary object: `marker` and `bits`, big-endian;
// `highZeros` puts eight zero bytes between. For values that its constructors cannot take: dates by
// the double, integers above INT64_MAX. Null if it refuses.
Node nodeFromBits(std::uint8_t marker, std::uint64_t bits, bool highZeros = false);

inline constexpr std::uint8_t kInteger64Marker = 0x13;
inline constexpr std::uint8_t kInteger128Marker = 0x14;
inline constexpr std::uint8_t kDateMarker = 0x33;

}  // namespace tallow::PropertyList
