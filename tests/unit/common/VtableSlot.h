#pragma once

#include <cstddef>
#include <cstring>

/// The place of a virtual operation in its class's virtual table, counted from 0, with the two destructors
/// taking 0 and 1. The Itanium C++ ABI, which every supported platform follows, keeps the byte offset in the
/// first word of a pointer to a virtual member (plus one, except on Arm).
template <typename Member>
std::size_t vtableSlot(Member member) {
    std::size_t word = 0;
    static_assert(sizeof(member) >= sizeof(word));
    std::memcpy(&word, &member, sizeof(word));
    return word / sizeof(void*);
}
