#include "platform/linux/link/Outbox.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <memory>
#include <optional>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

namespace {

using platform::Outbox;
using platform::OutgoingCall;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// What only a failure waits for.
constexpr std::chrono::seconds cap{10};

OutgoingCall numbered(std::int32_t number) {
    OutgoingCall call;
    call.argument = number;
    return call;
}

OutgoingCall ofSize(std::size_t bytes) {
    OutgoingCall call;
    call.argument = std::vector<char>(bytes);
    return call;
}

OutgoingCall question() {
    OutgoingCall call;
    call.reply = XpcBoolReply([](bool /*value*/) {});
    return call;
}

bool isReadable(int descriptor) {
    pollfd polled{descriptor, POLLIN, 0};
    return ::poll(&polled, 1, 0) == 1;
}

/// Takes everything out; how many calls that were.
std::size_t drain(Outbox& outbox) {
    std::size_t count = 0;
    while (outbox.take()) {
        ++count;
    }
    return count;
}

class OutboxTest : public testing::Test {
protected:
    OutboxTest() { outbox.open(); }

    /// A question whose block, when it is destroyed, sees whether others can use the outbox meanwhile.
    OutgoingCall watched() {
        OutgoingCall call;
        const std::shared_ptr<void> held(nullptr, [this](void* /*nothing*/) {
            probe = std::async(std::launch::async, [this] { outbox.isOpen(); });
            usable = probe.wait_for(cap) == std::future_status::ready;
        });
        call.reply = XpcBoolReply([held](bool /*value*/) {});
        return call;
    }

