#include "platform/linux/process/LocalTime.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "support/ZoneRules.h"
#include "unit/platform/process/RunInChild.h"

namespace {

using platform::prepareLocalTime;
using platform::readZoneRules;
using platform::setLocalTime;
namespace fs = std::filesystem;

constexpr int minutesOfEast = 570;
constexpr int minutesOfWest = -480;

long minutesEastNow() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    return local.tm_gmtoff / 60;
}

// Formatting a time has the C library look at TZ.
long minutesEastAfterFormatting() {
    std::tm local{};
    std::string text(64, '\0');
    static_cast<void>(std::strftime(text.data(), text.size(), "%X", &local));
    return minutesEastNow();
}

TEST(LocalTime, FollowsEachRulesInTurn) {
    const auto body = [] {
        prepareLocalTime();
        for (int round = 0; round < 3; ++round) {
            if (!setLocalTime(zoneRules("EAST", minutesOfEast)) || minutesEastNow() != minutesOfEast) {
                return 1;
            }
            if (!setLocalTime(zoneRules("WEST", minutesOfWest)) || minutesEastNow() != minutesOfWest) {
                return 2;
            }
        }
        return 0;
    };
    EXPECT_TRUE(runInChild(body).returned(0));
}

TEST(LocalTime, StaysWhenTheLibraryIsMadeToLookByItself) {
    const auto body = [] {
        prepareLocalTime();
        setLocalTime(zoneRules("EAST", minutesOfEast));
        tzset();
        return minutesEastAfterFormatting() == minutesOfEast ? 0 : 1;
    };
    EXPECT_TRUE(runInChild(body).returned(0));
}

TEST(LocalTime, IsUtcWithoutRulesAndWithATextThatIsNone) {
    const auto body = [] {
        prepareLocalTime();
        setLocalTime(zoneRules("EAST", minutesOfEast));
        setLocalTime(std::nullopt);
        if (minutesEastNow() != 0) {
            return 1;
        }
        setLocalTime(zoneRules("EAST", minutesOfEast));
        setLocalTime("no rules");
        return minutesEastNow() == 0 ? 0 : 2;
    };
    EXPECT_TRUE(runInChild(body).returned(0));
}

TEST(LocalTime, IsNeverAnythingBetweenForAnotherThread) {
    const auto body = [] {
        prepareLocalTime();
        setLocalTime(zoneRules("EAST", minutesOfEast));
        std::atomic<bool> ended{false};
        std::atomic<bool> wrong{false};
        std::thread other([&] {
            while (!ended) {
                const long minutes = minutesEastAfterFormatting();
                wrong = wrong || (minutes != minutesOfEast && minutes != minutesOfWest);
            }
        });
        // The other thread holds the library's lock most of the time, so a round may take long on a busy
        // machine.
        const auto longest = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        for (int round = 0; round < 2000 && std::chrono::steady_clock::now() < longest; ++round) {
            setLocalTime(zoneRules("WEST", minutesOfWest));
            setLocalTime(zoneRules("EAST", minutesOfEast));
        }
        ended = true;
        other.join();
        return wrong ? 1 : 0;
    };
    EXPECT_TRUE(runInChild(body).returned(0));
}

TEST(LocalTime, StaysAsItWasWhereTheProcessHasNoDescriptorLeft) {
    const auto body = [] {
        prepareLocalTime();
        setLocalTime(zoneRules("EAST", minutesOfEast));
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        const rlimit none{3, limit.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
        if (setLocalTime(zoneRules("WEST", minutesOfWest)) || minutesEastAfterFormatting() != minutesOfEast) {
            return 1;
        }
        setrlimit(RLIMIT_NOFILE, &limit);
        return setLocalTime(zoneRules("WEST", minutesOfWest)) && minutesEastNow() == minutesOfWest ? 0 : 2;
    };
    EXPECT_TRUE(runInChild(body).returned(0));
}

TEST(LocalTime, KeepsNoMoreThanOneDescriptor) {
    const auto body = [] {
        const auto open = [] {
            const fs::directory_iterator descriptors("/proc/self/fd");
            return std::distance(begin(descriptors), end(descriptors));
        };
        const auto before = open();
        prepareLocalTime();
        for (int round = 0; round < 10; ++round) {
            setLocalTime(zoneRules("EAST", minutesOfEast));
        }
        return open() == before + 1 ? 0 : 1;
    };
    EXPECT_TRUE(runInChild(body).returned(0));
}

class ZoneRules : public testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "velm-rules-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        m_directory = pattern;
    }
    void TearDown() override { fs::remove_all(m_directory); }

    std::string file() const { return (m_directory / "file").string(); }

    fs::path m_directory;
};

TEST_F(ZoneRules, AreTheTextOfTheFile) {
    std::ofstream(file()) << "the rules";
    EXPECT_EQ(readZoneRules(file()), "the rules");
    std::ofstream(file()).flush();
    EXPECT_EQ(readZoneRules(file()), "");
}

TEST_F(ZoneRules, AreReadThroughALink) {
    std::ofstream(m_directory / "target") << "the rules";
    fs::create_symlink("target", file());
    EXPECT_EQ(readZoneRules(file()), "the rules");
}

TEST_F(ZoneRules, AreNotThereWhereThereIsNoRegularFile) {
    EXPECT_EQ(readZoneRules(file()), std::nullopt);
    fs::create_symlink("file", file());
    EXPECT_EQ(readZoneRules(file()), std::nullopt) << "a circle";
    fs::remove(file());
    ASSERT_EQ(mkfifo(file().c_str(), 0600), 0);
    EXPECT_EQ(readZoneRules(file()), std::nullopt) << "a pipe";
    EXPECT_EQ(readZoneRules(m_directory.string()), std::nullopt) << "a directory";
}

TEST_F(ZoneRules, OfAGigabyteAreReadUpToABound) {
    std::ofstream(file()).flush();
    fs::resize_file(file(), std::uintmax_t{1} << 30);
    const auto rules = readZoneRules(file());
    ASSERT_TRUE(rules);
    // Some bytes more, as a library may round up.
    EXPECT_LT(rules->capacity(), 65U * 1024);
}

}  // namespace
