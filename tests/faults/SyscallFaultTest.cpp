#include <sys/syscall.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include "faults/SyscallTrap.h"
#include "link/support/LinkTest.h"
#include "link/support/Resources.h"

namespace faults {
namespace {

using namespace link_tests;
using std::chrono::milliseconds;

long fromEnvironment(const char* name, long otherwise) {
    const char* const text = std::getenv(name);
    return text != nullptr ? std::atol(text) : otherwise;
}

/// The same short life of an agent each time, with one system call that fails in it. What happened is printed
/// as words for `run` to judge.
class SyscallFaults : public LinkTest {
protected:
    static constexpr milliseconds patience{15000};

    void startAgentInTrap(const SyscallFault& fault) {
        trap = std::make_unique<SyscallTrap>(fault);
        options.asRoot = [this] { trap->enter(); };
        startAgent();
    }

    /// Answers each `connect` until the agent asks no more: the fault may have hit the connection that asked,
    /// and the answer to the answer, and the log.
    bool link() {
        const std::size_t known = agent->log().count(message::connected);
        std::size_t answered = 0;
        bool taken = false;
        await(
            [&] {
                if (agent->running() && daemon->connects() > answered) {
                    answered = daemon->connects();
                    daemon->send("connected", "b", 1);
                    await([&] { return agent->log().count(message::connected) > known; }, milliseconds(2500));
                    taken = daemon->connects() == answered;
                }
                return taken || !agent->running();
            },
            patience);
        return taken && agent->running();
    }

    /// Something that the daemon must hear of.
    void expectEvent(const std::string& event, const char* word) {
        const bool arrived = await(
            [&] {
                const Messages events = daemon->events();
                return !agent->running() || (!events.empty() && events.back() == event);
            },
            milliseconds(4000));
        if (!arrived) {
            std::cout << "word " << word << "\n";
        }
    }

    void lock(bool locked) {
        logind->setLockedHint(ownSession, locked);
        expectEvent(locked ? "onScreenLocked true" : "onScreenLocked false", "no-lock-event");
    }

    void changeZone(const Zone& zone) {
        machine.timeZones().setByRename(zone);
        expectEvent("onTimeZoneChanged", "no-zone-event");
    }

    /// A life that is over before its end only if the agent is.
    const char* live() {
        startSystem();
        daemon = std::make_unique<FakeDaemon>(bus.address());
        startAgentInTrap({static_cast<int>(fromEnvironment("VELM_FAULT_SYSCALL", -1)),
                          static_cast<std::size_t>(fromEnvironment("VELM_FAULT_OCCURRENCE", 0)),
                          static_cast<int>(fromEnvironment("VELM_FAULT_ERROR", 0))});
        if (!link()) {
            return "not-linked";
        }
        await([this] { return !agent->running() || sessionReads(ownSession) > 0; }, milliseconds(4000));
        lock(true);
        changeZone(eastZone);
        daemon = std::make_unique<FakeDaemon>(bus.address());
        if (!link()) {
            return "not-linked-again";
        }
        lock(false);
        changeZone(westZone);
        if (!agent->running()) {
            return "ended";
        }
        // In which it would stand out if it went round and round.
        const double before = resourcesOf(agent->pid()).processorSeconds;
        pumpFor(milliseconds(300));
        if (agent->running() && resourcesOf(agent->pid()).processorSeconds - before > 0.15) {
            return "hot-loop";
        }
        return "linked-again";
    }

    std::unique_ptr<SyscallTrap> trap;
};

TEST_F(SyscallFaults, OneCallFails) {
    const std::string outcome = live();
    const bool survived = agent->running();
    const auto asked = std::chrono::steady_clock::now();
    const std::string end = survived ? agent->terminate() : agent->awaitEnd();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - asked;
    agent->signal(SIGKILL);
    trap->finish();
    for (const std::string& line : agent->errors().rawLines()) {
        std::cout << "error " << line << "\n";
    }
    for (const auto& [number, count] : trap->counts()) {
        std::cout << "count " << number << " " << count << "\n";
    }
    std::cout << "outcome " << (survived ? outcome : "ended-early") << "\n"
              << "end " << end << "\n"
              << "took " << (survived ? took.count() : 0.0) << "\n"
              << "struck " << trap->struck() << std::endl;
}

}  // namespace
}  // namespace faults
