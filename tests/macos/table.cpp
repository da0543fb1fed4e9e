// Prints the protocol tables, a method a line: protocol, selector, required or optional, arguments and reply
// block. The check reads them here so that it compares with what the program is made from, not with a copy.

#include <iostream>

#include "velmmonitord/XpcProtocols.h"

namespace {

const char* nameOf(XpcType type) {
    switch (type) {
        case XpcType::Bool:
            return "Bool";
        case XpcType::Int:
            return "Int";
        case XpcType::Integer:
            return "Integer";
        case XpcType::Data:
            return "Data";
        case XpcType::String:
            return "String";
    }
    return "?";
}

const char* nameOf(XpcReply reply) {
    switch (reply) {
        case XpcReply::None:
            return "None";
        case XpcReply::Bool:
            return "Bool";
        case XpcReply::Number:
            return "Number";
        case XpcReply::String:
            return "String";
    }
    return "?";
}

void print(const XpcProtocol& protocol) {
    for (const XpcMethod& method : protocol) {
        std::cout << protocol.name << ' ' << method.selector << ' '
                  << (method.required ? "required" : "optional") << ' ' << nameOf(method.reply);
        for (std::size_t i = 0; i < method.argumentCount; ++i) {
            std::cout << ' ' << nameOf(method.arguments.at(i));
        }
        std::cout << '\n';
    }
}

}  // namespace

int main() {
    print(xpcDaemonProtocol);
    print(xpcAgentProtocol);
    return 0;
}
