#include "doubles/World.h"

#include <cstdlib>
#include <sstream>

#include "runtime/Runtime.h"

namespace doubles {
namespace {

void read(const std::string& word, Readings& into) {
    if (word == "missingJobAtResume") {
        into.missingJobAtResume = true;
    } else if (word == "invalidationFollows") {
        into.invalidationFollows = true;
    } else if (word == "releaseReports") {
        into.releaseReports = true;
    } else if (word == "lossOvertakesCalls") {
        into.lossOvertakesCalls = true;
    } else if (word == "callsOnOwnQueue") {
        into.callsOnOwnQueue = true;
    } else if (word == "reachesAtResume") {
        into.reachesAtResume = true;
    } else {
        runtime::fail("VELM_DOUBLES_READINGS: unknown word " + word);
    }
}

Readings fromEnvironment() {
    Readings result;
    const char* const words = std::getenv("VELM_DOUBLES_READINGS");
    std::istringstream text(words == nullptr ? "" : words);
    for (std::string word; text >> word;) {
        read(word, result);
    }
    return result;
}

}  // namespace

Readings& readings() {
    static Readings all = fromEnvironment();
    return all;
}

std::string servicePath(const std::string& name, bool privileged) {
    const char* const directory = std::getenv("VELM_DOUBLES_DIRECTORY");
    if (directory == nullptr) {
        runtime::fail("VELM_DOUBLES_DIRECTORY is not set");
    }
    return std::string(directory) + (privileged ? "/system/" : "/user/") + name;
}

}  // namespace doubles
