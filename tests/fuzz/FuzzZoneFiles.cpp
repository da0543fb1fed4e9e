#include <fuzzer/FuzzedDataProvider.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "Must.h"
#include "platform/linux/timezone/LinkChain.h"
#include "platform/linux/timezone/TimeZone.h"
#include "unit/logging/ScratchDirectory.h"

// The way to the zone's file through links of every shape. The kernel says where the way leads; and what is
// watched must be enough: no change of anything else may make the way another.

namespace {

using platform::LinkChain;
using platform::TimeZone;

class Tree {
public:
    void clear() const {
        for (const auto& entry : std::filesystem::directory_iterator(m_scratch.path(""))) {
            std::filesystem::remove_all(entry.path());
        }
    }

    std::string root() const { return std::filesystem::canonical(m_scratch.path("")).string(); }

    // A path of one to four steps; the last one is a name.
    static std::string anyPath(FuzzedDataProvider& input) {
        std::string path;
        for (int more = input.ConsumeIntegralInRange(0, 3); more > 0; --more) {
            path +=
                std::string(input.PickValueInArray({"etc", "usr", "zoneinfo", "Europe", "..", "."})) + "/";
        }
        return path + input.PickValueInArray({"etc", "usr", "zoneinfo", "Europe", "Berlin", "localtime"});
    }

    // Makes or removes one thing, at a path that may lead through links.
    void change(FuzzedDataProvider& input) const {
        const std::string path = root() + "/" + anyPath(input);
        switch (input.ConsumeIntegralInRange(0, 6)) {
            case 0:
            case 1:
                mkdir(path.c_str(), 0755);
                break;
            case 2:
            case 3:
                link(input, path);
                break;
            case 4:
                write(path, input.ConsumeRandomLengthString(20));
                break;
            case 5:
                mkfifo(path.c_str(), 0644);
                break;
            default:
                unlink(path.c_str());
        }
    }

    // Makes or removes a link, but no directory. Returns where: the path of its directory, without links, and
    // its name; the first is empty where nothing was done.
    std::pair<std::string, std::string> changeLink(FuzzedDataProvider& input) const {
        const std::filesystem::path path = root() + "/" + anyPath(input);
        std::error_code error;
        const std::string directory = std::filesystem::canonical(path.parent_path(), error).string();
        const bool done =
            !error && (input.ConsumeBool() ? unlink(path.c_str()) == 0 : link(input, path.string()));
        return {done ? directory : std::string(), path.filename().string()};
    }

private:
    bool link(FuzzedDataProvider& input, const std::string& path) const {
        const std::string target = (input.ConsumeBool() ? root() + "/" : std::string()) + anyPath(input);
        return symlink(target.c_str(), path.c_str()) == 0;
    }

    static void write(const std::string& path, const std::string& text) {
        struct stat status {};
        // Not into a pipe, where it would wait for a reader.
        if (stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode)) {
            std::ofstream(path) << text;
        }
    }

    logtest::ScratchDirectory m_scratch;
};

std::string realPath(const std::string& path) {
    char* const real = realpath(path.c_str(), nullptr);
    const std::string text = real != nullptr ? real : "";
    std::free(real);
    return text;
}

void checkChain(const std::string& path, const LinkChain& chain) {
    must(chain.file == realPath(path), "the way leads where the kernel says");
    for (const auto& [directory, names] : chain.directories) {
        must(realPath(directory) == directory && std::filesystem::is_directory(directory),
             "what is watched is a directory, by its path without links");
        must(std::none_of(
                 names.begin(), names.end(),
                 [](const std::string& name) { return name.empty() || name.find('/') != std::string::npos; }),
             "names are names");
    }
    must(chain.zone.find("zoneinfo") == std::string::npos || chain.zone.rfind("zoneinfo", 0) != 0,
         "a zone's name does not begin with the directory's");
}

void checkZone(const std::string& path, const TimeZone& zone) {
    struct stat status {};
    const bool regular = stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
    must(zone.rules.has_value() == regular, "a regular file has rules, and nothing else");
    must(!regular || *zone.rules == logtest::readFile(path), "the rules are the file's text");
    must(platform::isSameZone(zone, zone), "a zone is itself");
    const TimeZone renamed{zone.name.empty() ? "" : zone.name + "x", zone.rules};
    must(platform::isSameZone(zone, renamed) == zone.name.empty(), "the name decides where there is one");
}

bool sameWay(const LinkChain& one, const LinkChain& other) {
    return one.file == other.file && one.zone == other.zone;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Tree tree;
    tree.clear();
    FuzzedDataProvider input(data, size);
    const std::string path = tree.root() + "/" + Tree::anyPath(input);
    for (int changes = 0; changes < 24 && input.remaining_bytes() > 8; ++changes) {
        tree.change(input);
    }
    const LinkChain before = platform::followLinks(path);
    checkChain(path, before);
    checkZone(path, platform::readTimeZone(path));

    const auto [directory, name] = tree.changeLink(input);
    const LinkChain after = platform::followLinks(path);
    checkChain(path, after);
    const auto watched = before.directories.find(directory);
    must(sameWay(before, after) || (watched != before.directories.end() && watched->second.count(name) != 0),
         "what makes the way another is watched");
    return 0;
}
