#include "common/BaseTimer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <future>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "unit/common/Eventually.h"
#include "unit/common/PrivateState.h"
#include "unit/common/VtableSlot.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using testing_access::stateOf;

bool idle(cmn::BaseTimer& timer) {
    return !timer.active() && !stateOf(timer).m_inTask.load();
}

// The task lets go of its mutex nowhere but in the wait.
std::unique_lock<std::mutex> holdInWait(cmn::BaseTimer& timer) {
    EXPECT_TRUE(eventually([&] { return stateOf(timer).m_inTask.load(); }));
    return std::unique_lock<std::mutex>(stateOf(timer).m_mutex);
}

void awaitWait(cmn::BaseTimer& timer) {
    holdInWait(timer).unlock();
}

// Ends the task without risking that a wake-up meets it outside its wait, which would cost one interval.
void end(cmn::BaseTimer& timer) {
    awaitWait(timer);
    timer.stop();
    EXPECT_TRUE(eventually([&] { return idle(timer); }));
}

// A callback that takes its time.
struct Slow {
    std::atomic<bool> inside{false};
    std::atomic<bool> over{false};
    std::function<void()> callback = [this] {
        inside = true;
        std::this_thread::sleep_for(a_while);
        over = true;
    };
    bool begins() {
        return eventually([&] { return inside.load(); });
    }
};

struct Counted {
    std::atomic<int> calls{0};
    std::function<void()> callback = [this] { ++calls; };
    bool reaches(int count) {
        return eventually([&] { return calls.load() >= count; });
    }
};

}  // namespace

TEST(BaseTimer, IsIdleWithItsSettingsWhenBuilt) {
    Counted counted;
    const cmn::BaseTimer timer(1500ms, counted.callback, true);
    EXPECT_EQ(timer.interval(), 1500ms);
    EXPECT_TRUE(timer.singleShot());
    EXPECT_FALSE(timer.active());
    EXPECT_EQ(counted.calls, 0);
}

TEST(BaseTimer, CountsItsIntervalInMillisecondsOf64Bits) {
    cmn::BaseTimer timer(0ms, {}, false);
    for (const auto count :
         {std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min()}) {
        timer.setInterval(std::chrono::milliseconds(count));
        EXPECT_EQ(timer.interval().count(), count);
    }
    static_assert(sizeof(std::chrono::milliseconds::rep) == 8);
}

TEST(BaseTimer, MovesButDoesNotCopy) {
    static_assert(!std::is_copy_constructible_v<cmn::BaseTimer> &&
                  !std::is_copy_assignable_v<cmn::BaseTimer>);
    static_assert(std::is_nothrow_move_constructible_v<cmn::BaseTimer>);
    static_assert(std::is_nothrow_move_assignable_v<cmn::BaseTimer>);
    static_assert(std::is_base_of_v<cmn::ITimer, cmn::IBaseTimer> &&
                  std::is_base_of_v<cmn::IBaseTimer, cmn::BaseTimer>);
    static_assert(std::is_abstract_v<cmn::ITimer> && std::has_virtual_destructor_v<cmn::ITimer>);
    static_assert(std::is_abstract_v<cmn::IBaseTimer>);
    // One virtual table and one owning pointer, nothing else.
    static_assert(sizeof(cmn::BaseTimer) == 2 * sizeof(void*));
}

TEST(BaseTimer, KeepsTheOrderOfItsVirtualOperations) {
    EXPECT_EQ(vtableSlot(&cmn::ITimer::run), 2U);
    EXPECT_EQ(vtableSlot(&cmn::ITimer::stop), 3U);
    EXPECT_EQ(vtableSlot(static_cast<void (cmn::IBaseTimer::*)()>(&cmn::IBaseTimer::run)), 4U);
    EXPECT_EQ(vtableSlot(&cmn::IBaseTimer::setInterval), 5U);
    EXPECT_EQ(vtableSlot(&cmn::IBaseTimer::interval), 6U);
    EXPECT_EQ(vtableSlot(&cmn::IBaseTimer::setSingleShot), 7U);
    EXPECT_EQ(vtableSlot(&cmn::IBaseTimer::singleShot), 8U);
    EXPECT_EQ(vtableSlot(&cmn::IBaseTimer::active), 9U);
}

