#pragma once

#include <memory>
#include <mutex>

#include "devstore/Endpoint.h"

namespace tallow::devstore {

// The password settings that the store keeps, for all its accounts together. Shared by the two
// endpoints; any thread.
class PasswordSettings {
 public:
  PasswordSettings();
  Dictionary get() const;
  // The settings that are not named stay.
  void change(const Dictionary& settings);

 private:
  mutable std::mutex _lock;
  Dictionary _settings;  // guarded by _lock
};

// Answers with the settings. No staging of its own.
class GetPasswordSettingsEndpoint final : public Endpoint {
 public:
  explicit GetPasswordSettingsEndpoint(std::shared_ptr<PasswordSettings> settings);
  Answer answer(const ReceivedRequest& request, const Settings* settings,
                PropertyList::Format format) override;

 private:
  const std::shared_ptr<PasswordSettings> _settings;
};

// Takes new settings from who has signed in: who comes with a token or the cookie that signing in
// sets. Everybody else is answered with a dialog to sign in. Staging says whether that is so.
class UpdatePasswordSettingsEndpoint final : public Endpoint {
 public:
  explicit UpdatePasswordSettingsEndpoint(std::shared_ptr<PasswordSettings> settings);
  std::shared_ptr<const Settings> readSettings(JSONReader& reader) const override;
  Answer answer(const ReceivedRequest& request, const Settings* settings,
                PropertyList::Format format) override;

 private:
  struct Staged;
  const std::shared_ptr<PasswordSettings> _settings;
};

}  // namespace tallow::devstore
