#include "platform/VendBase/HSServiceProxy.h"

#include <utility>

#include "platform/XPC/RemoteDownloadService.h"
#include "platform/XPC/RemoteTransactionService.h"

namespace tallow {

namespace {

struct LocalServices {
  std::mutex lock;
  HSServiceProxy::LocalAccountService accountService;
  HSServiceProxy::Peers peers;
};

LocalServices& localServices() {
  static LocalServices& services = *new LocalServices;
  return services;
}

HSServiceProxy::LocalAccountService localAccountService() {
  LocalServices& services = localServices();
  const std::lock_guard guard(services.lock);
  return services.accountService;
}

HSServiceProxy::Peers peersInPlace() {
  LocalServices& services = localServices();
  const std::lock_guard guard(services.lock);
  return services.peers;
}

}  // namespace

HSServiceProxy::HSServiceProxy(std::shared_ptr<const HSStoreClient> initWithStoreClient)
    : _storeClient(std::move(initWithStoreClient)) {}

std::shared_ptr<HSAccountService> HSServiceProxy::accountService() {
  const std::lock_guard guard(_lock);
  if (!_accountService) {
    const LocalAccountService factory = localAccountService();
    if (!factory) return nullptr;
    _accountService = factory(_storeClient);
  }
  return _accountService;
}

std::shared_ptr<HSDownloadService> HSServiceProxy::downloadService() {
  if (const auto replacement = peersInPlace().downloadService) return replacement(_storeClient);
  return std::make_shared<RemoteDownloadService>(_storeClient);
}

std::shared_ptr<HSTransactionService> HSServiceProxy::transactionService() {
  if (const auto replacement = peersInPlace().transactionService) return replacement(_storeClient);
  return std::make_shared<RemoteTransactionService>(_storeClient);
}

HSServiceProxy::Peers HSServiceProxy::setPeers(Peers peers) {
  LocalServices& services = localServices();
  const std::lock_guard guard(services.lock);
  return std::exchange(services.peers, std::move(peers));
}

HSServiceProxy::LocalAccountService HSServiceProxy::setLocalAccountService(
    LocalAccountService factory) {
  LocalServices& services = localServices();
  const std::lock_guard guard(services.lock);
  return std::exchange(services.accountService, std::move(factory));
}

}  // namespace tallow
