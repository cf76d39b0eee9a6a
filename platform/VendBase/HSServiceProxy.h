#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "platform/VendBase/HSAccountService.h"
#include "platform/VendBase/HSDownloadService.h"
#include "platform/VendBase/HSStoreClient.h"
#include "platform/VendBase/HSTransactionService.h"

namespace tallow {

// The store library's way to the store's services on behalf of one client. Inside the daemon the
// account service is the daemon itself: an interface object of this proxy's own, whose operations
// never wait on the calling thread (HSAccountService.h). So code which holds a bag's queue or a
// registry lock can ask, and hand things in (cookies, a storefront), without locking itself up, as
// long as it does not wait for an answer that needs what it holds. Calls of one proxy run in order;
// calls of two proxies are independent of each other. Any thread may call.
class HSServiceProxy {
 public:
  explicit HSServiceProxy(std::shared_ptr<const HSStoreClient> initWithStoreClient);

  // Never null in the daemon; null in a process that has set no local account service.
  std::shared_ptr<HSAccountService> accountService();
  // The peers on the bus; never null. One may not be there when asked: then its reply says so.
  std::shared_ptr<HSDownloadService> downloadService();
  std::shared_ptr<HSTransactionService> transactionService();

  // Names the in-process account service: makes an interface object for a client. Set once, by the
  // service's host, before the first request (tests set a fake).
  using LocalAccountService =
      std::function<std::shared_ptr<HSAccountService>(std::shared_ptr<const HSStoreClient>)>;
  static LocalAccountService setLocalAccountService(LocalAccountService factory);  // the previous

  // What makes the peers. The process's shared ones lead to the bus.
  using Client = std::shared_ptr<const HSStoreClient>;
  using DownloadServices = std::function<std::shared_ptr<HSDownloadService>(Client)>;
  using TransactionServices = std::function<std::shared_ptr<HSTransactionService>(Client)>;

 private:
  const std::shared_ptr<const HSStoreClient> _storeClient;
  std::mutex _lock;
  std::shared_ptr<HSAccountService> _accountService;  // made on first use, under _lock
};

}  // namespace tallow
