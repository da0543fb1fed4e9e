#include <cstdint>
#include <deque>
#include <mutex>
#include <utility>

#include "support/CallTrace.h"
#include "support/FakePlatform.h"
#include "support/FakeState.h"

namespace fake {

namespace {

std::mutex connectionsMutex;
std::vector<std::weak_ptr<FakeXpcConnection>> connections;
std::deque<XpcBoolReply> pings;

std::string yesOrNo(bool flag) {
    return flag ? "YES" : "NO";
}

// Only the messages that the agent may send have an answer here; the others would be noted as well, and then
// fail the comparison with what a test expects.
class TracedDaemon final : public XpcDaemonProtocol {
public:
    explicit TracedDaemon(std::string name) : m_name(std::move(name)) {}

    void connect() noexcept override { note("connect"); }
    void pingWithReply(XpcBoolReply reply) noexcept override {
        note("pingWithReply:");
        const std::lock_guard<std::mutex> lock(connectionsMutex);
        pings.push_back(std::move(reply));
    }
    void putMessage(const XpcData& data) noexcept override {
        note("putMessage: <" + std::string(data.bytes, data.length) + ">");
    }
    void onScreenLocked(bool locked) noexcept override { note("onScreenLocked: " + yesOrNo(locked)); }
    void onTimeZoneChanged() noexcept override { note("onTimeZoneChanged"); }
    void requestForNetworkReachability() noexcept override { note("requestForNetworkReachability"); }
    void requestForInitRmm() noexcept override { note("requestForInitRmm"); }
    void requestForLogLevel(std::int32_t level) noexcept override {
        note("requestForLogLevel: " + std::to_string(level));
    }
    void lastCommunicationTime(XpcNumberReply /*reply*/) noexcept override { note("lastCommunicationTime:"); }
    void loggedUser(XpcStringReply /*reply*/) noexcept override { note("loggedUser:"); }
    void upTime(XpcNumberReply /*reply*/) noexcept override { note("upTime:"); }
    void requestForRmmMonitors() noexcept override { note("requestForRmmMonitors"); }

private:
    void note(const std::string& message) const { CallTrace::instance().add(m_name + ": sent " + message); }

    const std::string m_name;
};

std::shared_ptr<FakeXpcConnection> createConnection(const std::string& serviceName,
                                                    platform::XpcConnectionOptions options) {
    const std::lock_guard<std::mutex> lock(connectionsMutex);
    const int number = static_cast<int>(connections.size()) + 1;
    auto created = std::make_shared<FakeXpcConnection>(number, serviceName, options);
    connections.push_back(created);
    return created;
}

}  // namespace

struct FakeXpcConnection::State {
    mutable std::mutex mutex;
    std::shared_ptr<XpcAgentProtocol> exportedObject;
    Handler interruptionHandler;
    Handler invalidationHandler;

    // The handler is called outside the lock and on a copy, so it may clear itself.
    bool call(const Handler& handler) const {
        Handler copy;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            copy = handler;
        }
        if (copy) {
            copy();
        }
        return static_cast<bool>(copy);
    }
};

FakeXpcConnection::FakeXpcConnection(int number, const std::string& serviceName,
                                     platform::XpcConnectionOptions options)
    : m_name("connection " + std::to_string(number)), m_state(std::make_unique<State>()) {
    note("created for " + serviceName + " with options " + std::to_string(options));
}

FakeXpcConnection::~FakeXpcConnection() {
    note("released");
}

void FakeXpcConnection::note(const std::string& what) const {
    CallTrace::instance().add(m_name + ": " + what);
}

void FakeXpcConnection::setRemoteObjectInterface(const XpcProtocol& protocol) {
    note("remote object interface " + std::string(protocol.name));
}

void FakeXpcConnection::setExportedInterface(const XpcProtocol& protocol) {
    note("exported interface " + std::string(protocol.name));
}

void FakeXpcConnection::setExportedObject(std::shared_ptr<XpcAgentProtocol> object) {
    note("exported object set");
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->exportedObject = std::move(object);
}

void FakeXpcConnection::setInterruptionHandler(Handler handler) {
    note(handler ? "interruption handler set" : "interruption handler cleared");
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->interruptionHandler = std::move(handler);
}

void FakeXpcConnection::setInvalidationHandler(Handler handler) {
    note(handler ? "invalidation handler set" : "invalidation handler cleared");
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->invalidationHandler = std::move(handler);
}

void FakeXpcConnection::resume() {
    note("resumed");
}

std::shared_ptr<XpcDaemonProtocol> FakeXpcConnection::remoteObjectProxy() {
    note("proxy taken");
    return std::make_shared<TracedDaemon>(m_name);
}

std::shared_ptr<XpcAgentProtocol> FakeXpcConnection::exportedObject() const {
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->exportedObject;
}

bool FakeXpcConnection::interrupt() {
    return m_state->call(m_state->interruptionHandler);
}

bool FakeXpcConnection::invalidate() {
    return m_state->call(m_state->invalidationHandler);
}

void FakeXpcConnection::dropExportedObject() {
    std::shared_ptr<XpcAgentProtocol> dropped;
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    dropped.swap(m_state->exportedObject);
}

std::shared_ptr<FakeXpcConnection> connection(int number) {
    const std::lock_guard<std::mutex> lock(connectionsMutex);
    const auto index = static_cast<std::size_t>(number) - 1;
    return index < connections.size() ? connections[index].lock() : nullptr;
}

int connectionCount() {
    const std::lock_guard<std::mutex> lock(connectionsMutex);
    return static_cast<int>(connections.size());
}

bool answerPing(bool ready) {
    XpcBoolReply reply;
    {
        const std::lock_guard<std::mutex> lock(connectionsMutex);
        if (pings.empty()) {
            return false;
        }
        reply = std::move(pings.front());
        pings.pop_front();
    }
    reply(ready);
    return true;
}

void resetConnections() {
    for (int number = 1; number <= connectionCount(); ++number) {
        if (const auto held = connection(number)) {
            held->dropExportedObject();
        }
    }
    const std::lock_guard<std::mutex> lock(connectionsMutex);
    connections.clear();
    pings.clear();
}

}  // namespace fake

std::shared_ptr<platform::IXpcConnection> platform::createXpcConnection(const std::string& serviceName,
                                                                        XpcConnectionOptions options) {
    return fake::createConnection(serviceName, options);
}
