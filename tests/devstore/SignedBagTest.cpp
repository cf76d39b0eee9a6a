// The signed bags as the service judges them: the good one has to pass, and each bad one has to
// fail for exactly the reason it was made for.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "platform/Base/SharedInstance.h"
#include "platform/Certificates/AnchorStore.h"
#include "platform/Certificates/HSCertificate.h"
#include "tests/devstore/RunningStore.h"
#include "tests/support/ScopedDirectories.h"

namespace tallow::devstore {
namespace {

using ::testing::HasSubstr;

class SignedBagTest : public ::testing::Test {
 protected:
  SignedBagTest() { std::filesystem::create_directories(anchor().parent_path()); }

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

  const ScopedDirectories _directories{running.directory.path()};
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
  const std::pair<const char*, const char*> kChains[] = {
      {"expired", "expired"},
      {"not-yet-valid", "not yet valid"},
      {"self-signed", "self-signed"},
      {"wrong-anchor", "unable to get"},
      {"no-intermediate", "unable to get"},
      {"not-a-ca", "invalid CA"},
      {"wrong-key-usage", "not meant for signing"},
      {"weak-digest", "weak"},
      {"short-key", "key too weak"},
      {"too-long", "more than 10"},
      {"trailing-byte", "DER"},
      {"empty", "empty"}};
  for (const auto& [chain, reason] : kChains)
    EXPECT_THAT(verdict(std::string(R"({"chain": ")") + chain + "\"}"), HasSubstr(reason)) << chain;
  for (const char* signature : {"flip", "missing", "wrong-key", "empty", "wrong-type"})
    EXPECT_EQ(verdict(std::string(R"({"signature": ")") + signature + "\"}"), "signature")
        << signature;
  for (const char* staging : {R"({"flipByte": 0})", R"({"flipByte": 500})"})
    EXPECT_EQ(verdict(staging), "signature") << staging;
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
