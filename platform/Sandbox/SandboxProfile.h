#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Base/Result.h"
#include "platform/Sandbox/SandboxError.h"

namespace tallow {

// What a confined process may do, as its profile file says;
// packaging/sandbox/com.vantor.tallowd.toml documents the format. A plain value.
struct SandboxProfile {
  std::vector<std::filesystem::path> readPaths;
  std::vector<std::filesystem::path> writePaths;
  // Those of writePaths that are the service's own folders.
  std::vector<std::filesystem::path> ownFolders;
  bool mayListen = false;
  std::vector<std::string> socketFamilies;
  std::vector<std::string> allowedCalls;
  std::vector<std::string> refusedCalls;
  // Word for word the one that is built in.
  bool isBuiltIn = false;

  // The profile of that name: the file sandbox/NAME.toml in the first of the system's data
  // directories that has one, else the built-in one. Error domain "Sandbox".
  static Result<SandboxProfile> named(const std::string& name);
  // Reads the text of a profile file, with Directories::shared() for the variables in its paths.
  static Result<SandboxProfile> parse(std::string_view text);
};

// The text of the profile that is built in, empty for every other name. Its system-call filter is
// compiled when the program is built.
std::string_view builtInSandboxProfile(std::string_view name);

}  // namespace tallow
