#pragma once

#include <string>
#include <vector>

#include "link/support/Await.h"

namespace link_tests {

/// The receiving end of a system log: what arrives at a datagram socket, as a program's syslog(3) sends it.
class SystemLogSocket : public Pumped {
public:
    explicit SystemLogSocket(const std::string& path);
    ~SystemLogSocket() override;
    SystemLogSocket(const SystemLogSocket&) = delete;
    SystemLogSocket& operator=(const SystemLogSocket&) = delete;

    const std::vector<std::string>& lines() const { return m_lines; }
    void pump() override;

private:
    int m_socket;
    std::vector<std::string> m_lines;
};

}  // namespace link_tests
