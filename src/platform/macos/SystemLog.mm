#include "platform/SystemLog.h"

#import <Foundation/Foundation.h>

namespace platform {

void writeSystemLog(const char* text, const char* path) {
    @autoreleasepool {
        NSLog(@"%@%s", [NSString stringWithUTF8String:text], path);
    }
}

}  // namespace platform
