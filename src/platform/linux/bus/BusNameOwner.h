#pragma once

#include <functional>
#include <string>

#include "platform/linux/bus/BusHandles.h"

namespace platform {

/// Follows who owns a well-known name on a bus, in the order of the bus, without a race and without blocking.
///
/// Any local user can send a signal straight to this process, and a match rule's sender does not keep it out;
/// so whoever handles a signal asks sent() first. Lives at most as long as the bus; on its thread.
class BusNameOwner {
public:
    /// Whether the first answer is told if nobody owns the name.
    enum class Tell { ChangesOnly, FirstAnswerToo };

    /// `changed` is called with each new owner's unique name, empty for nobody, also with the first if there
    /// is one. It must not destroy this object.
    BusNameOwner(sd_bus* bus, std::string name, std::function<void(const std::string& owner)> changed,
                 Tell tell = Tell::ChangesOnly);
    ~BusNameOwner() = default;
    BusNameOwner(const BusNameOwner&) = delete;
    BusNameOwner& operator=(const BusNameOwner&) = delete;

    /// Whether `message` comes from the present owner.
    bool sent(sd_bus_message* message) const;

    /// Asks the bus again. A bus drops a signal of its own that the queue of its receiver has no room for, so
    /// whoever must not miss a change asks now and then. One question is under way at a time; asked
    /// meanwhile, it is put once more, so that an answer is always younger than the last time of asking; and
    /// so is one that got no answer.
    void ask();

private:
    void ownerChanged(sd_bus_message* message);
    void ownerAnswered(sd_bus_message* message);
    void take(const std::string& owner);

    sd_bus* m_bus;
    std::string m_name;
    std::string m_owner;
    std::function<void(const std::string&)> m_changed;
    SlotHandle m_match;
    SlotHandle m_question;
    bool m_tellNext;
    bool m_asking = false;
    bool m_askAgain = false;
};

}  // namespace platform
