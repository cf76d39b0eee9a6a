#include "platform/Orv/OrvCrypto.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace tallow {
namespace {

using OrvCrypto::Bytes;

std::vector<std::uint8_t> fromHex(std::string_view text) {
  std::vector<std::uint8_t> bytes;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2)
    bytes.push_back(
        static_cast<std::uint8_t>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16)));
  return bytes;
}

Bytes bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// RFC 6238 appendix B, the SHA-256 rows.
TEST(OrvCryptoTest, PasswordsAreThoseOfTheStandard) {
  const struct {
    std::uint64_t seconds;
    const char* password;
  } kVectors[] = {{59, "46119246"},         {1111111109, "68084774"}, {1111111111, "67062674"},
                  {1234567890, "91819424"}, {2000000000, "90698825"}, {20000000000, "77737706"}};
  for (const auto& [seconds, password] : kVectors)
    EXPECT_EQ(
        OrvCrypto::timeBasedPassword(bytesOf("12345678901234567890123456789012"), seconds / 30, 8),
        password)
        << seconds;
}

// RFC 5869 appendix A, case 1.
TEST(OrvCryptoTest, DerivedKeysAreThoseOfTheStandard) {
  const std::vector<std::uint8_t> input(22, 0x0b);
  const auto expected = fromHex(
      "3cb25f25faacd57a90434f64d0362f2a2d2d0a90cf1a5a4c5db02d56ecc4c5bf34007208d5b887185865");
  std::vector<std::uint8_t> output(expected.size());
  OrvCrypto::hkdf(input, fromHex("000102030405060708090a0b0c"), fromHex("f0f1f2f3f4f5f6f7f8f9"),
                  output);
  EXPECT_EQ(output, expected);
}

// RFC 7748 section 5.2 (once), and keys that would make the secret known to everybody.
TEST(OrvCryptoTest, AgreementIsThatOfTheStandardAndRefusesKeysWithoutSecret) {
  OrvCrypto::Key nine;
  nine.writable()[0] = 9;
  const auto known = OrvCrypto::agree(nine, OrvCrypto::PublicKey{9});
  ASSERT_TRUE(known);
  EXPECT_TRUE(OrvCrypto::areEqual(
      known->span(), fromHex("422c8e7a6227d7bca1350b3e2bb7279f7897b87bb6854b783c60e80311ae3079")));
  const OrvCrypto::KeyPair one = OrvCrypto::makeKeyPair(), other = OrvCrypto::makeKeyPair();
  const auto a = OrvCrypto::agree(one.privateKey, other.publicKey);
  const auto b = OrvCrypto::agree(other.privateKey, one.publicKey);
  ASSERT_TRUE(a && b);
  EXPECT_TRUE(OrvCrypto::areEqual(a->span(), b->span()));
  OrvCrypto::PublicKey low{};
  EXPECT_FALSE(OrvCrypto::agree(one.privateKey, low));
  low[0] = 1;
  EXPECT_FALSE(OrvCrypto::agree(one.privateKey, low));
}

TEST(OrvCryptoTest, WhatIsSealedOpensWholeOrNotAtAll) {
  OrvCrypto::Key key, otherKey;
  otherKey.writable()[0] = 1;
  for (const char* plain : {"", "x", "forty-two bytes are quite enough for this"}) {
    const Data sealed = OrvCrypto::seal(key, bytesOf("with"), bytesOf(plain));
    EXPECT_NE(sealed, OrvCrypto::seal(key, bytesOf("with"), bytesOf(plain)))
        << "a nonce of its own";
    const auto opened = OrvCrypto::open(key, bytesOf("with"), sealed.span());
    ASSERT_TRUE(opened);
    EXPECT_EQ(std::string(opened->begin(), opened->end()), plain);
    EXPECT_FALSE(OrvCrypto::open(otherKey, bytesOf("with"), sealed.span()));
    EXPECT_FALSE(OrvCrypto::open(key, bytesOf("without"), sealed.span()));
    for (std::size_t i = 0; i < sealed.length(); ++i) {
      std::vector<std::uint8_t> damaged(sealed.span().begin(), sealed.span().end());
      damaged[i] ^= 0x10;
      EXPECT_FALSE(OrvCrypto::open(key, bytesOf("with"), damaged));
      EXPECT_FALSE(OrvCrypto::open(key, bytesOf("with"), sealed.span().first(i)));
    }
  }
}

}  // namespace
}  // namespace tallow
