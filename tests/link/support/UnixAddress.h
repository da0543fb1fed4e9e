#pragma once

#include <sys/un.h>

#include <algorithm>
#include <string>

namespace link_tests {

/// The socket address of a path, which must be short enough for one.
inline sockaddr_un unixAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy_n(path.c_str(), std::min(path.size(), sizeof address.sun_path - 1),
                static_cast<char*>(address.sun_path));
    return address;
}

}  // namespace link_tests
