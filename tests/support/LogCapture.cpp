#include "support/LogCapture.h"

#include <string>

#include "logging/Log.h"
#include "support/CallTrace.h"

namespace fake {

namespace {

void capture(const std::string& line) {
    CallTrace::instance().addLogLine(line);
}

}  // namespace

LogCapture::LogCapture() {
    Logging::Logger::destroyInstance();
    Logging::Logger::instance().setIncludeTimestamp(false);
    Logging::Logger::instance().addDestination(Logging::DestinationFactory::makeFunctorDestination(&capture));
}

LogCapture::~LogCapture() {
    Logging::Logger::destroyInstance();
}

}  // namespace fake
