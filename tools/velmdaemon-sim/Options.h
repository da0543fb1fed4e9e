#pragma once

#include <string>
#include <vector>

#include "Behaviour.h"
#include "Timeline.h"

namespace sim {

/// Which bus to serve on; of no use where the service manager hands out the service.
struct BusOptions {
    bool session = false;  ///< the user's session bus instead of the system bus
    std::string address;   ///< a bus at this address; empty for none
    bool replace = false;  ///< take the name from an owner that allows it
    bool queue = false;    ///< wait for the name while another owns it
};

/// What the command line asked for.
struct Options {
    Behaviour behaviour;
    BusOptions bus;
    Format format = Format::Columns;
    bool help = false;
    bool version = false;
    /// What is wrong with the command line, in one line; empty if nothing is. The rest does not count then.
    std::string error;
};

/// Whether the platform finds its agents over a bus that can be chosen. Without one, the options that choose
/// it are unknown, and the usage text leaves them out.
enum class BusChoice { Offered, None };

/// Reads the command line without the program's name. Both `--option value` and `--option=value` will do.
/// Pure; any thread.
Options parseOptions(const std::vector<std::string>& arguments, BusChoice choice);

/// The text of `--help`, ending in a line feed, without the statuses that the program ends with. Pure; any
/// thread.
std::string usageText(BusChoice choice);

}  // namespace sim
