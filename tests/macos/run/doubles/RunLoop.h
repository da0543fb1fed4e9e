#pragma once

namespace doubles {

/// A distributed observer is there: the main run loop has a source.
bool mainRunLoopHasSource();
/// Posts to the centre of that name ("distributed", "local") on the calling thread.
void post(const char* center, const char* name);

}  // namespace doubles
