#pragma once

// The notification calls that the monitors make, under the platform's own names: CoreFoundation on macOS, and
// elsewhere the declarations below, which platform/linux implements with the same meaning.

#ifdef __APPLE__

#include <CoreFoundation/CoreFoundation.h>

#else

struct VelmString;
struct VelmDictionary;
struct VelmNotificationCenter;

using Boolean = unsigned char;
using CFIndex = long;
/// A constant, null-terminated UTF-8 text; made by CFSTR and compared by content.
using CFStringRef = const VelmString*;
using CFNotificationName = CFStringRef;
using CFDictionaryRef = const VelmDictionary*;
using CFNotificationCenterRef = VelmNotificationCenter*;

enum CFNotificationSuspensionBehavior : CFIndex {
    CFNotificationSuspensionBehaviorDeliverImmediately = 4,
};

using CFNotificationCallback = void (*)(CFNotificationCenterRef center, void* observer,
                                        CFNotificationName name, const void* object,
                                        CFDictionaryRef userInfo);

/// Makes a constant string from a literal.
#define CFSTR(literal) (reinterpret_cast<CFStringRef>("" literal ""))

/// Posted to the local centre after the system's time zone changed and local time follows it.
extern const CFNotificationName kCFTimeZoneSystemTimeZoneDidChangeNotification;

/// The centre for what concerns the user's whole session. Calls observers on the main run loop's thread,
/// whatever thread posts, in the order of the posts. One for the process; lives until it ends.
CFNotificationCenterRef CFNotificationCenterGetDistributedCenter();

/// The centre for what concerns this process. Calls observers on the poster's thread, before the post
/// returns. One for the process; lives until it ends.
CFNotificationCenterRef CFNotificationCenterGetLocalCenter();

/// Has `callback` called with `observer` for each notification `name`; `object` must be null and stands for
/// any. The same registration made twice is called twice. `observer` is never dereferenced here. Any thread.
void CFNotificationCenterAddObserver(CFNotificationCenterRef center, const void* observer,
                                     CFNotificationCallback callback, CFNotificationName name,
                                     const void* object, CFNotificationSuspensionBehavior suspensionBehavior);

/// Ends every registration of `observer` for `name`. A null observer removes nothing. Waits for a callback of
/// these registrations that runs on another thread; none begins after it returned. May be called inside the
/// callback.
void CFNotificationCenterRemoveObserver(CFNotificationCenterRef center, const void* observer,
                                        CFNotificationName name, const void* object);

/// Posts `name` to the observers that are registered now. Any thread; see the centres for where observers
/// run.
void CFNotificationCenterPostNotification(CFNotificationCenterRef center, CFNotificationName name,
                                          const void* object, CFDictionaryRef userInfo,
                                          Boolean deliverImmediately);

#endif