    Outbox outbox;
    std::optional<bool> usable;
    std::future<void> probe;
};

TEST(Outbox, TakesNothingBeforeItIsOpen) {
    Outbox outbox;
    EXPECT_FALSE(outbox.isOpen());
    EXPECT_FALSE(outbox.append(numbered(1)));
    EXPECT_FALSE(outbox.used());
    outbox.open();
    EXPECT_TRUE(outbox.isOpen());
    EXPECT_FALSE(outbox.take());
}

TEST_F(OutboxTest, HandsOutWhatWasAppendedInItsOrder) {
    for (std::int32_t number = 0; number < 3; ++number) {
        EXPECT_TRUE(outbox.append(numbered(number)));
    }
    for (std::int32_t number = 0; number < 3; ++number) {
        const auto call = outbox.take();
        ASSERT_TRUE(call);
        EXPECT_EQ(std::get<std::int32_t>(call->argument), number);
    }
    EXPECT_FALSE(outbox.take());
    EXPECT_TRUE(outbox.used());
}

TEST_F(OutboxTest, TakesNoMoreOnceClosedAndKeepsWhatItHas) {
    outbox.append(numbered(1));
    outbox.close();
    EXPECT_FALSE(outbox.isOpen());
    EXPECT_FALSE(outbox.append(numbered(2)));
    EXPECT_EQ(drain(outbox), 1U);
}

TEST_F(OutboxTest, HoldsNoMoreThanItsNumberOfCallsAndRoomComesBack) {
    for (std::size_t count = 0; count < Outbox::callsLimit + 5; ++count) {
        EXPECT_TRUE(outbox.append(numbered(0)));
    }
    EXPECT_EQ(drain(outbox), Outbox::callsLimit);
    outbox.append(numbered(0));
    EXPECT_EQ(drain(outbox), 1U);
}

TEST_F(OutboxTest, HoldsNoMoreThanItsNumberOfBytesAndRoomComesBack) {
    constexpr std::size_t mebibyte = std::size_t{1} << 20U;
    for (int round = 0; round < 2; ++round) {
        for (int count = 0; count < 70; ++count) {
            outbox.append(ofSize(mebibyte));
        }
        EXPECT_EQ(drain(outbox), Outbox::bytesLimit / mebibyte) << "round " << round;
    }
}

TEST_F(OutboxTest, HoldsTheLargestCallAndNoneThatIsLarger) {
    EXPECT_TRUE(outbox.append(ofSize(Outbox::largestPayload + 1)));
    EXPECT_EQ(drain(outbox), 0U);
    EXPECT_TRUE(outbox.used()) << "also by what was dropped";
    EXPECT_TRUE(outbox.append(ofSize(Outbox::largestPayload)));
    EXPECT_EQ(drain(outbox), 1U);
}

TEST_F(OutboxTest, CountsTheAnswersThatAreAwaitedUntilTheyAreSettled) {
    for (std::size_t count = 0; count < Outbox::repliesLimit + 5; ++count) {
        outbox.append(question());
    }
    EXPECT_EQ(drain(outbox), Outbox::repliesLimit);
    outbox.append(question());
    EXPECT_EQ(drain(outbox), 0U) << "taken, but not answered";
    outbox.append(numbered(0));
    EXPECT_EQ(drain(outbox), 1U) << "wants no answer";
    outbox.replySettled();
    outbox.append(question());
    outbox.append(question());
    EXPECT_EQ(drain(outbox), 1U);
}

TEST_F(OutboxTest, AsASinkDropsWhatItHasAndKeepsNothing) {
    outbox.append(numbered(1));
    outbox.sink();
    EXPECT_TRUE(outbox.isOpen());
    EXPECT_TRUE(outbox.append(numbered(2)));
    EXPECT_EQ(drain(outbox), 0U);
}

TEST_F(OutboxTest, AsASinkGoesOnToTellThatItIsUsed) {
    outbox.sink();
    EXPECT_FALSE(outbox.used());
    EXPECT_TRUE(outbox.append(numbered(1)));
    EXPECT_TRUE(outbox.used());
    EXPECT_TRUE(outbox.awaitUse());
}

TEST_F(OutboxTest, ThatIsClosedBecomesNoSinkThatIsOpen) {
    outbox.close();
    outbox.sink();
    EXPECT_FALSE(outbox.isOpen());
}

TEST_F(OutboxTest, DestroysBlocksThatItSinksWithoutHoldingUpSenders) {
    outbox.append(watched());
    outbox.sink();
    EXPECT_EQ(usable, true);
}

TEST_F(OutboxTest, DestroysBlocksThatDoNotFitWithoutHoldingUpSenders) {
    outbox.sink();
    outbox.append(watched());
    EXPECT_EQ(usable, true);
}

TEST_F(OutboxTest, IsReadableWheneverThereIsSomethingToLookAt) {
    EXPECT_FALSE(isReadable(outbox.wakeUp()));
    outbox.append(numbered(1));
    EXPECT_TRUE(isReadable(outbox.wakeUp()));
    outbox.clearWakeUp();
    EXPECT_FALSE(isReadable(outbox.wakeUp()));
    outbox.wake();
    EXPECT_TRUE(isReadable(outbox.wakeUp()));
    outbox.clearWakeUp();
    outbox.close();
    EXPECT_TRUE(isReadable(outbox.wakeUp()));
}

TEST_F(OutboxTest, WakesWhoAwaitsItsUse) {
    auto used = std::async(std::launch::async, [this] { return outbox.awaitUse(); });
    EXPECT_EQ(used.wait_for(milliseconds(20)), std::future_status::timeout);
    outbox.append(numbered(1));
    EXPECT_TRUE(used.get());
}

TEST_F(OutboxTest, WakesWhoAwaitsItsUseInVain) {
    auto used = std::async(std::launch::async, [this] { return outbox.awaitUse(); });
    outbox.close();
    EXPECT_FALSE(used.get());
}

TEST_F(OutboxTest, StaysOpenForAsLongAsAsked) {
    const auto before = steady_clock::now();
    EXPECT_TRUE(outbox.staysOpenFor(milliseconds(30)));
    EXPECT_GE(steady_clock::now() - before, milliseconds(30));
}

TEST_F(OutboxTest, SaysSoWhenItDoesNotStayOpen) {
    auto stays =
        std::async(std::launch::async, [this] { return outbox.staysOpenFor(std::chrono::hours(1)); });
    outbox.append(numbered(1));
    outbox.close();
    EXPECT_FALSE(stays.get());
}

}  // namespace
