// What bench/instructions counts, as often as it is asked to. Usage: bench_instructions line|timer NUMBER
// FILE

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "common/Semaphore.h"
#include "common/SingleShotTimer.h"
#include "logging/Log.h"

namespace {

void writeLines(int number, const char* file) {
    Logging::Logger::instance().initAsDefault(file);
    for (int i = 0; i < number; ++i) {
        Logging::Logger::Helper helper(Logging::Trace);
        helper.stream_std() << "Monitor launcher: screen lock status " << true;
    }
}

// All are scheduled while the worker is held up, and then fire in one go: whether it falls asleep between two
// of them would be up to the machine's scheduler, and so would the count. The late one comes when the worker
// has also looked at every change that it was told of.
bool scheduleAndFire(int number) {
    cmn::Semaphore held;
    cmn::Semaphore scheduled;
    cmn::Semaphore done;
    cmn::SingleShotTimer timer;
    timer.run(std::chrono::milliseconds(0), [&held, &scheduled] {
        held.notify();
        scheduled.wait();
    });
    held.wait();
    int fired = 0;
    for (int i = 0; i < number; ++i) {
        timer.run(std::chrono::milliseconds(0), [&fired] { ++fired; });
    }
    timer.run(std::chrono::milliseconds(1000), [&done] { done.notify(); });
    scheduled.notify();
    done.wait();
    return fired == number;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string what = argc == 4 ? argv[1] : "";
    if (what == "line") {
        writeLines(std::atoi(argv[2]), argv[3]);
    } else if (what == "timer") {
        return scheduleAndFire(std::atoi(argv[2])) ? 0 : 1;
    } else {
        std::fputs("usage: bench_instructions line|timer NUMBER FILE\n", stderr);
        return 2;
    }
    return 0;
}
