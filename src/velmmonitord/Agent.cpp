#include "velmmonitord/Agent.h"

#include <ios>
#include <string>

#include "logging/Log.h"
#include "platform/AutoreleasePool.h"
#include "platform/HomeDirectory.h"
#include "platform/Process.h"
#include "platform/RunLoop.h"
#include "platform/SystemLog.h"
#include "velmmonitord/LogLine.h"
#include "velmmonitord/MonitorLauncher.h"

namespace {

void openLog(const std::string& path) {
    try {
        Logging::Logger::instance().initAsDefault(path);
    } catch (const std::ios_base::failure&) {
        // The console was set up before the file failed, so the agent is still heard there.
        platform::writeSystemLog("[ERROR] Failed to create or open log file at path = ", path.c_str());
    }
}

}  // namespace

int runAgent() {
    platform::prepareProcess();
    // Outlives everything below, which may leave objects to it until the end.
    const platform::AutoreleasePool pool;
    // Without a home directory the path is empty, which stands for a log on the console only.
    const std::string path =
        platform::pathInHomeDirectory("Library/Logs/velmmonitord.log").value_or(std::string());
    openLog(path);
    logLine(Logging::Level::Trace, "velmmonitord started");

    MonitorLauncher launcher;
    launcher.launch();
    platform::mainRunLoop().run();
    return 0;
}
