#include "platform/OperationQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <future>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "support/ScarceThreads.h"

namespace {

std::shared_ptr<platform::IOperationQueue> serialQueue() {
    auto queue = platform::createOperationQueue();
    queue->setMaxConcurrentOperationCount(1);
    return queue;
}

void waitUntilIdle(platform::IOperationQueue& queue) {
    std::promise<void> done;
    queue.addOperation([&] { done.set_value(); });
    done.get_future().wait();
}

TEST(OperationQueue, RunsOperationsInTheOrderInWhichTheyWereAdded) {
    const auto queue = serialQueue();
    std::vector<int> order;
    for (int i = 0; i < 1000; ++i) {
        queue->addOperation([&order, i] { order.push_back(i); });
    }
    waitUntilIdle(*queue);
    ASSERT_EQ(order.size(), 1000U);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST(OperationQueue, RunsOneAtATimeAndNeverOnTheCallersThread) {
    const auto queue = serialQueue();
    std::set<std::thread::id> threads;
    int running = 0;
    int most = 0;
    for (int i = 0; i < 100; ++i) {
        queue->addOperation([&] {
            most = std::max(most, ++running);
            threads.insert(std::this_thread::get_id());
            --running;
        });
    }
    waitUntilIdle(*queue);
    EXPECT_EQ(most, 1);
    EXPECT_EQ(threads.count(std::this_thread::get_id()), 0U);
}

TEST(OperationQueue, AcceptsOperationsFromItsOwnOperations) {
    const auto queue = serialQueue();
    std::promise<int> last;
    std::function<void(int)> next = [&](int depth) {
        if (depth == 100) {
            last.set_value(depth);
        } else {
            queue->addOperation([&next, depth] { next(depth + 1); });
        }
    };
    queue->addOperation([&] { next(0); });
    EXPECT_EQ(last.get_future().get(), 100);
}

TEST(OperationQueue, StillRunsWhatWasAddedAfterItsOwnerLetGo) {
    auto queue = serialQueue();
    std::promise<void> gate;
    std::promise<void> ran;
    queue->addOperation([opened = gate.get_future().share()] { opened.wait(); });
    queue->addOperation([&] { ran.set_value(); });
    queue.reset();
    gate.set_value();
    ran.get_future().wait();
}

TEST(OperationQueue, MayBeReleasedInsideItsOwnOperation) {
    auto queue = serialQueue();
    std::promise<void> ran;
    platform::IOperationQueue* borrowed = queue.get();
    borrowed->addOperation([&ran, held = std::move(queue)]() mutable {
        held.reset();
        ran.set_value();
    });
    ran.get_future().wait();
}

TEST(OperationQueue, RunsAsManyAtOnceAsItIsWide) {
    const auto queue = platform::createOperationQueue();
    queue->setMaxConcurrentOperationCount(2);
    std::promise<void> oneRuns;
    std::promise<void> otherRuns;
    // Each waits for the other: this ends only if both are under way at once.
    std::array<std::promise<void>, 2> ends;
    queue->addOperation([&] {
        oneRuns.set_value();
        otherRuns.get_future().wait();
        ends[0].set_value();
    });
    queue->addOperation([&] {
        otherRuns.set_value();
        oneRuns.get_future().wait();
        ends[1].set_value();
    });
    for (auto& end : ends) {
        end.get_future().wait();
    }
}

TEST(OperationQueue, WithoutAThreadKeepsWhatWasAddedUntilThereIsOne) {
    const auto queue = serialQueue();
    std::vector<int> order;
    {
        const fake::ScarceThreads scarce;
        queue->addOperation([&] { order.push_back(1); });
    }
    queue->addOperation([&] { order.push_back(2); });
    waitUntilIdle(*queue);
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

}  // namespace
