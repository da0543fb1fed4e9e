#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <memory>

#include "Loggers.h"

std::function<void(int)> bench::spdlogStatement(const std::string& file) {
    const spdlog::sinks_init_list sinks = {std::make_shared<spdlog::sinks::stdout_sink_mt>(),
                                           std::make_shared<spdlog::sinks::basic_file_sink_mt>(file)};
    auto logger = std::make_shared<spdlog::logger>("bench", sinks);
    logger->set_level(spdlog::level::trace);
    logger->flush_on(spdlog::level::trace);
    return [logger](int number) { logger->trace("Monitor launcher: screen lock status {}", number); };
}
