#include "devstore/DevStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "tests/devstore/RunningStore.h"

namespace tallow::devstore {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::vector<std::string> cookies(const httplib::Response& answer) {
  std::vector<std::string> values;
  for (std::size_t i = 0; i < answer.get_header_value_count("Set-Cookie"); ++i) {
    values.push_back(answer.get_header_value("Set-Cookie", i));
  }
  return values;
}

// The status of an answer; 0 when there was none.
int status(const httplib::Result& answer) {
  return answer ? answer->status : 0;
}

std::string body(const httplib::Result& answer) {
  return answer ? answer->body : std::string();
}

class DevStoreTest : public ::testing::Test {
 protected:
  RunningStore running;
};

TEST_F(DevStoreTest, StagingSaysWhatIsWrongAndThenTakesNothing) {
  const std::pair<const char*, const char*> kMistakes[] = {
      {"{", "no JSON"},
      {"[]", "must be a JSON object"},
      {R"({"bags": {}})", "bags: unknown key; known are authenticate, bag, "},
      {R"({"bag": 5})", "bag: must be a JSON object"},
      {R"({"bag": {"chian": "good"}})", "bag.chian: unknown key"},
      {R"({"bag": {"chain": "bad"}})", "bag.chain: must be one of good, expired"},
      {R"({"page": {"chain": "good"}})", "page.chain: unknown key"},
      {R"({"page": [{}, {"times": 0}]})", "page[1].times: must be a whole number from 1 "},
      {R"({"page": {"truncateAt": 18446744073709551615}})", "page.truncateAt: must be"},
      {R"({"page": {"body": "QUJD="}})", "page.body: is not base64"},
      {R"({"page": {"headers": {"A": "b\r\nC: d"}}})", "page.headers.A: must not contain"},
      {R"({"page": {"text": "a", "size": 5}})", "only one of body"},
      {R"({"page": {"plist": {"a": null}}})", "page.plist: is no property list"},
      {R"({"bag": {"set": []}})", "bag.set: must be an object"},
  };
  for (const auto& [text, complaint] : kMistakes) {
    SCOPED_TRACE(text);
    const auto answer = running.http->Post("/control", text, "application/json");
    ASSERT_EQ(status(answer), 400);
    EXPECT_THAT(nlohmann::json::parse(answer->body)["error"].get<std::string>(),
                HasSubstr(complaint));
    const std::string whole = std::string(R"({"ping": {"status": 500}, )") + (text + 1);
    EXPECT_EQ(status(running.http->Post("/control", whole, "application/json")), 400);
  }
  EXPECT_EQ(status(running.http->Get("/ping")), 200);
  EXPECT_EQ(
      status(running.http->Post("/control", {{"Origin", "http://a.example"}}, "{}", "text/plain")),
      403);
}

TEST_F(DevStoreTest, HeadersAndBodiesAreAsStaged) {
  const auto page = running.https->Get("/store/page");
  ASSERT_TRUE(page);
  EXPECT_THAT(cookies(*page), ElementsAre(HasSubstr("store-session="), HasSubstr("Fri, 31 Dec")));

  running.stage(R"({"ping": {"setCookie": ["a=1", "b=2; Expires=Fri, 31 Dec 2055 23:59:59 GMT"],
      "storefront": "143441-1,29", "maxAge": -5, "format": "binary",
      "headers": {"x-Odd": ["1", "2"]}, "plist": {"n": 18446744073709551615, "d": {"$data": "AAE="},
      "t": {"$date": 86400.5}, "list": [true, 1.5]}}})");
  const auto ping = running.https->Get("/ping");
  ASSERT_TRUE(ping);
  EXPECT_THAT(cookies(*ping), ElementsAre("a=1", HasSubstr("b=2")));
  EXPECT_EQ(ping->get_header_value("X-Set-Vantor-Store-Front"), "143441-1,29");
  EXPECT_EQ(ping->get_header_value("Cache-Control"), "max-age=-5");
  EXPECT_EQ(ping->get_header_value_count("x-odd"), 2u);
  EXPECT_TRUE(ping->body.starts_with("bplist00"));
  EXPECT_EQ(Value(RunningStore::decode(Data(ping->body))),
            Value(Dictionary{{"n", ~0ull},
                             {"d", Data(std::string_view("\0\1", 2))},
                             {"t", Date{86400.5}},
                             {"list", Array{true, 1.5}}}));

  running.stage(R"({"page": [{"size": 17825792, "times": 1}, {"nest": 100000, "times": 1}]})");
  EXPECT_EQ(body(running.http->Get("/store/page")).size(), 17825792u);
  EXPECT_THAT(body(running.http->Get("/store/page")).size(), ::testing::Gt(1'500'000u));
}

TEST_F(DevStoreTest, BagsAreWrappedAndChangedAsStaged) {
  const auto bag = [&](const char* staging) {
    running.stage(std::string(R"({"bag": )") + staging + "}");
    return running.dictionary("/bag");
  };
  const Dictionary plain = bag(R"({"wrap": "bare"})");
  EXPECT_EQ(*plain["logout"].string(), running.store->urls().https + "/accounts/logout");
  const Dictionary changed =
      bag(R"({"wrap": "bare", "urls": "http", "remove": "trustedDomains", "set": {"x": 1}})");
  EXPECT_EQ(*changed["logout"].string(), running.store->urls().http + "/accounts/logout");
  EXPECT_FALSE(changed.contains("trustedDomains"));
  EXPECT_EQ(changed["x"], Value(1));
  EXPECT_EQ(bag(R"({"wrap": "urlBag"})")["urlBag"], Value(plain));
  EXPECT_EQ(bag(R"({"wrap": "unsigned-dictionary"})")["bag"], Value(plain));
  EXPECT_EQ(RunningStore::decode(*bag(R"({"wrap": "unsigned-data"})")["bag"].data()), plain);
  EXPECT_EQ(RunningStore::decode(*bag("{}")["bag"].data()), plain);
  EXPECT_FALSE(RunningStore::decode(*running.dictionary("/sandbox/bag")["bag"].data()) == plain);
}

