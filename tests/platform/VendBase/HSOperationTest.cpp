#include "platform/VendBase/HSOperation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <latch>
#include <thread>
#include <vector>

#include "platform/VendBase/HSError.h"
#include "platform/VendBase/HSOperationQueue.h"
#include "tests/support/FakeAccountService.h"

namespace tallow {
namespace {

std::shared_ptr<const HSStoreClient> makeClient(std::int64_t type = kHSStoreClientTypeStoreAgent) {
  auto client = std::make_shared<HSStoreClient>();
  client->identifier = "com.vantor.test";
  client->clientType = type;
  return client;
}

// Runs what a test gives it.
class BlockOperation : public HSOperation {
 public:
  using Block = std::function<void(BlockOperation&)>;
  explicit BlockOperation(Block block) : HSOperation(makeClient()), _block(std::move(block)) {}
  using HSOperation::waitForReply;

 protected:
  void run() override { _block(*this); }

 private:
  Block _block;
};

TEST(HSPendingReply, TheFirstAnswerCountsOrThatNobodyCanAnswerAnyMore) {
  const HSPendingReply<int> answered, dropped, slow;
  const auto callback = answered.callback();
  callback(1);
  callback(2);
  answered.abandon();
  EXPECT_EQ(answered.wait(), 1);
  std::jthread dropper([moved = dropped.callback()]() mutable { moved = nullptr; });
  EXPECT_EQ(dropped.wait(), std::nullopt);
  const auto kept = slow.callback();
  EXPECT_EQ(slow.wait(0.0), std::nullopt);
}

TEST(HSOperation, HandlerAndCallerSeeTheOutcome) {
  const Error failure = HSError(kHSErrorInvalidResponse, "title", std::nullopt);
  const auto operation =
      std::make_shared<BlockOperation>([&](BlockOperation& self) { self.setError(failure); });
  int calls = 0;
  operation->setCompletionHandler(
      [&](HSOperation& finished, bool success, const std::optional<Error>& error) {
        ++calls;
        EXPECT_EQ(&finished, operation.get());
        EXPECT_FALSE(success);
        EXPECT_EQ(error, failure);
      });
  std::optional<Error> error;
  EXPECT_FALSE(operation->runSyncReturningError(&error));
  EXPECT_EQ(error, failure);
  EXPECT_EQ(error->localizedDescription(), "title") << "for want of a message";
  EXPECT_EQ(calls, 1);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(operation->runSyncReturningError(nullptr), "run twice");
}

TEST(HSOperation, CancelReachesTheRunningStepAndWhatHasNotBegun) {
  const auto neverRuns = [](BlockOperation&) { FAIL() << "has run"; };
  const auto early = std::make_shared<BlockOperation>(neverRuns);
  early->cancel();
  std::optional<Error> earlyError;
  EXPECT_FALSE(early->runSyncReturningError(&earlyError));
  EXPECT_EQ(earlyError->code, kHSErrorCancelled);
  std::promise<void> waits;
  const auto step = std::make_shared<BlockOperation>([&](BlockOperation& self) {
    const HSPendingReply<bool> reply;
    const auto callback = reply.callback();  // which nobody calls
    waits.set_value();
    EXPECT_FALSE(self.waitForReply(reply));
  });
  std::optional<Error> stepError;
  const auto parent = std::make_shared<BlockOperation>([&](BlockOperation& self) {
    EXPECT_FALSE(self.runSubOperation(*step, &stepError));
    EXPECT_FALSE(self.runSubOperation(*std::make_shared<BlockOperation>(neverRuns), nullptr))
        << "a step that comes too late";
  });
  std::optional<Error> error;
  std::thread runner([&] { EXPECT_FALSE(parent->runSyncReturningError(&error)); });
  waits.get_future().wait();
  parent->cancel();
  runner.join();
  EXPECT_EQ(stepError->code, kHSErrorCancelled);
  EXPECT_EQ(error->code, kHSErrorCancelled);
}

TEST(HSOperationQueue, RunsASerialLineInOrderAndLetsGo) {
  HSOperationQueue queue(1);
  std::vector<int> order;  // written by one operation at a time
  std::weak_ptr<HSOperation> weak;
  for (int i = 0; i < 200; ++i) {
    auto operation = std::make_shared<BlockOperation>([&order, i](auto&) { order.push_back(i); });
    weak = operation;
    queue.addOperation(std::move(operation));
  }
  queue.waitUntilAllOperationsAreFinished();
  ASSERT_EQ(order.size(), 200u);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
  EXPECT_EQ(queue.operationCount(), 0u);
  EXPECT_TRUE(weak.expired());
}

TEST(HSOperationQueue, RunsSeveralAtOnceUpToItsBound) {
  constexpr int kBound = 3;
  HSOperationQueue queue(kBound);
  std::atomic<int> running = 0, most = 0;
  std::latch together(kBound), release(1);
  for (int i = 0; i < 4 * kBound; ++i) {
    queue.addOperation(std::make_shared<BlockOperation>([&, i](auto&) {
      const int now = ++running;
      for (int seen = most; seen < now && !most.compare_exchange_weak(seen, now);) {
      }
      if (i < kBound) together.count_down();
      release.wait();
      --running;
    }));
  }
  together.wait();  // the first three are inside at the same time
  EXPECT_EQ(queue.operationCount(), 4u * kBound);
  release.count_down();
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(most, kBound);
}

TEST(HSOperationQueue, FailsWhatIsTooManyOfOneClient) {
  HSOperationQueue queue(1);
  std::latch release(1), refused(1);
  const auto add = [&](const char* client) {
    auto made = std::make_shared<HSStoreClient>();
    made->identifier = client;
    const auto operation = std::make_shared<HSOperation>(made);
    operation->setCompletionHandler([&](HSOperation&, bool success, const auto& error) {
      if (success) return;
      EXPECT_EQ(error->code, kHSErrorServiceUnavailable);
      refused.count_down();
    });
    queue.addOperation(operation);
  };
  queue.addOperation(std::make_shared<BlockOperation>([&](auto&) { release.wait(); }));
  for (std::size_t i = 0; i < HSOperationQueue::kMaxWaitingOfOneClient + 1; ++i) add("greedy");
  add("modest");
  refused.wait();
  release.count_down();
  queue.waitUntilAllOperationsAreFinished();
}

TEST(HSOperationQueue, MayGoAwayWhileItsOperationsWait) {
  std::latch done(20);
  {
    HSOperationQueue queue(2);
    for (int i = 0; i < 20; ++i)
      queue.addOperation(std::make_shared<BlockOperation>([&](auto&) { done.count_down(); }));
  }
  done.wait();
}

TEST(HSOperation, ReadsTheBagThroughTheServiceIfItNeedsOne) {
  const auto service = std::make_shared<FakeAccountService>();
  const ScopedAccountService scope(service);
  service->bag = Dictionary{{"url", "https://store.example/a"}, {"number", 7}, {"bad", "https://"}};
  HSOperation operation(makeClient());
  EXPECT_EQ(operation.valueForURLBagKey("number"), Value(7));
  EXPECT_EQ(operation.urlForURLBagKey("url"), URL::parse("https://store.example/a"));
  EXPECT_EQ(operation.urlForURLBagKey("number"), std::nullopt);
  EXPECT_EQ(operation.urlForURLBagKey("bad"), std::nullopt);
  EXPECT_EQ(operation.urlForURLBagKey("absent"), std::nullopt);
  service->unanswered = {"valueForURLBagKey"};
  EXPECT_TRUE(operation.valueForURLBagKey("number").isNil());
  service->unanswered.clear();
  const std::size_t calls = service->calls().size();
  operation.setRequiredBagType(0);
  EXPECT_TRUE(operation.valueForURLBagKey("number").isNil());
  EXPECT_EQ(service->calls().size(), calls);
}

TEST(HSOperation, AsksAsAClientOfTheRequiredBag) {
  const ScopedAccountService scope(std::make_shared<FakeAccountService>());
  HSOperation operation(makeClient());
  operation.setRequiredBagType(2);
  operation.valueForURLBagKey("a");
  HSOperation outfitter(makeClient(kHSStoreClientTypeOutfitter));
  outfitter.setRequiredBagType(2);
  outfitter.valueForURLBagKey("a");
  const auto clients = scope.clients();
  ASSERT_EQ(clients.size(), 2u);
  EXPECT_EQ(clients[0]->requiredBagType, 2u);
  EXPECT_EQ(clients[0]->identifier, "com.vantor.test");
  EXPECT_EQ(clients[1], outfitter.storeClient()) << "its registries would switch to a changed one";
}

}  // namespace
}  // namespace tallow
