#include "logging/FileDestination.h"

#include <utility>

namespace Logging {

FileDestination::FileDestination(const std::string& path, std::shared_ptr<IRotationStrategy> strategy, bool)
    : m_rotationStrategy(std::move(strategy)), m_fileStream(path, std::ios_base::out | std::ios_base::app) {
    try {
        m_fileStream.exceptions(std::ios_base::failbit);
    } catch (const std::ios_base::failure& failure) {
        // A standard library may raise a class of its own; callers get exactly the one that is documented.
        throw std::ios_base::failure(failure);
    }
    // Only now, when the file surely exists: the strategy starts from the size that it finds.
    m_rotationStrategy->setFileName(path);
    m_rotationStrategy->setInitialInfo(path);
}

FileDestination::~FileDestination() = default;

void FileDestination::write(const std::string& line) {
    // Counted before it is written: the line that exceeds the limit already goes into the emptied file. The
    // file is measured before that, so its first line is never counted.
    m_rotationStrategy->includeMessageInCalculation(line);
    if (m_rotationStrategy->shouldRotate()) {
        m_rotationStrategy->rotate();
        m_rotationStrategy->setInitialInfo(m_rotationStrategy->getPathName());
    }
    // A failed operation only leaves the stream bad; the next one on the bad stream would, with some standard
    // libraries, set failbit and so raise. Each is therefore tried on a good stream only.
    if (m_fileStream.good() && m_fileStream << line && m_fileStream << '\n') {
        m_fileStream.flush();
    }
}

}  // namespace Logging
