#pragma once

#include <string>
#include <string_view>

namespace tallow {

// The text of a key in the language of the person whom the service works for: gettext(3), domain
// "tallowd", by LANGUAGE, LC_ALL, LC_MESSAGES and LANG as the process was started with. English
// where there is no translation; the key itself where it is none of ours. Of a language whose
// locale is not installed on the machine only LANGUAGE counts. One language a process, whichever
// client the text is for. Any thread.
//
// Catalogs lie below "locale" in the first data directory that has such a folder, as
// LANGUAGE/LC_MESSAGES/tallowd.mo; po/ has their sources.
std::string MKLocalizedString(std::string_view key);

}  // namespace tallow
