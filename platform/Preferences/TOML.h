#pragma once

#include <filesystem>
#include <string_view>

#include "platform/Base/Result.h"

namespace tallow {

// The files that people write: TOML 1.0. Error domain "TOML", the description says where and why.
namespace TOML {

inline constexpr std::size_t kMaxFileBytes = 1u << 20;

// The document as property-list values. Dates and times with an offset become dates, and so do
// those without one, read as UTC. A time of day alone has no equivalent and is refused.
Result<Dictionary> decode(std::string_view text);

// The same for a file of at most kMaxFileBytes; errors of reading have domain "File" and errno's
// code.
Result<Dictionary> decodeFile(const std::filesystem::path& path);

}  // namespace TOML

}  // namespace tallow
