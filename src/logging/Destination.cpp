#include <iostream>
#include <utility>

#include "logging/FileDestination.h"
#include "logging/Log.h"
#include "logging/RotationStrategy.h"

void defaultLogFunction(const std::string& line) {
    // Unlike DebugOutput, without a flush: the console must not cost a system call for every line.
    std::cout << line << '\n';
}

namespace Logging {

void DebugOutput::output(const std::string& line) {
    std::cout << line << std::endl;
}

void DebugOutputDestination::write(const std::string& line) {
    DebugOutput::output(line);
}

FunctorDestination::FunctorDestination(void (*function)(const std::string&)) : m_function(function) {}

void FunctorDestination::write(const std::string& line) {
    if (m_function != nullptr) {
        m_function(line);
    }
}

std::shared_ptr<Destination> DestinationFactory::makeDebugOutputDestination() {
    return std::make_shared<DebugOutputDestination>();
}

std::shared_ptr<Destination> DestinationFactory::makeFunctorDestination(
    void (*function)(const std::string&)) {
    return std::make_shared<FunctorDestination>(function);
}

std::shared_ptr<Destination> DestinationFactory::makeFileDestination(
    const std::string& path, LogRotationOption option, const MaxSizeBytes& maxSize,
    const MaxOldLogCount& maxOldCount, std::shared_ptr<SizeRotationStrategy> strategy) {
    // An option from a newer caller is no reason to shift files about: whatever is not known does not rotate.
    if (option == SizeRotation) {
        strategy->setMaximumSizeInBytes(maxSize.value);
        strategy->setBackupCount(maxOldCount.value);
        return std::make_shared<FileDestination>(FileDestination(path, std::move(strategy), true));
    }
    return std::make_shared<FileDestination>(
        FileDestination(path, std::make_shared<NullRotationStrategy>(), option != NoRotation));
}

}  // namespace Logging
