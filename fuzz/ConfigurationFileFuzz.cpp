// The files that people write, all in one language: a client descriptor that is accepted names
// nobody by nothing and no file outside its folders, a sandbox profile no path that is not
// absolute, and an administrator's preferences can be kept and sent like any others.

#include <algorithm>
#include <string_view>

#include "fuzz/FuzzTarget.h"
#include "fuzz/FuzzWorld.h"
#include "fuzz/Require.h"
#include "platform/Preferences/TOML.h"
#include "platform/Sandbox/SandboxProfile.h"
#include "platform/VendBase/ClientDescriptor.h"

using namespace tallow;

namespace {

void checkDescriptor(std::string_view text) {
  const auto descriptor = ClientDescriptor::parse(text, "fuzz.toml");
  if (!descriptor) {
    REQUIRE(descriptor.error().localizedDescription().starts_with("fuzz.toml: line "));
    return;
  }
  REQUIRE(!descriptor->matches(ProcessIdentity()));
  ProcessIdentity stranger;
  stranger.executable = "/usr/bin/a program that no descriptor in the corpus names";
  stranger.systemUnit = stranger.userUnit = stranger.flatpak = stranger.securityLabel = "stranger";
  REQUIRE(text.find("stranger") != std::string_view::npos || text.find('\\') != text.npos ||
          !descriptor->matches(stranger));
  if (!descriptor->client) return;
  const HSStoreClient& client = *descriptor->client;
  for (const std::string& name :
       {client.identifier.value_or(""), client.appPreferencesDomain, client.agentPreferencesDomain})
    REQUIRE(isSafePathComponent(name));
  for (const auto* urls : {&client.productionBagURLs, &client.sandboxBagURLs})
    for (const URL& url : *urls)
      REQUIRE(!url.host().empty() && (url.scheme() == "https" || url.scheme() == "http"));
}

void checkProfile(std::string_view text) {
  const auto profile = SandboxProfile::parse(text);
  if (!profile) return;
  for (const auto* paths : {&profile->readPaths, &profile->writePaths})
    REQUIRE(std::all_of(paths->begin(), paths->end(),
                        [](const auto& path) { return path.is_absolute(); }));
  for (const std::string& call : profile->refusedCalls)
    REQUIRE(std::find(profile->allowedCalls.begin(), profile->allowedCalls.end(), call) ==
            profile->allowedCalls.end());
}

void checkPreferences(std::string_view text) {
  const auto values = TOML::decode(text);
  if (!values) return;
  const auto kept = PropertyList::decode(encoded(*values));
  REQUIRE(kept && encoded(*kept) == encoded(*values));
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const FuzzWorld world;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  checkDescriptor(text);
  checkProfile(text);
  checkPreferences(text);
  return 0;
}
