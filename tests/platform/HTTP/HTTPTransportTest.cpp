#include "platform/HTTP/HTTPTransport.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "platform/HTTP/CurlTransport.h"
#include "platform/HTTP/ScriptedTransport.h"
#include "tests/support/LoopbackServer.h"
#include "tests/support/ManyThreads.h"

namespace tallow {
namespace {

using enum HTTPTransport::ErrorCode;

// What every transport keeps to, over a store that answers, or keeps silent, as a test says.
class RealStore {
 public:
  HTTPTransport& transport() { return *_transport; }
  URL url() const { return _server->url("/bag?a=b"); }
  void answer(int statusCode, const std::string& headerLines, const std::string& body) {
    _server = std::make_unique<LoopbackServer>(LoopbackServer::answering(
        LoopbackServer::response(statusCode, headerLines + "\r\n", body)));
  }
  void keepSilent() { _server = std::make_unique<LoopbackServer>(LoopbackServer::silent()); }
  void waitUntilAsked(std::size_t count) { _server->waitForConnections(count); }
  void endTransport() { _transport.reset(); }

 private:
  std::unique_ptr<LoopbackServer> _server;
  std::unique_ptr<CurlTransport> _transport =
      std::make_unique<CurlTransport>(CurlTransport::Options{});
};

class ScriptedStore {
 public:
  HTTPTransport& transport() { return *_transport; }
  URL url() const { return *URL::parse("http://store.example.com/bag?a=b"); }
  void answer(int statusCode, const std::string& headerLine, const std::string& body) {
    const std::size_t colon = headerLine.find(": ");
    const HTTPHeaderList headers = {{headerLine.substr(0, colon), headerLine.substr(colon + 2)}};
    _transport->setHandler([=](const HTTPRequest& request) {
      return ScriptedTransport::response(request, statusCode, headers, body);
    });
  }
  void keepSilent() { _transport->hold(); }
  void waitUntilAsked(std::size_t count) { _transport->waitForRequests(count); }
  void endTransport() { _transport.reset(); }

 private:
  std::unique_ptr<ScriptedTransport> _transport = std::make_unique<ScriptedTransport>();
};

template <class Store>
class HTTPTransportContract : public ::testing::Test {
 protected:
  std::int64_t errorOf(HTTPRequest request) {
    const Result<HTTPResponse> result = store.transport().perform(std::move(request));
    if (result) return 0;
    EXPECT_EQ(result.error().domain, "HTTP");
    EXPECT_TRUE(result.error().userInfo.contains(Error::kLocalizedDescriptionKey));
    return result.error().code;
  }
  HTTPRequest request() { return HTTPRequest(store.url()); }

  // Starts a request whose outcome (0 or the error's code) comes later.
  std::future<std::int64_t> start(std::shared_ptr<HTTPTransport::Exchange>* exchange = nullptr) {
    const auto outcome = std::make_shared<std::promise<std::int64_t>>();
    auto started = store.transport().start(request(), [outcome](Result<HTTPResponse> result) {
      outcome->set_value(result ? 0 : result.error().code);
    });
    if (exchange != nullptr) *exchange = std::move(started);
    return outcome->get_future();
  }

