#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "doubles/Wire.h"

/// Until `condition` holds, but no longer than a patient while; whether it does.
inline bool eventually(const std::function<bool()>& condition) {
    for (int i = 0; i < 4000; ++i) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

/// The daemon's end, spoken on the wire, so that it can do what no NSXPC daemon would. For one thread. The
/// user has a service of the same name, which nobody should reach.
class Peer {
public:
    explicit Peer(const std::string& directory);
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    ~Peer();

    /// Takes the next connection; the one before is closed. Throws if none comes, or one to the user's
    /// service.
    void accept();
    /// The next frame of the agent; fails the test if none comes.
    doubles::Frame read();
    /// Calls the agent; `types` is the extended encoding.
    void call(const std::string& selector, const std::string& types,
              const std::vector<std::string>& arguments);
    /// `connected:` with that flag.
    void confirm(bool flag = true);
    void reply(const doubles::Frame& to, const std::string& types, std::optional<std::string> argument);
    /// What it sends from now on may be overtaken by its death.
    void announceDeath();
    /// The daemon dies; the job stays, or goes with it.
    void die();
    void unload();

private:
    const std::string m_service;
    int m_listening;
    int m_usersListening;
    int m_socket = -1;
};
