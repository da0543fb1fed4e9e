#pragma once

#include "platform/linux/bus/BusHandles.h"
#include "platform/linux/process/OutHandle.h"
#include "platform/linux/runloop/EventHandles.h"

namespace sim {

using platform::BusHandle;
using platform::LoopHandle;
using platform::MessageHandle;
using platform::OutHandle;
using platform::SlotHandle;
using platform::SourceHandle;

}  // namespace sim
