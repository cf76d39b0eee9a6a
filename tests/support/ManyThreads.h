#pragma once

#include <functional>
#include <thread>
#include <vector>

namespace tallow {

// Calls `body` with 0, 1 ... on so many threads at once; returns when all have returned.
inline void onManyThreads(int count, const std::function<void(int)>& body) {
  std::vector<std::jthread> threads;
  for (int i = 0; i < count; ++i) threads.emplace_back(body, i);
}

}  // namespace tallow
