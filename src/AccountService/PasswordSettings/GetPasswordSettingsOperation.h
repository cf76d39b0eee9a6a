#pragma once

#include <memory>
#include <optional>

#include "platform/Base/Data.h"
#include "platform/Base/Value.h"
#include "platform/VendBase/HSStoreURLOperation.h"

namespace tallow {

// Asks the store for the account's password settings. Made for one request, run once on the main
// operation queue; read passwordSettings after it has finished. Errors: those of the request, and
// kHSErrorInvalidResponse for an answer that holds no settings.
class GetPasswordSettingsOperation final : public HSStoreURLOperation {
 public:
  static constexpr const char* kClassName = "GetPasswordSettingsOperation";

  using HSStoreURLOperation::HSStoreURLOperation;

  // Empty when the answer was a dictionary without settings, nil in any other failure.
  const std::optional<Dictionary>& passwordSettings() const { return _passwordSettings; }

 protected:
  void run() override;

 private:
  static Data _requestBodyData();
  void _takeOutput(HSStoreURLOperation& request, const Value& output);

  std::optional<Dictionary> _passwordSettings;
};

}  // namespace tallow
