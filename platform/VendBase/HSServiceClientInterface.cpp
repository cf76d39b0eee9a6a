#include "platform/VendBase/HSServiceClientInterface.h"

#include <utility>

#include "platform/VendBase/HSOperation.h"

namespace tallow {

namespace {

std::string queueLabel(const HSStoreClient* client) {
  const std::string whose = client == nullptr ? "(null)" : client->identifier.value_or("(null)");
  return "Client Interface Request Queue (" + whose + ")";
}

}  // namespace

HSServiceClientInterface::HSServiceClientInterface(std::shared_ptr<const HSStoreClient> storeClient)
    : _storeClient(std::move(storeClient)), _requestQueue(queueLabel(_storeClient.get())) {}

HSServiceClientInterface::~HSServiceClientInterface() {
  for (const auto& each : _operations)
    if (const auto operation = each.lock()) operation->cancel();
}

void HSServiceClientInterface::cancelWithCaller(const std::shared_ptr<HSOperation>& operation) {
  std::erase_if(_operations, [](const auto& each) { return each.expired(); });
  _operations.push_back(operation);
}

}  // namespace tallow
