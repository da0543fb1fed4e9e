#include "platform/linux/screenlock/ScreenLockSource.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "link/support/PrivateBus.h"
#include "platform/linux/bus/BusCallback.h"
#include "platform/linux/process/OutHandle.h"
#include "unit/platform/runloop/LoopFixture.h"
#include "unit/platform/screenlock/FakeLogind.h"

namespace {

using link_tests::PrivateBus;
using platform::ScreenLockSource;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Matches;
using Reports = std::vector<bool>;

FakeSession ownSession(bool locked = false) {
    return {getuid(), "user", locked};
}
FakeSession othersSession() {
    return {getuid() + 1};
}
FakeSession ownSessionOf(const char* kind) {
    return {getuid(), kind};
}
FakeSession ownRemoteSession() {
    return {getuid(), "user", false, "active", true};
}

/// A screen saver that owns its name on the session bus, and answers GetActive.
class FakeSaver {
public:
    FakeSaver(sd_event* loop, const std::string& address, std::string name, bool active)
        : m_bus(connectTo(address)), m_name(std::move(name)), m_path("/" + m_name), m_active(active) {
        std::replace(m_path.begin(), m_path.end(), '.', '/');
        sd_bus_add_filter(m_bus.get(), nullptr, platform::busCallback<&FakeSaver::called, FakeSaver>, this);
        sd_bus_request_name(m_bus.get(), m_name.c_str(), 0);
        sd_bus_attach_event(m_bus.get(), loop, SD_EVENT_PRIORITY_NORMAL);
    }

    void setActive(bool active) {
        m_active = active;
        sd_bus_emit_signal(m_bus.get(), m_path.c_str(), m_name.c_str(), "ActiveChanged", "b",
                           static_cast<int>(active));
    }
    void refuse() { m_refuses = true; }
    /// From here on questions wait for an answer until `answerHeld`.
    void holdAnswers() { m_holds = true; }
    void answerHeld(bool active) {
        m_holds = false;
        for (const platform::MessageHandle& call : std::exchange(m_held, {})) {
            sd_bus_reply_method_return(call.get(), "b", static_cast<int>(active));
        }
    }
    /// Lets go of the name but stays on the bus.
    void releaseName() { sd_bus_release_name(m_bus.get(), m_name.c_str()); }
    sd_bus* bus() const { return m_bus.get(); }
    int asked() const { return m_asked; }

    /// The unique name of the one that asks.
    const std::string& asker() const { return m_asker; }

private:
    int called(sd_bus_message* call, sd_bus_error* /*error*/) {
        if (sd_bus_message_is_method_call(call, m_name.c_str(), "GetActive") <= 0 ||
            m_path != sd_bus_message_get_path(call)) {
            return 0;
        }
        ++m_asked;
        m_asker = sd_bus_message_get_sender(call);
        if (m_holds) {
            m_held.emplace_back(sd_bus_message_ref(call));
        } else if (m_refuses) {
            sd_bus_reply_method_errorf(call, SD_BUS_ERROR_FAILED, "refused");
        } else {
            sd_bus_reply_method_return(call, "b", static_cast<int>(m_active));
        }
        return 1;
    }

    platform::BusHandle m_bus;
    std::string m_name;
    std::string m_path;
    bool m_active;
    bool m_refuses = false;
    bool m_holds = false;
    std::vector<platform::MessageHandle> m_held;
    int m_asked = 0;
    std::string m_asker;
};

class ScreenLockSourceTest : public LoopFixture {
protected:
    void SetUp() override {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", m_systemBus.address().c_str(), 1);
        setenv("DBUS_SESSION_BUS_ADDRESS", m_sessionBus.address().c_str(), 1);
    }

    void startLogind() {
        m_systemBus.start();
        m_logind = std::make_unique<FakeLogind>(loop(), m_systemBus.address());
    }
    void startSource() {
        m_started = std::chrono::steady_clock::now();
        m_source =
            std::make_unique<ScreenLockSource>(loop(), [this](bool locked) { m_reports.push_back(locked); });
    }
    /// Starts with one own session, "s1", and waits until it is known.
    void startWithOneSession() {
        startLogind();
        m_logind->have("s1", ownSession());
        startSource();
        ASSERT_TRUE(waitForQuestions(1));
    }
    bool waitForQuestions(int count) {
        return runUntil([this, count] { return m_logind->sessionsAsked() >= count; });
    }
    /// How often a question can have been asked by now that is asked once, and again whenever no answer has
    /// come for 3 s.
    int mostAsked() const {
        return 1 + static_cast<int>((std::chrono::steady_clock::now() - m_started) / std::chrono::seconds(3));
    }
    /// Returns when all was handled that logind has sent so far, and what that leads to was asked.
    bool waitUntilHandled() {
        const std::string last = "s9";
        m_logind->add(last, ownRemoteSession());
        return runUntil([&] { return Matches(Contains(last))(m_logind->askedFor()); });
    }
    bool waitForReports(std::size_t count) {
        return runUntil([this, count] { return m_reports.size() >= count; });
    }
    /// Locks and unlocks "s1" and waits for both reports: whatever was sent before was handled then.
    void lockAndUnlock() {
        const std::size_t before = m_reports.size();
        m_logind->setHint("s1", true);
        m_logind->setHint("s1", false);
        EXPECT_TRUE(waitForReports(before + 2));
    }

