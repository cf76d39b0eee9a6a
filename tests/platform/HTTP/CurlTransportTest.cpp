#include "platform/HTTP/CurlTransport.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <netdb.h>
#include <openssl/ssl.h>
#include <zlib.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <future>
#include <mutex>
#include <string>
#include <thread>

#include "platform/Base/AtomicFile.h"
#include "tests/support/HostsOfURLs.h"
#include "tests/support/LoopbackServer.h"
#include "tests/support/ManyThreads.h"
#include "tests/support/TemporaryFolder.h"

namespace {

// For names that end in ".stuck.test" the name server does not answer until it is let go.
std::atomic<bool> nameServerAnswers = false;
std::atomic<int> stuckCallers = 0;

void waitForTheNameServer() {
  ++stuckCallers;
  nameServerAnswers.wait(false);
  --stuckCallers;
  stuckCallers.notify_all();
}
void letTheNameServerGo() {
  nameServerAnswers = true;
  nameServerAnswers.notify_all();
  for (int left = stuckCallers; left > 0; left = stuckCallers) stuckCallers.wait(left);
}

}  // namespace

// Takes the place of the C library's function for the HTTP library too.
extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints,
                           addrinfo** result) {
  if (node != nullptr && std::string_view(node).ends_with(".stuck.test")) {
    waitForTheNameServer();
    return EAI_AGAIN;
  }
  static const auto original =
      reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  return original(node, service, hints, result);
}

namespace tallow {
namespace {

using enum HTTPTransport::ErrorCode;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::Pair;
using ::testing::StartsWith;

constexpr std::size_t kMegabyte = 1u << 20;

std::string compressed(const std::string& text) {
  const TemporaryFolder folder;
  const gzFile file = gzopen((folder / "text.gz").c_str(), "wb");
  gzwrite(file, text.data(), static_cast<unsigned>(text.size()));
  gzclose(file);
  return std::string(readFile(folder / "text.gz")->view());
}

class CurlTransportTest : public ::testing::Test {
 protected:
  static std::int64_t codeOf(const Result<HTTPResponse>& result) {
    return result ? 0 : result.error().code;
  }
  std::int64_t codeOf(const HTTPRequest& request) { return codeOf(_transport.perform(request)); }
  std::int64_t codeOf(const LoopbackServer& server) { return codeOf(HTTPRequest(server.url())); }

  // What is sent for `request`, word for word.
  std::string sent(HTTPRequest request) {
    std::promise<std::string> received;
    const LoopbackServer server([&](LoopbackConnection& connection) {
      received.set_value(connection.readRequest());
      connection.write(LoopbackServer::response(200, "", ""));
    });
    request.url = server.url("/path?query");
    const auto result = _transport.perform(std::move(request));
    EXPECT_TRUE(result) << description(result.error());
    return received.get_future().get();
  }
  static HTTPRequest anyRequest() { return HTTPRequest(*URL::parse("http://127.0.0.1/")); }

  // The answer to a GET on a server that answers with these bytes and then closes.
  Result<HTTPResponse> answerTo(const std::string& bytes,
                                std::optional<std::size_t> maxBodyBytes = std::nullopt) {
    const LoopbackServer server([&](LoopbackConnection& connection) {
      connection.readRequest();
      connection.write(bytes);
    });
    HTTPRequest request(server.url());
    if (maxBodyBytes) request.maxBodyBytes = *maxBodyBytes;
    return _transport.perform(request);
  }

