#include <sys/wait.h>

#include <csignal>
#include <functional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "LogTestSupport.h"
#include "logging/Log.h"
#include "unit/common/VtableSlot.h"

namespace {

using Logging::DestinationFactory;
using logtest::ConsoleBuffer;
using logtest::CoutRedirect;

static_assert(std::is_abstract_v<Logging::Destination> &&
              std::has_virtual_destructor_v<Logging::Destination>);

class Pipe {
public:
    Pipe() {
        if (pipe(m_ends) != 0) {
            throw std::runtime_error("no pipe");
        }
    }
    ~Pipe() {
        close(m_ends[0]);
        close(m_ends[1]);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    Pipe(Pipe&&) = delete;
    Pipe& operator=(Pipe&&) = delete;

    int writeEnd() const { return m_ends[1]; }
    std::string readToEnd() {
        close(std::exchange(m_ends[1], -1));
        std::string text;
        for (char byte = 0; read(m_ends[0], &byte, 1) == 1;) {
            text += byte;
        }
        return text;
    }

private:
    int m_ends[2] = {-1, -1};  // NOLINT(modernize-avoid-c-arrays): what pipe(2) takes.
};

// What a process that is killed after `action` has sent to its standard output.
std::string outputOfKilledProcess(const std::function<void()>& action) {
    // Or the child would send what this process has not sent yet.
    std::cout.flush();
    Pipe output;
    const pid_t child = fork();
    if (child == 0) {
        dup2(output.writeEnd(), STDOUT_FILENO);
        action();
        kill(getpid(), SIGKILL);
    }
    std::string text = output.readToEnd();
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    return text;
}

std::vector<std::string>& functionCalls() {
    static std::vector<std::string> calls;
    return calls;
}

void recordingFunction(const std::string& line) {
    functionCalls().push_back(line);
}

void throwingFunction(const std::string& /*line*/) {
    throw std::runtime_error("from the function");
}

TEST(Destination, WritesThroughTheFirstSlotBehindItsDestructors) {
    EXPECT_EQ(vtableSlot(&Logging::Destination::write), 2U);
}

TEST(FunctorDestination, CallsItsFunctionWithEveryLine) {
    functionCalls().clear();
    const auto destination = DestinationFactory::makeFunctorDestination(recordingFunction);
    destination->write("one");
    destination->write("");
    EXPECT_EQ(functionCalls(), (std::vector<std::string>{"one", ""})) << "lines carry no line end";
}

TEST(FunctorDestination, WithoutAFunctionTakesLinesAndDoesNothing) {
    ConsoleBuffer console;
    const CoutRedirect redirect(console);
    const auto destination = DestinationFactory::makeFunctorDestination(nullptr);
    EXPECT_NO_THROW(destination->write("line"));
    EXPECT_EQ(console.str(), "");
}

TEST(FunctorDestination, LetsAnExceptionOfItsFunctionPass) {
    const auto destination = DestinationFactory::makeFunctorDestination(throwingFunction);
    EXPECT_THROW(destination->write("line"), std::runtime_error);
}

TEST(FunctorDestination, CanBeMadeWithoutTheFactory) {
    functionCalls().clear();
    Logging::FunctorDestination(recordingFunction).write("line");
    EXPECT_EQ(functionCalls(), (std::vector<std::string>{"line"}));
}

TEST(DefaultLogFunction, WritesTheLineAndOneLineFeedWithoutFlushing) {
    ConsoleBuffer console;
    const CoutRedirect redirect(console);
    defaultLogFunction("one");
    defaultLogFunction("");
    EXPECT_EQ(console.str(), "one\n\n");
    EXPECT_EQ(console.flushes(), 0);
}

TEST(DebugOutput, FlushesAfterEveryLine) {
    ConsoleBuffer console;
    const CoutRedirect redirect(console);
    Logging::DebugOutput::output("one");
    EXPECT_EQ(console.str(), "one\n");
    EXPECT_EQ(console.flushes(), 1);
    Logging::DebugOutput::output("");
    EXPECT_EQ(console.str(), "one\n\n");
    EXPECT_EQ(console.flushes(), 2);
}

TEST(DebugOutputDestination, WritesThroughDebugOutput) {
    ConsoleBuffer console;
    const CoutRedirect redirect(console);
    DestinationFactory::makeDebugOutputDestination()->write("one");
    EXPECT_EQ(console.str(), "one\n");
    EXPECT_EQ(console.flushes(), 1);
}

TEST(DebugOutputDestination, LinesOutliveAProcessThatIsKilled) {
    EXPECT_EQ(outputOfKilledProcess([] { DestinationFactory::makeDebugOutputDestination()->write("line"); }),
              "line\n");
}

TEST(DefaultLogFunction, LinesAreLostWithAProcessThatIsKilled) {
    EXPECT_EQ(outputOfKilledProcess([] { defaultLogFunction("line"); }), "");
}

TEST(ConsoleDestinations, LoseTheirLinesSilentlyWhenStandardOutputFails) {
    class FailingBuffer : public std::streambuf {};
    FailingBuffer failing;
    const CoutRedirect redirect(failing);
    EXPECT_NO_THROW(defaultLogFunction("line"));
    EXPECT_NO_THROW(Logging::DebugOutput::output("line"));
    EXPECT_FALSE(std::cout.good());
    std::cout.clear();
}

TEST(DestinationFactory, MakesANewDestinationEachTime) {
    EXPECT_NE(DestinationFactory::makeDebugOutputDestination(),
              DestinationFactory::makeDebugOutputDestination());
    EXPECT_EQ(DestinationFactory::makeFunctorDestination(nullptr).use_count(), 1);
}

}  // namespace
