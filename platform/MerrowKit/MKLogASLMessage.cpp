#include "platform/MerrowKit/MKLogASLMessage.h"

#include "platform/VendBase/VBLogManager.h"

namespace tallow {

void MKLogASLMessage(const std::string& event, const Dictionary& arguments) {
  VBLogManager::sharedManager().logEvent(event, arguments);
}

}  // namespace tallow
