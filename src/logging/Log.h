#pragma once

#include <cstdint>
#include <memory>
#include <sstream>
#include <string>

/// The current local time as a log line shows it: `2026/11/16 05:28:20:007`, with a colon before the
/// milliseconds; 23 characters while the C++ global locale is the classic one. Any thread. The local zone is
/// the one that the C library knows; POSIX leaves it open whether `localtime_r` looks for a new one, so a
/// process that wants to follow a change calls `tzset()`.
std::string now_date_time();

/// Writes `line` and one line feed to `std::cout` without flushing it, so that console output costs no system
/// call for each line; a process that is killed loses what is still buffered. Errors of the stream are not
/// looked at. Takes no lock: two threads that call it directly may mix their lines, the logger never does.
void defaultLogFunction(const std::string& line);

namespace Logging {

class LoggerImpl;
class SizeRotationStrategy;

/// How verbose a message is. The scale runs against the usual severity order: a higher number is a more
/// verbose, less severe message, and a logger's level is the highest message level that still gets written.
enum Level : std::int32_t {
    /// As a logger's level: write nothing. As a message's level: a line with an empty tag.
    None = 0,
    Fatal = 1,  ///< Tagged "[FATAL]".
    Error = 2,  ///< Tagged "[ERROR]".
    Warn = 3,   ///< Tagged "[WARN] ", padded so that messages of all levels start in the same column.
    Info = 4,   ///< Tagged "[INFO] ", padded likewise. Numbers outside this scale are tagged so too.
    Debug = 5,  ///< Tagged "[DEBUG]".
    Trace = 6   ///< Tagged "[TRACE]". A new logger's level: everything is written.
};

/// A sink for finished log lines.
///
/// The logger calls `write` with its mutex held, on a thread that lives for that one line. So a destination
/// added to one logger sees one line at a time and needs no lock for its own state, and it must not log
/// through the logger from inside `write`: that would wait for the mutex that its own caller holds.
class Destination {
public:
    virtual ~Destination() = default;

    /// Takes one line, which carries no line end; the destination adds its own. An exception keeps this line
    /// from the destinations that come later in the logger's list; the logger discards it and the next line
    /// starts afresh.
    virtual void write(const std::string& line) = 0;
};

/// Unbuffered console output.
class DebugOutput {
public:
    /// Writes `line` and a line feed to `std::cout` and flushes it. Errors of the stream are not looked at;
    /// takes no lock.
    static void output(const std::string& line);
};

/// Writes every line to standard output and flushes it.
class DebugOutputDestination : public Destination {
public:
    /// Passes `line` to `DebugOutput::output`.
    void write(const std::string& line) override;
};

/// Passes every line to a plain function.
class FunctorDestination : public Destination {
public:
    /// `function` is called for every line and may be null, which drops the lines quietly.
    explicit FunctorDestination(void (*function)(const std::string&));

    /// Calls the function, if there is one, with `line`; what the function throws passes through.
    void write(const std::string& line) override;

private:
    void (*m_function)(const std::string&);
};

/// Whether a file destination rotates its file. Any value but `SizeRotation` stands for `NoRotation`.
enum LogRotationOption : std::int32_t {
    NoRotation = 0,   ///< The file grows without limit.
    SizeRotation = 1  ///< The file is rotated when its counted text exceeds a size.
};

/// The size, in bytes of counted text, above which a log file is rotated. A type of its own, so that it is
/// not mistaken for a count.
struct MaxSizeBytes {
    /// Explicit, so that no plain number passes for a size.
    explicit MaxSizeBytes(std::uint64_t bytes) : value(bytes) {}

    std::uint64_t value;  ///< In bytes.
};

/// How many rotated old files are kept.
struct MaxOldLogCount {
    /// Explicit, so that no plain number passes for a count.
    explicit MaxOldLogCount(std::int32_t count) : value(count) {}

    std::int32_t value;  ///< `SizeRotationStrategy::setBackupCount` says which counts are honoured.
};

/// Makes destinations. Has no state; any thread.
class DestinationFactory {
public:
    /// A new destination that flushes standard output after every line.
    static std::shared_ptr<Destination> makeDebugOutputDestination();

    /// A new destination that passes every line to `function`, which may be null.
    static std::shared_ptr<Destination> makeFunctorDestination(void (*function)(const std::string&));

