// The agent without its log lines: what the way of an event costs without them.

#include "logging/Log.h"
#include "velmmonitord/Agent.h"

int main() {
    Logging::Logger::instance().setLoggingLevel(Logging::None);
    return runAgent();
}
