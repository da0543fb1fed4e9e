#include <iostream>
#include <string>

#include "platform/linux/link/ProtocolVTable.h"
#include "platform/linux/link/WireNames.h"

int main(int argc, char** argv) {
    const std::string wanted = argc == 2 ? argv[1] : "";
    for (const XpcProtocol* protocol : {&xpcDaemonProtocol, &xpcAgentProtocol}) {
        const std::string interface = platform::dbus::interfaceName(*protocol);
        if (wanted == interface || wanted == protocol->name) {
            std::cout << platform::dbus::interfaceXml(*protocol) << std::flush;
            return std::cout ? 0 : 1;
        }
    }
    std::cerr << "usage: velm-interface-xml NAME > FILE\n"
                 "Prints the D-Bus introspection document of one interface; NAME is one of\n";
    for (const XpcProtocol* protocol : {&xpcDaemonProtocol, &xpcAgentProtocol}) {
        std::cerr << "    " << platform::dbus::interfaceName(*protocol) << '\n';
    }
    return 2;
}
