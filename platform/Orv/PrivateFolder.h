#pragma once

#include <filesystem>

namespace tallow {

// Makes the folder and missing parents, or takes an existing one that belongs to this process's
// user, and sees to it that nobody else may enter it (mode 0700). False where that cannot be. Any
// thread.
bool ensurePrivateFolder(const std::filesystem::path& folder);

}  // namespace tallow