  Store store;
};

using Stores = ::testing::Types<RealStore, ScriptedStore>;
TYPED_TEST_SUITE(HTTPTransportContract, Stores);

TYPED_TEST(HTTPTransportContract, AnyStatusIsAWholeAnswerAndRedirectsAreNotFollowed) {
  for (const int status : {200, 302, 404, 503}) {
    this->store.answer(status, "Location: http://elsewhere.example.com/a, b", "body");
    const Result<HTTPResponse> result = this->store.transport().perform(this->request());
    ASSERT_TRUE(result) << description(result.error());
    EXPECT_EQ(result->url, this->store.url());
    EXPECT_EQ(result->statusCode, status);
    EXPECT_EQ(result->header("Location"), "http://elsewhere.example.com/a, b");
    EXPECT_EQ(result->body, Data(std::string_view("body")));
  }
}

TYPED_TEST(HTTPTransportContract, BoundsTheBody) {
  this->store.answer(200, "X-Store: 1", std::string(1000, 'x'));
  HTTPRequest request = this->request();
  request.maxBodyBytes = 1000;
  EXPECT_EQ(this->errorOf(request), 0);
  request.maxBodyBytes = 999;
  EXPECT_EQ(this->errorOf(request), kBodyTooLarge);
  request.maxBodyBytes = 0;
  EXPECT_EQ(this->errorOf(request), kBodyTooLarge);
}

TYPED_TEST(HTTPTransportContract, RefusesWhatMustNotBeSent) {
  this->store.answer(200, "X-Store: 1", "");
  const auto with = [&](std::string name, std::string value) {
    HTTPRequest request = this->request();
    request.headers = {{"X-Good", "good"}, {std::move(name), std::move(value)}};
    return this->errorOf(std::move(request));
  };
  EXPECT_EQ(with("X-Store", "plain \xc3\xbc, 'quoted' \"text\""), 0);
  for (const char* value : {"a\r\nX-Evil: 1", "a\nb", "a\rb", "\x01", "a\tb", "\x7f"})
    EXPECT_EQ(with("X-Store", value), kBadRequest) << value;
  EXPECT_EQ(with("X-Store", std::string("a\0b", 3)), kBadRequest);
  for (const char* name : {"", "X Store", "X-Store:", "X-St\r\nore", "X-St\xc3\xb6re", "Host",
                           "host", "Content-Length", "transfer-encoding"})
    EXPECT_EQ(with(name, "1"), kBadRequest) << name;

  HTTPRequest request = this->request();
  request.method = "GET / HTTP/1.1\r\nX-Evil: 1\r\n";
  EXPECT_EQ(this->errorOf(request), kBadRequest);
  for (const char* url : {"data:text/plain,hello", "ftp://127.0.0.1/", "file:///etc/passwd"}) {
    ASSERT_TRUE(URL::parse(url)) << url;
    EXPECT_EQ(this->errorOf(HTTPRequest(*URL::parse(url))), kBadRequest) << url;
  }
}

TYPED_TEST(HTTPTransportContract, CompletesOnAThreadOfItsOwnThatMayAskAgain) {
  this->store.answer(200, "X-Store: 1", "");
  std::promise<std::thread::id> answered;
  std::promise<std::thread::id> refused;
  this->store.transport().start(this->request(),
                                [&](auto) { answered.set_value(std::this_thread::get_id()); });
  HTTPRequest bad = this->request();
  bad.method = "";
  this->store.transport().start(bad, [&](auto) { refused.set_value(std::this_thread::get_id()); });
  const std::thread::id thread = answered.get_future().get();
  EXPECT_NE(thread, std::this_thread::get_id());
  EXPECT_EQ(thread, refused.get_future().get());
  // From which it may be asked again.
  std::promise<bool> second;
  this->store.transport().start(this->request(), [&](auto) {
    this->store.transport().start(this->request(), [&](Result<HTTPResponse> result) {
      second.set_value(static_cast<bool>(result));
    });
  });
  EXPECT_TRUE(second.get_future().get());
}

TYPED_TEST(HTTPTransportContract, CancelledExchangesCompleteOnce) {
  this->store.keepSilent();
  std::shared_ptr<HTTPTransport::Exchange> early;
  std::shared_ptr<HTTPTransport::Exchange> late;
  std::future<std::int64_t> earlyOutcome = this->start(&early);
  early->cancel();
  EXPECT_EQ(earlyOutcome.get(), kCancelled);
  std::future<std::int64_t> lateOutcome = this->start(&late);
  this->store.waitUntilAsked(1);
  late->cancel();
  late->cancel();
  EXPECT_EQ(lateOutcome.get(), kCancelled);
  early->cancel();
}

TYPED_TEST(HTTPTransportContract, TheEndOfTheTransportCancels) {
  this->store.keepSilent();
  std::shared_ptr<HTTPTransport::Exchange> exchange;
  std::future<std::int64_t> first = this->start(&exchange);
  std::future<std::int64_t> second = this->start();
  this->store.waitUntilAsked(1);
  this->store.endTransport();
  EXPECT_EQ(first.get(), kCancelled);
  EXPECT_EQ(second.get(), kCancelled);
  exchange->cancel();
}

TYPED_TEST(HTTPTransportContract, ManyAskAtOnce) {
  constexpr int kThreads = 8, kRequests = 25;
  this->store.answer(200, "X-Store: 1", "body");
  std::atomic<int> answered = 0;
  onManyThreads(kThreads, [&](int) {
    for (int i = 0; i < kRequests; ++i) {
      const Result<HTTPResponse> result = this->store.transport().perform(this->request());
      if (result && result->body.view() == "body") ++answered;
    }
  });
  EXPECT_EQ(answered, kThreads * kRequests);
}

HTTPResponse responseWith(HTTPHeaderList headers) {
  HTTPResponse response(*URL::parse("http://store.example.com/"));
  response.headers = std::move(headers);
  return response;
}

std::optional<double> maxAge(std::string cacheControl) {
  return responseWith({{"Cache-Control", std::move(cacheControl)}}).cacheControlMaxAgeSeconds();
}

TEST(HTTPResponseTest, HeaderDictionaryJoinsLinesOfOneName) {
  const Dictionary headers =
      responseWith({{"Vary", "Accept"},
                    {"set-cookie", "a=1; Expires=Thu, 01 Jan 2026 00:00:00 GMT"},
                    {"VARY", "Cookie"},
                    {"Set-Cookie", "b=2"},
                    {"Empty", ""}})
          .headerDictionary();
  EXPECT_EQ(headers,
            (Dictionary{{"Vary", "Accept, Cookie"},
                        {"set-cookie", Array{"a=1; Expires=Thu, 01 Jan 2026 00:00:00 GMT", "b=2"}},
                        {"Empty", ""}}));
  EXPECT_EQ(responseWith({{"Set-Cookie", "a=1"}}).headerDictionary(),
            (Dictionary{{"Set-Cookie", "a=1"}}));
}

TEST(HTTPResponseTest, MaxAgeIsRead) {
  EXPECT_EQ(responseWith({}).cacheControlMaxAgeSeconds(), std::nullopt);
  for (const char* none : {"", "private", "s-maxage=5, x-max-age=6, max-agent=7"})
    EXPECT_EQ(maxAge(none), std::nullopt) << none;
  for (const char* hour : {"max-age=3600", "private , \tMAX-Age=3600 ,must-revalidate",
                           "max-age=\"3600\"", "max-age=003600", "max-age=3600, max-age=20",
                           // What bags and pings go by is how long an answer says that it holds,
                           // not whether it may be kept.
                           "max-age=3600, no-store", "no-cache=\"Set-Cookie, Via\", max-age=3600",
                           // One inside a quoted string is none.
                           "community=\"a, max-age=10, \\\", max-age=11\", max-age=3600"})
    EXPECT_EQ(maxAge(hour), 3600) << hour;
  EXPECT_EQ(responseWith({{"cache-control", "private"}, {"Cache-Control", "max-age=5"}})
                .cacheControlMaxAgeSeconds(),
            5);
  // Extreme ones stay distinguishable.
  EXPECT_EQ(maxAge("max-age=0"), 0);
  EXPECT_EQ(maxAge("max-age=-5"), -5);
  for (const std::string& large :
       {std::string("2147483648"), std::string("2147483649"), std::string(400, '9')})
    EXPECT_EQ(maxAge("max-age=" + large), 2147483648.0) << large;
  EXPECT_EQ(maxAge("max-age=-" + std::string(400, '9')), -2147483648.0);
}

TEST(HTTPResponseTest, MalformedDirectivesDoNotCount) {
  for (const char* malformed :
       {"max-age", "max-age=", "max-age=1.5", "max-age=1e3", "max-age=+5", "max-age=5s",
        "max-age=0x5", "max-age =5", "max-age= 5", "max-age=--5", "max-age=\"5", "max-age=5\"",
        "max-age=\"\"", "max-age=5 6", "max-age;5"}) {
    EXPECT_EQ(maxAge(malformed), std::nullopt) << malformed;
    // What follows counts, unless a quotation mark that is never closed has swallowed it.
    const std::string_view text = malformed;
    const bool isOpen = std::count(text.begin(), text.end(), '"') % 2 == 1;
    EXPECT_EQ(maxAge(std::string("\t, ,") + malformed + ", max-age=60"),
              isOpen ? std::nullopt : std::optional(60.0))
        << malformed;
  }
}

}  // namespace
}  // namespace tallow
