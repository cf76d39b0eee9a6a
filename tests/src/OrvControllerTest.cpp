#include "src/OrvController.h"

#include <future>

#include "platform/Base/Base64.h"
#include "platform/VendBase/HSError.h"
#include "src/OrvExchange.h"
#include "tests/support/AnswerOf.h"
#include "tests/support/FakeOrv.h"
#include "tests/support/ServiceWorld.h"

namespace tallow {
namespace {

using Calls = std::vector<std::string>;

const Dictionary kProvision{{"x-vantor-md-action", "SP"}, {"x-vantor-md-data", "ZGF0YQ=="}};

class OrvControllerTest : public ServiceTest {
 protected:
  OrvControllerTest() { serve(Dictionary()); }
  ~OrvControllerTest() override {
    ServiceWorld::settle();
    EXPECT_EQ(fake.buffers, 0) << "every buffer is given back";
    EXPECT_EQ(fake.sessions, 0) << "every session is ended";
  }

  // The bag, and `answer` to every exchange; data is the bare body.
  void serve(const Value& answer, int status = 200) {
    const Data body = answer.data() != nullptr
                          ? *answer.data()
                          : PropertyList::encode(answer, PropertyList::Format::XML);
    world.serveBag({{"trustedDomains", Array{"example.com"}},
                    {"amd-domains", Array{"store.example.com"}},
                    {"buyProduct", "https://store.example.com/buy"},
                    {"md-finish-provisioning", "https://store.example.com/md-provision"},
                    {"amd-finish-provisioning", "https://store.example.com/amd-provision"},
                    {"md-sync-machine", "https://store.example.com/md-sync"},
                    {"amd-sync-machine", "https://store.example.com/amd-sync"}},
                   [=](const HTTPRequest& request) {
                     return ScriptedTransport::response(request, status, {}, body.view());
                   });
  }
  void process(const Dictionary& headers) {
    orv.processHTTPHeaders(headers, client);
    orv.httpRequestHeadersForDSID(std::nullopt);  // waits behind it
  }
  // What went to the store in an exchange: the last one.
  HTTPRequest exchange() const {
    HTTPRequest last = world.transport.requests().back();
    EXPECT_EQ(last.method, "POST");
    return last;
  }
  Dictionary exchangedBody() const { return *PropertyList::decode(exchange().body)->dictionary(); }
  void signIn(std::uint64_t dsID) {
    const auto account = std::make_shared<HSStoreAccount>();
    account->setDsID(dsID);
    AccountStore::accountStoreForClient(client)->makeAccountPrimary(account);
  }

