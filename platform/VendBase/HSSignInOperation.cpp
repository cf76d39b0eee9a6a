#include "platform/VendBase/HSSignInOperation.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "platform/Base/ASCII.h"
#include "platform/Base/Random.h"
#include "platform/Base/UTF8.h"
#include "platform/PropertyList/PropertyList.h"
#include "platform/VendBase/HSDevice.h"
#include "platform/VendBase/HSError.h"
#include "platform/VendBase/HSStoreURLOperation.h"
#include "platform/VendBase/StoreProtocolKeys.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

namespace {

// For the account service to take the account in: what any request has in whole.
constexpr double kPatienceSeconds = 60;

// What property lists can carry.
bool isText(std::string_view text) {
  return isValidUTF8(text) && std::none_of(text.begin(), text.end(), [](char c) {
           const auto byte = static_cast<unsigned char>(c);
           return byte < 0x20 && c != '\t';
         });
}

// Stands for the password in the list as it is encoded: nobody can guess it.
std::string placeholder() {
  std::array<std::uint8_t, 16> bytes{};
  Random::shared().fill(bytes);
  std::string text = "password-";
  ascii::appendHexadecimal(text, bytes);
  return text;
}

// `list` with `secret` in place of `mark`. Every buffer that the secret is in is wiped.
Data filledIn(const Data& list, std::string_view mark, const Secret& secret) {
  const std::string_view text = list.view();
  const std::size_t at = text.find(mark);
  std::size_t length = text.size() - mark.size();
  for (const char& c : secret.view()) length += ascii::markupOf(c).size();
  std::vector<std::uint8_t> bytes;
  bytes.reserve(length);  // once: no copy is left behind
  const auto add = [&](std::string_view part) {
    bytes.insert(bytes.end(), part.begin(), part.end());
  };
  add(text.substr(0, at));
  for (const char& c : secret.view()) add(ascii::markupOf(c));
  add(text.substr(at + mark.size()));
  return Data::wipedAfterUse(std::move(bytes));
}

}  // namespace

HSSignInOperation::HSSignInOperation(std::shared_ptr<const HSStoreClient> initWithStoreClient,
                                     HSAuthenticationContext context, std::string accountName,
                                     Secret password)
    : HSOperation(std::move(initWithStoreClient)),
      _context(std::move(context)),
      _accountName(std::move(accountName)),
      _password(std::move(password)) {}

void HSSignInOperation::run() {
  std::optional<Error> failure = _signIn();
  setSuccess(!failure);
  setError(std::move(failure));
}

std::optional<Error> HSSignInOperation::_signIn() {
  const std::optional<URL> url = urlForURLBagKey(kAuthenticateAccountBagKey);
  if (!url)
    return HSError(kHSErrorNoBagEntry, std::nullopt,
                   format("There is no URL under the bag key %@", kAuthenticateAccountBagKey));
  if (url->scheme() != "https") {
    logLevel(1, "%@: Not sending a password to %@", HSSignInOperation::kClassName, *url);
    return HSError(kHSErrorNotTrusted, std::nullopt, "The store asks for a password over http");
  }
  std::optional<Data> body = requestBody(_context, _accountName, _password);
  if (!body)
    return HSError(kHSErrorSignInRefused, "The name or the password has unusable characters in it.",
                   std::nullopt);
  const auto request = std::make_shared<HSStoreURLOperation>(storeClient());
  const auto provider = HSPropertyListProvider::providerWithStoreClient(storeClient());
  provider->setShouldProcessProtocol(false);
  HSURLRequest post(*url);
  post.method = "POST";
  post.headers = {{"Content-Type", kStoreContentType}};
  post.body = *std::move(body);
  request->setRequest(std::move(post));
  request->setNeedsAuthentication(false);
  request->setFollowsRedirects(false);  // a password goes to no second address
  request->setRequiredBagType(requiredBagType());
  request->setDataProvider(provider);
  std::optional<Error> error;
  if (!runSubOperation(*request, &error)) return error;
  return _takeIn(provider->output());
}

std::optional<Data> HSSignInOperation::requestBody(const HSAuthenticationContext& context,
                                                   const std::string& accountName,
                                                   const Secret& password) {
  if (!isText(accountName) || !isText(password.view())) return std::nullopt;
  const std::string mark = placeholder();
  const Dictionary body{{"guid", HSDevice::shared().guid()},
                        {"identifier", accountName},
                        {"password", mark},
                        {"reason", context.authenticationReason}};
  return filledIn(PropertyList::encode(body, PropertyList::Format::XML), mark, password);
}

Result<std::uint64_t> HSSignInOperation::dsIDFromAnswer(const Value& answer,
                                                        const HSAuthenticationContext& context) {
  const Dictionary all = answer.dictionary() != nullptr ? *answer.dictionary() : Dictionary();
  if (all.contains(kStoreFailureTypeKey)) {
    const auto words = all[kStoreCustomerMessageKey].stringOrNil();
    return HSError(kHSErrorSignInRefused,
                   words.value_or("The store does not accept this name and password."),
                   std::nullopt);
  }
  const std::optional<std::uint64_t> dsID = HSAuthenticationResponse(all).dsID();
  if (!dsID || (context.dsID && *context.dsID != *dsID))
    return HSError(
        kHSErrorInvalidResponse, std::nullopt,
        dsID ? "The store has signed another account in" : "The store's answer names no account");
  return *dsID;
}

std::optional<Error> HSSignInOperation::_takeIn(const Value& output) {
  const Result<std::uint64_t> dsID = dsIDFromAnswer(output, _context);
  if (!dsID) return dsID.error();
  const auto service = serviceProxy().accountService();
  const HSPendingReply<HSAccountService::Account> reply;
  if (service) {
    service->addAccountWithAuthenticationResponse(HSAuthenticationResponse(*output.dictionary()),
                                                  true, reply.callback());
  } else {
    reply.abandon();
  }
  if (!waitForReply(reply, kPatienceSeconds))
    return HSError(kHSErrorServiceUnavailable, std::nullopt, "The account service does not answer");
  _dsID = *dsID;
  return std::nullopt;
}

}  // namespace tallow
