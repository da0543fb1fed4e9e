#include "logging/RotationStrategy.h"

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <ios>
#include <memory>
#include <utility>
#include <vector>

namespace Logging {

namespace {

constexpr std::size_t bufferSize = std::size_t{128} * 1024;

bool canBeRead(const std::string& path) {
    std::ifstream file(path);
    file.close();
    return file.good();
}

void createEmpty(const std::string& path) {
    std::ofstream file;
    file.exceptions(std::ios_base::failbit);
    file.open(path, std::ios_base::out | std::ios_base::app);
    file.close();
}

// Copies and empties rather than renames: the destination has the live file open and carries on in it. No
// failure is looked at; the log must not stop for a backup.
void moveLines(const std::string& from, const std::string& to) {
    // Every log statement of the process waits for a rotation. The streams' own buffers of a few kilobytes
    // would make it a thousand and more system calls for each file.
    std::vector<char> sourceBuffer(bufferSize);
    std::vector<char> targetBuffer(bufferSize);
    std::ifstream source;
    std::ofstream target;
    // A file stream takes a buffer only before it opens its file.
    source.rdbuf()->pubsetbuf(sourceBuffer.data(), bufferSize);
    target.rdbuf()->pubsetbuf(targetBuffer.data(), bufferSize);
    source.open(from);
    target.open(to);
    // By lines, so that a last line without its line feed is whole in the backup.
    for (std::string line; std::getline(source, line);) {
        line += '\n';
        target.write(line.data(), static_cast<std::streamsize>(line.size()));
    }
    std::ofstream(from).close();
}

}  // namespace

void NullRotationStrategy::setInitialInfo(const std::string& /*path*/) {}
void NullRotationStrategy::includeMessageInCalculation(const std::string& /*message*/) {}
bool NullRotationStrategy::shouldRotate() {
    return false;
}
void NullRotationStrategy::rotate() {}
void NullRotationStrategy::setFileName(std::string name) {
    m_fileName = std::move(name);
}
std::string NullRotationStrategy::getPathName() {
    // Not the stored name: what never rotates is never measured again.
    return {};
}
int NullRotationStrategy::getBackupCount() {
    return 0;
}

const int SizeRotationStrategy::m_maxBackupCount = 10;

void SizeRotationStrategy::setInitialInfo(const std::string& path) {
    std::ifstream file(path);
    file.seekg(0, std::ios_base::end);
    // An unreadable file reports -1, which the count takes over as it is.
    m_currentSize = static_cast<std::uint64_t>(std::streamoff{file.tellg()});
}

void SizeRotationStrategy::includeMessageInCalculation(const std::string& message) {
    m_currentSize += message.size();
}

bool SizeRotationStrategy::shouldRotate() {
    return m_currentSize > m_maxSize;
}

void SizeRotationStrategy::rotate() {
    // From the oldest on, so that each copy goes over what has already been copied or is to be discarded.
    for (int number = prepareBackups(); number >= 1; --number) {
        moveLines(backupName(number), backupName(number + 1));
    }
    // Whatever the backup count: emptying the live file must not throw its lines away.
    moveLines(m_fileName, backupName(1));
}

void SizeRotationStrategy::setFileName(std::string name) {
    m_fileName = std::move(name);
}

std::string SizeRotationStrategy::getPathName() {
    return m_fileName;
}

int SizeRotationStrategy::getBackupCount() {
    return m_backupCount;
}

void SizeRotationStrategy::setMaximumSizeInBytes(unsigned long long bytes) {
    m_maxSize = bytes;
}

void SizeRotationStrategy::setBackupCount(int count) {
    m_backupCount = std::min(count, m_maxBackupCount);
}

int SizeRotationStrategy::getMaxBackupCount() {
    return m_maxBackupCount;
}

std::string SizeRotationStrategy::backupName(int number) const {
    return m_fileName + std::to_string(number);
}

// Creates the first missing backup, so that an unwritable directory shows before any file is changed, and
// returns how many backups are to be shifted.
int SizeRotationStrategy::prepareBackups() const {
    int toShift = 0;
    for (int number = 1; number <= m_backupCount; ++number) {
        if (!canBeRead(backupName(number))) {
            createEmpty(backupName(number));
            break;
        }
        toShift = std::min(number, m_backupCount - 1);
    }
    return toShift;
}

}  // namespace Logging