    PrivateBus m_systemBus;
    PrivateBus m_sessionBus;
    std::unique_ptr<FakeLogind> m_logind;
    Reports m_reports;
    std::chrono::steady_clock::time_point m_started;
    std::unique_ptr<ScreenLockSource> m_source;
};

TEST_F(ScreenLockSourceTest, ReportsTheEdgesOfAnOwnSession) {
    startWithOneSession();
    lockAndUnlock();
    lockAndUnlock();
    EXPECT_THAT(m_reports, ElementsAre(true, false, true, false));
}

TEST_F(ScreenLockSourceTest, TakesOverSilentlyASessionThatIsLockedAtStart) {
    startLogind();
    m_logind->have("s1", ownSession(true));
    startSource();
    ASSERT_TRUE(waitForQuestions(1));
    m_logind->setHint("s1", false);
    EXPECT_TRUE(waitForReports(1));
    EXPECT_THAT(m_reports, ElementsAre(false));
}

TEST_F(ScreenLockSourceTest, IgnoresSessionsOfOtherUsersAndWithoutAScreen) {
    startLogind();
    m_logind->have("s1", ownSession());
    m_logind->have("s2", othersSession());
    m_logind->have("s3", ownSessionOf("manager"));
    m_logind->have("s4", ownSessionOf("background"));
    startSource();
    ASSERT_TRUE(waitForQuestions(3));
    for (const char* session : {"s2", "s3", "s4"}) {
        m_logind->setHint(session, true);
    }
    lockAndUnlock();
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenLockSourceTest, AsksForNoSessionOfAnother) {
    startLogind();
    m_logind->have("s1", ownSession());
    for (int count = 0; count < 300; ++count) {
        m_logind->have("o" + std::to_string(count), othersSession());
    }
    startSource();
    ASSERT_TRUE(waitForQuestions(1));
    for (int count = 0; count < 300; ++count) {
        m_logind->setHint("o" + std::to_string(count), true);
    }
    m_logind->add("o300", othersSession());
    m_logind->setHint("o300", true);
    lockAndUnlock();
    EXPECT_THAT(m_logind->askedFor(), Each("s1"));
}

TEST_F(ScreenLockSourceTest, FollowsASessionFromWhenItsClassCanBeLocked) {
    startLogind();
    m_logind->have("s1", ownSessionOf("user-incomplete"));
    startSource();
    ASSERT_TRUE(waitForQuestions(1));
    m_logind->setClass("s1", "user");
    ASSERT_TRUE(waitForQuestions(2));
    lockAndUnlock();
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenLockSourceTest, FollowsEveryClassThatCanBeLocked) {
    startWithOneSession();
    int asked = 1;
    for (const char* kind : {"user", "user-early", "user-light", "user-early-light"}) {
        m_reports.clear();
        const std::string session = "n" + std::to_string(asked);
        m_logind->add(session, ownSessionOf(kind));
        ASSERT_TRUE(waitForQuestions(++asked));
        m_logind->setHint(session, true);
        m_logind->setHint(session, false);
        EXPECT_TRUE(waitForReports(2)) << kind;
    }
}

TEST_F(ScreenLockSourceTest, FollowsASessionThatAppearsLater) {
    startWithOneSession();
    m_logind->add("s2", ownSession());
    ASSERT_TRUE(waitForQuestions(2));
    m_logind->setHint("s2", true);
    EXPECT_TRUE(waitForReports(1));
    m_logind->setHint("s2", false);
    EXPECT_TRUE(waitForReports(2));
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenLockSourceTest, ReportsNothingForASessionRemovedWhileLocked) {
    startWithOneSession();
    m_logind->add("s2", ownSession());
    m_logind->setHint("s2", true);
    ASSERT_TRUE(waitForReports(1));
    m_logind->remove("s2");
    lockAndUnlock();
    EXPECT_THAT(m_reports, ElementsAre(true, true, false));
}

TEST_F(ScreenLockSourceTest, LosesNoChangeThatComesBeforeTheFirstAnswer) {
    startWithOneSession();
    m_logind->holdSessionAnswers();
    m_logind->add("s2", ownSession());
    ASSERT_TRUE(waitForQuestions(2));
    m_logind->setHint("s2", true);
    m_logind->answerHeld();
    EXPECT_TRUE(waitForReports(1));
    EXPECT_THAT(m_reports, ElementsAre(true));
}

TEST_F(ScreenLockSourceTest, FollowsANewSessionAlthoughTheListThatWasAskedForIsOld) {
    startWithOneSession();
    m_logind->holdAnswers();
    m_logind->add("s2", othersSession());
    ASSERT_TRUE(runUntil([this] { return m_logind->held() == 1; }));
    m_logind->add("s3", ownSession());
    m_logind->answerHeld();
    ASSERT_TRUE(waitForQuestions(2));
    m_logind->setHint("s3", true);
    EXPECT_TRUE(waitForReports(1));
}

TEST_F(ScreenLockSourceTest, ReportsTheLockOfALoginAfterASessionThatEndedWhileLocked) {
    startWithOneSession();
    m_logind->setHint("s1", true);
    ASSERT_TRUE(waitForReports(1));
    m_logind->close("s1");
    m_logind->add("s2", ownSession());
    m_logind->setHint("s2", true);
    EXPECT_TRUE(waitForReports(2));
    m_logind->setHint("s2", false);
    EXPECT_TRUE(waitForReports(3));
    EXPECT_THAT(m_reports, ElementsAre(true, true, false));
}

TEST_F(ScreenLockSourceTest, ReportsTheLockOfASessionThatWasThereBeforeAnotherEndedWhileLocked) {
    startWithOneSession();
    m_logind->add("s2", ownSession());
    ASSERT_TRUE(waitForQuestions(2));
    m_logind->setHint("s1", true);
    ASSERT_TRUE(waitForReports(1));
    m_logind->close("s1");
    m_logind->setHint("s2", true);
    m_logind->setHint("s2", false);
    EXPECT_TRUE(waitForReports(3));
    EXPECT_THAT(m_reports, ElementsAre(true, true, false));
}

TEST_F(ScreenLockSourceTest, FollowsItsSessionsWhileOthersComeAndGoAllTheTime) {
    startWithOneSession();
    m_logind->setHint("s1", true);
    ASSERT_TRUE(waitForReports(1));
    const int asked = m_logind->listsAsked() + m_logind->sessionsAsked();
    constexpr int sessions = 500;
    for (int count = 0; count < sessions; ++count) {
        m_logind->add("t" + std::to_string(count), count % 2 == 0 ? othersSession() : ownSession(true));
        m_logind->remove("t" + std::to_string(count));
    }
    m_logind->setHint("s1", false);
    EXPECT_TRUE(waitForReports(2));
    EXPECT_THAT(m_reports, ElementsAre(true, false));
    EXPECT_LT(m_logind->listsAsked() + m_logind->sessionsAsked() - asked, sessions / 2)
        << "questions that nobody has answered are not asked again";
}

TEST_F(ScreenLockSourceTest, LosesNoChangeThatComesBeforeTheListOfSessions) {
    startLogind();
    m_logind->have("s1", ownSession());
    m_logind->holdAnswers();
    startSource();
    ASSERT_TRUE(runUntil([this] { return m_logind->listsAsked() == 1; }));
    m_logind->setHint("s1", true);
    runFor(std::chrono::milliseconds(100));
    m_logind->answerHeld();
    EXPECT_TRUE(waitForReports(1));
    EXPECT_THAT(m_reports, ElementsAre(true));
}

TEST_F(ScreenLockSourceTest, ReadsAgainAHintThatIsOnlyInvalidated) {
    startWithOneSession();
    m_logind->invalidateHint("s1", true);
    EXPECT_TRUE(waitForReports(1));
    m_logind->invalidateHint("s1", false);
    EXPECT_TRUE(waitForReports(2));
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenLockSourceTest, TakesOverSilentlyWhatARestartedLogindSays) {
    startWithOneSession();
    m_logind->setHint("s1", true);
    ASSERT_TRUE(waitForReports(1));
    m_logind.reset();
    m_logind = std::make_unique<FakeLogind>(loop(), m_systemBus.address());
    m_logind->have("s1", ownSession());
    ASSERT_TRUE(waitForQuestions(1));
    lockAndUnlock();
    EXPECT_THAT(m_reports, ElementsAre(true, true, false));
}

TEST_F(ScreenLockSourceTest, IgnoresTheLateAnswersAndSignalsOfAnOlderLogind) {
    startWithOneSession();
    m_logind->holdSessionAnswers();
    m_logind->add("s2", ownSession(true));
    ASSERT_TRUE(waitForQuestions(2));
    const auto older = std::move(m_logind);
    older->releaseName();
    m_logind = std::make_unique<FakeLogind>(loop(), m_systemBus.address());
    m_logind->have("s1", ownSession());
    m_logind->have("s2", ownSession());
    ASSERT_TRUE(waitForQuestions(2));
    older->answerHeld();
    older->setHint("s1", true);
    sd_bus_flush(older->bus());
    lockAndUnlock();
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

/// Sends a signal straight to one peer, whatever that peer listens to.
template <typename... Values>
void emitTo(sd_bus* bus, const std::string& peer, const std::string& path, const char* interface,
            const char* member, const char* types, Values... values) {
    platform::MessageHandle signal;
    sd_bus_message_new_signal(bus, platform::OutHandle(signal), path.c_str(), interface, member);
    sd_bus_message_append(signal.get(), types, values...);
    sd_bus_send_to(bus, signal.get(), peer.c_str(), nullptr);
}

/// Returns when the bus has handed on everything that `bus` sent before.
void roundTrip(sd_bus* bus) {
    ASSERT_GE(sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                 "GetId", nullptr, nullptr, ""),
              0);
}

TEST_F(ScreenLockSourceTest, IgnoresForgedHints) {
    startWithOneSession();
    m_logind->add("s2", ownSession());
    ASSERT_TRUE(waitForQuestions(2));
    const auto forger = connectTo(m_systemBus.address());
    emitTo(forger.get(), m_logind->asker(), FakeLogind::path("s2"), "org.freedesktop.DBus.Properties",
           "PropertiesChanged", "sa{sv}as", "org.freedesktop.login1.Session", 1, "LockedHint", "b", 1, 0);
    roundTrip(forger.get());
    ASSERT_TRUE(waitUntilHandled());
    EXPECT_THAT(m_reports, ElementsAre());
    // Were "s2" taken for locked, the edges of "s1" would not show.
    lockAndUnlock();
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenLockSourceTest, IgnoresForgedSessions) {
    startWithOneSession();
    const auto forger = connectTo(m_systemBus.address());
    const char* const manager = "org.freedesktop.login1.Manager";
    emitTo(forger.get(), m_logind->asker(), "/org/freedesktop/login1", manager, "SessionRemoved", "so", "s1",
           FakeLogind::path("s1").c_str());
    emitTo(forger.get(), m_logind->asker(), "/org/freedesktop/login1", manager, "SessionNew", "so", "s9",
           FakeLogind::path("s9").c_str());
    roundTrip(forger.get());
    lockAndUnlock();
    EXPECT_THAT(m_reports, ElementsAre(true, false));
    EXPECT_LE(m_logind->sessionsAsked(), mostAsked());
}

TEST_F(ScreenLockSourceTest, IgnoresAForgedOwner) {
    startWithOneSession();
    const auto forger = connectTo(m_systemBus.address());
    const char* forgersName = nullptr;
    sd_bus_get_unique_name(forger.get(), &forgersName);
    emitTo(forger.get(), m_logind->asker(), "/org/freedesktop/DBus", "org.freedesktop.DBus",
           "NameOwnerChanged", "sss", "org.freedesktop.login1", "", forgersName);
    emitTo(forger.get(), m_logind->asker(), FakeLogind::path("s1"), "org.freedesktop.DBus.Properties",
           "PropertiesChanged", "sa{sv}as", "org.freedesktop.login1.Session", 1, "LockedHint", "b", 1, 0);
    roundTrip(forger.get());
    lockAndUnlock();
    EXPECT_THAT(m_reports, ElementsAre(true, false));
    EXPECT_LE(m_logind->listsAsked(), mostAsked());
}

TEST_F(ScreenLockSourceTest, IgnoresMalformedSignals) {
    startWithOneSession();
    sd_bus* const bus = m_logind->bus();
    const std::string session = FakeLogind::path("s1");
    const auto properties = [&](const char* types, auto... values) {
        sd_bus_emit_signal(bus, session.c_str(), "org.freedesktop.DBus.Properties", "PropertiesChanged",
                           types, values...);
    };
    const char* const interface = "org.freedesktop.login1.Session";
    properties("sa{sv}as", interface, 1, "LockedHint", "s", "true", 0);
    properties("sa{sv}as", interface, 1, "LockedHint", "v", "b", 1, 0);
    properties("sa{sv}as", interface, 2, "LockedHint", "b", 1, "User", "s", "me", 0);
    properties("sa{sv}as", interface, 0, 0);
    properties("sa{ss}as", interface, 1, "LockedHint", "true", 0);
    properties("sa{sv}as", "org.freedesktop.login1.Other", 1, "LockedHint", "b", 1, 0);
    properties("s", interface);
    properties("u", 1);
    properties("");
    for (const char* member : {"SessionNew", "SessionRemoved"}) {
        const char* const manager = "org.freedesktop.login1.Manager";
        sd_bus_emit_signal(bus, "/org/freedesktop/login1", manager, member, "us", 1, "s1");
        sd_bus_emit_signal(bus, "/org/freedesktop/login1", manager, member, "");
    }
    lockAndUnlock();
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenLockSourceTest, IgnoresMalformedAnswersAndAsksAgain) {
    startLogind();
    m_logind->have("s1", ownSession());
    m_logind->answerWith(
        [](sd_bus_message* reply) { sd_bus_message_append(reply, "a{sv}", 1, "User", "s", "me"); });
    startSource();
    ASSERT_TRUE(waitForQuestions(1));
    m_logind->answerWith([](sd_bus_message* reply) { sd_bus_message_append(reply, "u", 7); });
    m_logind->setHint("s1", true);
    ASSERT_TRUE(waitForQuestions(2));
    m_logind->answerWith(nullptr);
    m_logind->setHint("s1", false);
    EXPECT_TRUE(waitForReports(1));
    EXPECT_THAT(m_reports, ElementsAre(false));
}

TEST_F(ScreenLockSourceTest, NoticesALogindThatTheBusDidNotTellOfWhenItSpeaks) {
    m_systemBus.hideNewOwners();
    startWithOneSession();
    m_logind.reset();
    m_logind = std::make_unique<FakeLogind>(loop(), m_systemBus.address());
    m_logind->have("s1", ownSession());
    m_logind->setHint("s1", true);
    ASSERT_TRUE(waitForQuestions(1));
    m_logind->setHint("s1", false);
    ASSERT_TRUE(waitForReports(1));
    lockAndUnlock();
    EXPECT_THAT(m_reports, ElementsAre(false, true, false));
}

TEST_F(ScreenLockSourceTest, ComesBackAfterTheBusWasLost) {
    startWithOneSession();
    m_logind->setHint("s1", true);
    ASSERT_TRUE(waitForReports(1));
    m_logind.reset();
    m_systemBus.stop();
    runFor(std::chrono::milliseconds(1500));
    startLogind();
    m_logind->have("s1", ownSession());
    ASSERT_TRUE(waitForQuestions(1));
    lockAndUnlock();
    EXPECT_THAT(m_reports, ElementsAre(true, true, false));
}

TEST_F(ScreenLockSourceTest, FollowsItsSessionsAlsoWhenTheListWasRefusedAtFirst) {
    startLogind();
    m_logind->have("s1", ownSession());
    m_logind->refuseList();
    startSource();
    ASSERT_TRUE(runUntil([this] { return m_logind->listsAsked() == 1; }));
    runFor(std::chrono::milliseconds(100));
    lockAndUnlock();
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenLockSourceTest, AsksAgainForAListThatNeverCame) {
    startLogind();
    m_logind->have("s1", ownSession());
    m_logind->swallowQuestion();
    startSource();
    ASSERT_TRUE(waitForQuestions(1));
    EXPECT_GE(m_logind->listsAsked(), 2);
    EXPECT_LE(m_logind->listsAsked(), mostAsked());
    lockAndUnlock();
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenLockSourceTest, AsksAgainForASessionThatItWasToldNothingOf) {
    startLogind();
    m_logind->have("s1", ownSession());
    startSource();
    ASSERT_TRUE(runUntil([this] { return m_logind->listsAsked() == 1; }));
    m_logind->swallowQuestion();
    ASSERT_TRUE(waitForQuestions(1));
    // What happens meanwhile is told when the answer comes.
    m_logind->setHint("s1", true);
    ASSERT_TRUE(waitForReports(1));
    EXPECT_GE(m_logind->sessionsAsked(), 2);
    EXPECT_LE(m_logind->sessionsAsked(), mostAsked());
    m_logind->setHint("s1", false);
    ASSERT_TRUE(waitForReports(2));
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenLockSourceTest, MakesNothingOfASessionThatIsNonsense) {
    startLogind();
    m_logind->have("s1", ownSession());
    m_logind->have("s2", ownSession());
    const auto nonsense = [this](const char* name, const char* type, const char* value) {
        m_logind->answerWith([=](sd_bus_message* reply) {
            sd_bus_message_append(reply, "a{sv}", 4, "User", "(uo)", getuid(), "/", "Class", "s", "user",
                                  "LockedHint", "b", 1, name, type, value);
        });
    };
    nonsense("State", "o", "/closing");
    startSource();
    ASSERT_TRUE(waitForQuestions(2));
    int asked = 2;
    for (const char* name : {"Type", "Remote", "User", "Class", "LockedHint"}) {
        nonsense(name, "g", "ss");
        m_logind->invalidateHint("s2", true);
        ASSERT_TRUE(waitForQuestions(++asked)) << name;
    }
    m_logind->answerWith(nullptr);
    m_logind->invalidateHint("s2", false);
    ASSERT_TRUE(waitForQuestions(++asked));
    lockAndUnlock();
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenLockSourceTest, ForgetsWhatItAskedOfASessionThatWasRemoved) {
    startWithOneSession();
    m_logind->holdSessionAnswers();
    m_logind->add("s2", ownSession());
    ASSERT_TRUE(waitForQuestions(2));
    m_logind->remove("s2");
    // The same path again, another session: it is asked for, and what was asked of the first says nothing.
    m_logind->add("s2", ownSession());
    ASSERT_TRUE(waitUntilHandled());
    const std::vector<std::string>& asked = m_logind->askedFor();
    EXPECT_GE(std::count(asked.begin(), asked.end(), "s2"), 2)
        << "not only when the first question is asked again";
}

TEST_F(ScreenLockSourceTest, TriesTheSystemBusEverySecond) {
    startSource();
    // Far enough for delays that grow to have become long: attempts at 0, 1, 3, 7, 15 and 31 s then.
    runFor(std::chrono::milliseconds(15500));
    m_systemBus.start();
    const auto started = std::chrono::steady_clock::now();
    m_logind = std::make_unique<FakeLogind>(loop(), m_systemBus.address());
    m_logind->have("s1", ownSession());
    ASSERT_TRUE(waitForQuestions(1));
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(12)) << "not 15 s";
}

