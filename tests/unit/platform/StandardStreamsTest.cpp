#include "platform/StandardStreams.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

// Ends the process: 0 if a new descriptor is none of the standard streams, and each of those can be used.
[[noreturn]] void exitAfterOccupying() {
    platform::occupyStandardStreams();
    const bool isNone = open("/dev/null", O_RDONLY) > STDERR_FILENO;
    const bool isUsable = fcntl(STDIN_FILENO, F_GETFD) >= 0 && fcntl(STDOUT_FILENO, F_GETFD) >= 0;
    _exit(isNone && isUsable ? 0 : 1);
}

TEST(StandardStreamsDeathTest, ClosedOnesAreNotReused) {
    EXPECT_EXIT(
        {
            close(STDIN_FILENO);
            close(STDOUT_FILENO);
            exitAfterOccupying();
        },
        testing::ExitedWithCode(0), "");
}

TEST(StandardStreamsDeathTest, OpenOnesStayWhatTheyAre) {
    EXPECT_EXIT(
        {
            platform::occupyStandardStreams();
            static_cast<void>(!write(STDERR_FILENO, "still here", 10));
            _exit(0);
        },
        testing::ExitedWithCode(0), "still here");
}

}  // namespace