TEST(BaseTimer, KeepsTheOrderOfItsPrivateState) {
    cmn::BaseTimer timer(0ms, {}, false);
    auto& state = stateOf(timer);
    const std::vector<const void*> fields = {&state.m_singleShot, &state.m_interval, &state.m_callback,
                                             &state.m_active,     &state.m_inTask,   &state.m_mutex,
                                             &state.m_condition,  &state.m_task};
    EXPECT_TRUE(std::is_sorted(fields.begin(), fields.end()));
    EXPECT_FALSE(state.m_task.valid());
}

TEST(BaseTimer, TicksOneIntervalAfterTheStartAndThenAfterEachInterval) {
    std::vector<Clock::time_point> ticks;
    std::atomic<int> count{0};
    cmn::BaseTimer timer(
        30ms,
        [&] {
            ticks.push_back(Clock::now());
            ++count;
        },
        false);
    const auto start = Clock::now();
    timer.run();
    EXPECT_TRUE(timer.active());
    EXPECT_TRUE(eventually([&] { return count >= 3; }));
    timer.stop();
    EXPECT_TRUE(eventually([&] { return idle(timer); }));
    auto previous = start;
    for (const auto tick : ticks) {
        EXPECT_GE(tick - previous, 30ms);
        previous = tick;
    }
}

TEST(BaseTimer, WaitsAWholeIntervalAfterASlowCallback) {
    std::atomic<int> count{0};
    std::vector<Clock::duration> gaps;
    auto returned = Clock::time_point::max();
    cmn::BaseTimer timer(
        20ms,
        [&] {
            gaps.push_back(returned == Clock::time_point::max() ? 20ms : Clock::now() - returned);
            std::this_thread::sleep_for(70ms);
            ++count;
            returned = Clock::now();
        },
        false);
    timer.run();
    EXPECT_TRUE(eventually([&] { return count >= 3; }));
    timer.stop();
    EXPECT_TRUE(eventually([&] { return idle(timer); }));
    for (const auto gap : gaps) {
        EXPECT_GE(gap, 20ms);
    }
}

TEST(BaseTimer, CallsBackOnAThreadOfItsOwn) {
    std::atomic<bool> called{false};
    std::thread::id thread;
    cmn::BaseTimer timer(
        1ms,
        [&] {
            thread = std::this_thread::get_id();
            called = true;
        },
        true);
    timer.run();
    EXPECT_TRUE(eventually([&] { return called.load(); }));
    EXPECT_NE(thread, std::this_thread::get_id());
}

TEST(BaseTimer, MakesNoFurtherCallAfterAStop) {
    Counted counted;
    cmn::BaseTimer timer(1ms, counted.callback, false);
    timer.run();
    EXPECT_TRUE(counted.reaches(2));
    timer.stop();
    EXPECT_FALSE(timer.active());
    EXPECT_TRUE(eventually([&] { return idle(timer); }));
    const int calls = counted.calls;
    std::this_thread::sleep_for(a_while);
    EXPECT_EQ(counted.calls, calls);
}

TEST(BaseTimer, DoesNotTickWhenAStopWakesItsWait) {
    Counted counted;
    cmn::BaseTimer timer(never, counted.callback, false);
    timer.run();
    end(timer);
    EXPECT_EQ(counted.calls, 0);
}

TEST(BaseTimer, DoesNotWaitForTheTaskWhenItIsStopped) {
    std::atomic<bool> inside{false};
    std::atomic<bool> leave{false};
    cmn::BaseTimer timer(
        1ms,
        [&] {
            inside = true;
            eventually([&] { return leave.load(); });
        },
        false);
    timer.run();
    EXPECT_TRUE(eventually([&] { return inside.load(); }));
    timer.stop();  // with the callback still inside, which only the next line lets out
    leave = true;
    EXPECT_TRUE(eventually([&] { return idle(timer); }));
}

TEST(BaseTimer, IgnoresAStopWhileItIsIdle) {
    Counted counted;
    cmn::BaseTimer timer(1ms, counted.callback, true);
    timer.stop();
    EXPECT_FALSE(timer.active());
    timer.run();
    EXPECT_TRUE(counted.reaches(1));
}

TEST(BaseTimer, NoticesAStopWhoseWakeUpIsLostAtTheEndOfTheWaitWithoutATick) {
    auto waitBegan = Clock::now();
    int calls = 0;
    cmn::BaseTimer timer(
        100ms,
        [&] {
            ++calls;
            waitBegan = Clock::now();
        },
        false);
    timer.run();
    int callsBefore = 0;
    {
        const auto held = holdInWait(timer);
        callsBefore = calls;
        stateOf(timer).m_active.exchange(false);  // as a stop() whose notify found nobody waiting leaves it
    }
    EXPECT_TRUE(eventually([&] { return idle(timer); }));
    EXPECT_GE(Clock::now() - waitBegan, 100ms);
    EXPECT_EQ(calls, callsBefore);
}