TEST_F(ScreenLockSourceTest, WaitsForABusAndALogindThatComeLater) {
    startSource();
    runFor(std::chrono::milliseconds(100));
    m_systemBus.start();
    runFor(std::chrono::milliseconds(1200));
    m_logind = std::make_unique<FakeLogind>(loop(), m_systemBus.address());
    m_logind->have("s1", ownSession());
    ASSERT_TRUE(waitForQuestions(1));
    lockAndUnlock();
}

class ScreenSaverTest : public ScreenLockSourceTest {
protected:
    void startSaver(const std::string& name, bool active = false) {
        m_saver = std::make_unique<FakeSaver>(loop(), m_sessionBus.address(), name, active);
    }
    bool waitUntilAsked() {
        return runUntil([this] { return m_saver->asked() > 0; });
    }
    /// Returns when the answer that the saver gave was handled: whoever comes now is asked after that.
    bool waitUntilAnswered() {
        const FakeSaver next(loop(), m_sessionBus.address(), "org.xfce.ScreenSaver", false);
        return runUntil([&next] { return next.asked() > 0; });
    }
    /// One own session with a saver that is not active, and is known.
    bool startWithSaverInOneSession() {
        m_sessionBus.start();
        startSaver("org.mate.ScreenSaver");
        startWithOneSession();
        return waitUntilAsked();
    }
    /// The same, with another session without a screen.
    bool startWithSaverAndRemoteSession() {
        if (!startWithSaverInOneSession()) {
            return false;
        }
        m_logind->add("ssh", ownRemoteSession());
        return waitForQuestions(2);
    }

