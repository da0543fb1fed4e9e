#pragma once

#include "platform/linux/bus/BusHandles.h"

namespace platform {

/// A method of a service on a bus: four names, each of which lives as long as the program or the question.
struct BusMethod {
    const char* service;
    const char* path;
    const char* interface;
    const char* member;
};

// A bus drops an answer without a word while the queue of the asker is full, which any local user can bring
// about. So a question that stays open for seconds ends with an error for which isUnanswered() is true.

/// Calls `method` with one text, or with nothing if `argument` is null, without waiting, and gives the answer
/// or an error to `answered`. Negative errno value if the question cannot go out; then nobody is called.
int askService(sd_bus* bus, SlotHandle& question, const BusMethod& method, const char* argument,
               sd_bus_message_handler_t answered, void* object);

/// Asks the message bus itself.
int askBus(sd_bus* bus, SlotHandle& question, const char* member, const char* argument,
           sd_bus_message_handler_t answered, void* object);

/// Whether `message` says that no answer came: it may well come to the next question.
bool isUnanswered(sd_bus_message* message);

}  // namespace platform
