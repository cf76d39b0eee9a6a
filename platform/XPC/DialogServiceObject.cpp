#include "platform/XPC/DialogServiceObject.h"

#include <utility>

#include "platform/VendBase/HSDialogCenter.h"
#include "platform/XPC/AccountServiceObject.h"

namespace tallow {

DialogServiceObject::DialogServiceObject(sdbus::IConnection& connection, CallerTable& callers,
                                         bool isSession)
    : AdaptorInterfaces(connection, sdbus::ObjectPath{AccountServiceObject::kPath}),
      _callers(callers),
      _isSession(isSession) {
  registerAdaptor();
}

DialogServiceObject::~DialogServiceObject() {
  unregisterAdaptor();
}

void DialogServiceObject::registerDialogAgent(sdbus::Result<>&& result, sdbus::ObjectPath agent) {
  _callers.deliver(bus::currentMessage(getObject()), std::move(result), agent.size(),
                   [this, path = std::string(agent)](Caller& caller,
                                                     const std::shared_ptr<PendingReply<>>& reply) {
                     if (!_isSession) {
                       reply->fail(CallerTable::kAccessDenied,
                                   "The system-wide instance has nobody to show dialogs to.");
                     } else if (!caller.connection().mayShowDialogs) {
                       reply->fail(CallerTable::kAccessDenied,
                                   "This client may not show dialogs; see may-show-dialogs in "
                                   "tallowd-clients.d(5).");
                     } else if (!caller.setDialogAgentAt(path)) {
                       reply->fail(CallerTable::kLimitsExceeded, "too many dialog agents");
                     } else {
                       reply->answer();
                     }
                   });
}

void DialogServiceObject::unregisterDialogAgent(sdbus::Result<>&& result) {
  _callers.deliver(bus::currentMessage(getObject()), std::move(result), 0,
                   [](Caller& caller, const std::shared_ptr<PendingReply<>>& reply) {
                     caller.removeDialogAgent();
                     reply->answer();
                   });
}

void DialogServiceObject::answerDialog(sdbus::Result<>&& result, std::uint64_t number,
                                       std::int32_t button, std::string accountName,
                                       WireSecret password) {
  const std::size_t bytes = accountName.size() + password.value.view().size();
  _callers.deliver(
      bus::currentMessage(getObject()), std::move(result), bytes,
      [number, button, accountName = std::move(accountName), password = std::move(password)](
          Caller& caller, const std::shared_ptr<PendingReply<>>& reply) {
        if (accountName.size() > HSDialog::kMaxMessageBytes) {
          reply->fail(CallerTable::kInvalidArgs, "accountName: is longer than 1 KiB");
          return;
        }
        if (!password.refusal.empty()) {
          reply->fail(CallerTable::kInvalidArgs, "password: " + password.refusal);
          return;
        }
        HSDialogAnswer answer;
        if (button >= 0) answer.button = static_cast<std::size_t>(button);
        answer.accountName = accountName;
        answer.password = password.value;
        const RemoteDialogAgent* const agent = caller.dialogAgent();
        if (agent != nullptr &&
            HSDialogCenter::shared().answer(*agent, number, std::move(answer))) {
          reply->answer();
        } else {
          reply->fail(kNoSuchDialog, "No dialog of this number is open at this agent.");
        }
      });
}

}  // namespace tallow