TEST_F(DevStoreTest, RedirectsLeadWhereTheySay) {
  const auto location = [&](const char* path) {
    return running.http->Get(path)->get_header_value("Location");
  };
  EXPECT_EQ(location("/redirect?to=https%3A%2F%2Fevil.example%2F"), "https://evil.example/");
  EXPECT_EQ(location("/redirect/loop"), "/redirect/loop");
  EXPECT_EQ(location("/redirect/chain?left=2"), "/redirect/chain?left=1");
  EXPECT_EQ(location("/redirect/chain?left=0"), "/store/page");
  EXPECT_EQ(status(running.http->Get("/redirect?to=%0d%0aA:%20b")), 400);
  running.stage(R"({"page": {"redirectTo": "http://a.example/", "status": 307}})");
  EXPECT_EQ(location("/store/page"), "http://a.example/");
}

TEST_F(DevStoreTest, ReceivedRequestsAreListedDecoded) {
  const Data list = PropertyList::encode(Dictionary{{"guid", "G"}}, PropertyList::Format::Binary);
  running.https->Post("/store/buyProduct?a=%20b", {{"X-Test", "one"}}, std::string(list.view()),
                      "application/x-plist");
  running.http->Post("/ping", {{"X-Bytes", "\xff"}}, std::string("\xff\0", 2), "text/plain");
  EXPECT_TRUE(running.store->waitForRequests("", 2));

  const nlohmann::json listed =
      nlohmann::json::parse(body(running.http->Get("/control/requests?atLeast=2")))["requests"];
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed[0]["path"], "/store/buyProduct");
  EXPECT_EQ(listed[0]["query"], "a=%20b");
  EXPECT_EQ(listed[0]["scheme"], "https");
  EXPECT_EQ(listed[0]["headers"]["X-Test"], nlohmann::json::array({"one"}));
  EXPECT_EQ(listed[0]["body"]["plist"]["guid"], "G");
  EXPECT_EQ(listed[1]["body"]["base64"], "/wA=");

  EXPECT_EQ(status(running.http->Get("/control/requests?atLeast=1&path=/none&timeoutMs=0")), 408);
  EXPECT_EQ(status(running.http->Delete("/control/requests")), 200);
  EXPECT_TRUE(running.store->requests().empty());
}

TEST_F(DevStoreTest, BrokenAnswersBreakAtTheirByte) {
  running.stage(R"({"page": {"size": 200000, "truncateAt": 150000, "times": 1}})");
  std::size_t received = 0;
  const auto count = [&](const char*, std::size_t length) {
    received += length;
    return true;
  };
  EXPECT_FALSE(running.http->Get("/store/page", count));
  EXPECT_EQ(received, 150000u);
  EXPECT_EQ(status(running.http->Get("/store/page")), 200);
}

TEST_F(DevStoreTest, HeldAnswersEndWithResetAndWithTheStore) {
  running.stage(R"({"ping": {"hang": true}, "page": {"size": 1000, "stallAt": 10}})");
  int released = 0;
  std::thread hanging([&] {
    if (const auto answer = running.http->Get("/ping")) released = answer->status;
  });
  // Received, it is held or about to be; a reset ends both.
  EXPECT_TRUE(running.store->waitForRequests("/ping", 1));
  running.stage(R"({"reset": true})");
  hanging.join();
  EXPECT_EQ(released, 200);

  running.stage(R"({"ping": {"delayMs": 600000}, "page": {"size": 1000, "stallAt": 10}})");
  std::thread slow([&] { (void)running.http->Get("/ping"); });
  std::thread stalled([&] { EXPECT_FALSE(running.https->Get("/store/page")); });
  EXPECT_TRUE(running.store->waitForRequests("", 3));
  running.store.reset();
  slow.join();
  stalled.join();
}

TEST_F(DevStoreTest, RefusesToStartWhereItMustNot) {
  const auto reason = [](DevStore::Options options) {
    const auto store = DevStore::start(std::move(options));
    return store ? std::string() : store.error().localizedDescription();
  };
  DevStore::Options options;
  options.stateDirectory = running.directory.path() / "store";
  EXPECT_THAT(reason(options), HasSubstr("another store is running here"));
  options.stateDirectory = running.directory.path() / "second";
  options.listenAddress = "0.0.0.0";
  EXPECT_THAT(reason(options), HasSubstr("127.0.0.1 or ::1"));
  options.listenAddress = "127.0.0.1";
  const std::string& url = running.store->urls().http;
  options.httpPort = static_cast<std::uint16_t>(std::stoi(url.substr(url.rfind(':') + 1)));
  EXPECT_THAT(reason(options), HasSubstr("cannot be listened on"));
}

}  // namespace
}  // namespace tallow::devstore
