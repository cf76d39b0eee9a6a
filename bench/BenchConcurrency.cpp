// What a turn at a serial queue costs, alone and in a crowd, and what a log line below the
// threshold costs.

#include <benchmark/benchmark.h>

#include <future>
#include <mutex>

#include "platform/Concurrency/SerialQueue.h"
#include "platform/Concurrency/WorkerPool.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {
namespace {

// The measure of the next two.
void mutexUncontended(benchmark::State& state) {
  std::mutex mutex;
  int counter = 0;
  for (auto _ : state) {
    const std::lock_guard lock(mutex);
    benchmark::DoNotOptimize(++counter);
  }
}
BENCHMARK(mutexUncontended);

void syncUncontended(benchmark::State& state) {
  const SerialQueue queue("bench");
  int counter = 0;
  for (auto _ : state) queue.sync([&] { benchmark::DoNotOptimize(++counter); });
}
BENCHMARK(syncUncontended);

void trySyncUncontended(benchmark::State& state) {
  const SerialQueue queue("bench");
  int counter = 0;
  for (auto _ : state) queue.trySync([&] { benchmark::DoNotOptimize(++counter); });
}
BENCHMARK(trySyncUncontended);

void syncContended(benchmark::State& state) {
  static SerialQueue& queue = *new SerialQueue("bench");
  static int counter = 0;
  for (auto _ : state) queue.sync([&] { benchmark::DoNotOptimize(++counter); });
}
BENCHMARK(syncContended)->Threads(2)->Threads(16)->UseRealTime();

// A hop to the pool and back: what every call that may wait pays.
void asyncRoundTrip(benchmark::State& state) {
  SerialQueue queue("bench");
  for (auto _ : state) {
    std::promise<void> done;
    queue.async([&] { done.set_value(); });
    done.get_future().wait();
  }
}
BENCHMARK(asyncRoundTrip)->UseRealTime();

void asyncInBatches(benchmark::State& state) {
  constexpr int kBatch = 1000;
  SerialQueue queue("bench");
  int counter = 0;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) queue.async([&] { benchmark::DoNotOptimize(++counter); });
    queue.sync([] {});
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(asyncInBatches)->UseRealTime();

void logBelowThreshold(benchmark::State& state) {
  VBLogManager::sharedManager().setThreshold(2);
  for (auto _ : state) logLevel(3, "%@: %d", "Bench", 1);
}
BENCHMARK(logBelowThreshold);

}  // namespace
}  // namespace tallow
