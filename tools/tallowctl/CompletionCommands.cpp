#include <cstdio>
#include <memory>
#include <string>

#include "tools/tallowctl/Application.h"
#include "tools/tallowctl/Completions.h"

namespace tallow::ctl {

// For the build, which installs what it prints; not shown among the commands.
void addCompletionCommands(Application& application) {
  auto shell = std::make_shared<std::string>();
  CLI::App* const completion = application.add(
      application.root(), "completion", "Print the script by which a shell completes this command",
      [&application, shell] {
        const Completions completions(application.root());
        const std::string script = *shell == "bash"  ? completions.bash()
                                   : *shell == "zsh" ? completions.zsh()
                                                     : completions.fish();
        std::fputs(script.c_str(), stdout);
        return int{kDone};
      });
  completion->group("");
  completion->add_option("SHELL", *shell)
      ->required()
      ->check(CLI::IsMember({"bash", "zsh", "fish"}));
}

}  // namespace tallow::ctl
