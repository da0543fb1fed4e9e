#pragma once

#include <pthread.h>

#include <cstddef>

namespace fake {

/// While it lives, the system refuses this process every new thread: each would need a larger stack than
/// there is room for (pthread_setattr_default_np(3)). Those that run go on.
class ScarceThreads {
public:
    ScarceThreads() {
        pthread_attr_init(&m_impossible);
        pthread_getattr_default_np(&m_before);
        pthread_attr_setstacksize(&m_impossible, std::size_t{1} << 50U);
        pthread_setattr_default_np(&m_impossible);
    }
    ~ScarceThreads() {
        pthread_setattr_default_np(&m_before);
        pthread_attr_destroy(&m_before);
        pthread_attr_destroy(&m_impossible);
    }
    ScarceThreads(const ScarceThreads&) = delete;
    ScarceThreads& operator=(const ScarceThreads&) = delete;

private:
    pthread_attr_t m_before{};
    pthread_attr_t m_impossible{};
};

}  // namespace fake
