#include "platform/PropertyList/KeyBudget.h"

#include <algorithm>
#include <cstdint>
#include <vector>

#include "platform/PropertyList/ListLimits.h"

namespace tallow::PropertyList {

namespace {

constexpr std::size_t kBuckets = 4096;
constexpr std::size_t kKeysWithoutTable = 250;  // below, it searches from the front
constexpr std::size_t kBytesPerStep = 64;       // compared in the time of one step

struct Bucket {
  std::size_t keys = 0;
  std::size_t bytes = 0;
};

std::uint32_t hashOf(std::string_view key) {
  std::uint32_t hash = 5381;
  for (const char c : key) hash = hash * 33 + static_cast<std::uint32_t>(c);
  return hash;
}

}  // namespace

bool KeyBudget::spend(std::span<const std::string_view> keys) {
  if (keys.size() <= kKeysWithoutTable) return true;
  std::vector<Bucket> buckets(kBuckets);
  std::vector<std::uint32_t> hashes;
  hashes.reserve(keys.size());
  std::size_t searches = 0;  // of all entries, from the front
  for (const std::string_view key : keys) {
    if (key.empty()) {
      ++searches;
      continue;
    }
    hashes.push_back(hashOf(key));
    Bucket& bucket = buckets[hashes.back() % kBuckets];
    ++bucket.keys;
    bucket.bytes += key.size();
  }
  std::sort(hashes.begin(), hashes.end());
  for (std::size_t index = 1; index < hashes.size(); ++index) {
    if (hashes[index] == hashes[index - 1]) ++searches;
  }
  _spent += searches * keys.size();
  for (const Bucket& bucket : buckets) {
    _spent += bucket.keys * (bucket.keys / 2 + bucket.bytes / kBytesPerStep);
  }
  return _spent <= kMaxWork;
}

}  // namespace tallow::PropertyList