TEST(BaseTimer, CallsBackOnceAsASingleShotAndStartsAFreshTaskTheNextTime) {
    Counted counted;
    cmn::BaseTimer timer(1ms, counted.callback, true);
    timer.run();
    EXPECT_TRUE(eventually([&] { return idle(timer); }));
    EXPECT_EQ(counted.calls, 1);
    std::this_thread::sleep_for(a_while);
    EXPECT_EQ(counted.calls, 1);
    timer.run();
    EXPECT_TRUE(eventually([&] { return idle(timer); }));
    EXPECT_EQ(counted.calls, 2);
}

TEST(BaseTimer, LooksAtTheSingleShotFlagAfterTheTick) {
    Counted counted;
    cmn::BaseTimer timer(1ms, counted.callback, false);
    timer.run();
    EXPECT_TRUE(counted.reaches(2));
    timer.setSingleShot(true);
    EXPECT_TRUE(timer.singleShot());
    EXPECT_TRUE(eventually([&] { return idle(timer); }));

    timer.run(
        1ms, [&] { timer.setSingleShot(++counted.calls >= 10); }, false);
    EXPECT_TRUE(eventually([&] { return idle(timer); }));
    EXPECT_GE(counted.calls, 10);
}

TEST(BaseTimer, DoesNotWakeForAChangeOfTheSingleShotFlag) {
    Counted counted;
    cmn::BaseTimer timer(never, counted.callback, false);
    timer.run();
    for (const bool flag : {true, false}) {
        awaitWait(timer);
        timer.setSingleShot(flag);
        std::this_thread::sleep_for(a_while);
        EXPECT_EQ(counted.calls, 0);
    }
    end(timer);
}

TEST(BaseTimer, TakesNoLockForItsSettings) {
    Counted counted;
    cmn::BaseTimer timer(never, counted.callback, false);
    timer.run();
    std::future<void> set;
    {
        const auto held = holdInWait(timer);
        set = std::async(std::launch::async, [&] {
            timer.setCallback(counted.callback);
            timer.setSingleShot(true);
            timer.setInterval(2 * never);
            timer.stop();
        });
        EXPECT_EQ(set.wait_for(20s), std::future_status::ready);
    }
    EXPECT_TRUE(eventually([&] { return idle(timer); }));
}

TEST(BaseTimer, LosesARunThatASingleShotCallbackMakes) {
    Counted counted;
    cmn::BaseTimer timer(1ms, {}, true);
    timer.setCallback([&] {
        ++counted.calls;
        timer.run();
    });
    timer.run();
    EXPECT_TRUE(eventually([&] { return idle(timer); }));
    std::this_thread::sleep_for(a_while);
    EXPECT_EQ(counted.calls, 1);
}

TEST(BaseTimer, FiresNothingWhenTheIntervalChangesAndThenWaitsTheWholeNewOne) {
    Counted counted;
    cmn::BaseTimer timer(never, counted.callback, false);
    timer.run();
    awaitWait(timer);
    const auto change = Clock::now();
    timer.setInterval(150ms);
    EXPECT_TRUE(counted.reaches(1));
    EXPECT_GE(Clock::now() - change, 150ms);
    timer.stop();
}

TEST(BaseTimer, LengthensTheWaitUnderWayToo) {
    Counted counted;
    cmn::BaseTimer timer(200ms, counted.callback, false);
    timer.run();
    int callsBefore = 0;
    {
        const auto held = holdInWait(timer);
        callsBefore = counted.calls;
        timer.setInterval(never);
    }
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(counted.calls, callsBefore);
    end(timer);
}

TEST(BaseTimer, FiresAtOnceWhenTheSameIntervalIsSetAgain) {
    Counted counted;
    cmn::BaseTimer timer(never, counted.callback, false);
    timer.run();
    for (int tick = 1; tick <= 3; ++tick) {
        awaitWait(timer);
        EXPECT_EQ(counted.calls, tick - 1);
        timer.setInterval(never);
        EXPECT_TRUE(counted.reaches(tick));
    }
    end(timer);
}

