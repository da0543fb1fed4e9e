#pragma once

#include <gtest/gtest.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <cstdint>
#include <functional>

#include "platform/linux/process/OutHandle.h"
#include "platform/linux/runloop/EventHandles.h"

/// An sd-event loop of the test's own.
class LoopFixture : public testing::Test {
protected:
    LoopFixture() { sd_event_new(platform::OutHandle(m_loop)); }

    sd_event* loop() const { return m_loop.get(); }

    /// Runs the loop until `condition` holds; false if it does not within 20 s and some turns more: they may
    /// have passed while the whole process was held up.
    bool runUntil(const std::function<bool()>& condition) const {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        for (int turnsLeft = 100; !condition();) {
            if (std::chrono::steady_clock::now() > deadline && turnsLeft-- == 0) {
                return false;
            }
            constexpr std::uint64_t tenMilliseconds = 10000;
            sd_event_run(loop(), tenMilliseconds);
        }
        return true;
    }

    /// Runs the loop for at least `time`, for things that must not happen in it.
    void runFor(std::chrono::milliseconds time) const {
        const auto end = std::chrono::steady_clock::now() + time;
        runUntil([end] { return std::chrono::steady_clock::now() >= end; });
    }

private:
    platform::LoopHandle m_loop;
};
