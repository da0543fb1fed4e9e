#pragma once

#include <functional>
#include <string>
#include <vector>

#include "doubles/Wire.h"

// Calls made and taken by what the metadata says of them, and by nothing else: the protocol's extended
// encodings decide which selectors pass, which classes, and which blocks. What they don't allow ends the
// process.

struct objc_selector;

namespace doubles {

/// Of `encoding`, which may have stack offsets or not: the result and each argument.
std::vector<std::string> typesIn(const std::string& encoding);

/// What a call of `selector` through a proxy of `protocol` runs. `send` is what it then calls, with the
/// proxy, the finished frame and the reply block or null; it must not throw.
using Send = void (*)(void* proxy, Frame frame, void* replyBlock);
void (*forwardingOf(void* protocol, const objc_selector* selector, Send send))();

/// Calls the reply block as the frame says. The block's own encoding must be what its protocol said.
void callReply(void* block, const Frame& reply);

/// Calls the method of `target` that the frame names, if `protocol` and the class of `target` know it and the
/// two ends agree on its types; otherwise says why not on standard error. `reply` is called, at most once and
/// on any thread, if the method calls its reply block.
void callMethod(void* target, void* protocol, const Frame& call, std::function<void(Frame)> reply);

/// Fails unless the class of `target` has every required method of `protocol`, and each of its methods the
/// types that the protocol says.
void checkConformance(void* target, void* protocol);

}  // namespace doubles
