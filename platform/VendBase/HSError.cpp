#include "platform/VendBase/HSError.h"

#include <utility>

namespace tallow {

Error HSError(std::int64_t code, std::optional<std::string> title,
              std::optional<std::string> message) {
  const std::optional<std::string>& forPeople = message ? message : title;
  // A nil value leaves its key out.
  return Error{kHSErrorDomain, code,
               Dictionary{{Error::kLocalizedDescriptionKey, forPeople},
                          {kHSErrorTitleKey, title},
                          {kHSErrorMessageKey, message}}};
}

}  // namespace tallow
