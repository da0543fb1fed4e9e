#pragma once

#include <gtest/gtest.h>

#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "ScratchDirectory.h"
#include "logging/Log.h"

namespace logtest {

/// Keeps every line.
class RecordingDestination : public Logging::Destination {
public:
    void write(const std::string& line) override {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back(line);
    }
    std::vector<std::string> lines() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

/// What a std::cout in its place has been given, and how often it was flushed.
class ConsoleBuffer : public std::stringbuf {
public:
    int flushes() const { return m_flushes; }

protected:
    int sync() override {
        ++m_flushes;
        return 0;
    }

private:
    int m_flushes = 0;
};

/// Lets std::cout write into another buffer for a while.
class CoutRedirect {
public:
    explicit CoutRedirect(std::streambuf& buffer) : m_previous(std::cout.rdbuf(&buffer)) {}
    ~CoutRedirect() { std::cout.rdbuf(m_previous); }
    CoutRedirect(const CoutRedirect&) = delete;
    CoutRedirect& operator=(const CoutRedirect&) = delete;
    CoutRedirect(CoutRedirect&&) = delete;
    CoutRedirect& operator=(CoutRedirect&&) = delete;

private:
    std::streambuf* m_previous;
};

/// Each test starts and ends without a logger.
class LoggerFixture : public ::testing::Test {
protected:
    void SetUp() override { Logging::Logger::destroyInstance(); }
    void TearDown() override { Logging::Logger::destroyInstance(); }

    static std::shared_ptr<RecordingDestination> addRecorder() {
        auto recorder = std::make_shared<RecordingDestination>();
        Logging::Logger::instance().addDestination(recorder);
        return recorder;
    }

    static void showMessageOnly() {
        Logging::Logger::instance().setIncludeTimestamp(false);
        Logging::Logger::instance().setIncludeLogLevel(false);
    }

    static void log(const std::string& message, Logging::Level level = Logging::Trace) {
        Logging::Logger::Helper helper(level);
        helper.stream_std() << message;
    }
};

}  // namespace logtest
