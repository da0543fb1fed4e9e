#pragma once

namespace platform {

/// Opens /dev/null in the place of each closed one of standard input, output and error. A new descriptor gets
/// the lowest number that is free (open(2)), so the log file or a bus would otherwise get that of a closed
/// stream, and what is meant for the stream. Call while the process has one thread.
void occupyStandardStreams() noexcept;

}  // namespace platform
