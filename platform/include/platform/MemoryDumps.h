#pragma once

namespace mirel {

/// Keeps the memory of this process, which will hold a PIN, out of core files, and out of the reach of other
/// processes of the user as far as the system can do that. As good as it goes: a failure is ignored. For
/// programs, which own their process. A function of the system, not handed down.
void forbidMemoryDumps() noexcept;

}  // namespace mirel
