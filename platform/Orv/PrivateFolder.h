#pragma once

#include <filesystem>

namespace tallow {

// Makes the folder and missing parents with mode 0700, or takes an existing one that belongs to
// this process's user and that nobody else may write to. False where there is none. Any thread.
bool ensurePrivateFolder(const std::filesystem::path& folder);

}  // namespace tallow
