// Input: changes (FuzzWorld.h), and a store's answer with a signed bag. Over http a bag is accepted
// only if its chain leads to the anchor and its signature fits, as somebody else sees it who knows
// nothing but the cryptographic library; and then it is what was signed.

#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <fstream>
#include <memory>
#include <string_view>
#include <vector>

#include "fuzz/FuzzTarget.h"
#include "fuzz/FuzzWorld.h"
#include "fuzz/Require.h"
#include "fuzz/SameValue.h"
#include "src/Bag.h"

using namespace tallow;

namespace {

// Of the chains in the corpus.
constexpr std::string_view kAnchor = R"(-----BEGIN CERTIFICATE-----
MIIBWjCCAQCgAwIBAgIBATAKBggqhkjOPQQDAjAPMQ0wCwYDVQQDDARSb290MB4X
DTIzMTExNDIyMTMyMFoXDTMzMDUxODAzMzMyMFowDzENMAsGA1UEAwwEUm9vdDBZ
MBMGByqGSM49AgEGCCqGSM49AwEHA0IABNgGH66eewXXsqUNTQuZjpxw/ncm4FiY
V589qHdHEAUVWCZQ6DgxuKEXCMYKYV3fGKuiTWZQ3cr+I8k2504tOo6jTTBLMB0G
A1UdDgQWBBSRQgHG2iNmzJd4tjJcUsISExfKAzAJBgNVHSMEAjAAMA8GA1UdEwEB
/wQFMAMBAf8wDgYDVR0PAQH/BAQDAgEGMAoGCCqGSM49BAMCA0gAMEUCICiwHPJM
6/+NwaBf+bHhedzjMSUPjKqzmbDrCez8AkoyAiEA3PaSGdI9hq7B6RkGmM2Jt3P2
IuJVcdd4E+ucz0GK+9c=
-----END CERTIFICATE-----
)";

template <class T>
using Owned = std::unique_ptr<T, void (*)(T*)>;
using Certificate = Owned<X509>;

struct World : FuzzWorld {
  World() { std::ofstream(folder / "etc/anchors/root.pem") << kAnchor; }
  // Without an identifier nothing is written to disk.
  std::shared_ptr<Bag> bag = [] {
    auto made = client();
    made->identifier.reset();
    return Bag::initWithBagType(kBagTypeProduction, made, {});
  }();
};

Dictionary changed(const Dictionary& answer, const Changes& changes) {
  Dictionary result = answer;
  unsigned part = 0;
  for (const char* key : {"bag", "signature"}) {
    if (const Data* genuine = answer[key].data())
      result = result.setting(key, changes.applied(part, *genuine));
    ++part;
  }
  const Array* certificates = answer["certs"].array();
  if (certificates == nullptr) return result;
  std::vector<Value> list;
  for (const Value& certificate : *certificates) {
    const Data* genuine = certificate.data();
    list.push_back(genuine != nullptr ? Value(changes.applied(part, *genuine)) : certificate);
    ++part;
  }
  return result.setting("certs", Array(std::move(list)));
}

bool chainVerifies(const std::vector<Certificate>& chain, std::int64_t now) {
  const Owned<BIO> text(BIO_new_mem_buf(kAnchor.data(), static_cast<int>(kAnchor.size())),
                        BIO_free_all);
  const Certificate root(PEM_read_bio_X509(text.get(), nullptr, nullptr, nullptr), X509_free);
  const Owned<X509_STORE> anchors(X509_STORE_new(), X509_STORE_free);
  X509_STORE_add_cert(anchors.get(), root.get());
  const Owned<STACK_OF(X509)> issuers(sk_X509_new_null(),
                                      [](STACK_OF(X509) * stack) { sk_X509_free(stack); });
  for (const Certificate& each : chain) sk_X509_push(issuers.get(), each.get());
  const Owned<X509_STORE_CTX> context(X509_STORE_CTX_new(), X509_STORE_CTX_free);
  X509_STORE_CTX_init(context.get(), anchors.get(), chain.front().get(), issuers.get());
  X509_STORE_CTX_set_time(context.get(), 0, now);
  return X509_verify_cert(context.get()) == 1;
}

bool signatureVerifies(EVP_PKEY* key, const EVP_MD* digest, bool isPSS, const Data& signature,
                       const Data& bag) {
  const Owned<EVP_MD_CTX> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  EVP_PKEY_CTX* parameters = nullptr;
  if (EVP_DigestVerifyInit(context.get(), &parameters, digest, nullptr, key) != 1) return false;
  if (isPSS && (EVP_PKEY_CTX_set_rsa_padding(parameters, RSA_PKCS1_PSS_PADDING) != 1 ||
                EVP_PKEY_CTX_set_rsa_pss_saltlen(parameters, RSA_PSS_SALTLEN_AUTO) != 1))
    return false;
  return EVP_DigestVerify(context.get(), signature.bytes(), signature.length(), bag.bytes(),
                          bag.length()) == 1;
}

bool verifies(const Dictionary& answer, std::int64_t now) {
  std::vector<Certificate> chain;
  for (const Value& certificate : *answer["certs"].array()) {
    const unsigned char* bytes = certificate.data()->bytes();
    chain.emplace_back(d2i_X509(nullptr, &bytes, static_cast<long>(certificate.data()->length())),
                       X509_free);
    if (!chain.back()) return false;
  }
  if (chain.empty() || !chainVerifies(chain, now)) return false;
  EVP_PKEY* const key = X509_get0_pubkey(chain.front().get());
  const bool isRSA = EVP_PKEY_is_a(key, "RSA") == 1 || EVP_PKEY_is_a(key, "RSA-PSS") == 1;
  for (const EVP_MD* digest :
       {EVP_sha256(), EVP_sha384(), EVP_sha512(), static_cast<const EVP_MD*>(nullptr)})
    for (const bool isPSS : {false, true})
      if ((isRSA || !isPSS) &&
          signatureVerifies(key, digest, isPSS, *answer["signature"].data(), *answer["bag"].data()))
        return true;
  return false;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static World world;
  static const URL plain = *URL::parse("http://store.example/bag");
  std::span<const std::uint8_t> input(data, size);
  const Changes changes(input);
  const auto decoded = PropertyList::decode(Data(input));
  if (!decoded || decoded->dictionary() == nullptr) return 0;
  const Dictionary answer = changed(*decoded->dictionary(), changes);
  const Date now = world.clock.now();

  std::optional<Error> error;
  const auto accepted = world.bag->bagDictionaryWithServerResponseDictionary(
      answer, now.addingSeconds(60), plain, &error);
  REQUIRE(accepted.has_value() != error.has_value());
  REQUIRE(world.bag->isValid() == accepted.has_value());
  world.bag->invalidate();
  if (!accepted) return 0;
  REQUIRE(verifies(answer, static_cast<std::int64_t>(now.secondsSince1970)));
  REQUIRE(isSame(*PropertyList::decode(*answer["bag"].data()), *accepted));
  return 0;
}
