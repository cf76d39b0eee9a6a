#include "platform/MerrowKit/MKLocalizedString.h"

#include <libintl.h>
#include <locale.h>

#include <array>
#include <filesystem>
#include <system_error>
#include <utility>

#include "platform/Base/Directories.h"

namespace tallow {

namespace {

constexpr const char* kDomain = "tallowd";

// The English texts, from which po/tallowd.pot is kept: each is the message, its key the context.
constexpr std::array<std::pair<std::string_view, std::string_view>, 4> kTexts = {{
    {"AUTO_PUSH_FIRST_BUY_NOTIFICATION_TITLE", "Automatic Downloads"},
    {"AUTO_PUSH_FIRST_BUY_NOTIFICATION_BODY",
     "Would you like new purchases made on your other devices to be downloaded to this computer "
     "automatically?"},
    {"AUTO_PUSH_FIRST_BUY_NOTIFICATION_ACTION_BUTTON", "Turn On"},
    {"AUTO_PUSH_FIRST_BUY_NOTIFICATION_CLOSE_BUTTON", "Not Now"},
}};

// What separates a message from its context in a catalog (gettext manual, section 11.2.5).
constexpr char kContextEnd = '\004';

// The folder of the catalogs, found once: the installation does not move while the program runs.
bool findCatalogs() {
  for (const std::filesystem::path& folder : Directories::shared().dataDirs) {
    std::error_code ignored;
    if (!std::filesystem::is_directory(folder / "locale", ignored)) continue;
    bindtextdomain(kDomain, (folder / "locale").c_str());
    bind_textdomain_codeset(kDomain, "UTF-8");
    return true;
  }
  return false;
}

// The person's language for this thread only: numbers and the rest of the program stay as they are.
class InPersonsLanguage {
 public:
  InPersonsLanguage() : _previous(uselocale(locale())) {}
  ~InPersonsLanguage() { uselocale(_previous); }
  InPersonsLanguage(const InPersonsLanguage&) = delete;
  InPersonsLanguage& operator=(const InPersonsLanguage&) = delete;

 private:
  static locale_t locale() {
    static const locale_t made = [] {
      const locale_t persons = newlocale(LC_MESSAGES_MASK, "", nullptr);
      // A language that is not installed leaves the variables to be looked at all the same.
      return persons != nullptr ? persons : newlocale(LC_MESSAGES_MASK, "C.UTF-8", nullptr);
    }();
    return made;
  }
  const locale_t _previous;
};

}  // namespace

std::string MKLocalizedString(std::string_view key) {
  for (const auto& [known, english] : kTexts) {
    if (known != key) continue;
    static const bool hasCatalogs = findCatalogs();
    if (!hasCatalogs) return std::string(english);
    const std::string message = std::string(key) + kContextEnd + std::string(english);
    const InPersonsLanguage language;
    const char* const text = dgettext(kDomain, message.c_str());
    return text == message.c_str() ? std::string(english) : std::string(text);
  }
  return std::string(key);
}

}  // namespace tallow
