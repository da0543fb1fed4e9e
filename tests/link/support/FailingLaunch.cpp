// Preloaded into the agent, to make its launch fail at a chosen point: once it has written a text that
// contains $VELM_FAIL_AFTER, the main thread's next allocation fails. When an uncaught exception is about to
// end the process, tells on standard error how many threads the reconnect timer has left.

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <new>
#include <string>
#include <string_view>

namespace {

std::atomic<bool> armed{false};

bool onMainThread() {
    return syscall(SYS_gettid) == getpid();
}

void look(const void* bytes, std::size_t length) {
    const char* const text = std::getenv("VELM_FAIL_AFTER");
    const std::string_view written(static_cast<const char*>(bytes), length);
    if (text != nullptr && written.find(text) != std::string_view::npos) {
        armed = true;
    }
}

std::string nameOf(const std::filesystem::path& task) {
    std::string name;
    std::getline(std::ifstream(task / "comm"), name);
    return name;
}

// The threads of queues and connections have names of their own; the timer's task is called as the process
// is.
int threadsOfTheTimer() {
    const std::string own = nameOf("/proc/self");
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        const bool isMain = task.path().filename() == std::to_string(getpid());
        count += !isMain && nameOf(task.path()) == own ? 1 : 0;
    }
    return count;
}

[[noreturn]] void tellAndEnd() {
    // A thread that was joined may be listed a moment longer.
    int left = threadsOfTheTimer();
    for (int attempt = 0; left != 0 && attempt < 200; ++attempt) {
        usleep(10000);
        left = threadsOfTheTimer();
    }
    std::fprintf(stderr, "uncaught exception, threads of the timer: %d\n", left);
    std::abort();
}

[[maybe_unused]] const std::terminate_handler previous = std::set_terminate(tellAndEnd);

}  // namespace

// The C library names its parameters with reserved names.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" ssize_t write(int file, const void* bytes, std::size_t length) {
    look(bytes, length);
    return syscall(SYS_write, file, bytes, length);
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" ssize_t writev(int file, const iovec* parts, int count) {
    for (int index = 0; index < count; ++index) {
        look(parts[index].iov_base, parts[index].iov_len);
    }
    return syscall(SYS_writev, file, parts, count);
}

void* operator new(std::size_t size) {
    if (armed && onMainThread()) {
        armed = false;
        throw std::bad_alloc();
    }
    void* const memory = std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
