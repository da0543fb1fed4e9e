#include "logging/DateTime.h"

#include <ctime>
#include <iomanip>
#include <sstream>

#include "logging/Log.h"

std::string Logging::formatDateTime(std::chrono::system_clock::time_point time) {
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() % 1000;
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);

    // Several threads format their time stamps at once, and localtime() would hand all of them one buffer.
    std::tm local{};
    localtime_r(&seconds, &local);

    std::ostringstream text;
    text << std::put_time(&local, "%Y/%m/%d %X") << ':' << std::setfill('0') << std::setw(3) << milliseconds;
    return text.str();
}

std::string now_date_time() {
    return Logging::formatDateTime(std::chrono::system_clock::now());
}
