#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "platform/VendBase/ClientDescriptors.h"
#include "platform/VendBase/HSDevice.h"
#include "platform/VendBase/HSError.h"
#include "platform/VendBase/HSRequestHop.h"
#include "platform/VendBase/HSURLRequest.h"
#include "tests/support/NoMoreFiles.h"
#include "tests/support/ScopedDirectories.h"
#include "tests/support/TemporaryFolder.h"

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
  const struct {
    int status;
    const char *method, *expected;
  } cases[] = {{301, "POST", "GET"},  {302, "POST", "GET"},  {303, "POST", "GET"},
               {307, "POST", "POST"}, {308, "POST", "POST"}, {301, "PUT", "PUT"},
               {303, "PUT", "GET"},   {303, "HEAD", "HEAD"}, {302, "HEAD", "HEAD"}};
  for (const auto& each : cases) {
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
  const struct {
    const char *from, *location;
    std::int64_t code;  // 0: allowed
  } cases[] = {{"https://a.example/", "http://a.example/", kHSErrorInsecureRedirect},
               {"HTTPS://a.example/", "http://a.example/", kHSErrorInsecureRedirect},
               {"https://a.example/", "HTTP://a.example/", kHSErrorInsecureRedirect},
               {"http://a.example/", "http://b.example/", 0},
               {"http://a.example/", "https://b.example/", 0},
               {"https://a.example/", "//b.example/", 0},
               {"https://a.example/", "data:text/xml,x", kHSErrorInvalidResponse},
               {"https://a.example/", "file:///etc/passwd", kHSErrorInvalidResponse},
               {"https://a.example/", "https://", kHSErrorInvalidResponse}};
  for (const auto& each : cases) {
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

TEST(HSURLRequest, SendsItsQueryEncodedAndInKeyOrder) {
  using Query = std::vector<std::pair<std::string, std::string>>;
  const auto sent = [](const char* url, Query query) {
    HSURLRequest request(*URL::parse(url));
    request.queryStringDictionary = std::move(query);
    return request.urlToSend()->absoluteString();
  };
  EXPECT_EQ(sent("https://a.example/p", {}), "https://a.example/p");
  EXPECT_EQ(sent("https://a.example/p?x=1#f", {{"guid", "A B"}, {"b", ""}}),
            "https://a.example/p?x=1&b=&guid=A%20B#f");
  EXPECT_EQ(sent("https://a.example/", {{"k&=", "\u00FC/?#%\r\n~-._"}}),
            "https://a.example/?k%26%3D=%C3%BC%2F%3F%23%25%0D%0A~-._");
  EXPECT_EQ(HSURLRequest().urlToSend(), std::nullopt);
}

TEST(ClientDescriptors, WhatCannotBeListedInPassingIsLookedForAgain) {
  const TemporaryFolder folder;
  const ScopedDirectories directories(folder.path());
  const std::filesystem::path listed = directories.configHome / "clients.d";
  const auto descriptors = ClientDescriptors::make();
  const auto finds = [&] { return descriptors->clientWithIdentifier("a") != nullptr; };
  EXPECT_FALSE(finds());
  EXPECT_TRUE(descriptors->isComplete());
  std::filesystem::create_directories(listed);
  std::ofstream(folder / "elsewhere") << "identifier = \"a\"";
  std::filesystem::create_symlink(folder / "elsewhere", listed / "a.toml");
  {
    const NoMoreFiles none;
    EXPECT_FALSE(finds());
    EXPECT_FALSE(descriptors->isComplete());
  }
  EXPECT_TRUE(finds());
  EXPECT_TRUE(descriptors->isComplete());
  const NoMoreFiles none;
  EXPECT_TRUE(finds()) << "what was read before counts";
  EXPECT_FALSE(descriptors->isComplete());
}

TEST(HSDevice, GUIDIsSteadyAndHexadecimal) {
  const auto guid = HSDevice::shared().guid();
  if (!guid) GTEST_SKIP() << "this machine has no id";
  EXPECT_EQ(guid->size(), 32u);
  EXPECT_EQ(guid->find_first_not_of("0123456789ABCDEF"), std::string::npos);
  EXPECT_EQ(HSDevice::shared().guid(), guid);
}

}  // namespace
}  // namespace tallow
