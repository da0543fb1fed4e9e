#include "common/SingleShotTimer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
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
using testing_access::countOf;
using testing_access::mutexOf;
using testing_access::stateOf;

// Keeps a timer's worker inside a callback, so that what a test does to the queue stays as it did it.
class HeldWorker {
public:
    explicit HeldWorker(cmn::SingleShotTimer& timer) {
        timer.run(0ms, [gate = m_gate] {
            gate->entered.notify();
            gate->release.wait();
        });
        m_gate->entered.wait();
    }
    ~HeldWorker() { m_gate->release.notify(); }
    HeldWorker(const HeldWorker&) = delete;
    HeldWorker& operator=(const HeldWorker&) = delete;
    HeldWorker(HeldWorker&&) = delete;
    HeldWorker& operator=(HeldWorker&&) = delete;

private:
    struct Gate {
        cmn::Semaphore entered;
        cmn::Semaphore release;
    };
    std::shared_ptr<Gate> m_gate = std::make_shared<Gate>();
};

// Returns when everything that was due before the call has been handled.
void drain(cmn::SingleShotTimer& timer) {
    cmn::Semaphore done;
    timer.run(0ms, [&done] { done.notify(); });
    done.wait();
}

std::size_t queued(cmn::SingleShotTimer& timer) {
    auto& state = stateOf(timer);
    const std::lock_guard<std::mutex> lock(state.m_mutex);
    return state.m_queue.size();
}

std::uint32_t notifications(cmn::SingleShotTimer& timer) {
    auto& semaphore = stateOf(timer).m_semaphore;
    const std::lock_guard<std::mutex> lock(mutexOf(semaphore));
    return countOf(semaphore);
}

// For a callback that must not return before its timer is being ended.
template <typename State>
bool cancelledPending(State& state) {
    return eventually([&] {
        const std::lock_guard<std::mutex> lock(state.m_mutex);
        const auto& entries = state.m_queue.stored();
        return std::any_of(entries.begin(), entries.end(), [](const auto& entry) { return entry.id == 0; });
    });
}

// What callbacks did, in order.
class Record {
public:
    std::function<void()> entry(const std::string& name) {
        return [this, name] {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_names.push_back(name);
        };
    }
    std::vector<std::string> names() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_names;
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_names;
};

}  // namespace

TEST(SingleShotTimer, MovesButDoesNotCopy) {
    static_assert(!std::is_copy_constructible_v<cmn::SingleShotTimer>);
    static_assert(!std::is_copy_assignable_v<cmn::SingleShotTimer>);
    static_assert(std::is_nothrow_move_constructible_v<cmn::SingleShotTimer>);
    static_assert(std::is_nothrow_move_assignable_v<cmn::SingleShotTimer>);
    static_assert(std::is_base_of_v<cmn::ITimer, cmn::ISingleShotTimer>);
    static_assert(std::is_base_of_v<cmn::ISingleShotTimer, cmn::SingleShotTimer>);
    static_assert(std::is_abstract_v<cmn::ISingleShotTimer>);
    // One virtual table and one owning pointer, nothing else.
    static_assert(sizeof(cmn::SingleShotTimer) == 2 * sizeof(void*));
}

TEST(SingleShotTimer, KeepsTheOrderOfItsVirtualOperations) {
    using RunOne =
        std::uint64_t (cmn::ISingleShotTimer::*)(std::chrono::milliseconds, const std::function<void()>&);
    using StopOne = void (cmn::ISingleShotTimer::*)(unsigned long long);
    EXPECT_EQ(vtableSlot(static_cast<RunOne>(&cmn::ISingleShotTimer::run)), 4U);
    EXPECT_EQ(vtableSlot(static_cast<StopOne>(&cmn::ISingleShotTimer::stop)), 5U);
}

TEST(SingleShotTimer, KeepsTheOrderOfItsPrivateState) {
    cmn::SingleShotTimer timer;
    const HeldWorker held(timer);
    auto& state = stateOf(timer);
    const std::vector<const void*> fields = {&state.m_stopped,   &state.m_lastId, &state.m_queue,
                                             &state.m_semaphore, &state.m_worker, &state.m_mutex};
    EXPECT_TRUE(std::is_sorted(fields.begin(), fields.end()));

    timer.run(never, [] {});
    const auto& entry = state.m_queue.top();
    const std::vector<const void*> parts = {&entry.id, &entry.dueTime, &entry.callback};
    EXPECT_TRUE(std::is_sorted(parts.begin(), parts.end()));
    static_assert(std::is_same_v<std::remove_const_t<decltype(state.m_lastId)>, std::uint64_t>);
    static_assert(std::is_same_v<std::remove_const_t<decltype(entry.id)>, std::uint64_t>);
    timer.stop();
}

