#include "doubles/RunLoop.h"

#import <Foundation/Foundation.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "runtime/Runtime.h"

// The double of the run loop, for the main thread only. What happens in the world comes as lines of the file
// (or pipe) that VELM_DOUBLES_EVENTS names: a centre and a notification's name each.

@implementation NSRunLoop
+ (NSRunLoop*)mainRunLoop {
    static NSRunLoop* const loop = [[NSRunLoop alloc] init];
    return loop;
}
- (void)run {
    // As Apple documents it: without a source, it returns at once.
    if (!doubles::mainRunLoopHasSource()) {
        return;
    }
    const char* const path = std::getenv("VELM_DOUBLES_EVENTS");
    if (path == nullptr) {
        runtime::fail("VELM_DOUBLES_EVENTS is not set");
    }
    std::ifstream events(path);
    for (std::string center, name; events >> center >> name;) {
        @autoreleasepool {
            doubles::post(center.c_str(), name.c_str());
        }
    }
}
@end

namespace {

// There from the start, as the tests count objects.
__attribute__((constructor(65535))) void makeMainRunLoop() {
    @autoreleasepool {
        static_cast<void>([NSRunLoop mainRunLoop]);
    }
}

}  // namespace