    /// Has the saver vanish and come back active, again if it was away so long that it had to be taken for
    /// gone; forgets the reports before.
    bool comesBackInTime() {
        constexpr int attempts = 10;
        for (int attempt = 0; attempt < attempts; ++attempt) {
            m_reports.clear();
            const auto gone = std::chrono::steady_clock::now();
            m_saver.reset();
            startSaver("org.mate.ScreenSaver", true);
            if (!waitUntilAsked() || !waitUntilAnswered()) {
                return false;
            }
            if (std::chrono::steady_clock::now() - gone < std::chrono::seconds(2)) {
                return true;
            }
        }
        return false;
    }

    std::unique_ptr<FakeSaver> m_saver;
};

TEST_F(ScreenSaverTest, IsReportedWhenItsDesktopKeepsNoHint) {
    m_sessionBus.start();
    startSource();
    for (const char* name : {"org.mate.ScreenSaver", "org.cinnamon.ScreenSaver", "org.xfce.ScreenSaver"}) {
        m_reports.clear();
        startSaver(name);
        ASSERT_TRUE(waitUntilAsked());
        m_saver->setActive(true);
        m_saver->setActive(true);
        m_saver->setActive(false);
        EXPECT_TRUE(waitForReports(2)) << name;
        EXPECT_THAT(m_reports, ElementsAre(true, false)) << name;
    }
}

