#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/Base/Result.h"
#include "platform/Base/Secret.h"
#include "platform/VendBase/HSAuthenticationContext.h"
#include "platform/VendBase/HSOperation.h"

namespace tallow {

// Proves to the store who somebody is: sends account name and password to the address that the bag
// has under "authenticateAccount", over https only, and hands the store's answer to the account
// service, as the new primary account. Run as a step of the operation that asked the person.
//
// Errors, beside those of the request: kHSErrorSignInRefused with the store's own words as title,
// when it does not believe it; kHSErrorNotTrusted for an address that is not https;
// kHSErrorInvalidResponse for an answer without a DSID, or with another than the context wants.
class HSSignInOperation final : public HSOperation {
 public:
  static constexpr const char* kClassName = "HSSignInOperation";  // in log lines

  HSSignInOperation(std::shared_ptr<const HSStoreClient> initWithStoreClient,
                    HSAuthenticationContext context, std::string accountName, Secret password);

  // Whose account it is, after success.
  std::optional<std::uint64_t> dsID() const { return _dsID; }

  // The two halves of the exchange, for programs that carry it out by themselves. The request's
  // body, which is wiped after use; nothing for characters that cannot be sent.
  static std::optional<Data> requestBody(const HSAuthenticationContext& context,
                                         const std::string& accountName, const Secret& password);
  // Whom the store's answer names; the errors above.
  static Result<std::uint64_t> dsIDFromAnswer(const Value& answer,
                                              const HSAuthenticationContext& context);

 protected:
  void run() override;

 private:
  std::optional<Error> _signIn();
  std::optional<Error> _takeIn(const Value& output);

  const HSAuthenticationContext _context;
  const std::string _accountName;
  const Secret _password;
  std::optional<std::uint64_t> _dsID;
};

}  // namespace tallow
