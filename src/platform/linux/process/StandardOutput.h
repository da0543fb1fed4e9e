#pragma once

namespace platform {

/// Has `std::cout` write to standard output only what that takes at once: lines that find a full pipe, or a
/// terminal that was stopped, are dropped, and those that come when it is read again are written. Errors lose
/// lines too, and never put the stream into a failed state.
///
/// A few thousand bytes are collected first, as the C library would; a terminal gets each line at once. What
/// is left is written when the process exits. Call once, before the process has a second thread.
void neverWaitForStandardOutput();

}  // namespace platform
