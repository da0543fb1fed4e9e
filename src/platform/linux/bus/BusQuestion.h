#pragma once

#include "platform/linux/bus/BusHandles.h"

namespace platform {

/// Asks the message bus itself: calls its `member` with one text, without waiting, and gives the answer or an
/// error to `answered`. Negative errno value if the question cannot go out; then nobody is called.
///
/// A bus drops its answer without a word while the queue of the asker is full, which any local user can bring
/// about. So a question that stays open for seconds ends with an error for which isUnanswered() is true.
int askBus(sd_bus* bus, SlotHandle& question, const char* member, const char* argument,
           sd_bus_message_handler_t answered, void* object);

/// Whether `message` says that no answer came: it may well come to the next question.
bool isUnanswered(sd_bus_message* message);

}  // namespace platform
