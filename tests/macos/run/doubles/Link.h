#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "doubles/Wire.h"
#include "doubles/WorkQueue.h"

namespace doubles {

/// What an NSXPCConnection does, without its class: one end of a socket, a private serial queue for what
/// comes, and the points that Apple leaves open as Readings says. Objects and blocks are retained here. Any
/// thread.
class Link : public std::enable_shared_from_this<Link> {
public:
    enum class Handler { Interruption, Invalidation };

    /// One that reaches the service at that path with its first message.
    static std::shared_ptr<Link> to(std::string servicePath);
    /// The service's end of a connection.
    static std::shared_ptr<Link> over(int socket);
    /// Keeps the service's connection until the other end is gone, as nobody else need do it.
    void keep(void* connection);
    ~Link();

    void setExported(void* object, void* protocol);
    /// A copy of `block`, or none for null.
    void setHandler(Handler which, void* block);
    void resume();
    /// Frames before `resume` fail; those after the end are lost. `replyBlock` may be null.
    void send(Frame frame, void* replyBlock);
    /// The last reference to the connection is gone.
    void releaseConnection();
    int socket() const { return m_socket; }

private:
    enum class State { Suspended, Unconnected, Connected, Invalid };

    Link();
    bool reach(std::unique_lock<std::mutex>& lock);
    void listen(int socket);
    void takeFrames(int socket);
    void take(Frame frame);
    void takeCall(const Frame& call);
    void takeReply(const Frame& reply);
    void lose(bool forGood, std::vector<Frame> overtaken);
    void callHandler(Handler which);
    void invalidate(std::unique_lock<std::mutex>& lock);
    void dropReplies();

    std::shared_ptr<WorkQueue> m_queue = std::make_shared<WorkQueue>();
    std::shared_ptr<WorkQueue> m_callQueue = m_queue;
    std::mutex m_writing;
    std::mutex m_mutex;
    std::string m_service;
    State m_state = State::Suspended;
    bool m_ofService = false;
    void* m_kept = nullptr;
    int m_socket = -1;
    void* m_exported = nullptr;
    void* m_exportedProtocol = nullptr;
    std::map<Handler, void*> m_handlers;
    std::map<std::uint64_t, void*> m_replies;
    std::uint64_t m_lastNumber = 0;
};

}  // namespace doubles
