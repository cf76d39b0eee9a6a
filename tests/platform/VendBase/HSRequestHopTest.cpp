#include "platform/VendBase/HSRequestHop.h"

#include <gtest/gtest.h>

#include "platform/VendBase/HSError.h"

namespace tallow {
namespace {

HSRequestHop hopTo(const char* url) {
  return HSRequestHop(*URL::parse(url));
}

HTTPResponse redirect(int status, const char* location, const char* name = "Location") {
  HTTPResponse response(*URL::parse("https://store.example/"));
  response.statusCode = status;
  response.headers = {{name, location}};
  return response;
}

TEST(HSRequestHop, RedirectsAreFiveStatusesWithALocation) {
  for (const int status : {301, 302, 303, 307, 308})
    EXPECT_TRUE(HSRequestHop::isRedirect(redirect(status, "/x"))) << status;
  for (const int status : {200, 201, 300, 304, 305, 306, 399, 404})
    EXPECT_FALSE(HSRequestHop::isRedirect(redirect(status, "/x"))) << status;
  EXPECT_TRUE(HSRequestHop::isRedirect(redirect(302, "/x", "location")));
  EXPECT_FALSE(HSRequestHop::isRedirect(redirect(302, "/x", "Locations")));
}

TEST(HSRequestHop, MethodAndBodyFollowTheStatus) {
  struct Case {
    int status;
    const char *method, *expected;
  };
  for (const Case& each :
       {Case{301, "POST", "GET"}, Case{302, "POST", "GET"}, Case{303, "POST", "GET"},
        Case{307, "POST", "POST"}, Case{308, "POST", "POST"}, Case{301, "PUT", "PUT"},
        Case{303, "PUT", "GET"}, Case{303, "HEAD", "HEAD"}, Case{302, "HEAD", "HEAD"}}) {
    HSRequestHop hop = hopTo("https://store.example/a");
    hop.method = each.method;
    hop.body = Data(std::string_view("body"));
    hop.headers = {{"content-type", "text/plain"}, {"Accept", "text/xml"}};
    const auto next = hop.hopAfterRedirect(redirect(each.status, "b?c"));
    ASSERT_TRUE(next) << each.status << each.method;
    EXPECT_EQ(next->method, each.expected) << each.status << each.method;
    EXPECT_EQ(next->url.absoluteString(), "https://store.example/b?c");
    const bool isTurned = next->method != hop.method;
    EXPECT_EQ(next->body.empty(), isTurned) << each.status << each.method;
    EXPECT_EQ(next->hasHeader("Content-Type"), !isTurned) << each.status << each.method;
    EXPECT_TRUE(next->hasHeader("accept"));
  }
}

TEST(HSRequestHop, RefusesWhereARedirectMayNotLead) {
  struct Case {
    const char *from, *location;
    std::int64_t code;  // 0: allowed
  };
  for (const Case& each : {
           Case{"https://a.example/", "http://a.example/", kHSErrorInsecureRedirect},
           Case{"HTTPS://a.example/", "http://a.example/", kHSErrorInsecureRedirect},
           Case{"https://a.example/", "HTTP://a.example/", kHSErrorInsecureRedirect},
           Case{"http://a.example/", "http://b.example/", 0},
           Case{"http://a.example/", "https://b.example/", 0},
           Case{"https://a.example/", "//b.example/", 0},
           Case{"https://a.example/", "data:text/xml,x", kHSErrorInvalidResponse},
           Case{"https://a.example/", "file:///etc/passwd", kHSErrorInvalidResponse},
           Case{"https://a.example/", "https://", kHSErrorInvalidResponse},
       }) {
    const auto next = hopTo(each.from).hopAfterRedirect(redirect(302, each.location));
    EXPECT_EQ(next ? 0 : next.error().code, each.code) << each.from << " " << each.location;
  }
}

TEST(HSRequestHop, OwnCredentialsStayWithTheirOrigin) {
  HSRequestHop hop = hopTo("https://store.example/a");
  hop.headers = {{"authorization", "x"}, {"Cookie", "a=b"}, {"X-Own", "1"}};
  for (const char* elsewhere : {"https://other.example/", "https://store.example:8443/"}) {
    const auto next = hop.hopAfterRedirect(redirect(302, elsewhere));
    ASSERT_TRUE(next) << elsewhere;
    EXPECT_FALSE(next->hasHeader("Authorization")) << elsewhere;
    EXPECT_FALSE(next->hasHeader("Cookie")) << elsewhere;
    EXPECT_TRUE(next->hasHeader("X-Own")) << elsewhere;
  }
  const auto same = hop.hopAfterRedirect(redirect(302, "https://STORE.example:443/b"));
  ASSERT_TRUE(same);
  EXPECT_TRUE(same->hasHeader("Authorization"));
}

TEST(HSRequestHop, AddsNoHeaderTwiceAndNoneThatCannotTravel) {
  HSRequestHop hop = hopTo("https://store.example/");
  hop.headers = {{"user-agent", "own"}};
  EXPECT_TRUE(hop.addHeader("User-Agent", "standard"));
  EXPECT_TRUE(hop.addHeader("Cookie", "a=b"));
  EXPECT_FALSE(hop.addHeader("X-A", "1\r\nX-B: 2"));
  EXPECT_FALSE(hop.addHeader("X-A", std::string_view("1\0", 2)));
  EXPECT_FALSE(hop.addHeader("X-A", "1\t2"));
  EXPECT_FALSE(hop.addHeader("X-A", ""));
  EXPECT_EQ(hop.headers, (HTTPHeaderList{{"user-agent", "own"}, {"Cookie", "a=b"}}));
}

}  // namespace
}  // namespace tallow
