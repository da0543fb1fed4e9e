// What an agent lives beside: logind with one session of this user, and the management daemon, on the bus
// that DBUS_SYSTEM_BUS_ADDRESS names. Usage: bench_world WHAT [NUMBER]
//
//   absent           plays logind alone: nobody has the daemon's name
//   serve            plays both until its standard input ends; confirms every connect, and says so
//   latency NUMBER   the same, then so many lock changes, one by one: each from the signal to the receipt
//   burst NUMBER     the same, then so many at once: until the daemon has received them all
//   messages NUMBER  the same, then so many messages to the agent: until it has taken them all
//
// latency and burst wait for a client to be up, which shows in that the daemon receives a change; so they
// measure clients that never connect as well. How many were received in all, these too, is told as well.

#include <poll.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/Report.h"

namespace {

using bench::Clock;
using namespace std::chrono_literals;

constexpr const char* managerPath = "/org/freedesktop/login1";
constexpr const char* sessionPath = "/org/freedesktop/login1/session/_31";
constexpr const char* sessionInterface = "org.freedesktop.login1.Session";
constexpr auto patience = 60s;

int must(int result, const char* what) {
    if (result < 0) {
        throw std::runtime_error(std::string(what) + ": " + std::strerror(-result));
    }
    return result;
}

struct BusClosed {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, BusClosed>;

// Without a name, just a connection.
Bus open(const char* name) {
    sd_bus* bus = nullptr;
    must(sd_bus_open_system(&bus), "opening the bus");
    Bus owned(bus);
    if (name != nullptr) {
        must(sd_bus_request_name(bus, name, 0), name);
    }
    return owned;
}

class World {
public:
    explicit World(bool withDaemon)
        : m_logind(open("org.freedesktop.login1")),
          m_daemon(open(withDaemon ? "com.brovik.velmdaemon" : nullptr)) {
        must(sd_bus_add_filter(m_logind.get(), nullptr, askLogind, this), "filter");
        must(sd_bus_add_filter(m_daemon.get(), nullptr, callDaemon, this), "filter");
    }

    /// Works on the bus until `condition` holds; false if it does not within `patience`, or when the standard
    /// input has ended and `condition` is never to hold.
    template <typename Condition>
    bool until(const Condition& condition, Clock::duration most = patience) {
        const auto deadline = Clock::now() + most;
        while (!condition()) {
            if (Clock::now() > deadline) {
                return false;
            }
            if (must(sd_bus_process(m_daemon.get(), nullptr), "daemon") > 0 ||
                must(sd_bus_process(m_logind.get(), nullptr), "logind") > 0) {
                continue;
            }
            waitForInput(20ms);
        }
        return true;
    }
    void serve() {
        while (!m_inputEnded) {
            until([this] { return m_inputEnded; }, 1s);
        }
    }

    /// Turns the session's hint over.
    void change() {
        m_locked = !m_locked;
        must(sd_bus_emit_signal(m_logind.get(), sessionPath, "org.freedesktop.DBus.Properties",
                                "PropertiesChanged", "sa{sv}as", sessionInterface, 1, "LockedHint", "b",
                                static_cast<int>(m_locked), 0),
             "signal");
    }
    sd_bus* logind() const { return m_logind.get(); }
    std::size_t received() const { return m_received; }
    Clock::time_point lastReceipt() const { return m_lastReceipt; }

    void awaitClient() {
        const std::size_t before = m_received;
        for (int attempt = 0; attempt < 600; ++attempt) {
            change();
            if (until([&] { return m_received > before; }, 100ms)) {
                // What its coming up has set going comes to rest.
                until([] { return false; }, 1500ms);
                return;
            }
        }
        throw std::runtime_error("nobody forwards the lock changes");
    }

    /// Sends the agent that connected last messages of the usual size and returns when it has taken them all:
    /// calls are answered in order, so an answer to a last one says so.
    void sendMessages(std::size_t count) {
        if (!until([this] { return !m_agent.empty(); })) {
            throw std::runtime_error("no agent connects");
        }
        // It is confirmed by now, and its timer stopped.
        until([] { return false; }, 1500ms);
        const std::string data(100, 'x');
        for (std::size_t i = 0; i < count; ++i) {
            sd_bus_message* message = newCall("putMessage");
            must(sd_bus_message_append_array(message, 'y', data.data(), data.size()), "putMessage");
            must(sd_bus_message_set_expect_reply(message, 0), "putMessage");
            must(sd_bus_send(m_daemon.get(), message, nullptr), "putMessage");
            sd_bus_message_unref(message);
        }
        sd_bus_message* last = newCall("noSuchMethod");
        // An error is the answer.
        sd_bus_call(m_daemon.get(), last, 60 * 1000 * 1000, nullptr, nullptr);
        sd_bus_message_unref(last);
    }

private:
    sd_bus_message* newCall(const char* member) {
        sd_bus_message* message = nullptr;
        must(
            sd_bus_message_new_method_call(m_daemon.get(), &message, m_agent.c_str(),
                                           "/com/brovik/velmmonitord", "com.brovik.XpcAgentProtocol", member),
            member);
        return message;
    }

