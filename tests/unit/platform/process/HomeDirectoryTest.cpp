#include "platform/HomeDirectory.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "unit/platform/process/RunInChild.h"

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

/// An /etc/passwd of this process's own, where home is no absolute path. False where the system does not let
/// us.
bool giveRootARelativeHome() {
    std::string name = "/tmp/velm-passwd-XXXXXX";
    const int file = mkstemp(name.data());
    constexpr std::string_view entry = "root:x:0:0:root:relative/home:/bin/sh\n";
    const bool written = write(file, entry.data(), entry.size()) == static_cast<ssize_t>(entry.size());
    close(file);
    chmod(name.c_str(), 0644);
    const bool bound = written && unshare(CLONE_NEWNS) == 0 &&
                       mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                       mount(name.c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) == 0;
    unlink(name.c_str());
    return bound;
}

TEST_F(HomeDirectory, IsNothingWhereThePasswordEntryHasNoAbsolutePath) {
    constexpr int noNamespace = 77;
    const ChildResult result = runInChild([] {
        unsetenv("HOME");
        if (!giveRootARelativeHome()) {
            return noNamespace;
        }
        return getpwuid(0)->pw_dir == std::string("relative/home") && !pathInHomeDirectory("a") ? 0 : 1;
    });
    if (result.returned(noNamespace)) {
        GTEST_SKIP() << "needs root for a private /etc/passwd";
    }
    EXPECT_TRUE(result.returned(0)) << result.status;
}

}  // namespace
