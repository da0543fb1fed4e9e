#include "logging/DateTime.h"

#include <array>
#include <ctime>
#include <iomanip>
#include <locale>
#include <sstream>

#include "logging/Log.h"

namespace {

std::string dateAndTime(const std::tm& local) {
    // In the classic locale, which programs start with, what a stream would write: making the stream costs
    // several times what writing does.
    if (std::locale() == std::locale::classic()) {
        std::array<char, 64> text{};
        return {text.data(), std::strftime(text.data(), text.size(), "%Y/%m/%d %H:%M:%S", &local)};
    }
    std::ostringstream text;
    text << std::put_time(&local, "%Y/%m/%d %X");
    return text.str();
}

}  // namespace

std::string Logging::formatDateTime(std::chrono::system_clock::time_point time) {
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() % 1000;
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);

    // Several threads format their time stamps at once, and localtime() would hand all of them one buffer.
    std::tm local{};
    localtime_r(&seconds, &local);

    std::string text = dateAndTime(local);
    const std::string digits = std::to_string(milliseconds);
    text += ':';
    text.append(digits.size() < 3 ? 3 - digits.size() : 0, '0');
    text += digits;
    return text;
}

std::string now_date_time() {
    return Logging::formatDateTime(std::chrono::system_clock::now());
}
