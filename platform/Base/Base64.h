#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/Base/Data.h"

namespace tallow {

// Base64 (RFC 4648 section 4): the standard alphabet, padded, no line breaks.
std::string base64Encode(const Data& data);
std::string base64Encode(std::span<const std::uint8_t> bytes);
// Strict: nothing but the alphabet and correct padding; nullopt otherwise. Empty text is empty
// data.
std::optional<Data> base64Decode(std::string_view text);

}  // namespace tallow
