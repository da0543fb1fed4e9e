#pragma once

namespace platform {

/// Runs `call`, C++ that a framework reached through a block or a method. An exception ends the process here,
/// where the crash report still shows who threw: the frameworks are not made to be unwound, and would go on
/// with locks held and objects leaked.
template <typename Call>
void atExceptionBoundary(const Call& call) noexcept {
    call();
}

}  // namespace platform
