#include "devstore/AuthenticateEndpoint.h"

#include <openssl/evp.h>

#include <array>
#include <charconv>
#include <optional>
#include <string>

#include "devstore/JSONReader.h"

namespace tallow::devstore {

namespace {

struct AuthenticateSettings final : Endpoint::Settings {
  std::optional<std::string> password;
  std::optional<std::string> dsID;
  std::optional<std::string> credit;
};

Answer refusal(const char* failureType, const char* message, PropertyList::Format format) {
  return Answer::propertyList(
      Dictionary{{"failureType", failureType}, {"customerMessage", message}}, format);
}

std::uint64_t dsIDForName(const std::string& name) {
  std::uint64_t dsID = 0;
  const auto [end, failure] = std::from_chars(name.data(), name.data() + name.size(), dsID);
  if (failure == std::errc() && dsID != 0) return dsID;
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  EVP_Digest(name.data(), name.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
  for (std::size_t i = 0; i < 4; ++i) dsID = dsID << 8 | digest[i];
  return dsID | 1;
}

}  // namespace

std::shared_ptr<const Endpoint::Settings> AuthenticateEndpoint::readSettings(
    JSONReader& reader) const {
  auto settings = std::make_shared<AuthenticateSettings>();
  settings->password = reader.string("password");
  settings->dsID = reader.string("dsid");
  settings->credit = reader.string("credit");
  return settings;
}

Answer AuthenticateEndpoint::answer(const ReceivedRequest& request, const Settings* settings,
                                    PropertyList::Format format) {
  const auto* staged = static_cast<const AuthenticateSettings*>(settings);
  const auto body = PropertyList::decode(request.body);
  const Dictionary asked =
      body && body->dictionary() != nullptr ? *body->dictionary() : Dictionary();
  const std::string* name = asked["identifier"].string();
  const std::string* password = asked["password"].string();
  if (request.method != "POST" || name == nullptr || password == nullptr)
    return refusal("incomplete", "Name and password are needed.", format);
  if (*password != (staged != nullptr ? staged->password.value_or(kPassword) : kPassword))
    return refusal("wrong-password", "The account name or the password is wrong.", format);
  const std::string dsID =
      staged != nullptr && staged->dsID ? *staged->dsID : std::to_string(dsIDForName(*name));
  Answer answer = Answer::propertyList(
      Dictionary{{"status", 0},
                 {"dsPersonId", dsID},
                 {"identifier", *name},
                 {"token", "token-" + dsID + '-' + std::to_string(++_tokens)},
                 {"storefront", "143441-1,29"},
                 {"creditDisplay", staged != nullptr ? staged->credit.value_or("$0.00") : "$0.00"}},
      format);
  answer.addHeader("Set-Cookie", "account-session=" + dsID + "; Path=/; HttpOnly");
  return answer;
}

}  // namespace tallow::devstore
