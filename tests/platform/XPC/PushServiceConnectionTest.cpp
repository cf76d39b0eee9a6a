#include "platform/XPC/PushServiceConnection.h"

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <deque>
#include <future>
#include <thread>

#include "platform/Base/SharedInstance.h"
#include "platform/Concurrency/ManualRunLoop.h"
#include "platform/VendBase/HSError.h"
#include "platform/XPC/PeerBacklog.h"
#include "platform/XPC/PeerConnection.h"
#include "platform/XPC/XPCTransaction.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/PrivateBus.h"

namespace tallow {
namespace {

constexpr const char* kName = "com.vantor.quillonpushagent-xpc";

// A push agent that answers what it is told, as raw messages: also what no decent one would.
class RawAgent {
 public:
  using Reply = std::function<void(sd_bus_message* call)>;

  explicit RawAgent(Reply reply) : _reply(std::move(reply)) {
    sd_bus_open_user(&_bus);
    sd_bus_add_filter(_bus, nullptr, &RawAgent::received, this);
    sd_bus_request_name(_bus, kName, 0);
    _thread = std::jthread([this](const std::stop_token& end) {
      while (!end.stop_requested() && sd_bus_process(_bus, nullptr) >= 0) sd_bus_wait(_bus, 10'000);
    });
  }
  ~RawAgent() {
    _thread = std::jthread();
    sd_bus_flush_close_unref(_bus);
  }

  static void answer(sd_bus_message* call, bool success, std::optional<std::size_t> tokenBytes) {
    sd_bus_message* reply = nullptr;
    sd_bus_message_new_method_return(call, &reply);
    sd_bus_message_append(reply, "b", static_cast<int>(success));
    sd_bus_message_open_container(reply, 'a', "ay");
    if (tokenBytes) {
      const std::vector<std::uint8_t> token(*tokenBytes, 7);
      sd_bus_message_append_array(reply, 'y', token.data(), token.size());
    }
    sd_bus_message_close_container(reply);
    sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
  }

 private:
  static int received(sd_bus_message* message, void* self, sd_bus_error*) {
    if (sd_bus_message_is_method_call(message, "com.vantor.PushServiceProtocol", nullptr) <= 0)
      return 0;
    static_cast<RawAgent*>(self)->_reply(message);
    return 1;
  }
  Reply _reply;
  sd_bus* _bus = nullptr;
  std::jthread _thread;
};

class PushServiceConnectionTest : public ::testing::Test {
 protected:
  struct Answer {
    bool success;
    std::optional<std::size_t> tokenBytes;
    bool operator==(const Answer&) const = default;
  };
  PushServiceConnectionTest() {
    bus->start(nullptr);
    PeerConnection::setBus(bus);
    connect();
  }
  ~PushServiceConnectionTest() override {
    PeerConnection::setBus(nullptr);
    bus->stop();
  }
  void connect() {
    connection = PushServiceConnection::initWithMachServiceName(kName);
    connection->setInterruptionHandler([this] { ++interruptions; });
    connection->setInvalidationHandler([this] { ++invalidations; });
    connection->resume();
  }
  Answer ask() const {
    std::promise<Answer> answered;  // a second reply would throw
    connection->getDeviceTokenForEnvironmentNamed(
        "env", [&](bool success, const std::optional<Data>& token) {
          answered.set_value(
              {success, token ? std::optional(token->length()) : std::optional<std::size_t>()});
        });
    return answered.get_future().get();
  }

