#pragma once

#include <string>

// The values that cross a connection, for doubles that are plain C++. Objects are untyped, as in
// runtime/Runtime.h.

namespace doubles {

/// A new NSData, NSString or NSNumber (by the name of the class) from its bytes on the wire, owned by the
/// caller; fails for other classes.
void* decodeObject(const std::string& className, const std::string& bytes);
/// The bytes of `object`, which must be of that class.
std::string encodeObject(const std::string& className, void* object);

}  // namespace doubles