TEST_F(ScreenSaverTest, IsTakenOverSilentlyWhenFoundActive) {
    m_sessionBus.start();
    startSaver("org.mate.ScreenSaver", true);
    startSource();
    ASSERT_TRUE(waitUntilAsked());
    m_saver->setActive(false);
    EXPECT_TRUE(waitForReports(1));
    EXPECT_THAT(m_reports, ElementsAre(false));
}

TEST_F(ScreenSaverTest, IsFollowedAlsoWhenItDoesNotAnswer) {
    m_sessionBus.start();
    startSaver("org.mate.ScreenSaver");
    m_saver->refuse();
    startSource();
    ASSERT_TRUE(waitUntilAsked());
    m_saver->setActive(true);
    EXPECT_TRUE(waitForReports(1));
    EXPECT_THAT(m_reports, ElementsAre(true));
}

TEST_F(ScreenSaverTest, IsBelievedOnlyWhenItOwnsTheName) {
    m_sessionBus.start();
    const FakeSaver other(loop(), m_sessionBus.address(), "org.xfce.ScreenSaver", false);
    startSaver("org.mate.ScreenSaver");
    startSource();
    ASSERT_TRUE(waitUntilAsked());
    ASSERT_TRUE(runUntil([&other] { return other.asked() > 0; }));
    const auto stranger = connectTo(m_sessionBus.address());
    emitTo(stranger.get(), m_saver->asker(), "/org/xfce/ScreenSaver", "org.xfce.ScreenSaver", "ActiveChanged",
           "b", 1);
    roundTrip(stranger.get());
    // Were the other saver taken for active, the edges of this one would not show.
    m_saver->setActive(true);
    m_saver->setActive(false);
    EXPECT_TRUE(waitForReports(2));
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenSaverTest, IsReportedAsUnlockedWhenItVanishesFromAnOpenSessionWhileActive) {
    ASSERT_TRUE(startWithSaverInOneSession());
    m_saver->setActive(true);
    ASSERT_TRUE(waitForReports(1));
    m_saver.reset();
    const auto gone = std::chrono::steady_clock::now();
    EXPECT_TRUE(waitForReports(2));
    EXPECT_GE(std::chrono::steady_clock::now() - gone, std::chrono::milliseconds(1900));
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenSaverTest, IsNotReportedWhenItVanishesWithItsSession) {
    ASSERT_TRUE(startWithSaverAndRemoteSession());
    m_saver->setActive(true);
    ASSERT_TRUE(waitForReports(1));
    m_saver.reset();
    m_logind->close("s1");
    ASSERT_TRUE(waitForQuestions(3)) << "whether the session is still open";
    ASSERT_TRUE(waitUntilHandled());
    EXPECT_THAT(m_reports, ElementsAre(true));
    startSaver("org.mate.ScreenSaver");
    ASSERT_TRUE(waitUntilAsked());
    m_saver->setActive(true);
    EXPECT_TRUE(waitForReports(2));
    EXPECT_THAT(m_reports, ElementsAre(true, true));
}

