#include "platform/HomeDirectory.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace {

using platform::pathInHomeDirectory;

/// Gives the variable HOME a value for one test.
class HomeDirectory : public testing::Test {
protected:
    void SetUp() override {
        if (const char* const home = std::getenv("HOME")) {
            m_home = home;
        }
    }
    void TearDown() override {
        if (m_home) {
            setenv("HOME", m_home->c_str(), 1);
        } else {
            unsetenv("HOME");
        }
    }
    static std::string ofPasswordEntry() { return getpwuid(getuid())->pw_dir; }

private:
    std::optional<std::string> m_home;
};

TEST_F(HomeDirectory, IsWhatTheServiceManagerSays) {
    setenv("HOME", "/home/somebody", 1);
    EXPECT_EQ(pathInHomeDirectory("Library/Logs/a.log"), "/home/somebody/Library/Logs/a.log");
}

TEST_F(HomeDirectory, IsJoinedWithOneSlash) {
    setenv("HOME", "/home/somebody//", 1);
    EXPECT_EQ(pathInHomeDirectory("/a"), "/home/somebody/a");
    setenv("HOME", "/", 1);
    EXPECT_EQ(pathInHomeDirectory("a"), "/a");
}

TEST_F(HomeDirectory, ComesFromThePasswordEntryWhereHomeIsUnset) {
    unsetenv("HOME");
    EXPECT_EQ(pathInHomeDirectory("a"), ofPasswordEntry() + "/a");
}

TEST_F(HomeDirectory, ComesFromThePasswordEntryWhereHomeIsNotAbsolute) {
    setenv("HOME", "somewhere", 1);
    EXPECT_EQ(pathInHomeDirectory("a"), ofPasswordEntry() + "/a");
    setenv("HOME", "", 1);
    EXPECT_EQ(pathInHomeDirectory("a"), ofPasswordEntry() + "/a");
}

TEST_F(HomeDirectory, IsNothingForAUserWithoutPasswordEntry) {
    if (getuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    unsetenv("HOME");
    constexpr uid_t nobodysUid = 3999999999;
    ASSERT_EQ(getpwuid(nobodysUid), nullptr);
    ASSERT_EQ(setresuid(nobodysUid, 0, 0), 0);
    const auto path = pathInHomeDirectory("a");
    ASSERT_EQ(setresuid(0, 0, 0), 0);
    EXPECT_EQ(path, std::nullopt);
}

}  // namespace
