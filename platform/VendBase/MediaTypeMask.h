#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/Base/Value.h"

namespace tallow {

// The kinds of media that can be downloaded by themselves, as a mask and as the names that the
// store uses. No other bit has a name.
enum MediaType : std::uint64_t { kMediaTypeMacSoftware = 1, kMediaTypeEBook = 2 };
inline constexpr std::array<std::pair<std::string_view, MediaType>, 2> kMediaTypeNames = {{
    {"mac-software", kMediaTypeMacSoftware},
    {"ebook", kMediaTypeEBook},
}};

// What is no string, or no name that is known, is passed over.
std::int64_t mediaTypeMask(const Array& names);
// Nil, not an empty array, for 0: such a mask names nothing. Bits without a name are left out.
std::optional<Array> arrayWithMediaTypeMask(std::uint64_t mask);

}  // namespace tallow
