#pragma once

#include <future>  // for the library's version

/// Whether std::async waits, for good, for a thread that it could not start. libc++ did so before version 21,
/// the fix being llvm-project's pull request 130145; its later versions and libstdc++ throw
/// std::system_error. What the programs do then is in docs/macos.md.
#if defined(_LIBCPP_VERSION) && _LIBCPP_VERSION < 210000
inline constexpr bool asyncHangsWithoutAThread = true;
#else
inline constexpr bool asyncHangsWithoutAThread = false;
#endif
