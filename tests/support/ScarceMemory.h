#pragma once

namespace fake {

/// While it lives, `new` fails on the thread that made it for blocks of 4096 bytes and more: the size of a
/// file stream's buffer in every standard library, and more than anything else takes when the agent starts.
/// Links in operators new and delete that replace the library's.
class ScarceMemory {
public:
    ScarceMemory();
    ~ScarceMemory();
    /// False where a sanitizer brings operators of its own; then nothing fails, and who needs it skips.
    static bool isAvailable();
    ScarceMemory(const ScarceMemory&) = delete;
    ScarceMemory& operator=(const ScarceMemory&) = delete;
};

}  // namespace fake
