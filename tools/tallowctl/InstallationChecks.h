#pragma once

#include "tools/tallowctl/Findings.h"

namespace tallow::ctl {

// Looks at what the service finds on this machine, through the classes by which it finds it, in
// the folders of Directories::shared(). None of it changes anything.

// The client descriptors, the programs that they name, and which running processes they match.
void checkClients(Findings& findings);
// Owners and modes of the service's folders, and of what lies in them. `owner`: the service's user.
void checkFolders(Findings& findings, unsigned owner);
// The trust anchors of signed bags, and their dates.
void checkAnchors(Findings& findings);
// The sandbox profile, and what of it this kernel enforces.
void checkSandbox(Findings& findings);
// The machine's date against those of the program's file and what the service has written.
void checkClock(Findings& findings);

}  // namespace tallow::ctl
