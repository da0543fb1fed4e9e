#pragma once

#include <string>

// The world that the doubles of the frameworks stand for: where services are looked up, and how the points
// read that Apple's documents leave open.

namespace doubles {

/// One choice for each open point. Read when the point comes up, so a test sets them before it acts.
struct Readings {
    /// The lack of the service's job shows when a connection is resumed, or else with its first message.
    bool missingJobAtResume = false;
    /// After an interruption the connection also reports its invalidation.
    bool invalidationFollows = false;
    /// A resumed connection that is released reports its invalidation.
    bool releaseReports = false;
    /// A loss overtakes the calls and replies that came since the other end announced it
    /// (Frame::Kind::Dying).
    bool lossOvertakesCalls = false;
    /// Calls to the exported object run on another queue than the handlers and replies.
    bool callsOnOwnQueue = false;
    /// A connection reaches its service when it is resumed, so that calls may come before anything was sent.
    bool reachesAtResume = false;
};

/// Those of this process; at first as the words in VELM_DOUBLES_READINGS say, which are the names above.
Readings& readings();

/// Where the system domain's services (`privileged`) or the user's have their sockets, from
/// VELM_DOUBLES_DIRECTORY. A service's job is loaded if its `.job` exists; the one who serves it listens on
/// its `.socket`.
std::string servicePath(const std::string& name, bool privileged);

/// How many connections have not ended yet: released, their queues empty, their threads gone.
long liveConnections();

}  // namespace doubles
