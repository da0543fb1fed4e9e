#include "platform/HomeDirectory.h"

#import <Foundation/Foundation.h>

namespace platform {

std::optional<std::string> pathInHomeDirectory(const std::string& component) {
    @autoreleasepool {
        NSString* const relative = [NSString stringWithUTF8String:component.c_str()];
        if (relative == nil) {
            return std::nullopt;
        }
        const char* const path = [NSHomeDirectory() stringByAppendingPathComponent:relative].UTF8String;
        if (path == nullptr) {
            return std::nullopt;
        }
        return std::string(path);
    }
}

}  // namespace platform
