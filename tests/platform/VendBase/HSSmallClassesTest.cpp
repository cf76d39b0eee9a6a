#include "platform/VendBase/HSURLRequest.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "platform/Base/Directories.h"
#include "platform/Base/SharedInstance.h"
#include "platform/VendBase/ClientDescriptors.h"
#include "platform/VendBase/HSDevice.h"
#include "platform/VendBase/HSError.h"
#include "tests/support/NoMoreFiles.h"
#include "tests/support/TemporaryFolder.h"

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

TEST(ClientDescriptors, WhatCannotBeListedInPassingIsLookedForAgain) {
  const TemporaryFolder folder;
  Directories directories;
  directories.configDirs = {folder.path()};
  const ScopedShared<Directories> sharedDirectories(directories);
  const auto descriptors = ClientDescriptors::make();
  const auto finds = [&] { return descriptors->clientWithIdentifier("a") != nullptr; };
  EXPECT_FALSE(finds());
  EXPECT_TRUE(descriptors->isComplete());
  std::filesystem::create_directory(folder / "clients.d");
  std::ofstream(folder / "elsewhere") << "identifier = \"a\"";
  std::filesystem::create_symlink(folder / "elsewhere", folder / "clients.d/a.toml");
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
