#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <future>

#include "World.h"
#include "platform/AutoreleasePool.h"
#include "platform/HomeDirectory.h"
#include "platform/OperationQueue.h"
#include "platform/Process.h"
#include "platform/RunLoop.h"
#include "platform/SystemLog.h"

// The adapters over the doubles: values in both directions, and the small ones.

namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

class AdapterTest : public WorldTest {};

TEST_F(AdapterTest, ReachesTheSystemsServiceThoughTheUserHasOneOfThatName) {
    linked();
}

TEST_F(AdapterTest, SendsEachCallWithItsSelectorTypesAndValues) {
    const auto link = linked();
    const auto daemon = link->remoteObjectProxy();
    const auto expectCall = [&](const char* selector, const char* types, const Lines& arguments) {
        const doubles::Frame frame = peer->read();
        EXPECT_EQ(frame.selector, selector);
        EXPECT_EQ(frame.types, types);
        Lines found;
        for (const auto& argument : frame.arguments) {
            found.push_back(argument.value_or("nil"));
        }
        EXPECT_EQ(found, arguments) << selector;
    };
    daemon->connect();
    expectCall("connect", "v16@0:8", {});
    daemon->putMessage({"a\0b", 3});
    expectCall("putMessage:", "v24@0:8@\"NSData\"16", {std::string("a\0b", 3)});
    daemon->putMessage({nullptr, 0});
    expectCall("putMessage:", "v24@0:8@\"NSData\"16", {""});
    daemon->onScreenLocked(true);
    expectCall("onScreenLocked:", "v20@0:8c16", {"1"});
    daemon->onScreenLocked(false);
    expectCall("onScreenLocked:", "v20@0:8c16", {"0"});
    daemon->onTimeZoneChanged();
    expectCall("onTimeZoneChanged", "v16@0:8", {});
    daemon->requestForNetworkReachability();
    expectCall("requestForNetworkReachability", "v16@0:8", {});
    daemon->requestForInitRmm();
    expectCall("requestForInitRmm", "v16@0:8", {});
    daemon->requestForLogLevel(-1);
    expectCall("requestForLogLevel:", "v20@0:8i16", {"-1"});
    daemon->requestForRmmMonitors();
    expectCall("requestForRmmMonitors", "v16@0:8", {});
}

TEST_F(AdapterTest, DeliversEachCallOfTheDaemonWithItsValues) {
    const auto link = linked();
    peer->confirm(true);
    peer->confirm(false);
    peer->call("putMessage:", "v24@0:8@\"NSData\"16", {"bytes"});
    peer->call("putMessage:", "v24@0:8@\"NSData\"16", {""});
    peer->call("initRmmMessage:token:subdomain:rmmUrl:appVer:",
               "v56@0:8@\"NSString\"16@\"NSString\"24@\"NSString\"32@\"NSString\"40@\"NSString\"48",
               {"one", "two", "three", "f\xc3\xbcr", "five"});
    peer->call("networkReachability:", "v20@0:8c16", {"1"});
    peer->call("logLevel:", "v24@0:8q16", {"-9223372036854775808"});
    const Lines expected{"connected 1",
                         "connected 0",
                         "putMessage bytes",
                         "putMessage ",
                         "initRmm one two three f\xc3\xbcr five",
                         "reachability 1",
                         "logLevel -9223372036854775808"};
    EXPECT_TRUE(eventually([&] { return record.lines().size() >= expected.size(); }));
    EXPECT_EQ(record.lines(), expected);
}

TEST_F(AdapterTest, DoesNotImplementTheCallThatTheAgentDoesNotTake) {
    const auto link = linked();
    peer->call("rmmMessage:", "v24@0:8@\"NSData\"16", {"x"});
    peer->confirm();
    EXPECT_TRUE(eventually([&] { return !record.lines().empty(); }));
    EXPECT_EQ(record.lines(), Lines{"connected 1"});
}

