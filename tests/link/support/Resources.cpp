#include "link/support/Resources.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

namespace link_tests {
namespace {

namespace fs = std::filesystem;

std::size_t entriesOf(const fs::path& directory) {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(directory), fs::directory_iterator()));
}

std::size_t residentMemory(const fs::path& process) {
    std::ifstream status(process / "status");
    std::string word;
    while (status >> word) {
        if (word == "VmRSS:") {
            std::size_t amount = 0;
            status >> amount;
            return amount;
        }
    }
    return 0;
}

// Fields 14 and 15 of proc_pid_stat(5); the second field, which may contain blanks, ends with the last ")".
double processorSeconds(const fs::path& process) {
    std::ifstream file(process / "stat");
    std::string text;
    std::getline(file, text);
    std::istringstream fields(text.substr(text.rfind(')') + 1));
    std::string skipped;
    for (int field = 3; field < 14; ++field) {
        fields >> skipped;
    }
    double user = 0;
    double system = 0;
    fields >> user >> system;
    return (user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

}  // namespace

Resources resourcesOf(pid_t process) {
    const fs::path directory = "/proc/" + std::to_string(process);
    return {residentMemory(directory), entriesOf(directory / "task"), entriesOf(directory / "fd"),
            processorSeconds(directory)};
}

std::ostream& operator<<(std::ostream& stream, const Resources& resources) {
    return stream << resources.memory << " KiB, " << resources.threads << " threads, "
                  << resources.descriptors << " descriptors, " << resources.processorSeconds
                  << " s of processor time";
}

}  // namespace link_tests
