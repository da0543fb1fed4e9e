#include "link/support/BareReader.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <system_error>

#include "link/support/SdBus.h"

namespace link_tests {
namespace {

void readFor(const std::string& busAddress, int toldTo) {
    const BusHandle bus = newClient(busAddress);
    check(sd_bus_start(bus.get()), "sd_bus_start");
    const std::string name = uniqueNameOf(bus.get());
    if (::write(toldTo, name.data(), name.size()) < 0) {
        throw std::system_error(errno, std::generic_category(), "write");
    }
    ::close(toldTo);
    for (;;) {
        if (check(sd_bus_process(bus.get(), nullptr), "sd_bus_process") == 0) {
            check(sd_bus_wait(bus.get(), UINT64_MAX), "sd_bus_wait");
        }
    }
}

}  // namespace

BareReader::BareReader(const std::string& busAddress) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    m_process = std::make_unique<ForkedProcess>(::geteuid(), [&] {
        ::close(ends[0]);
        readFor(busAddress, ends[1]);
    });
    ::close(ends[1]);
    std::array<char, 256> name{};
    const ssize_t length = ::read(ends[0], name.data(), name.size());
    ::close(ends[0]);
    if (length <= 0) {
        throw std::runtime_error("the bare reader did not come to the bus");
    }
    m_uniqueName.assign(name.data(), static_cast<std::size_t>(length));
}

}  // namespace link_tests
