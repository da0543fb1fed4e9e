#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "platform/linux/link/BusLink.h"
#include "platform/linux/link/DaemonProxy.h"
#include "platform/linux/link/Outbox.h"
#include "support/ScarceMemory.h"

// What becomes of messages to the daemon while memory is scarce.

namespace {

using fake::ScarceMemory;
using platform::Outbox;
using platform::OutgoingCall;

OutgoingCall call() {
    return {xpcDaemonProtocol.find("connect"), {}, {}};
}

OutgoingCall callWithReply() {
    return {xpcDaemonProtocol.find("pingWithReply:"), {}, XpcBoolReply([](bool) {})};
}

/// Whether there was memory for it.
bool append(Outbox& outbox, OutgoingCall call) {
    try {
        return outbox.append(std::move(call));
    } catch (const std::bad_alloc&) {
        return false;
    }
}

std::size_t takeAll(Outbox& outbox) {
    std::size_t taken = 0;
    while (outbox.take()) {
        ++taken;
    }
    return taken;
}

TEST(DaemonProxy, LosesQuietlyAMessageThatThereIsNoMemoryFor) {
    if (!ScarceMemory::isAvailable()) {
        GTEST_SKIP() << "a sanitizer's allocator cannot be made to fail";
    }
    const auto daemon =
        platform::createDaemonProxy(std::make_shared<platform::BusLink>("com.brovik.velmdaemon"));
    const std::vector<char> bytes(8192, 'x');
    const ScarceMemory memory;
    ASSERT_THROW(static_cast<void>(std::vector<char>(bytes)), std::bad_alloc);
    // What it throws would end the process.
    daemon->putMessage({bytes.data(), bytes.size()});
}

TEST(Outbox, GivesNoRoomToCallsThatThereIsNoMemoryFor) {
    if (!ScarceMemory::isAvailable()) {
        GTEST_SKIP() << "a sanitizer's allocator cannot be made to fail";
    }
    Outbox outbox;
    outbox.open();
    std::size_t kept = 0;
    {
        const ScarceMemory memory;
        while (kept < Outbox::callsLimit && append(outbox, call())) {
            ++kept;
        }
        ASSERT_LT(kept, Outbox::callsLimit);
        for (std::size_t i = 0; i < Outbox::repliesLimit; ++i) {
            ASSERT_FALSE(append(outbox, callWithReply()));
        }
    }
    EXPECT_EQ(takeAll(outbox), kept);
    for (std::size_t i = 0; i < Outbox::repliesLimit; ++i) {
        EXPECT_TRUE(append(outbox, callWithReply()));
    }
    EXPECT_EQ(takeAll(outbox), Outbox::repliesLimit);
}

}  // namespace
