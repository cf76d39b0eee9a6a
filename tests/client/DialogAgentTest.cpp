// The store's dialogs on their way from the service to a person and back, with the service's half
// and the agent's in one process and a real bus between them.

#include "client/DialogAgent.h"

#include <poll.h>

#include <future>

#include "platform/VendBase/HSDialogCenter.h"
#include "platform/VendBase/HSError.h"
#include "platform/XPC/PeerConnection.h"
#include "platform/XPC/RemoteDownloadService.h"
#include "tests/platform/XPC/ListenerFixture.h"

namespace tallow {
namespace {

constexpr const char* kDialogService = "com.vantor.HSDialogService";
constexpr const char* kNoSuchDialog = "com.vantor.Error.NoSuchDialog";
constexpr const char* kAccessDenied = "org.freedesktop.DBus.Error.AccessDenied";

class DialogAgentTest : public ListenerTest {
 protected:
  DialogAgentTest() { allowDialogs(); }
  // Before the centre goes: callers that leave ask for it.
  ~DialogAgentTest() override { listener->stop(); }

  void allowDialogs(bool allow = true) {
    recogniseThisProcess(std::string("identifier = \"com.example.self\"") +
                         (allow ? "\nmay-show-dialogs = true" : ""));
  }
  // Has a dialog shown; the future is what comes back.
  std::future<HSDialogAnswer> show(const Dictionary& contents) {
    auto promise = std::make_shared<std::promise<HSDialogAnswer>>();
    number =
        center.show(*HSDialog::fromProtocolValue(contents), "com.example.self",
                    [promise](HSDialogAnswer answer) { promise->set_value(std::move(answer)); });
    return promise->get_future();
  }
  static std::unique_ptr<DialogAgent> startAgent(DialogAgent::Show show) {
    auto agent = DialogAgent::start("", std::move(show));
    EXPECT_TRUE(agent) << agent.error().localizedDescription();
    return std::move(*agent);
  }
  // Says that it is shown, and waits, as a person would who does nothing, until nobody wants an
  // answer any more.
  DialogAgent::Answer waitUntilGone(const DialogAgent::Dialog& dialog) {
    isShown.set_value();
    pollfd gone{dialog.goneFile, POLLIN, 0};
    poll(&gone, 1, -1);
    return {};
  }
  static DialogAgent::Answer pressTheFirstButton(const DialogAgent::Dialog&) {
    return {0, {}, Secret()};
  }

