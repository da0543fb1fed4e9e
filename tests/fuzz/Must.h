#pragma once

#include <cstdio>
#include <cstdlib>

/// Ends the fuzzer, which then keeps its input, unless `holds`; says `what` did not hold.
inline void must(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "Does not hold: %s\n", what);
        std::abort();
    }
}
