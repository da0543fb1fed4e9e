#include "linux/Failure.h"

#include <iostream>
#include <system_error>

namespace sim {

int checked(int result, const std::string& doing, ExitStatus status) {
    if (result < 0) {
        throw Failure(status, "cannot " + doing + ": " + std::generic_category().message(-result));
    }
    return result;
}

int complain(ExitStatus status, const std::string& why) {
    std::cerr << "velmdaemon-sim: " << why << std::endl;
    return static_cast<int>(status);
}

void endLoop(sd_event* loop, ExitStatus status, const std::string& why) {
    sd_event_exit(loop, complain(status, why));
}

void endLoop(sd_event* loop, const std::exception_ptr& error) noexcept {
    try {
        std::rethrow_exception(error);
    } catch (const Failure& failure) {
        endLoop(loop, failure.status(), failure.what());
    } catch (const std::exception& exception) {
        endLoop(loop, ExitStatus::Other, exception.what());
    }
}

}  // namespace sim
