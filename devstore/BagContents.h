#pragma once

#include <string>

#include "platform/Base/Value.h"

namespace tallow::devstore {

enum class BagEnvironment { Production, Sandbox };

// The URLs and policy values that the store's bag publishes; every URL begins with `base`.
Dictionary bagContents(BagEnvironment environment, const std::string& base);

}  // namespace tallow::devstore
