#include "link/support/TempDirectory.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace link_tests {

TempDirectory::TempDirectory()
    // Under /tmp, so that socket paths stay short and the other users reach them.
    : m_path("/tmp/velm-link-XXXXXX") {
    if (::mkdtemp(m_path.data()) == nullptr || ::chmod(m_path.c_str(), 0755) != 0) {
        throw std::system_error(errno, std::generic_category(), m_path);
    }
}

TempDirectory::~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

}  // namespace link_tests
