#include "platform/linux/runloop/MainRunLoop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/NotificationCenter.h"
#include "platform/Process.h"
#include "platform/linux/runloop/PrivateThreads.h"
#include "unit/platform/process/RunInChild.h"

namespace {

using platform::MainRunLoop;
using platform::PrivateThreads;

/// The loop runs once in the life of a process, so each test gives it a process, one without any bus.
ChildResult runAlone(const std::function<int()>& body) {
    return runInChild([&body] {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
        setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
        platform::prepareProcess();
        return body();
    });
}

MainRunLoop& loop() {
    return MainRunLoop::instance();
}

void endLoop() {
    kill(getpid(), SIGTERM);
}

/// Runs `task` on the loop once it runs.
void runWith(std::function<void()> task) {
    loop().post(std::move(task));
    platform::mainRunLoop().run();
}

TEST(MainRunLoop, EndsOnSigterm) {
    EXPECT_TRUE(runAlone([] {
                    runWith([] { kill(getpid(), SIGTERM); });
                    return 7;
                }).returned(7));
}

TEST(MainRunLoop, EndsOnSigint) {
    EXPECT_TRUE(runAlone([] {
                    runWith([] { kill(getpid(), SIGINT); });
                    return 7;
                }).returned(7));
}

TEST(MainRunLoop, EndsOnASignalThatCameBeforeItRan) {
    EXPECT_TRUE(runAlone([] {
                    kill(getpid(), SIGTERM);
                    platform::mainRunLoop().run();
                    return 7;
                }).returned(7));
}

TEST(MainRunLoop, RunsTasksOnItsThreadInTheOrderOfThePosts) {
    const auto body = [] {
        constexpr int count = 1000;
        const auto mainThread = std::this_thread::get_id();
        std::vector<int> order;
        bool onMainThread = true;
        std::thread poster([&] {
            for (int index = 0; index < count; ++index) {
                loop().post([&, index] {
                    order.push_back(index);
                    onMainThread = onMainThread && std::this_thread::get_id() == mainThread;
                });
            }
            loop().post(&endLoop);
        });
        loop().run();
        poster.join();
        for (int index = 0; index < count; ++index) {
            if (order.size() != count || order.at(static_cast<std::size_t>(index)) != index) {
                return 1;
            }
        }
        return onMainThread ? 0 : 2;
    };
    EXPECT_TRUE(runAlone(body).returned(0));
}

TEST(MainRunLoop, RunsTasksThatTasksPost) {
    const auto body = [] {
        bool ran = false;
        runWith([&ran] {
            loop().post([&ran] {
                ran = true;
                endLoop();
            });
        });
        return ran ? 0 : 1;
    };
    EXPECT_TRUE(runAlone(body).returned(0));
}

TEST(MainRunLoop, DropsWhatIsPostedAfterItEnded) {
    const auto body = [] {
        runWith(&endLoop);
        const auto held = std::make_shared<bool>(false);
        loop().post([held] { *held = true; });
        return held.use_count() == 1 && !*held ? 0 : 1;
    };
    EXPECT_TRUE(runAlone(body).returned(0));
}

TEST(MainRunLoop, DrainsThePrivateThreadsAfterDeliveryEnded) {
    const auto body = [] {
        std::promise<void> stop;
        std::atomic<bool> ended{false};
        const auto late = std::make_shared<std::atomic<bool>>(false);
        const bool started = PrivateThreads::instance().start(
            "test",
            [&] {
                stop.get_future().wait();
                loop().post([late] { *late = true; });
                ended = true;
            },
            [&stop] { stop.set_value(); });
        runWith(&endLoop);
        return started && ended && !*late && late.use_count() == 1 ? 0 : 1;
    };
    EXPECT_TRUE(runAlone(body).returned(0));
}

TEST(MainRunLoop, EndsOnSigtermWhereThereAreNoDescriptorsLeft) {
    const auto body = [] {
        // Once before, as the sanitizers need descriptors of their own to look at an object first.
        loop().post([] {});
        const rlimit none{0, 0};
        setrlimit(RLIMIT_NOFILE, &none);
        endLoop();
        loop().run();
        return 7;
    };
    const ChildResult result = runAlone(body);
    EXPECT_TRUE(result.returned(7)) << result.status << result.errorOutput;
}

TEST(MainRunLoop, ComesWhenThereAreDescriptorsAgain) {
    const auto body = [] {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        const rlimit none{0, limit.rlim_max};
        std::atomic<bool> loopRan{false};
        loop().post([&loopRan] {
            loopRan = true;
            endLoop();
        });
        setrlimit(RLIMIT_NOFILE, &none);
        std::thread relief([limit] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            setrlimit(RLIMIT_NOFILE, &limit);
        });
        loop().run();
        relief.join();
        return loopRan ? 7 : 1;
    };
    const ChildResult result = runAlone(body);
    EXPECT_TRUE(result.returned(7)) << result.status << result.errorOutput;
}

