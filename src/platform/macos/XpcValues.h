#pragma once

#import <Foundation/Foundation.h>

#include <string>

#include "velmmonitord/XpcProtocols.h"

#pragma clang assume_nonnull begin

// The values of the daemon link in both worlds. All of it on any thread.

namespace platform {

/// A copy of the bytes.
NSData* toNSData(const XpcData& data);
/// The bytes of `data`, which belong to it and live no longer; none for nil.
XpcData toXpcData(NSData* _Nullable data);
/// The text as UTF-8, empty for nil.
std::string toString(NSString* _Nullable text);
/// The text of UTF-8 bytes; an empty text where they are not UTF-8.
NSString* toNSString(const std::string& text);
/// The number as its sender's kind; 0 for nil.
XpcNumber toXpcNumber(NSNumber* _Nullable number);

}  // namespace platform

#pragma clang assume_nonnull end
