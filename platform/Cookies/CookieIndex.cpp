#include "platform/Cookies/CookieIndex.h"

#include <functional>
#include <utility>

namespace tallow {
namespace {

constexpr std::size_t kFewestSlots = 16;
constexpr std::size_t kCacheLine = 64;

std::size_t hashOf(std::string_view name) {
  return std::hash<std::string_view>()(name);
}

}  // namespace

void CookieIndex::find(std::span<Query> queries) const {
  if (_slots.empty()) return;
  for (Query& query : queries) {
    query.hash = hashOf(query.name);
    __builtin_prefetch(&_slots[query.hash & _mask()]);
  }
  for (Query& query : queries) {
    std::size_t slot = query.hash & _mask();
    while (_slots[slot].domain != nullptr && _slots[slot].hash != query.hash) {
      slot = (slot + 1) & _mask();
    }
    query.domain = _slots[slot].domain;
    if (query.domain == nullptr) continue;
    for (std::size_t offset = 0; offset < sizeof(CookieDomain); offset += kCacheLine) {
      __builtin_prefetch(reinterpret_cast<const char*>(query.domain) + offset);
    }
  }
  for (const Query& query : queries) {
    if (query.domain != nullptr) query.domain->prefetch();
  }
  for (Query& query : queries) {
    // Another name with the same hash: rare enough to begin anew.
    if (query.domain != nullptr && query.domain->name() != query.name)
      query.domain = find(query.name);
  }
}

CookieDomain* CookieIndex::find(std::string_view name) const {
  if (_slots.empty()) return nullptr;
  return _slots[_slotOf(name, hashOf(name))].domain;
}

std::size_t CookieIndex::_slotOf(std::string_view name, std::size_t hash) const {
  std::size_t slot = hash & _mask();
  while (_slots[slot].domain != nullptr &&
         (_slots[slot].hash != hash || _slots[slot].domain->name() != name)) {
    slot = (slot + 1) & _mask();
  }
  return slot;
}

CookieDomain& CookieIndex::findOrInsert(std::string_view name) {
  if (2 * (_count + 1) > _slots.size()) _grow();
  const std::size_t hash = hashOf(name);
  Slot& slot = _slots[_slotOf(name, hash)];
  if (slot.domain == nullptr) {
    slot.hash = hash;
    slot.domain =
        std::pmr::polymorphic_allocator<>(&_memory).new_object<CookieDomain>(name, &_memory);
    ++_count;
  }
  return *slot.domain;
}

void CookieIndex::_grow() {
  std::vector<Slot> before(_slots.empty() ? kFewestSlots : 2 * _slots.size());
  before.swap(_slots);
  for (const Slot& slot : before) {
    if (slot.domain == nullptr) continue;
    _slots[_slotOf(slot.domain->name(), slot.hash)] = slot;
  }
}

void CookieIndex::erase(std::string_view name) {
  if (_slots.empty()) return;
  std::size_t hole = _slotOf(name, hashOf(name));
  if (_slots[hole].domain == nullptr) return;
  _destroy(std::exchange(_slots[hole].domain, nullptr));
  --_count;
  // Whoever would not be found across the hole moves into it.
  for (std::size_t slot = (hole + 1) & _mask(); _slots[slot].domain != nullptr;
       slot = (slot + 1) & _mask()) {
    const std::size_t home = _slots[slot].hash & _mask();
    const std::size_t fromHome = (slot - home) & _mask();
    const std::size_t fromHole = (slot - hole) & _mask();
    if (fromHome < fromHole) continue;
    _slots[hole] = std::exchange(_slots[slot], Slot());
    hole = slot;
  }
}

void CookieIndex::clear() {
  forEach([this](CookieDomain& domain) { _destroy(&domain); });
  _slots.clear();
  _count = 0;
  _memory.release();
}

void CookieIndex::_destroy(CookieDomain* domain) {
  std::pmr::polymorphic_allocator<>(&_memory).delete_object(domain);
}

}  // namespace tallow
