#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>

#include "platform/Base/Directories.h"
#include "platform/PropertyList/JSON.h"
#include "tools/tallowctl/Application.h"
#include "tools/tallowctl/BusFilesCheck.h"
#include "tools/tallowctl/InstallationChecks.h"
#include "tools/tallowctl/StoreChecks.h"

namespace tallow::ctl {

namespace {

constexpr const char* kServiceArea = "service";

// Where the unit of the system-wide instance lets it keep things: tallowd-daemon.service.
void useFoldersOfSystemInstance() {
  Directories folders = Directories::shared();
  folders.configHome = "/var/lib/tallowd/config/tallowd";
  folders.dataHome = "/var/lib/tallowd/data/tallowd";
  folders.stateHome = "/var/lib/tallowd";
  folders.cacheHome = "/var/cache/tallowd";
  folders.configDirs.front() = folders.configHome;
  folders.dataDirs.front() = folders.dataHome;
  Directories::shared() = folders;
}

std::vector<std::filesystem::path> dataRoots() {
  std::vector<std::filesystem::path> roots;
  for (const auto& folder : Directories::shared().dataDirs) roots.push_back(folder.parent_path());
  return roots;
}

// Calls the service, which starts it.
bool checkService(const Application& application, Findings& findings) {
  AccountServiceClient client(application.instance());
  const auto text = client.describe();
  if (!text) {
    const bool isRefused = text.error().code == AccountServiceClient::kRefused;
    if (isTurnedAwayByBus(text.error()))
      findings.problem(kServiceArea, text.error().localizedDescription(), adviceFor(text.error()));
    else if (isRefused)
      findings.note(kServiceArea, text.error().localizedDescription(),
                    "Describe tallowctl as a client: tallowd-clients.d(5).");
    else
      findings.problem(kServiceArea, text.error().localizedDescription(),
                       "Is a message bus running, and is tallowd installed for it? tallowd(8).");
    return isRefused;
  }
  const auto status = JSON::decode(*text);
  const Dictionary* const told = status ? status->dictionary() : nullptr;
  const std::string* const version = told != nullptr ? (*told)["version"].string() : nullptr;
  if (version == nullptr || *version != TALLOW_VERSION)
    findings.note(kServiceArea,
                  "the service that runs is of version " +
                      (version != nullptr ? *version : "unknown") + ", tallowctl of " +
                      TALLOW_VERSION,
                  application.instance() == AccountServiceClient::Instance::Daemon
                      ? "Let the service start anew: systemctl restart tallowd-daemon.service."
                      : "Let the service start anew: systemctl --user restart tallowd.service.");
  else
    findings.fine(kServiceArea, "it answers, version " + *version);
  return true;
}

int show(const Output& output, const Findings& findings, bool isVerbose) {
  const std::size_t problems = findings.problemCount();
  if (output.isJSON()) {
    output.value(Dictionary{{"problems", problems}, {"findings", findings.rows()}});
  } else {
    for (const Value& row : findings.rows()) {
      const Dictionary& finding = *row.dictionary();
      const std::string& severity = *finding["severity"].string();
      if (severity == "fine" && !isVerbose) continue;
      output.line(severity + ": " + *finding["area"].string() + ": " + *finding["what"].string());
      if (!finding["advice"].string()->empty()) output.line("    " + *finding["advice"].string());
    }
    output.line(problems == 0 ? "No problem found." : std::to_string(problems) + " problems.");
  }
  return problems == 0 ? kDone : kServiceSaidNo;
}

int examine(const Application& application, bool asksStores, bool isVerbose) {
  const bool isSystem = application.instance() == AccountServiceClient::Instance::Daemon;
  const passwd* const serviceUser = isSystem ? getpwnam("tallowd") : nullptr;
  const unsigned owner = serviceUser != nullptr ? serviceUser->pw_uid : getuid();
  if (isSystem) useFoldersOfSystemInstance();

  Findings findings;
  const bool hasServiceFile = BusFilesCheck(isSystem, dataRoots()).run(findings);
  const bool answers = checkService(application, findings);
  if (!hasServiceFile && !answers)
    findings.problem("bus", "no folder of the bus has a service file for tallowd",
                     "Install the package tallowd, or cmake --install to a prefix of the bus.");
  checkClients(findings);
  checkFolders(findings, owner);
  checkAnchors(findings);
  checkSandbox(findings);
  checkClock(findings);
  if (asksStores) checkStores(findings);
  return show(application.output(), findings, isVerbose);
}

}  // namespace

void addDoctorCommands(Application& application) {
  auto isOffline = std::make_shared<bool>(false);
  auto isVerbose = std::make_shared<bool>(false);
  CLI::App* const doctor = application.add(application.root(), "doctor",
                                           "Look over the installation and say what to mend",
                                           [&application, isOffline, isVerbose] {
                                             return examine(application, !*isOffline, *isVerbose);
                                           });
  doctor->add_flag("--offline", *isOffline, "Do not ask the store's addresses");
  doctor->add_flag("--verbose", *isVerbose, "Show what is as it should be, too");
}

}  // namespace tallow::ctl
