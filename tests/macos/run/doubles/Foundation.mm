#import <Foundation/Foundation.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "doubles/Objects.h"
#include "doubles/WorkQueue.h"
#include "runtime/Runtime.h"

// Doubles of the classes that only hold something, and of the operation queue.

@implementation NSObject {
    void* m_isa;
}
+ (instancetype)alloc {
    return (__bridge_transfer id)runtime::create((__bridge void*)self);
}
- (instancetype)init {
    return self;
}
- (void)dealloc {
    runtime::destroy((__bridge void*)self);
}
@end

@implementation Protocol
@end

// NSString
// -------------------------------------------------------------------------------------------------------

namespace {

bool isUtf8(const char* text) {
    const auto* byte = reinterpret_cast<const unsigned char*>(text);
    while (*byte != 0) {
        const int more = *byte < 0x80       ? 0
                         : *byte >> 5 == 6  ? 1
                         : *byte >> 4 == 14 ? 2
                         : *byte >> 3 == 30 ? 3
                                            : -1;
        if (more < 0) {
            return false;
        }
        ++byte;
        for (int i = 0; i < more; ++i, ++byte) {
            if (*byte >> 6 != 2) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace

@interface DoubleString : NSString
- (instancetype)initWithText:(std::string)text;
@end

@implementation NSString
+ (instancetype)stringWithUTF8String:(const char*)text {
    return isUtf8(text) ? [[DoubleString alloc] initWithText:text] : nil;
}
- (const char*)UTF8String {
    runtime::fail("NSString is abstract");
}
- (NSString*)stringByAppendingPathComponent:(NSString*)component {
    std::string path = self.UTF8String;
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return [[DoubleString alloc] initWithText:path + "/" + component.UTF8String];
}
@end

@implementation DoubleString {
    std::string m_text;
}
- (instancetype)initWithText:(std::string)text {
    self = [super init];
    m_text = std::move(text);
    return self;
}
- (const char*)UTF8String {
    return m_text.c_str();
}
@end

// Laid down by the compiler for each literal.
@interface NSConstantString : NSString
@end
@implementation NSConstantString {
    std::uint32_t m_flags;
    std::uint32_t m_length;
    std::uint32_t m_size;
    std::uint32_t m_hash;
    const char* m_text;
}
- (const char*)UTF8String {
    if (m_flags != 0) {
        runtime::fail("a literal beyond ASCII, which these doubles don't know");
    }
    return m_text;
}
@end

// Literals of up to eight characters are their own address.
@interface DoubleTinyString : NSString
+ (void)introduce;
@end
@implementation DoubleTinyString
+ (void)introduce {
    runtime::setTinyStringClass((__bridge void*)self);
}
- (const char*)UTF8String {
    static auto* const texts = new std::map<std::uintptr_t, std::string>;
    static std::mutex mutex;
    const auto value = reinterpret_cast<std::uintptr_t>((__bridge void*)self);
    const std::lock_guard<std::mutex> lock(mutex);
    std::string& text = (*texts)[value];
    if (text.empty()) {
        for (unsigned i = 0; i < ((value >> 3) & 31); ++i) {
            text += static_cast<char>((value >> (57 - 7 * i)) & 127);
        }
    }
    return text.c_str();
}
@end

@interface NSConstantString (Introduction)
+ (void)introduce;
@end
@implementation NSConstantString (Introduction)
+ (void)introduce {
    runtime::setConstantStringClass((__bridge void*)self);
}
@end

namespace {

// After __objc_load, which the object files' own constructors call, and before main.
__attribute__((constructor(65535))) void introduceStrings() {
    [NSConstantString introduce];
    [DoubleTinyString introduce];
}

}  // namespace

NSString* NSHomeDirectory(void) {
    return [NSString stringWithUTF8String:std::getenv("HOME")];
}

void NSLog(NSString* format, ...) {
    std::string line;
    va_list arguments;
    va_start(arguments, format);
    for (const char* c = format.UTF8String; *c != 0; ++c) {
        if (*c != '%') {
            line += *c;
        } else if (*++c == '@') {
            line += va_arg(arguments, NSString*).UTF8String;
        } else if (*c == 's') {
            line += va_arg(arguments, const char*);
        } else {
            runtime::fail("NSLog with a format that these doubles don't know");
        }
    }
    va_end(arguments);
    std::fprintf(stderr, "NSLog: %s\n", line.c_str());
}

// NSData, NSNumber
// -----------------------------------------------------------------------------------------------

@implementation NSData {
    std::vector<char> m_bytes;
}
+ (instancetype)dataWithBytes:(const void*)bytes length:(NSUInteger)length {
    NSData* const data = [[NSData alloc] init];
    const auto* const first = static_cast<const char*>(bytes);
    data->m_bytes.assign(first, first + length);
    return data;
}
- (NSUInteger)length {
    return m_bytes.size();
}
- (const void*)bytes {
    return m_bytes.data();
}
@end

@implementation NSValue
- (const char*)objCType {
    runtime::fail("NSValue is abstract");
}
@end

@implementation NSNumber {
    char m_type[2];
    long long m_integer;
    double m_real;
}
- (instancetype)initWithType:(char)type integer:(long long)integer real:(double)real {
    self = [super init];
    m_type[0] = type;
    m_integer = integer;
    m_real = real;
    return self;
}
+ (NSNumber*)numberWithLongLong:(long long)value {
    return [[NSNumber alloc] initWithType:'q' integer:value real:static_cast<double>(value)];
}
+ (NSNumber*)numberWithUnsignedLongLong:(unsigned long long)value {
    return [[NSNumber alloc] initWithType:'Q'
                                  integer:static_cast<long long>(value)
                                     real:static_cast<double>(value)];
}
+ (NSNumber*)numberWithDouble:(double)value {
    return [[NSNumber alloc] initWithType:'d' integer:static_cast<long long>(value) real:value];
}
+ (NSNumber*)numberWithBool:(BOOL)value {
    return [[NSNumber alloc] initWithType:'c' integer:value != NO real:value != NO];
}
- (const char*)objCType {
    return m_type;
}
- (double)doubleValue {
    return m_real;
}
- (BOOL)boolValue {
    return m_integer != 0 ? YES : NO;
}
- (long long)longLongValue {
    return m_integer;
}
- (unsigned long long)unsignedLongLongValue {
    return static_cast<unsigned long long>(m_integer);
}
@end

namespace {

constexpr CFTypeID booleanType = 21;
constexpr CFTypeID otherType = 22;

void* owned(id object) {
    return (__bridge_retained void*)object;
}

bool isA(void* object, const std::string& className) {
    const std::string actual = runtime::nameOf(runtime::classOf(object));
    if (className == "NSString") {
        return actual == "DoubleString" || actual == "NSConstantString" || actual == "DoubleTinyString";
    }
    return actual == className;
}

}  // namespace

CFTypeID CFBooleanGetTypeID(void) {
    return booleanType;
}

CFTypeID CFGetTypeID(CFTypeRef object) {
    // The only numbers here of a signed char's code are booleans.
    NSValue* const value = (__bridge NSValue*)object;
    return std::strcmp(value.objCType, "c") == 0 ? booleanType : otherType;
}

namespace doubles {

void* decodeObject(const std::string& className, const std::string& bytes) {
    if (className == "NSData") {
        return owned([NSData dataWithBytes:bytes.data() length:bytes.size()]);
    }
    if (className == "NSString") {
        return owned([NSString stringWithUTF8String:bytes.c_str()]);
    }
    if (className == "NSNumber" && !bytes.empty()) {
        const char* const text = bytes.c_str() + 1;
        switch (bytes[0]) {
            case 'q':
                return owned([NSNumber numberWithLongLong:std::strtoll(text, nullptr, 10)]);
            case 'Q':
                return owned([NSNumber numberWithUnsignedLongLong:std::strtoull(text, nullptr, 10)]);
            case 'd':
                return owned([NSNumber numberWithDouble:std::strtod(text, nullptr)]);
            case 'c':
                return owned([NSNumber numberWithBool:*text == '1' ? YES : NO]);
        }
    }
    runtime::fail("an argument of class '" + className + "', which may not cross a connection");
}

std::string encodeObject(const std::string& className, void* object) {
    if (!isA(object, className)) {
        runtime::fail(std::string("a ") + runtime::nameOf(runtime::classOf(object)) +
                      " where the protocol says " + className);
    }
    if (className == "NSData") {
        NSData* const data = (__bridge NSData*)object;
        return {static_cast<const char*>(data.bytes), data.length};
    }
    if (className == "NSString") {
        return ((__bridge NSString*)object).UTF8String;
    }
    NSNumber* const number = (__bridge NSNumber*)object;
    const char type = number.objCType[0];
    char text[40];
    if (type == 'd') {
        std::snprintf(text, sizeof text, "d%.17g", number.doubleValue);
    } else if (type == 'Q') {
        std::snprintf(text, sizeof text, "Q%llu", number.unsignedLongLongValue);
    } else {
        std::snprintf(text, sizeof text, "%c%lld", type, number.longLongValue);
    }
    return text;
}

}  // namespace doubles

// NSOperationQueue
// -----------------------------------------------------------------------------------------------

@implementation NSOperationQueue {
    std::shared_ptr<doubles::WorkQueue> m_queue;
    NSInteger m_width;
}
- (instancetype)init {
    self = [super init];
    m_queue = std::make_shared<doubles::WorkQueue>();
    self.maxConcurrentOperationCount = 4;
    return self;
}
- (NSInteger)maxConcurrentOperationCount {
    return m_width;
}
- (void)setMaxConcurrentOperationCount:(NSInteger)count {
    m_width = count;
    m_queue->setWidth(static_cast<int>(count));
}
- (void)addOperationWithBlock:(void (^)(void))block {
    NSOperationQueue* const self_ = self;
    m_queue->add([self_, block] {
        static_cast<void>(self_);
        block();
    });
}
@end