    /// A new destination that appends to the file at `path`.
    ///
    /// With `SizeRotation`, `strategy` must not be null: it is given `maxSize` and `maxOldCount` and then
    /// shared with the destination, so it belongs to one destination only. With any other option the file is
    /// never rotated, and `maxSize`, `maxOldCount` and `strategy` are left alone.
    ///
    /// Throws `std::ios_base::failure` if the file can be neither opened nor created for appending; the
    /// strategy has been configured by then, but its handle is not kept.
    static std::shared_ptr<Destination> makeFileDestination(const std::string& path, LogRotationOption option,
                                                            const MaxSizeBytes& maxSize,
                                                            const MaxOldLogCount& maxOldCount,
                                                            std::shared_ptr<SizeRotationStrategy> strategy);
};

/// The process's log.
///
/// Set-up (`initAsDefault`, `addDestination`, the setters, the first `instance()`) takes no lock and must be
/// over before a second thread logs. From then on any thread may log: ask `isLogged()`, which compares the
/// message's level with `loggingLevel()`, and if it is, write the message into a `Helper`:
///
///     if (Logging::isLogged(Logging::Trace)) {
///         Logging::Logger::Helper helper(Logging::Trace);
///         helper.stream_std() << "Monitor launcher is running";
///     }
///
/// Every line is written by a thread started for it alone, to all destinations in the order in which they
/// were added, under one mutex; the thread that logs waits until that is done. So lines never mix, lines of
/// one thread keep their order, and nothing is pending once a statement is over. Lines of different threads
/// may stand in another order than their time stamps, which are taken before the wait for the mutex.
class Logger {
public:
    class Helper;

    /// A logger without destinations, at level `Trace`, with time stamps and tags on. Programs use
    /// `instance()`, the only logger that a `Helper` writes to.
    Logger();
    /// Lets go of the destinations. No thread may be logging.
    ~Logger();
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;
    Logger(Logger&&) = delete;
    Logger& operator=(Logger&&) = delete;

    /// The process's logger, made by the first call, which must be over before a second thread calls. It
    /// lives until `destroyInstance()` or normal process exit.
    static Logger& instance();

    /// Destroys the process's logger and with it its destinations; no thread may be logging. A later
    /// `instance()` makes a new one, which drops every line until destinations are added.
    static void destroyInstance();

    /// Installs standard output (through `defaultLogFunction`) and, unless `path` is empty, the file at
    /// `path`, which is rotated above 6000000 bytes into three backups. Meant for the process's logger. Once
    /// it has succeeded, further calls do nothing.
    ///
    /// Throws `std::ios_base::failure` if the file can be neither opened nor created. Standard output is
    /// installed by then and stays, and the logger does not count as initialised: another call would install
    /// it twice.
    void initAsDefault(const std::string& path);

    /// Adds a destination, which must not be null, behind those already there, and keeps it for the logger's
    /// life.
    void addDestination(std::shared_ptr<Destination> destination);

    /// Sets the highest message level that call sites should still write. The logger itself filters nothing.
    void setLoggingLevel(Level level);
    /// The level to compare a message's level with before a `Helper` is made.
    Level loggingLevel() const;

    /// Whether lines start with the time and a space; true at first.
    void setIncludeTimestamp(bool include);
    /// See `setIncludeTimestamp`.
    bool includeTimestamp() const;

    /// Whether lines carry the level's tag and a space; true at first.
    void setIncludeLogLevel(bool include);
    /// See `setIncludeLogLevel`.
    bool includeLogLevel() const;

private:
    void enqueueWrite(std::string& line);
    void write(const std::string& line);

    std::unique_ptr<LoggerImpl> m_impl;
    bool m_initialized = false;
    std::shared_ptr<SizeRotationStrategy> m_sizeRotationStrategy;
    std::int32_t m_maxSizeBytes = 6000000;
    std::int32_t m_maxOldLogCount = 3;

    static std::unique_ptr<Logger> m_instance;
};

/// Whether a message of this level is to be written: what a call site asks before it makes a `Helper`. Any
/// thread.
inline bool isLogged(Level level) {
    return Logger::instance().loggingLevel() >= level;
}

/// Builds one log line and writes it when it goes out of scope, whatever the logger's level: filtering is the
/// call site's affair. Lives on the stack of one statement and belongs to its thread.
class Logger::Helper {
public:
    /// Starts a message at `level`. Only the tag depends on it; numbers outside the scale are tagged as
    /// `Info`.
    explicit Helper(Level level);
    /// Takes the time, builds the line and returns when every destination has been given it. Anything thrown
    /// here (no thread to be had, no memory) ends the process; what a destination throws is discarded.
    ~Helper();
    Helper(const Helper&) = delete;
    Helper& operator=(const Helper&) = delete;
    Helper(Helper&&) = delete;
    Helper& operator=(Helper&&) = delete;

    /// The stream to write the message into; no line end is wanted, and embedded ones are kept.
    std::stringstream& stream_std() { return m_stream; }

private:
    void writeToLog();

    Level m_level;
    std::string m_message;
    std::stringstream m_stream;
};

}  // namespace Logging
