#include "common/TimerSlack.h"

void cmn::waitPunctually() noexcept {}