    void waitForInput(std::chrono::milliseconds most) {
        pollfd files[] = {{sd_bus_get_fd(m_daemon.get()), POLLIN, 0},
                          {sd_bus_get_fd(m_logind.get()), POLLIN, 0},
                          {STDIN_FILENO, POLLIN, 0}};
        poll(files, m_inputEnded ? 2 : 3, static_cast<int>(most.count()));
        if (!m_inputEnded && (files[2].revents & (POLLIN | POLLHUP)) != 0) {
            char byte = 0;
            m_inputEnded = read(STDIN_FILENO, &byte, 1) <= 0;
        }
    }

    // An error inside a handler ends the program: it must not pass through the library's C frames.
    static int askLogind(sd_bus_message* message, void* self, sd_bus_error* /*error*/) noexcept {
        const bool locked = static_cast<World*>(self)->m_locked;
        if (sd_bus_message_is_method_call(message, "org.freedesktop.login1.Manager", "ListSessions") > 0) {
            return sd_bus_reply_method_return(message, "a(susso)", 1, "31", static_cast<unsigned>(getuid()),
                                              "user", "seat0", sessionPath);
        }
        if (sd_bus_message_is_method_call(message, "org.freedesktop.DBus.Properties", "GetAll") > 0) {
            return sd_bus_reply_method_return(message, "a{sv}", 5, "Id", "s", "31", "User", "(uo)",
                                              static_cast<unsigned>(getuid()), managerPath, "Class", "s",
                                              "user", "State", "s", "active", "LockedHint", "b",
                                              static_cast<int>(locked));
        }
        return 0;
    }

    static int callDaemon(sd_bus_message* message, void* self, sd_bus_error* /*error*/) noexcept {
        auto& world = *static_cast<World*>(self);
        if (sd_bus_message_is_method_call(message, nullptr, "onScreenLocked") > 0) {
            world.m_lastReceipt = Clock::now();
            ++world.m_received;
            return 1;
        }
        if (sd_bus_message_is_method_call(message, nullptr, "connect") > 0) {
            std::puts("connect");
            std::fflush(stdout);
            world.m_agent = sd_bus_message_get_sender(message);
            sd_bus_message* answer = world.newCall("connected");
            must(sd_bus_message_append(answer, "b", 1), "connected");
            must(sd_bus_message_set_expect_reply(answer, 0), "connected");
            must(sd_bus_send(world.m_daemon.get(), answer, nullptr), "connected");
            sd_bus_message_unref(answer);
            return 1;
        }
        return 0;
    }

    Bus m_logind;
    Bus m_daemon;
    bool m_locked = false;
    bool m_inputEnded = false;
    std::string m_agent;
    std::size_t m_received = 0;
    Clock::time_point m_lastReceipt;
};

void measureLatency(World& world, std::size_t count, bench::Report& report) {
    std::vector<double> times;
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t before = world.received();
        const auto start = Clock::now();
        world.change();
        if (!world.until([&] { return world.received() > before; })) {
            throw std::runtime_error("a change was not forwarded");
        }
        times.push_back(bench::microseconds(world.lastReceipt() - start));
        std::this_thread::sleep_for(5ms);
    }
    report.addSamples(times);
}

void measureBurst(World& world, std::size_t count, bench::Report& report) {
    const std::size_t wanted = world.received() + count;
    const auto start = Clock::now();
    for (std::size_t i = 0; i < count; ++i) {
        world.change();
        // As logind would, whose bus takes no more than it can.
        if (i % 64 == 63) {
            must(sd_bus_flush(world.logind()), "flush");
        }
    }
    const bool all = world.until([&] { return world.received() >= wanted; }, 30s);
    report.add("total", bench::microseconds(world.lastReceipt() - start) / 1000);
    report.add("lost", all ? 0 : static_cast<double>(wanted - world.received()));
}

}  // namespace

int main(int argc, char** argv) {
    const std::string what = argc >= 2 ? argv[1] : "";
    const bool serves = what == "serve" || what == "absent";
    if (!serves && (argc != 3 || (what != "latency" && what != "burst" && what != "messages"))) {
        std::fputs("usage: bench_world serve | absent | latency|burst|messages NUMBER\n", stderr);
        return 2;
    }
    try {
        World world(what != "absent");
        std::puts("ready");
        std::fflush(stdout);
        if (serves) {
            world.serve();
            return 0;
        }
        const auto number = static_cast<std::size_t>(std::atoi(argv[2]));
        bench::Report report;
        if (what == "messages") {
            const auto start = Clock::now();
            world.sendMessages(number);
            report.add("total", bench::microseconds(Clock::now() - start) / 1000);
        } else {
            world.awaitClient();
            (what == "latency" ? measureLatency : measureBurst)(world, number, report);
            report.add("received", static_cast<double>(world.received()));
        }
        report.print();
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_world: %s\n", error.what());
        return 1;
    }
}
