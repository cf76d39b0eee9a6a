#pragma once

#include <filesystem>
#include <optional>

#include "platform/Base/Result.h"

struct tallow_orv_library;

namespace tallow {

// A machine-identity library in a file of its own. Callable from any thread.
namespace OrvLibraryFile {

// The library that the administrator names: kDefaultsMachineIdentityLibraryKey in the daemon's
// domain of the system's own preferences, wherever the environment says that preferences are.
// nullopt where none is named; an error where there is a file that cannot be read or understood, or
// that others than root could have written: what it names is then not known.
Result<std::optional<std::filesystem::path>> administratorsChoice(
    const std::filesystem::path& folder = "/etc/xdg/tallowd/preferences");

// Why the file is not to be loaded, where it is not: what runs with the service's rights must lie
// where only root can put it or replace it, folder by folder.
std::optional<Error> objectionTo(const std::filesystem::path& file);

// Loads it, for the life of the process, if there is nothing against it. Error domain
// OrvLibrary::kErrorDomain, code kOrvNoLibrary.
Result<const tallow_orv_library*> load(const std::filesystem::path& file);

// The same without asking who could have written it.
Result<const tallow_orv_library*> loadUnchecked(const std::filesystem::path& file);

}  // namespace OrvLibraryFile

}  // namespace tallow
