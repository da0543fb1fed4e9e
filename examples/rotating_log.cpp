// Logs into a file that is rotated, and shows what is where afterwards. Usage: rotating_log DIRECTORY

#include <velm/logging/FileDestination.h>
#include <velm/logging/Log.h>
#include <velm/logging/RotationStrategy.h>

#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>

namespace {

void logMessage(Logging::Level level, const std::string& message) {
    // The logger does not filter; whoever logs asks first, and so pays nothing for what is not wanted.
    if (Logging::isLogged(level)) {
        Logging::Logger::Helper(level).stream_std() << message;
    }
}

void show(const std::string& directory, const std::string& name) {
    std::ifstream file(directory + "/" + name);
    std::cout << name << (file ? ":" : ": not there") << '\n';
    for (std::string line; std::getline(file, line);) {
        std::cout << "    " << line << '\n';
    }
}

void logAndShow(const std::string& directory) {
    auto strategy = std::make_shared<Logging::SizeRotationStrategy>();
    auto file = Logging::DestinationFactory::makeFileDestination(
        directory + "/example.log", Logging::SizeRotation, Logging::MaxSizeBytes(60),
        Logging::MaxOldLogCount(2), strategy);

    auto& logger = Logging::Logger::instance();
    logger.addDestination(file);
    logger.setLoggingLevel(Logging::Info);
    logger.setIncludeTimestamp(false);  // so that this program prints the same every time

    for (int number = 1; number <= 10; ++number) {
        logMessage(Logging::Info, "message " + std::to_string(number));
        logMessage(Logging::Debug, "nobody will read this");
    }
    logMessage(Logging::Error, "the last one");

    // A line has reached the file when the statement that logs it is over. The newest backup is number 1.
    for (const auto* name : {"example.log2", "example.log1", "example.log"}) {
        show(directory, name);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: rotating_log DIRECTORY\n";
        return 2;
    }
    try {
        logAndShow(argv[1]);
    } catch (const std::exception& error) {
        std::cerr << "rotating_log: cannot log into " << argv[1] << ": " << error.what() << '\n';
        return 1;
    }
    return 0;
}
