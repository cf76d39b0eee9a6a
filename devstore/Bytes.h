#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Base/Data.h"

namespace tallow::devstore {

// Base64 (RFC 4648 section 4): the standard alphabet, padded, no line breaks. Callable from any
// thread.
std::string base64Text(const Data& bytes);
// nullopt for anything but whole, padded groups.
std::optional<Data> dataFromBase64(std::string_view text);

// A copy in which one bit of the byte at `index` differs; the same bytes when there is no such
// byte.
Data withFlippedBit(const Data& data, std::size_t index);

}  // namespace tallow::devstore
