#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/OperationQueue.h"
#include "platform/XpcConnection.h"

// A platform in which nothing happens by itself: the test runs the operations, answers for the daemon,
// reports losses and posts notifications. Every call made to it is an entry of the CallTrace. Safe on any
// thread.
namespace fake {

/// The operations that the code under test has added, over all its queues, in their order.
class Operations {
public:
    /// Appends an operation, as a queue does.
    static void add(std::function<void()> operation);
    static std::size_t pending();
    /// Runs what is pending, and what that adds, on the calling thread.
    static void runAll();
    /// The same on a thread of its own; returns when it has ended.
    static void runAllOnAnotherThread();
};

/// What FakeXpcConnection reports; also keeps what it was given, for the test to look at and call.
class FakeXpcConnection final : public platform::IXpcConnection {
public:
    FakeXpcConnection(int number, const std::string& serviceName, platform::XpcConnectionOptions options);
    ~FakeXpcConnection() override;
    FakeXpcConnection(const FakeXpcConnection&) = delete;
    FakeXpcConnection& operator=(const FakeXpcConnection&) = delete;

    void setRemoteObjectInterface(const XpcProtocol& protocol) override;
    void setExportedInterface(const XpcProtocol& protocol) override;
    void setExportedObject(std::shared_ptr<XpcAgentProtocol> object) override;
    void setInterruptionHandler(Handler handler) override;
    void setInvalidationHandler(Handler handler) override;
    void resume() override;
    std::shared_ptr<XpcDaemonProtocol> remoteObjectProxy() override;

    std::shared_ptr<XpcAgentProtocol> exportedObject() const;
    /// Calls the handler that is set, on the calling thread; returns false if there is none.
    bool interrupt();
    bool invalidate();
    /// Lets go of the exported object, as the end of the process would.
    void dropExportedObject();

private:
    void note(const std::string& what) const;

    struct State;
    const std::string m_name;
    std::unique_ptr<State> m_state;
};

/// The connection that was created `number`th, counted from 1; null if there is none or it was released.
std::shared_ptr<FakeXpcConnection> connection(int number);
/// How many connections were created so far.
int connectionCount();
/// Answers the oldest unanswered ping; returns false if there is none.
bool answerPing(bool ready);

/// The user's home directory; nothing stands for a platform that cannot tell.
void setHomeDirectory(std::optional<std::string> path);
/// What the main run loop does before it returns.
void setRunLoopBody(std::function<void()> body);

/// One registration of an observer with a notification centre.
struct Registration {
    std::string center;  ///< "local" or "distributed"
    std::string name;
    const void* observer;
    const void* object;
    long suspensionBehavior;
};

/// The registrations that are in force, in their order.
std::vector<Registration> registrations();
/// Post the three notifications that the agent knows, on the calling thread.
void postScreenLocked();
void postScreenUnlocked();
void postTimeZoneChanged();

/// Forgets everything, and takes apart the pairs of client and connection that hold each other. No thread of
/// the code under test may run meanwhile.
void resetPlatform();

}  // namespace fake
