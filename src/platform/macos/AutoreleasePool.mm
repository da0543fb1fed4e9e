#include "platform/AutoreleasePool.h"

// What @autoreleasepool compiles to; a pool that spans a C++ scope can't be written with the statement. Part
// of the ABI that Clang's "Objective-C Automatic Reference Counting" documents under "Runtime support".
extern "C" void* objc_autoreleasePoolPush(void);
extern "C" void objc_autoreleasePoolPop(void* pool);

namespace platform {

AutoreleasePool::AutoreleasePool() noexcept : m_token(objc_autoreleasePoolPush()) {}

AutoreleasePool::~AutoreleasePool() {
    objc_autoreleasePoolPop(m_token);
}

}  // namespace platform
