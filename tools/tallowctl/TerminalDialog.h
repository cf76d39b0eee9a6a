#pragma once

#include "client/DialogAgent.h"

namespace tallow::ctl {

// Shows a store's dialog on the terminal that the person sits at, and asks there. Without a
// terminal the dialog is closed.
DialogAgent::Answer showOnTerminal(const DialogAgent::Dialog& dialog);

}  // namespace tallow::ctl
