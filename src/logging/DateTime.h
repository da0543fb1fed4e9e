#pragma once

#include <chrono>
#include <string>

namespace Logging {

/// `time` in local time, in the form of `now_date_time()`. Any thread.
std::string formatDateTime(std::chrono::system_clock::time_point time);

}  // namespace Logging