  HSDialogCenter center;
  ScopedShared<HSDialogCenter> _shared{center};
  std::uint64_t number = 0;
  std::promise<void> isShown;
};

TEST_F(DialogAgentTest, CarriesADialogThereAndAnAnswerBack) {
  Dictionary shown;
  const auto agent = startAgent([&](const DialogAgent::Dialog& dialog) {
    shown = dialog.contents;
    return DialogAgent::Answer{0, "ada", Secret("hunter2 \xc3\xa9")};
  });
  const HSDialogAnswer answer =
      show({{"message", "Sign in\x1b[2J"}, {"signIn", Dictionary{{"accountName", "a"}}}}).get();
  EXPECT_EQ(answer.button, 0u);
  EXPECT_EQ(answer.accountName, "ada");
  EXPECT_EQ(answer.password.view(), "hunter2 \xc3\xa9");
  EXPECT_EQ(shown["message"], Value("Sign in[2J"));
  EXPECT_EQ((*shown["signIn"].dictionary())["accountName"], Value("a"));
  EXPECT_EQ(shown["buttons"].array()->count(), 2u);
  for (const auto& line : log.lines())
    EXPECT_EQ(line.text.find("hunter2"), std::string::npos) << line.text;
}

TEST_F(DialogAgentTest, OneDialogAfterTheOtherAndGoneWhenNobodyWaits) {
  int shown = 0;
  const auto agent = startAgent([&](const DialogAgent::Dialog& dialog) {
    return ++shown == 1 ? waitUntilGone(dialog) : pressTheFirstButton(dialog);
  });
  auto first = show({{"message", "1"}});
  const std::uint64_t firstNumber = number;
  auto second = show({{"message", "2"}});
  isShown.get_future().wait();
  EXPECT_EQ(second.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  center.withdraw(firstNumber);
  EXPECT_FALSE(first.get().button);
  EXPECT_EQ(second.get().button, 0u);
}

TEST_F(DialogAgentTest, RegistersWithAServiceThatIsStartedLater) {
  const auto agent = startAgent(pressTheFirstButton);
  listener->stop();
  EXPECT_EQ(center.agentCount(), 0u);
  listener = XPCListener::initWithMachServiceName(kServiceName, XPCListener::Bus::Session);
  listener->setDelegate(this);
  ASSERT_FALSE(listener->resume());
  while (center.agentCount() == 0) std::this_thread::yield();
  EXPECT_EQ(show({{"message", "m"}}).get().button, 0u);
}

TEST_F(DialogAgentTest, RefusesWhatAnAgentMustNotDo) {
  TestCaller caller;
  caller.connection().enterEventLoopAsync();  // refuses what it is asked to show
  const sdbus::ObjectPath path("/nobody/home");
  const auto answerDialog = [&](std::uint64_t to, const std::string& name,
                                std::string_view password = "p") {
    return caller
        .errorOn(kDialogService, "answerDialog", to, std::int32_t{0}, name,
                 WireSecret{Secret(password), {}})
        .first;
  };
  EXPECT_EQ(answerDialog(1, "n"), kNoSuchDialog) << "is no agent";
  caller.callOn<>(kDialogService, "registerDialogAgent", path);
  // An agent that shows nothing, because there is none at the path, dismisses.
  EXPECT_FALSE(show({{"message", "m"}}).get().button);
  EXPECT_EQ(answerDialog(number, "n"), kNoSuchDialog) << "is over";
  constexpr const char* kInvalid = "org.freedesktop.DBus.Error.InvalidArgs";
  EXPECT_EQ(answerDialog(1, std::string(2000, 'n')), kInvalid);
  EXPECT_EQ(answerDialog(1, "", std::string(5000, 'p')), kInvalid);
  // Another path replaces the agent; unregistering twice does no harm.
  caller.callOn<>(kDialogService, "registerDialogAgent", sdbus::ObjectPath("/other"));
  EXPECT_EQ(center.agentCount(), 1u);
  caller.callOn<>(kDialogService, "unregisterDialogAgent");
  caller.callOn<>(kDialogService, "unregisterDialogAgent");
  EXPECT_EQ(center.agentCount(), 0u);

  allowDialogs(false);
  TestCaller other;
  EXPECT_EQ(other.errorOn(kDialogService, "registerDialogAgent", path).first, kAccessDenied);
}

TEST_F(DialogAgentTest, OnlyTheServiceHasDialogsShown) {
  const auto agent = startAgent([](const DialogAgent::Dialog&) {
    ADD_FAILURE() << "a stranger's dialog";
    return DialogAgent::Answer();
  });
  // The agent's own name is not known here; a stranger can find it by trying.
  TestCaller stranger;
  const auto bus = bus::makeProxy(stranger.connection(), "org.freedesktop.DBus", "/");
  std::vector<std::string> names;
  bus->callMethod("ListNames").onInterface("org.freedesktop.DBus").storeResultsTo(names);
  int refused = 0;
  for (const std::string& name : names) {
    if (!name.starts_with(':') || name == stranger.connection().getUniqueName()) continue;
    const auto proxy =
        bus::makeProxy(stranger.connection(), name, "/com/vantor/tallowd/client/dialogs");
    try {
      proxy->callMethod("showDialog")
          .onInterface("com.vantor.HSDialogAgent")
          .withArguments(std::uint64_t{1},
                         wire::dictionary({{"message", "Your password, please"}}));
    } catch (const sdbus::Error& error) {
      refused += error.getName() == kAccessDenied ? 1 : 0;
    }
  }
  EXPECT_EQ(refused, 1);
}

// A peer that is not there is told at once, whatever happens to the bus.
TEST_F(DialogAgentTest, AnAbsentPeerIsAnError) {
  const auto check = [this] {
    std::promise<std::optional<Error>> promise;
    RemoteDownloadService(accepted(0).storeClient)
        .checkAutomaticDownloadQueue(
            [&](std::optional<Error> e) { promise.set_value(std::move(e)); });
    return promise.get_future().get();
  };
  TestCaller().call<bool>("isValid");
  EXPECT_EQ(check()->code, kHSErrorServiceUnavailable);
  listener->stop();
  EXPECT_EQ(check()->code, kHSErrorServiceUnavailable);
}

}  // namespace
}  // namespace tallow
