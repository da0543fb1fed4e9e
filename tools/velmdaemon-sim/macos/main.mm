#import <Foundation/Foundation.h>
#import <dispatch/dispatch.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "LineSplitter.h"
#include "Options.h"
#include "StandIn.h"
#include "Timeline.h"
#import "macos/DaemonListener.h"
#include "macos/MainQueue.h"
#include "platform/macos/ExceptionBoundary.h"

namespace {

using namespace sim;

constexpr const char* exitStatusText = "\n"
                                       "Statuses:\n"
                                       "  0  ended as asked: quit, or nobody reads the output any more\n"
                                       "  2  the command line is wrong\n"
                                       "  8  ended as asked, but a command was not done\n";

// Unbuffered, so that every line is in the file that launchd gave, and a closed output ends the program.
void writeOut(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            std::exit(0);
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

// Reads what is there and tells whether more may come.
bool readInto(LineSplitter& lines) {
    std::array<char, 4096> bytes{};
    const ssize_t count = read(STDIN_FILENO, bytes.data(), bytes.size());
    if (count > 0) {
        lines.feed({bytes.data(), static_cast<std::size_t>(count)});
        return true;
    }
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) {
        return true;
    }
    lines.finish();
    return false;
}

// The returned source must be kept: released, it watches no more.
dispatch_source_t watchStandardInput(LineSplitter& lines) {
    const dispatch_source_t source =
        dispatch_source_create(DISPATCH_SOURCE_TYPE_READ, STDIN_FILENO, 0, dispatch_get_main_queue());
    __weak dispatch_source_t const weakSource = source;
    LineSplitter* const into = &lines;
    dispatch_source_set_event_handler(source, ^{
        platform::atExceptionBoundary([&] {
            const dispatch_source_t itself = weakSource;
            if (!readInto(*into) && itself != nil) {
                dispatch_source_cancel(itself);
            }
        });
    });
    dispatch_resume(source);
    return source;
}

[[noreturn]] void serve(const Options& options) {
    Timeline timeline(writeOut, options.format);
    const StandIn* itself = nullptr;
    StandIn standIn(
        options.behaviour, timeline,
        [](std::chrono::milliseconds delay, const std::function<void()>& work) {
            postToMainQueue(delay, work);
        },
        [&itself](const std::exception_ptr& why) {
            if (why) {
                // Nothing handles it: the crash report says where it came from.
                std::rethrow_exception(why);
            }
            std::exit(itself->allDone() ? 0 : 8);
        });
    itself = &standIn;
    LineSplitter lines([&standIn](std::string_view line) {
        standIn.execute(line);
        return true;
    });

    // ARC lets go of an object after its last use, and these are used by whom it doesn't see: the listener's
    // reference to its delegate is weak.
    __attribute__((objc_precise_lifetime)) VelmSimDaemonListener* const delegate =
        [[VelmSimDaemonListener alloc] initWithStandIn:standIn];
    __attribute__((objc_precise_lifetime)) NSXPCListener* const listener =
        [[NSXPCListener alloc] initWithMachServiceName:@"com.brovik.velmdaemon"];
    listener.delegate = delegate;
    [listener resume];
    __attribute__((objc_precise_lifetime, unused)) const dispatch_source_t input = watchStandardInput(lines);
    timeline.note({"daemon"}, "ready", "as com.brovik.velmdaemon");
    dispatch_main();
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    const Options options = parseOptions({argv + 1, argv + argc}, BusChoice::None);
    if (!options.error.empty()) {
        std::cerr << "velmdaemon-sim: " << options.error << "; see --help\n";
        return 2;
    }
    if (options.help || options.version) {
        std::cout << (options.help ? usageText(BusChoice::None) + exitStatusText
                                   : std::string("velmdaemon-sim " VELM_VERSION "\n"));
        return 0;
    }
    @autoreleasepool {
        serve(options);
    }
}
