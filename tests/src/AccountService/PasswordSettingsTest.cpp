#include <gtest/gtest.h>

#include <deque>
#include <future>

#include "platform/VendBase/HSError.h"
#include "platform/VendBase/HSOperationQueue.h"
#include "src/AccountService/PasswordSettings/PasswordSettingsController.h"
#include "tests/support/FakeDialogAgent.h"
#include "tests/support/FakeMachine.h"
#include "tests/support/ServiceWorld.h"

namespace tallow {
namespace {

// A store with password settings, and a person in front of the dialog agent.
class PasswordSettingsTest : public testing::Test {
 protected:
  static constexpr const char* kStore = "https://bag.example.com";

  PasswordSettingsTest() {
    const auto url = [](const char* path) { return std::string(kStore) + path; };
    const Dictionary bag{{"trustedDomains", Array{"bag.example.com"}},
                         {"get-password-settings", url("/get")},
                         {"update-password-settings", url("/update")},
                         {"authenticateAccount", url("/authenticate")}};
    _world.transport.setHandler([this, bag](const HTTPRequest& request) {
      const std::string text = request.url.absoluteString();
      Value answer = Dictionary{{"dsPersonId", 42u}, {"token", "t"}};
      if (text.starts_with(std::string(kStore) + "/bag")) {
        answer = bag;
      } else if (!text.ends_with("/authenticate")) {
        bodies.push_back(*PropertyList::decode(request.body)->dictionary());
        EXPECT_EQ(request.method, "POST");
        if (answers.empty()) return ScriptedTransport::response(request, 503);
        answer = std::move(answers.front());
        answers.pop_front();
      }
      const Data list = PropertyList::encode(answer, PropertyList::Format::XML);
      return ScriptedTransport::response(request, 200, {}, list.view());
    });
  }
  ~PasswordSettingsTest() override { PasswordSettingsController::registry().removeAll(); }

  struct Outcome {
    std::optional<Dictionary> settings;
    bool success = false;
    std::optional<Error> error;
  };
  Outcome get() {
    std::promise<Outcome> promise;
    _service->getPasswordSettings(
        [&](std::optional<Dictionary> settings, std::optional<Error> error) {
          promise.set_value({std::move(settings), false, std::move(error)});
        });
    return promise.get_future().get();
  }
  Outcome update(std::optional<Dictionary> settings) {
    std::promise<Outcome> promise;
    _service->updatePasswordSettings(std::move(settings),
                                     [&](bool success, std::optional<Error> error) {
                                       promise.set_value({std::nullopt, success, std::move(error)});
                                     });
    return promise.get_future().get();
  }
  static Dictionary signInDialog() {
    return Dictionary{{"dialog", Dictionary{{"message", "m"}, {"signIn", Dictionary()}}},
                      {"failureType", 5}};
  }
  void personSignsIn() { _dialogs.agent->willAnswer(FakeDialogAgent::pressing(0, "n", "p")); }

