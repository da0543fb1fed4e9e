// A periodic timer and one-shot callbacks. Each callback runs on its timer's thread; the main thread waits
// for them.

#include <velm/common/BaseTimer.h>
#include <velm/common/Semaphore.h>
#include <velm/common/SingleShotTimer.h>

#include <chrono>
#include <iostream>

namespace {

using namespace std::chrono_literals;

void periodic() {
    cmn::Semaphore done;
    int ticks = 0;
    cmn::BaseTimer timer(100ms, {}, false);
    timer.setCallback([&] {
        std::cout << "tick " << ++ticks << '\n';
        if (ticks == 3) {
            timer.stop();  // in the callback: no further one begins
            done.notify();
        }
    });
    timer.run();
    done.wait();
    std::cout << "the periodic timer is " << (timer.active() ? "still active" : "stopped") << '\n';
}

void oneShot() {
    cmn::Semaphore done;
    cmn::SingleShotTimer timer;
    timer.run(1h, [] { std::cout << "the timer is gone before this is due\n"; });
    timer.run(50ms, [&] {
        std::cout << "after 50 ms\n";
        // Due first, but nothing else is called before this callback returns.
        const auto unwanted = timer.run(10ms, [] { std::cout << "this was cancelled\n"; });
        timer.run(50ms, [&] {
            std::cout << "50 ms after that\n";
            done.notify();
        });
        timer.stop(unwanted);
    });
    done.wait();
}

}  // namespace

int main() {
    periodic();
    oneShot();
    std::cout << "done\n";
    return 0;
}
