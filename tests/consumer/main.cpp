#include <velm/common/BaseTimer.h>
#include <velm/common/Semaphore.h>
#include <velm/common/SingleShotTimer.h>
#include <velm/logging/FileDestination.h>
#include <velm/logging/Log.h>
#include <velm/logging/RotationStrategy.h>

#include <chrono>
#include <memory>

// Uses something of every public header, so that every object file of both libraries is linked. Prints what
// it logs.
int main(int argc, char** argv) {
    using namespace std::chrono_literals;
    if (argc != 2) {
        return 2;
    }
    auto& logger = Logging::Logger::instance();
    logger.initAsDefault("");
    logger.setIncludeTimestamp(false);
    logger.addDestination(std::make_shared<Logging::FileDestination>(
        argv[1], std::make_shared<Logging::NullRotationStrategy>(), false));

    cmn::Semaphore called;
    cmn::BaseTimer periodic(
        1ms,
        [&called] {
            Logging::Logger::Helper(Logging::Info).stream_std() << "periodic";
            called.notify();
        },
        true);
    periodic.run();
    called.wait();

    cmn::SingleShotTimer scheduler;
    scheduler.run(1ms, [&called] {
        Logging::Logger::Helper(Logging::Info).stream_std() << "one-shot";
        called.notify();
    });
    called.wait();
    return 0;
}
