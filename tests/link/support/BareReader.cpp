#include "link/support/BareReader.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <system_error>

#include "link/support/SdBus.h"

namespace link_tests {
namespace {

void readFor(const std::string& busAddress, int toldTo) {
    sd_bus* bus = nullptr;
    check(sd_bus_new(&bus), "sd_bus_new");
    const BusHandle handle(bus);
    check(sd_bus_set_address(bus, busAddress.c_str()), "sd_bus_set_address");
    check(sd_bus_set_bus_client(bus, 1), "sd_bus_set_bus_client");
    check(sd_bus_start(bus), "sd_bus_start");
    const char* name = nullptr;
    check(sd_bus_get_unique_name(bus, &name), "sd_bus_get_unique_name");
    if (::write(toldTo, name, std::strlen(name)) < 0) {
        throw std::system_error(errno, std::generic_category(), "write");
    }
    ::close(toldTo);
    for (;;) {
        if (check(sd_bus_process(bus, nullptr), "sd_bus_process") == 0) {
            check(sd_bus_wait(bus, UINT64_MAX), "sd_bus_wait");
        }
    }
}

}  // namespace

BareReader::BareReader(const std::string& busAddress) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    m_process = ::fork();
    if (m_process == 0) {
        try {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::close(ends[0]);
            readFor(busAddress, ends[1]);
        } catch (const std::exception&) {
            ::_exit(1);  // nobody answers then, which the test sees
        }
    }
    ::close(ends[1]);
    std::array<char, 256> name{};
    const ssize_t length = ::read(ends[0], name.data(), name.size());
    ::close(ends[0]);
    if (length <= 0) {
        throw std::runtime_error("the bare reader did not come to the bus");
    }
    m_uniqueName.assign(name.data(), static_cast<std::size_t>(length));
}

BareReader::~BareReader() {
    if (m_process > 0) {
        ::kill(m_process, SIGKILL);
        ::waitpid(m_process, nullptr, 0);
    }
}

}  // namespace link_tests