TEST(BaseTimer, TakesAnyWakeUpOfItsWaitForATick) {
    Counted counted;
    cmn::BaseTimer timer(never, counted.callback, false);
    timer.run();
    awaitWait(timer);
    stateOf(timer).m_condition.notify_one();  // what a spurious wake-up looks like to the task
    EXPECT_TRUE(counted.reaches(1));
    end(timer);
}

TEST(BaseTimer, TicksAtOnceWithTheSameTaskWhenItIsRunAgainBeforeItNoticedTheStop) {
    Counted counted;
    std::thread::id thread;
    cmn::BaseTimer timer(
        never,
        [&] {
            thread = std::this_thread::get_id();
            ++counted.calls;
        },
        false);
    timer.run();
    std::thread::id first;
    for (int tick = 1; tick <= 2; ++tick) {
        {
            const auto held = holdInWait(timer);
            timer.stop();
            timer.run();
            EXPECT_TRUE(timer.active());
            EXPECT_EQ(counted.calls, tick - 1);
        }
        EXPECT_TRUE(counted.reaches(tick));
        first = tick == 1 ? thread : first;
        EXPECT_EQ(thread, first);
    }
    end(timer);
}

TEST(BaseTimer, KeepsTheRunningTaskWhenItIsRunAgain) {
    Counted counted;
    cmn::BaseTimer timer(never, counted.callback, false);
    timer.run();
    awaitWait(timer);
    timer.run();  // neither starts anything nor wakes anyone
    std::this_thread::sleep_for(a_while);
    EXPECT_EQ(counted.calls, 0);
    EXPECT_TRUE(timer.active());
    end(timer);
}

TEST(BaseTimer, WaitsInASecondRunForATaskThatHasNotGotGoing) {
    Counted counted;
    cmn::BaseTimer timer(never, counted.callback, false);
    std::unique_lock<std::mutex> held(stateOf(timer).m_mutex);
    timer.run();
    timer.stop();
    std::atomic<bool> returned{false};
    std::thread second([&] {
        timer.run();
        returned = true;
    });
    EXPECT_TRUE(eventually([&] { return timer.active(); }));
    std::this_thread::sleep_for(a_while);
    EXPECT_FALSE(returned);
    timer.stop();  // from another thread: the only way out for a periodic timer
    held.unlock();
    second.join();
    EXPECT_TRUE(eventually([&] { return idle(timer); }));
    EXPECT_EQ(counted.calls, 0);
}

TEST(BaseTimer, EndsAfterACallbackThatStopsIt) {
    Counted counted;
    cmn::BaseTimer timer(1ms, {}, false);
    timer.setCallback([&] {
        if (++counted.calls == 3) {
            timer.stop();
        }
    });
    timer.run();
    EXPECT_TRUE(eventually([&] { return idle(timer); }));
    EXPECT_EQ(counted.calls, 3);
}

TEST(BaseTimer, HoldsItsMutexWhileTheCallbackRuns) {
    std::atomic<int> held{-1};
    cmn::BaseTimer timer(1ms, {}, true);
    timer.setCallback([&] {
        std::thread([&] {
            const bool got = stateOf(timer).m_mutex.try_lock();
            if (got) {
                stateOf(timer).m_mutex.unlock();
            }
            held = got ? 0 : 1;
        }).join();
    });
    timer.run();
    EXPECT_TRUE(eventually([&] { return held >= 0; }));
    EXPECT_EQ(held, 1);
}

TEST(BaseTimer, CanBeSetUpAnewInItsCallback) {
    Counted counted;
    cmn::BaseTimer timer(1ms, {}, false);
    timer.setCallback([&] {
        if (++counted.calls == 1) {
            timer.setInterval(2ms);
            timer.setSingleShot(true);
            timer.stop();
            timer.run();
        }
    });
    timer.run();
    EXPECT_TRUE(eventually([&] { return idle(timer); }));
    EXPECT_EQ(counted.calls, 1);
    EXPECT_EQ(timer.interval(), 2ms);
}

TEST(BaseTimer, CallsBackWithoutAPauseWithoutAnInterval) {
    for (const auto interval : {0ms, -5ms, std::chrono::milliseconds::min()}) {
        Counted counted;
        cmn::BaseTimer timer(interval, counted.callback, false);
        timer.run();
        EXPECT_TRUE(counted.reaches(1000));
        timer.stop();
        EXPECT_TRUE(eventually([&] { return idle(timer); }));
    }
}