TEST_F(AdapterTest, HandsEachReplyToItsAsker) {
    const auto link = linked();
    const auto daemon = link->remoteObjectProxy();
    const auto answerTo = [&](const char* types, std::optional<std::string> argument) {
        const std::size_t before = record.lines().size();
        peer->reply(peer->read(), types, std::move(argument));
        EXPECT_TRUE(eventually([&] { return record.lines().size() > before; }));
    };
    const auto number = [this](const XpcNumber& value) {
        std::visit([this](auto v) { record.add(std::string(typeid(v).name()) + " " + std::to_string(v)); },
                   value);
    };
    daemon->pingWithReply([this](bool ready) { record.add(ready ? "yes" : "no"); });
    answerTo("v@?c", "1");
    daemon->pingWithReply([this](bool ready) { record.add(ready ? "yes" : "no"); });
    answerTo("v@?c", "0");
    daemon->loggedUser([this](const std::string& user) { record.add(user); });
    answerTo("v@?@\"NSString\"", "f\xc3\xbcr");
    daemon->loggedUser([this](const std::string& user) { record.add("<" + user + ">"); });
    answerTo("v@?@\"NSString\"", std::nullopt);
    daemon->upTime(number);
    answerTo("v@?@\"NSNumber\"", "q-5");
    daemon->upTime(number);
    answerTo("v@?@\"NSNumber\"", "Q18446744073709551615");
    daemon->lastCommunicationTime(number);
    answerTo("v@?@\"NSNumber\"", "d0.5");
    daemon->lastCommunicationTime(number);
    answerTo("v@?@\"NSNumber\"", "c1");
    daemon->lastCommunicationTime(number);
    answerTo("v@?@\"NSNumber\"", std::nullopt);
    const Lines expected{"yes",        "no",  "f\xc3\xbcr", "<>", "l -5", "m 18446744073709551615",
                         "d 0.500000", "b 1", "l 0"};
    EXPECT_EQ(record.lines(), expected);
}

TEST_F(AdapterTest, ReleasesTheReplyThatNeverComes) {
    auto kept = std::make_shared<int>(1);
    {
        const auto link = linked();
        link->remoteObjectProxy()->pingWithReply([kept](bool) {});
        EXPECT_EQ(peer->read().selector, "pingWithReply:");
    }
    peer->die();
    EXPECT_TRUE(eventually([&] { return kept.use_count() == 1; }));
}

TEST_F(AdapterTest, KeepsTheClientWhileTheConnectionExists) {
    std::weak_ptr<Client> weak = client;
    auto link = linked();
    client.reset();
    EXPECT_FALSE(weak.expired());
    link.reset();
    peer->die();
    EXPECT_TRUE(eventually([&] { return weak.expired(); }));
}

TEST_F(AdapterTest, TakesAReleaseBeforeTheConnectionIsResumed) {
    connection().reset();
    EXPECT_EQ(losses(), 0U);
}

TEST_F(AdapterTest, RunsOperationsOneAfterTheOtherAndAfterItsRelease) {
    auto queue = platform::createOperationQueue();
    queue->setMaxConcurrentOperationCount(1);
    std::atomic<int> running{0};
    std::atomic<int> done{0};
    std::atomic<bool> overlapped{false};
    Lines order;
    for (int i = 0; i < 50; ++i) {
        const std::string name =
            "operation with a name that is long enough to be on the heap " + std::to_string(i);
        queue->addOperation([&, name] {
            overlapped = overlapped || ++running > 1;
            order.push_back(name);
            std::this_thread::sleep_for(1ms);
            --running;
            ++done;
        });
    }
    queue.reset();
    EXPECT_TRUE(eventually([&] { return done == 50; }));
    EXPECT_FALSE(overlapped);
    EXPECT_EQ(order.back().substr(order.back().size() - 2), "49");
}

TEST_F(AdapterTest, AddsOperationsFromAnOperationThatHoldsTheQueueLast) {
    std::promise<void> inner;
    auto queue = platform::createOperationQueue();
    queue->setMaxConcurrentOperationCount(1);
    auto held = std::make_shared<std::shared_ptr<platform::IOperationQueue>>(queue);
    queue->addOperation([held, &inner] {
        (*held)->addOperation([&inner] { inner.set_value(); });
        held->reset();
    });
    queue.reset();
    EXPECT_EQ(inner.get_future().wait_for(20s), std::future_status::ready);
}

TEST_F(AdapterTest, FindsThePathInTheHomeDirectory) {
    const char* const home = std::getenv("HOME");
    const std::string before = home == nullptr ? "" : home;
    setenv("HOME", "/home/f\xc3\xbcr", 1);
    EXPECT_EQ(platform::pathInHomeDirectory("Library/x.log"), "/home/f\xc3\xbcr/Library/x.log");
    setenv("HOME", before.c_str(), 1);
    EXPECT_FALSE(platform::pathInHomeDirectory("\xff"));
}

TEST_F(AdapterTest, WritesTheSystemLogInOneLine) {
    testing::internal::CaptureStderr();
    platform::writeSystemLog("[ERROR] at path = ", "/some/where");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "NSLog: [ERROR] at path = /some/where\n");
}

TEST_F(AdapterTest, ReturnsFromTheRunLoopThatHasNoSource) {
    const platform::AutoreleasePool pool;
    platform::mainRunLoop().run();
}

TEST_F(AdapterTest, KeepsClosedStandardStreamsFromBeingReused) {
    const pid_t child = fork();
    if (child == 0) {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        platform::prepareProcess();
        _exit(open("/dev/null", O_RDONLY) > STDERR_FILENO ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

}  // namespace
