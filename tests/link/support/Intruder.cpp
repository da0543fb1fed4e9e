#include "link/support/Intruder.h"

namespace link_tests {

void Intruder::forgeNameOwnerChanged(const char* name, const char* oldOwner, const char* newOwner) {
    forge("/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged", "sss", name, oldOwner,
          newOwner);
}

void Intruder::forgeLockedHint(const std::string& sessionPath, bool locked) {
    forge(sessionPath.c_str(), "org.freedesktop.DBus.Properties", "PropertiesChanged", "sa{sv}as",
          "org.freedesktop.login1.Session", 1, "LockedHint", "b", static_cast<int>(locked), 0);
}

void Intruder::forgeSession(const char* signal, const char* id, const std::string& sessionPath) {
    forge("/org/freedesktop/login1", "org.freedesktop.login1.Manager", signal, "so", id, sessionPath.c_str());
}

void Intruder::forgeActiveChanged(const char* interface, const char* path, bool active) {
    forge(path, interface, "ActiveChanged", "b", static_cast<int>(active));
}

void Intruder::delivered() {
    // The bus works off one sender's messages in order, so an answer says that all before it were passed on.
    m_peer.call(busDriver, "GetId", "");
}

}  // namespace link_tests
