#include "platform/VendBase/HSServiceProxy.h"

#include <utility>

#include "platform/Base/SharedInstance.h"
#include "platform/XPC/RemoteDownloadService.h"
#include "platform/XPC/RemoteTransactionService.h"

namespace tallow {

namespace {

struct LocalServices {
  std::mutex lock;
  HSServiceProxy::LocalAccountService accountService;
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
  return SharedInstance<DownloadServices>::get([] {
    return std::make_unique<DownloadServices>(
        [](Client client) { return std::make_shared<RemoteDownloadService>(std::move(client)); });
  })(_storeClient);
}

std::shared_ptr<HSTransactionService> HSServiceProxy::transactionService() {
  return SharedInstance<TransactionServices>::get([] {
    return std::make_unique<TransactionServices>([](Client client) {
      return std::make_shared<RemoteTransactionService>(std::move(client));
    });
  })(_storeClient);
}

HSServiceProxy::LocalAccountService HSServiceProxy::setLocalAccountService(
    LocalAccountService factory) {
  LocalServices& services = localServices();
  const std::lock_guard guard(services.lock);
  return std::exchange(services.accountService, std::move(factory));
}

}  // namespace tallow
