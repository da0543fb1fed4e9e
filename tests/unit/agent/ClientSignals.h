#pragma once

#include <boost/signals2.hpp>

// The process-wide signals that XpcServiceClientImpl.cpp keeps to itself, for tests that raise them without a
// connection and that must not leave their own slots behind.

extern boost::signals2::signal<void()> m_sigConnectedImpl;
extern boost::signals2::signal<void()> m_sigDisconnectedImpl;
extern boost::signals2::signal<void(const char*, unsigned long long)> m_sigMsgReceivedImpl;
extern boost::signals2::signal<void(long)> m_sigLogLevel;
