#pragma once

struct tallow_orv_library;

namespace tallow {

// The built-in library, for this machine, as a table of the C interface: reached as any other is,
// and by the same rules.
const tallow_orv_library* builtInOrvTable();

}  // namespace tallow
