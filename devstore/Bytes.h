#pragma once

#include <cstddef>

#include "platform/Base/Data.h"

namespace tallow::devstore {

// A copy in which one bit of the byte at `index` differs; the same bytes when there is no such
// byte.
Data withFlippedBit(const Data& data, std::size_t index);

}  // namespace tallow::devstore
