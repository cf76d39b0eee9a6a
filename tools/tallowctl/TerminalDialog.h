#pragma once

#include <memory>

#include "client/DialogAgent.h"

namespace tallow::ctl {

class Application;

// Shows a store's dialog on the terminal that the person sits at, and asks there. Without a
// terminal the dialog is closed.
DialogAgent::Answer showOnTerminal(const DialogAgent::Dialog& dialog);

// Has the store's dialogs shown so while it lives. Null where there is no terminal, with the
// system-wide instance, which asks nobody, and, said on the output, where the service refuses.
std::unique_ptr<DialogAgent> showDialogsOnTerminal(const Application& application);

}  // namespace tallow::ctl
