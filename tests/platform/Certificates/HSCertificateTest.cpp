#include "platform/Certificates/HSCertificate.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "platform/Base/Clock.h"
#include "platform/Base/SharedInstance.h"
#include "platform/Certificates/AnchorStore.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/CertificateAuthority.h"
#include "tests/support/NoMoreFiles.h"
#include "tests/support/ScopedDirectories.h"
#include "tests/support/TemporaryFolder.h"

namespace tallow {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr Date kNow{1'800'000'000};

// Keys that many tests can share; RSA keys take long to make.
const TestKey& sharedRSAKey() {
  static const TestKey key = TestKey::rsa(2048);
  return key;
}
TestKey freshKey() {
  return TestKey::ellipticCurve("P-256");
}

// What a verdict is to say: "" for a good chain, "?" for whatever reason, else part of the reason.
::testing::Matcher<std::string> saying(const std::string& part) {
  if (part.empty()) return IsEmpty();
  if (part == "?") return Not(IsEmpty());
  return HasSubstr(part);
}

class HSCertificateTest : public ::testing::Test {
 protected:
  HSCertificateTest() {
    _directories.configDirs.push_back(_folder / "second");
    for (const auto& directory : _directories.configDirs)
      std::filesystem::create_directories(directory / "anchors");
  }

  std::filesystem::path anchorFile(const std::string& name = "root.pem",
                                   std::size_t directory = 1) {
    return _directories.configDirs[directory] / "anchors" / name;
  }
  void write(const std::filesystem::path& path, const std::string& text) {
    std::ofstream(path, std::ios::trunc) << text;
  }
  void install(const TestCertificate& anchor) { write(anchorFile(), anchor.pem()); }

  // Why a chain is refused; "" when it is valid.
  std::string verdict(const Array& certificates) {
    HSCertificate certificate;
    certificate.setCertificateData(certificates);
    const bool isValid = certificate.isValid();
    EXPECT_EQ(isValid, certificate.reason().empty());
    // What has no valid chain verifies nothing, whatever the signature.
    if (isValid) return "";
    EXPECT_FALSE(certificate.checkData(_document, chain().leaf.key().sign(_document)));
    return certificate.reason();
  }

  // The verdict on a chain in which one certificate differs from a good one.
  using Change = std::function<void(CertificateOptions&)>;
  std::string verdictWith(const Change& root, const Change& intermediate, const Change& leaf) {
    CertificateOptions options[] = {CertificateOptions::authority("Root"),
                                    CertificateOptions::authority("Intermediate"),
                                    CertificateOptions::signer("Leaf")};
    if (root) root(options[0]);
    if (intermediate) intermediate(options[1]);
    if (leaf) leaf(options[2]);
    const auto top = TestCertificate::selfSigned(_keys[0], options[0]);
    const auto middle = top.issue(_keys[1], options[1]);
    install(top);
    return verdict({middle.issue(_keys[2], options[2]).der(), middle.der()});
  }

  static const TestChain& chain() {
    static const TestChain made;
    return made;
  }