TEST(BaseTimer, WaitsForeverWithTheLargestInterval) {
    Counted counted;
    cmn::BaseTimer timer(std::chrono::milliseconds::max(), counted.callback, false);
    timer.run();
    awaitWait(timer);
    std::this_thread::sleep_for(a_while);
    EXPECT_EQ(counted.calls, 0);
    end(timer);
}

TEST(BaseTimer, TakesOverWhatItsThreeArgumentRunIsGiven) {
    Counted first;
    Counted second;
    cmn::BaseTimer timer(never, first.callback, false);
    timer.run(1ms, second.callback, true);
    EXPECT_EQ(timer.interval(), 1ms);
    EXPECT_TRUE(timer.singleShot());
    EXPECT_TRUE(eventually([&] { return idle(timer); }));
    EXPECT_EQ(second.calls, 1);
    EXPECT_EQ(first.calls, 0);
}

TEST(BaseTimer, KeepsItsCallbackWhenItIsGivenAnEmptyOne) {
    Counted counted;
    cmn::BaseTimer timer(1ms, counted.callback, true);
    timer.run(1ms, {}, true);
    EXPECT_TRUE(eventually([&] { return idle(timer); }));
    timer.setCallback({});
    timer.run();
    EXPECT_TRUE(eventually([&] { return idle(timer); }));
    EXPECT_EQ(counted.calls, 2);
}

TEST(BaseTimer, ReplacesItsCallback) {
    Counted first;
    Counted second;
    cmn::BaseTimer timer(1ms, first.callback, true);
    timer.setCallback(second.callback);
    timer.run();
    EXPECT_TRUE(second.reaches(1));
    EXPECT_EQ(first.calls, 0);
}

TEST(BaseTimer, ReachesItsSettersAndRunThroughTheVirtualTable) {
    struct Recording : cmn::BaseTimer {
        using cmn::BaseTimer::BaseTimer;
        using cmn::BaseTimer::run;
        void setInterval(std::chrono::milliseconds interval) override {
            calls.push_back("setInterval " + std::to_string(interval.count()));
        }
        void setSingleShot(bool singleShot) override {
            calls.push_back("setSingleShot " + std::to_string(static_cast<int>(singleShot)));
        }
        void run() override { calls.emplace_back("run"); }
        std::vector<std::string> calls;
    };
    Recording timer(1ms, {}, false);
    cmn::ITimer& base = timer;
    base.run(
        25ms, [] {}, true);
    EXPECT_THAT(timer.calls, testing::ElementsAre("setInterval 25", "setSingleShot 1", "run"));
    EXPECT_TRUE(stateOf(timer).m_callback);

    timer.calls.clear();
    timer.reset();
    EXPECT_THAT(timer.calls, testing::ElementsAre("run"));
}

TEST(BaseTimer, DoesNotTickAtOnceWhenAResetStopsAndRunsIt) {
    Counted counted;
    cmn::BaseTimer timer(never, counted.callback, false);
    timer.run();
    awaitWait(timer);
    timer.reset();
    EXPECT_TRUE(timer.active());
    std::this_thread::sleep_for(a_while);
    awaitWait(timer);
    EXPECT_EQ(counted.calls, 0);
    end(timer);
}

TEST(BaseTimer, StartsAnIdleTimerByAReset) {
    Counted counted;
    cmn::BaseTimer timer(1ms, counted.callback, true);
    timer.reset();
    EXPECT_TRUE(counted.reaches(1));
    timer.reset();
    EXPECT_TRUE(counted.reaches(2));
}

TEST(BaseTimer, WaitsInAResetForTheCallbackUnderWay) {
    std::atomic<bool> inside{false};
    std::atomic<bool> over{false};
    cmn::BaseTimer timer(
        1ms,
        [&] {
            if (!inside.exchange(true)) {
                std::this_thread::sleep_for(a_while);
                over = true;
            }
        },
        false);
    timer.run();
    EXPECT_TRUE(eventually([&] { return inside.load(); }));
    timer.reset();
    EXPECT_TRUE(over);
}

TEST(BaseTimer, WaitsForTheTaskWhenItIsDestroyedAndTicksNoMore) {
    Counted counted;
    {
        cmn::BaseTimer timer(never, counted.callback, false);
        timer.run();
        awaitWait(timer);
    }
    EXPECT_EQ(counted.calls, 0);

    Slow slow;
    {
        cmn::BaseTimer timer(1ms, slow.callback, true);
        timer.run();
        EXPECT_TRUE(slow.begins());
    }
    EXPECT_TRUE(slow.over);
}

