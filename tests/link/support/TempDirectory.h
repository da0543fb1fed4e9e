#pragma once

#include <string>

namespace link_tests {

/// A directory of its own, open to all users, that is removed with all its contents at the end.
class TempDirectory {
public:
    TempDirectory();
    ~TempDirectory();
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

}  // namespace link_tests
