// Stands for: Foundation.framework. See objc/NSObject.h for what these declarations are.

#pragma once

#include <sys/types.h>

#import <CoreFoundation/CoreFoundation.h>
#import <objc/NSObject.h>

#pragma clang assume_nonnull begin

// NSObjCRuntime
typedef long NSInteger;
typedef unsigned long NSUInteger;
@class NSString;
extern "C" void NSLog(NSString* format, ...) __attribute__((format(__NSString__, 1, 2)));

// NSString
@interface NSString : NSObject
+ (nullable instancetype)stringWithUTF8String:(const char*)nullTerminatedCString;
@property(nullable, readonly) const char* UTF8String __attribute__((objc_returns_inner_pointer));
@end

// NSPathUtilities
extern "C" NSString* NSHomeDirectory(void);
@interface NSString (NSStringPathExtensions)
- (NSString*)stringByAppendingPathComponent:(NSString*)str;
@end

// NSData
@interface NSData : NSObject
+ (instancetype)dataWithBytes:(nullable const void*)bytes length:(NSUInteger)length;
@property(readonly) NSUInteger length;
@property(readonly) const void* bytes __attribute__((objc_returns_inner_pointer));
@end

// NSValue and NSNumber
@interface NSValue : NSObject
@property(readonly) const char* objCType __attribute__((objc_returns_inner_pointer));
@end

@interface NSNumber : NSValue
+ (NSNumber*)numberWithLongLong:(long long)value;
+ (NSNumber*)numberWithUnsignedLongLong:(unsigned long long)value;
+ (NSNumber*)numberWithDouble:(double)value;
+ (NSNumber*)numberWithBool:(BOOL)value;
@property(readonly) double doubleValue;
@property(readonly) BOOL boolValue;
@property(readonly) long long longLongValue;
@property(readonly) unsigned long long unsignedLongLongValue;
@end

// NSOperation
@interface NSOperationQueue : NSObject
- (void)addOperationWithBlock:(void (^)(void))block;
@property NSInteger maxConcurrentOperationCount;
@end

// NSRunLoop
@interface NSRunLoop : NSObject
@property(class, readonly, strong) NSRunLoop* mainRunLoop;
- (void)run;
@end

// NSXPCConnection
typedef enum __attribute__((flag_enum, enum_extensibility(open))) NSXPCConnectionOptions : NSUInteger {
    NSXPCConnectionPrivileged = (1UL << 12UL)
} NSXPCConnectionOptions;

@interface NSXPCInterface : NSObject
+ (NSXPCInterface*)interfaceWithProtocol:(Protocol*)protocol;
@end

@interface NSXPCConnection : NSObject
- (instancetype)initWithMachServiceName:(NSString*)name options:(NSXPCConnectionOptions)options;
@property(nullable, retain) NSXPCInterface* exportedInterface;
@property(nullable, retain) id exportedObject;
@property(nullable, retain) NSXPCInterface* remoteObjectInterface;
@property(readonly, retain) id remoteObjectProxy;
@property(nullable, copy) void (^interruptionHandler)(void);
@property(nullable, copy) void (^invalidationHandler)(void);
- (void)resume;
@property(readonly) pid_t processIdentifier;
@property(readonly) uid_t effectiveUserIdentifier;
@end

@class NSXPCListener;
@protocol NSXPCListenerDelegate <NSObject>
@optional
- (BOOL)listener:(NSXPCListener*)listener shouldAcceptNewConnection:(NSXPCConnection*)newConnection;
@end

@interface NSXPCListener : NSObject
- (instancetype)initWithMachServiceName:(NSString*)name __attribute__((objc_designated_initializer));
@property(nullable, weak) id<NSXPCListenerDelegate> delegate;
- (void)resume;
@end

#pragma clang assume_nonnull end