TEST(BaseTimer, WaitsForTheTaskOfAStoppedTimerToo) {
    Slow slow;
    {
        cmn::BaseTimer timer(1ms, slow.callback, false);
        timer.run();
        EXPECT_TRUE(slow.begins());
        timer.stop();
    }
    EXPECT_TRUE(slow.over);
}

TEST(BaseTimer, IsDeadAfterACallbackThatThrowsUntilAResetCollectsTheException) {
    std::atomic<int> calls{0};
    cmn::BaseTimer timer(
        1ms,
        [&] {
            ++calls;
            throw std::runtime_error("broken");
        },
        false);
    timer.run();
    EXPECT_TRUE(eventually([&] { return calls == 1; }));
    stateOf(timer).m_task.wait();
    EXPECT_TRUE(timer.active());

    timer.run();
    std::this_thread::sleep_for(a_while);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(timer.active());

    try {
        timer.reset();
        ADD_FAILURE() << "reset() kept the exception to itself";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "broken");
    }
    EXPECT_FALSE(timer.active());  // reset() had stopped it, and did not get as far as running it

    timer.reset();  // the exception was collected, the flag that keeps the timer dead was not
    std::this_thread::sleep_for(a_while);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(timer.active());
}

TEST(BaseTimer, LetsGoOfItsMutexWhenTheCallbackThrows) {
    cmn::BaseTimer timer(
        1ms, [] { throw std::runtime_error("broken"); }, false);
    timer.run();
    stateOf(timer).m_task.wait();
    EXPECT_TRUE(stateOf(timer).m_mutex.try_lock());
    stateOf(timer).m_mutex.unlock();
    EXPECT_TRUE(stateOf(timer).m_inTask);
    EXPECT_THROW(timer.reset(), std::runtime_error);
}

TEST(BaseTimer, ThrowsWhatEndedTheLastTaskOutOfARunThatCollectsIt) {
    cmn::BaseTimer timer(
        1ms, [] { throw std::runtime_error("broken"); }, true);
    timer.run();
    stateOf(timer).m_task.wait();
    stateOf(timer).m_inTask.exchange(
        false);  // as a run() sees it that comes before the failing task got going
    EXPECT_THROW(timer.run(), std::runtime_error);
}

TEST(BaseTimer, TakesAnEmptyCallbackForOneThatThrows) {
    cmn::BaseTimer timer(1ms, {}, false);
    timer.run();
    stateOf(timer).m_task.wait();
    EXPECT_TRUE(timer.active());
    EXPECT_THROW(timer.reset(), std::bad_function_call);
}

TEST(BaseTimerDeathTest, EndsTheProcessWhenItIsDestroyedWithAnExceptionUncollected) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            cmn::BaseTimer timer(
                1ms, [] { throw std::runtime_error("nobody asked"); }, false);
            timer.run();
            stateOf(timer).m_task.wait();
        },
        "nobody asked");
}

TEST(BaseTimer, IsInactiveWhenMovedFromAndCanBeStoppedAndDestroyed) {
    Counted counted;
    auto timer = std::make_unique<cmn::BaseTimer>(1ms, counted.callback, true);
    cmn::BaseTimer taken(std::move(*timer));
    EXPECT_FALSE(timer->active());
    timer->stop();
    timer.reset();
    EXPECT_EQ(taken.interval(), 1ms);
    EXPECT_TRUE(taken.singleShot());
    taken.run();
    EXPECT_TRUE(counted.reaches(1));
}

TEST(BaseTimer, TakesOverAnotherByAssignmentOntoOneThatWasNeverRun) {
    Counted placeholder;
    Counted counted;
    cmn::BaseTimer timer(never, placeholder.callback, false);
    auto other = std::make_unique<cmn::BaseTimer>(1ms, counted.callback, true);
    timer = std::move(*other);
    EXPECT_FALSE(other->active());
    EXPECT_EQ(timer.interval(), 1ms);
    timer.run();
    EXPECT_TRUE(counted.reaches(1));
    EXPECT_EQ(placeholder.calls, 0);
}

TEST(BaseTimer, DestroysItsOwnStateAtOnceWhenItIsAssignedTo) {
    auto witness = std::make_shared<int>(0);
    cmn::BaseTimer timer(
        never, [witness] {}, false);
    cmn::BaseTimer other(
        1ms, [] {}, true);
    EXPECT_EQ(witness.use_count(), 2);
    timer = std::move(other);
    EXPECT_EQ(witness.use_count(), 1);
}
