#pragma once

#include <gtest/gtest.h>

#include <strings.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Base/Clock.h"
#include "platform/Base/Random.h"
#include "platform/Base/SharedInstance.h"
#include "platform/Concurrency/RunLoop.h"
#include "platform/HTTP/ScriptedTransport.h"
#include "platform/VendBase/HSError.h"
#include "platform/VendBase/HSStoreURLOperation.h"
#include "tests/support/FakeAccountService.h"
#include "tests/support/FakeMachine.h"

namespace tallow {

// The world around a store request, in the test's hands: transport, account service, time, chance.
class StoreRequestFixture : public testing::Test {
 protected:
  // Fires a timer at once, the clock moved on by its seconds; or keeps it, for ever.
  class FakeRunLoop final : public RunLoop {
   public:
    explicit FakeRunLoop(ManualClock& clock) : _clock(clock) {}
    int run() override { return 0; }
    void stop(int /*status*/) override {}
    void post(std::function<void()> block) override { block(); }
    void onSignal(int /*signalNumber*/, std::function<void()> /*block*/) override {}
    void onEvents(int /*descriptor*/, std::uint32_t /*events*/,
                  std::function<void()> /*block*/) override {}
    std::shared_ptr<Timer> addTimer(double seconds, std::function<void()> block) override {
      pauses.push_back(seconds);
      if (onTimer) {
        onTimer();
        return std::make_shared<KeptTimer>(std::move(block));
      }
      _clock.advance(seconds);
      block();
      return std::make_shared<KeptTimer>(nullptr);
    }

    std::vector<double> pauses;
    std::function<void()> onTimer;  // when set, timers are kept

   private:
    struct KeptTimer final : Timer {
      explicit KeptTimer(std::function<void()> kept) : block(std::move(kept)) {}
      void invalidate() override { block = nullptr; }
      bool isValid() const override { return block != nullptr; }
      std::function<void()> block;
    };
    ManualClock& _clock;
  };
  class FakeRandom final : public Random {
   public:
    void fill(std::span<std::uint8_t> bytes) override {
      std::fill(bytes.begin(), bytes.end(), byte);
    }
    std::uint8_t byte = 0;
  };

  static std::shared_ptr<const HSStoreClient> makeClient() {
    auto client = std::make_shared<HSStoreClient>();
    client->identifier = "com.vantor.test";
    client->userAgent = "Test/1.0";
    return client;
  }
  static URL url(std::string_view text) { return *URL::parse(text); }

  std::shared_ptr<HSStoreURLOperation> operationFor(
      std::string_view text, const std::function<void(HSURLRequest&)>& change = nullptr) {
    auto operation = std::make_shared<HSStoreURLOperation>(makeClient());
    HSURLRequest request(url(text));
    if (change) change(request);
    operation->setRequest(request);
    return operation;
  }
  // As a bag load makes it.
  std::shared_ptr<HSStoreURLOperation> baglessOperationFor(
      std::string_view text, const std::function<void(HSURLRequest&)>& change = nullptr) {
    auto operation = operationFor(text, change);
    operation->setRequiredBagType(0);
    operation->setURLKnownToBeTrusted(true);
    return operation;
  }
  // The code of the store error (0: success); other domains fail the test.
  static std::int64_t run(HSOperation& operation) {
    std::optional<Error> error;
    const bool success = operation.runSyncReturningError(&error);
    EXPECT_EQ(success, !error.has_value());
    if (!error) return 0;
    EXPECT_EQ(error->domain, kHSErrorDomain);
    return error->code;
  }
  // The same for transport errors.
  static std::int64_t runForTransportError(HSStoreURLOperation& operation) {
    std::optional<Error> error;
    EXPECT_FALSE(operation.runSyncReturningError(&error));
    EXPECT_EQ(error ? error->domain : "", "HTTP");
    return error ? error->code : 0;
  }

  // Scripts the next answer.
  void respond(int status, HTTPHeaderList headers = {}, std::string body = {}) {
    _transport.enqueue([=](const HTTPRequest& request) {
      return ScriptedTransport::response(request, status, headers, body);
    });
  }
  // The answer to all that is not scripted.
  void respondAlways(int status) {
    _transport.setHandler(
        [=](const HTTPRequest& request) { return ScriptedTransport::response(request, status); });
  }
  void fail(HTTPTransport::ErrorCode code) { _transport.enqueue(ScriptedTransport::fail(code)); }

  HTTPRequest sent(std::size_t index) const { return _transport.requests().at(index); }
  // Each is that request's only header of its name, in any case; "(none)": there is none.
  void expectSent(std::size_t index, const HTTPHeaderList& headers) const {
    for (const auto& [name, value] : headers) {
      std::vector<std::string> found;
      for (const auto& each : sent(index).headers)
        if (strcasecmp(each.first.c_str(), name.c_str()) == 0) found.push_back(each.second);
      if (found.empty()) found = {"(none)"};
      EXPECT_EQ(found, std::vector{value}) << name;
    }
  }

  ManualClock _clock{Date{1'000'000}};
  FakeRunLoop _runLoop{_clock};
  ScriptedTransport _transport;
  FakeMachine _device;
  FakeRandom _random;
  std::shared_ptr<FakeAccountService> _service = std::make_shared<FakeAccountService>();

 private:
  ScopedShared<Clock> _scopedClock{_clock};
  ScopedShared<RunLoop> _scopedRunLoop{_runLoop};
  ScopedShared<HTTPTransport> _scopedTransport{_transport};
  ScopedShared<Random> _scopedRandom{_random};
  ScopedAccountService _scopedService{_service};
};

}  // namespace tallow
