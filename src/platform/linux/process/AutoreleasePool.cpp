#include "platform/AutoreleasePool.h"

namespace platform {

// Nothing here hands out objects that wait for a pool: every C handle has one owner that releases it.
AutoreleasePool::AutoreleasePool() noexcept = default;

AutoreleasePool::~AutoreleasePool() {
    static_cast<void>(m_token);
}

}  // namespace platform