  CapturedLog log;
  PrivateBus privateBus;
  std::shared_ptr<BusConnection> bus = *BusConnection::open(BusConnection::Bus::Session);
  std::shared_ptr<PushServiceConnection> connection;
  std::atomic<int> interruptions{0}, invalidations{0};
};

TEST_F(PushServiceConnectionTest, WhateverTheAgentAnswersIsOneReply) {
  const Answer none{false, std::nullopt};
  const std::vector<std::pair<RawAgent::Reply, Answer>> cases = {
      {[](auto* call) { RawAgent::answer(call, true, 3); }, {true, 3}},
      {[](auto* call) { RawAgent::answer(call, true, 0); }, {true, 0}},
      {[](auto* call) { RawAgent::answer(call, true, 1 << 20); }, {true, 1 << 20}},
      {[](auto* call) { RawAgent::answer(call, true, std::nullopt); }, {true, std::nullopt}},
      {[](auto* call) { RawAgent::answer(call, false, 3); }, {false, 3}},
      {[](auto* call) {
         RawAgent::answer(call, true, 1);
         RawAgent::answer(call, true, 2);
       },
       {true, 1}},
      {[](auto* call) { sd_bus_reply_method_return(call, "s", "text"); }, none},
      // As the bus answers for one that never does.
      {[](auto* call) {
         sd_bus_reply_method_errorf(call, "org.freedesktop.DBus.Error.NoReply", "too late");
       },
       none},
      {[](auto* call) { sd_bus_reply_method_errorf(call, "com.example.Error", "no"); }, none},
      // Leaves while it is asked.
      {[](auto* call) {
         sd_bus_release_name(sd_bus_message_get_bus(call), kName);
         sd_bus_close(sd_bus_message_get_bus(call));
       },
       none},
  };
  for (const auto& [reply, expected] : cases) {
    const RawAgent agent(reply);
    EXPECT_EQ(ask(), expected) << &reply - &cases[0].first;
  }
  EXPECT_EQ(invalidations, 0);
}

TEST_F(PushServiceConnectionTest, AnAbsentAgentInvalidatesAndOneThatLeavesInterrupts) {
  EXPECT_EQ(ask(), (Answer{false, std::nullopt}));
  EXPECT_EQ(invalidations, 1);
  connect();
  {
    const RawAgent agent([](auto* call) { RawAgent::answer(call, true, 3); });
    EXPECT_EQ(ask(), (Answer{true, 3}));
    EXPECT_EQ(interruptions, 0) << "one that comes is no loss";
  }
  privateBus.waitUntilUnowned(kName);
  ask();  // behind the news of its end
  EXPECT_EQ(interruptions, 1);
  EXPECT_EQ(invalidations, 2);

  PeerConnection::setBus(nullptr);
  connect();
  EXPECT_EQ(invalidations, 3) << "without a bus at once";
  EXPECT_EQ(ask(), (Answer{false, std::nullopt}));
}

TEST_F(PushServiceConnectionTest, WhatTheBusRefusesIsToldFromWhatThePeerRefuses) {
  const auto refusal = [] {
    std::promise<Error> refused;
    PeerConnection::call<>({"agent", kName, "/", "com.vantor.PushServiceProtocol"}, "any",
                           PeerConnection::kUsualPatience,
                           std::function<void(std::optional<Error>)>(
                               [&](std::optional<Error> error) { refused.set_value(*error); }));
    return refused.get_future().get();
  };
  {
    const RawAgent agent([](auto* call) {
      sd_bus_reply_method_errorf(call, bus::kLimitsExceeded, "too much for me");
    });
    EXPECT_EQ(refusal().domain, bus::kLimitsExceeded);
    EXPECT_FALSE(PeerConnection::wasRefusedByBus(refusal()));
  }
  privateBus.limitUnansweredCalls(1);
  std::promise<void> isHeld;
  const RawAgent agent([&](sd_bus_message*) { isHeld.set_value(); });
  connection->getDeviceTokenForEnvironmentNamed("env", [](bool, const std::optional<Data>&) {});
  isHeld.get_future().wait();
  EXPECT_TRUE(PeerConnection::wasRefusedByBus(refusal()));
  bus->stop();
}

TEST_F(PushServiceConnectionTest, ACallThatIsOutstandingWhenTheServiceEndsIsAnswered) {
  std::promise<void> isHeld;
  const RawAgent agent([&](sd_bus_message*) { isHeld.set_value(); });
  int replies = 0;
  connection->getDeviceTokenForEnvironmentNamed(
      "env", [&](bool success, const std::optional<Data>&) { replies += success ? 100 : 1; });
  isHeld.get_future().wait();
  bus->stop();
  EXPECT_EQ(replies, 1);
}

// Calls that say their number when they are made, and are answered when the test does.
class PeerBacklogTest : public ::testing::Test {
 protected:
  bool add(int number, std::size_t bytes = 1) {
    return _backlog.add(
        [this, number](PeerBacklog::Answered answered) {
          made.push_back(number);
          _unanswered.push_back(std::move(answered));
        },
        bytes, [this, number](const Error&) { dropped.push_back(number); });
  }
  bool answerFirst(const std::optional<Error>& error = std::nullopt) {
    const auto answered = std::move(_unanswered.front());
    _unanswered.pop_front();
    return answered(error);
  }
  void answerAll(const std::optional<Error>& error) {
    while (!_unanswered.empty()) answerFirst(error);
  }

