#pragma once

#include <cstdint>
#include <string>

/// Decides when a log file is rotated, and rotates it.
///
/// A file destination drives it: `setFileName` and `setInitialInfo` once, when the file has been opened; then
/// for each line `includeMessageInCalculation` and `shouldRotate`, and if that says so, `rotate`,
/// `getPathName` and `setInitialInfo` with the path so obtained, all before the line is written. No
/// implementation here has a lock: one strategy serves one destination and is called by one thread at a time.
class IRotationStrategy {
public:
    virtual ~IRotationStrategy() = default;

    /// Takes over the state of the file at `path`, which has just been opened or rotated.
    virtual void setInitialInfo(const std::string& path) = 0;
    /// Counts a line that is about to be written, given without its line end.
    virtual void includeMessageInCalculation(const std::string& message) = 0;
    /// Whether the file is to be rotated before the line counted last is written. Changes nothing.
    virtual bool shouldRotate() = 0;
    /// Rotates the file in place: whoever has it open for appending carries on in the emptied file.
    virtual void rotate() = 0;
    /// Names the live file.
    virtual void setFileName(std::string name) = 0;
    /// The path to measure after a rotation.
    virtual std::string getPathName() = 0;
    /// How many backups are asked for; a strategy may still keep another number.
    virtual int getBackupCount() = 0;

protected:
    /// For subclasses that wish to be told apart; empty, and not used by those here.
    std::string m_name;
};

namespace Logging {

/// Never rotates; the file grows without limit.
class NullRotationStrategy : public IRotationStrategy {
public:
    /// Does nothing.
    void setInitialInfo(const std::string& path) override;
    /// Does nothing.
    void includeMessageInCalculation(const std::string& message) override;
    /// Always false.
    bool shouldRotate() override;
    /// Does nothing.
    void rotate() override;
    /// Keeps `name`, which nothing reads.
    void setFileName(std::string name) override;
    /// Always empty, also after `setFileName`: there is never a file to measure again.
    std::string getPathName() override;
    /// Always 0.
    int getBackupCount() override;

private:
    std::string m_fileName;
};

/// Rotates when the counted text exceeds a size, into numbered backups beside the live file: its path
/// directly followed by 1 (the newest), 2, 3 and so on.
///
/// Content moves by copying, line by line; no file is ever renamed or deleted, so handles on the live file
/// stay valid. One rotation reads and writes up to (backup count + 1) times the file's size.
class SizeRotationStrategy : public IRotationStrategy {
public:
    /// Starts the count at the size, in bytes, of the file at `path`. If it cannot be read the count becomes
    /// 2^64 - 1, and the next line wraps it around to that line's length minus one.
    void setInitialInfo(const std::string& path) override;
    /// Adds the length of `message` in bytes, modulo 2^64. The line end is not counted, so that the count
    /// trails the file's size by one byte for each line.
    void includeMessageInCalculation(const std::string& message) override;
    /// Whether the count is strictly greater than the maximum.
    bool shouldRotate() override;
    /// Shifts the backups that stand without a gap from 1 on up by one, discarding the last, moves the live
    /// file's lines to backup 1 and empties the live file. Backup 1 is kept even with a backup count below 1;
    /// files numbered above the backup count are not touched. A last line without a line feed gains one. The
    /// count stays as it is.
    ///
    /// Throws `std::ios_base::failure`, before any file was changed, if the first missing backup cannot be
    /// created. All other failures are silent: a file that cannot be read leaves an empty copy, one that
    /// cannot be written loses the lines, a live file that cannot be emptied keeps its content.
    void rotate() override;
    /// Names the live file; the backups' names follow from it.
    void setFileName(std::string name) override;
    /// The live file's path as given to `setFileName`.
    std::string getPathName() override;
    /// The backup count as stored, which may be negative.
    int getBackupCount() override;

    /// Sets the size, in bytes, above which the file is rotated; 0 at first. To be called before the strategy
    /// is in use.
    void setMaximumSizeInBytes(unsigned long long bytes);
    /// Sets how many backups are kept; 0 at first. Values above `getMaxBackupCount()` become that; values
    /// below 1 are stored as they are. To be called before the strategy is in use.
    void setBackupCount(int count);
    /// The most backups that can be kept: 10.
    static int getMaxBackupCount();

private:
    std::string backupName(int number) const;
    int prepareBackups() const;

    std::string m_fileName;
    std::uint64_t m_currentSize = 0;
    std::uint64_t m_maxSize = 0;
    std::int32_t m_backupCount = 0;

    static const int m_maxBackupCount;
};

}  // namespace Logging
