#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>
#include <thread>

#include "platform/VendBase/HSError.h"
#include "platform/VendBase/HSStoreURLOperation.h"
#include "tests/support/FakeAccountService.h"
#include "tests/support/LoopbackServer.h"

namespace tallow {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

// Store requests over the real transport, to a server that the test plays.
class StoreRequestLoopback : public testing::Test {
 protected:
  std::shared_ptr<HSStoreURLOperation> operationFor(const URL& url) {
    auto client = std::make_shared<HSStoreClient>();
    client->identifier = "com.vantor.test";
    client->userAgent = "Test/1.0";
    auto operation = std::make_shared<HSStoreURLOperation>(std::move(client));
    operation->setRequest(HSURLRequest(url));
    return operation;
  }
  LoopbackServer::Serve recording(LoopbackServer::Respond respond) {
    return LoopbackServer::responding([this, respond](const std::string& request) {
      const std::lock_guard guard(_lock);
      _requests.push_back(request);
      return respond(request);
    });
  }
  std::vector<std::string> requests() {
    const std::lock_guard guard(_lock);
    return _requests;
  }

  std::shared_ptr<FakeAccountService> _service = std::make_shared<FakeAccountService>();

 private:
  ScopedAccountService _scope{_service};
  std::mutex _lock;
  std::vector<std::string> _requests;
};

TEST_F(StoreRequestLoopback, FetchesAPropertyListAcrossARedirect) {
  _service->setStoreFront("143441");
  _service->headers = [](const auto& question) {
    return Dictionary{{"Cookie", "at=" + question.url->lastPathComponent()}};
  };
  const LoopbackServer server(recording([](const std::string& request) {
    if (request.starts_with("GET /first"))
      return LoopbackServer::response(302, "Location: second\r\nSet-Cookie: a=1\r\n", "");
    return LoopbackServer::response(
        200, "Set-Cookie: b=2\r\nSet-Cookie: c=3\r\nCache-Control: max-age=60\r\n",
        "<plist version=\"1.0\"><dict><key>k</key><string>v</string></dict></plist>");
  }));
  const auto operation = operationFor(server.url("/first"));
  operation->setDataProvider(HSPropertyListProvider::providerWithStoreClient(nullptr));
  Value output;
  operation->setOutputHandler([&](auto&, const Value& value) { output = value; });
  std::optional<Error> error;
  ASSERT_TRUE(operation->runSyncReturningError(&error)) << description(*error);
  EXPECT_EQ(output, Value(Dictionary{{"k", "v"}}));
  double maxAge = 0;
  operation->getVantorMaxAge(&maxAge);
  EXPECT_EQ(maxAge, 60);

  const auto received = requests();
  ASSERT_EQ(received.size(), 2u);
  for (const std::string& request : received) {
    EXPECT_THAT(request, HasSubstr("User-Agent: Test/1.0\r\n"));
    EXPECT_THAT(request, HasSubstr("X-Vantor-Store-Front: 143441\r\n"));
  }
  EXPECT_THAT(received[0], HasSubstr("Cookie: at=first\r\n"));
  EXPECT_THAT(received[1], HasSubstr("Cookie: at=second\r\n"));
  EXPECT_THAT(received[1], Not(HasSubstr("at=first")));
  const auto consumed = _service->consumed();
  ASSERT_EQ(consumed.size(), 2u);
  EXPECT_EQ(consumed[0].headers["Set-Cookie"], Value("a=1"));
  EXPECT_EQ(consumed[1].headers["Set-Cookie"], Value(Array{"b=2", "c=3"}));
  EXPECT_EQ(consumed[1].fromURL, server.url("/second"));
}

TEST_F(StoreRequestLoopback, SendsABodyAgainOnlyWhereTheStatusSaysSo) {
  const LoopbackServer server(recording([](const std::string& request) {
    if (request.starts_with("POST /first"))
      return LoopbackServer::response(307, "Location: /second\r\n", "");
    if (request.starts_with("POST /second"))
      return LoopbackServer::response(303, "Location: /third\r\n", "");
    return LoopbackServer::response(200, "", "done");
  }));
  const auto operation = operationFor(server.url("/first"));
  HSURLRequest request = operation->request();
  request.method = "POST";
  request.body = Data(std::string_view("the body"));
  request.headers = {{"Content-Type", "text/plain"}};
  operation->setRequest(request);
  EXPECT_TRUE(operation->runSyncReturningError(nullptr));
  const auto received = requests();
  ASSERT_EQ(received.size(), 3u);
  EXPECT_THAT(received[1], HasSubstr("the body"));
  EXPECT_THAT(received[2], StartsWith("GET /third"));
  EXPECT_THAT(received[2], Not(HasSubstr("Content-Type")));
  EXPECT_THAT(received[2], Not(HasSubstr("the body")));
}

// The same server under another name is another host: nothing may reach it.
TEST_F(StoreRequestLoopback, WithoutABagStaysOnItsHost) {
  std::string elsewhere;
  const LoopbackServer server(recording([&](const std::string&) {
    return LoopbackServer::response(302, "Location: " + elsewhere + "\r\n", "");
  }));
  elsewhere = server.url("/", "localhost").absoluteString();
  const auto operation = operationFor(server.url());
  operation->setRequiredBagType(0);
  operation->setURLKnownToBeTrusted(true);
  std::optional<Error> error;
  EXPECT_FALSE(operation->runSyncReturningError(&error));
  EXPECT_EQ(error->code, kHSErrorNotTrusted);
  EXPECT_EQ(requests().size(), 1u);
}

TEST_F(StoreRequestLoopback, CancelEndsTheWaitForASilentServer) {
  const LoopbackServer server(LoopbackServer::silent());
  const auto operation = operationFor(server.url());
  std::optional<Error> error;
  std::thread canceller([&] {
    server.waitForConnections(1);
    operation->cancel();
  });
  EXPECT_FALSE(operation->runSyncReturningError(&error));
  canceller.join();
  EXPECT_EQ(error->code, kHSErrorCancelled);
  server.waitForEndedConnections(1);
}

}  // namespace
}  // namespace tallow