  std::deque<Value> answers;       // of the store, to what is asked
  std::vector<Dictionary> bodies;  // that it got
  ServiceWorld _world;
  FakeMachine _machine;
  ScopedDialogCenter _dialogs;
  std::shared_ptr<HSStoreClient> _client = ServiceWorld::client();
  std::shared_ptr<AccountServiceInterface> _service =
      std::make_shared<AccountServiceInterface>(_client);
};

TEST_F(PasswordSettingsTest, ReadsWhatTheStoreKeeps) {
  const Dictionary settings{{"a", 1}, {"b", Dictionary{{"c", Data("x")}}}};
  const struct {
    Value answer;
    std::optional<Dictionary> settings;
    std::int64_t code;
    const char* message;
  } cases[] = {
      {Dictionary{{"passwordSettings", settings}, {"more", true}}, settings, 0, ""},
      {Dictionary{{"passwordSettings", Dictionary()}}, Dictionary(), 0, ""},
      {Dictionary{{"passwordSettings", "x"}}, Dictionary(), 32, "GetPasswordSettings failed"},
      {Dictionary(), Dictionary(), 32, "GetPasswordSettings failed"},
      {Array{1}, std::nullopt, 32, "Unknown response"},
      {"text", std::nullopt, 32, "Unknown response"},
  };
  for (const auto& each : cases) {
    answers = {each.answer};
    const Outcome outcome = get();
    EXPECT_EQ(outcome.settings, each.settings) << description(each.answer);
    EXPECT_EQ(outcome.error ? outcome.error->code : 0, each.code);
    if (!outcome.error) continue;
    EXPECT_EQ(outcome.error->userInfo[kHSErrorTitleKey], Value("GetPasswordSettings failed"));
    EXPECT_EQ(outcome.error->userInfo[kHSErrorMessageKey], Value(each.message));
  }
  EXPECT_EQ(bodies.at(0), (Dictionary{{"guid", *_machine.itsGUID}}));
  EXPECT_TRUE(_world.log.contains(1, "GetPasswordSettingsOperation output text"));
  const Outcome failed = get();  // 503
  EXPECT_FALSE(failed.settings);
  EXPECT_EQ(failed.error->code, kHSErrorHTTPStatus);
}

TEST_F(PasswordSettingsTest, TheFirstMissingValueEndsTheBodyOfAnUpdate) {
  const std::string megabyte(1u << 20, 'x');
  const Dictionary every{{"s", megabyte},
                         {"n", -1},
                         {"u", 18446744073709551615u},
                         {"r", 0.5},
                         {"b", true},
                         {"d", Data("x")},
                         {"t", Date{1e9}},
                         {"a", Array{Array(), Dictionary()}},
                         {"", "empty key"}};
  const struct {
    std::optional<std::string> guid, serial, rom;
    Dictionary settings, body;
  } cases[] = {
      {"G",
       "S",
       "R",
       every,
       {{"guid", "G"}, {"serial-no", "S"}, {"rom-addr", "R"}, {"passwordSettings", every}}},
      {"G",
       "S",
       "R",
       {},
       {{"guid", "G"}, {"serial-no", "S"}, {"rom-addr", "R"}, {"passwordSettings", Dictionary()}}},
      {"G", "S", {}, every, {{"guid", "G"}, {"serial-no", "S"}}},
      {"G", {}, "R", every, {{"guid", "G"}}},
      {{}, "S", "R", every, {}},
  };
  for (const auto& each : cases) {
    _machine.itsGUID = each.guid;
    _machine.itsSerial = each.serial;
    _machine.itsROM = each.rom;
    answers = {Dictionary()};
    EXPECT_TRUE(update(each.settings).success);
    EXPECT_EQ(bodies.back(), each.body);
  }
  bodies.clear();
  const Outcome nothing = update(std::nullopt);
  EXPECT_FALSE(nothing.success);
  EXPECT_FALSE(nothing.error);
  EXPECT_TRUE(bodies.empty());
}

TEST_F(PasswordSettingsTest, SendsAgainForAsLongAsSomebodySignsIn) {
  constexpr std::size_t kTimes = 20;  // more than any limit that something else could have
  for (std::size_t i = 0; i < kTimes; ++i) {
    answers.emplace_back(signInDialog());
    personSignsIn();
  }
  answers.emplace_back(Dictionary{{"status", 0}});
  EXPECT_TRUE(update(Dictionary{{"a", 1}}).success);
  EXPECT_EQ(bodies.size(), kTimes + 1);
  EXPECT_EQ(_dialogs.agent->shown.at(0).signIn->reason, 7);
  EXPECT_TRUE(_world.log.contains(
      1, "UpdatePasswordSettingsOperation:didProcessDialog and has authenticatedDSID 42"));
}

TEST_F(PasswordSettingsTest, AnEndToTheDialogEndsIt) {
  const Value words = "The store's \"words\"";
  const struct {
    Dictionary answer;
    HSDialogAnswer person;
    bool success;
    std::optional<std::int64_t> code;
    Value title;
  } cases[] = {
      // Closed: the refusal stands.
      {signInDialog().setting("customerMessage", words), {}, false, 32, words},
      {signInDialog(), {}, false, 32, nullptr},
      {signInDialog().setting("customerMessage", 5), {}, false, 32, nullptr},
      {signInDialog().removing("failureType"), {}, false, 5, "Not signed in"},
      // A dialog without a sign-in is no reason to send again.
      {{{"dialog", Dictionary{{"message", "m"}}}}, FakeDialogAgent::pressing(0), true, {}, nullptr},
      {{{"failureType", ""}, {"customerMessage", words}}, {}, false, 32, words},
  };
  for (const auto& each : cases) {
    answers = {each.answer, Dictionary{{"status", 0}}};
    bodies.clear();
    _dialogs.agent->willAnswer(each.person);
    const Outcome outcome = update(Dictionary{{"a", 1}});
    EXPECT_EQ(outcome.success, each.success) << description(each.answer);
    EXPECT_EQ(outcome.error ? std::optional(outcome.error->code) : std::nullopt, each.code);
    EXPECT_EQ(outcome.error ? outcome.error->userInfo[kHSErrorTitleKey] : Value(), each.title);
    EXPECT_EQ(bodies.size(), 1u);
  }
  // An answer that is no dictionary is no refusal; a failure of the request is one.
  answers = {"text"};
  EXPECT_TRUE(update(Dictionary()).success);
  EXPECT_EQ(update(Dictionary()).error->code, kHSErrorHTTPStatus);
}

TEST_F(PasswordSettingsTest, WhatNobodyWaitsForAnyMoreIsTakenOffTheScreen) {
  struct Agent final : HSDialogAgent {
    const std::string& client() const override { return name; }
    void showDialog(std::uint64_t, const HSDialog&) override { shown.set_value(); }
    void dismissDialog(std::uint64_t) override { dismissed.set_value(); }
    const std::string name = "com.example.store";
    std::promise<void> shown, dismissed;
  };
  const auto agent = std::make_shared<Agent>();
  _dialogs.center.addAgent(agent);
  answers = {signInDialog()};
  std::promise<std::int64_t> code;
  _service->updatePasswordSettings(
      Dictionary{{"a", 1}},
      [&](bool, const std::optional<Error>& error) { code.set_value(error ? error->code : 0); });
  agent->shown.get_future().wait();
  _service.reset();  // the caller has left the bus
  EXPECT_NE(code.get_future().get(), 0) << "nothing is sent again";
  agent->dismissed.get_future().wait();
  EXPECT_EQ(_dialogs.center.openDialogCount(), 0u);
  EXPECT_EQ(bodies.size(), 1u);
}

TEST_F(PasswordSettingsTest, OneControllerAClientAndNoneWithoutAnIdentifier) {
  const auto one = PasswordSettingsController::passwordSettingsControllerForClient(_client);
  const auto same = ServiceWorld::client("com.example.store", kHSStoreClientTypeOutfitter);
  EXPECT_EQ(PasswordSettingsController::passwordSettingsControllerForClient(same), one);
  const auto nameless = std::make_shared<HSStoreClient>();
  EXPECT_EQ(PasswordSettingsController::passwordSettingsControllerForClient(nameless), nullptr);
  EXPECT_TRUE(_world.log.mentions(
      1,
      "PasswordSettingsController: passwordSettingControllerForClient: called with nil "
      "storeClient.identifier (storeClient is "));
  EXPECT_TRUE(
      _world.log.mentions(1, "No PasswordSettingsController will be available for this client"));
  // The reply is dropped, which tells whoever waits for it.
  const auto service = std::make_shared<AccountServiceInterface>(nameless);
  auto held = std::make_shared<int>();
  const std::weak_ptr<int> dropped = held;
  service->getPasswordSettings([held = std::move(held)](auto, auto) { FAIL(); });
  ServiceWorld::settle();
  EXPECT_TRUE(dropped.expired());
}

}  // namespace
}  // namespace tallow