TEST_F(ScreenSaverTest, IsNotReportedWhenOnlyARemoteShellIsLeft) {
    ASSERT_TRUE(startWithSaverAndRemoteSession());
    m_saver->setActive(true);
    ASSERT_TRUE(waitForReports(1));
    m_logind->remove("s1");
    // With a session goes a saver that vanished before: this one vanishes after.
    runFor(std::chrono::milliseconds(300));
    m_saver.reset();
    runFor(std::chrono::milliseconds(2500));
    EXPECT_THAT(m_reports, ElementsAre(true));
}

TEST_F(ScreenSaverTest, IsStillLockedWhenItIsBackInTime) {
    ASSERT_TRUE(startWithSaverInOneSession());
    m_saver->setActive(true);
    ASSERT_TRUE(waitForReports(1));
    ASSERT_TRUE(comesBackInTime());
    runFor(std::chrono::milliseconds(2500));
    EXPECT_THAT(m_reports, ElementsAre());
    m_saver->setActive(false);
    EXPECT_TRUE(waitForReports(1));
}

TEST_F(ScreenSaverTest, IsNotListenedToWhileASessionLivesThatHasSetItsHint) {
    ASSERT_TRUE(startWithSaverInOneSession());
    lockAndUnlock();
    m_saver->setActive(true);
    m_saver->setActive(false);
    roundTrip(m_saver->bus());
    lockAndUnlock();
    EXPECT_THAT(m_reports, ElementsAre(true, false, true, false));
}

