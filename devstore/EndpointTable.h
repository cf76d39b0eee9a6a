#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "devstore/Endpoint.h"

namespace tallow::devstore {

// Which endpoint answers which path, and the name under which it is staged. Filled before the store
// listens and only read from then on, so any thread may look up.
class EndpointTable {
 public:
  struct Entry {
    std::string name;
    std::unique_ptr<Endpoint> endpoint;
  };

  // `path` is taken as it stands; one that ends in "/" takes everything below it, too. Adding a
  // name or path twice is a programmer error and aborts.
  void add(const std::string& name, std::vector<std::string> paths,
           std::unique_ptr<Endpoint> endpoint);

  // The longest path wins; nullptr when none fits.
  const Entry* forPath(std::string_view path) const;
  const Entry* named(std::string_view name) const;
  std::vector<std::string> names() const;

 private:
  std::map<std::string, Entry, std::less<>> _entries;
  std::map<std::string, const Entry*, std::less<>> _paths;
};

}  // namespace tallow::devstore
