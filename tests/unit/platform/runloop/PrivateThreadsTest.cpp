#include "platform/linux/runloop/PrivateThreads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <thread>

#include "support/ScarceThreads.h"

namespace {

using platform::PrivateThreads;

TEST(PrivateThreads, RunsABodyOnAThreadOfItsOwn) {
    PrivateThreads threads;
    std::promise<std::thread::id> id;
    ASSERT_TRUE(threads.start(
        "test", [&] { id.set_value(std::this_thread::get_id()); }, [] {}));
    EXPECT_NE(id.get_future().get(), std::this_thread::get_id());
}

TEST(PrivateThreads, DrainAsksEachThreadToStopAndWaitsForItsEnd) {
    PrivateThreads threads;
    std::atomic<int> ended{0};
    for (int i = 0; i < 3; ++i) {
        auto stop = std::make_shared<std::promise<void>>();
        ASSERT_TRUE(threads.start(
            "test",
            [&ended, stop] {
                stop->get_future().wait();
                ++ended;
            },
            [stop] { stop->set_value(); }));
    }
    threads.drain();
    EXPECT_EQ(ended, 3);
}

TEST(PrivateThreads, StopsWhatWouldStartOnceDrained) {
    PrivateThreads threads;
    threads.drain();
    bool ran = false;
    bool stopped = false;
    EXPECT_FALSE(threads.start(
        "test", [&] { ran = true; }, [&] { stopped = true; }));
    EXPECT_FALSE(ran);
    EXPECT_TRUE(stopped);
}

TEST(PrivateThreads, AThreadMayStartAnother) {
    PrivateThreads threads;
    std::promise<void> inner;
    ASSERT_TRUE(threads.start(
        "outer",
        [&] {
            threads.start(
                "inner", [&] { inner.set_value(); }, [] {});
        },
        [] {}));
    inner.get_future().wait();
}

TEST(PrivateThreads, ReleasesWhatABodyHeldBeforeDrainReturns) {
    PrivateThreads threads;
    auto held = std::make_shared<int>(0);
    std::weak_ptr<int> watch = held;
    ASSERT_TRUE(threads.start(
        "test", [held = std::move(held)] { EXPECT_EQ(*held, 0); }, [] {}));
    threads.drain();
    EXPECT_TRUE(watch.expired());
}

TEST(PrivateThreads, DestructionJoinsWhatIsLeft) {
    std::atomic<bool> ended{false};
    {
        PrivateThreads threads;
        auto stop = std::make_shared<std::promise<void>>();
        threads.start(
            "test",
            [&ended, stop] {
                stop->get_future().wait();
                ended = true;
            },
            [stop] { stop->set_value(); });
    }
    EXPECT_TRUE(ended);
}

TEST(PrivateThreads, SaysSoWhenTheSystemGivesNoThreadAndForgetsWhatWasToRun) {
    PrivateThreads threads;
    bool called = false;
    {
        const fake::ScarceThreads scarce;
        EXPECT_FALSE(threads.start(
            "test", [&] { called = true; }, [&] { called = true; }));
    }
    std::promise<void> ran;
    EXPECT_TRUE(threads.start(
        "test", [&] { ran.set_value(); }, [] {}));
    ran.get_future().wait();
    threads.drain();
    EXPECT_FALSE(called);
}

}  // namespace