TEST(SingleShotTimer, OrdersItsEntriesByDueTimeAlone) {
    cmn::SingleShotTimer timer;
    using Entry = std::decay_t<decltype(stateOf(timer).m_queue.top())>;
    const auto now = Clock::now();
    const Entry early{2, now, {}};
    const Entry late{1, now + 1ns, {}};
    const Entry sameTime{3, now, [] {}};
    EXPECT_TRUE(late > early);
    EXPECT_FALSE(early > late);
    EXPECT_FALSE(early > sameTime);
    EXPECT_FALSE(sameTime > early);
    EXPECT_TRUE(early > (Entry{4, Clock::time_point(-1s), {}}));
}

TEST(SingleShotTimer, CallsBackOnItsWorkerAndCountsIdsFromOne) {
    cmn::SingleShotTimer timer;
    std::thread::id thread;
    cmn::Semaphore called;
    EXPECT_EQ(timer.run(0ms,
                        [&] {
                            thread = std::this_thread::get_id();
                            called.notify();
                        }),
              1U);
    called.wait();
    EXPECT_NE(thread, std::this_thread::get_id());
    EXPECT_EQ(thread, stateOf(timer).m_worker.get_id());
    EXPECT_EQ(timer.run(never, [] {}), 2U);
    timer.stop(2);
    EXPECT_EQ(timer.run(never, [] {}), 3U);
    timer.stop();
    EXPECT_EQ(timer.run(0ms, [] {}), 4U);
}

TEST(SingleShotTimer, CallsEachCallbackOnce) {
    cmn::SingleShotTimer timer;
    Record record;
    timer.run(0ms, record.entry("a"));
    timer.run(1ms, record.entry("b"));
    EXPECT_TRUE(eventually([&] { return record.names().size() == 2; }));
    std::this_thread::sleep_for(a_while);
    drain(timer);
    EXPECT_EQ(record.names().size(), 2U);
    EXPECT_EQ(queued(timer), 0U);
}

TEST(SingleShotTimer, CallsInTheOrderOfTheDelaysWhateverTheOrderOfTheRuns) {
    cmn::SingleShotTimer timer;
    Record record;
    {
        // Hours apart and all due, so that the order cannot depend on how long this thread takes.
        const HeldWorker held(timer);
        timer.run(-2h, record.entry("-2"));
        timer.run(-4h, record.entry("-4"));
        timer.run(-1h, record.entry("-1"));
        timer.run(-5h, record.entry("-5"));
        timer.run(-3h, record.entry("-3"));
    }
    EXPECT_TRUE(eventually([&] { return record.names().size() == 5; }));
    EXPECT_THAT(record.names(), testing::ElementsAre("-5", "-4", "-3", "-2", "-1"));
}

TEST(SingleShotTimer, NeverCallsBeforeTheDueTime) {
    cmn::SingleShotTimer timer;
    std::atomic<int> early{0};
    std::atomic<int> called{0};
    for (int delay = 1; delay <= 40; ++delay) {
        const auto due = Clock::now() + std::chrono::milliseconds(delay);
        timer.run(std::chrono::milliseconds(delay), [&, due] {
            early += Clock::now() < due ? 1 : 0;
            ++called;
        });
    }
    EXPECT_TRUE(eventually([&] { return called == 40; }));
    EXPECT_EQ(early, 0);
}

TEST(SingleShotTimer, WakesForAnEntryThatIsDueEarlierThanTheOneItWaitsFor) {
    cmn::SingleShotTimer timer;
    Record record;
    timer.run(never, record.entry("late"));
    std::this_thread::sleep_for(10ms);
    timer.run(5ms, record.entry("early"));
    EXPECT_TRUE(eventually([&] { return record.names().size() == 1; }));
    EXPECT_THAT(record.names(), testing::ElementsAre("early"));
}

TEST(SingleShotTimer, TakesADelayThatIsNotPositiveAsDueAtOnce) {
    cmn::SingleShotTimer timer;
    Record record;
    timer.run(-1h, record.entry("before"));
    timer.run(std::chrono::milliseconds::min(), record.entry("long before"));
    EXPECT_TRUE(eventually([&] { return record.names().size() == 2; }));
}

