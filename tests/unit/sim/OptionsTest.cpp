#include "Options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace sim;
using testing::HasSubstr;
using testing::Not;

Options parse(const std::vector<std::string>& arguments) {
    return parseOptions(arguments, BusChoice::Offered);
}

TEST(SimOptions, WithoutAnyEverythingIsAnsweredYes) {
    const Options options = parse({});
    EXPECT_EQ(options.error, "");
    EXPECT_EQ(options.behaviour.answer, Answer::Yes);
    EXPECT_EQ(options.behaviour.ping, Ping::Yes);
    EXPECT_EQ(options.behaviour.logLevel, 6);
    EXPECT_FALSE(options.bus.session || options.bus.replace || options.bus.queue || options.help ||
                 options.version);
    EXPECT_EQ(options.bus.address, "");
    EXPECT_EQ(options.format, Format::Columns);
}

TEST(SimOptions, TakesEachOption) {
    const Options options = parse({"--answer", "late", "--delay=20", "--ping", "no", "--log-level=-2",
                                   "--address", "unix:path=/x,guid=1", "--replace", "--queue", "--help",
                                   "--version", "--json", "--patience=7"});
    EXPECT_EQ(options.error, "");
    EXPECT_EQ(options.behaviour.answer, Answer::Late);
    EXPECT_EQ(options.behaviour.delay, std::chrono::milliseconds(20));
    EXPECT_EQ(options.behaviour.patience, std::chrono::milliseconds(7));
    EXPECT_EQ(options.format, Format::Json);
    EXPECT_EQ(options.behaviour.ping, Ping::No);
    EXPECT_EQ(options.behaviour.logLevel, -2);
    EXPECT_EQ(options.bus.address, "unix:path=/x,guid=1");
    EXPECT_TRUE(options.bus.replace && options.bus.queue && options.help && options.version);
    EXPECT_TRUE(parse({"--session"}).bus.session);
}

TEST(SimOptions, SaysWhatIsWrongInOneLine) {
    EXPECT_EQ(parse({"--shout"}).error, "unknown option \"--shout\"");
    EXPECT_EQ(parse({"yes"}).error, "unknown option \"yes\"");
    EXPECT_EQ(parse({"--answer"}).error, "option --answer needs a value");
    EXPECT_EQ(parse({"--answer", "perhaps"}).error, "option --answer cannot be \"perhaps\"");
    EXPECT_EQ(parse({"--delay=-1"}).error, "option --delay cannot be \"-1\"");
    EXPECT_EQ(parse({"--ping=late"}).error, "option --ping cannot be \"late\"");
    EXPECT_EQ(parse({"--log-level", "x"}).error, "option --log-level cannot be \"x\"");
    EXPECT_EQ(parse({"--address="}).error, "option --address cannot be \"\"");
    EXPECT_EQ(parse({"--queue=yes"}).error, "option --queue takes no value");
    EXPECT_EQ(parse({"--session", "--address", "x"}).error,
              "options --session and --address exclude each other");
}

TEST(SimOptions, WhereNoBusCanBeChosenItsOptionsAreUnknown) {
    for (const char* option : {"--session", "--address=x", "--replace", "--queue"}) {
        EXPECT_THAT(parseOptions({option}, BusChoice::None).error, HasSubstr("unknown option")) << option;
    }
    EXPECT_THAT(usageText(BusChoice::None), Not(HasSubstr("--address")));
    EXPECT_THAT(usageText(BusChoice::Offered), HasSubstr("--address"));
}

TEST(SimOptions, TheUsageNamesEveryOptionAndEveryCommand) {
    const std::string usage = usageText(BusChoice::Offered);
    for (const char* word : {"--answer", "--delay", "--ping", "--log-level", "--session", "--replace",
                             "--queue", "--help", "--version", "put-hex", "init-rmm", "quit"}) {
        EXPECT_THAT(usage, HasSubstr(word));
    }
}

}  // namespace
