#include "doubles/Link.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <utility>

#include "doubles/Invocation.h"
#include "doubles/World.h"
#include "runtime/Runtime.h"

namespace doubles {
namespace {

std::atomic<long> links{0};

bool exists(const std::string& path) {
    struct stat found {};
    return stat(path.c_str(), &found) == 0;
}

}  // namespace

long liveConnections() {
    return links;
}

Link::Link() {
    ++links;
    if (readings().callsOnOwnQueue) {
        m_callQueue = std::make_shared<WorkQueue>();
    }
}

Link::~Link() {
    for (const auto& handler : m_handlers) {
        runtime::release(handler.second);
    }
    runtime::release(m_exported);
    dropReplies();
    if (m_socket >= 0) {
        close(m_socket);
    }
    --links;
}

std::shared_ptr<Link> Link::to(std::string servicePath) {
    std::shared_ptr<Link> link(new Link);
    link->m_service = std::move(servicePath);
    return link;
}

std::shared_ptr<Link> Link::over(int socket) {
    std::shared_ptr<Link> link(new Link);
    link->m_socket = socket;
    link->m_ofService = true;
    return link;
}

void Link::keep(void* connection) {
    m_kept = runtime::retain(connection);
}

void Link::setExported(void* object, void* protocol) {
    void* old = nullptr;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_state != State::Suspended) {
            runtime::fail("a connection is set up after it was resumed");
        }
        old = std::exchange(m_exported, runtime::retain(object));
        m_exportedProtocol = protocol;
    }
    runtime::release(old);
}

void Link::setHandler(Handler which, void* block) {
    void* old = nullptr;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        old = std::exchange(m_handlers[which], runtime::retain(block));
    }
    runtime::release(old);
}

void Link::resume() {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_state != State::Suspended) {
        runtime::fail("a connection is resumed twice");
    }
    if ((m_exported == nullptr) != (m_exportedProtocol == nullptr)) {
        runtime::fail(
            "a connection is resumed with an exported object or an exported interface, but not both");
    }
    if (m_exported != nullptr) {
        checkConformance(m_exported, m_exportedProtocol);
    }
    if (m_ofService) {
        m_state = State::Connected;
        listen(m_socket);
        return;
    }
    m_state = State::Unconnected;
    if (readings().missingJobAtResume && !exists(m_service + ".job")) {
        invalidate(lock);
    } else if (readings().reachesAtResume) {
        reach(lock);
    }
}

void Link::send(Frame frame, void* replyBlock) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_state == State::Suspended) {
        runtime::fail("a message is sent before the connection was resumed");
    }
    if (!reach(lock)) {
        return;
    }
    const int socket = m_socket;
    if (replyBlock != nullptr) {
        frame.number = ++m_lastNumber;
        m_replies[frame.number] = runtime::retain(replyBlock);
    }
    lock.unlock();
    const std::lock_guard<std::mutex> writing(m_writing);
    writeFrame(socket, frame);
}

void Link::releaseConnection() {
    std::unique_lock<std::mutex> lock(m_mutex);
    const bool resumed = m_state != State::Suspended;
    if (resumed && m_state != State::Invalid && readings().releaseReports) {
        m_queue->add([self = shared_from_this()] { self->callHandler(Handler::Invalidation); });
    }
    m_state = State::Invalid;
    if (m_socket >= 0) {
        shutdown(m_socket, SHUT_RDWR);
    }
}

// Whether there is, or now is, a socket to the service.
bool Link::reach(std::unique_lock<std::mutex>& lock) {
    if (m_state != State::Unconnected) {
        return m_state == State::Connected;
    }
    if (!exists(m_service + ".job")) {
        invalidate(lock);
        return false;
    }
    if (m_socket >= 0) {
        close(m_socket);
    }
    m_socket = connectTo(m_service + ".socket");
    if (m_socket < 0) {
        return false;  // the job's program is not up; what a Mac would keep for it is lost here
    }
    m_state = State::Connected;
    listen(m_socket);
    return true;
}

void Link::listen(int socket) {
    std::thread([self = shared_from_this(), socket] { self->takeFrames(socket); }).detach();
}

void Link::takeFrames(int socket) {
    std::vector<Frame> overtaken;
    bool dying = false;
    while (std::optional<Frame> frame = readFrame(socket)) {
        if (frame->kind == Frame::Kind::Dying) {
            dying = readings().lossOvertakesCalls;
        } else if (dying) {
            overtaken.push_back(std::move(*frame));
        } else {
            take(std::move(*frame));
        }
    }
    lose(m_ofService, std::move(overtaken));
}

void Link::take(Frame frame) {
    const bool isCall = frame.kind == Frame::Kind::Call;
    (isCall ? m_callQueue : m_queue)->add([self = shared_from_this(), frame = std::move(frame), isCall] {
        isCall ? self->takeCall(frame) : self->takeReply(frame);
    });
}

void Link::takeCall(const Frame& call) {
    void* target = nullptr;
    void* protocol = nullptr;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        target = runtime::retain(m_exported);
        protocol = m_exportedProtocol;
    }
    callMethod(target, protocol, call,
               [self = shared_from_this()](Frame reply) { self->send(reply, nullptr); });
    runtime::release(target);
}

void Link::takeReply(const Frame& reply) {
    void* block = nullptr;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_replies.find(reply.number);
        if (found == m_replies.end()) {
            return;
        }
        block = found->second;
        m_replies.erase(found);
    }
    callReply(block, reply);
    runtime::release(block);
}

void Link::lose(bool forGood, std::vector<Frame> overtaken) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_state == State::Invalid) {
            return;
        }
        m_state = forGood ? State::Invalid : State::Unconnected;
    }
    if (!forGood) {
        m_queue->add([self = shared_from_this()] { self->callHandler(Handler::Interruption); });
    }
    if (forGood || readings().invalidationFollows) {
        m_queue->add([self = shared_from_this()] {
            self->callHandler(Handler::Invalidation);
            self->dropReplies();
            runtime::release(std::exchange(self->m_kept, nullptr));
        });
    }
    // Behind the handlers, also where calls have a queue of their own.
    m_queue->add([self = shared_from_this(), overtaken = std::move(overtaken)]() mutable {
        for (Frame& frame : overtaken) {
            self->take(std::move(frame));
        }
    });
}

void Link::callHandler(Handler which) {
    void* handler = nullptr;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        handler = runtime::retain(m_handlers[which]);
    }
    if (handler != nullptr) {
        callReply(handler, Frame{Frame::Kind::Reply, 0, "handler", "v@?", {}});
    }
    runtime::release(handler);
}

void Link::invalidate(std::unique_lock<std::mutex>&) {
    m_state = State::Invalid;
    m_queue->add([self = shared_from_this()] { self->callHandler(Handler::Invalidation); });
}

void Link::dropReplies() {
    std::map<std::uint64_t, void*> replies;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        replies.swap(m_replies);
    }
    for (const auto& reply : replies) {
        runtime::release(reply.second);
    }
}

}  // namespace doubles
