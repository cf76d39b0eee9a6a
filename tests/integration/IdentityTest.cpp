// How a machine becomes known to a store and stops being so, over a real bus and real HTTP.

#include <gtest/gtest.h>

#include <future>

#include "platform/HTTP/HTTPTransport.h"
#include "platform/PropertyList/JSON.h"
#include "tests/integration/RunningService.h"

namespace tallow {
namespace {

constexpr std::uint64_t kNobody = 0;  // whom the service provisions for while nobody is signed in

class Machine {
 public:
  // What the store's headers say in answer to a request, as a client hands them in.
  Dictionary answerTo(const std::string& query) {
    Dictionary identity;
    const HTTPResponse answer = ask(query, {});
    for (const auto& [name, value] : answer.headers)
      if (name.starts_with("x-vantor-")) identity = identity.setting(name, value);
    return identity;
  }
  void handIn(const Dictionary& headers) {
    EXPECT_FALSE(service.client().consumeCookiesWithHTTPHeaders(headers, url()));
  }
  Dictionary headers() { return *service.client().httpHeadersForURL(url(), kNobody, true); }
  // What the store makes of the headers that the service now gives: "account anonymous sync".
  std::string verdict() {
    HTTPHeaderList list;
    for (const auto& [name, value] : headers()) list.emplace_back(name, *value.string());
    const Dictionary told = *JSON::decode(ask("", list).body.view())->dictionary();
    const auto part = [&told](const char* name) {
      return (*told[name].dictionary())["verified"] == Value(true) ? "yes" : "no";
    };
    return std::string(part("account")) + " " + part("anonymous") + " " +
           (told["synchronised"] == Value(true) ? "yes" : "no");
  }

  RunningService service;

 private:
  std::string url() const { return service.storeURL("https", "/store/buyProduct"); }
  HTTPResponse ask(const std::string& query, HTTPHeaderList headerList) {
    HTTPRequest request(*URL::parse(service.storeURL("http", "/identity/verdict?" + query)));
    request.headers = std::move(headerList);
    auto answer = std::make_shared<std::promise<Result<HTTPResponse>>>();
    HTTPTransport::shared().start(std::move(request), [answer](Result<HTTPResponse> response) {
      answer->set_value(std::move(response));
    });
    return *answer->get_future().get();
  }
};

TEST(Identity, IsProvisionedSynchronisedAndResetAsTheStoreOrders) {
  Machine machine;
  EXPECT_EQ(machine.verdict(), "no no no");
  machine.handIn(machine.answerTo("order=provision"));
  EXPECT_EQ(machine.verdict(), "yes no no");
  // The service's own requests bring orders as well.
  machine.service.stage(
      R"({"bag": {"identity": {"order": "provision", "anonymous": true}, "times": 1}})");
  ASSERT_FALSE(machine.service.client().invalidateAllBags());
  ASSERT_TRUE(machine.service.client().loadURLBagWithType(1)->valid);
  while (machine.headers()["X-Vantor-AMD"].isNil()) std::this_thread::yield();
  EXPECT_EQ(machine.verdict(), "yes yes no");
  machine.handIn(machine.answerTo("order=sync"));
  EXPECT_EQ(machine.verdict(), "yes yes yes");

  machine.service.kill();
  EXPECT_EQ(machine.verdict(), "yes yes no") << "secrets outlive a kill, the sync state does not";

  machine.handIn(machine.answerTo("order=sync"));
  machine.handIn(machine.answerTo("order=reset"));
  EXPECT_EQ(machine.verdict(), "no yes no") << "the state is that of the account's machine";
  EXPECT_TRUE(machine.headers().contains("X-Vantor-MD-S"));
  machine.handIn(machine.answerTo("order=sync"));
  EXPECT_FALSE(machine.headers().contains("X-Vantor-MD-S")) << "one that fails takes it away";
}

TEST(Identity, HostileOrdersAndAnswersChangeNothing) {
  Machine machine;
  machine.handIn(machine.answerTo("order=provision"));
  ASSERT_EQ(machine.verdict(), "yes no no");
  std::vector<Dictionary> orders;
  for (int i = 0; i < 10; ++i) orders.push_back(machine.answerTo("order=provision"));
  for (const char* staged :
       {R"({"finishProvisioning": {"plist": ["a", "list"]}})",
        R"({"finishProvisioning": {"text": "<html>"}})",
        R"({"finishProvisioning": {"plist": {"failureType": "5001"}}})",
        R"({"finishProvisioning": {"plist": {"settingInfo": "AAAA"}}})",
        R"({"finishProvisioning": {"status": 503}})",
        R"({"finishProvisioning": {"truncateAt": 20}})",
        R"({"syncMachine": {"plist": {"failureType": 1, "syncState": "?"}}})"}) {
    machine.service.stage(staged);
    machine.handIn(machine.answerTo("order=provision"));
    machine.handIn(machine.answerTo("order=sync"));
    machine.handIn({{"x-vantor-md-action", "SP"}, {"x-vantor-md-data", "?"}});
    EXPECT_EQ(machine.headers().contains("X-Vantor-MD"), true) << staged;
  }
  machine.service.stage(R"({"reset": true})");
  EXPECT_EQ(machine.verdict().substr(0, 3), "yes") << "it is the one from before";
  for (const Dictionary& order : orders) machine.handIn(order);
  EXPECT_EQ(machine.verdict().substr(0, 3), "yes");
  EXPECT_EQ(machine.service.store().requests("/identity/finish-provisioning").size(), 18u)
      << "all ten were carried out";
}

}  // namespace
}  // namespace tallow
