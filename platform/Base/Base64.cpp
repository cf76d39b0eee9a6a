#include "platform/Base/Base64.h"

#include <openssl/evp.h>

#include <algorithm>
#include <limits>
#include <vector>

namespace tallow {

std::string base64Encode(const Data& data) {
  return base64Encode(data.span());
}

std::string base64Encode(std::span<const std::uint8_t> bytes) {
  if (bytes.size() > std::numeric_limits<int>::max() / 2) return {};
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');  // the library ends it with a NUL
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes.data(),
                                     static_cast<int>(bytes.size()));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

std::optional<Data> base64Decode(std::string_view text) {
  if (text.empty()) return Data();
  if (text.size() % 4 != 0 || text.size() > std::numeric_limits<int>::max() / 2)
    return std::nullopt;
  // The library trims white space and accepts padding anywhere; this format has neither.
  const std::size_t padding = text.ends_with("==") ? 2 : (text.ends_with('=') ? 1 : 0);
  const auto isAlphabet = [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/';
  };
  if (!std::all_of(text.begin(), text.end() - static_cast<std::ptrdiff_t>(padding), isAlphabet))
    return std::nullopt;
  std::vector<std::uint8_t> bytes(text.size() / 4 * 3);
  const int length =
      EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(text.data()),
                      static_cast<int>(text.size()));
  if (length < 0) return std::nullopt;
  bytes.resize(static_cast<std::size_t>(length) - padding);
  return Data(std::move(bytes));
}

}  // namespace tallow
