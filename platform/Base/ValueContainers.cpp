#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "platform/Base/Value.h"

namespace tallow {

namespace {

constinit const Value kNil;

bool keysAscend(const std::vector<Dictionary::Entry>& entries) {
  return std::adjacent_find(entries.begin(), entries.end(), [](const auto& a, const auto& b) {
           return a.key >= b.key;
         }) == entries.end();
}

// Brings `entries` into the form a dictionary keeps: ascending keys, the last of equal keys, no
// nil.
void normalise(std::vector<Dictionary::Entry>& entries) {
  if (!keysAscend(entries)) {
    std::stable_sort(entries.begin(), entries.end(),
                     [](const auto& a, const auto& b) { return a.key < b.key; });
    auto kept = entries.begin();
    for (auto entry = entries.begin(); entry != entries.end(); ++entry) {
      const auto next = std::next(entry);
      if (next != entries.end() && next->key == entry->key) continue;
      if (kept != entry) *kept = std::move(*entry);
      ++kept;
    }
    entries.erase(kept, entries.end());
  }
  std::erase_if(entries, [](const auto& entry) { return entry.value.isNil(); });
}

const Dictionary::Entry* lowerBound(const Dictionary& dictionary, std::string_view key) {
  return std::lower_bound(
      dictionary.begin(), dictionary.end(), key,
      [](const Dictionary::Entry& entry, std::string_view wanted) { return entry.key < wanted; });
}

}  // namespace

// ---- Array

Array::Array(std::initializer_list<Value> elements) : Array(std::vector<Value>(elements)) {}

Array::Array(std::vector<Value> elements) {
  if (!elements.empty()) {
    _elements = std::make_shared<const std::vector<Value>>(std::move(elements));
  }
}

std::size_t Array::count() const {
  return _elements ? _elements->size() : 0;
}

const Value& Array::operator[](std::size_t index) const {
  if (index >= count()) {
    std::fprintf(stderr, "Array: index %zu of %zu elements\n", index, count());
    std::abort();
  }
  return (*_elements)[index];
}

const Value* Array::begin() const {
  return _elements ? _elements->data() : nullptr;
}
const Value* Array::end() const {
  return begin() + count();
}

bool operator==(const Array& a, const Array& b) {
  return a._elements == b._elements || std::equal(a.begin(), a.end(), b.begin(), b.end());
}

// ---- Dictionary

Dictionary::Dictionary(std::initializer_list<Entry> entries)
    : Dictionary(std::vector<Entry>(entries)) {}

Dictionary::Dictionary(std::vector<Entry> entries) {
  normalise(entries);
  if (!entries.empty()) {
    _entries = std::make_shared<const std::vector<Entry>>(std::move(entries));
  }
}

std::size_t Dictionary::count() const {
  return _entries ? _entries->size() : 0;
}
const Dictionary::Entry* Dictionary::begin() const {
  return _entries ? _entries->data() : nullptr;
}
const Dictionary::Entry* Dictionary::end() const {
  return begin() + count();
}

const Value& Dictionary::operator[](std::string_view key) const {
  const Entry* entry = lowerBound(*this, key);
  return entry != end() && entry->key == key ? entry->value : kNil;
}

bool Dictionary::contains(std::string_view key) const {
  return !(*this)[key].isNil();
}

Dictionary Dictionary::setting(std::string_view key, Value value) const {
  if (value.isNil()) return removing(key);
  const Entry* place = lowerBound(*this, key);
  std::vector<Entry> entries;
  entries.reserve(count() + 1);
  entries.insert(entries.end(), begin(), place);
  entries.push_back({std::string(key), std::move(value)});
  if (place != end() && place->key == key) ++place;
  entries.insert(entries.end(), place, end());
  return Dictionary(std::move(entries));
}

Dictionary Dictionary::removing(std::string_view key) const {
  if (!contains(key)) return *this;
  std::vector<Entry> entries;
  entries.reserve(count());
  std::copy_if(begin(), end(), std::back_inserter(entries),
               [key](const Entry& entry) { return entry.key != key; });
  return Dictionary(std::move(entries));
}

Dictionary Dictionary::merging(const Dictionary& other) const {
  if (other.empty()) return *this;
  if (empty()) return other;
  std::vector<Entry> entries;
  entries.reserve(count() + other.count());
  // std::merge would keep both of two equal keys; set_union keeps that of its first range.
  std::set_union(other.begin(), other.end(), begin(), end(), std::back_inserter(entries),
                 [](const Entry& a, const Entry& b) { return a.key < b.key; });
  return Dictionary(std::move(entries));
}

bool operator==(const Dictionary& a, const Dictionary& b) {
  return a._entries == b._entries ||
         std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const auto& x, const auto& y) {
           return x.key == y.key && x.value == y.value;
         });
}

}  // namespace tallow
