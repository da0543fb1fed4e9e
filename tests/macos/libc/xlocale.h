// What macOS's header of this name declares beyond the host's <locale.h>, as far as libc++'s headers call it.

#pragma once

#include <ctype.h>
#include <locale.h>
#include <stddef.h>

// The host's macros look into a locale, and macOS's may be 0.
#undef isdigit_l
#undef isxdigit_l

#ifdef __cplusplus
extern "C" {
#endif

int asprintf_l(char**, locale_t, const char*, ...) __attribute__((format(printf, 3, 4)));
int snprintf_l(char*, size_t, locale_t, const char*, ...) __attribute__((format(printf, 4, 5)));
int sscanf_l(const char*, locale_t, const char*, ...) __attribute__((format(scanf, 3, 4)));

#ifdef __cplusplus
}
#endif
