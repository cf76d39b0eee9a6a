#include <vector>

#include "platform/PropertyList/JSON.h"
#include "tools/tallowctl/Application.h"

namespace tallow::ctl {

namespace {

// The number that stands for the machine without an account.
const Value kAnonymous = Value(UINT64_MAX);

int showIdentities(const Output& output, const std::string& text) {
  const Result<Value> status = JSON::decode(text);
  const Dictionary* const told = status ? status->dictionary() : nullptr;
  const Array* const identities = told == nullptr ? nullptr : (*told)["identities"].array();
  if (identities == nullptr)
    return output.failure(makeError("tallowctl", 1, "The service's status is not readable"));
  if (output.isJSON()) {
    output.value(Dictionary{{"identities", *identities},
                            {"library", (*told)["identityLibrary"]},
                            {"syncState", (*told)["identitySyncState"]}});
    return kDone;
  }
  std::vector<Value> rows;
  for (const Value& identity : *identities) {
    const Dictionary* const row = identity.dictionary();
    if (row == nullptr) continue;
    rows.emplace_back((*row)["dsid"] == kAnonymous ? row->setting("dsid", "anonymous") : *row);
  }
  output.table(Array(std::move(rows)));
  if (const std::string* const library = (*told)["identityLibrary"].string())
    output.line("Library: " + *library);
  else
    output.line("An exchange with the store is going on.");
  if ((*told)["identitySyncState"] == Value(true))
    output.line("The state of a synchronisation is held.");
  return kDone;
}

}  // namespace

void addIdentityCommands(Application& application) {
  application.add(application.root(), "identity",
                  "Show for which accounts this machine is known to the store", [&application] {
                    return application.withClient([&](AccountServiceClient& client) {
                      return application.show(client.describe(), [&](const std::string& text) {
                        return showIdentities(application.output(), text);
                      });
                    });
                  });
}

}  // namespace tallow::ctl
