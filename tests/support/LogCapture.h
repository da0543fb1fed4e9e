#pragma once

namespace fake {

/// For as long as it lives, the process's logger is a fresh one whose lines, without their time stamps, go to
/// the CallTrace. On both ends the logger is destroyed, so no other thread may log then.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
};

}  // namespace fake
