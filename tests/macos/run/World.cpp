#include "World.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>

#include "runtime/Runtime.h"

void Record::add(std::string what) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_entries.push_back({std::move(what), Clock::now(), std::this_thread::get_id()});
}

std::vector<Record::Entry> Record::entries() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_entries;
}

std::vector<std::string> Record::lines() const {
    std::vector<std::string> result;
    for (const Entry& entry : entries()) {
        result.push_back(entry.what);
    }
    return result;
}

std::vector<Record::Entry> Record::of(const std::string& beginning) const {
    std::vector<Entry> result;
    for (const Entry& entry : entries()) {
        if (entry.what.compare(0, beginning.size(), beginning) == 0) {
            result.push_back(entry);
        }
    }
    return result;
}

void Client::connected(bool flag) {
    m_record->add("connected " + std::to_string(flag));
}

void Client::putMessage(const XpcData& data) {
    m_record->add("putMessage " + std::string(data.bytes, data.length));
}

void Client::initRmmMessage(const std::string& message, const std::string& token,
                            const std::string& subdomain, const std::string& rmmUrl,
                            const std::string& appVer) {
    m_record->add("initRmm " + message + " " + token + " " + subdomain + " " + rmmUrl + " " + appVer);
}

void Client::networkReachability(bool reachable) {
    m_record->add("reachability " + std::to_string(reachable));
}

void Client::logLevel(std::int64_t level) {
    m_record->add("logLevel " + std::to_string(level));
}

void Client::rmmMessage(const XpcData&) {
    m_record->add("rmmMessage");
}

bool Client::respondsToSelector(std::string_view selector) const {
    return selector != "rmmMessage:";
}

namespace {

std::string makeDirectory() {
    std::string name = "/tmp/velm-adapters.XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        std::abort();
    }
    mkdir((name + "/system").c_str(), 0700);
    mkdir((name + "/user").c_str(), 0700);
    setenv("VELM_DOUBLES_DIRECTORY", name.c_str(), 1);
    return name;
}

}  // namespace

WorldTest::WorldTest()
    : directory(makeDirectory()),
      peer(std::make_unique<Peer>(directory)),
      m_objects(runtime::liveObjects()) {}

WorldTest::~WorldTest() {
    peer.reset();
    EXPECT_TRUE(eventually([] { return doubles::liveConnections() == 0; }))
        << doubles::liveConnections() << " leaked";
    EXPECT_TRUE(eventually([this] { return runtime::liveObjects() <= m_objects; }))
        << runtime::liveObjects() - m_objects << " objects leaked";
    doubles::readings() = {};
    std::filesystem::remove_all(directory);
}

std::shared_ptr<platform::IXpcConnection> WorldTest::connection() {
    auto made = platform::createXpcConnection("com.brovik.velmdaemon", platform::xpcConnectionPrivileged);
    made->setRemoteObjectInterface(xpcDaemonProtocol);
    made->setExportedInterface(xpcAgentProtocol);
    made->setExportedObject(client);
    made->setInterruptionHandler([this] { record.add("interruption"); });
    made->setInvalidationHandler([this] { record.add("invalidation"); });
    return made;
}

std::shared_ptr<platform::IXpcConnection> WorldTest::linked() {
    auto made = connection();
    made->resume();
    made->remoteObjectProxy()->connect();
    peer->accept();
    EXPECT_EQ(peer->read().selector, "connect");
    return made;
}

std::size_t WorldTest::losses() const {
    return record.of("in").size() - record.of("initRmm").size();
}

bool WorldTest::eventuallyLost(std::size_t count) const {
    return eventually([&] { return losses() >= count; });
}
