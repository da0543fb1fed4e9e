#include "platform/linux/link/BusLink.h"

#include <functional>
#include <utility>

#include "platform/linux/link/LinkLoop.h"
#include "platform/linux/runloop/PrivateThreads.h"

namespace platform {

void BusLink::setRemoteProtocol(const XpcProtocol& protocol) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_remoteProtocol = &protocol;
}

void BusLink::exportObject(const XpcProtocol& protocol) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_exportedProtocol = &protocol;
}

void BusLink::exportObject(std::shared_ptr<XpcAgentProtocol> object) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_exportedObject.swap(object);
}

void BusLink::setInterruptionHandler(IXpcConnection::Handler handler) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_interruptionHandler.swap(handler);
}

void BusLink::setInvalidationHandler(IXpcConnection::Handler handler) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_invalidationHandler.swap(handler);
}

void BusLink::resume() {
    m_outbox.open();
    startThread();
}

void BusLink::send(OutgoingCall call) {
    // A system that was out of threads when the link was resumed may have one now; a link without one would
    // never show its loss.
    if (m_outbox.append(std::move(call)) && !m_threadStarted) {
        startThread();
    }
}

void BusLink::startThread() {
    // Made before the thread counts as started: if there is no memory for them, the next message tries again.
    std::function<void()> body = [self = shared_from_this()] { self->run(); };
    std::function<void()> requestStop = [weak = weak_from_this()] {
        if (const auto self = weak.lock()) {
            self->release();
        }
    };
    if (m_threadStarted.exchange(true)) {
        return;
    }
    m_threadStarted = PrivateThreads::instance().start("velm-link", std::move(body), std::move(requestStop));
}

void BusLink::release() {
    m_outbox.close();
    std::shared_ptr<XpcAgentProtocol> object;
    IXpcConnection::Handler interruption;
    IXpcConnection::Handler invalidation;
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_exportedObject.swap(object);
    m_interruptionHandler.swap(interruption);
    m_invalidationHandler.swap(invalidation);
}

void BusLink::run() {
    Loss loss;
    serve(loss);
    report(loss);
    m_outbox.close();
}

/// The bus and all that is on it are gone when this returns.
void BusLink::serve(Loss& loss) {
    LinkLoop::Ends ends{m_serviceName, nullptr, [this] { return exportedObject(); }};
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ends.exported = m_exportedProtocol;
    }
    LinkLoop(std::move(ends), m_outbox, loss).run();
    m_outbox.sink();
}

void BusLink::report(Loss& loss) {
    if (!loss.isNoted() || !m_outbox.awaitUse()) {
        return;
    }
    using Span = Loss::Clock::duration;
    for (Span wait = loss.acquireReport(Loss::Clock::now()); wait > Span::zero();
         wait = loss.acquireReport(Loss::Clock::now())) {
        if (!m_outbox.staysOpenFor(wait)) {
            return;
        }
    }
    IXpcConnection::Handler interruption;
    IXpcConnection::Handler invalidation;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_interruptionHandler.swap(interruption);
        m_invalidationHandler.swap(invalidation);
    }
    const auto& handler = loss.kind() == Loss::Kind::Interruption ? interruption : invalidation;
    if (handler) {
        handler();
    }
}

std::shared_ptr<XpcAgentProtocol> BusLink::exportedObject() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_exportedObject;
}

}  // namespace platform
