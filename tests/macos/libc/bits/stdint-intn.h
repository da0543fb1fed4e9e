// Takes the place of the host C library's header of this name, so that the fixed-width types are those of
// macOS: there int64_t is `long long`, not `long`, and overloads and narrowing differ.

#pragma once

typedef __INT8_TYPE__ int8_t;
typedef __INT16_TYPE__ int16_t;
typedef __INT32_TYPE__ int32_t;
typedef __INT64_TYPE__ int64_t;
