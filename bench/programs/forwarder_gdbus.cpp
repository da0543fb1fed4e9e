// The least that forwards lock changes with GDBus.

#include <gio/gio.h>

namespace {

void forward(GDBusConnection* bus, const gchar* /*sender*/, const gchar* /*path*/, const gchar* /*interface*/,
             const gchar* /*signal*/, GVariant* parameters, gpointer /*unused*/) {
    GVariant* properties = g_variant_get_child_value(parameters, 1);
    gboolean locked = FALSE;
    if (g_variant_lookup(properties, "LockedHint", "b", &locked) != FALSE) {
        g_dbus_connection_call(bus, "com.brovik.velmdaemon", "/com/brovik/velmdaemon",
                               "com.brovik.XpcDaemonProtocol", "onScreenLocked", g_variant_new("(b)", locked),
                               nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
    }
    g_variant_unref(properties);
}

}  // namespace

int main() {
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (bus == nullptr) {
        return 1;
    }
    g_dbus_connection_signal_subscribe(bus, "org.freedesktop.login1", "org.freedesktop.DBus.Properties",
                                       "PropertiesChanged", nullptr, "org.freedesktop.login1.Session",
                                       G_DBUS_SIGNAL_FLAGS_NONE, forward, nullptr, nullptr);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
