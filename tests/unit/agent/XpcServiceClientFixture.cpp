#include "unit/agent/XpcServiceClientFixture.h"

XpcServiceClientTest::XpcServiceClientTest() : m_client(XpcServiceClientImpl::create()) {
    m_client->subscribeOnConnected(XpcServiceClientImpl::EventSlot([] { trace().add("raised connected"); }));
    m_client->subscribeOnDisconnected(
        XpcServiceClientImpl::EventSlot([] { trace().add("raised disconnected"); }));
    m_client->subscribeOnReceived(
        XpcServiceClientImpl::ReceivedSlot([](const char* bytes, unsigned long long length) {
            trace().add("raised received <" + std::string(bytes, length) + ">");
        }));
    m_client->subscribeOnLogLevel(XpcServiceClientImpl::LogLevelSlot(
        [](long level) { trace().add("raised log level " + std::to_string(level)); }));
}

std::shared_ptr<fake::FakeXpcConnection> XpcServiceClientTest::connectClient() {
    m_client->connectToXpc();
    fake::Operations::runAll();
    trace().clear();
    return fake::connection(fake::connectionCount());
}

bool XpcServiceClientTest::releaseClient(fake::FakeXpcConnection& connection) {
    const std::weak_ptr<XpcServiceClientImpl> weak = m_client;
    m_client.reset();
    connection.dropExportedObject();
    return weak.expired();
}
