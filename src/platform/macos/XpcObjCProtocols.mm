#import "platform/macos/XpcObjCProtocols.h"

namespace platform {

NSXPCInterface* interfaceOf(const XpcProtocol& protocol) {
    // Named one by one, as the compiler emits only protocols that the code refers to.
    Protocol* const declared =
        protocol.name == xpcDaemonProtocol.name ? @protocol(XpcDaemonProtocol) : @protocol(XpcAgentProtocol);
    return [NSXPCInterface interfaceWithProtocol:declared];
}

}  // namespace platform
