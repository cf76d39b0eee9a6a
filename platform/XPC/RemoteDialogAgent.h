#pragma once

#include <string>

#include "platform/VendBase/HSDialogCenter.h"

namespace tallow {

// The com.vantor.HSDialogAgent that a caller exports. Any thread.
class RemoteDialogAgent final : public HSDialogAgent,
                                public std::enable_shared_from_this<RemoteDialogAgent> {
 public:
  RemoteDialogAgent(std::string uniqueName, std::string path, std::string client);

  const std::string& client() const override { return _client; }
  // A call that fails is a dismissal.
  void showDialog(std::uint64_t number, const HSDialog& dialog) override;
  void dismissDialog(std::uint64_t number) override;

 private:
  const std::string _uniqueName;
  const std::string _path;
  const std::string _client;
};

}  // namespace tallow
