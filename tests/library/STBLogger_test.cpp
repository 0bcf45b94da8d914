// SPDX-License-Identifier: MIT
#include "STBLogger.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/kit/NamedCase.h"
#include "tests/library/STBLoggerChild.h"

namespace
{

using testing::ElementsAre;
using testing::HasSubstr;

// --- A line on standard error

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
    const kit::Outcome outcome =
        withEnvironment(plain({{"VEXA_LOG_LEVEL", "TRACE"}, {"VEXA_LOG_LINENUM", "0"}}), [] {
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
    EXPECT_EQ(expected, toldBehindGreeting(outcome));
}

TEST(EachLine, IsOutAtOnceAlthoughStandardErrorIsBuffered)
{
    const kit::Outcome outcome = withEnvironment(plain(), [] {
        std::setvbuf(stderr, nullptr, _IOFBF, BUFSIZ);
        for (const char* text : {"first", "second"}) {
            say(STBLogLevel_eInfo, text);
            const std::string written = kit::contentOf(STDERR_FILENO); // what the file holds now
            EXPECT_THAT(written, testing::EndsWith(std::string("] ") + text + "\n"));
        }
    });

    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
}

struct ColourCase : NamedCase {
    STBLogLevel level;
    const char* before;
    const char* letterAndBlank;
};

class AMessage : public testing::TestWithParam<ColourCase>
{
};

TEST_P(AMessage, HasTheColourAndLetterOfItsLevel)
{
    const kit::Outcome outcome =
        withEnvironment({{"VEXA_LOG_LEVEL", "TRACE"}}, [] { say(GetParam().level, "text"); });

    const std::string greeting =
        "\x1b[34m    12:34:56.789 I Logger for application \"VEXA\" was successfully initialized "
        "(level:TRACE)\n\x1b[0m";
    EXPECT_EQ(greeting + GetParam().before + kHead + GetParam().letterAndBlank + "[Bluez:42] text\n" + kReset,
              outcome.errors);
}

TEST_P(AMessage, HasNoColourButItsLetterWithColoursOff)
{
    const kit::Outcome outcome =
        withEnvironment(plain({{"VEXA_LOG_LEVEL", "TRACE"}}), [] { say(GetParam().level, "text"); });

    EXPECT_THAT(toldBehindGreeting(outcome),
                ElementsAre(std::string(GetParam().letterAndBlank) + "[Bluez:42] text"));
}

const ColourCase kColours[] = {
    {"OfLevelNone", STBLogLevel_eNone, "", " "},
    {"OfLevelError", STBLogLevel_eError, "\x1b[31m", "E "},
    {"OfLevelWarn", STBLogLevel_eWarn, "\x1b[33m", "W "},
    {"OfLevelInfo", STBLogLevel_eInfo, "\x1b[34m", "I "},
    {"OfLevelDebug", STBLogLevel_eDebug, "\x1b[0m", "D "},
    {"OfLevelTrace", STBLogLevel_eTrace, "\x1b[0m", "T "},
    {"OfLevelMinusOne", static_cast<STBLogLevel>(-1), "", " "},
};

INSTANTIATE_TEST_SUITE_P(Table, AMessage, testing::ValuesIn(kColours), named);

TEST(AMessageAtLevelNone, PassesAtEveryEffectiveLevelWithTwoBlanksBehindTheTime)
{
    const kit::Outcome outcome =
        withEnvironment(plain({{"VEXA_LOG_LEVEL", "ERROR"}}), [] { say(STBLogLevel_eNone, "text"); });

    EXPECT_EQ("    12:34:56.789  [Bluez:42] text\n", outcome.errors);
}

TEST(AMessageAboveTheLevels, IsDroppedUnlessItsModuleIsSetAsHighAndThenHasNoLetter)
{
    const kit::Outcome outcome = withEnvironment(plain({{"VEXA_LOG_LEVEL", "TRACE"}}), [] {
        STBLoggerLogParams params = daemonParams();
        STBLogger logger(&params);
        const auto six = static_cast<STBLogLevel>(6);
        logger.log("Deep", six, 42, "Deep.cpp", "dropped");
        logger.setModulesSTBLogLevel("Deep", static_cast<STBLogLevel>(7));
        logger.log("Deep", six, 42, "Deep.cpp", "passed");
    });

    EXPECT_THAT(toldBehindGreeting(outcome), ElementsAre(" [Deep:42] passed"));
}

TEST(ALoggersOwnEntry, TakesTheModuleAsItIs)
{
    const kit::Outcome outcome = withEnvironment(plain(), [] {
        STBLoggerLogParams params = daemonParams();
        STBLogger logger(&params);
        logger.log("", STBLogLevel_eInfo, 42, "some/where/Bluez.cpp", "of nobody");
        logger.log("Mine", STBLogLevel_eInfo, 42, "some/where/Bluez.cpp", "of mine");
    });

    EXPECT_THAT(toldBehindGreeting(outcome), ElementsAre("I [:42] of nobody", "I [Mine:42] of mine"));
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

    EXPECT_THAT(toldBehindGreeting(outcome), ElementsAre("I " + outcome.output + " [Bluez:42] text"));
}

TEST(AModuleThatIsGiven, StandsInTheTagInsteadOfTheFiles)
{
    const kit::Outcome outcome = withEnvironment(plain(), [] {
        STBLoggerLogParams params = daemonParams();
        STBLogger_log(&params, "Given", STBLogLevel_eInfo, 42, "some/where/Bluez.cpp", "text");
    });

    EXPECT_THAT(toldBehindGreeting(outcome), ElementsAre("I [Given:42] text"));
}

struct PathCase : NamedCase {
    const char* path;
    const char* module;
};

class TheModuleOfAPath : public testing::TestWithParam<PathCase>
{
};

TEST_P(TheModuleOfAPath, IsItsBaseName)
{
    const kit::Outcome outcome = withEnvironment(plain(), [] {
        STBLoggerLogParams params = daemonParams();
        STBLogger_log(&params, "", STBLogLevel_eInfo, 42, GetParam().path, "text");
    });

    EXPECT_THAT(toldBehindGreeting(outcome),
                ElementsAre(std::string("I [") + GetParam().module + ":42] text"));
}

const PathCase kTheModuleOfAPathCases[] = {
    {"Usual", "utils/vexabluetoohtd/main.cpp", "main"},
    {"Absolute", "/a/b/RcuOtaUpdater.cpp", "RcuOtaUpdater"},
    {"WithoutFolder", "Firmware.cpp", "Firmware"},
    {"OfAHeader", "libvexastb/inc/private/pthread_helper.h", "pthread_helper"},
    {"WithoutExtension", "a/b/STBThread", "STBThread"},
    {"WithoutBoth", "STBThread", "STBThread"},
    {"WithTwoExtensions", "a/moc.main.cpp", "moc.main"},
    {"WithAPointInTheFolderOnly", "a.b/main", "main"},
    {"ThatEndsInASlash", "a/b/", ""},
    {"ThatIsHidden", "a/.cpp", ""},
};

INSTANTIATE_TEST_SUITE_P(Table, TheModuleOfAPath, testing::ValuesIn(kTheModuleOfAPathCases), named);

struct TagCase : NamedCase {
    const char* lineNumbers;
    const char* module;
    int line;
    const char* tag;
};

class TheTag : public testing::TestWithParam<TagCase>
{
};

TEST_P(TheTag, ShowsWhatIsKnown)
{
    const kit::Outcome outcome = withEnvironment(plain({{"VEXA_LOG_LINENUM", GetParam().lineNumbers}}), [] {
        STBLoggerLogParams params = daemonParams();
        STBLogger_log(&params, "", STBLogLevel_eInfo, GetParam().line, GetParam().module, "text");
    });

    EXPECT_THAT(toldBehindGreeting(outcome), ElementsAre(std::string("I ") + GetParam().tag + "text"));
}

const TagCase kTheTagCases[] = {
    {"OfModuleAndLine", "1", "Bluez.cpp", 7, "[Bluez:7] "},
    {"OfLineZero", "1", "Bluez.cpp", 0, "[Bluez] "},
    {"OfANegativeLine", "1", "Bluez.cpp", -1, "[Bluez] "},
    {"WithLineNumbersOff", "0", "Bluez.cpp", 7, "[Bluez] "},
    {"OfALineAlone", "1", "", 7, "[:7] "},
    {"OfNothing", "1", "", 0, ""},
    {"OfNothingWithLineNumbersOff", "0", "", 7, ""},
};

INSTANTIATE_TEST_SUITE_P(Table, TheTag, testing::ValuesIn(kTheTagCases), named);

struct EndCase : NamedCase {
    const char* text;
    const char* written;
};

class TheEndOfALine : public testing::TestWithParam<EndCase>
{
};

TEST_P(TheEndOfALine, LosesOneNewlineAtMost)
{
    const kit::Outcome outcome = withEnvironment(plain(), [] { say(STBLogLevel_eInfo, GetParam().text); });

    EXPECT_EQ(std::string(kHead) + "I " + kGreeting + "\n" + kHead + "I [Bluez:42] " + GetParam().written,
              outcome.errors);
}

const EndCase kTheEndOfALineCases[] = {
    {"WithoutNewline", "text", "text\n"},
    {"WithOneNewline", "text\n", "text\n"},
    {"WithTwoNewlines", "text\n\n", "text\n\n"},
    {"ThatIsANewline", "\n", "\n"},
    {"OfNoText", "", "\n"},
    {"WithTwoLines", "one\ntwo", "one\ntwo\n"},
};

INSTANTIATE_TEST_SUITE_P(Table, TheEndOfALine, testing::ValuesIn(kTheEndOfALineCases), named);

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

// --- The filter

struct FilterCase : NamedCase {
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
    const kit::Outcome outcome = withEnvironment(
        plain(GetParam().environment), [] { say(GetParam().level, "the text", GetParam().module); });

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

struct LevelNameCase : NamedCase {
    const char* value;
    std::vector<const char*> letters; ///< of the levels that pass
};

class TheLevelVariable : public testing::TestWithParam<LevelNameCase>
{
};

TEST_P(TheLevelVariable, SetsTheGlobalLevel)
{
    const kit::Outcome outcome =
        withEnvironment(plain({{"VEXA_LOG_LEVEL", GetParam().value}, {"VEXA_LOG_LINENUM", "0"}}), [] {
            std::fprintf(stderr, "%sstart\n", kHead);
            for (const STBLogLevel level : {STBLogLevel_eError, STBLogLevel_eWarn, STBLogLevel_eInfo,
                                            STBLogLevel_eDebug, STBLogLevel_eTrace}) {
                say(level, "text");
            }
        });

    std::vector<std::string> expected;
    for (const char* letter : GetParam().letters) {
        expected.push_back(std::string(letter) + " [Bluez] text");
    }
    auto texts = told(outcome);
    texts.erase(
        std::remove_if(texts.begin(), texts.end(),
                       [](const std::string& text) { return text.find("[Bluez]") == std::string::npos; }),
        texts.end());
    EXPECT_EQ(expected, texts);
}

const LevelNameCase kTheLevelVariableCases[] = {
    {"Error", "ERROR", {"E"}},
    {"Warn", "WARN", {"E", "W"}},
    {"Info", "INFO", {"E", "W", "I"}},
    {"Debug", "DEBUG", {"E", "W", "I", "D"}},
    {"Trace", "TRACE", {"E", "W", "I", "D", "T"}},
    {"InLowerCase", "trace", {"E", "W", "I", "D", "T"}},
    {"InMixedCase", "wArN", {"E", "W"}},
};

INSTANTIATE_TEST_SUITE_P(Table, TheLevelVariable, testing::ValuesIn(kTheLevelVariableCases), named);

struct UnknownLevelCase : NamedCase {
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
        STBLogger_log(&params, "", STBLogLevel_eInfo, 42, "Bluez.cpp", "text");
    });

    EXPECT_THAT(outcome.errors, HasSubstr("Unknown log level: 'LOUD', setting to 'INFO'\n"));
}

} // namespace
