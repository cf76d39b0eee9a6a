// The signed bags judged by a verifier that shares nothing with the store but the TLS library: the
// good one has to pass, and each bad one has to fail for exactly the reason it was made for.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/devstore/RunningStore.h"

namespace tallow::devstore {
namespace {

using CertificatePointer = std::shared_ptr<X509>;

constexpr int kNoCertificate = -1;
constexpr int kNotWholeDER = -2;
constexpr int kMayNotSignDocuments = -3;

CertificatePointer anchor(const std::filesystem::path& path) {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "r"), std::fclose);
  return {file ? PEM_read_X509(file.get(), nullptr, nullptr, nullptr) : nullptr, X509_free};
}

struct Verdict {
  int chain = X509_V_OK;
  bool signatureHolds = false;
};

class Verifier {
 public:
  explicit Verifier(const std::filesystem::path& anchorFile) {
    const CertificatePointer root = anchor(anchorFile);
    EXPECT_NE(root, nullptr);
    X509_STORE_add_cert(_anchors.get(), root.get());
    X509_VERIFY_PARAM_set_auth_level(X509_STORE_get0_param(_anchors.get()), 2);
    X509_VERIFY_PARAM_set_depth(X509_STORE_get0_param(_anchors.get()), 8);
  }

  Verdict judge(const Dictionary& response) const {
    std::vector<CertificatePointer> chain;
    const Array* certificates = response["certs"].array();
    if (certificates == nullptr || certificates->empty()) return {kNoCertificate, false};
    for (const Value& certificate : *certificates) {
      const unsigned char* bytes = certificate.data()->bytes();
      const unsigned char* const end = bytes + certificate.data()->length();
      chain.emplace_back(d2i_X509(nullptr, &bytes, end - bytes), X509_free);
      if (bytes != end) return {kNotWholeDER, false};
    }
    return {judgeChain(chain), signatureHolds(response, chain.front().get())};
  }

 private:
  int judgeChain(const std::vector<CertificatePointer>& chain) const {
    const std::unique_ptr<STACK_OF(X509), void (*)(STACK_OF(X509)*)> issuers(
        sk_X509_new_null(), [](STACK_OF(X509) * stack) { sk_X509_free(stack); });
    for (const CertificatePointer& certificate : chain) {
      sk_X509_push(issuers.get(), certificate.get());
    }
    const std::unique_ptr<X509_STORE_CTX, void (*)(X509_STORE_CTX*)> context(X509_STORE_CTX_new(),
                                                                             X509_STORE_CTX_free);
    X509_STORE_CTX_init(context.get(), _anchors.get(), chain.front().get(), issuers.get());
    if (X509_verify_cert(context.get()) != 1) return X509_STORE_CTX_get_error(context.get());
    const bool maySign = (X509_get_key_usage(chain.front().get()) & KU_DIGITAL_SIGNATURE) != 0;
    return maySign ? X509_V_OK : kMayNotSignDocuments;
  }

  static bool signatureHolds(const Dictionary& response, X509* leaf) {
    const Data* signature = response["signature"].data();
    const Data* bag = response["bag"].data();
    if (signature == nullptr || bag == nullptr) return false;
    EVP_PKEY* const key = X509_get0_pubkey(leaf);
    const EVP_MD* digest = EVP_PKEY_is_a(key, "ED25519") == 1 ? nullptr : EVP_sha256();
    // An RSA key does not say which padding its signatures have.
    for (const int padding : {RSA_PKCS1_PADDING, RSA_PKCS1_PSS_PADDING}) {
      const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(),
                                                                       EVP_MD_CTX_free);
      EVP_PKEY_CTX* keyContext = nullptr;
      EVP_DigestVerifyInit(context.get(), &keyContext, digest, nullptr, key);
      if (EVP_PKEY_is_a(key, "RSA") == 1) EVP_PKEY_CTX_set_rsa_padding(keyContext, padding);
      if (EVP_DigestVerify(context.get(), signature->bytes(), signature->length(), bag->bytes(),
                           bag->length()) == 1) {
        return true;
      }
    }
    return false;
  }

  const std::unique_ptr<X509_STORE, void (*)(X509_STORE*)> _anchors{X509_STORE_new(),
                                                                    X509_STORE_free};
};