  TemporaryFolder _folder;
  ScopedDirectories _directories{_folder.path()};
  ManualClock _clock{kNow};
  ScopedShared<Clock> _sharedClock{_clock};
  AnchorStore _anchors;
  ScopedShared<AnchorStore> _sharedAnchors{_anchors};
  TestKey _keys[3] = {freshKey(), freshKey(), freshKey()};
  const Data _document{std::string_view("the bag")};
};

TEST_F(HSCertificateTest, AcceptsAChainThatEndsInAnAnchor) {
  install(chain().root);
  EXPECT_EQ(verdict(chain().certificates()), "");
  // The rest in any order, the root among them or not.
  EXPECT_EQ(verdict({chain().leaf.der(), chain().root.der(), chain().intermediate.der()}), "");
  // Anything installed is an anchor, also what another has issued.
  install(chain().intermediate);
  EXPECT_EQ(verdict({chain().leaf.der()}), "");
}

TEST_F(HSCertificateTest, RefusesAChainThatEndsElsewhere) {
  EXPECT_THAT(verdict(chain().certificates()), HasSubstr("no trust anchors"));
  install(TestCertificate::selfSigned(freshKey(), CertificateOptions::authority("Test Root")));
  EXPECT_THAT(verdict(chain().certificates()), HasSubstr("unable to get"));
  EXPECT_THAT(verdict({chain().leaf.der(), chain().intermediate.der(), chain().root.der()}),
              HasSubstr("self-signed"));
  install(chain().root);
  EXPECT_THAT(verdict({chain().leaf.der()}), HasSubstr("unable to get"));
  const auto own = TestCertificate::selfSigned(freshKey(), CertificateOptions::signer("Own"));
  EXPECT_THAT(verdict({own.der()}), HasSubstr("self-signed"));
}

TEST_F(HSCertificateTest, RefusesWhatIsNoListOfCertificates) {
  install(chain().root);
  const std::string leaf(chain().leaf.der().view());
  const Value intermediate = chain().intermediate.der();
  EXPECT_THAT(verdict({}), HasSubstr("empty"));
  EXPECT_THAT(verdict({"leaf", intermediate}), HasSubstr("string"));
  for (const std::string& noCertificate :
       {leaf + '\0', leaf.substr(0, leaf.size() - 1), std::string(), chain().leaf.pem(),
        std::string(70'000, '0')}) {
    EXPECT_THAT(verdict({Data(noCertificate), intermediate}), HasSubstr("DER"));
    EXPECT_THAT(verdict({chain().leaf.der(), intermediate, Data(noCertificate)}), HasSubstr("DER"))
        << "behind a good chain";
  }
  HSCertificate untouched;
  EXPECT_FALSE(untouched.isValid());
}

TEST_F(HSCertificateTest, TakesTenCertificatesAndNotEleven) {
  const auto root = TestCertificate::selfSigned(freshKey(), CertificateOptions::authority("0"));
  install(root);
  std::vector<TestCertificate> path = {root};
  for (int i = 1; i <= 9; ++i)
    path.push_back(path.back().issue(freshKey(), CertificateOptions::authority(std::to_string(i))));
  std::vector<Value> certificates = {
      path.back().issue(freshKey(), CertificateOptions::signer("Leaf")).der()};
  for (auto issuer = path.rbegin(); issuer + 1 != path.rend(); ++issuer)
    certificates.emplace_back(issuer->der());
  ASSERT_EQ(certificates.size(), 10U);
  EXPECT_EQ(verdict(Array(certificates)), "");
  certificates.emplace_back(root.der());
  EXPECT_THAT(verdict(Array(certificates)), HasSubstr("more than 10"));
}

TEST_F(HSCertificateTest, JudgesAtThePresentMoment) {
  const Date begin{1'810'000'000};
  const Date end{1'820'000'000};
  const auto limited = [&](CertificateOptions& options) {
    options.notBefore = begin;
    options.notAfter = end;
  };
  const Change changes[][3] = {{limited, {}, {}}, {{}, limited, {}}, {{}, {}, limited}};
  const std::pair<Date, const char*> moments[] = {{begin.addingSeconds(-0.5), "not yet valid"},
                                                  {begin.addingSeconds(1), ""},
                                                  {end.addingSeconds(-1), ""},
                                                  {end.addingSeconds(1), "expired"}};
  for (const auto& [root, intermediate, leaf] : changes)
    for (const auto& [moment, reason] : moments) {
      _clock.set(moment);
      EXPECT_THAT(verdictWith(root, intermediate, leaf), saying(reason));
    }
}

TEST_F(HSCertificateTest, HoldsEachToWhatItSaysOfItself) {
  // Other basic constraints or another key usage than such a certificate has.
  using Text = std::optional<std::string>;
  const auto says = [](const Text& constraints, const Text& usage = std::nullopt) -> Change {
    return [=](CertificateOptions& options) {
      options.basicConstraints = constraints.value_or(options.basicConstraints);
      options.keyUsage = usage.value_or(options.keyUsage);
    };
  };
  const auto extension = [](const char* name, const char* value) -> Change {
    return [=](CertificateOptions& options) { options.extensions = {{name, value}}; };
  };
  const char* const kAuthority = "critical,CA:TRUE";
  const Change unknown = extension("1.3.6.1.4.1.99999.1", "critical,DER:0500");
  const struct {
    Change root, intermediate, leaf;
    const char* reason;
  } cases[] = {
      // Only an authority issues, as deep as it may.
      {{}, says(""), {}, "?"},
      {{}, says("critical,CA:FALSE"), {}, "?"},
      {{}, says({}, "critical,digitalSignature,cRLSign"), {}, "?"},
      {says(""), {}, {}, "?"},
      {says({}, "critical,digitalSignature,cRLSign"), {}, {}, "?"},
      {says({}, ""), says({}, ""), says({}, ""), ""},
      {says("critical,CA:TRUE,pathlen:0"), {}, {}, "?"},
      {says("critical,CA:TRUE,pathlen:1"), {}, {}, ""},
      {{}, says("critical,CA:TRUE,pathlen:0"), {}, ""},
      {{}, {}, unknown, "critical extension"},
      {{}, unknown, {}, "critical extension"},
      {unknown, {}, {}, "critical extension"},
      {{}, {}, extension("1.3.6.1.4.1.99999.1", "DER:0500"), ""},
      {{},
       extension("nameConstraints", "critical,excluded;DNS:example.com"),
       extension("subjectAltName", "DNS:store.example.com"),
       "?"},
      // A policy is required, and the leaf states none.
      {{}, extension("policyConstraints", "critical,requireExplicitPolicy:0"), {}, "policy"},
      // The leaf must be meant to sign.
      {{}, {}, says("", ""), ""},
      {{}, {}, says("", "digitalSignature"), ""},
      {{}, {}, says("", "keyEncipherment"), "not meant for signing"},
      {{}, {}, says(kAuthority, "keyCertSign"), "not meant for signing"},
      {{}, {}, says(kAuthority, ""), "not meant for signing"},
      {{}, {}, says(kAuthority, "keyCertSign,digitalSignature"), ""},
  };
  for (const auto& each : cases)
    EXPECT_THAT(verdictWith(each.root, each.intermediate, each.leaf), saying(each.reason))
        << &each - cases;
}

TEST_F(HSCertificateTest, RefusesWeakKeysAndDigestsAnywhere) {
  const std::pair<const char*, TestKey> weakKeys[] = {{"RSA 1024", TestKey::rsa(1024)},
                                                      {"P-224", TestKey::ellipticCurve("P-224")},
                                                      {"written out", TestKey::explicitP256()},
                                                      {"Ed448", TestKey::ed448()}};
  for (const auto& [name, weak] : weakKeys)
    for (TestKey& place : _keys) {
      const TestKey strong = std::exchange(place, weak);
      EXPECT_NE(verdictWith({}, {}, {}), "") << name;
      place = strong;
    }
  _keys[0] = _keys[1] = sharedRSAKey();
  for (const char* digest : {"MD5", "SHA1", "SHA224"}) {
    const Change weak = [digest](CertificateOptions& options) { options.digest = digest; };
    EXPECT_NE(verdictWith({}, {}, weak), "") << digest;
    EXPECT_NE(verdictWith({}, weak, {}), "") << digest;
    EXPECT_NE(verdictWith(weak, {}, {}), "") << digest;
  }
  for (const char* digest : {"SHA384", "SHA512"}) {
    const Change strong = [digest](CertificateOptions& options) { options.digest = digest; };
    const Change strongPSS = [digest](CertificateOptions& options) {
      options.digest = digest;
      options.padding = TestKey::Padding::PSS;
    };
    EXPECT_EQ(verdictWith(strong, strong, strong), "") << digest;
    EXPECT_EQ(verdictWith(strongPSS, strongPSS, strongPSS), "") << digest;
  }
}

class SignatureTest : public HSCertificateTest {
 protected:
  // Whether the signature verifies with a leaf on this key.
  bool verifies(const TestKey& key, const Data& data, const Data& signature) {
    install(chain().root);
    const auto leaf = chain().intermediate.issue(key, CertificateOptions::signer("Leaf"));
    HSCertificate certificate;
    certificate.setCertificateData({leaf.der(), chain().intermediate.der()});
    const bool verified = certificate.checkData(data, signature);
    EXPECT_EQ(verified, certificate.reason().empty()) << certificate.reason();
    return verified;
  }
};

TEST_F(SignatureTest, VerifiesEveryKindOfKeyWithStrongDigestsAlone) {
  using enum TestKey::Padding;
  const std::pair<TestKey, TestKey::Padding> keys[] = {{sharedRSAKey(), Default},
                                                       {sharedRSAKey(), PSS},
                                                       {TestKey::rsaPSS(2048), Default},
                                                       {_keys[2], Default},
                                                       {TestKey::ellipticCurve("P-384"), Default}};
  for (const std::string digest : {"SHA256", "SHA384", "SHA512", "MD5", "SHA1", "SHA224"})
    for (const auto& each : keys) {
      const Data signature = each.first.sign(_document, digest.c_str(), each.second);
      const bool isStrong = digest == "SHA256" || digest == "SHA384" || digest == "SHA512";
      EXPECT_EQ(verifies(each.first, _document, signature), isStrong) << digest << &each - keys;
    }
  const TestKey ed25519 = TestKey::ed25519();
  EXPECT_TRUE(verifies(ed25519, _document, ed25519.sign(_document)));
  EXPECT_TRUE(verifies(ed25519, Data(), ed25519.sign(Data())));
  EXPECT_TRUE(verifies(_keys[2], Data(), _keys[2].sign(Data())));
}

TEST_F(SignatureTest, RefusesEverythingElse) {
  for (const TestKey& key : {sharedRSAKey(), _keys[2], TestKey::ed25519()}) {
    const Data signature = key.sign(_document);
    EXPECT_FALSE(verifies(key, Data(std::string_view("the baf")), signature));
    EXPECT_FALSE(verifies(key, Data(std::string_view("the bag ")), signature));
    EXPECT_FALSE(verifies(key, _document, Data()));
    EXPECT_FALSE(verifies(key, _document, Data(std::string(signature.view()) + '\0')));
    EXPECT_FALSE(verifies(key, _document, Data(signature.view().substr(1))));
    EXPECT_FALSE(verifies(key, _document, freshKey().sign(_document)));
    std::string changed(signature.view());
    changed.back() = static_cast<char>(changed.back() ^ 0x80);
    EXPECT_FALSE(verifies(key, _document, Data(changed)));
  }
}

TEST_F(SignatureTest, ChecksTheChainFirst) {
  install(chain().root);
  HSCertificate certificate;
  certificate.setCertificateData(chain().certificates());
  const Data signature = chain().leaf.key().sign(_document);
  EXPECT_TRUE(certificate.checkData(_document, signature));
  _clock.advance(300'000'000);
  EXPECT_FALSE(certificate.isValid());
  EXPECT_FALSE(certificate.checkData(_document, signature));
  // Another chain begins anew.
  certificate.setCertificateData({chain().leaf.der(), Data()});
  _clock.set(kNow);
  EXPECT_FALSE(certificate.checkData(_document, signature));
  EXPECT_THAT(certificate.reason(), HasSubstr("DER"));
}

using AnchorStoreTest = HSCertificateTest;

TEST_F(AnchorStoreTest, NoticesEveryChange) {
  const std::string other = TestChain().root.pem();
  EXPECT_NE(verdict(chain().certificates()), "");
  write(anchorFile("b.pem", 2), other + chain().root.pem());
  EXPECT_EQ(verdict(chain().certificates()), "");
  write(anchorFile("b.pem", 2), other);
  EXPECT_NE(verdict(chain().certificates()), "");
  write(anchorFile("a.pem"), chain().root.pem());
  EXPECT_EQ(verdict(chain().certificates()), "");
  std::filesystem::remove(anchorFile("a.pem"));
  EXPECT_NE(verdict(chain().certificates()), "");
  write(_folder.path() / "elsewhere", chain().root.pem());
  std::filesystem::create_symlink(_folder.path() / "elsewhere", anchorFile("link.pem"));
  EXPECT_EQ(verdict(chain().certificates()), "");
  // The same bytes more or less, another file.
  std::filesystem::remove(anchorFile("link.pem"));
  write(anchorFile("root.crt"), chain().root.pem());
  EXPECT_NE(verdict(chain().certificates()), "");
  std::filesystem::remove_all(_folder.path() / "second");
  // In the user's own folder, which counts not.
  write(anchorFile("own.pem", 0), chain().root.pem());
  EXPECT_THAT(verdict(chain().certificates()), HasSubstr("no trust anchors"));
}

TEST_F(AnchorStoreTest, WhatCannotBeReadInPassingIsReadAgain) {
  install(chain().root);
  std::filesystem::create_symlink("/proc/self/mem", anchorFile("z.pem"));  // EIO
  const auto count = [&] { return _anchors.current().count; };
  AnchorStore().current();  // at its first look at a type a sanitizer opens files of its own
  {
    const NoMoreFiles none;
    EXPECT_EQ(count(), 0u);
  }
  const CapturedLog log;
  EXPECT_EQ(count(), 1u);
  {
    const NoMoreFiles none;
    EXPECT_EQ(count(), 1u) << "what was read before counts";
  }
  EXPECT_EQ(count(), 1u);
  EXPECT_EQ(log.lines(1).size(), 1U);
  _clock.advance(1);
  EXPECT_EQ(count(), 1u);
  EXPECT_EQ(log.lines(1).size(), 2U) << "the disk may answer by now";
}

TEST_F(AnchorStoreTest, ADamagedFileSpoilsNoOther) {
  const CapturedLog log;
  write(anchorFile("a.pem"), "no certificate");
  std::string cut = chain().intermediate.pem();
  cut.replace(cut.size() / 2, 4, "!!!!");
  write(anchorFile("b.pem"), cut);
  std::filesystem::create_directory(anchorFile("c.pem"));
  write(anchorFile("d.pem"), chain().root.pem());
  EXPECT_EQ(verdict(chain().certificates()), "");
  EXPECT_EQ(verdict(chain().certificates()), "");
  // Once per change, not once per check.
  EXPECT_EQ(log.lines(1).size(), 3U);
  for (const char* name : {"a.pem", "b.pem", "c.pem"}) EXPECT_TRUE(log.mentions(1, name)) << name;
}

}  // namespace
}  // namespace tallow
