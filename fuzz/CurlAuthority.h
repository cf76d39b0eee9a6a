#pragma once

#include <optional>
#include <string>

namespace tallow {

// The "host:port" that libcurl connects to when it is told to fetch `url`, taken from the CONNECT
// request that it sends to its proxy, which is this process; nullopt when it refuses the URL.
std::optional<std::string> authorityCurlConnectsTo(const std::string& url);

}  // namespace tallow
