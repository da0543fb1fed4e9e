#pragma once

#include <boost/signals2.hpp>

// The events of every XpcServiceClientImpl in the process. Subscribe through the client; the declarations
// stand in a header of their own for whoever must empty the signals before the process ends, as a test does.
// They live from static initialisation until the process ends; each guards its list of slots with a mutex of
// its own.

/// The daemon confirmed the link. Raised on the connection's private thread.
extern boost::signals2::signal<void()> m_sigConnectedImpl;
/// The link was lost, or the daemon said that it is not ready. Raised on a thread of the client's queue or,
/// for a ping answered with no, on the connection's private thread.
extern boost::signals2::signal<void()> m_sigDisconnectedImpl;
/// The daemon sent data. Raised on the connection's private thread; the bytes are valid only during the call.
extern boost::signals2::signal<void(const char*, unsigned long long)> m_sigMsgReceivedImpl;
/// The daemon sent a log level. Raised on the connection's private thread.
extern boost::signals2::signal<void(long)> m_sigLogLevel;
