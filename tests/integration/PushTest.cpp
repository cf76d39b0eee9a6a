#include <gtest/gtest.h>

#include "platform/PropertyList/PropertyList.h"
#include "tests/integration/RunningService.h"
#include "tests/support/NotificationDaemon.h"

namespace tallow {
namespace {

// A service whose client wants both kinds of media, on a device that has just been set up.
class Push : public ::testing::Test {
 protected:
  static constexpr const char* kDownloads = "/peers/downloads/checkAutomaticDownloadQueue";
  static constexpr const char* kPermission =
      "/peers/purchase-permission/didReceiveStorePushNotificationWithPayload";

  Push() {
    service.describeClient("https", "media-types = [\"mac-software\", \"ebook\"]\n");
    service.reconnect();
    EXPECT_FALSE(service.client().completeSetupWithResponse(
        {{"dsid", "123"}, {"account-active", true}, {"email", "a@example.com"}}));
  }
  void deliver(std::int64_t dsID, std::int64_t kind) {
    EXPECT_FALSE(service.client().handlePushNotificationMessage({{"0", dsID}, {"1", kind}}));
  }
  std::size_t received(const char* path) const { return service.store().requests(path).size(); }
  Dictionary lastBody(const char* path) const {
    const auto list = PropertyList::decode(service.store().requests(path).back().body);
    return *list->dictionary();
  }

  mutable RunningService service;
};

TEST_F(Push, TheTokenIsAnnouncedOnceAndMediaTypesFollow) {
  AccountServiceClient& client = service.client();
  EXPECT_FALSE(client.registerDeviceTokenForEnvironmentNamed("production"));
  EXPECT_EQ(lastBody("/push/register-success")["token"],
            Value(Data("development token for production")));
  EXPECT_FALSE(client.enableAutoDownloadForEnvironmentNamed("production"));
  EXPECT_EQ(received("/push/register-success"), 1u);
  EXPECT_EQ(lastBody("/push/register-media-types")["media-types"],
            Value(Array{"mac-software", "ebook"}));
  EXPECT_EQ(client.getEnabledMediaTypes()->mask, 3);
  EXPECT_TRUE(*client.isRegisteredForAccount(123, 3));
  service.kill();
  EXPECT_FALSE(*client.isRegisteredForAccount(123, 3)) << "known in memory only";
  EXPECT_FALSE(client.enableAutoDownloadForEnvironmentNamed("production"));
  EXPECT_EQ(received("/push/register-success"), 1u) << "the record outlives the process";
  EXPECT_FALSE(client.disableAutoDownload());
  EXPECT_EQ(client.getEnabledMediaTypes()->mask, 0);
}

TEST_F(Push, PushesReachWhomTheyAreFor) {
  deliver(123, 2);  // nobody has a token yet
  ASSERT_TRUE(service.client().addAccountWithAuthenticationResponse(
      {{"dsPersonId", "123"}, {"token", "t"}}, true));
  deliver(124, 2);
  deliver(123, 2);
  ASSERT_TRUE(service.store().waitForRequests(kDownloads, 1));
  EXPECT_EQ(lastBody(kDownloads)["client"], Value(RunningService::kClient));
  deliver(0, 7);
  ASSERT_TRUE(service.store().waitForRequests(kPermission, 1));
  EXPECT_EQ(lastBody(kPermission)["payload"], Value(Dictionary{{"0", 0}, {"1", 7}}));
  deliver(123, 4);  // without a desktop
  deliver(123, 99);
  EXPECT_EQ(received(kDownloads), 1u);

  // What no push agent would send.
  std::vector<Value> nested = {1};
  for (int i = 0; i < 20; ++i) nested = {Array(nested)};
  for (const Value& odd :
       {Value("2"), Value(-1), Value(1e308), Value(Array(nested)), Value(Date{0})})
    EXPECT_FALSE(service.client().handlePushNotificationMessage({{"0", odd}, {"1", odd}}));
  EXPECT_FALSE(service.client().handlePushNotificationMessage({}));
  EXPECT_TRUE(service.client().storeFront()) << "the service is well";
}

TEST_F(Push, ThePersonAtTheDesktopTurnsDownloadsOn) {
  const NotificationDaemon desktop(service.bus());
  deliver(123, 4);
  EXPECT_TRUE(desktop.showsSomething());
  const std::string offered = desktop.choose("Turn On (Automatic Downloads)");
  EXPECT_NE(offered.find("#Not Now (Automatic Downloads)"), std::string::npos) << offered;
  ASSERT_TRUE(service.store().waitForRequests("/push/register-media-types", 1));
  EXPECT_EQ(lastBody("/push/register-media-types")["media-types"],
            Value(Array{"mac-software", "ebook"}));
}

}  // namespace
}  // namespace tallow
