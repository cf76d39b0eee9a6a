#include "src/AccountService/AccountServiceDelegate.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "platform/Base/Clock.h"
#include "platform/Base/Secret.h"
#include "platform/Certificates/HSCertificate.h"
#include "platform/Concurrency/MemoryPressure.h"
#include "platform/Concurrency/RunLoop.h"
#include "platform/Concurrency/WorkerPool.h"
#include "platform/Notifications/UserNotificationCenter.h"
#include "platform/Sandbox/Sandbox.h"
#include "platform/VendBase/ClientDescriptors.h"
#include "platform/VendBase/HSServiceProxy.h"
#include "platform/VendBase/VBLogManager.h"
#include "platform/XPC/ProcessInspector.h"
#include "src/AccountService/AccountServiceInterface.h"
#include "src/AccountService/IdleExit.h"
#include "src/AccountService/ServiceStatus.h"
#include "src/PushServiceStoreDispatch.h"

namespace tallow {

HSServiceDelegate::ClientInterfaceClass AccountServiceDelegate::clientInterfaceClass() const {
  return [](std::shared_ptr<const HSStoreClient> storeClient) {
    return std::make_shared<AccountServiceInterface>(std::move(storeClient));
  };
}

int runAccountService(int argc, const char* const* argv) {
  forbidCoreDumps();  // passwords and tokens pass through here
  // Who reads the log, or the other end of a socket, may go; that is told by the write's error.
  std::signal(SIGPIPE, SIG_IGN);
  if (argc == 2 && std::strcmp(argv[1], "inspector") == 0) ProcessInspector::serve();
  // Callers are recognised by their executables, which a confined process may not look at.
  if (!ProcessInspector::startHelper())
    logLevel(1, "%@: Callers cannot be recognised by their executables: %s",
             AccountServiceDelegate::kClassName, std::strerror(errno));
  MemoryPressure memoryPressure;
  char* sandboxError = nullptr;
  if (sandbox_init("com.vantor.tallowd", kSandboxNamed, &sandboxError) != 0) {
    std::fprintf(stderr, "sandbox_init: %s\n", sandboxError);
    sandbox_free_error(sandboxError);
    return -1;
  }
  const bool isDaemon = argc == 2 && std::strcmp(argv[1], "daemon") == 0;
  logLevel(3, "%s %@", "int main(int, const char **)", isDaemon ? "daemon" : "");

  // Before other threads start. Carried out by the run loop, which starts when all is made.
  std::optional<IdleExit> idleExit;
  RunLoop::main().onSignal(SIGTERM, [&idleExit] { idleExit->leaveNow(); });

  memoryPressure.watch(RunLoop::main());

  // The first to call will have to be recognised, and will wait for a bag to be checked: what that
  // takes is got ready while the bus is being reached.
  WorkerPool::shared().async(HSCertificate::prepare);
  WorkerPool::shared().async(
      [] { static_cast<void>(ClientDescriptors::shared().clientWithIdentifier("")); });

  AccountServiceDelegate delegate("AccountService");
  // The store library's own requests reach the service like anybody's, but inside the process.
  HSServiceProxy::setLocalAccountService(delegate.clientInterfaceClass());
  // What is shown in the store application's name is answered by the store agent's dispatch.
  UserNotificationCenter::setDelegateProvider(
      PushServiceStoreDispatch::kStoreApplicationIdentifier, [] {
        return PushServiceStoreDispatch::pushServiceStoreDispatchForClient(
            HSStoreClient::initWithStoreClientType(kHSStoreClientTypeStoreAgent));
      });

  const auto listener = isDaemon ? XPCListener::initWithMachServiceName("com.vantor.tallowd.daemon",
                                                                        XPCListener::Bus::System)
                                 : XPCListener::initWithMachServiceName("com.vantor.tallowd",
                                                                        XPCListener::Bus::Session);
  listener->setDelegate(&delegate);
  listener->setStatusProvider([isDaemon, startedAt = Clock::shared().monotonicSeconds()] {
    return serviceStatus(isDaemon, startedAt);
  });
  // Nobody can reach a service whose bus has gone; a new bus starts a new one.
  listener->setInvalidationHandler([] { RunLoop::main().stop(0); });
  if (const auto error = listener->resume()) {
    logLevel(1, "%@: Failed to publish the service: %@", AccountServiceDelegate::kClassName,
             *error);
    return 1;
  }
  idleExit.emplace(*listener, IdleExit::secondsFromEnvironment());
  logLevel(3, "starting runloop");
  const int status = RunLoop::main().run();
  // A run loop that ends is a failure, unless the service was no longer needed or told to stop.
  if (status != IdleExit::kLeft) std::exit(1);
  idleExit.reset();
  listener->stop();
  std::exit(0);
}

}  // namespace tallow
