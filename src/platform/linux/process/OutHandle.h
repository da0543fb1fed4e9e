#pragma once

namespace platform {

/// Stands where a C call expects the address of a pointer, and puts what it got into `handle` at the end of
/// the full expression: `call(OutHandle(handle))`. A call that gives nothing leaves the handle as it was.
template <typename Handle>
class OutHandle {
public:
    explicit OutHandle(Handle& handle) noexcept : m_handle(handle) {}
    ~OutHandle() {
        if (m_raw != nullptr) {
            m_handle.reset(m_raw);
        }
    }
    OutHandle(const OutHandle&) = delete;
    OutHandle& operator=(const OutHandle&) = delete;

    operator typename Handle::pointer *() noexcept { return &m_raw; }

private:
    Handle& m_handle;
    typename Handle::pointer m_raw = nullptr;
};

}  // namespace platform
