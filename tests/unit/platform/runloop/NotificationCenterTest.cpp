#include "platform/NotificationCenter.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

const CFNotificationName first = CFSTR("test.first");
const CFNotificationName second = CFSTR("test.second");

/// An observer whose reaction is a function.
class Observer {
public:
    explicit Observer(std::function<void()> reaction) : m_reaction(std::move(reaction)) {}
    ~Observer() {
        remove(first);
        remove(second);
    }
    Observer(const Observer&) = delete;
    Observer& operator=(const Observer&) = delete;

    void add(CFNotificationName name) {
        CFNotificationCenterAddObserver(CFNotificationCenterGetLocalCenter(), this, &Observer::notified, name,
                                        nullptr, CFNotificationSuspensionBehaviorDeliverImmediately);
    }
    void remove(CFNotificationName name) {
        CFNotificationCenterRemoveObserver(CFNotificationCenterGetLocalCenter(), this, name, nullptr);
    }

private:
    static void notified(CFNotificationCenterRef center, void* observer, CFNotificationName /*name*/,
                         const void* /*object*/, CFDictionaryRef /*userInfo*/) {
        EXPECT_EQ(center, CFNotificationCenterGetLocalCenter());
        static_cast<Observer*>(observer)->m_reaction();
    }

    std::function<void()> m_reaction;
};

void post(CFNotificationName name) {
    CFNotificationCenterPostNotification(CFNotificationCenterGetLocalCenter(), name, nullptr, nullptr, 1);
}

/// A point that one thread waits at until another opens it.
class Checkpoint {
public:
    void open() { m_opened.set_value(); }
    bool wait() const { return m_open.wait_for(seconds(20)) == std::future_status::ready; }

private:
    std::promise<void> m_opened;
    std::shared_future<void> m_open = m_opened.get_future().share();
};

TEST(LocalNotificationCenter, CallsOnThePostersThreadBeforeThePostReturns) {
    std::thread::id thread;
    Observer observer([&thread] { thread = std::this_thread::get_id(); });
    observer.add(first);
    std::thread poster([&thread] {
        post(first);
        EXPECT_EQ(thread, std::this_thread::get_id());
    });
    poster.join();
}

TEST(LocalNotificationCenter, IsAnotherThanTheDistributedOne) {
    EXPECT_NE(CFNotificationCenterGetLocalCenter(), CFNotificationCenterGetDistributedCenter());
    EXPECT_EQ(CFNotificationCenterGetLocalCenter(), CFNotificationCenterGetLocalCenter());
}

TEST(LocalNotificationCenter, HandsOutTheNameThatWasPosted) {
    static std::string received;
    const int observer = 0;
    CFNotificationCenterAddObserver(
        CFNotificationCenterGetLocalCenter(), &observer,
        [](CFNotificationCenterRef, void*, CFNotificationName name, const void*, CFDictionaryRef) {
            received = reinterpret_cast<const char*>(name);
        },
        first, nullptr, CFNotificationSuspensionBehaviorDeliverImmediately);
    post(first);
    CFNotificationCenterRemoveObserver(CFNotificationCenterGetLocalCenter(), &observer, first, nullptr);
    EXPECT_EQ(received, "test.first");
}

TEST(LocalNotificationCenter, CallsTheSameRegistrationTwiceWhenItWasMadeTwice) {
    int calls = 0;
    Observer observer([&calls] { ++calls; });
    observer.add(first);
    observer.add(first);
    post(first);
    EXPECT_EQ(calls, 2);
}

TEST(LocalNotificationCenter, CallsInTheOrderOfRegistration) {
    std::string order;
    Observer one([&order] { order += '1'; });
    Observer two([&order] { order += '2'; });
    two.add(first);
    one.add(first);
    two.add(first);
    post(first);
    EXPECT_EQ(order, "212");
}

TEST(LocalNotificationCenter, RemovesEveryRegistrationOfTheObserverForTheName) {
    int calls = 0;
    Observer observer([&calls] { ++calls; });
    observer.add(first);
    observer.add(first);
    observer.add(second);
    observer.remove(first);
    post(first);
    EXPECT_EQ(calls, 0);
    post(second);
    EXPECT_EQ(calls, 1);
}

