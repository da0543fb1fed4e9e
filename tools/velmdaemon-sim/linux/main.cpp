#include <csignal>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "Options.h"
#include "StandIn.h"
#include "Timeline.h"
#include "linux/DaemonService.h"
#include "linux/Delays.h"
#include "linux/Failure.h"
#include "linux/StandardStreams.h"

namespace {

using namespace sim;

constexpr const char* exitStatusText =
    "\n"
    "Statuses:\n"
    "  0  ended as asked: quit, SIGTERM, SIGINT, or nobody reads the output any more\n"
    "  1  something else went wrong\n"
    "  2  the command line is wrong\n"
    "  3  no bus\n"
    "  4  no permission to own the service name\n"
    "  5  the service name is taken\n"
    "  6  the bus was lost\n"
    "  7  another program took the service name\n"
    "  8  ended as asked, but a command was not done\n";

LoopHandle newEventLoop() {
    LoopHandle loop;
    checked(sd_event_default(OutHandle(loop)), "make an event loop");
    return loop;
}

void endOnSignal(sd_event* event, int signal) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    checked(sd_event_add_signal(event, nullptr, signal, nullptr, nullptr), "watch for signals");
}

int serve(const Options& options) {
    const LoopHandle event = newEventLoop();
    endOnSignal(event.get(), SIGTERM);
    endOnSignal(event.get(), SIGINT);

    OutputStream output(event.get());
    Timeline timeline([&output](std::string_view text) { output.write(text); }, options.format);
    Delays delays(event.get());
    StandIn standIn(
        options.behaviour, timeline,
        [&delays](std::chrono::milliseconds delay, std::function<void()> work) {
            delays.after(delay, std::move(work));
        },
        [&event](const std::exception_ptr& why) {
            if (why) {
                endLoop(event.get(), why);
            } else {
                sd_event_exit(event.get(), static_cast<int>(ExitStatus::AsAsked));
            }
        });
    DaemonService service(event.get(), options.bus, standIn, timeline, delays);
    const InputLines input(event.get(), LineSplitter([&](std::string_view line) {
                               standIn.execute(line);
                               return true;
                           }));
    const int status = checked(sd_event_loop(event.get()), "run the event loop");
    service.sendTheRest();
    return status == 0 && !standIn.allDone() ? static_cast<int>(ExitStatus::NotDone) : status;
}

int run(const std::vector<std::string>& arguments) {
    const Options options = parseOptions(arguments, BusChoice::Offered);
    if (!options.error.empty()) {
        return complain(ExitStatus::Usage, options.error + "; see --help");
    }
    if (options.help || options.version) {
        std::cout << (options.help ? usageText(BusChoice::Offered) + exitStatusText
                                   : std::string("velmdaemon-sim " VELM_VERSION "\n"))
                  << std::flush;
        return static_cast<int>(std::cout ? ExitStatus::AsAsked : ExitStatus::Other);
    }
    return serve(options);
}

}  // namespace

int main(int argc, char** argv) {
    // A closed output shows as an error of the write, which ends the program in good order.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return run({argv + 1, argv + argc});
    } catch (const Failure& failure) {
        return complain(failure.status(), failure.what());
    } catch (const std::exception& exception) {
        return complain(ExitStatus::Other, exception.what());
    }
}
