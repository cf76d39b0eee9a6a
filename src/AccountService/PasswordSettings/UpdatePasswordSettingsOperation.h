#pragma once

#include <memory>
#include <optional>
#include <utility>

#include "platform/Base/Data.h"
#include "platform/Base/Value.h"
#include "platform/VendBase/HSStoreURLOperation.h"

namespace tallow {

// Sends new password settings to the store, which may have a person sign in first: the request is
// then sent again. Made for one change, run once on the main operation queue; keeps no place there
// while a person is asked. Errors: those of the requests, and kHSErrorInvalidResponse with the
// store's own words as title when it refuses.
class UpdatePasswordSettingsOperation final : public HSOperation {
 public:
  static constexpr const char* kClassName = "UpdatePasswordSettingsOperation";

  using HSOperation::HSOperation;

  // Set before it runs; readable as its sibling's are, though only the operation itself reads them.
  const std::optional<Dictionary>& passwordSettings() const { return _passwordSettings; }
  void setPasswordSettings(std::optional<Dictionary> settings) {
    _passwordSettings = std::move(settings);
  }

 protected:
  void run() override;

 private:
  // One request, and what takes in its answer.
  struct Request {
    std::shared_ptr<HSStoreURLOperation> operation;
    std::shared_ptr<HSPropertyListProvider> provider;
  };
  Request _newOperation() const;
  Data _requestBodyData() const;
  // Who has signed in for the request; nullopt for nobody.
  static std::optional<std::uint64_t> authenticatedDSID(const Request& request);
  void fail(std::optional<Error> error);

  std::optional<Dictionary> _passwordSettings;
};

}  // namespace tallow
