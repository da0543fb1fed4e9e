#include "HintClaim.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace {

std::string runtimeDirectory() {
    const char* const directory = std::getenv("XDG_RUNTIME_DIR");
    return directory != nullptr ? directory : "/run/user/" + std::to_string(getuid());
}

}  // namespace

HintClaim::HintClaim(const std::string& session)
    : m_file(open((runtimeDirectory() + "/velm-locked-hint." + session).c_str(),
                  O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)) {
    // Without such a directory nobody else can have claimed it either.
    m_held = !m_file || flock(m_file.get(), LOCK_EX | LOCK_NB) == 0;
}

bool HintClaim::isInherited() const {
    struct stat status {};
    return m_file && fstat(m_file.get(), &status) == 0 && status.st_size > 0;
}

void HintClaim::markSet() const {
    setSize(1);
}

void HintClaim::markCleared() const {
    setSize(0);
}

void HintClaim::setSize(off_t size) const {
    if (ftruncate(m_file.get(), size) != 0) {
        // A successor takes the hint for that of somebody else then.
        return;
    }
}
