#include "platform/linux/timezone/LinkChain.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <deque>
#include <sstream>

namespace platform {
namespace {

// As many as the kernel follows: path_resolution(7).
constexpr int mostLinks = 40;

std::deque<std::string> stepsOf(const std::string& path) {
    std::istringstream text(path);
    std::deque<std::string> steps;
    for (std::string step; std::getline(text, step, '/');) {
        if (!step.empty() && step != ".") {
            steps.push_back(step);
        }
    }
    return steps;
}

std::string linkTarget(const std::string& path) {
    std::array<char, PATH_MAX> target{};
    const ssize_t length = readlink(path.c_str(), target.data(), target.size());
    return length < 0 ? std::string() : std::string(target.data(), static_cast<std::size_t>(length));
}

// As text, so that it does not depend on what the target itself leads to.
std::string zoneNamedBy(const std::string& target) {
    const std::deque<std::string> steps = stepsOf(target);
    const auto behindDirectory = std::find(steps.rbegin(), steps.rend(), "zoneinfo").base();
    if (behindDirectory == steps.begin()) {
        return {};
    }
    std::string zone;
    for (auto step = behindDirectory; step != steps.end(); ++step) {
        zone += (zone.empty() ? "" : "/") + *step;
    }
    return zone;
}

/// Goes one step of a path after the other.
class Walk {
public:
    explicit Walk(const std::string& path) : m_ahead(stepsOf(path)) {}

    LinkChain follow() {
        bool onTheWay = true;
        while (onTheWay && !m_ahead.empty()) {
            const std::string step = m_ahead.front();
            m_ahead.pop_front();
            onTheWay = step == ".." ? goUp() : goTo(step);
        }
        if (onTheWay) {
            m_chain.file = m_here;
        }
        return m_chain;
    }

private:
    std::set<std::string>& namesHere() { return m_chain.directories[m_here.empty() ? "/" : m_here]; }

    bool goUp() {
        m_here.erase(m_here.empty() ? 0 : m_here.rfind('/'));
        return true;
    }

    bool goTo(const std::string& step) {
        std::set<std::string>& names = namesHere();
        const std::string path = m_here + '/' + step;
        struct stat status {};
        const bool there = lstat(path.c_str(), &status) == 0;
        if (there && S_ISDIR(status.st_mode)) {
            m_here = path;
            return true;
        }
        names.insert(step);
        if (there && S_ISLNK(status.st_mode)) {
            return goAlong(linkTarget(path));
        }
        m_here = path;
        return there && m_ahead.empty();
    }

    bool goAlong(const std::string& target) {
        if (target.empty() || ++m_links > mostLinks) {
            return false;
        }
        if (m_chain.zone.empty()) {
            m_chain.zone = zoneNamedBy(target);
        }
        if (target.front() == '/') {
            m_here.clear();
        }
        const std::deque<std::string> steps = stepsOf(target);
        m_ahead.insert(m_ahead.begin(), steps.begin(), steps.end());
        return true;
    }

    LinkChain m_chain;
    std::string m_here;
    std::deque<std::string> m_ahead;
    int m_links = 0;
};

}  // namespace

LinkChain followLinks(const std::string& path) {
    return Walk(path).follow();
}

}  // namespace platform
