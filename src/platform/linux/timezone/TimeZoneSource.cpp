#include "platform/linux/timezone/TimeZoneSource.h"

#include <cstdint>
#include <cstring>
#include <utility>

#include "platform/linux/process/OutHandle.h"

namespace platform {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// A change of the zone is several events, and a writer in place may take a moment.
constexpr milliseconds settlingTime{200};

// Never watch in a tight loop a directory that comes and goes.
constexpr milliseconds rewatchingDelay{1000};

constexpr std::uint32_t changes = IN_MOVED_TO | IN_CREATE | IN_CLOSE_WRITE | IN_DELETE;
constexpr std::uint32_t lossOfDirectory = IN_MOVE_SELF | IN_DELETE_SELF;

// tzset() takes the file for unchanged when inode and time of modification are the same in whole seconds. Had
// it read a file in the second of a write, it would miss a later write of that second for good. So a file is
// taken up only when no further write can have the time of its modification; zero or less if that is so.
milliseconds untilModificationIsPast(std::time_t modified) {
    // File times come from a clock that lags by up to a tick.
    constexpr milliseconds lag{20};
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const milliseconds sinceItsSecondBegan =
        seconds(now.tv_sec - modified) + milliseconds(now.tv_nsec / 1000000);
    // A time in the future says nothing about when the writing will be over.
    const bool inTheFuture = sinceItsSecondBegan < milliseconds(0);
    return inTheFuture ? milliseconds(0) : seconds(1) + lag - sinceItsSecondBegan;
}

}  // namespace

TimeZoneSource::TimeZoneSource(sd_event* loop, std::string directory, std::function<void()> report)
    : m_loop(loop),
      m_directory(std::move(directory)),
      m_report(std::move(report)),
      m_retry(rewatchingDelay, seconds(60)),
      m_settled(loop, [this] { look(); }),
      m_watchAgain(loop, [this] { watchAgain(); }),
      m_state(TimeZoneFile()) {
    watchAgain();
    // Read after the watch stands, so that no change falls between.
    m_settled.stop();
    m_state.take(readTimeZoneFile(m_directory));
}

bool TimeZoneSource::watch() {
    m_watch.reset();
    return sd_event_add_inotify(m_loop, OutHandle(m_watch), m_directory.c_str(),
                                changes | lossOfDirectory | IN_ONLYDIR, &TimeZoneSource::directoryChanged,
                                this) >= 0;
}

void TimeZoneSource::watchAgain() {
    if (watch()) {
        m_retry.reset();
        m_settled.start(settlingTime);
    } else {
        m_watchAgain.start(m_retry.next());
    }
}

void TimeZoneSource::happened(const inotify_event& event) {
    if ((event.mask & (IN_IGNORED | lossOfDirectory)) != 0) {
        // Another directory may come in the place of this one.
        m_watchAgain.start(rewatchingDelay);
    } else if ((event.mask & IN_Q_OVERFLOW) != 0 ||
               (event.len > 0 && std::strcmp(event.name, "localtime") == 0)) {
        m_settled.start(settlingTime);
    }
}

void TimeZoneSource::look() {
    TimeZoneFile file = readTimeZoneFile(m_directory);
    if (!m_state.differs(file)) {
        m_state.take(std::move(file));
        return;
    }
    const milliseconds wait = untilModificationIsPast(file.modified);
    if (wait > milliseconds(0)) {
        m_settled.start(wait);
        return;
    }
    m_state.take(std::move(file));
    m_report();
}

int TimeZoneSource::directoryChanged(sd_event_source* /*source*/, const inotify_event* event,
                                     void* self) noexcept {
    static_cast<TimeZoneSource*>(self)->happened(*event);
    return 0;
}

}  // namespace platform
