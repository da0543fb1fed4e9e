#include "platform/linux/timezone/TimeZoneSource.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace platform {
namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::seconds;

// A change of the zone is several events, and a writer in place may take a moment.
constexpr milliseconds settlingTime{200};
constexpr milliseconds longestSettling{2000};

// What inotify_init1(2) and inotify_add_watch(2) fail with at the limits of inotify(7), and open(2) at those
// of the process.
bool isWant(int error) {
    return error == -ENOSPC || error == -EMFILE || error == -ENFILE || error == -ENOMEM;
}

}  // namespace

TimeZoneSource::TimeZoneSource(sd_event* loop, std::string path, Handlers handlers)
    : m_path(std::move(path)),
      m_handlers(std::move(handlers)),
      m_retry(seconds(1), seconds(60)),
      m_settled(loop, [this] { look(); }),
      m_again(loop, [this] { look(); }),
      m_links(loop, [this] { lookSoon(); }),
      m_mounts(loop, [this] { lookSoon(); }) {
    look();
}

void TimeZoneSource::lookSoon() {
    const auto now = Clock::now();
    m_unsettledSince = m_unsettledSince.value_or(now);
    const auto left = duration_cast<milliseconds>(*m_unsettledSince + longestSettling - now);
    m_settled.start(std::clamp(left, milliseconds(0), settlingTime));
}

void TimeZoneSource::look() {
    m_unsettledSince.reset();
    m_settled.stop();
    m_again.stop();
    // Read after the watch stands, so that no change falls between.
    const bool watched = watch();
    const bool taken = take();
    if (watched && taken) {
        m_retry.reset();
    } else {
        m_again.start(m_retry.next());
    }
}

bool TimeZoneSource::watch() {
    const LinkChain chain = followLinks(m_path);
    const int error = m_links.watch(chain);
    if (isWant(error) && !std::exchange(m_unwatchedTold, true)) {
        m_handlers.unwatched();
    }
    if (error == 0 && followLinks(m_path).directories != chain.directories) {
        // It changed before the watch stood.
        lookSoon();
    }
    return error == 0;
}

bool TimeZoneSource::take() {
    TimeZone zone = readTimeZone(m_path);
    const bool sameRules = m_last && m_last->rules == zone.rules;
    if (!sameRules && !m_handlers.follow(zone.rules)) {
        return false;
    }
    const bool isChange = m_last && !isSameZone(*m_last, zone);
    m_last = std::move(zone);
    if (isChange) {
        m_handlers.changed();
    }
    return true;
}

}  // namespace platform
