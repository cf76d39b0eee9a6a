#include <deque>
#include <future>

#include "platform/VendBase/HSError.h"
#include "platform/VendBase/HSOperationQueue.h"
#include "src/AccountService/PasswordSettings/PasswordSettingsController.h"
#include "tests/support/AnswerOf.h"
#include "tests/support/FakeDialogAgent.h"
#include "tests/support/FakeMachine.h"
#include "tests/support/ServiceWorld.h"

namespace tallow {
namespace {

// A store with password settings, and a person in front of the dialog agent.
class PasswordSettingsTest : public ServiceTest {
 protected:
  PasswordSettingsTest() {
    const Dictionary bag{{"trustedDomains", Array{"example.com"}},
                         {"get-password-settings", "https://store.example.com/get"},
                         {"update-password-settings", "https://store.example.com/update"},
                         {"authenticateAccount", "https://store.example.com/authenticate"}};
    world.serveBag(bag, [this](const HTTPRequest& request) {
      if (request.url.path() == "/authenticate")
        return ServiceWorld::listed(request, Dictionary{{"dsPersonId", 42u}, {"token", "t"}});
      bodies.push_back(*PropertyList::decode(request.body)->dictionary());
      EXPECT_EQ(request.method, "POST");
      if (answers.empty()) return ScriptedTransport::response(request, 503);
      const Value answer = answers.front();
      answers.pop_front();
      return ServiceWorld::listed(request, answer);
    });
  }
  ~PasswordSettingsTest() override {
    PasswordSettingsController::registry().removeAll();
    ServiceWorld::settle();
  }

  auto get() const { return answerOf(*service, &HSAccountService::getPasswordSettings); }
  auto update(std::optional<Dictionary> settings) const {
    return answerOf(*service, &HSAccountService::updatePasswordSettings, std::move(settings));
  }
  static Dictionary signInDialog() {
    return Dictionary{{"dialog", Dictionary{{"message", "m"}, {"signIn", Dictionary()}}},
                      {"failureType", 5}};
  }
  void personSignsIn() { dialogs.agent->willAnswer(FakeDialogAgent::pressing(0, "n", "p")); }

  std::deque<Value> answers;       // of the store, to what is asked
  std::vector<Dictionary> bodies;  // that it got
  FakeMachine machine;
  ScopedDialogCenter dialogs;
  std::shared_ptr<AccountServiceInterface> service =
      std::make_shared<AccountServiceInterface>(client);
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
    const auto [given, error] = get();
    EXPECT_EQ(given, each.settings) << description(each.answer);
    EXPECT_EQ(error ? error->code : 0, each.code) << description(each.answer);
    if (!error) continue;
    EXPECT_EQ(error->userInfo[kHSErrorTitleKey], Value("GetPasswordSettings failed"));
    EXPECT_EQ(error->userInfo[kHSErrorMessageKey], Value(each.message));
  }
  EXPECT_EQ(bodies.at(0), (Dictionary{{"guid", *machine.itsGUID}}));
  EXPECT_TRUE(world.log.contains(1, "GetPasswordSettingsOperation output text"));
  const auto [none, error] = get();  // 503
  EXPECT_FALSE(none);
  EXPECT_EQ(error->code, kHSErrorHTTPStatus);
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
  const Dictionary whole{{"guid", "G"}, {"serial-no", "S"}, {"rom-addr", "R"}};
  const struct {
    std::optional<std::string> guid, serial, rom;
    Dictionary settings, body;
  } cases[] = {
      {"G", "S", "R", every, whole.setting("passwordSettings", every)},
      {"G", "S", "R", {}, whole.setting("passwordSettings", Dictionary())},
      {"G", "S", {}, every, {{"guid", "G"}, {"serial-no", "S"}}},
      {"G", {}, "R", every, {{"guid", "G"}}},
      {{}, "S", "R", every, {}},
  };
  for (const auto& each : cases) {
    machine.itsGUID = each.guid;
    machine.itsSerial = each.serial;
    machine.itsROM = each.rom;
    answers = {Dictionary()};
    EXPECT_EQ(update(each.settings), std::tuple(true, std::nullopt));
    EXPECT_EQ(bodies.back(), each.body);
  }
  bodies.clear();
  EXPECT_EQ(update(std::nullopt), std::tuple(false, std::nullopt));
  EXPECT_TRUE(bodies.empty());
}

TEST_F(PasswordSettingsTest, SendsAgainForAsLongAsSomebodySignsIn) {
  constexpr std::size_t kTimes = 20;  // more than any limit that something else could have
  for (std::size_t i = 0; i < kTimes; ++i) {
    answers.emplace_back(signInDialog());
    personSignsIn();
  }
  answers.emplace_back(Dictionary{{"status", 0}});
  EXPECT_EQ(update(Dictionary{{"a", 1}}), std::tuple(true, std::nullopt));
  EXPECT_EQ(bodies.size(), kTimes + 1);
  EXPECT_EQ(dialogs.agent->shown.at(0).signIn->reason, 7);
  EXPECT_TRUE(world.log.contains(
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
    dialogs.agent->willAnswer(each.person);
    const auto [success, error] = update(Dictionary{{"a", 1}});
    EXPECT_EQ(success, each.success) << description(each.answer);
    EXPECT_EQ(error ? std::optional(error->code) : std::nullopt, each.code);
    EXPECT_EQ(error ? error->userInfo[kHSErrorTitleKey] : Value(), each.title);
    EXPECT_EQ(bodies.size(), 1u);
  }
  // An answer that is no dictionary is no refusal; a failure of the request is one.
  answers = {"text"};
  EXPECT_EQ(update(Dictionary()), std::tuple(true, std::nullopt));
  EXPECT_EQ(std::get<1>(update(Dictionary()))->code, kHSErrorHTTPStatus);
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
  dialogs.center.addAgent(agent);
  answers = {signInDialog()};
  std::promise<std::int64_t> code;
  service->updatePasswordSettings(
      Dictionary{{"a", 1}},
      [&](bool, const std::optional<Error>& error) { code.set_value(error ? error->code : 0); });
  agent->shown.get_future().wait();
  service.reset();  // the caller has left the bus
  EXPECT_NE(code.get_future().get(), 0) << "nothing is sent again";
  agent->dismissed.get_future().wait();
  EXPECT_EQ(dialogs.center.openDialogCount(), 0u);
  EXPECT_EQ(bodies.size(), 1u);
}

TEST_F(PasswordSettingsTest, OneControllerAClientAndNoneWithoutAnIdentifier) {
  const auto one = PasswordSettingsController::passwordSettingsControllerForClient(client);
  const auto same = ServiceWorld::client("com.example.store", kHSStoreClientTypeOutfitter);
  EXPECT_EQ(PasswordSettingsController::passwordSettingsControllerForClient(same), one);
  const auto nameless = std::make_shared<HSStoreClient>();
  EXPECT_EQ(PasswordSettingsController::passwordSettingsControllerForClient(nameless), nullptr);
  for (const char* part :
       {"PasswordSettingsController: passwordSettingControllerForClient: called with nil "
        "storeClient.identifier (storeClient is ",
        "No PasswordSettingsController will be available for this client"})
    EXPECT_TRUE(world.log.mentions(1, part)) << part;
  // The reply is dropped, which tells whoever waits for it.
  const HSPendingReply<bool> reply;
  std::make_shared<AccountServiceInterface>(nameless)->getPasswordSettings(
      [answer = reply.callback()](auto, auto) { answer(true); });
  EXPECT_EQ(reply.wait(30), std::nullopt);
}

}  // namespace
}  // namespace tallow
