#include <gtest/gtest.h>
#include <pthread.h>

#include <system_error>

#include "common/BaseTimer.h"
#include "common/SingleShotTimer.h"
#include "unit/common/PrivateState.h"
#include "unit/common/ThreadRefusal.h"

namespace {

using namespace std::chrono_literals;

// While it lives, the C library asks for stacks of 64 TiB for new threads, which the kernel refuses.
class NoNewThreads {
public:
    NoNewThreads() {
        EXPECT_EQ(pthread_getattr_default_np(&m_before), 0);
        pthread_attr_t attributes{};
        EXPECT_EQ(pthread_getattr_default_np(&attributes), 0);
        EXPECT_EQ(pthread_attr_setstacksize(&attributes, std::size_t{1} << 46U), 0);
        EXPECT_EQ(pthread_setattr_default_np(&attributes), 0);
        pthread_attr_destroy(&attributes);
    }
    ~NoNewThreads() {
        EXPECT_EQ(pthread_setattr_default_np(&m_before), 0);
        pthread_attr_destroy(&m_before);
    }
    NoNewThreads(const NoNewThreads&) = delete;
    NoNewThreads& operator=(const NoNewThreads&) = delete;
    NoNewThreads(NoNewThreads&&) = delete;
    NoNewThreads& operator=(NoNewThreads&&) = delete;

private:
    pthread_attr_t m_before{};
};

}  // namespace

TEST(BaseTimer, ThrowsOutOfRunWhenItGetsNoThreadAndIsActiveWithoutATask) {
    if (asyncHangsWithoutAThread) {
        GTEST_SKIP() << "this libc++'s std::async hangs where it gets no thread (docs/macos.md)";
    }
    cmn::BaseTimer timer(
        1h, [] {}, false);
    {
        const NoNewThreads refused;
        EXPECT_THROW(timer.run(), std::system_error);
    }
    EXPECT_TRUE(timer.active());
    EXPECT_FALSE(testing_access::stateOf(timer).m_task.valid());
}

TEST(SingleShotTimer, ThrowsOutOfItsConstructorWhenItGetsNoThread) {
    const NoNewThreads refused;
    EXPECT_THROW(cmn::SingleShotTimer(), std::system_error);
}