TEST(MainRunLoop, StartsAnewWithNewSourcesWhenItFails) {
    const auto body = [] {
        int made = 0;
        loop().setSources([&made](sd_event* event) {
            if (++made == 1) {
                // What the loop waits with is no descriptor any more.
                const int other = open("/dev/null", O_RDONLY | O_CLOEXEC);
                dup2(other, sd_event_get_fd(event));
            } else {
                endLoop();
            }
            return std::shared_ptr<void>();
        });
        loop().run();
        return made == 2 ? 7 : 1;
    };
    const ChildResult result = runAlone(body);
    EXPECT_TRUE(result.returned(7)) << result.status << result.errorOutput;
}

TEST(MainRunLoop, AnExceptionThatLeavesATaskEndsTheProcess) {
    const auto body = [] {
        std::signal(SIGABRT, SIG_DFL);
        runWith([] { throw std::runtime_error("of the task"); });
        return 0;
    };
    EXPECT_TRUE(runAlone(body).killedBy(SIGABRT));
}

/// Collects the numbers that distributed notifications stand for.
class DistributedObserver {
public:
    void add(CFNotificationName name) {
        CFNotificationCenterAddObserver(CFNotificationCenterGetDistributedCenter(), this, &notified, name,
                                        nullptr, CFNotificationSuspensionBehaviorDeliverImmediately);
    }
    void remove(CFNotificationName name) {
        CFNotificationCenterRemoveObserver(CFNotificationCenterGetDistributedCenter(), this, name, nullptr);
    }
    std::string received;
    bool onMainThread = true;

private:
    static void notified(CFNotificationCenterRef center, void* observer, CFNotificationName name,
                         const void* object, CFDictionaryRef userInfo) {
        auto* const self = static_cast<DistributedObserver*>(observer);
        self->received += reinterpret_cast<const char*>(name);
        self->onMainThread = self->onMainThread && gettid() == getpid() && object == nullptr &&
                             userInfo == nullptr && center == CFNotificationCenterGetDistributedCenter();
    }
};

void postDistributed(CFNotificationName name) {
    CFNotificationCenterPostNotification(CFNotificationCenterGetDistributedCenter(), name, nullptr, nullptr,
                                         1);
}

TEST(DistributedNotificationCenter, DeliversOnTheMainRunLoopInTheOrderOfThePosts) {
    const auto body = [] {
        DistributedObserver observer;
        observer.add(CFSTR("a"));
        observer.add(CFSTR("b"));
        observer.add(CFSTR("b"));
        std::thread poster([] {
            postDistributed(CFSTR("a"));
            postDistributed(CFSTR("b"));
            postDistributed(CFSTR("c"));
            postDistributed(CFSTR("a"));
            loop().post(&endLoop);
        });
        loop().run();
        poster.join();
        return observer.received == "abba" && observer.onMainThread ? 0 : 1;
    };
    EXPECT_TRUE(runAlone(body).returned(0));
}

TEST(DistributedNotificationCenter, DeliversNothingBeforeTheLoopRuns) {
    const auto body = [] {
        DistributedObserver observer;
        observer.add(CFSTR("a"));
        postDistributed(CFSTR("a"));
        const bool early = !observer.received.empty();
        runWith(&endLoop);
        return !early && observer.received == "a" ? 0 : 1;
    };
    EXPECT_TRUE(runAlone(body).returned(0));
}

TEST(DistributedNotificationCenter, DeliversNothingToAnObserverRemovedInTheMeantime) {
    const auto body = [] {
        DistributedObserver observer;
        observer.add(CFSTR("a"));
        postDistributed(CFSTR("a"));
        observer.remove(CFSTR("a"));
        observer.add(CFSTR("a"));
        runWith(&endLoop);
        return observer.received.empty() ? 0 : 1;
    };
    EXPECT_TRUE(runAlone(body).returned(0));
}

TEST(DistributedNotificationCenter, DeliversNothingAfterTheLoopEnded) {
    const auto body = [] {
        DistributedObserver observer;
        observer.add(CFSTR("a"));
        runWith(&endLoop);
        postDistributed(CFSTR("a"));
        return observer.received.empty() ? 0 : 1;
    };
    EXPECT_TRUE(runAlone(body).returned(0));
}

}  // namespace
