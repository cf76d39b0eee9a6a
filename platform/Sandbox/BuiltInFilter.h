#pragma once

#include <cstdint>
#include <span>

namespace tallow {

// The system-call filter of the built-in sandbox profile, as compile-filter has compiled it for the
// machine that the program was built on. Linked into the service alone.
std::span<const std::uint64_t> builtInFilter();

}  // namespace tallow
