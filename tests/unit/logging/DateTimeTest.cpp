#include "logging/DateTime.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <locale>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "LogTestSupport.h"
#include "logging/Log.h"

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

// The time zone of this process alone.
class ChosenTimeZone {
public:
    explicit ChosenTimeZone(const char* zone) {
        if (const char* previous = std::getenv("TZ")) {
            m_previous = previous;
        }
        setenv("TZ", zone, 1);
        tzset();
    }
    ~ChosenTimeZone() {
        if (m_previous) {
            setenv("TZ", m_previous->c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    ChosenTimeZone(const ChosenTimeZone&) = delete;
    ChosenTimeZone& operator=(const ChosenTimeZone&) = delete;
    ChosenTimeZone(ChosenTimeZone&&) = delete;
    ChosenTimeZone& operator=(ChosenTimeZone&&) = delete;

private:
    std::optional<std::string> m_previous;
};

// 2026-11-16 05:28:20 UTC.
const auto someSecond = std::chrono::system_clock::from_time_t(1794806900);

TEST(DateTime, HasAColonBeforeTheMilliseconds) {
    const ChosenTimeZone zone("UTC0");
    EXPECT_EQ(Logging::formatDateTime(someSecond + milliseconds(123)), "2026/11/16 05:28:20:123");
}

TEST(DateTime, PadsTheMillisecondsWithZeros) {
    const ChosenTimeZone zone("UTC0");
    EXPECT_EQ(Logging::formatDateTime(someSecond), "2026/11/16 05:28:20:000");
    EXPECT_EQ(Logging::formatDateTime(someSecond + milliseconds(5)), "2026/11/16 05:28:20:005");
    EXPECT_EQ(Logging::formatDateTime(someSecond + milliseconds(50)), "2026/11/16 05:28:20:050");
    EXPECT_EQ(Logging::formatDateTime(someSecond + milliseconds(999)), "2026/11/16 05:28:20:999");
}

TEST(DateTime, TruncatesToMilliseconds) {
    const ChosenTimeZone zone("UTC0");
    EXPECT_EQ(Logging::formatDateTime(someSecond + microseconds(7999)), "2026/11/16 05:28:20:007");
    EXPECT_EQ(Logging::formatDateTime(someSecond + microseconds(999999)), "2026/11/16 05:28:20:999");
}

TEST(DateTime, PadsEveryOtherFieldToo) {
    const ChosenTimeZone zone("UTC0");
    EXPECT_EQ(Logging::formatDateTime(std::chrono::system_clock::from_time_t(0)), "1970/01/01 00:00:00:000");
}

TEST(DateTime, IsLocalTime) {
    const ChosenTimeZone zone("ABC-2");
    EXPECT_EQ(Logging::formatDateTime(someSecond), "2026/11/16 07:28:20:000");
}

TEST(DateTime, UsesTwentyFourHours) {
    const ChosenTimeZone zone("ABC-12");
    EXPECT_EQ(Logging::formatDateTime(someSecond), "2026/11/16 17:28:20:000");
}

// How times are written where people write them so.
class HoursWithADot : public std::time_put<char> {
protected:
    iter_type do_put(iter_type out, std::ios_base& stream, char fill, const std::tm* time, char format,
                     char modifier) const override {
        if (format != 'X') {
            return std::time_put<char>::do_put(out, stream, fill, time, format, modifier);
        }
        const std::string text = std::to_string(time->tm_hour) + ".";
        return std::copy(text.begin(), text.end(), out);
    }
};

TEST(DateTime, RendersTheTimeOfDayAsTheStreamsLocaleDoes) {
    const ChosenTimeZone zone("UTC0");
    const std::locale previous = std::locale::global(std::locale(std::locale::classic(), new HoursWithADot));
    const std::string text = Logging::formatDateTime(someSecond);
    std::locale::global(previous);
    EXPECT_EQ(text, "2026/11/16 5.:000");
}

TEST(DateTime, IsEachThreadsOwn) {
    const ChosenTimeZone zone("UTC0");
    constexpr int rounds = 2000;
    std::atomic<int> mixed{0};
    std::vector<std::thread> threads;
    for (int hour = 6; hour < 10; ++hour) {
        threads.emplace_back([hour, &mixed] {
            const std::string expected = "2026/11/16 0" + std::to_string(hour) + ":28:20:000";
            for (int round = 0; round < rounds; ++round) {
                mixed +=
                    Logging::formatDateTime(someSecond + std::chrono::hours(hour - 5)) == expected ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(mixed, 0);
}

TEST(DateTime, ReadsTheSystemClock) {
    const ChosenTimeZone zone("UTC0");  // where no hour comes twice
    const std::string before = Logging::formatDateTime(std::chrono::system_clock::now());
    const std::string now = now_date_time();
    const std::string after = Logging::formatDateTime(std::chrono::system_clock::now());
    EXPECT_EQ(now.size(), 23U);
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
}

}  // namespace
