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

void scheduleAndFire(int number) {
    cmn::SingleShotTimer timer;
    cmn::Semaphore fired;
    for (int i = 0; i < number; ++i) {
        timer.run(std::chrono::milliseconds(0), [&fired] { fired.notify(); });
        fired.wait();
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string what = argc == 4 ? argv[1] : "";
    if (what == "line") {
        writeLines(std::atoi(argv[2]), argv[3]);
    } else if (what == "timer") {
        scheduleAndFire(std::atoi(argv[2]));
    } else {
        std::fputs("usage: bench_instructions line|timer NUMBER FILE\n", stderr);
        return 2;
    }
    return 0;
}
