#include "devstore/PasswordSettingsEndpoint.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "devstore/JSONReader.h"

namespace tallow::devstore {

namespace {

enum class SignIn { Never, WhenNeeded, Always };

constexpr int kRefused = 5001;
constexpr int kSignInNeeded = 5002;

// What AuthenticateEndpoint sets.
constexpr std::string_view kSessionCookie = "account-session=";

bool hasSignedIn(const ReceivedRequest& request) {
  if (request.header("X-Vantor-Token") != nullptr) return true;
  const std::string* const cookies = request.header("Cookie");
  return cookies != nullptr && cookies->find(kSessionCookie) != std::string::npos;
}

Answer refusal(int type, const std::string& words, PropertyList::Format format) {
  return Answer::propertyList(Dictionary{{"failureType", type}, {"customerMessage", words}},
                              format);
}

Answer signInDialog(const std::string& accountName, PropertyList::Format format) {
  const Dictionary dialog{
      {"message", "Sign in to change your password settings"},
      {"explanation", "Changing how purchases are confirmed needs your password."},
      {"buttons", Array{"Sign In", Dictionary{{"title", "Cancel"}, {"dismisses", true}}}},
      {"signIn", Dictionary{{"accountName", accountName}}}};
  return Answer::propertyList(
      Dictionary{{"dialog", dialog},
                 {"failureType", kSignInNeeded},
                 {"customerMessage", "Your password settings have not been changed."}},
      format);
}

}  // namespace

PasswordSettings::PasswordSettings()
    : _settings{{"freeDownloads", "always"}, {"purchases", "after-15-minutes"}} {}

Dictionary PasswordSettings::get() const {
  const std::lock_guard guard(_lock);
  return _settings;
}

void PasswordSettings::change(const Dictionary& settings) {
  const std::lock_guard guard(_lock);
  _settings = _settings.merging(settings);
}

GetPasswordSettingsEndpoint::GetPasswordSettingsEndpoint(std::shared_ptr<PasswordSettings> settings)
    : _settings(std::move(settings)) {}

Answer GetPasswordSettingsEndpoint::answer(const ReceivedRequest&, const Settings*,
                                           PropertyList::Format format) {
  return Answer::propertyList(Dictionary{{"passwordSettings", _settings->get()}}, format);
}

struct UpdatePasswordSettingsEndpoint::Staged final : Settings {
  SignIn signIn = SignIn::WhenNeeded;
  std::string accountName;
  std::optional<std::string> refusal;
};

UpdatePasswordSettingsEndpoint::UpdatePasswordSettingsEndpoint(
    std::shared_ptr<PasswordSettings> settings)
    : _settings(std::move(settings)) {}

std::shared_ptr<const Endpoint::Settings> UpdatePasswordSettingsEndpoint::readSettings(
    JSONReader& reader) const {
  auto staged = std::make_shared<Staged>();
  staged->signIn = reader
                       .choice<SignIn>("signIn", {{"never", SignIn::Never},
                                                  {"when-needed", SignIn::WhenNeeded},
                                                  {"always", SignIn::Always}})
                       .value_or(SignIn::WhenNeeded);
  staged->accountName = reader.string("accountName").value_or("");
  staged->refusal = reader.string("refusal");
  return staged;
}

Answer UpdatePasswordSettingsEndpoint::answer(const ReceivedRequest& request,
                                              const Settings* settings,
                                              PropertyList::Format format) {
  const auto* const given = static_cast<const Staged*>(settings);
  const Staged staged = given != nullptr ? *given : Staged();
  if (staged.refusal) return refusal(kRefused, *staged.refusal, format);
  if (staged.signIn == SignIn::Always ||
      (staged.signIn == SignIn::WhenNeeded && !hasSignedIn(request)))
    return signInDialog(staged.accountName, format);
  const Result<Value> body = PropertyList::decode(request.body);
  const Dictionary* const sent = body ? body->dictionary() : nullptr;
  const Dictionary* const changed =
      sent != nullptr ? (*sent)["passwordSettings"].dictionary() : nullptr;
  if (changed == nullptr)
    return refusal(kRefused, "The store does not know this machine and changes nothing.", format);
  _settings->change(*changed);
  return Answer::propertyList(Dictionary{{"status", 0}}, format);
}

}  // namespace tallow::devstore
