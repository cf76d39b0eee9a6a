#include "platform/XPC/RemoteTransactionService.h"

#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/VendBase/HSError.h"
#include "platform/XPC/PeerConnection.h"

namespace tallow {

namespace {

constexpr PeerConnection::Address kTransactionService = {
    "transaction service", RemoteTransactionService::kName, "/com/vantor/transactionservice",
    "com.vantor.HSTransactionService"};

// The clients that are asked for, each as often as it is.
struct Questions {
  std::mutex lock;
  std::multiset<std::string> clients;
  std::function<void()> ended;
};

Questions& questions() {
  static Questions& shared = *new Questions;
  return shared;
}

// One that lasts as long as its last reference; null when too many are open.
std::shared_ptr<void> questionFor(const std::string& client) {
  const std::lock_guard guard(questions().lock);
  std::multiset<std::string>& clients = questions().clients;
  if (clients.size() >= RemoteTransactionService::kMaxQuestions ||
      clients.count(client) >= RemoteTransactionService::kMaxQuestionsOfClient)
    return nullptr;
  const auto asked = clients.insert(client);
  return {&questions(), [asked](void*) {
            const std::lock_guard lock(questions().lock);
            questions().clients.erase(asked);
            if (questions().ended) questions().ended();
          }};
}

}  // namespace

bool RemoteTransactionService::isAskedFor(const std::string& identifier) {
  const std::lock_guard guard(questions().lock);
  return questions().clients.contains(identifier);
}

void RemoteTransactionService::setQuestionEndedHandler(std::function<void()> handler) {
  const std::lock_guard guard(questions().lock);
  questions().ended = std::move(handler);
}

RemoteTransactionService::RemoteTransactionService(std::shared_ptr<const HSStoreClient> storeClient)
    : _storeClient(std::move(storeClient)) {}

void RemoteTransactionService::dsidByAuthenticatingWithContext(HSAuthenticationContext context,
                                                               Reply reply) {
  using Answer = std::function<void(std::optional<Error>, bool, std::vector<std::uint64_t>,
                                    std::vector<WireError>)>;
  const std::string client = _storeClient ? _storeClient->identifier.value_or("") : "";
  auto question = questionFor(client);
  if (!question) {
    if (reply)
      reply(false, std::nullopt,
            HSError(kHSErrorServiceUnavailable, std::nullopt, "Too many sign-ins wait already"));
    return;
  }
  PeerConnection::call<bool, std::vector<std::uint64_t>, std::vector<WireError>>(
      kTransactionService, "dsidByAuthenticatingWithContext", kPatience,
      Answer([reply = std::move(reply), question = std::move(question)](
                 std::optional<Error> absent, bool success, const std::vector<std::uint64_t>& dsID,
                 const std::vector<WireError>& error) {
        if (!reply) return;
        if (!absent && !error.empty()) absent = error.front().value;
        reply(success, dsID.empty() ? std::nullopt : std::optional(dsID.front()),
              std::move(absent));
      }),
      client, wire::dictionary(context.dictionaryRepresentation()));
}

}  // namespace tallow