TEST_F(ScreenSaverTest, IsListenedToAgainInTheSessionAfterThat) {
    m_sessionBus.start();
    startWithOneSession();
    lockAndUnlock();
    m_logind->close("s1");
    m_logind->add("s2", ownSession());
    ASSERT_TRUE(waitForQuestions(3));
    ASSERT_TRUE(waitUntilHandled());
    startSaver("org.mate.ScreenSaver");
    ASSERT_TRUE(waitUntilAsked());
    m_saver->setActive(true);
    m_saver->setActive(false);
    EXPECT_TRUE(waitForReports(4));
    EXPECT_THAT(m_reports, ElementsAre(true, false, true, false));
}

TEST_F(ScreenSaverTest, UnderGnomesNameCountsWhereGnomeShellHasNoShield) {
    m_sessionBus.start();
    startSaver("org.gnome.ScreenSaver");
    startSource();
    ASSERT_TRUE(waitUntilAsked());
    m_saver->setActive(true);
    ASSERT_TRUE(waitForReports(1));
    m_saver->setActive(false);
    ASSERT_TRUE(waitForReports(2));
    FakeSaver shield(loop(), m_sessionBus.address(), "org.gnome.Shell.ScreenShield", false);
    runFor(std::chrono::milliseconds(200));
    m_saver->setActive(true);
    m_saver->setActive(false);
    runFor(std::chrono::milliseconds(200));
    EXPECT_EQ(m_reports.size(), 2U) << "GNOME Shell tells logind";
}

