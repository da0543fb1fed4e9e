#include "link/support/ForkedProcess.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <exception>
#include <system_error>

#include "link/support/AgentProcess.h"

namespace link_tests {

ForkedProcess::ForkedProcess(uid_t user, const std::function<void()>& body) : m_pid(::fork()) {
    if (m_pid < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (m_pid == 0) {
        try {
            becomeUser(user);
            // A change of user clears it.
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            body();
        } catch (const std::exception&) {
            ::_exit(1);
        }
        ::_exit(0);
    }
}

ForkedProcess::~ForkedProcess() {
    ::kill(m_pid, SIGKILL);
    ::waitpid(m_pid, nullptr, 0);
}

}  // namespace link_tests
