// Stands for: the Objective-C runtime (libobjc), <objc/objc.h>, <objc/NSObject.h> and <objc/Protocol.h>.
//
// These declarations are for compiling on a machine without the macOS SDK. They were written from the public
// documentation and hold only what the adapters use: a call of anything else does not compile.

#pragma once

/// A Boolean of the Objective-C world: a signed char for Intel Macs, the language's own bool for Apple
/// silicon. (Documentation: "Objective-C Runtime", BOOL.) The compiler knows which of the two the target has.
#if __OBJC_BOOL_IS_BOOL
typedef bool BOOL;
#else
typedef signed char BOOL;
#endif
#define YES __objc_yes
#define NO __objc_no

#define nil nullptr

#ifdef __OBJC__

@protocol NSObject
@end

__attribute__((objc_root_class))
@interface NSObject<NSObject>
+ (nonnull instancetype)alloc __attribute__((objc_method_family(alloc)));
- (nonnull instancetype)init __attribute__((objc_designated_initializer));
@end

/// What @protocol() evaluates to.
@interface Protocol : NSObject
@end

#endif