TEST(SingleShotTimer, TakesTheLargestDelayAsNever) {
    cmn::SingleShotTimer timer;
    Record record;
    timer.run(std::chrono::milliseconds::max(), record.entry("never"));
    timer.run(5ms, record.entry("soon"));
    EXPECT_TRUE(eventually([&] { return !record.names().empty(); }));
    EXPECT_THAT(record.names(), testing::ElementsAre("soon"));
}

TEST(SingleShotTimer, IgnoresTheFlagAndCallsTheOtherRunThroughTheVirtualTable) {
    struct Recording : cmn::SingleShotTimer {
        using cmn::SingleShotTimer::run;
        std::uint64_t run(std::chrono::milliseconds delay, const std::function<void()>& callback) override {
            delays.push_back(delay);
            return cmn::SingleShotTimer::run(delay, callback);
        }
        std::vector<std::chrono::milliseconds> delays;
    };
    Record record;
    Recording timer;
    cmn::ITimer& base = timer;
    base.run(1ms, record.entry("periodic"), false);
    base.run(2ms, record.entry("single"), true);
    EXPECT_THAT(timer.delays, testing::ElementsAre(1ms, 2ms));
    EXPECT_TRUE(eventually([&] { return record.names().size() == 2; }));
    std::this_thread::sleep_for(a_while);
    EXPECT_EQ(record.names().size(), 2U);
    EXPECT_EQ(timer.cmn::SingleShotTimer::run(never, [] {}), 3U);
}

TEST(SingleShotTimer, EndsWhateverASubclassMakesOfSchedulingAndStopping) {
    struct Refusing : cmn::SingleShotTimer {
        using cmn::SingleShotTimer::run;
        using cmn::SingleShotTimer::stop;
        std::uint64_t run(std::chrono::milliseconds /*delay*/,
                          const std::function<void()>& /*callback*/) override {
            return 0;
        }
        void stop() override {}
    };
    Refusing timer;
    const Refusing ended;
    static_cast<cmn::SingleShotTimer&>(timer) = cmn::SingleShotTimer();
}

TEST(SingleShotTimer, NeverCallsWhatWasCancelledById) {
    cmn::SingleShotTimer timer;
    Record record;
    std::uint64_t kept = 0;
    std::uint64_t cancelled = 0;
    {
        const HeldWorker held(timer);
        cancelled = timer.run(-1h, record.entry("cancelled"));
        kept = timer.run(0ms, record.entry("kept"));
        timer.stop(cancelled);
    }
    drain(timer);
    EXPECT_THAT(record.names(), testing::ElementsAre("kept"));
    EXPECT_GT(timer.run(0ms, [] {}), std::max(kept, cancelled));
}

TEST(SingleShotTimer, LeavesACancelledEntryEmptyInTheQueueBesideOneThatIsNotCalled) {
    cmn::SingleShotTimer timer;
    const HeldWorker held(timer);
    timer.run(never, [] {});
    const auto cancelled = timer.run(never + 1ms, [] {});
    const auto before = notifications(timer);
    timer.stop(cancelled);
    EXPECT_EQ(notifications(timer), before + 1);
    auto& entries = stateOf(timer).m_queue.stored();
    ASSERT_EQ(entries.size(), 3U);
    const auto emptied = std::find_if(entries.begin(), entries.end(),
                                      [&](const auto& entry) { return entry.id == cancelled; });
    ASSERT_NE(emptied, entries.end());
    EXPECT_FALSE(emptied->callback);
    const auto& top = stateOf(timer).m_queue.top();
    EXPECT_EQ(top.id, 0U);
    EXPECT_EQ(top.dueTime, Clock::time_point());
    EXPECT_TRUE(top.callback);
}

TEST(SingleShotTimer, ThrowsEmptiedEntriesAwayWhenTheyReachTheTop) {
    cmn::SingleShotTimer timer;
    const auto first = timer.run(never, [] {});
    timer.run(never + 1h, [] {});
    timer.stop(first);
    EXPECT_TRUE(eventually([&] { return queued(timer) == 1; }));
}

