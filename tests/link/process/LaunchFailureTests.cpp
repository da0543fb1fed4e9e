#include <string>

#include "link/support/LinkTest.h"

// A launch that fails with an exception which nobody catches, in the real program.

namespace link_tests {
namespace {

class FailingLaunch : public LinkTest {
protected:
    /// Has the main thread's first allocation after this line fail, and awaits the end.
    std::string endAfter(const std::string& line) {
        options.user = 0;  // may read the preloaded library wherever it was built
        options.environment = {"LD_PRELOAD=" VELM_FAILING_LAUNCH, "VELM_FAIL_AFTER=" + line};
        bus.start();
        startAgent();
        return agent->awaitEnd();
    }
};

TEST_F(FailingLaunch, DestroysTheLauncherBeforeTheProcessEnds) {
    EXPECT_EQ(endAfter(message::zoneMonitorRuns), "signal 6");
    // The timer ran by then. Its task is awaited by the launcher's destructor and by nothing else.
    EXPECT_EQ(agent->errors().rawLines(), Messages{"uncaught exception, threads of the timer: 0"});
    EXPECT_EQ(agent->log().count(message::launcherRuns), 1U);
}

}  // namespace
}  // namespace link_tests
