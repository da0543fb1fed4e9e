// Stands for: libdispatch (part of libSystem), <dispatch/dispatch.h>. See objc/NSObject.h for what these
// declarations are.

#pragma once

#include <stdint.h>

#import <objc/NSObject.h>

#pragma clang assume_nonnull begin

// In Objective-C, the objects of libdispatch are Objective-C objects, and ARC counts their references.
@protocol OS_dispatch_queue
@end
typedef NSObject<OS_dispatch_queue>* dispatch_queue_t;
@protocol OS_dispatch_source
@end
typedef NSObject<OS_dispatch_source>* dispatch_source_t;

typedef void (^dispatch_block_t)(void);
typedef uint64_t dispatch_time_t;
typedef const struct dispatch_source_type_s* dispatch_source_type_t;

#define NSEC_PER_MSEC 1000000ull
#define DISPATCH_TIME_NOW (0ull)

@protocol OS_dispatch_queue_attr
@end
typedef NSObject<OS_dispatch_queue_attr>* dispatch_queue_attr_t;
#define DISPATCH_QUEUE_SERIAL nil

extern "C" {
dispatch_queue_t dispatch_get_main_queue(void);
dispatch_queue_t dispatch_queue_create(const char* _Nullable label,
                                       dispatch_queue_attr_t _Nullable attributes)
    __attribute__((ns_returns_retained));
void dispatch_async(dispatch_queue_t queue, dispatch_block_t block);
void dispatch_sync(dispatch_queue_t queue, dispatch_block_t block);
dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta);
void dispatch_after(dispatch_time_t when, dispatch_queue_t queue, dispatch_block_t block);
void dispatch_main(void) __attribute__((noreturn));

extern const struct dispatch_source_type_s _dispatch_source_type_read;
#define DISPATCH_SOURCE_TYPE_READ (&_dispatch_source_type_read)
dispatch_source_t dispatch_source_create(dispatch_source_type_t type, uintptr_t handle, uintptr_t mask,
                                         dispatch_queue_t _Nullable queue)
    __attribute__((ns_returns_retained));
void dispatch_source_set_event_handler(dispatch_source_t source, dispatch_block_t _Nullable handler);
void dispatch_source_cancel(dispatch_source_t source);
void dispatch_suspend(NSObject* object);
void dispatch_resume(NSObject* object);
}

#pragma clang assume_nonnull end
