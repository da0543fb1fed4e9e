#include "linux/Failure.h"

#include <system_error>

namespace sim {

int checked(int result, const std::string& doing, ExitStatus status) {
    if (result < 0) {
        throw Failure(status, "cannot " + doing + ": " + std::generic_category().message(-result));
    }
    return result;
}

}  // namespace sim
