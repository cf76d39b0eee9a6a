#include "platform/Base/Error.h"

#include <utility>

namespace tallow {

namespace {

std::string domainAndCode(const Error& error) {
  return error.domain + " error " + std::to_string(error.code);
}

const std::string* givenDescription(const Error& error) {
  return error.userInfo[Error::kLocalizedDescriptionKey].string();
}

}  // namespace

std::string Error::localizedDescription() const {
  const std::string* given = givenDescription(*this);
  return given != nullptr ? *given : domainAndCode(*this);
}

Error makeError(std::string domain, std::int64_t code, std::string localizedDescription) {
  return Error{
      std::move(domain), code,
      Dictionary{{Error::kLocalizedDescriptionKey, Value(std::move(localizedDescription))}}};
}

std::string description(const Error& error) {
  const std::string* given = givenDescription(error);
  if (given == nullptr) return domainAndCode(error);
  return *given + " (" + domainAndCode(error) + ")";
}

}  // namespace tallow
