#include "link/support/SignalFlood.h"

#include <poll.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstddef>
#include <new>
#include <system_error>

#include "link/support/FakeDaemon.h"
#include "link/support/SdBus.h"

namespace link_tests {
namespace {

using Counter = std::atomic<std::uint64_t>;

/// One of the attacker's connections, and what it says again and again.
class Shouter {
public:
    Shouter(const std::string& busAddress, const std::vector<std::string>& victims)
        : m_bus(newClient(busAddress)) {
        check(sd_bus_start(m_bus.get()), "sd_bus_start");
        uniqueNameOf(m_bus.get());
        std::vector<std::string> receivers = victims;
        receivers.emplace_back();
        for (const std::string& receiver : receivers) {
            makeSignals(receiver);
        }
    }

    /// Says as much as the bus takes now, and gives what to wait for before it takes more.
    pollfd shout(Counter& sent) {
        while (sd_bus_process(m_bus.get(), nullptr) > 0) {
        }
        std::uint64_t unwritten = 0;
        while (sd_bus_get_n_queued_write(m_bus.get(), &unwritten) >= 0 && unwritten == 0) {
            check(sd_bus_send(m_bus.get(), m_signals[m_next].get(), nullptr), "sd_bus_send");
            m_next = (m_next + 1) % m_signals.size();
            ++sent;
        }
        return {sd_bus_get_fd(m_bus.get()), POLLIN | POLLOUT, 0};
    }

private:
    /// To everybody if `receiver` is empty.
    void makeSignals(const std::string& receiver) {
        const std::string text(SignalFlood::bytes, 'x');
        const char* const session = "/org/freedesktop/login1/session/31";
        check(sd_bus_message_append(
                  add(receiver, "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged"), "sss",
                  daemonName, text.c_str(), ""),
              "append");
        check(sd_bus_message_append(
                  add(receiver, session, "org.freedesktop.DBus.Properties", "PropertiesChanged"), "sa{sv}as",
                  "org.freedesktop.login1.Session", 2, "LockedHint", "b", 1, "Noise", "s", text.c_str(), 0),
              "append");
        check(sd_bus_message_append(add(receiver, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                                        "SessionRemoved"),
                                    "so", text.c_str(), session),
              "append");
    }
    sd_bus_message* add(const std::string& receiver, const char* path, const char* interface,
                        const char* member) {
        sd_bus_message* signal = nullptr;
        check(sd_bus_message_new_signal(m_bus.get(), &signal, path, interface, member), "new signal");
        m_signals.emplace_back(signal);
        if (!receiver.empty()) {
            check(sd_bus_message_set_destination(signal, receiver.c_str()), "set destination");
        }
        return signal;
    }

    BusHandle m_bus;
    std::vector<MessageHandle> m_signals;
    std::size_t m_next = 0;
};

void flood(const std::string& busAddress, const std::vector<std::string>& victims, Counter& sent) {
    std::vector<Shouter> shouters;
    for (std::size_t count = 0; count < SignalFlood::connections; ++count) {
        shouters.emplace_back(busAddress, victims);
    }
    for (;;) {
        std::vector<pollfd> descriptors;
        descriptors.reserve(shouters.size());
        for (Shouter& shouter : shouters) {
            descriptors.push_back(shouter.shout(sent));
        }
        ::poll(descriptors.data(), descriptors.size(), -1);
    }
}

Counter* sharedCounter() {
    void* const memory =
        ::mmap(nullptr, sizeof(Counter), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::system_error(errno, std::generic_category(), "mmap");
    }
    return new (memory) Counter(0);
}

}  // namespace

SignalFlood::SignalFlood(const std::string& busAddress, uid_t user, const std::vector<std::string>& victims)
    : m_sent(sharedCounter()), m_process(user, [&] { flood(busAddress, victims, *m_sent); }) {}

SignalFlood::~SignalFlood() {
    ::munmap(m_sent, sizeof *m_sent);
}

}  // namespace link_tests
