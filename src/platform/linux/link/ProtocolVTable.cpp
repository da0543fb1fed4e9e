#include "platform/linux/link/ProtocolVTable.h"

#include <sstream>

#include "platform/linux/link/WireNames.h"

namespace platform::dbus {
namespace {

constexpr const char* introspectionDoctype =
    "<!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\"\n"
    "\"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\">\n";

const char* signatureOf(XpcType type) {
    switch (type) {
        case XpcType::Bool:
            return "b";
        case XpcType::Int:
            return "i";
        case XpcType::Integer:
            return "x";
        case XpcType::Data:
            return "ay";
        case XpcType::String:
            return "s";
    }
    return "";
}

const char* signatureOf(XpcReply reply) {
    switch (reply) {
        case XpcReply::None:
            return "";
        case XpcReply::Bool:
            return "b";
        case XpcReply::Number:
            return "v";
        case XpcReply::String:
            return "s";
    }
    return "";
}

const char* nameForType(XpcType type) {
    switch (type) {
        case XpcType::Bool:
            return "flag";
        case XpcType::Int:
        case XpcType::Integer:
            return "value";
        case XpcType::Data:
            return "data";
        case XpcType::String:
            return "text";
    }
    return "";
}

// sd-bus takes the names of arguments and reply as one run of null-terminated strings.
std::string joinedNames(const XpcMethod& method) {
    std::string joined;
    for (const std::string& name : argumentNames(method)) {
        joined.append(name).push_back('\0');
    }
    if (method.reply != XpcReply::None) {
        joined.append(replyName).push_back('\0');
    }
    return joined;
}

void fillMethod(sd_bus_vtable& entry, const XpcMethod& method, sd_bus_message_handler_t handler) {
    entry.type = _SD_BUS_VTABLE_METHOD;
    entry.flags = SD_BUS_VTABLE_UNPRIVILEGED;
    if (method.reply == XpcReply::None) {
        entry.flags |= SD_BUS_VTABLE_METHOD_NO_REPLY;
    }
    entry.x.method.handler = handler;
}

void writeMethodXml(std::ostream& out, const XpcMethod& method) {
    out << "  <method name=\"" << method.member() << "\">\n";
    const std::vector<std::string> names = argumentNames(method);
    for (std::size_t i = 0; i < method.argumentCount; ++i) {
        out << "   <arg type=\"" << signatureOf(method.arguments[i]) << "\" name=\"" << names[i]
            << "\" direction=\"in\"/>\n";
    }
    if (method.reply == XpcReply::None) {
        out << "   <annotation name=\"org.freedesktop.DBus.Method.NoReply\" value=\"true\"/>\n";
    } else {
        out << "   <arg type=\"" << signatureOf(method.reply) << "\" name=\"" << replyName
            << "\" direction=\"out\"/>\n";
    }
    out << "  </method>\n";
}

}  // namespace

std::string argumentSignature(const XpcMethod& method) {
    std::string signature;
    for (std::size_t i = 0; i < method.argumentCount; ++i) {
        signature += signatureOf(method.arguments[i]);
    }
    return signature;
}

std::string replySignature(const XpcMethod& method) {
    return signatureOf(method.reply);
}

std::vector<std::string> argumentNames(const XpcMethod& method) {
    std::vector<std::string> names;
    std::string_view labels = method.selector;
    for (std::size_t i = 0; i < method.argumentCount; ++i) {
        const std::size_t colon = labels.find(':');
        names.emplace_back(i == 0 ? nameForType(method.arguments[0]) : labels.substr(0, colon));
        labels.remove_prefix(colon + 1);
    }
    return names;
}

const XpcMethod* findMember(const XpcProtocol& protocol, const char* member) {
    if (member == nullptr) {
        return nullptr;
    }
    for (const XpcMethod& method : protocol) {
        if (method.member() == member) {
            return &method;
        }
    }
    return nullptr;
}

std::string interfaceXml(const XpcProtocol& protocol) {
    std::ostringstream out;
    out << introspectionDoctype << "<node>\n <interface name=\"" << interfaceName(protocol) << "\">\n";
    for (const XpcMethod& method : protocol) {
        writeMethodXml(out, method);
    }
    out << " </interface>\n</node>\n";
    return out.str();
}

std::string parentXml(const std::string& child) {
    return std::string(introspectionDoctype) + "<node>\n <node name=\"" + child + "\"/>\n</node>\n";
}

ProtocolVTable::ProtocolVTable(const XpcProtocol& protocol, sd_bus_message_handler_t handler)
    : m_entries(protocol.methodCount + 2) {
    sd_bus_vtable& start = m_entries.front();
    start.type = _SD_BUS_VTABLE_START;
    start.x.start.element_size = sizeof(sd_bus_vtable);
    start.x.start.features = _SD_BUS_VTABLE_PARAM_NAMES;
    start.x.start.vtable_format_reference = &sd_bus_object_vtable_format;

    // All texts first: the entries point into them, so the vector must not grow any more.
    for (const XpcMethod& method : protocol) {
        m_texts.push_back({std::string(method.member()), argumentSignature(method), replySignature(method),
                           joinedNames(method)});
    }
    for (std::size_t i = 0; i < m_texts.size(); ++i) {
        sd_bus_vtable& entry = m_entries[i + 1];
        fillMethod(entry, protocol.methods[i], handler);
        entry.x.method.member = m_texts[i].member.c_str();
        entry.x.method.signature = m_texts[i].arguments.c_str();
        entry.x.method.result = m_texts[i].reply.c_str();
        entry.x.method.names = m_texts[i].names.c_str();
    }
    m_entries.back().type = _SD_BUS_VTABLE_END;
}

}  // namespace platform::dbus
