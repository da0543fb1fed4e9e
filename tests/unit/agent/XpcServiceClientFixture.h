#pragma once

#include <gmock/gmock.h>

#include <memory>

#include "unit/agent/AgentFixture.h"
#include "velmmonitord/XpcServiceClientImpl.h"

/// A client on the faked platform. The signals of the link are entries of the trace: "raised connected" and
/// so on.
class XpcServiceClientTest : public AgentTest {
protected:
    XpcServiceClientTest();

    /// Has the client connect, and forgets the trace of it.
    std::shared_ptr<fake::FakeXpcConnection> connectClient();

    /// Lets go of the client, though `connection` would keep it; returns whether it is gone.
    bool releaseClient(fake::FakeXpcConnection& connection);

    std::shared_ptr<XpcServiceClientImpl> m_client;
};