  FakeOrv fake;
  ScopedShared<OrvLibrary> sharedLibrary{fake.library()};
  OrvController orv;
};

TEST_F(OrvControllerTest, HeadersSayWhatTheLibrarySays) {
  const std::string identifier = base64Encode(Data("machine"));
  const std::string password = base64Encode(Data("password"));
  EXPECT_EQ(orv.httpRequestHeadersForDSID(std::nullopt), std::nullopt);
  const std::uint64_t seven[] = {7};
  EXPECT_EQ(orv.httpRequestHeadersForDSIDsIfIdle(seven), std::nullopt) << "not before it is open";
  EXPECT_EQ(orv.httpRequestHeadersForDSID(7),
            (Dictionary{{"X-Vantor-MD-M", identifier}, {"X-Vantor-MD", password}}));
  EXPECT_EQ(orv.httpRequestHeadersForDSIDsIfIdle(seven)->at(0), orv.httpRequestHeadersForDSID(7));
  fake.isAtHand = false;
  EXPECT_EQ(orv.httpRequestHeadersForDSIDsIfIdle(seven), std::nullopt);
  EXPECT_EQ(orv.httpRequestHeaders(),
            (Dictionary{{"X-Vantor-AMD-M", identifier}, {"X-Vantor-AMD", password}}));
  EXPECT_EQ(orv.httpRequestHeaders(), orv.httpRequestHeadersForDSID(18446744073709551615u));
  fake.password.isNull = true;
  EXPECT_EQ(orv.httpRequestHeadersForDSID(7), (Dictionary{{"X-Vantor-MD-M", identifier}}));
  for (const auto& [status, line] :
       {std::pair<int, const char*>{-45061, "Orv: Account is not provisioned, omitting OTP and MD"},
        {-5, "Orv: OTP Request failed with error -5"}}) {
    fake.passwordStatus = status;
    EXPECT_EQ(orv.httpRequestHeadersForDSID(7), Dictionary());
    EXPECT_TRUE(world.log.contains(1, line));
    orv.setSyncState(Data("state"));
    EXPECT_EQ(orv.httpRequestHeadersForDSID(7), (Dictionary{{"X-Vantor-MD-S", "c3RhdGU="}}));
    orv.setSyncState(std::nullopt);
  }
  EXPECT_TRUE(world.log.contains(
      1, "Orv: httpRequestHeaders sending X-Vantor-MD-S as syncState data is present"));
  EXPECT_TRUE(world.log.contains(1, "Orv: Account is provisioned, using OTP and MD from Orv"));
}

TEST_F(OrvControllerTest, ActionsAreReadByExactKeysAndFailuresAreReported) {
  signIn(7);
  fake.resetStatus = fake.startStatus = fake.syncStatus = -9;
  fake.opensSession = false;
  // The one call of the library, which fails, and the event that tells of it; or neither.
  const auto check = [&](const Dictionary& headers, const std::string& call,
                         const std::string& event) {
    SCOPED_TRACE(description(headers).substr(0, 200));
    fake.calls.clear();
    world.log.clear();
    process(headers);
    EXPECT_EQ(fake.calls, call.empty() ? Calls() : Calls{call});
    const auto events = world.log.events();
    ASSERT_EQ(events.size(), fake.calls.size());
    if (call.empty()) return;
    EXPECT_EQ(events[0].first, "com.vantor.Quillon.orv." + event);
    EXPECT_EQ(events[0].second, (Dictionary{{"result", "fail"}, {"error_code", -9}}));
    EXPECT_EQ(world.log.lines(1).empty(), call.starts_with("reset")) << "nothing of a reset";
  };
  const Dictionary reset{{"x-vantor-md-action", "RP"}}, start{{"x-vantor-md-action", "SP"}};
  check(reset, "reset 7", "restart_provisioning");
  check(reset.setting("x-vantor-amd-action", "SP"), "reset 7", "restart_provisioning");
  check({{"x-vantor-amd-action", "RP"}}, "reset 18446744073709551615", "restart_provisioning");
  for (const Dictionary& none :
       {Dictionary(), Dictionary{{"X-Vantor-MD-Action", "RP"}},
        Dictionary{{"x-vantor-md-action", "rp"}},
        Dictionary{{"x-vantor-md-action", Array{"RP", "RP"}}},
        Dictionary{{"x-vantor-md-data", "AAAA"}, {"x-vantor-amd-action", "RP"}}})
    check(none, "", "");
  check(start, "start 7 none", "start_provisioning");
  for (const char* data : {"", "not base64"})
    check(start.setting("x-vantor-md-data", data), "start 7 none", "start_provisioning");
  check(start.setting("x-vantor-md-data", "ZGF0YQ=="), "start 7 [data]", "start_provisioning");
  check({{"x-vantor-amd-action", "SM"}, {"x-vantor-amd-data", "ZGF0YQ=="}},
        "sync 18446744073709551615 [data]", "synchronize");
  const std::string megabyte(1u << 20, 'x');
  check({{"x-vantor-md-action", "SM"}, {"x-vantor-md-data", base64Encode(Data(megabyte))}},
        "sync 7 [" + megabyte + "]", "synchronize");
  EXPECT_TRUE(world.transport.requests().empty()) << "nothing to tell the store";
  EXPECT_TRUE(world.log.contains(1, "OrvController: Starting machine sync"));
  EXPECT_TRUE(world.log.mentions(1, "OrvController: Machine sync failed with error"));
  EXPECT_TRUE(world.log.mentions(3, "Orv: {\"x-vantor-md-action\" = \"SM\""));
}

TEST_F(OrvControllerTest, ProvisioningTellsTheStoreAndTheLibrary) {
  serve(Dictionary{{"settingInfo", base64Encode(Data("info"))},
                   {"transportKey", base64Encode(Data("key"))}});
  process(kProvision);
  EXPECT_EQ(fake.calls, (Calls{"start 0 [data]", "finish 77 [info] [key]", "end 77"}));
  EXPECT_EQ(exchange().url.absoluteString(), "https://store.example.com/md-provision");
  EXPECT_EQ(exchangedBody()["clientData"], Value(base64Encode(Data("client data"))));
  EXPECT_TRUE(exchangedBody()["dsId"].isNil()) << "nobody is signed in";
  EXPECT_TRUE(exchange().body.view().starts_with("<?xml"));
  for (const auto& [name, value] : exchange().headers) {
    EXPECT_TRUE(name != "Content-Type" || value == "application/x-vantor-plist") << value;
    EXPECT_EQ(name.find("MD"), std::string::npos) << "no identity in the exchange itself";
  }
  EXPECT_EQ(world.log.count(1, "OrvController: Provisioning completed successfully"), 1u);

  signIn(7);
  fake.calls.clear();
  serve(Dictionary{{"settingInfo", 12}});
  process(kProvision);
  EXPECT_EQ(fake.calls, (Calls{"start 7 [data]", "finish 77 none none", "end 77"}));
  EXPECT_EQ(exchangedBody()["dsId"], Value(7));
  process({{"x-vantor-amd-action", "SP"}});
  EXPECT_EQ(exchange().url.absoluteString(), "https://store.example.com/amd-provision");
  EXPECT_EQ(exchangedBody()["dsId"], Value(18446744073709551615u));
  EXPECT_TRUE(world.log.events().empty());
}

TEST_F(OrvControllerTest, AFailedProvisioningEndsItsSessionLastAndSaysWhy) {
  const auto check = [&](const Value& answer, int status, std::int64_t code,
                         const Calls& calls = {"start 0 [data]", "end 77"}) {
    SCOPED_TRACE(code);
    serve(answer, status);
    fake.calls.clear();
    world.log.clear();
    process(kProvision);
    EXPECT_EQ(fake.calls, calls);
    ASSERT_EQ(world.log.events().size(), 1u);
    EXPECT_EQ(world.log.events()[0].second["error_code"], Value(code));
  };
  check(Dictionary{{"failureType", 5002}, {"customerMessage", "No"}}, 200, 5002);
  check(Dictionary{{"failureType", "5003"}}, 200, 5003);
  check(Dictionary{{"failureType", Array()}}, 200, 0);
  check(Dictionary(), 503, kHSErrorHTTPStatus);
  check(Data("<html>"), 200, kHSErrorInvalidPropertyList);
  fake.finishStatus = -12;
  for (const Value& answer : {Value(Dictionary()), Value(Array{"no", "dictionary"})})
    check(answer, 200, -12, {"start 0 [data]", "finish 77 none none", "end 77"});
}

TEST_F(OrvControllerTest, ASyncBringsItsStateAndAFailedOneTakesItAway) {
  const Dictionary order = {{"x-vantor-amd-action", "SM"}, {"x-vantor-amd-data", "ZGF0YQ=="}};
  serve(Dictionary{{"syncState", "c3RhdGU="}});
  process(order);
  EXPECT_EQ(orv.syncState(), Data("state"));
  EXPECT_EQ(exchange().url.absoluteString(), "https://store.example.com/amd-sync");
  EXPECT_EQ(exchangedBody(), (Dictionary{{"clientData", base64Encode(Data("client data"))},
                                         {"machineId", base64Encode(Data("machine"))},
                                         {"dsId", 18446744073709551615u}}));
  EXPECT_TRUE(world.log.contains(
      1,
      "OrvController: Machine sync operation returned syncState data, this will be appended to Orv "
      "headers in future"));
  serve(Dictionary{{"failureType", 1}, {"syncState", "bmV3"}});
  process(order);
  EXPECT_EQ(orv.syncState(), Data("new")) << "kept although the store states a failure";
  EXPECT_EQ(world.log.events().size(), 1u);
  for (const Value& answer : {Value(Dictionary{{"failureType", 1}}), Value(Dictionary()),
                              Value(Dictionary{{"syncState", "not base64"}})}) {
    orv.setSyncState(Data("old"));
    serve(answer);
    process(order);
    EXPECT_EQ(orv.syncState(), std::nullopt);
  }
  fake.clientData.isNull = fake.machineIdentifier.isNull = true;
  serve(Dictionary{{"syncState", base64Encode(Data(std::string(100'000, 'x')))}});
  process(order);
  EXPECT_EQ(exchangedBody()["clientData"], Value(""));
  EXPECT_EQ(exchangedBody()["machineId"], Value(""));
  EXPECT_EQ(orv.syncState(), std::nullopt) << "too long to be sent with every request";
  orv.setSyncState(Data("old"));
  fake.syncStatus = -45061;
  process(order);
  EXPECT_EQ(orv.syncState(), std::nullopt);
  EXPECT_EQ(world.log.count(1,
                            "OrvController: Machine sync operation did not return syncState data, "
                            "clearing cached syncState"),
            4u);
}

// What would never end or take too long: an order in the answer to an order, an address at which
// anybody could answer, and a store that takes its time over each of ten orders.
TEST_F(OrvControllerTest, AnExchangeEndsAndSoDoWhatWaitsBehindOne) {
  const auto answers = [this](const std::string& scheme, const ScriptedTransport::Answer& answer) {
    world.serveBag({{"trustedDomains", Array{"example.com"}},
                    {"md-finish-provisioning", scheme + "://store.example.com/provision"}},
                   answer);
    ServiceWorld::forgetControllers();
    std::filesystem::remove_all(world.directory.path());
    world.log.clear();
    fake.calls.clear();
  };
  const auto exchanges = [this] {
    int count = 0;
    for (const HTTPRequest& request : world.transport.requests()) count += request.method == "POST";
    return count;
  };
  answers("https", [](const HTTPRequest& request) {
    return ServiceWorld::listed(request, Dictionary(),
                                {{"x-vantor-md-action", "SP"}, {"x-vantor-md-data", "AAAA"}});
  });
  process(kProvision);
  ServiceWorld::settle();
  EXPECT_EQ(exchanges(), 1);

  answers("http",
          [](const HTTPRequest& request) { return ScriptedTransport::response(request, 200); });
  process(kProvision);
  EXPECT_EQ(exchanges(), 1) << "nothing is sent";
  EXPECT_EQ(fake.calls, (Calls{"start 0 [data]", "end 77"}));

  answers("https", [this](const HTTPRequest& request) {
    world.clock.advance(19);  // just in time, each time
    return ScriptedTransport::response(request, 503);
  });
  world.transport.hold();
  for (int i = 0; i < 10; ++i) orv.processHTTPHeaders(kProvision, client);
  orv.processHTTPHeaders({{"x-vantor-md-action", "RP"}}, client);
  world.transport.release();
  process(kProvision);
  EXPECT_EQ(std::count(fake.calls.begin(), fake.calls.end(), "end 77"), 4);
  EXPECT_EQ(std::count(fake.calls.begin(), fake.calls.end(), "reset 0"), 1);
  EXPECT_TRUE(world.log.mentions(1, "Orv: Dropping action SP: it has waited too long"));
}

// A store that does not answer an exchange holds up nobody but those who need this machine's
// identity; and actions that keep coming are bounded.
TEST_F(OrvControllerTest, AnExchangeHoldsUpOnlyWhoNeedsIdentity) {
  OrvController& shared = OrvController::sharedController();
  const auto mine = std::make_shared<AccountServiceInterface>(client);
  const auto other = std::make_shared<AccountServiceInterface>(client);
  const auto headers = [](AccountServiceInterface& interface, const char* url) {
    auto given = std::make_shared<std::promise<Dictionary>>();
    interface.httpHeadersForURL(URL::parse(url), 7, true,
                                [given](const Dictionary& answer) { given->set_value(answer); });
    return given->get_future();
  };
  headers(*mine, "https://www.example.com/").get();  // the bag is there
  ServiceWorld::settle();
  const std::size_t before = world.transport.requests().size();
  world.transport.hold();
  for (int i = 0; i < 2 * OrvController::kMostWaitingActions; ++i)
    shared.processHTTPHeaders(kProvision, client);
  world.transport.waitForRequests(before + 1);
  auto waiting = headers(*mine, "https://store.example.com/buy");
  EXPECT_TRUE(headers(*other, "https://www.example.com/").get().empty());
  EXPECT_TRUE(answerOf(*other, &HSAccountService::needsSilentOrvActionForURL,
                       URL::parse("https://store.example.com/buy?x")));
  EXPECT_EQ(shared.status().provisionedDSIDs, std::nullopt) << "busy";
  EXPECT_EQ(waiting.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  world.transport.release();
  EXPECT_EQ(waiting.get().count(), 4u) << "both sets";
  ServiceWorld::settle();
  EXPECT_EQ(std::count(fake.calls.begin(), fake.calls.end(), "end 77"),
            OrvController::kMostWaitingActions);
  EXPECT_TRUE(world.log.mentions(1, "Orv: Dropping action SP"));
}

}  // namespace
}  // namespace tallow
