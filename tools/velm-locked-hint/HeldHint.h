#pragma once

#include <optional>

#include "HintClaim.h"
#include "SessionHint.h"

/// Keeps the session's locked hint set while it lives, unless somebody else has set it, whose it is to clear.
/// What fails is said on standard error and otherwise passed over: a screen is to be locked whether logind
/// hears of it or not. One thread.
class HeldHint {
public:
    HeldHint();
    /// Clears the hint. Where the bus is away just then it is tried again for some seconds.
    ~HeldHint();
    HeldHint(const HeldHint&) = delete;
    HeldHint& operator=(const HeldHint&) = delete;

private:
    void take();

    std::optional<SessionHint> m_hint;
    std::optional<HintClaim> m_claim;
    bool m_isOurs = false;
};
