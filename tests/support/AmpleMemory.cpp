#include "support/ScarceMemory.h"

// For builds with a sanitizer, whose own operators new and delete cannot be replaced.

fake::ScarceMemory::ScarceMemory() = default;

fake::ScarceMemory::~ScarceMemory() = default;

bool fake::ScarceMemory::isAvailable() {
    return false;
}
