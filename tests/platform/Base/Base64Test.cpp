#include "platform/Base/Base64.h"

#include <gmock/gmock.h>

namespace tallow {
namespace {

TEST(Base64Test, EveryLengthSurvives) {
  std::string bytes;
  for (int length = 0; length < 300; ++length) {
    EXPECT_EQ(base64Decode(base64Encode(Data(bytes))), Data(bytes));
    bytes += static_cast<char>(length * 89);
  }
  EXPECT_EQ(base64Encode(Data("\xfb\xff")), "+/8=");
}

TEST(Base64Test, OnlyTheExactFormIsDecoded) {
  for (const char* text : {"A", "AA", "AAA", "AA=", "A===", "====", "=AAA", "AA=A",
                           "AAAA=", "AA==AAAA", "AA==\n", " AAA", "AA A", "-_8=", "AAA\xC3"}) {
    EXPECT_FALSE(base64Decode(text)) << text;
  }
}

}  // namespace
}  // namespace tallow