TEST(SingleShotTimer, IgnoresAnIdThatIsUnknownOrDoneWith) {
    cmn::SingleShotTimer timer;
    Record record;
    const auto done = timer.run(0ms, record.entry("done"));
    drain(timer);
    const HeldWorker held(timer);
    const auto pending = timer.run(never, record.entry("pending"));
    const auto cancelled = timer.run(never, record.entry("cancelled"));
    timer.stop(cancelled);
    const auto before = notifications(timer);
    const auto entries = queued(timer);
    timer.stop(done);
    timer.stop(cancelled);
    timer.stop(pending + 1000);
    EXPECT_EQ(notifications(timer), before);
    EXPECT_EQ(queued(timer), entries);
}

TEST(SingleShotTimer, CancelsEverythingPendingAndGoesOn) {
    cmn::SingleShotTimer timer;
    Record record;
    {
        const HeldWorker held(timer);
        timer.run(0ms, record.entry("a"));
        timer.run(10ms, record.entry("b"));
        timer.run(never, record.entry("c"));
        timer.stop();
        for (const auto& entry : stateOf(timer).m_queue.stored()) {
            EXPECT_EQ(entry.id, 0U);
            EXPECT_EQ(entry.dueTime, Clock::time_point());
            EXPECT_TRUE(entry.callback);
        }
        timer.run(30ms, record.entry("after"));
    }
    EXPECT_TRUE(eventually([&] { return !record.names().empty(); }));
    EXPECT_THAT(record.names(), testing::ElementsAre("after"));
    EXPECT_EQ(queued(timer), 0U);
}

TEST(SingleShotTimer, NotifiesItsWorkerForEveryRunAndEveryStopOfEverything) {
    cmn::SingleShotTimer timer;
    const HeldWorker held(timer);
    const auto before = notifications(timer);
    timer.stop();  // with nothing queued
    EXPECT_EQ(notifications(timer), before + 1);
    timer.run(never, [] {});
    EXPECT_EQ(notifications(timer), before + 2);
    timer.stop();
    EXPECT_EQ(notifications(timer), before + 3);
}

// `call` is held up where it notifies the worker. By then it has changed the queue, and let go of its mutex.
template <typename Call, typename Changed>
void expectNotifiedOutsideTheMutex(cmn::SingleShotTimer& timer, Call call, Changed changed) {
    auto& state = stateOf(timer);
    std::unique_lock<std::mutex> heldUp(mutexOf(state.m_semaphore));
    std::thread caller(call);
    EXPECT_TRUE(eventually([&] {
        const std::unique_lock<std::mutex> free(state.m_mutex, std::try_to_lock);
        return free.owns_lock() && changed(state.m_queue.stored());
    }));
    heldUp.unlock();
    caller.join();
}

TEST(SingleShotTimer, NotifiesItsWorkerOutsideTheMutex) {
    cmn::SingleShotTimer timer;
    const HeldWorker held(timer);
    expectNotifiedOutsideTheMutex(
        timer, [&] { timer.run(never, [] {}); }, [](const auto& entries) { return entries.size() == 1; });
    const std::uint64_t id = timer.run(2 * never, [] {});
    expectNotifiedOutsideTheMutex(
        timer, [&] { timer.stop(id); }, [](const auto& entries) { return entries.size() == 3; });
    expectNotifiedOutsideTheMutex(
        timer, [&] { timer.stop(); },
        [](const auto& entries) {
            return std::all_of(entries.begin(), entries.end(),
                               [](const auto& entry) { return entry.id == 0; });
        });
}

// True if a callback that was scheduled while the timer was locked for `pause` is due as from before the
// release.
bool dueAsFromBeforeTheWait(std::chrono::milliseconds pause) {
    cmn::SingleShotTimer timer;
    const HeldWorker held(timer);
    auto& state = stateOf(timer);
    std::unique_lock<std::mutex> locked(state.m_mutex);
    std::thread scheduler([&] { timer.run(never, [] {}); });
    std::this_thread::sleep_for(pause);
    const auto release = Clock::now();
    locked.unlock();
    scheduler.join();
    locked.lock();
    return state.m_queue.top().dueTime - never < release;
}

TEST(SingleShotTimer, CountsADelayFromTheCallAndNotFromTheEndOfAWaitForTheLock) {
    bool seen = false;
    for (std::chrono::milliseconds pause = 20ms; !seen && pause < 20s; pause *= 2) {
        seen = dueAsFromBeforeTheWait(pause);
    }
    EXPECT_TRUE(seen);
}

