#include "src/AccountService/ServiceStatus.h"

#include <gmock/gmock.h>

#include "platform/Base/Activity.h"
#include "platform/PropertyList/JSON.h"
#include "platform/VendBase/HSError.h"
#include "platform/VendBase/JournalLogSink.h"
#include "platform/VendBase/RecentFailures.h"
#include "platform/XPC/XPCTransaction.h"
#include "tests/support/ServiceWorld.h"

namespace tallow {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

Error httpError(HTTPTransport::ErrorCode code, const char* text = "") {
  return makeError(HTTPTransport::kErrorDomain, code, text);
}
Error statusError(int status) {
  Error error = HSError(kHSErrorHTTPStatus, std::nullopt, "no");
  error.userInfo = error.userInfo.setting(kHSErrorStatusKey, status);
  return error;
}

class ServiceStatusTest : public ServiceTest {
 protected:
  static Dictionary status() { return serviceStatus(false, 0); }
  static Dictionary row(const Dictionary& status, const char* list, std::size_t index = 0) {
    const Array* const rows = status[list].array();
    const bool isThere = rows != nullptr && index < rows->count();
    return isThere && (*rows)[index].dictionary() != nullptr ? *(*rows)[index].dictionary()
                                                             : Dictionary();
  }

  RecentFailures failures;
  ScopedShared<RecentFailures> sharedFailures{failures};
};

TEST_F(ServiceStatusTest, TellsWhatTheServiceHoldsAndNoSecret) {
  world.serve({{"a", "x"}});
  world.clock.advance(90);
  bag()->valueForKey("a");
  CookieStorage::storageForClient(client)->consumeCookiesWithHTTPHeaders(
      Dictionary{{"Set-Cookie", "session=cookiesecret; Max-Age=60"}},
      URL::parse("https://bag.example.com/"));
  const auto store = AccountStore::accountStoreForClient(client);
  store->addAccountWithAuthenticationResponse(
      HSAuthenticationResponse({{"dsid", 7}, {"identifier", "somebody"}, {"token", "tokensecret"}}),
      true);
  const Dictionary told = status();
  EXPECT_EQ(told["instance"], "agent");
  EXPECT_EQ(told["uptimeSeconds"], 90);
  EXPECT_EQ(row(told, "bags")["source"], "https://bag.example.com/bag");
  EXPECT_EQ(row(told, "bags")["kept"], false);
  EXPECT_EQ(row(told, "jars")["cookies"], 1);
  EXPECT_EQ(row(told, "accounts")["dsid"], 7);
  EXPECT_EQ(row(told, "accounts")["token"], "valid");
  EXPECT_EQ(told["transactions"], XPCTransaction::count());
  EXPECT_THAT(JSON::encode(told), AllOf(Not(HasSubstr("secret")), Not(HasSubstr("somebody"))));

  world.clock.advance(HSStoreAccount::kStrongTokenSeconds);
  EXPECT_EQ(row(status(), "accounts")["token"], "expired");
  // After a restart the bag is the copy that was kept.
  world.clock.advance(-HSStoreAccount::kStrongTokenSeconds);
  ServiceWorld::settle();
  ServiceWorld::forgetControllers();
  BagController::bagControllerForClient(client);
  EXPECT_EQ(row(status(), "bags")["kept"], true);
  EXPECT_EQ(row(status(), "bags")["source"], "https://bag.example.com/bag");
}

TEST_F(ServiceStatusTest, TellsWhoseCallFailedAndWhatToDo) {
  world.transport.setHandler(ScriptedTransport::fail(HTTPTransport::kCannotConnect));
  SerialQueue queue("busy");
  {
    // As a call on the bus comes in, and hops.
    const Activity::Scope scope("com.example.caller", "valueForURLBagKey");
    queue.async([&] {
      bag()->valueForKey("a");
      bag()->valueForKey("a");
      EXPECT_GE(SerialQueue::busyQueues().at("busy"), 1u);
    });
  }
  queue.sync([] {});
  EXPECT_EQ(Activity::current(), nullptr);
  EXPECT_EQ(SerialQueue::busyQueues().count("busy"), 0u);
  const Dictionary told = row(status(), "failures");
  EXPECT_EQ(told["kind"], "offline");
  EXPECT_EQ(told["times"], 2);
  EXPECT_EQ(told["client"], "com.example.caller");
  EXPECT_EQ(told["operation"], "valueForURLBagKey");
  EXPECT_EQ(told["code"], int{HTTPTransport::kCannotConnect});
  EXPECT_THAT(*told["advice"].string(), HasSubstr("network"));
}

TEST_F(ServiceStatusTest, LongTextsAndManyEntriesOfFailuresAreCut) {
  RecentFailures::shared().note(makeError("com.example.peer", 1, std::string(1u << 20, 'x')));
  std::vector<Dictionary::Entry> entries{{Error::kLocalizedDescriptionKey, "what people read"}};
  for (int number = 0; number < 100'000; ++number)
    entries.push_back({"a" + std::to_string(number), number});
  RecentFailures::shared().note({"com.example.peer", 2, Dictionary(std::move(entries))});
  const std::string told = JSON::encode(status());
  EXPECT_LT(told.size(), 8192u);
  EXPECT_THAT(told, HasSubstr("what people read"));
}

TEST_F(ServiceStatusTest, KindsOfFailureAreToldApart) {
  const std::vector<std::pair<Error, const char*>> cases{
      {httpError(HTTPTransport::kTimedOut), "offline"},
      {statusError(503), "offline"},
      {HSError(kHSErrorServiceUnavailable, std::nullopt, "gone"), "offline"},
      {statusError(403), "locked out"},
      {statusError(429), "locked out"},
      {makeError("org.freedesktop.DBus.Error.AccessDenied", -1, "who?"), "locked out"},
      {HSError(kHSErrorNotSignedIn, std::nullopt, "who?"), "expired"},
      {httpError(HTTPTransport::kTLS, "SSL problem: certificate has expired"), "expired"},
      {HSError(kHSErrorBagNotSigned, std::nullopt, "certificate is not yet valid (certificate 0)"),
       "expired"},
      {HSError(kHSErrorBagNotSigned, std::nullopt, "self-signed certificate"), "refused"},
      {httpError(HTTPTransport::kTLS, "self-signed certificate"), "refused"},
      {HSError(kHSErrorNotTrusted, std::nullopt, "no"), "refused"},
      {HSError(kHSErrorSignInRefused, std::nullopt, "no"), "refused"},
      {statusError(404), "failed"},
      {makeError("File", 28, "full"), "failed"},
  };
  for (const auto& [error, kind] : cases)
    EXPECT_STREQ(nameOf(failureKindOf(error)), kind) << description(error);

  failures.note(HSError(kHSErrorCancelled, std::nullopt, "not a failure"));
  EXPECT_TRUE(failures.list().empty());
  for (int code = 0; code < 40; ++code) failures.note(makeError("Many", code, "x"), "client");
  EXPECT_EQ(failures.list().size(), RecentFailures::kMost);
  EXPECT_EQ(failures.list().front().error.code, 39);

  const auto lines = [&] { return world.log.lines(2).size(); };
  const std::size_t before = lines();
  for (int i = 0; i < 100; ++i) failures.note(makeError("Who", 1, i % 2 == 0 ? "a" : "b"));
  EXPECT_EQ(failures.list()[1].times, 50u);
  EXPECT_EQ(lines(), before + 2) << "a repetition is logged once a minute";
  world.clock.advance(60);
  failures.note(makeError("Who", 1, "a"));
  EXPECT_EQ(lines(), before + 3);
}

// What is sent to the journal beside the text of a line.
class FieldSink final : public VBLogManager::Sink {
 public:
  void write(const VBLogManager::Line& line) override { fields = JournalLogSink::fieldsOf(line); }
  void writePropertyList(int, std::string_view, const Value&) override {}
  void writeEvent(std::string_view, const Dictionary&) override {}
  std::vector<std::string> fields;
};

TEST_F(ServiceStatusTest, JournalEntriesNameClientOperationAndError) {
  const auto sink = std::make_shared<FieldSink>();
  const auto previous = VBLogManager::sharedManager().setSink(sink);
  {
    const Activity::Scope scope("com.example.caller", "signOut");
    logLevel(1, "%@: %@", "Test", std::optional(makeError("File", 28, "full\nX=forged")));
  }
  EXPECT_THAT(
      sink->fields,
      AllOf(Contains("TALLOW_CLIENT=com.example.caller"), Contains("TALLOW_OPERATION=signOut"),
            Contains("TALLOW_ERROR_DOMAIN=File"), Contains("TALLOW_ERROR_CODE=28"),
            Contains("PRIORITY=3"), Contains("TALLOW_LEVEL=1")));
  logLevel(1, "%@: nobody's", "Test");
  EXPECT_THAT(sink->fields, Not(Contains(HasSubstr("TALLOW_CLIENT"))));
  EXPECT_THAT(sink->fields, Not(Contains(HasSubstr("TALLOW_ERROR"))));
  VBLogManager::sharedManager().setSink(previous);
}

}  // namespace
}  // namespace tallow
