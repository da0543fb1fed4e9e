#include "support/ScarceMemory.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

constexpr std::size_t tooLarge = 4096;

thread_local bool scarce = false;

}  // namespace

fake::ScarceMemory::ScarceMemory() {
    scarce = true;
}

fake::ScarceMemory::~ScarceMemory() {
    scarce = false;
}

bool fake::ScarceMemory::isAvailable() {
    return true;
}

// The array forms, and those that do not throw, come through these.
void* operator new(std::size_t size) {
    void* const block = scarce && size >= tooLarge ? nullptr : std::malloc(size != 0 ? size : 1);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
    std::free(block);
}
