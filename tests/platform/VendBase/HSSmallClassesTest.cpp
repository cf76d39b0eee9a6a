#include "platform/VendBase/HSURLRequest.h"

#include <gtest/gtest.h>

#include "platform/VendBase/HSDevice.h"
#include "platform/VendBase/HSError.h"

namespace tallow {
namespace {

std::string sent(const char* url, std::vector<std::pair<std::string, std::string>> query) {
  HSURLRequest request(*URL::parse(url));
  request.queryStringDictionary = std::move(query);
  return request.urlToSend()->absoluteString();
}

TEST(HSURLRequest, SendsItsQueryEncodedAndInKeyOrder) {
  EXPECT_EQ(sent("https://a.example/p", {}), "https://a.example/p");
  EXPECT_EQ(sent("https://a.example/p?x=1#f", {{"guid", "A B"}, {"b", ""}}),
            "https://a.example/p?x=1&b=&guid=A%20B#f");
  EXPECT_EQ(sent("https://a.example/", {{"k&=", "\xC3\xBC/?#%\r\n~-._"}}),
            "https://a.example/?k%26%3D=%C3%BC%2F%3F%23%25%0D%0A~-._");
  EXPECT_EQ(HSURLRequest().urlToSend(), std::nullopt);
}

TEST(HSError, ShowsTheMessageElseTheTitle) {
  EXPECT_EQ(HSError(5, "title", "message").localizedDescription(), "message");
  const Error titled = HSError(5, "title", std::nullopt);
  EXPECT_EQ(titled.localizedDescription(), "title");
  EXPECT_FALSE(titled.userInfo.contains(kHSErrorMessageKey));
  EXPECT_TRUE(HSError(5, std::nullopt, std::nullopt).userInfo.empty());
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
