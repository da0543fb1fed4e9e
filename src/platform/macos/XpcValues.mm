#import "platform/macos/XpcValues.h"

namespace platform {

NSData* toNSData(const XpcData& data) {
    return [NSData dataWithBytes:data.bytes length:data.length];
}

XpcData toXpcData(NSData* data) {
    return {static_cast<const char*>(data.bytes), data.length};
}

std::string toString(NSString* text) {
    const char* const utf8 = text.UTF8String;
    return utf8 == nullptr ? std::string() : std::string(utf8);
}

NSString* toNSString(const std::string& text) {
    NSString* const converted = [NSString stringWithUTF8String:text.c_str()];
    return converted == nil ? @"" : converted;
}

XpcNumber toXpcNumber(NSNumber* number) {
    if (number == nil) {
        return std::int64_t{0};
    }
    // A boolean number and a signed char have the same type code, but a boolean is of a type of its own.
    if (CFGetTypeID((__bridge CFTypeRef)number) == CFBooleanGetTypeID()) {
        return number.boolValue != NO;
    }
    switch (number.objCType[0]) {
        case 'B':
            return number.boolValue != NO;
        case 'f':
        case 'd':
            return number.doubleValue;
        case 'C':
        case 'S':
        case 'I':
        case 'L':
        case 'Q':
            return std::uint64_t{number.unsignedLongLongValue};
        default:
            return std::int64_t{number.longLongValue};
    }
}

}  // namespace platform
