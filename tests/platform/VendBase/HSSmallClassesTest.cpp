#include "platform/VendBase/HSURLRequest.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "platform/Base/SharedInstance.h"
#include "platform/VendBase/HSDevice.h"
#include "platform/VendBase/HSError.h"
#include "platform/VendBase/HSPropertyListProvider.h"

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

TEST(HSURLRequest, KeepsTheURLItWasMadeWith) {
  HSURLRequest request(*URL::parse("https://a.example/"));
  request.setURLs({*URL::parse("https://a.example/"), *URL::parse("https://b.example/")});
  EXPECT_EQ(request.primaryURL(), URL::parse("https://a.example/"));
}

TEST(HSError, ShowsTheMessageElseTheTitle) {
  EXPECT_EQ(HSError(5, "title", "message").localizedDescription(), "message");
  const Error titled = HSError(5, "title", std::nullopt);
  EXPECT_EQ(titled.localizedDescription(), "title");
  EXPECT_FALSE(titled.userInfo.contains(kHSErrorMessageKey));
  EXPECT_TRUE(HSError(5, std::nullopt, std::nullopt).userInfo.empty());
}

TEST(HSPropertyListProvider, DecodesOrSaysWhatIsWrong) {
  const auto provider = HSPropertyListProvider::providerWithStoreClient(nullptr);
  HTTPResponse response(*URL::parse("https://a.example/"));
  response.body = Data(std::string_view(
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>a</key><integer>1</integer>"
      "</dict></plist>"));
  const auto output = provider->outputForResponse(response);
  ASSERT_TRUE(output);
  EXPECT_EQ(*output, Value(Dictionary{{"a", 1}}));
  EXPECT_EQ(provider->output(), *output);

  for (const std::string_view body : {"", "<html>Sorry</html>", "bplist00"}) {
    response.body = Data(body);
    const auto refused = provider->outputForResponse(response);
    ASSERT_FALSE(refused) << body;
    EXPECT_EQ(refused.error().domain, kHSErrorDomain);
    EXPECT_EQ(refused.error().code, kHSErrorInvalidPropertyList);
    EXPECT_TRUE(provider->output().isNil()) << "the last response's output";
  }
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
