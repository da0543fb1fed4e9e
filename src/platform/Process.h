#pragma once

namespace platform {

/// Puts in place what the process must have before its first thread starts: a closed standard output costs
/// the lines written to it, neither the process nor anything else that is written; and on Linux one that
/// nobody reads is never waited for, the signals that end the process wait for the main run loop, local time
/// follows the machine's zone, and all threads share one heap. Call once, first thing in `main`.
void prepareProcess() noexcept;

}  // namespace platform