TEST(LocalNotificationCenter, LeavesTheRegistrationsOfOtherObservers) {
    int calls = 0;
    Observer removed([] { ADD_FAILURE() << "was removed"; });
    Observer kept([&calls] { ++calls; });
    removed.add(first);
    kept.add(first);
    removed.remove(first);
    post(first);
    EXPECT_EQ(calls, 1);
}

TEST(LocalNotificationCenter, RemovesNothingForANullObserver) {
    // What has no observer stays registered for ever: it has a name that no other test posts, and repetitions
    // add up.
    const CFNotificationName own = CFSTR("test.null");
    static int registrations = 0;
    static int nullCalls = 0;
    ++registrations;
    nullCalls = 0;
    int calls = 0;
    Observer observer([&calls] { ++calls; });
    observer.add(own);
    CFNotificationCenterAddObserver(
        CFNotificationCenterGetLocalCenter(), nullptr,
        [](CFNotificationCenterRef, void* null, CFNotificationName, const void*, CFDictionaryRef) {
            EXPECT_EQ(null, nullptr);
            ++nullCalls;
        },
        own, nullptr, CFNotificationSuspensionBehaviorDeliverImmediately);
    CFNotificationCenterRemoveObserver(CFNotificationCenterGetLocalCenter(), nullptr, own, nullptr);
    post(own);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(nullCalls, registrations);
    observer.remove(own);
}

TEST(LocalNotificationCenter, ComparesNamesByContent) {
    const std::string sameText = "test.first";
    int calls = 0;
    Observer observer([&calls] { ++calls; });
    observer.add(first);
    post(reinterpret_cast<CFNotificationName>(sameText.c_str()));
    EXPECT_EQ(calls, 1);
    observer.remove(reinterpret_cast<CFNotificationName>(sameText.c_str()));
    post(first);
    EXPECT_EQ(calls, 1);
}

TEST(LocalNotificationCenter, LetsACallbackRemoveItself) {
    int calls = 0;
    Observer* self = nullptr;
    Observer observer([&] {
        ++calls;
        self->remove(first);
    });
    self = &observer;
    observer.add(first);
    observer.add(first);
    post(first);
    post(first);
    EXPECT_EQ(calls, 1) << "the second registration was removed before its turn";
}

TEST(LocalNotificationCenter, LetsTheLastCallbackOfARemovedObserverFinishWithoutIt) {
    auto observer = std::make_unique<Observer>(nullptr);
    int calls = 0;
    std::unique_ptr<Observer> owned;
    owned = std::make_unique<Observer>([&] {
        ++calls;
        observer.reset();
    });
    observer->add(first);
    observer->remove(first);
    owned->add(first);
    post(first);
    EXPECT_EQ(calls, 1);
}

TEST(LocalNotificationCenter, SkipsAnObserverThatAnEarlierCallbackRemoved) {
    Observer removed([] { ADD_FAILURE() << "was removed"; });
    Observer remover([&removed] { removed.remove(first); });
    remover.add(first);
    removed.add(first);
    post(first);
}

TEST(LocalNotificationCenter, DoesNotCallAnObserverAddedDuringThePost) {
    int calls = 0;
    Observer added([&calls] { ++calls; });
    Observer adder([&added] { added.add(first); });
    adder.add(first);
    post(first);
    EXPECT_EQ(calls, 0);
    post(first);
    EXPECT_EQ(calls, 1);
}

TEST(LocalNotificationCenter, HoldsNoLockWhileItCalls) {
    Observer other([] {});
    Observer observer([&other] {
        const auto elsewhere = std::async(std::launch::async, [&other] {
            other.add(second);
            post(second);
            other.remove(second);
        });
        EXPECT_EQ(elsewhere.wait_for(seconds(20)), std::future_status::ready);
    });
    observer.add(first);
    post(first);
}

TEST(LocalNotificationCenter, PassesOnWhatACallbackThrowsAndStaysUsable) {
    bool throws = true;
    int calls = 0;
    Observer observer([&] {
        ++calls;
        if (throws) {
            throw std::runtime_error("of the callback");
        }
    });
    observer.add(first);
    EXPECT_THROW(post(first), std::runtime_error);
    throws = false;
    post(first);
    EXPECT_EQ(calls, 2);
    std::thread([&observer] { observer.remove(first); }).join();
    post(first);
    EXPECT_EQ(calls, 2);
}

