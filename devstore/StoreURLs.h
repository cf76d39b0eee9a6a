#pragma once

#include <string>

namespace tallow::devstore {

// Where the running store is reached, without a trailing slash. A plain value.
struct StoreURLs {
  std::string http;   // "http://127.0.0.1:8080"
  std::string https;  // "https://localhost:8443"
};

}  // namespace tallow::devstore