TEST(SingleShotTimer, RunsWhatACallbackSchedulesWithoutDelayInTheSamePass) {
    cmn::SingleShotTimer timer;
    cmn::Semaphore done;
    std::uint32_t leftOver = 0;
    {
        const HeldWorker held(timer);
        timer.run(0ms, [&] {
            const auto before = notifications(timer);
            timer.run(0ms, [&, before] {
                // Had the worker gone back to its wait in between, it would have consumed a notification.
                leftOver = notifications(timer) - before;
                done.notify();
            });
        });
    }
    done.wait();
    EXPECT_EQ(leftOver, 1U);
}

TEST(SingleShotTimer, HandlesWhatBecomesDueWhileACallbackRuns) {
    cmn::SingleShotTimer timer;
    Record record;
    timer.run(0ms, [&] {
        std::this_thread::sleep_for(30ms);
        record.entry("slow")();
    });
    timer.run(10ms, record.entry("late"));
    EXPECT_TRUE(eventually([&] { return record.names().size() == 2; }));
    EXPECT_THAT(record.names(), testing::ElementsAre("slow", "late"));
}

TEST(SingleShotTimer, CanBeStoppedInItsCallbacks) {
    cmn::SingleShotTimer timer;
    Record record;
    {
        const HeldWorker held(timer);
        const auto second = timer.run(-3h, record.entry("second"));
        timer.run(-4h, [&, second] { timer.stop(second); });
        timer.run(-2h, [&] {
            record.entry("third")();
            timer.stop();
            timer.run(0ms, record.entry("fifth"));
        });
        timer.run(-1h, record.entry("fourth"));
    }
    EXPECT_TRUE(eventually([&] { return record.names().size() >= 2; }));
    drain(timer);
    EXPECT_THAT(record.names(), testing::ElementsAre("third", "fifth"));
}

TEST(SingleShotTimer, IgnoresAStopOfTheCallbackThatMakesIt) {
    cmn::SingleShotTimer timer;
    std::atomic<std::uint64_t> own{0};
    std::atomic<int> calls{0};
    {
        const HeldWorker held(timer);
        own = timer.run(0ms, [&] {
            timer.stop(own);
            ++calls;
        });
    }
    drain(timer);
    EXPECT_EQ(calls, 1);
}

TEST(SingleShotTimer, HoldsNoLockWhileACallbackRuns) {
    cmn::SingleShotTimer timer;
    const HeldWorker held(timer);
    EXPECT_TRUE(stateOf(timer).m_mutex.try_lock());
    stateOf(timer).m_mutex.unlock();
}

TEST(SingleShotTimer, DestroysItsCopyOfACallbackWithTheLockHeld) {
    struct Witness {
        explicit Witness(std::function<void()> atTheEnd) : m_atTheEnd(std::move(atTheEnd)) {}
        ~Witness() { m_atTheEnd(); }
        Witness(const Witness&) = delete;
        Witness& operator=(const Witness&) = delete;
        Witness(Witness&&) = delete;
        Witness& operator=(Witness&&) = delete;
        std::function<void()> m_atTheEnd;
    };
    cmn::SingleShotTimer timer;
    std::atomic<int> lockTaken{-1};
    auto witness = std::make_shared<Witness>([&] {
        std::thread([&] {
            const bool got = stateOf(timer).m_mutex.try_lock();
            if (got) {
                stateOf(timer).m_mutex.unlock();
            }
            lockTaken = got ? 1 : 0;
        }).join();
    });
    {
        const HeldWorker held(timer);  // until the copies on this thread are gone
        timer.run(0ms, [witness = std::move(witness)] {});
    }
    EXPECT_TRUE(eventually([&] { return lockTaken >= 0; }));
    EXPECT_EQ(lockTaken, 0);
}

TEST(SingleShotTimer, DestroysWhatACancelledCallbackCapturedBeforeItWouldHaveBeenDue) {
    cmn::SingleShotTimer timer;
    auto captured = std::make_shared<int>(0);
    const auto byId = timer.run(never, [captured] {});
    timer.run(never, [captured] {});
    EXPECT_EQ(captured.use_count(), 3);
    timer.stop(byId);
    EXPECT_TRUE(eventually([&] { return captured.use_count() == 2; }));
    timer.stop();
    EXPECT_TRUE(eventually([&] { return captured.use_count() == 1; }));
}

