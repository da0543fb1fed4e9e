#pragma once

#include <sys/types.h>

#include <string>

#include "platform/linux/process/FileDescriptor.h"

/// The right to set and clear one session's hint: a lock on a file in the user's runtime directory. Of two
/// lockers that are started at once the second ends again, since a screen is locked only once, and must not
/// clear the hint of the first. One thread.
class HintClaim {
public:
    /// Claims the hint of `session`, if nobody has: see held().
    explicit HintClaim(const std::string& session);

    bool held() const { return m_held; }
    /// Whether somebody set the hint who was killed before clearing it.
    bool isInherited() const;
    /// Writes down that the hint is ours to clear, or that it is not any more.
    void markSet() const;
    void markCleared() const;

private:
    void setSize(off_t size) const;

    platform::FileDescriptor m_file;
    bool m_held = false;
};
