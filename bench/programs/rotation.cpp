// One rotation of a full log with three full backups. Usage: bench_rotation FILE
// Prints what it took; fails unless every backup then holds what the file before it held.

#include <cstdio>
#include <fstream>
#include <string>

#include "logging/RotationStrategy.h"
#include "support/Report.h"

namespace {

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios_base::binary | std::ios_base::ate);
    std::string content(file ? static_cast<std::size_t>(file.tellg()) : 0, '\0');
    file.seekg(0);
    file.read(content.data(), static_cast<std::streamsize>(content.size()));
    return content;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: bench_rotation FILE\n", stderr);
        return 2;
    }
    const std::string path = argv[1];
    const std::string live = contentOf(path);
    const std::string first = contentOf(path + "1");
    const std::string second = contentOf(path + "2");
    if (live.size() < 6000000) {
        std::fputs("bench_rotation: the log is not full\n", stderr);
        return 1;
    }

    Logging::SizeRotationStrategy strategy;
    strategy.setFileName(path);
    strategy.setBackupCount(3);
    const double processorBefore = bench::processorTime();
    const auto start = bench::Clock::now();
    strategy.rotate();
    const double total = bench::microseconds(bench::Clock::now() - start);
    const double processor = bench::processorTime() - processorBefore;

    if (contentOf(path + "1") != live || contentOf(path + "2") != first || contentOf(path + "3") != second ||
        !contentOf(path).empty()) {
        std::fputs("bench_rotation: the rotation did not move the files\n", stderr);
        return 1;
    }
    bench::Report report;
    report.add("total", total / 1000);
    report.add("processor", processor / 1000);
    report.print();
    return 0;
}
