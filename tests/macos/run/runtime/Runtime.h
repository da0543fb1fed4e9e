#pragma once

#include <string>

// A small Objective-C runtime for the tests: enough of the ABI for the adapters, the stand-in and the doubles
// of the frameworks, on Linux. What a program would get away with on a Mac only by luck ends it here, with a
// line on standard error: an unknown selector, an over-release, an autorelease without a pool. Any thread.

struct objc_method;
struct objc_selector;

namespace runtime {

// Untyped, so that Objective-C++ under ARC and plain C++ can both use this: `object` is any object or block,
// and no reference changes hands unless it says so.
using Object = void*;
using Type = void*;
using Imp = void (*)();

/// Prints why and aborts.
[[noreturn]] void fail(const std::string& why);

/// The class of `object`.
Type classOf(Object object);
const char* nameOf(Type type);

/// The method that an object of `type` runs for the selector of that name, or null.
const objc_method* findMethod(Type type, const char* name);

/// Answers what `type` has no method for: called with the receiver and the selector, returns what to run.
using Forwarder = Imp (*)(Object receiver, const objc_selector* selector);
void setForwarder(Type type, Forwarder forwarder);

/// A new object of `type`, zeroed and constructed, of which the caller owns one reference.
Object create(Type type);
/// Destroys what `create` made; NSObject's dealloc.
void destroy(Object object);

/// The extended encoding that the compiler left in a block, or null.
const char* signatureOf(const void* block);

/// A text of the compiler's that is no pointer but the text itself.
bool isTinyString(const void* object);
/// The class that stands for such texts.
void setTinyStringClass(Type type);
/// Objects of that class are never counted: the compiler laid them down.
void setConstantStringClass(Type type);

/// Reference counting for code without ARC.
Object retain(Object object);
void release(Object object);

/// How many counted objects exist.
long liveObjects();

}  // namespace runtime
