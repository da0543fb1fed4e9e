#pragma once

namespace cmn {

/// Asks the platform to end the calling thread's timed waits when they are due. Linux otherwise lets the
/// waits of an ordinary thread run on for up to 50 us, to end several with one wake-up; a thread that only
/// waits for its own times gains nothing by that. Threads that the caller starts later inherit it. Where the
/// platform has no such setting for a thread, nothing happens; a failure is not reported, the waits just stay
/// as they are.
void waitPunctually() noexcept;

}  // namespace cmn
