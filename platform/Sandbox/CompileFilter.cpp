// compile-filter: a step of the build. Compiles the system-call filter of the sandbox profile that
// is built in, and prints it as the definition of what BuiltInFilter.h declares.

#include <cstdio>

#include "platform/Base/Format.h"
#include "platform/Sandbox/SandboxProfile.h"
#include "platform/Sandbox/SystemCallFilter.h"

namespace tallow {
namespace {

int run() {
  const auto profile = SandboxProfile::parse(builtInSandboxProfile("com.vantor.tallowd"));
  const auto program =
      profile ? SystemCallFilter::compile({profile->allowedCalls, profile->refusedCalls,
                                           profile->socketFamilies, profile->mayListen})
              : Result<SystemCallFilter::Program>(profile.error());
  if (!program) {
    std::fprintf(stderr, "compile-filter: %s\n", format("%@", program.error()).c_str());
    return 1;
  }
  std::puts(
      "// Made by compile-filter.\n"
      "#include \"platform/Sandbox/BuiltInFilter.h\"\n\n"
      "namespace tallow {\n\n"
      "std::span<const std::uint64_t> builtInFilter() {\n"
      "  static constexpr std::uint64_t kProgram[] = {");
  for (const std::uint64_t instruction : *program)
    std::printf("      0x%llx,\n", static_cast<unsigned long long>(instruction));
  std::puts("  };\n  return kProgram;\n}\n\n}  // namespace tallow");
  return 0;
}

}  // namespace
}  // namespace tallow

int main() {
  return tallow::run();
}