class SignedBagTest : public ::testing::Test {
 protected:
  Verdict verdict(const std::string& staging) {
    running.stage(R"({"reset": true, "bag": )" + staging + "}");
    return Verifier(running.store->anchorFile()).judge(running.dictionary("/bag"));
  }

  RunningStore running;
};

TEST_F(SignedBagTest, GoodBagsVerifyWithEveryKindOfKeyAndInBothFormats) {
  for (const char* key : {"p256", "p384", "rsa", "rsa-pss", "ed25519"}) {
    for (const char* format : {"xml", "binary"}) {
      const Verdict good =
          verdict(std::string(R"({"key": ")") + key + R"(", "format": ")" + format + "\"}");
      EXPECT_EQ(good.chain, X509_V_OK) << key << ": " << X509_verify_cert_error_string(good.chain);
      EXPECT_TRUE(good.signatureHolds) << key << " " << format;
    }
  }
}

TEST_F(SignedBagTest, EachBadChainFailsForItsOwnReason) {
  const std::pair<const char*, std::vector<int>> kChains[] = {
      {"expired", {X509_V_ERR_CERT_HAS_EXPIRED}},
      {"not-yet-valid", {X509_V_ERR_CERT_NOT_YET_VALID}},
      {"self-signed", {X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT}},
      {"wrong-anchor",
       {X509_V_ERR_CERT_SIGNATURE_FAILURE, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY}},
      {"no-intermediate", {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY}},
      {"not-a-ca", {X509_V_ERR_INVALID_CA}},
      {"wrong-key-usage", {kMayNotSignDocuments}},
      {"weak-digest", {X509_V_ERR_CA_MD_TOO_WEAK}},
      {"short-key", {X509_V_ERR_EE_KEY_TOO_SMALL}},
      {"too-long", {X509_V_ERR_CERT_CHAIN_TOO_LONG, X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY}},
      {"trailing-byte", {kNotWholeDER}},
      {"empty", {kNoCertificate}},
  };
  for (const auto& [chain, reasons] : kChains) {
    const Verdict bad = verdict(std::string(R"({"chain": ")") + chain + "\"}");
    EXPECT_THAT(reasons, ::testing::Contains(bad.chain))
        << chain << ": " << X509_verify_cert_error_string(bad.chain);
    // The chain alone is what is wrong.
    EXPECT_EQ(bad.signatureHolds, bad.chain >= X509_V_OK || bad.chain == kMayNotSignDocuments)
        << chain;
  }
}

TEST_F(SignedBagTest, EachBadSignatureLeavesTheChainGood) {
  for (const char* staging :
       {R"({"signature": "flip"})", R"({"signature": "missing"})", R"({"signature": "wrong-key"})",
        R"({"signature": "empty"})", R"({"signature": "wrong-type"})", R"({"flipByte": 0})",
        R"({"flipByte": 500})"}) {
    const Verdict bad = verdict(staging);
    EXPECT_EQ(bad.chain, X509_V_OK) << staging;
    EXPECT_FALSE(bad.signatureHolds) << staging;
  }
}

TEST_F(SignedBagTest, KeysSurviveARestartAndNotAFreshOne) {
  const auto leaf = [&] { return running.dictionary("/bag")["certs"].array()->begin()[0]; };
  const Value before = leaf();
  running.restart(false);
  EXPECT_EQ(leaf(), before);
  EXPECT_TRUE(running.https->Get("/ping"));
  running.restart(true);
  EXPECT_FALSE(leaf() == before);
  EXPECT_EQ(verdict("{}").chain, X509_V_OK);
  EXPECT_TRUE(running.https->Get("/ping"));
}

}  // namespace
}  // namespace tallow::devstore
