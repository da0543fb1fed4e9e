#include <fuzzer/FuzzedDataProvider.h>

#include <filesystem>
#include <ios>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Must.h"
#include "logging/FileDestination.h"
#include "unit/logging/ScratchDirectory.h"

// The log file and its backups, while lines are written and others meddle with the files, beside a directory
// of the mind that follows the same rules.

namespace {

constexpr const char* liveName = "agent.log";
constexpr int mostBackups = 10;

/// A name in the directory. What is not there has no entry.
struct Entry {
    enum class Kind { File, Directory, Dangling };
    Kind kind = Kind::File;
    std::string text;
};

/// The directory as it must be.
class Model {
public:
    Model(unsigned long long limit, int backups)
        : m_limit(limit), m_backups(std::min(backups, mostBackups)) {}

    std::map<int, Entry> entries;  ///< by number; 0 is the live file

    void open() {
        entries.try_emplace(0);
        m_counted = entries[0].text.size();
    }

    /// Whether the line is written: not if a backup cannot be made.
    bool write(const std::string& line) {
        m_counted += line.size();
        if (m_counted > m_limit) {
            const std::optional<int> gap = firstGap();
            if (gap && entries.count(*gap) != 0) {
                return false;
            }
            rotate(gap);
            m_counted = entries[0].text.size();
        }
        if (m_attached) {
            entries[0].text += line + "\n";
        }
        return true;
    }

    /// The live file is taken away: what holds it open writes to it unseen, from now on.
    void removeLive() {
        entries.erase(0);
        m_attached = false;
    }

private:
    bool readable(int number) const {
        const auto found = entries.find(number);
        return found != entries.end() && found->second.kind != Entry::Kind::Dangling;
    }

    /// The first backup that is not there, among those that are kept.
    std::optional<int> firstGap() const {
        for (int number = 1; number <= m_backups; ++number) {
            if (!readable(number)) {
                return number;
            }
        }
        return std::nullopt;
    }

    void rotate(std::optional<int> gap) {
        for (int number = gap.value_or(m_backups); number > 1; --number) {
            move(number - 1, number);
        }
        move(0, 1);
    }

    void move(int from, int to) {
        std::string text;
        if (readable(from) && entries[from].kind == Entry::Kind::File) {
            text = entries[from].text;
            if (!text.empty() && text.back() != '\n') {
                text += '\n';
            }
            entries[from].text.clear();
        } else if (from == 0) {
            entries[0] = {};
        }
        const auto target = entries.try_emplace(to).first;
        if (target->second.kind == Entry::Kind::File) {
            target->second.text = text;
        }
    }

    unsigned long long m_limit;
    int m_backups;
    unsigned long long m_counted = 0;
    bool m_attached = true;
};

/// The same in the file system.
class Directory {
public:
    std::string path(int number) const {
        return m_scratch.path(number == 0 ? liveName : liveName + std::to_string(number));
    }

    void clear() const {
        for (const auto& entry : std::filesystem::directory_iterator(m_scratch.path(""))) {
            std::filesystem::remove_all(entry.path());
        }
    }

    void make(int number, const Entry& entry) const {
        std::filesystem::remove_all(path(number));
        if (entry.kind == Entry::Kind::File) {
            logtest::writeFile(path(number), entry.text);
        } else if (entry.kind == Entry::Kind::Directory) {
            std::filesystem::create_directory(path(number));
        } else {
            std::filesystem::create_symlink(m_scratch.path("missing/target"), path(number));
        }
    }

    void mustBe(const std::map<int, Entry>& entries) const {
        std::size_t found = 0;
        for (const auto& unused : std::filesystem::directory_iterator(m_scratch.path(""))) {
            static_cast<void>(unused);
            ++found;
        }
        must(found == entries.size(), "no file is missing, and none is too many");
        for (const auto& [number, entry] : entries) {
            const auto status = std::filesystem::symlink_status(path(number));
            must(std::filesystem::is_regular_file(status) == (entry.kind == Entry::Kind::File),
                 "a file stays one");
            must(entry.kind != Entry::Kind::File || logtest::readFile(path(number)) == entry.text,
                 "a file has the lines that it must have");
        }
    }

private:
    logtest::ScratchDirectory m_scratch;
};

Entry anyEntry(FuzzedDataProvider& input) {
    const auto kind = input.PickValueInArray(
        {Entry::Kind::File, Entry::Kind::File, Entry::Kind::Directory, Entry::Kind::Dangling});
    return {kind, kind == Entry::Kind::File ? input.ConsumeRandomLengthString(40) : std::string()};
}

bool written(Logging::FileDestination& destination, const std::string& line) {
    try {
        destination.write(line);
        return true;
    } catch (const std::ios_base::failure&) {
        return false;
    }
}

void meddle(FuzzedDataProvider& input, const Directory& directory, Model& model) {
    const int number = input.ConsumeIntegralInRange(0, mostBackups + 2);
    if (number != 0) {
        model.entries[number] = anyEntry(input);
        directory.make(number, model.entries[number]);
    } else if (model.entries.count(0) == 0) {
        return;
    } else if (input.ConsumeBool()) {
        std::filesystem::resize_file(directory.path(0), 0);
        model.entries[0].text.clear();
    } else {
        std::filesystem::remove(directory.path(0));
        model.removeLive();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Directory directory;
    directory.clear();
    FuzzedDataProvider input(data, size);
    const auto limit = input.ConsumeIntegralInRange<unsigned long long>(0, 120);
    const int backups = input.ConsumeIntegralInRange(-2, mostBackups + 2);
    Model model(limit, backups);
    for (int number = 0; number <= mostBackups + 2; ++number) {
        if (input.ConsumeBool()) {
            model.entries[number] =
                number == 0 ? Entry{Entry::Kind::File, input.ConsumeRandomLengthString(60)} : anyEntry(input);
            directory.make(number, model.entries[number]);
        }
    }
    model.open();
    auto strategy = std::make_shared<Logging::SizeRotationStrategy>();
    strategy->setMaximumSizeInBytes(limit);
    strategy->setBackupCount(backups);
    Logging::FileDestination destination(directory.path(0), strategy, true);
    while (input.remaining_bytes() > 0) {
        if (input.ConsumeIntegralInRange(0, 7) == 0) {
            meddle(input, directory, model);
        } else {
            const std::string line = input.ConsumeRandomLengthString(50);
            must(written(destination, line) == model.write(line),
                 "a line is kept back where a backup cannot be made");
        }
    }
    directory.mustBe(model.entries);
    return 0;
}
