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
  const auto check = [this](const Value& answer, const std::optional<Dictionary>& expected,
                            const char* failure = nullptr) {
    answers = {answer};
    std::optional<Error> error;
    if (failure != nullptr) error = HSError(32, "GetPasswordSettings failed", failure);
    EXPECT_EQ(get(), std::tuple(expected, error)) << description(answer);
  };
  check(Dictionary{{"passwordSettings", settings}, {"more", true}}, settings);
  check(Dictionary{{"passwordSettings", Dictionary()}}, Dictionary());
  check(Dictionary{{"passwordSettings", "x"}}, Dictionary(), "GetPasswordSettings failed");
  check(Dictionary(), Dictionary(), "GetPasswordSettings failed");
  check(Array{1}, std::nullopt, "Unknown response");
  check("text", std::nullopt, "Unknown response");
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
  using Text = std::optional<std::string>;
  const auto check = [this](const Text& guid, const Text& serial, const Text& rom,
                            const Dictionary& settings, const Dictionary& body) {
    machine.itsGUID = guid;
    machine.itsSerial = serial;
    machine.itsROM = rom;
    answers = {Dictionary()};
    EXPECT_EQ(update(settings), std::tuple(true, std::nullopt));
    EXPECT_EQ(bodies.back(), body);
  };
  check("G", "S", "R", every, whole.setting("passwordSettings", every));
  check("G", "S", "R", {}, whole.setting("passwordSettings", Dictionary()));
  check("G", "S", {}, every, {{"guid", "G"}, {"serial-no", "S"}});
  check("G", {}, "R", every, {{"guid", "G"}});
  check({}, "S", "R", every, {});
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
  const auto updateOnce = [this](const Dictionary& answer, HSDialogAnswer person) {
    answers = {answer, Dictionary{{"status", 0}}};
    bodies.clear();
    dialogs.agent->willAnswer(std::move(person));
    auto outcome = update(Dictionary{{"a", 1}});
    EXPECT_EQ(bodies.size(), 1u) << description(answer);
    return outcome;
  };
  const auto refused = [&](const Dictionary& answer, std::int64_t code, const Value& title) {
    const auto [success, error] = updateOnce(answer, {});
    EXPECT_FALSE(success) << description(answer);
    ASSERT_TRUE(error) << description(answer);
    EXPECT_EQ(error->code, code) << description(answer);
    EXPECT_EQ(error->userInfo[kHSErrorTitleKey], title) << description(answer);
  };
  // Closed: the refusal stands.
  refused(signInDialog().setting("customerMessage", words), 32, words);
  refused(signInDialog(), 32, nullptr);
  refused(signInDialog().setting("customerMessage", 5), 32, nullptr);
  refused(signInDialog().removing("failureType"), 5, "Not signed in");
  refused({{"failureType", ""}, {"customerMessage", words}}, 32, words);
  // A dialog without a sign-in is no reason to send again.
  EXPECT_EQ(updateOnce({{"dialog", Dictionary{{"message", "m"}}}}, FakeDialogAgent::pressing(0)),
            std::tuple(true, std::nullopt));
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
