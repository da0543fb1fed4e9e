// Stands for: CoreFoundation.framework. See objc/NSObject.h for what these declarations are.

#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// CFBase
typedef unsigned char Boolean;
typedef long CFIndex;
typedef unsigned long CFTypeID;
typedef const void* CFTypeRef;
typedef const struct __attribute__((objc_bridge(NSString))) __CFString* CFStringRef;
typedef const struct __attribute__((objc_bridge(NSDictionary))) __CFDictionary* CFDictionaryRef;
CFTypeID CFGetTypeID(CFTypeRef _Null_unspecified cf);

// CFNumber
CFTypeID CFBooleanGetTypeID(void);

// CFString
#define CFSTR(literal) ((CFStringRef)__builtin___CFStringMakeConstantString("" literal ""))

// CFNotificationCenter
typedef CFStringRef CFNotificationName;
typedef struct __attribute__((objc_bridge_mutable(id))) __CFNotificationCenter* CFNotificationCenterRef;
typedef void (*CFNotificationCallback)(CFNotificationCenterRef _Null_unspecified center,
                                       void* _Null_unspecified observer,
                                       CFNotificationName _Null_unspecified name,
                                       const void* _Null_unspecified object,
                                       CFDictionaryRef _Null_unspecified userInfo);
typedef enum __attribute__((enum_extensibility(open))) CFNotificationSuspensionBehavior : CFIndex {
    CFNotificationSuspensionBehaviorDeliverImmediately = 4
} CFNotificationSuspensionBehavior;

CFNotificationCenterRef _Null_unspecified CFNotificationCenterGetLocalCenter(void);
CFNotificationCenterRef _Null_unspecified CFNotificationCenterGetDistributedCenter(void);
void CFNotificationCenterAddObserver(CFNotificationCenterRef _Null_unspecified center,
                                     const void* _Null_unspecified observer,
                                     CFNotificationCallback _Null_unspecified callBack,
                                     CFStringRef _Null_unspecified name, const void* _Null_unspecified object,
                                     CFNotificationSuspensionBehavior suspensionBehavior);
void CFNotificationCenterRemoveObserver(CFNotificationCenterRef _Null_unspecified center,
                                        const void* _Null_unspecified observer,
                                        CFNotificationName _Null_unspecified name,
                                        const void* _Null_unspecified object);

// CFTimeZone
extern const CFNotificationName _Null_unspecified kCFTimeZoneSystemTimeZoneDidChangeNotification;

#ifdef __cplusplus
}
#endif
