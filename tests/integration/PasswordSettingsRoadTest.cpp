// The road of changed password settings, over a real bus and real HTTP, with a person in front of a
// dialog agent.

#include <gtest/gtest.h>
#include <poll.h>

#include <fstream>
#include <future>

#include "client/DialogAgent.h"
#include "devstore/AuthenticateEndpoint.h"
#include "platform/PropertyList/PropertyList.h"
#include "platform/VendBase/HSError.h"
#include "tests/integration/RunningService.h"

namespace tallow {
namespace {

constexpr const char* kUpdate = "/accounts/password-settings/update";
constexpr const char* kAuthenticate = "/accounts/authenticate";

class PasswordSettingsRoad : public testing::Test {
 protected:
  PasswordSettingsRoad() {
    service.describeClient("https", "may-show-dialogs = true\n");
    // A ping's cookies would make the bag invalid at some moment of the request.
    service.stage(R"({"ping": {"setCookie": []}})");
    // What the machine itself may not tell, as an administrator states it.
    const auto folder = service.systemConfig() / "preferences";
    std::filesystem::create_directories(folder);
    std::ofstream(folder / "com.vantor.tallowd.toml")
        << "MachineSerialNumber = \"S1\"\nMachineROMAddress = \"020000000001\"\n";
  }

  static std::unique_ptr<DialogAgent> startAgent(DialogAgent::Show show) {
    auto agent = DialogAgent::start("", std::move(show));
    EXPECT_TRUE(agent) << agent.error().localizedDescription();
    return std::move(*agent);
  }
  std::size_t received(const char* path) { return service.store().requests(path).size(); }

  RunningService service;
  const Dictionary change{{"purchases", "always"}};
};

TEST_F(PasswordSettingsRoad, APersonSignsInAndTheRequestIsSentAgain) {
  std::vector<std::string> passwords = {"wrong", devstore::AuthenticateEndpoint::kPassword};
  std::vector<std::string> explanations;
  const auto agent = startAgent([&](const DialogAgent::Dialog& dialog) {
    explanations.push_back(*dialog.contents["explanation"].string());
    return DialogAgent::Answer{0, "ada@example.com", Secret(passwords.at(explanations.size() - 1))};
  });
  const auto update = service.client().updatePasswordSettings(change);
  ASSERT_TRUE(update);
  EXPECT_TRUE(update->success) << (update->error ? description(*update->error) : "");
  ASSERT_EQ(explanations.size(), 2u);
  EXPECT_NE(explanations[1].find("wrong"), std::string::npos) << "the store's words";
  EXPECT_EQ(received(kUpdate), 2u);
  EXPECT_EQ(received(kAuthenticate), 2u);
  EXPECT_EQ((*service.client().passwordSettings()->settings)["purchases"], Value("always"));

  // Who has signed in is not asked again.
  EXPECT_TRUE(service.client().updatePasswordSettings(change)->success);
  EXPECT_EQ(explanations.size(), 2u);
}

TEST_F(PasswordSettingsRoad, WithoutAPersonTheStoresRefusalStands) {
  const auto refusal = [this] {
    const auto update = service.client().updatePasswordSettings(change);
    return update && update->error ? description(update->error->userInfo[kHSErrorTitleKey])
                                   : std::string("none");
  };
  EXPECT_EQ(refusal(), "Your password settings have not been changed.") << "no agent";
  std::promise<void> isShown;
  auto agent = startAgent([&](const DialogAgent::Dialog& dialog) {
    isShown.set_value();
    pollfd gone{dialog.goneFile, POLLIN, 0};
    poll(&gone, 1, -1);
    return DialogAgent::Answer();
  });
  auto waiting = std::async(std::launch::async, refusal);
  isShown.get_future().wait();
  // The dialog is open: nobody else waits, however many ask for what needs a place on the queue.
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(RunningService::connect()->passwordSettings()->settings);
  EXPECT_EQ(waiting.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  agent.reset();  // dies with the dialog open
  EXPECT_EQ(waiting.get(), "Your password settings have not been changed.");
}

TEST_F(PasswordSettingsRoad, LargeSettingsGoThroughAndNothingDumpsCore) {
  service.stage(R"({"updatePasswordSettings": {"signIn": "never"}})");
  const Dictionary large{{"text", std::string(1u << 20, 'x')},
                         {"data", Data("\x01\x02")},
                         {"list", Array{1, 0.5, true, Dictionary{{"a", Date{1e9}}}}}};
  EXPECT_TRUE(service.client().updatePasswordSettings(large)->success);
  const auto body = PropertyList::decode(service.store().requests(kUpdate).at(0).body);
  EXPECT_EQ((*body->dictionary())["passwordSettings"], Value(large));
  EXPECT_EQ((*body->dictionary())["serial-no"], Value("S1"));
  const auto read = service.client().passwordSettings();
  EXPECT_EQ((*read->settings)["text"], large["text"]);

  std::ifstream limits("/proc/" + std::to_string(service.pid()) + "/limits");
  std::string line;
  while (std::getline(limits, line) && !line.starts_with("Max core file size")) continue;
  EXPECT_NE(line.find(" 0 "), std::string::npos) << line;
}

}  // namespace
}  // namespace tallow
