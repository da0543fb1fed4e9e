// Takes the place of the host C library's header of this name, which asks only which compiler this is and so
// claims a floating-point type of 128 bits that macOS does not have.

#pragma once

#define __HAVE_FLOAT128 0
#define __HAVE_DISTINCT_FLOAT128 0
#define __HAVE_FLOAT64X 1
#define __HAVE_FLOAT64X_LONG_DOUBLE 1

#include <bits/floatn-common.h>
