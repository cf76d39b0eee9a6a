#pragma once

#include <string>

#include "bus/com.vantor.HSDialogService_adaptor.h"
#include "platform/XPC/CallerTable.h"

namespace tallow {

// The part of the object /com/vantor/tallowd where programs that show dialogs register and answer.
// Owned by the listener; called on the reading thread.
class DialogServiceObject final
    : public sdbus::AdaptorInterfaces<com::vantor::HSDialogService_adaptor> {
 public:
  static constexpr const char* kNoSuchDialog = "com.vantor.Error.NoSuchDialog";

  // `isSession`: whether there is a person on this bus.
  DialogServiceObject(sdbus::IConnection& connection, CallerTable& callers, bool isSession);
  ~DialogServiceObject();
  DialogServiceObject(const DialogServiceObject&) = delete;
  DialogServiceObject& operator=(const DialogServiceObject&) = delete;

 private:
  void registerDialogAgent(sdbus::Result<>&& result, sdbus::ObjectPath agent) override;
  void unregisterDialogAgent(sdbus::Result<>&& result) override;
  void answerDialog(sdbus::Result<>&& result, std::uint64_t number, std::int32_t button,
                    std::string accountName, WireSecret password) override;

  CallerTable& _callers;
  const bool _isSession;
};

}  // namespace tallow
