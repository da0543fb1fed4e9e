#include "platform/SystemLog.h"

#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <string>

namespace platform {
namespace {

std::string oneLine(const char* text, const char* path) {
    std::string line = std::string(text) + path;
    std::replace(line.begin(), line.end(), '\n', ' ');
    return line;
}

}  // namespace

void writeSystemLog(const char* text, const char* path) {
    std::string line = oneLine(text, path);
    // syslog(3) itself says nothing when nobody listens. Writing to both would show the line twice in a
    // journal.
    if (access("/dev/log", W_OK) == 0) {
        openlog("velmmonitord", LOG_PID, LOG_USER);
        syslog(LOG_ERR, "%s", line.c_str());
        closelog();
        return;
    }
    line += '\n';
    // One call, so that the line stays whole among those of others; where it fails there is nobody left to
    // tell.
    if (write(STDERR_FILENO, line.data(), line.size()) < 0) {
        return;
    }
}

}  // namespace platform
