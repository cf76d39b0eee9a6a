#pragma once

#include <string>

#include "platform/Base/Value.h"

namespace tallow {

// What is shown to the person at the desktop: two texts and two buttons. A plain value. All texts
// are plain text; an empty button title shows no such button.
struct UserNotification {
  // The poster's own; comes back with what the person does. Its "Source", a string, says what kind
  // of notification this is.
  Dictionary userInfo;
  std::string title;
  std::string informativeText;
  std::string actionButtonTitle;
  std::string otherButtonTitle;  // closes
};

inline std::string description(const UserNotification& notification) {
  return "<UserNotification \"" + notification.title + "\" " + description(notification.userInfo) +
         ">";
}

}  // namespace tallow