TEST(SingleShotTimer, GivesAnEmptyCallbackAnIdAndNeverCallsIt) {
    cmn::SingleShotTimer timer;
    EXPECT_EQ(timer.run(0ms, {}), 1U);
    EXPECT_EQ(timer.run(never, {}), 2U);
    drain(timer);
    EXPECT_TRUE(eventually([&] { return queued(timer) == 0; }));
}

TEST(SingleShotTimer, IsDestroyedWithPendingEntriesWithoutCallingThem) {
    Record record;
    {
        cmn::SingleShotTimer timer;
        timer.run(never, record.entry("late"));
        timer.run(never, record.entry("late"));
    }
    EXPECT_TRUE(record.names().empty());
}

TEST(SingleShotTimer, WaitsForTheCallbackUnderWayWhenItIsDestroyedAndCancelsTheRest) {
    std::atomic<bool> over{false};
    Record record;
    {
        cmn::SingleShotTimer timer;
        cmn::Semaphore entered;
        timer.run(-1h, [&, &state = stateOf(timer)] {
            entered.notify();
            EXPECT_TRUE(cancelledPending(state));
            std::this_thread::sleep_for(a_while);
            over = true;
        });
        entered.wait();
        timer.run(0ms, record.entry("pending"));
    }
    EXPECT_TRUE(over);
    EXPECT_TRUE(record.names().empty());
}

TEST(SingleShotTimer, RunsItsCallbacksOneAtATimeHoweverManyThreadsSchedule) {
    constexpr int threads = 4;
    constexpr int each = 200;
    cmn::SingleShotTimer timer;
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    std::atomic<int> called{0};
    std::mutex idsMutex;
    std::set<std::uint64_t> ids;
    std::vector<std::thread> schedulers;
    schedulers.reserve(threads);
    for (int i = 0; i < threads; ++i) {
        schedulers.emplace_back([&] {
            for (int n = 0; n < each; ++n) {
                const auto id = timer.run(std::chrono::milliseconds(n % 5), [&] {
                    overlaps += inside.fetch_add(1) == 0 ? 0 : 1;
                    ++called;
                    --inside;
                });
                const auto extra = timer.run(never, [&] { ++called; });
                timer.stop(extra);
                const std::lock_guard<std::mutex> lock(idsMutex);
                ids.insert({id, extra});
            }
        });
    }
    for (auto& scheduler : schedulers) {
        scheduler.join();
    }
    EXPECT_TRUE(eventually([&] { return called == threads * each; }));
    drain(timer);
    EXPECT_EQ(called, threads * each);
    EXPECT_EQ(overlaps, 0);
    EXPECT_EQ(ids.size(), 2U * threads * each);
    EXPECT_EQ(*ids.begin(), 1U);
    EXPECT_EQ(*ids.rbegin(), 2U * threads * each);
}

TEST(SingleShotTimer, StopsWithoutLosingItsWorkerWhileOthersSchedule) {
    cmn::SingleShotTimer timer;
    std::atomic<bool> leave{false};
    std::thread stopper([&] {
        while (!leave) {
            timer.stop();
        }
    });
    for (int i = 0; i < 500; ++i) {
        timer.stop(timer.run(1ms, [] {}));
    }
    leave = true;
    stopper.join();
    drain(timer);
}

TEST(SingleShotTimerDeathTest, EndsTheProcessWhenACallbackThrows) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            cmn::SingleShotTimer timer;
            timer.run(0ms, [] { throw std::runtime_error("not allowed"); });
            std::this_thread::sleep_for(20s);
        },
        "not allowed");
}

TEST(SingleShotTimerMove, HandsOverWhatIsPendingAndGoesOnCountingIds) {
    Record record;
    auto from = std::make_unique<cmn::SingleShotTimer>();
    from->run(20ms, record.entry("first"));
    const auto second = from->run(never, record.entry("second"));
    cmn::SingleShotTimer timer(std::move(*from));
    from.reset();
    timer.stop(second);
    EXPECT_EQ(timer.run(20ms, record.entry("third")), 3U);
    EXPECT_TRUE(eventually([&] { return record.names().size() == 2; }));
    EXPECT_THAT(record.names(), testing::ElementsAre("first", "third"));
    EXPECT_TRUE(eventually([&] { return queued(timer) == 0; }));
}

