#include "common/Semaphore.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <thread>
#include <type_traits>
#include <vector>

#include "unit/common/Eventually.h"
#include "unit/common/PrivateState.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using testing_access::conditionOf;
using testing_access::countOf;
using testing_access::mutexOf;

std::uint32_t count(cmn::Semaphore& semaphore) {
    const std::lock_guard<std::mutex> lock(mutexOf(semaphore));
    return countOf(semaphore);
}

}  // namespace

TEST(Semaphore, StartsAtZeroWithItsFieldsInOrder) {
    cmn::Semaphore semaphore;
    EXPECT_EQ(countOf(semaphore), 0U);
    static_assert(std::is_same_v<std::remove_reference_t<decltype(countOf(semaphore))>, std::uint32_t>);
    const std::vector<const void*> fields = {&mutexOf(semaphore), &conditionOf(semaphore),
                                             &countOf(semaphore)};
    EXPECT_TRUE(std::is_sorted(fields.begin(), fields.end()));
}

TEST(Semaphore, IsNeitherCopiedNorMoved) {
    static_assert(!std::is_copy_constructible_v<cmn::Semaphore> &&
                  !std::is_copy_assignable_v<cmn::Semaphore>);
    static_assert(!std::is_move_constructible_v<cmn::Semaphore> &&
                  !std::is_move_assignable_v<cmn::Semaphore>);
}

TEST(Semaphore, LetsAsManyWaitsThroughAsThereWereNotificationsAndBlocksTheNext) {
    cmn::Semaphore semaphore;
    semaphore.notify();
    semaphore.notify();
    semaphore.wait();
    semaphore.wait();
    std::atomic<bool> returned{false};
    std::thread third([&] {
        semaphore.wait();
        returned = true;
    });
    std::this_thread::sleep_for(a_while);
    EXPECT_FALSE(returned);
    semaphore.notify();
    third.join();
    EXPECT_EQ(count(semaphore), 0U);
}

TEST(Semaphore, KeepsItsCountInFull) {
    cmn::Semaphore semaphore;
    for (int i = 0; i < 1000; ++i) {
        semaphore.notify();
    }
    EXPECT_EQ(count(semaphore), 1000U);
    for (int i = 0; i < 1000; ++i) {
        semaphore.wait();
    }
    EXPECT_FALSE(semaphore.waitUntil(Clock::now()));
}

TEST(Semaphore, ReturnsFalseAtOnceForADeadlineInThePastWithoutANotification) {
    cmn::Semaphore semaphore;
    for (const auto deadline : {Clock::now() - 1h, Clock::time_point(), Clock::time_point::min()}) {
        EXPECT_FALSE(semaphore.waitUntil(deadline));
        EXPECT_EQ(count(semaphore), 0U);
    }
}

TEST(Semaphore, TakesAPendingNotificationForADeadlineInThePast) {
    cmn::Semaphore semaphore;
    semaphore.notify();
    EXPECT_TRUE(semaphore.waitUntil(Clock::now() - 1h));
    EXPECT_EQ(count(semaphore), 0U);
}

TEST(Semaphore, DoesNotGiveUpBeforeTheDeadline) {
    cmn::Semaphore semaphore;
    const auto deadline = Clock::now() + a_while;
    EXPECT_FALSE(semaphore.waitUntil(deadline));
    EXPECT_GE(Clock::now(), deadline);
    EXPECT_EQ(count(semaphore), 0U);
}

TEST(Semaphore, WakesForANotificationBeforeTheDeadline) {
    cmn::Semaphore semaphore;
    std::thread notifier([&] {
        std::this_thread::sleep_for(20ms);
        semaphore.notify();
    });
    EXPECT_TRUE(semaphore.waitUntil(Clock::time_point::max()));
    notifier.join();
    EXPECT_EQ(count(semaphore), 0U);
}

TEST(Semaphore, TakesDeadlinesOfOtherClocksToo) {
    cmn::Semaphore semaphore;
    const auto deadline = std::chrono::system_clock::now() + 20ms;
    EXPECT_FALSE(semaphore.waitUntil(deadline));
    semaphore.notify();
    EXPECT_TRUE(semaphore.waitUntil(std::chrono::time_point_cast<std::chrono::seconds>(deadline)));
}

// Whether a waiter has consumed what came when its time had run out and it could not look. Nothing if it
// looked before it could be kept from it.
std::optional<bool> consumedAtTheDeadline(std::chrono::milliseconds distance) {
    cmn::Semaphore semaphore;
    const auto deadline = Clock::now() + distance;
    bool result = false;
    std::thread waiter([&] { result = semaphore.waitUntil(deadline); });
    std::this_thread::sleep_for(distance / 5);
    bool wasInTime = false;
    {
        const std::lock_guard<std::mutex> lock(mutexOf(semaphore));
        wasInTime = Clock::now() < deadline;
        std::this_thread::sleep_until(deadline + 20ms);
        ++countOf(semaphore);
    }
    waiter.join();
    return wasInTime ? std::optional(result && count(semaphore) == 0) : std::nullopt;
}

TEST(Semaphore, ConsumesANotificationThatArrivesAtTheDeadline) {
    std::optional<bool> consumed;
    for (std::chrono::milliseconds distance = 100ms; !consumed && distance < 20s; distance *= 2) {
        consumed = consumedAtTheDeadline(distance);
    }
    EXPECT_EQ(consumed, true);
}

TEST(Semaphore, GoesBackToWaitingWhenItIsWokenWithoutANotification) {
    cmn::Semaphore semaphore;
    std::atomic<int> returned{0};
    std::thread unlimited([&] {
        semaphore.wait();
        ++returned;
    });
    std::thread limited([&] {
        EXPECT_TRUE(semaphore.waitUntil(Clock::now() + 1h));
        ++returned;
    });
    const auto end = Clock::now() + a_while;
    while (Clock::now() < end) {
        conditionOf(semaphore).notify_all();
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(returned, 0);
    EXPECT_EQ(count(semaphore), 0U);
    semaphore.notify();
    semaphore.notify();
    unlimited.join();
    limited.join();
}

TEST(Semaphore, ReleasesOneWaiterForOneNotification) {
    cmn::Semaphore semaphore;
    std::atomic<int> returned{0};
    std::vector<std::thread> waiters;
    waiters.reserve(3);
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] {
            semaphore.wait();
            ++returned;
        });
    }
    for (int released = 1; released <= 3; ++released) {
        semaphore.notify();
        EXPECT_TRUE(eventually([&] { return returned == released; }));
        std::this_thread::sleep_for(10ms);
        EXPECT_EQ(returned, released);
    }
    for (auto& waiter : waiters) {
        waiter.join();
    }
}

TEST(Semaphore, LosesAndInventsNothingBetweenManyThreads) {
    constexpr int threads = 4;
    constexpr int each = 2000;
    cmn::Semaphore semaphore;
    std::atomic<int> consumed{0};
    std::vector<std::thread> workers;
    workers.reserve(std::size_t{2} * threads);
    for (int i = 0; i < threads; ++i) {
        workers.emplace_back([&] {
            for (int n = 0; n < each; ++n) {
                semaphore.notify();
            }
        });
        workers.emplace_back([&, limited = i % 2 == 0] {
            for (int n = 0; n < each; ++n) {
                if (limited) {
                    EXPECT_TRUE(semaphore.waitUntil(Clock::now() + 1h));
                } else {
                    semaphore.wait();
                }
                ++consumed;
            }
        });
    }
    for (auto& worker : workers) {
        worker.join();
    }
    EXPECT_EQ(consumed, threads * each);
    EXPECT_EQ(count(semaphore), 0U);
}
