#include "platform/linux/timezone/TimeZone.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "platform/linux/process/LocalTime.h"
#include "platform/linux/timezone/LinkChain.h"

namespace platform {
namespace {

// As containers are given a zone: the link beneath still names the zone of before. False where the kernel is
// too old to tell (before 5.8).
bool isMountedOver(const std::string& file) {
    struct statx status {};
    return statx(AT_FDCWD, file.c_str(), AT_NO_AUTOMOUNT, STATX_TYPE, &status) == 0 &&
           (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

}  // namespace

TimeZone readTimeZone(const std::string& path) {
    const LinkChain chain = followLinks(path);
    const bool named = chain.file.empty() || !isMountedOver(chain.file);
    return {named ? chain.zone : std::string(), readZoneRules(path)};
}

bool isSameZone(const TimeZone& one, const TimeZone& other) {
    const bool bothNamed = !one.name.empty() && !other.name.empty();
    return bothNamed ? one.name == other.name : one.rules == other.rules;
}

}  // namespace platform
