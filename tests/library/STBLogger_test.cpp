// SPDX-License-Identifier: MIT
// The lines of the logger, and which of them are written.
#include "STBLogger.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "tests/kit/NamedCase.h"
#include "tests/library/STBLoggerChild.h"

namespace
{

using kit::named;
using kit::NamedCase;
using testing::ElementsAre;
using testing::HasSubstr;

// --- A line on standard error ---

TEST(ALineOfTheDaemon, HasTheColourThePrefixTheTimeTheLetterTheTagAndTheText)
{
    const int line = __LINE__ + 1;
    const kit::Outcome outcome = withEnvironment({}, [] { LOG_DEBUG("Device %s %s", "/a", "paired"); });

    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
    EXPECT_EQ("\x1b[34m    12:34:56.789 I " + kGreeting + "\n\x1b[0m" +
                  "\x1b[0m    12:34:56.789 D [STBLogger_test:" + std::to_string(line) +
                  "] Device /a paired\n\x1b[0m",
              outcome.errors);
    EXPECT_EQ("", outcome.output);
}

TEST(EachMacro, LogsAtItsLevelWithAndWithoutArguments)
{
    const auto lines = logged({{"VEXA_LOG_LEVEL", "TRACE"}, {"VEXA_LOG_LINENUM", "0"}}, [] {
        LOG_ERROR("none");
        LOG_ERROR("one %d", 1);
        LOG_WARN("none");
        LOG_WARN("one %d", 1);
        LOG_INFO("none");
        LOG_INFO("one %d", 1);
        LOG_DEBUG("none");
        LOG_DEBUG("one %d", 1);
        LOG_TRACE("none");
        LOG_TRACE("one %d", 1);
    });

    std::vector<std::string> expected;
    for (const char* letter : {"E", "W", "I", "D", "T"}) {
        expected.push_back(std::string(letter) + " [STBLogger_test] none");
        expected.push_back(std::string(letter) + " [STBLogger_test] one 1");
    }
    EXPECT_EQ(expected, lines);
}

TEST(EachLine, IsOutAtOnceAlthoughStandardErrorIsBuffered)
{
    logged({}, [] {
        std::setvbuf(stderr, nullptr, _IOFBF, BUFSIZ);
        for (const char* text : {"first", "second"}) {
            say(STBLogLevel_eInfo, text);
            EXPECT_THAT(kit::contentOf(STDERR_FILENO), testing::EndsWith(std::string("] ") + text + "\n"));
        }
    });
}

// --- Levels ---

struct LevelCase : kit::NamedCase {
    STBLogLevel level;
    const char* colour;
    const char* letterAndBlank;
    int priority; ///< for syslog
};

class AMessage : public testing::TestWithParam<LevelCase>
{
};

TEST_P(AMessage, HasTheColourAndLetterOfItsLevel)
{
    const kit::Outcome outcome =
        withEnvironment({{"VEXA_LOG_LEVEL", "TRACE"}}, [] { say(GetParam().level, "text"); });

    const std::string greeting =
        "\x1b[34m    12:34:56.789 I Logger for application \"VEXA\" was successfully initialized "
        "(level:TRACE)\n\x1b[0m";
    EXPECT_EQ(greeting + GetParam().colour + kHead + GetParam().letterAndBlank + "[Bluez:42] text\n\x1b[0m",
              outcome.errors);
}

TEST_P(AMessage, HasThePriorityOfItsLevelInSyslog)
{
    const auto records = sent({{"VEXA_LOG_LEVEL", "TRACE"}}, [] { say(GetParam().level, "text"); });

    const char* word = GetParam().level == STBLogLevel_eTrace ? "TRACE " : "";
    EXPECT_THAT(records, ElementsAre("syslog " + std::to_string(GetParam().priority) + " %s <.789 " + word +
                                     "[Bluez:42] text>"));
}

const LevelCase kLevels[] = {
    {"OfLevelNone", STBLogLevel_eNone, "", " ", 5},
    {"OfLevelError", STBLogLevel_eError, "\x1b[31m", "E ", 3},
    {"OfLevelWarn", STBLogLevel_eWarn, "\x1b[33m", "W ", 4},
    {"OfLevelInfo", STBLogLevel_eInfo, "\x1b[34m", "I ", 6},
    {"OfLevelDebug", STBLogLevel_eDebug, "\x1b[0m", "D ", 7},
    {"OfLevelTrace", STBLogLevel_eTrace, "\x1b[0m", "T ", 7},
    {"OfLevelMinusOne", static_cast<STBLogLevel>(-1), "", " ", 5},
};

INSTANTIATE_TEST_SUITE_P(Table, AMessage, testing::ValuesIn(kLevels), named);

TEST(AMessageAtLevelNone, PassesAtEveryEffectiveLevelWithTwoBlanksBehindTheTime)
{
    const kit::Outcome outcome =
        withEnvironment(plain({{"VEXA_LOG_LEVEL", "ERROR"}}), [] { say(STBLogLevel_eNone, "text"); });

    EXPECT_EQ("    12:34:56.789  [Bluez:42] text\n", outcome.errors);
}

TEST(AMessageAboveTheLevels, IsDroppedUnlessItsModuleIsSetAsHighAndThenHasNoLetter)
{
    const auto lines = logged({{"VEXA_LOG_LEVEL", "TRACE"}}, [] {
        STBLoggerLogParams params = daemonParams();
        STBLogger logger(&params);
        const auto six = static_cast<STBLogLevel>(6);
        logger.log("Deep", six, 42, "Deep.cpp", "dropped");
        logger.setModulesSTBLogLevel("Deep", static_cast<STBLogLevel>(7));
        logger.log("Deep", six, 42, "Deep.cpp", "passed");
    });

    EXPECT_THAT(lines, ElementsAre(" [Deep:42] passed"));
}

// --- Module, line and text ---

TEST(ALoggersOwnEntry, TakesTheModuleAsItIs)
{
    const auto lines = logged({}, [] {
        STBLoggerLogParams params = daemonParams();
        STBLogger logger(&params);
        logger.log("", STBLogLevel_eInfo, 42, "some/where/Bluez.cpp", "of nobody");
        logger.log("Mine", STBLogLevel_eInfo, 42, "some/where/Bluez.cpp", "of mine");
    });

    EXPECT_THAT(lines, ElementsAre("I [:42] of nobody", "I [Mine:42] of mine"));
}

TEST(AModuleThatIsGiven, StandsInTheTagInsteadOfTheFiles)
{
    const auto lines = logged({}, [] {
        STBLoggerLogParams params = daemonParams();
        STBLogger_log(&params, "Given", STBLogLevel_eInfo, 42, "some/where/Bluez.cpp", "text");
    });

    EXPECT_THAT(lines, ElementsAre("I [Given:42] text"));
}

TEST(TheTime, IsLocalAndItsMillisecondsAreTruncated)
{
    const kit::Outcome outcome = withEnvironment(plain(), [] {
        setenv("TZ", "XXX-3", 1);
        say(STBLogLevel_eInfo, "text");
    });

    EXPECT_THAT(kit::linesOf(outcome.errors), testing::Contains("    15:34:56.789 I [Bluez:42] text"));
}

TEST(TheThreadIdentifier, StandsBetweenTheLetterAndTheTag)
{
    const kit::Outcome outcome = withEnvironment(plain({{"VEXA_LOG_THREAD_ID", "1"}}), [] {
        std::printf("%p", reinterpret_cast<void*>(pthread_self())); // NOLINT(performance-no-int-to-ptr)
        say(STBLogLevel_eInfo, "text");
    });

    EXPECT_EQ("I " + outcome.output + " [Bluez:42] text", told(outcome).back());
}

struct LineCase : kit::NamedCase {
    const char* lineNumbers;
    const char* file;
    int line;
    const char* text;
    const char* written;
};

class ALine : public testing::TestWithParam<LineCase>
{
};

TEST_P(ALine, HasItsTagAndLosesOneNewlineAtMost)
{
    const LineCase& given = GetParam();
    const kit::Outcome outcome = withEnvironment(plain({{"VEXA_LOG_LINENUM", given.lineNumbers}}), [&] {
        say({STBLogLevel_eInfo, given.text, given.file, given.line});
    });

    EXPECT_EQ(std::string(kHead) + "I " + kGreeting + "\n" + kHead + "I " + given.written, outcome.errors);
}

const LineCase kLines[] = {
    {"OfAnAbsolutePath", "1", "/a/b/RcuOtaUpdater.cpp", 42, "text", "[RcuOtaUpdater:42] text\n"},
    {"OfARelativePath", "1", "utils/vexabluetoohtd/main.cpp", 42, "text", "[main:42] text\n"},
    {"WithoutFolder", "1", "Firmware.cpp", 42, "text", "[Firmware:42] text\n"},
    {"OfAHeader", "1", "libvexastb/inc/private/pthread_helper.h", 42, "text", "[pthread_helper:42] text\n"},
    {"WithoutExtension", "1", "a/b/STBThread", 42, "text", "[STBThread:42] text\n"},
    {"WithoutBoth", "1", "STBThread", 42, "text", "[STBThread:42] text\n"},
    {"WithTwoExtensions", "1", "a/moc.main.cpp", 42, "text", "[moc.main:42] text\n"},
    {"WithAPointInTheFolderOnly", "1", "a.b/main", 42, "text", "[main:42] text\n"},
    {"OfAPathThatEndsInASlash", "1", "a/b/", 42, "text", "[:42] text\n"},
    {"OfAHiddenFile", "1", "a/.cpp", 42, "text", "[:42] text\n"},
    {"OfLineZero", "1", "Bluez.cpp", 0, "text", "[Bluez] text\n"},
    {"OfANegativeLine", "1", "Bluez.cpp", -1, "text", "[Bluez] text\n"},
    {"WithLineNumbersOff", "0", "Bluez.cpp", 7, "text", "[Bluez] text\n"},
    {"OfALineAlone", "1", "", 7, "text", "[:7] text\n"},
    {"OfNothing", "1", "", 0, "text", "text\n"},
    {"OfNothingWithLineNumbersOff", "0", "", 7, "text", "text\n"},
    {"WithOneNewline", "1", "Bluez.cpp", 42, "text\n", "[Bluez:42] text\n"},
    {"WithTwoNewlines", "1", "Bluez.cpp", 42, "text\n\n", "[Bluez:42] text\n\n"},
    {"ThatIsANewline", "1", "Bluez.cpp", 42, "\n", "[Bluez:42] \n"},
    {"OfNoText", "1", "Bluez.cpp", 42, "", "[Bluez:42] \n"},
    {"OfTwoLines", "1", "Bluez.cpp", 42, "one\ntwo", "[Bluez:42] one\ntwo\n"},
};

INSTANTIATE_TEST_SUITE_P(Table, ALine, testing::ValuesIn(kLines), named);

class ALongText : public testing::TestWithParam<std::size_t>
{
};

TEST_P(ALongText, IsCutTo1023CharactersWithTheHeadAndStillEndsItsLine)
{
    const kit::Outcome outcome =
        withEnvironment(plain(), [] { say(STBLogLevel_eInfo, std::string(GetParam(), 'x')); });

    const std::string head = std::string(kHead) + "I [Bluez:42] ";
    const std::size_t room = 1023 - head.size();
    const auto lines = kit::linesOf(outcome.errors);
    ASSERT_EQ(2U, lines.size());
    EXPECT_EQ(head + std::string(std::min(room, GetParam()), 'x'), lines[1]);
    EXPECT_EQ('\n', outcome.errors.back());
}

INSTANTIATE_TEST_SUITE_P(OfCharacters, ALongText, testing::Values(992, 993, 994, 995, 1023, 1024, 5000),
                         testing::PrintToStringParamName());

TEST(ATextThatFillsTheBuffer, LosesItsNewlineByTheCutAndNotOnceMore)
{
    const std::string head = std::string(kHead) + "I [Bluez:42] ";
    const std::string text(1023 - head.size(), 'x');
    const kit::Outcome outcome = withEnvironment(plain(), [&] { say(STBLogLevel_eInfo, text + "\n\n"); });

    EXPECT_EQ(head + text, kit::linesOf(outcome.errors).back());
}

// --- The filter ---

struct FilterCase : kit::NamedCase {
    Environment environment;
    STBLogLevel level;
    const char* module;
    bool passes;
};

class TheFilter : public testing::TestWithParam<FilterCase>
{
};

TEST_P(TheFilter, Decides)
{
    const kit::Outcome outcome = withEnvironment(plain(GetParam().environment), [] {
        say({GetParam().level, "the text", GetParam().module});
    });

    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
    EXPECT_EQ(GetParam().passes, outcome.errors.find("the text") != std::string::npos) << outcome;
}

const Environment kBluezAtWarn = {{"VEXA_LOG_LEVEL", "DEBUG"}, {"VEXA_LOG_WARN_MODULES", "Bluez"}};
const Environment kBluezAtTrace = {{"VEXA_LOG_LEVEL", "WARN"}, {"VEXA_LOG_TRACE_MODULES", "Bluez"}};

const FilterCase kFilters[] = {
    {"DropsInfoOfAModuleAtWarn", kBluezAtWarn, STBLogLevel_eInfo, "Bluez", false},
    {"PassesWarnOfAModuleAtWarn", kBluezAtWarn, STBLogLevel_eWarn, "Bluez", true},
    {"PassesInfoOfTheOtherModules", kBluezAtWarn, STBLogLevel_eInfo, "main", true},
    {"PassesDebugOfTheOtherModules", kBluezAtWarn, STBLogLevel_eDebug, "main", true},
    {"PassesTraceOfAModuleAtTrace", kBluezAtTrace, STBLogLevel_eTrace, "Bluez", true},
    {"DropsInfoOfTheModulesBesideIt", kBluezAtTrace, STBLogLevel_eInfo, "main", false},
    {"ComparesModulesWithTheirCase", kBluezAtTrace, STBLogLevel_eTrace, "bluez", false},
    {"ComparesWholeModules", kBluezAtTrace, STBLogLevel_eTrace, "Bluez2", false},
    {"PassesDebugByDefault", {}, STBLogLevel_eDebug, "main", true},
    {"DropsTraceByDefault", {}, STBLogLevel_eTrace, "main", false},
};

INSTANTIATE_TEST_SUITE_P(Table, TheFilter, testing::ValuesIn(kFilters), named);

struct LevelNameCase : kit::NamedCase {
    const char* value;
    const char* letters; ///< of the levels that pass
};

class TheLevelVariable : public testing::TestWithParam<LevelNameCase>
{
};

TEST_P(TheLevelVariable, SetsTheGlobalLevel)
{
    const kit::Outcome outcome = withEnvironment(plain({{"VEXA_LOG_LEVEL", GetParam().value}}), [] {
        for (const STBLogLevel level : {STBLogLevel_eError, STBLogLevel_eWarn, STBLogLevel_eInfo,
                                        STBLogLevel_eDebug, STBLogLevel_eTrace}) {
            say(level, "text");
        }
    });

    std::string letters;
    for (const std::string& text : told(outcome)) {
        letters += text.find("[Bluez:42] text") == 2 ? text.substr(0, 1) : "";
    }
    EXPECT_EQ(GetParam().letters, letters) << outcome;
}

const LevelNameCase kLevelNames[] = {
    {"Error", "ERROR", "E"},       {"Warn", "WARN", "EW"},      {"Info", "INFO", "EWI"},
    {"Debug", "DEBUG", "EWID"},    {"Trace", "TRACE", "EWIDT"}, {"InLowerCase", "trace", "EWIDT"},
    {"InMixedCase", "wArN", "EW"},
};

INSTANTIATE_TEST_SUITE_P(Table, TheLevelVariable, testing::ValuesIn(kLevelNames), named);

struct UnknownLevelCase : kit::NamedCase {
    const char* value;
    const char* upperCase;
};

class AnUnknownLevel : public testing::TestWithParam<UnknownLevelCase>
{
};

TEST_P(AnUnknownLevel, IsReportedInUpperCaseAndMeansInfo)
{
    const kit::Outcome outcome = withEnvironment(plain({{"VEXA_LOG_LEVEL", GetParam().value}}), [] {
        say(STBLogLevel_eDebug, "dropped");
        say(STBLogLevel_eInfo, "passed");
    });

    const auto lines = kit::linesOf(outcome.errors);
    ASSERT_EQ(3U, lines.size()) << outcome;
    // The colours are still those of the record here, and the tag has a line but no module.
    EXPECT_THAT(lines[0],
                testing::MatchesRegex("\x1b\\[31m    12:34:56.789 E \\[:[0-9]+\\] Unknown log level: '" +
                                      std::string(GetParam().upperCase) + "', setting to 'INFO'"));
    EXPECT_EQ("\x1b[0m    12:34:56.789 I Logger for application \"VEXA\" was successfully initialized "
              "(level:INFO)",
              lines[1]);
    EXPECT_EQ("    12:34:56.789 I [Bluez:42] passed", lines[2]);
}

const UnknownLevelCase kUnknownLevels[] = {
    {"None", "none", "NONE"},           {"Empty", "", ""},
    {"Verbose", "verbose", "VERBOSE"},  {"ANumber", "3", "3"},
    {"WithABlank", " debug", " DEBUG"}, {"Longer", "warning", "WARNING"},
};

INSTANTIATE_TEST_SUITE_P(Table, AnUnknownLevel, testing::ValuesIn(kUnknownLevels), named);

TEST(AnUnknownDefaultLevel, IsReportedToo)
{
    const kit::Outcome outcome = withEnvironment(plain(), [] {
        STBLoggerLogParams params = daemonParams();
        params.defaultLevel = "loud";
        say({}, params);
    });

    EXPECT_THAT(outcome.errors, HasSubstr("Unknown log level: 'LOUD', setting to 'INFO'\n"));
}

} // namespace