  const CapturedLog log;
  ManualClock clock{Date{0}};
  ManualRunLoop loop{clock};
  std::vector<int> made, dropped;

 private:
  const ScopedShared<RunLoop> _scope{loop};
  PeerBacklog _backlog{"peer"};
  std::deque<PeerBacklog::Answered> _unanswered;
};

TEST_F(PeerBacklogTest, ABurstIsWorkedOffInOrderAndOneThatIsStuckIsBounded) {
  constexpr int kCalls = 1000;
  for (int i = 0; i < kCalls; ++i) EXPECT_TRUE(add(i));
  EXPECT_EQ(made.size(), PeerBacklog::kMaxUnanswered);
  for (int i = 0; i < kCalls; ++i) {
    // Slow or refusing: the next one may fare better.
    if (i % 2 == 0) answerFirst();
    if (i % 2 != 0) answerFirst(makeError("com.example", 1, "no"));
  }
  EXPECT_EQ(made.size(), static_cast<std::size_t>(kCalls));
  EXPECT_TRUE(std::is_sorted(made.begin(), made.end()));

  for (std::size_t i = 0; i < PeerBacklog::kMaxUnanswered; ++i) EXPECT_TRUE(add(0, 0));
  EXPECT_TRUE(add(1, PeerBacklog::kMaxWaitingBytes));
  EXPECT_FALSE(add(2, 1));
  EXPECT_TRUE(
      log.contains(1, "PeerBacklog: The peer has too much to do already; a call is dropped"));
  made.clear();
  answerAll(HSError(kHSErrorServiceUnavailable, std::nullopt, "gone"));
  EXPECT_TRUE(made.empty()) << "what waited has gone with it";
  EXPECT_EQ(dropped, std::vector<int>{1}) << "and was told so";
  EXPECT_TRUE(add(3));
  EXPECT_EQ(made, std::vector<int>{3});
}

TEST_F(PeerBacklogTest, WhatTheBusRefusesIsMadeAgainLaterAndInOrder) {
  for (int number = 0; number < 3; ++number) add(number);
  const Error tooMany{
      bus::kLimitsExceeded, -1, {{PeerConnection::kBusErrorKey, bus::kLimitsExceeded}}};
  EXPECT_TRUE(answerFirst());
  EXPECT_FALSE(answerFirst(tooMany));
  EXPECT_FALSE(answerFirst(tooMany));
  add(3);
  EXPECT_EQ(XPCTransaction::workCount(), 1);
  EXPECT_EQ(made, (std::vector{0, 1, 2}));
  loop.advance(PeerBacklog::kSecondsBetweenTries);
  EXPECT_EQ(made, (std::vector{0, 1, 2, 1, 2, 3}));
  EXPECT_TRUE(answerFirst(makeError(bus::kLimitsExceeded, -1, "as the peer says itself")));
  for (int left = 2; left > 0; --left) EXPECT_TRUE(answerFirst());
  EXPECT_EQ(XPCTransaction::workCount(), 0);
}

}  // namespace
}  // namespace tallow
