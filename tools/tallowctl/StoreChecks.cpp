#include "tools/tallowctl/StoreChecks.h"

#include <cmath>
#include <future>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/Base/AtomicFile.h"
#include "platform/Base/Clock.h"
#include "platform/Base/Format.h"
#include "platform/Cookies/CookieDate.h"
#include "platform/HTTP/HTTPTransport.h"
#include "platform/Preferences/Preferences.h"
#include "platform/VendBase/ClientDescriptor.h"
#include "platform/VendBase/ClientDescriptors.h"
#include "platform/VendBase/DefaultsKeys.h"
#include "platform/VendBase/RecentFailures.h"

namespace tallow::ctl {

namespace {

constexpr const char* kStoreArea = "store";
constexpr double kConnectSeconds = 5;
constexpr std::size_t kMostAtOnce = 16;
constexpr double kTotalSeconds = 10;
// Beyond it signatures and tokens are judged wrongly.
constexpr double kToleratedClockSeconds = 300;

// Whose addresses they are, by address.
using Addresses = std::map<std::string, std::string>;

void addAddresses(const std::vector<URL>& urls, const std::string& owner, Addresses& addresses) {
  for (const URL& url : urls) {
    std::string& owners = addresses[url.absoluteString()];
    owners += (owners.empty() ? "" : ", ") + owner;
  }
}

// As the loading of a bag would try them: what the preferences name comes first, for every client.
Addresses bootstrapAddresses() {
  Addresses addresses;
  for (const char* const key : {kDefaultsBagURLKey, kDefaultsSandboxBagURLKey}) {
    const Value value = Preferences::shared().copyAppValue(key, kDaemonDefaultsID);
    if (const std::string* const text = value.string())
      if (const auto url = URL::parse(*text))
        addAddresses({*url}, std::string("preference ") + key, addresses);
  }
  for (const auto& [file, descriptor] : ClientDescriptors::installed()) {
    if (!descriptor || !*descriptor || !(*descriptor)->client) continue;
    const HSStoreClient& client = *(*descriptor)->client;
    addAddresses(client.productionBagURLs, *client.identifier, addresses);
    addAddresses(client.sandboxBagURLs, *client.identifier + " (sandbox)", addresses);
  }
  return addresses;
}

Result<HTTPResponse> ask(const URL& url) {
  HTTPRequest request(url);
  request.bypassCaches = true;
  request.connectTimeoutSeconds = kConnectSeconds;
  request.totalTimeoutSeconds = kTotalSeconds;
  return HTTPTransport::shared().perform(std::move(request));
}

void compareClocks(const std::string& address, const HTTPResponse& response, Findings& findings) {
  const auto header = response.header("Date");
  const auto date = header ? parseCookieDate(*header) : std::nullopt;
  if (!date) return;
  const double ahead = Clock::shared().now().secondsSince(*date);
  if (std::abs(ahead) <= kToleratedClockSeconds) return;
  findings.problem("clock",
                   format("the machine's clock is %.0f s %s that of %@", std::abs(ahead),
                          ahead > 0 ? "ahead of" : "behind", address),
                   "Set the machine's clock: certificates, bags and cookies are judged by it.");
}

void judge(const std::string& address, const std::string& owners,
           const Result<HTTPResponse>& answer, Findings& findings) {
  const std::string name = address + " (" + owners + ")";
  if (!answer) {
    const FailureKind kind = failureKindOf(answer.error());
    findings.problem(kStoreArea,
                     name + ": " + nameOf(kind) + ": " + answer.error().localizedDescription(),
                     adviceFor(kind));
    return;
  }
  if (answer->statusCode >= 200 && answer->statusCode < 400)
    findings.fine(kStoreArea, format("%@ answers", name));
  else
    findings.problem(kStoreArea, format("%@ answers with status %d", name, answer->statusCode),
                     "Compare the address with what the store publishes; else ask the store.");
  compareClocks(address, *answer, findings);
}

}  // namespace

void checkStores(Findings& findings) {
  const Addresses addresses = bootstrapAddresses();
  for (auto next = addresses.begin(); next != addresses.end();) {
    auto judged = next;
    std::vector<std::future<Result<HTTPResponse>>> answers;
    for (; next != addresses.end() && answers.size() < kMostAtOnce; ++next)
      answers.push_back(
          std::async(std::launch::async, [url = *URL::parse(next->first)] { return ask(url); }));
    for (auto& answer : answers) {
      judge(judged->first, judged->second, answer.get(), findings);
      ++judged;
    }
  }
  if (addresses.empty())
    findings.note(kStoreArea, "no client names an address to load its bag from",
                  "Write production-bag-urls into its descriptor: tallowd-clients.d(5).");
}

}  // namespace tallow::ctl
