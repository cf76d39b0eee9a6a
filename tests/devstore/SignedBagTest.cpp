// The signed bags as the service judges them: the good one has to pass, and each bad one has to
// fail for exactly the reason it was made for.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "platform/Base/Directories.h"
#include "platform/Base/SharedInstance.h"
#include "platform/Certificates/AnchorStore.h"
#include "platform/Certificates/HSCertificate.h"
#include "tests/devstore/RunningStore.h"

namespace tallow::devstore {
namespace {

using ::testing::HasSubstr;

class SignedBagTest : public ::testing::Test {
 protected:
  SignedBagTest() {
    _directories.configHome = running.directory / "config";
    _directories.configDirs = {_directories.configHome, running.directory / "etc"};
    std::filesystem::create_directories(anchor().parent_path());
  }

  // Why a bag is refused: what is wrong with its chain, or "signature"; "" for a good one.
  std::string verdict(const std::string& staging) {
    running.stage(R"({"reset": true, "bag": )" + staging + "}");
    std::filesystem::copy_file(running.store->anchorFile(), anchor(),
                               std::filesystem::copy_options::overwrite_existing);
    const Dictionary response = running.dictionary("/bag");
    HSCertificate certificate;
    const Array* const chain = response["certs"].array();
    certificate.setCertificateData(chain != nullptr ? *chain : Array());
    if (!certificate.isValid()) return certificate.reason();
    const Data* const signature = response["signature"].data();
    const Data* const bag = response["bag"].data();
    const bool holds =
        signature != nullptr && bag != nullptr && certificate.checkData(*bag, *signature);
    return holds ? "" : "signature";
  }

  RunningStore running;

 private:
  std::filesystem::path anchor() const {
    return _directories.configDirs[1] / "anchors" / "root.pem";
  }

  Directories _directories;
  ScopedShared<Directories> _sharedDirectories{_directories};
  AnchorStore _anchors;
  ScopedShared<AnchorStore> _sharedAnchors{_anchors};
};

TEST_F(SignedBagTest, GoodBagsVerifyWithEveryKindOfKeyAndInBothFormats) {
  for (const char* key : {"p256", "p384", "rsa", "rsa-pss", "ed25519"}) {
    for (const char* format : {"xml", "binary"}) {
      EXPECT_EQ(verdict(std::string(R"({"key": ")") + key + R"(", "format": ")" + format + "\"}"),
                "")
          << key << " " << format;
    }
  }
}

TEST_F(SignedBagTest, EachBadBagFailsForItsOwnReason) {
  const std::pair<const char*, const char*> kBags[] = {
      {R"({"chain": "expired"})", "expired"},
      {R"({"chain": "not-yet-valid"})", "not yet valid"},
      {R"({"chain": "self-signed"})", "self-signed"},
      {R"({"chain": "wrong-anchor"})", "unable to get"},
      {R"({"chain": "no-intermediate"})", "unable to get"},
      {R"({"chain": "not-a-ca"})", "invalid CA"},
      {R"({"chain": "wrong-key-usage"})", "not meant for signing"},
      {R"({"chain": "weak-digest"})", "weak"},
      {R"({"chain": "short-key"})", "key too weak"},
      {R"({"chain": "too-long"})", "more than 10"},
      {R"({"chain": "trailing-byte"})", "DER"},
      {R"({"chain": "empty"})", "empty"},
      {R"({"signature": "flip"})", "signature"},
      {R"({"signature": "missing"})", "signature"},
      {R"({"signature": "wrong-key"})", "signature"},
      {R"({"signature": "empty"})", "signature"},
      {R"({"signature": "wrong-type"})", "signature"},
      {R"({"flipByte": 0})", "signature"},
      {R"({"flipByte": 500})", "signature"},
  };
  for (const auto& [staging, reason] : kBags)
    EXPECT_THAT(verdict(staging), HasSubstr(reason)) << staging;
}

TEST_F(SignedBagTest, KeysSurviveARestartAndNotAFreshOne) {
  const auto leaf = [&] { return running.dictionary("/bag")["certs"].array()->begin()[0]; };
  const Value before = leaf();
  running.restart(false);
  EXPECT_EQ(leaf(), before);
  EXPECT_TRUE(running.https->Get("/ping"));
  running.restart(true);
  EXPECT_FALSE(leaf() == before);
  EXPECT_EQ(verdict("{}"), "");
  EXPECT_TRUE(running.https->Get("/ping"));
}

}  // namespace
}  // namespace tallow::devstore
