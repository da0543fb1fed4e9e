#pragma once

namespace platform {

/// A scope at whose end the platform releases the objects that its own calls handed out inside. Belongs to
/// one thread, and scopes nest. Does nothing where the platform has no such objects.
class AutoreleasePool {
public:
    AutoreleasePool() noexcept;
    ~AutoreleasePool();
    AutoreleasePool(const AutoreleasePool&) = delete;
    AutoreleasePool& operator=(const AutoreleasePool&) = delete;

private:
    void* m_token = nullptr;
};

}  // namespace platform