TEST(SingleShotTimerMove, LeavesTheCallbackUnderWayAlone) {
    Record record;
    auto from = std::make_unique<cmn::SingleShotTimer>();
    auto held = std::make_unique<HeldWorker>(*from);
    from->run(0ms, record.entry("next"));
    cmn::SingleShotTimer timer(std::move(*from));
    from.reset();  // the callback still runs, and nothing waits for it here
    EXPECT_TRUE(record.names().empty());
    held.reset();
    EXPECT_TRUE(eventually([&] { return !record.names().empty(); }));
}

TEST(SingleShotTimerMove, MayBeMadeInACallback) {
    Record record;
    auto from = std::make_unique<cmn::SingleShotTimer>();
    std::unique_ptr<cmn::SingleShotTimer> timer;
    cmn::Semaphore scheduled;
    cmn::Semaphore moved;
    from->run(0ms, [&] {
        scheduled.wait();  // no other call on it may be under way
        timer = std::make_unique<cmn::SingleShotTimer>(std::move(*from));
        timer->run(0ms, record.entry("after"));
        moved.notify();
    });
    scheduled.notify();
    moved.wait();
    from.reset();
    EXPECT_TRUE(eventually([&] { return !record.names().empty(); }));
}

TEST(SingleShotTimerMove, LeavesATimerThatSchedulesNothingAndCanBeStoppedDestroyedAndAssignedTo) {
    Record record;
    auto from = std::make_unique<cmn::SingleShotTimer>();
    cmn::SingleShotTimer timer(std::move(*from));
    EXPECT_EQ(from->run(0ms, record.entry("lost")), 0U);
    from->run(0ms, record.entry("lost"), true);
    from->stop();
    from->stop(1);
    drain(timer);
    EXPECT_TRUE(record.names().empty());

    *from = cmn::SingleShotTimer();
    EXPECT_EQ(from->run(0ms, record.entry("alive")), 1U);
    EXPECT_TRUE(eventually([&] { return !record.names().empty(); }));

    cmn::SingleShotTimer emptied(std::move(*from));
    timer = std::move(*from);  // nothing from nothing
    EXPECT_EQ(timer.run(0ms, record.entry("lost")), 0U);
}

TEST(SingleShotTimerMove, EndsTheTargetOfAnAssignmentAsItsDestructorWould) {
    Record record;
    cmn::SingleShotTimer target;
    cmn::SingleShotTimer source;
    cmn::Semaphore entered;
    std::atomic<bool> over{false};
    target.run(-1h, [&, &state = stateOf(target)] {
        entered.notify();
        EXPECT_TRUE(cancelledPending(state));
        std::this_thread::sleep_for(a_while);
        EXPECT_NE(target.run(0ms, [] {}), 0U);  // still whole while its callback runs
        over = true;
    });
    entered.wait();
    target.run(0ms, record.entry("target"));
    source.run(20ms, record.entry("source"));
    target = std::move(source);
    EXPECT_TRUE(over);
    EXPECT_TRUE(eventually([&] { return !record.names().empty(); }));
    EXPECT_EQ(target.run(0ms, record.entry("next")), 2U);
    EXPECT_TRUE(eventually([&] { return record.names().size() == 2; }));
    EXPECT_THAT(record.names(), testing::ElementsAre("source", "next"));
}

TEST(SingleShotTimerMove, ChangesNothingWhenATimerIsAssignedToItself) {
    Record record;
    cmn::SingleShotTimer timer;
    timer.run(20ms, record.entry("pending"));
    cmn::SingleShotTimer& same = timer;
    timer = std::move(same);
    EXPECT_EQ(timer.run(0ms, record.entry("at once")), 2U);
    EXPECT_TRUE(eventually([&] { return record.names().size() == 2; }));
}

TEST(SingleShotTimerMove, SwapsTwoRunningTimers) {
    Record record;
    cmn::SingleShotTimer one;
    cmn::SingleShotTimer two;
    const auto cancelled = one.run(never, record.entry("never"));
    two.run(20ms, record.entry("two"));
    two.run(never, record.entry("never"));
    std::swap(one, two);
    two.stop(cancelled);
    EXPECT_EQ(one.run(0ms, record.entry("at once")), 3U);
    EXPECT_EQ(two.run(0ms, record.entry("at once")), 2U);
    EXPECT_TRUE(eventually([&] { return record.names().size() == 3; }));
    EXPECT_THAT(record.names(), testing::UnorderedElementsAre("at once", "at once", "two"));
    EXPECT_TRUE(eventually([&] { return queued(two) == 0; }));
}