  CurlTransport _transport{CurlTransport::Options{}};
};

TEST_F(CurlTransportTest, SendsWhatIsAsked) {
  HTTPRequest request = anyRequest();
  request.headers = {{"X-Store", "143441"}, {"X-Empty", ""}, {"X-Blank", "  "}};
  std::string text = sent(request);
  EXPECT_THAT(text, StartsWith("GET /path?query HTTP/1.1\r\nHost: 127.0.0.1:"));
  EXPECT_THAT(text, HasSubstr("\r\nX-Store: 143441\r\nX-Empty:\r\nX-Blank:\r\n"));
  EXPECT_THAT(text, HasSubstr("\r\nAccept-Encoding: gzip\r\n"));
  for (const char* unwanted : {"User-Agent", "Cache-Control", "Pragma", "Content-", "Cookie"})
    EXPECT_THAT(text, Not(HasSubstr(unwanted)));

  request.bypassCaches = true;
  text = sent(request);
  EXPECT_THAT(text, HasSubstr("\r\nCache-Control: no-cache\r\nPragma: no-cache\r\n"));
  request.headers = {{"cache-control", "max-age=0"}};
  EXPECT_THAT(sent(request), Not(HasSubstr("no-cache\r\nPragma")));
}

TEST_F(CurlTransportTest, SendsAnyMethodAndBody) {
  HTTPRequest request = anyRequest();
  const std::string body = std::string(2 * kMegabyte, 'x') + '\0' + "end";
  for (const char* method : {"POST", "PUT", "PATCH", "GET"}) {
    request.method = method;
    request.body = Data(body);
    const std::string text = sent(request);
    EXPECT_THAT(text, StartsWith(std::string(method) + " /path?query "));
    EXPECT_THAT(text, HasSubstr("\r\nContent-Length: " + std::to_string(body.size()) + "\r\n"));
    EXPECT_THAT(text, Not(HasSubstr("\r\nContent-Type")));
    EXPECT_THAT(text, Not(HasSubstr("\r\nExpect")));
    EXPECT_TRUE(text.ends_with("\r\n\r\n" + body));
  }
  request.body = Data();
  request.method = "POST";
  EXPECT_THAT(sent(request), HasSubstr("\r\nContent-Length: 0\r\n"));
  request.method = "DELETE";
  EXPECT_THAT(sent(request), Not(HasSubstr("Content-Length")));
  request.method = "HEAD";
  EXPECT_THAT(sent(request), StartsWith("HEAD "));
}

TEST_F(CurlTransportTest, KeepsHeadersAsReceived) {
  const Result<HTTPResponse> result = answerTo(
      "HTTP/1.1 103 Early Hints\r\nX-Early: 1\r\n\r\n"
      "HTTP/1.1 200 OK\r\nx-b:  spaced \r\nX-A: 1\r\nx-B: 2\r\nX-Empty:\r\nX-Folded: one\r\n "
      "two\r\n"
      "Trailer: X-Late\r\nTransfer-Encoding: chunked\r\n\r\n"
      "4\r\nbody\r\n0\r\nX-Late: 1\r\n\r\n");
  ASSERT_TRUE(result) << description(result.error());
  EXPECT_EQ(result->statusCode, 200);
  EXPECT_EQ(result->body.view(), "body");
  EXPECT_THAT(result->headers,
              ElementsAre(Pair("x-b", "spaced"), Pair("X-A", "1"), Pair("x-B", "2"),
                          Pair("X-Empty", ""), Pair("X-Folded", "one two"),
                          Pair("Trailer", "X-Late"), Pair("Transfer-Encoding", "chunked")));
}

TEST_F(CurlTransportTest, DecodesCompressedBodiesWithinTheBound) {
  const std::string plain(kMegabyte, 'x');
  const std::string answer =
      LoopbackServer::response(200, "Content-Encoding: gzip\r\n", compressed(plain));
  const Result<HTTPResponse> result = answerTo(answer, plain.size());
  ASSERT_TRUE(result) << description(result.error());
  EXPECT_EQ(result->body.view(), plain);
  EXPECT_EQ(codeOf(answerTo(answer, plain.size() - 1)), kBodyTooLarge);
}

TEST_F(CurlTransportTest, RefusesSeventeenMegabytes) {
  // A stated length is refused before any of the body has come.
  EXPECT_EQ(codeOf(answerTo("HTTP/1.1 200 OK\r\nContent-Length: 17825792\r\n\r\n")), kBodyTooLarge);
  // An unstated one while it comes, and the connection with it.
  std::promise<bool> sentAll;
  const LoopbackServer endless([&](LoopbackConnection& connection) {
    connection.readRequest();
    connection.write("HTTP/1.1 200 OK\r\n\r\n");
    const std::string megabyte(kMegabyte, 'x');
    bool open = true;
    for (int i = 0; open && i < 100; ++i) open = connection.write(megabyte);
    sentAll.set_value(open);
  });
  EXPECT_EQ(codeOf(endless), kBodyTooLarge);
  EXPECT_FALSE(sentAll.get_future().get());

  const auto result = answerTo(LoopbackServer::response(200, "", std::string(16 * kMegabyte, 'x')));
  ASSERT_TRUE(result) << description(result.error());
  EXPECT_EQ(result->body.length(), 16 * kMegabyte);
}

TEST_F(CurlTransportTest, BoundsHeaders) {
  const auto codeWith = [&](int lines, std::size_t bytes) {
    std::string headers;
    for (int i = 0; i < lines; ++i)
      headers += "X-" + std::to_string(i) + ": " + std::string(bytes, 'x') + "\r\n";
    return codeOf(answerTo(LoopbackServer::response(200, headers, "")));
  };
  EXPECT_EQ(codeWith(900, 1), 0);
  EXPECT_EQ(codeWith(1100, 1), kOther);
  EXPECT_EQ(codeWith(40, 8000), kOther);
}

TEST_F(CurlTransportTest, TellsHowAConnectionFailed) {
  for (const char* part : {"", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf of",
                           "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n100\r\nhalf of"})
    EXPECT_EQ(codeOf(answerTo(part)), kConnectionLost) << part;
  EXPECT_NE(codeOf(answerTo("no HTTP at all")), 0);
  URL gone = *URL::parse("http://127.0.0.1/");
  {
    const LoopbackServer server(LoopbackServer::silent());
    gone = server.url();
  }
  const Result<HTTPResponse> refused = _transport.perform(HTTPRequest(gone));
  EXPECT_EQ(codeOf(refused), kCannotConnect);
  EXPECT_THAT(refused.error().localizedDescription(), HasSubstr("127.0.0.1"));
}

TEST_F(CurlTransportTest, GivesUpOnASilentServer) {
  const LoopbackServer silent(LoopbackServer::silent());
  HTTPRequest request(silent.url());
  request.totalTimeoutSeconds = 0.05;
  EXPECT_EQ(codeOf(request), kTimedOut);
  // One that keeps the connection alive byte by byte gains nothing.
  const LoopbackServer slow([](LoopbackConnection& connection) {
    connection.readRequest();
    connection.write("HTTP/1.1 200 OK\r\nX-Slow: ");
    connection.waitForEnd();
  });
  request.url = slow.url();
  EXPECT_EQ(codeOf(request), kTimedOut);
  slow.waitForEndedConnections(1);
}

TEST_F(CurlTransportTest, AStuckNameServerHoldsUpNobodyElse) {
  HTTPRequest stuck(*URL::parse("http://store.stuck.test/"));
  stuck.connectTimeoutSeconds = 0.05;
  const LoopbackServer server(LoopbackServer::answering(LoopbackServer::response(200, "", "")));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(codeOf(stuck), kTimedOut);
    EXPECT_EQ(codeOf(server), 0);
  }
  letTheNameServerGo();
}

TEST_F(CurlTransportTest, ReusesConnectionsUntilIdleForLong) {
  const LoopbackServer server(LoopbackServer::answering(LoopbackServer::response(200, "", "")));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(codeOf(server), 0);
  EXPECT_EQ(server.connectionCount(), 1U);

  CurlTransport impatient({.additionalCAFile = "", .idleSeconds = 0.01});
  for (std::size_t i = 1; i <= 3; ++i) {
    EXPECT_EQ(codeOf(impatient.perform(HTTPRequest(server.url()))), 0);
    server.waitForEndedConnections(i);
  }
}

// Callers that are deaf to SIGPIPE drive the exchanges themselves, one at a time: what the others
// have under way goes on, and is taken over when who drives is done.
TEST_F(CurlTransportTest, WhoWaitsDrivesForTheOthersToo) {
  std::promise<void> release;
  const std::shared_future<void> released = release.get_future().share();
  const LoopbackServer server(LoopbackServer::responding([&](const std::string& request) {
    if (request.starts_with("GET /slow")) released.wait();
    return LoopbackServer::response(200, "", "x");
  }));
  const LoopbackServer silent(LoopbackServer::silent());
  std::promise<std::int64_t> slow;
  std::atomic<int> failures = 0;
  onManyThreads(4, [&](int caller) {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    for (int round = 0; round < 20; ++round) {
      if (caller == 0 && round == 0)
        _transport.start(HTTPRequest(server.url("/slow")),
                         [&](const auto& result) { slow.set_value(codeOf(result)); });
      if (codeOf(server) != 0) ++failures;
    }
    std::jthread canceller;
    const auto cancelled = _transport.perform(HTTPRequest(silent.url()), [&](auto exchange) {
      canceller = std::jthread([exchange, &silent] {
        silent.waitForConnections(1);
        exchange->cancel();
      });
    });
    if (codeOf(cancelled) != kCancelled) ++failures;
  });
  EXPECT_EQ(failures, 0);
  release.set_value();
  EXPECT_EQ(slow.get_future().get(), 0);
}

// Through a proxy it can be seen which host the library asks for.
TEST_F(CurlTransportTest, AsksTheVeryHostThatTheURLNames) {
  std::string asked;
  std::mutex lock;
  const LoopbackServer proxy(LoopbackServer::responding([&](const std::string& request) {
    const std::lock_guard<std::mutex> guard(lock);
    asked = request;
    return LoopbackServer::response(200, "Connection: close\r\n", "");
  }));
  setenv("http_proxy", ("http://127.0.0.1:" + std::to_string(proxy.port())).c_str(), 1);
  for (const HostOfURLs& expected : kHostsOfURLs)
    for (const char* text : expected.urls) {
      const URL url = *URL::parse(std::string("HTTP:") + text);
      asked.clear();
      const auto result = _transport.perform(HTTPRequest(url));
      ASSERT_TRUE(result) << text << description(result.error());
      const bool isIPv6 = url.host().find(':') != std::string::npos;
      const std::string host = isIPv6 ? "[" + url.host() + "]" : expected.host;
      const std::string port = url.port() == 80 ? "" : ":" + std::to_string(url.port());
      EXPECT_THAT(asked, HasSubstr("\r\nHost: " + host + port + "\r\n")) << text;
      const std::size_t target = asked.find("://") + 3;
      const std::string inTarget = asked.substr(target, asked.find_first_of("/ ", target) - target);
      EXPECT_THAT(inTarget.substr(inTarget.rfind('@') + 1), StartsWith(host)) << text;
    }
  unsetenv("http_proxy");
}

class CurlTransportTLSTest : public CurlTransportTest {
 protected:
  CurlTransportTLSTest() {
    std::ofstream(_caFile) << _chain.root.pem();
    _options.extensions = {{"subjectAltName", "IP:127.0.0.1"}};
    // Real time: the transport's library has no other.
    _options.notBefore = Date{0};
    _options.notAfter = Date{4'000'000'000};
  }

  LoopbackServer::TLS server(int maxVersion = 0) const {
    return {_chain.intermediate.issue(TestKey::ellipticCurve("P-256"), _options),
            {_chain.intermediate},
            maxVersion};
  }
  std::int64_t codeWith(const LoopbackServer& server, std::string_view host = "127.0.0.1") {
    return codeOf(_trusting.perform(HTTPRequest(server.url("/", host))));
  }
  static LoopbackServer::Serve answering() {
    return LoopbackServer::answering(LoopbackServer::response(200, "", "secret"));
  }

  const TestChain _chain;
  const TemporaryFolder _folder;
  const std::filesystem::path _caFile = _folder.path() / "ca.pem";
  CertificateOptions _options = CertificateOptions::signer("Server");
  CurlTransport _trusting{{.additionalCAFile = _caFile.string()}};
};

TEST_F(CurlTransportTLSTest, TrustsTheAdditionalFileAndNobodyElseAndOffersHTTP2) {
  const LoopbackServer store(answering(), server());
  EXPECT_EQ(codeWith(store), 0);
  EXPECT_EQ(codeWith(store), 0);
  EXPECT_EQ(store.connectionCount(), 1U);
  EXPECT_THAT(store.offeredProtocols(), Contains("h2"));
  EXPECT_EQ(codeOf(store), kTLS) << "without the file";
}

TEST_F(CurlTransportTLSTest, RefusesTheWrongNameTheWrongTimeAndOldProtocols) {
  const LoopbackServer named(answering(), server());
  EXPECT_EQ(codeWith(named, "localhost"), kTLS);
  const LoopbackServer old(answering(), server(TLS1_1_VERSION));
  EXPECT_EQ(codeWith(old), kTLS);
  _options.notAfter = Date{1'000'000'000};
  const LoopbackServer expired(answering(), server());
  EXPECT_EQ(codeWith(expired), kTLS);
}

TEST_F(CurlTransportTLSTest, AConnectionClosedWhileIdleRaisesNoSignal) {
  // The server closes after each answer, so that the next request finds the pooled connection dead.
  const LoopbackServer store(
      [](LoopbackConnection& connection) {
        connection.readRequest();
        connection.write(LoopbackServer::response(200, "", ""));
      },
      server());
  for (std::size_t i = 1; i <= 3; ++i) {
    EXPECT_EQ(codeWith(store), 0);
    store.waitForEndedConnections(i);
  }
}

}  // namespace
}  // namespace tallow
