#include "devstore/Bytes.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

namespace tallow::devstore {

namespace {

const unsigned char* unsignedBytes(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

bool isAlphabet(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
         c == '/';
}

}  // namespace

std::string base64Text(const Data& bytes) {
  std::string text((bytes.length() + 2) / 3 * 4 + 1, '\0');  // the encoder ends with a NUL
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes.bytes(),
                                     static_cast<int>(bytes.length()));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

std::optional<Data> dataFromBase64(std::string_view text) {
  if (text.empty()) return Data();
  if (text.size() % 4 != 0 || text.size() > std::numeric_limits<int>::max()) return std::nullopt;
  const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with("=") ? 1 : 0;
  // The decoder itself skips white space, which would make the length a guess.
  if (!std::all_of(text.begin(), text.end() - static_cast<std::ptrdiff_t>(padding), isAlphabet)) {
    return std::nullopt;
  }
  std::vector<std::uint8_t> bytes(text.size() / 4 * 3);
  if (EVP_DecodeBlock(bytes.data(), unsignedBytes(text), static_cast<int>(text.size())) < 0) {
    return std::nullopt;
  }
  bytes.resize(bytes.size() - padding);
  return Data(std::move(bytes));
}

Data withFlippedBit(const Data& data, std::size_t index) {
  std::vector<std::uint8_t> bytes(data.span().begin(), data.span().end());
  if (index < bytes.size()) bytes[index] ^= 1;
  return Data(std::move(bytes));
}

}  // namespace tallow::devstore
