#include "platform/Notifications/UserNotificationCenter.h"

#include <gtest/gtest.h>

#include "platform/XPC/PeerConnection.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Heard.h"
#include "tests/support/NotificationDaemon.h"

namespace tallow {
namespace {

class Delegate final : public UserNotificationCenterDelegate {
 public:
  void userNotificationCenterDidDeliverNotification(UserNotificationCenter&,
                                                    const UserNotification& shown) override {
    heard.note("delivered " + shown.title);
  }
  void userNotificationCenterDidActivateNotification(UserNotificationCenter&,
                                                     const UserNotification& shown) override {
    heard.note("activated " + shown.title + " of " + description(shown.userInfo["Source"]));
  }
  void userNotificationCenterDidDismissAlert(UserNotificationCenter&,
                                             const UserNotification& shown) override {
    heard.note("dismissed " + shown.title);
  }
  bool userNotificationCenterShouldPresentNotification(UserNotificationCenter&,
                                                       const UserNotification& shown) override {
    return shown.title == "urgent";
  }

  Heard<std::string> heard;
};

class UserNotificationCenterTest : public ::testing::Test {
 protected:
  UserNotificationCenterTest() {
    connection->start(nullptr);
    PeerConnection::setBus(connection);
    UserNotificationCenter::setDelegateProvider("com.example.app", [this] { return delegate; });
  }
  ~UserNotificationCenterTest() override {
    UserNotificationCenter::setDelegateProvider("com.example.app", nullptr);
    PeerConnection::setBus(nullptr);
    connection->stop();
  }
  void post(const std::string& title) const {
    UserNotificationCenter::_centerForIdentifier("com.example.app", 1)
        ->deliverNotification({Dictionary{{"Source", "Test"}, {"n", 1}}, title,
                               "a <b>text</b> & more", "Do it", "Leave it"});
  }

  CapturedLog log;
  PrivateBus bus;
  std::shared_ptr<BusConnection> connection = *BusConnection::open(BusConnection::Bus::Session);
  std::shared_ptr<Delegate> delegate = std::make_shared<Delegate>();
};

TEST_F(UserNotificationCenterTest, ARealDaemonShowsItAndBringsBackWhatThePersonDoes) {
  NotificationDaemon desktop(bus);
  EXPECT_EQ(desktop.colours(), 1) << "an empty screen";
  post("first");
  EXPECT_EQ(delegate->heard.next(), "delivered first");
  EXPECT_TRUE(desktop.showsSomething()) << "in a picture of the screen";
  const std::string menu = desktop.choose("Do it (first)");
  EXPECT_NE(menu.find("#Do it (first)"), std::string::npos) << menu;
  EXPECT_NE(menu.find("#Leave it (first)"), std::string::npos) << menu;
  EXPECT_EQ(delegate->heard.next(), "activated first of Test");

  post("second");
  EXPECT_EQ(delegate->heard.next(), "delivered second");
  desktop.choose("Leave it (second)");
  EXPECT_EQ(delegate->heard.next(), "dismissed second");
  post("urgent");
  EXPECT_EQ(delegate->heard.next(), "delivered urgent");
  NotificationDaemon::close();
  EXPECT_EQ(delegate->heard.next(), "dismissed urgent");
  const std::string history = NotificationDaemon::history();
  for (const char* part :
       {"\"urgent\"", "\"a<b>text</b>&more\"", "\"com.example.app\"",
        "\"timeout\":{\"type\":\"x\",\"data\":0}",  // of the urgent one: it does not go by itself
        "\"timeout\":{\"type\":\"x\",\"data\":600000000}"})
    EXPECT_NE(history.find(part), std::string::npos) << part << " in " << history;
  EXPECT_TRUE(delegate->heard.hasNothingMore()) << "each once";
}

TEST_F(UserNotificationCenterTest, WithoutADaemonThePostingIsLogged) {
  post("nobody");
  EXPECT_TRUE(log.waitFor(
      1,
      "UserNotificationCenter: cannot show <UserNotification \"nobody\" {\"Source\" = \"Test\"; "
      "\"n\" = 1}>: The desktop's notification service is not available (HSErrorDomain error "
      "106)"));
  EXPECT_TRUE(delegate->heard.hasNothingMore());
}

// A daemon that reuses numbers after a restart, and keys that are not this notification's.
TEST_F(UserNotificationCenterTest, NumbersAreGoodOnlyWithTheDaemonThatGaveThem) {
  {
    NotificationDaemon desktop(bus);
    post("first");
    EXPECT_EQ(delegate->heard.next(), "delivered first");
  }
  NotificationDaemon another(bus);
  EXPECT_EQ(0,
            std::system(("dbus-send --bus=" + bus.address() +
                         " --type=signal /org/freedesktop/Notifications "
                         "org.freedesktop.Notifications.ActionInvoked uint32:1 string:action:Test")
                            .c_str()));  // of a stranger
  post("second");
  EXPECT_EQ(delegate->heard.next(), "delivered second");
  another.choose("Do it (second)");
  EXPECT_EQ(delegate->heard.next(), "activated second of Test");
}

}  // namespace
}  // namespace tallow
