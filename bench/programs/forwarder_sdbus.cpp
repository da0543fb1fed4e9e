// The least that forwards lock changes with sd-bus: one connection, one match, one call. Usage:
// bench_forwarder_sdbus [THREADS [FILE]]
// THREADS idle ones are beside it, as a memory footprint to compare with has; with a FILE it writes three
// lines to it before each call, as the agent does.

#include <fcntl.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

#include "support/FloorLine.h"

namespace {

constexpr int noLog = -1;
constexpr int linesOfAnEvent = 3;
int logFile = noLog;

int forward(sd_bus_message* message, void* /*unused*/, sd_bus_error* /*error*/) noexcept {
    const char* name = nullptr;
    int locked = 0;
    if (sd_bus_message_skip(message, "s") < 0 || sd_bus_message_enter_container(message, 'a', "{sv}") <= 0 ||
        sd_bus_message_enter_container(message, 'e', "sv") <= 0 ||
        sd_bus_message_read(message, "s", &name) <= 0 ||
        sd_bus_message_read(message, "v", "b", &locked) <= 0) {
        return 0;
    }
    for (int i = 0; logFile != noLog && i < linesOfAnEvent; ++i) {
        bench::writeFloorLine(logFile);
    }
    sd_bus_message* call = nullptr;
    sd_bus* bus = sd_bus_message_get_bus(message);
    sd_bus_message_new_method_call(bus, &call, "com.brovik.velmdaemon", "/com/brovik/velmdaemon",
                                   "com.brovik.XpcDaemonProtocol", "onScreenLocked");
    sd_bus_message_append(call, "b", locked);
    sd_bus_message_set_expect_reply(call, 0);
    sd_bus_send(bus, call, nullptr);
    sd_bus_message_unref(call);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = argc > 1 ? std::atoi(argv[1]) : 0; i > 0; --i) {
        std::thread([] { pause(); }).detach();
    }
    if (argc > 2) {
        logFile = open(argv[2], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    }
    sd_bus* bus = nullptr;
    if (sd_bus_open_system(&bus) < 0 ||
        sd_bus_add_match(
            bus, nullptr,
            "type='signal',sender='org.freedesktop.login1',path_namespace='/org/freedesktop/login1/"
            "session',member='PropertiesChanged',arg0='org.freedesktop.login1.Session'",
            forward, nullptr) < 0) {
        return 1;
    }
    for (;;) {
        const int progress = sd_bus_process(bus, nullptr);
        if (progress < 0) {
            return 1;
        }
        if (progress == 0) {
            sd_bus_wait(bus, static_cast<std::uint64_t>(-1));
        }
    }
}