/// An observer that stands in its callback on another thread.
class BusyObserver {
public:
    BusyObserver() : m_observer([this] { stay(); }) {
        m_observer.add(first);
        m_poster = std::thread([] { post(first); });
        EXPECT_TRUE(m_entered.wait());
    }
    ~BusyObserver() { m_poster.join(); }
    BusyObserver(const BusyObserver&) = delete;
    BusyObserver& operator=(const BusyObserver&) = delete;

    void leave() { m_leave.open(); }
    bool isOver() const { return m_over; }
    Observer& observer() { return m_observer; }

private:
    void stay() {
        m_entered.open();
        EXPECT_TRUE(m_leave.wait());
        // Whoever does not wait for this gets ahead of it.
        std::this_thread::sleep_for(milliseconds(50));
        m_over = true;
    }

    Checkpoint m_entered;
    Checkpoint m_leave;
    std::atomic<bool> m_over{false};
    Observer m_observer;
    std::thread m_poster;
};

TEST(LocalNotificationCenter, RemovalWaitsForACallbackOnAnotherThread) {
    BusyObserver busy;
    busy.leave();
    busy.observer().remove(first);
    EXPECT_TRUE(busy.isOver());
}

TEST(LocalNotificationCenter, ASecondRemovalWaitsAsWell) {
    BusyObserver busy;
    const auto remove = [&busy] {
        busy.observer().remove(first);
        return busy.isOver();
    };
    auto one = std::async(std::launch::async, remove);
    EXPECT_EQ(one.wait_for(milliseconds(50)), std::future_status::timeout);
    auto two = std::async(std::launch::async, remove);
    EXPECT_EQ(two.wait_for(milliseconds(50)), std::future_status::timeout);
    busy.leave();
    EXPECT_TRUE(one.get());
    EXPECT_TRUE(two.get());
}

TEST(LocalNotificationCenter, RemovalOfAnotherNameDoesNotWait) {
    BusyObserver busy;
    busy.observer().remove(second);
    EXPECT_FALSE(busy.isOver());
    busy.leave();
}

TEST(LocalNotificationCenter, AnObserverAddedAgainIsNotWaitedFor) {
    BusyObserver busy;
    auto removal = std::async(std::launch::async, [&busy] { busy.observer().remove(first); });
    EXPECT_EQ(removal.wait_for(milliseconds(50)), std::future_status::timeout);
    busy.observer().add(second);
    busy.observer().remove(second);
    EXPECT_FALSE(busy.isOver());
    busy.leave();
}

TEST(LocalNotificationCenter, TwoCallbacksThatRemoveThemselvesDoNotWaitForEachOther) {
    std::atomic<int> inside{0};
    Observer* self = nullptr;
    Observer observer([&] {
        ++inside;
        for (int waited = 0; inside < 2 && waited < 20000; ++waited) {
            std::this_thread::sleep_for(milliseconds(1));
        }
        self->remove(first);
    });
    self = &observer;
    observer.add(first);
    auto other = std::async(std::launch::async, [] { post(first); });
    post(first);
    EXPECT_EQ(other.wait_for(seconds(20)), std::future_status::ready);
    EXPECT_EQ(inside, 2);
}

TEST(LocalNotificationCenter, NoCallbackBeginsOrRunsAfterRemovalReturned) {
    std::atomic<bool> stop{false};
    const auto postUntilStopped = [&stop] {
        while (!stop) {
            post(first);
        }
    };
    std::array<std::thread, 3> posters{std::thread(postUntilStopped), std::thread(postUntilStopped),
                                       std::thread(postUntilStopped)};
    std::atomic<int> late{0};
    for (int round = 0; round < 300; ++round) {
        std::atomic<bool> registered{true};
        Observer observer([&] {
            if (!registered) {
                ++late;
            }
        });
        observer.add(first);
        std::this_thread::yield();
        observer.remove(first);
        registered = false;
    }
    stop = true;
    for (std::thread& poster : posters) {
        poster.join();
    }
    EXPECT_EQ(late, 0);
}

}  // namespace