TEST_F(ScreenSaverTest, UnderTheCommonNameCountsWhereThereIsNoOther) {
    m_sessionBus.start();
    startSaver("org.freedesktop.ScreenSaver");
    startSource();
    ASSERT_TRUE(waitUntilAsked());
    m_saver->setActive(true);
    ASSERT_TRUE(waitForReports(1));
    m_saver->setActive(false);
    ASSERT_TRUE(waitForReports(2));
    for (const char* name :
         {"org.kde.screensaver", "org.mate.ScreenSaver", "org.cinnamon.ScreenSaver", "org.xfce.ScreenSaver",
          "org.gnome.ScreenSaver", "org.gnome.Shell.ScreenShield"}) {
        const int asked = m_saver->asked();
        {
            const FakeSaver other(loop(), m_sessionBus.address(), name, false);
            runFor(std::chrono::milliseconds(200));
            m_saver->setActive(true);
            m_saver->setActive(false);
            runFor(std::chrono::milliseconds(200));
            EXPECT_EQ(m_reports.size(), 2U) << name;
        }
        ASSERT_TRUE(runUntil([&] { return m_saver->asked() > asked; })) << name;
    }
    m_saver->setActive(true);
    EXPECT_TRUE(waitForReports(3)) << "it counts again";
}

/// A process of another name, for as long as it lives.
class OwnName {
public:
    explicit OwnName(const char* name) {
        prctl(PR_GET_NAME, m_before.data());
        prctl(PR_SET_NAME, name);
    }
    ~OwnName() { prctl(PR_SET_NAME, m_before.data()); }
    OwnName(const OwnName&) = delete;
    OwnName& operator=(const OwnName&) = delete;

private:
    std::array<char, 16> m_before{};
};

TEST_F(ScreenSaverTest, OfLightLockerSaysOnlyThatTheScreenIsBlank) {
    const OwnName name("light-locker");
    m_sessionBus.start();
    startSaver("org.freedesktop.ScreenSaver");
    startSource();
    runFor(std::chrono::milliseconds(200));
    m_saver->setActive(true);
    m_saver->setActive(false);
    runFor(std::chrono::milliseconds(200));
    EXPECT_THAT(m_reports, ElementsAre());
    EXPECT_EQ(m_saver->asked(), 0);
}

TEST_F(ScreenSaverTest, OfAnOwnerThatWasReplacedIsNotHeardAnyMore) {
    m_sessionBus.start();
    startSaver("org.mate.ScreenSaver");
    startSource();
    ASSERT_TRUE(waitUntilAsked());
    m_saver->holdAnswers();
    const auto former = std::move(m_saver);
    former->releaseName();
    startSaver("org.mate.ScreenSaver");
    m_saver->holdAnswers();
    ASSERT_TRUE(waitUntilAsked());
    m_saver->releaseName();
    const auto second = std::move(m_saver);
    startSaver("org.mate.ScreenSaver");
    ASSERT_TRUE(waitUntilAsked());
    second->answerHeld(true);
    former->setActive(true);
    roundTrip(former->bus());
    roundTrip(second->bus());
    runFor(std::chrono::milliseconds(200));
    EXPECT_THAT(m_reports, ElementsAre());
    m_saver->setActive(true);
    EXPECT_TRUE(waitForReports(1));
    m_saver->setActive(false);
    EXPECT_TRUE(waitForReports(2));
    EXPECT_THAT(m_reports, ElementsAre(true, false));
}

TEST_F(ScreenSaverTest, OnASessionBusThatComesLateIsFollowed) {
    startSource();
    runFor(std::chrono::milliseconds(200));
    m_sessionBus.start();
    startSaver("org.mate.ScreenSaver");
    ASSERT_TRUE(waitUntilAsked());
    m_saver->setActive(true);
    EXPECT_TRUE(waitForReports(1));
}

TEST_F(ScreenSaverTest, IsFollowedAgainAfterTheSessionBusWasLost) {
    m_sessionBus.start();
    startSaver("org.mate.ScreenSaver");
    startSource();
    ASSERT_TRUE(waitUntilAsked());
    m_saver.reset();
    m_sessionBus.stop();
    runFor(std::chrono::milliseconds(300));
    m_sessionBus.start();
    startSaver("org.mate.ScreenSaver");
    ASSERT_TRUE(waitUntilAsked());
    m_saver->setActive(true);
    EXPECT_TRUE(waitForReports(1));
}

}  // namespace
