#pragma once

#include <fstream>
#include <memory>
#include <string>

#include "Log.h"
#include "RotationStrategy.h"

namespace Logging {

/// Appends every line to one file, which its rotation strategy may rotate first.
///
/// The file stays open for the destination's whole life; a rotation empties it through other handles, and
/// appending carries on at the new end. Every line has reached the operating system when `write` returns. Not
/// to be used by two threads at once; the logger sees to that.
class FileDestination : public Destination {
public:
    /// Opens the file at `path`, creating it if it is missing and never truncating it, then tells `strategy`,
    /// which must not be null, the file's name and has it measured. The last argument has no effect.
    ///
    /// Throws `std::ios_base::failure` if the file cannot be opened; the strategy has not been called then.
    FileDestination(const std::string& path, std::shared_ptr<IRotationStrategy> strategy, bool);
    /// Closes the file, ignoring errors, then lets go of the strategy.
    ~FileDestination() override;
    FileDestination(const FileDestination&) = delete;
    FileDestination& operator=(const FileDestination&) = delete;
    /// Takes over the open file and the strategy; the other destination may then only be destroyed.
    FileDestination(FileDestination&&) = default;
    FileDestination& operator=(FileDestination&&) = delete;

    /// Counts `line`, rotates if the strategy says so, and writes `line` and a line feed. The line that takes
    /// the file over its limit therefore is the first of the emptied file, and not counted there.
    ///
    /// A failure to write (a full disk, say) is not reported, and from then on nothing more is written, while
    /// the strategy still sees every line. What the strategy throws passes through, with the line not
    /// written.
    void write(const std::string& line) override;

private:
    std::shared_ptr<IRotationStrategy> m_rotationStrategy;
    std::ofstream m_fileStream;
};

}  // namespace Logging
