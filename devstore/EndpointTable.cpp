#include "devstore/EndpointTable.h"

#include <cstdio>
#include <cstdlib>

namespace tallow::devstore {

void EndpointTable::add(const std::string& name, std::vector<std::string> paths,
                        std::unique_ptr<Endpoint> endpoint) {
  const auto [entry, isNew] = _entries.try_emplace(name, Entry{name, std::move(endpoint)});
  bool allNew = isNew;
  for (std::string& path : paths) {
    allNew = _paths.try_emplace(std::move(path), &entry->second).second && allNew;
  }
  if (allNew) return;
  std::fprintf(stderr, "EndpointTable: %s or one of its paths is there already\n", name.c_str());
  std::abort();
}

const EndpointTable::Entry* EndpointTable::forPath(std::string_view path) const {
  if (const auto found = _paths.find(path); found != _paths.end()) return found->second;
  for (std::size_t slash = path.rfind('/'); slash != std::string_view::npos;
       slash = slash == 0 ? std::string_view::npos : path.rfind('/', slash - 1)) {
    const auto found = _paths.find(path.substr(0, slash + 1));
    if (found != _paths.end()) return found->second;
  }
  return nullptr;
}

const EndpointTable::Entry* EndpointTable::named(std::string_view name) const {
  const auto found = _entries.find(name);
  return found == _entries.end() ? nullptr : &found->second;
}

std::vector<std::string> EndpointTable::names() const {
  std::vector<std::string> names;
  for (const auto& [name, entry] : _entries) names.push_back(name);
  return names;
}

}  // namespace tallow::devstore
