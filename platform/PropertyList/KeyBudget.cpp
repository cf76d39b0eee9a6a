#include "platform/PropertyList/KeyBudget.h"

#include <algorithm>
#include <cstdint>
#include <utility>
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
  std::size_t begin = 0;  // of its keys among all, sorted by bucket
};

std::uint32_t hashOf(std::string_view key) {
  std::uint32_t hash = 5381;
  for (const char c : key) hash = hash * 33 + static_cast<std::uint32_t>(c);
  return hash;
}

// How many of `hashes` are repetitions; `buckets` counts them by bucket.
std::size_t equalHashes(const std::vector<std::uint32_t>& hashes, std::vector<Bucket>& buckets) {
  std::size_t begin = 0;
  for (Bucket& bucket : buckets) {
    bucket.begin = begin;
    begin += std::exchange(bucket.keys, 0);
  }
  std::size_t repetitions = 0;
  std::vector<std::uint32_t> grouped(hashes.size());
  for (const std::uint32_t hash : hashes) {
    Bucket& bucket = buckets[hash % kBuckets];
    const auto first = grouped.begin() + static_cast<std::ptrdiff_t>(bucket.begin);
    const auto last = first + static_cast<std::ptrdiff_t>(bucket.keys++);
    if (std::find(first, last, hash) != last) ++repetitions;
    *last = hash;
  }
  return repetitions;
}

}  // namespace

bool KeyBudget::spend(std::span<const std::string_view> keys) {
  if (keys.size() <= kKeysWithoutTable) return true;
  std::vector<Bucket> buckets(kBuckets);
  std::vector<std::uint32_t> hashes;
  hashes.reserve(keys.size());
  for (const std::string_view key : keys) {
    if (key.empty()) {
      _spent += keys.size();  // anything may have to be searched for it
      continue;
    }
    hashes.push_back(hashOf(key));
    Bucket& bucket = buckets[hashes.back() % kBuckets];
    ++bucket.keys;
    bucket.bytes += key.size();
  }
  for (const Bucket& bucket : buckets) {
    _spent += bucket.keys * (bucket.keys / 2 + bucket.bytes / kBytesPerStep);
  }
  // With that affordable, so is a look for equal keys inside each bucket.
  if (_spent <= kMaxWork) _spent += equalHashes(hashes, buckets) * keys.size();
  return _spent <= kMaxWork;
}

}  // namespace tallow::PropertyList
