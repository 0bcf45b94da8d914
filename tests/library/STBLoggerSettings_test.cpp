// SPDX-License-Identifier: MIT
#include <algorithm>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/kit/NamedCase.h"
#include "tests/library/STBLoggerChild.h"

namespace
{

using testing::ElementsAre;
using testing::HasSubstr;

// --- Yes and no

struct FlagCase : NamedCase {
    const char* value; ///< null: not set
    bool on;           ///< for a record that says no
    bool onByRecord;   ///< for a record that says yes
};

class AFlagOfTheEnvironment : public testing::TestWithParam<FlagCase>
{
protected:
    static kit::Outcome logWith(const char* variable, const std::function<void(STBLoggerLogParams&)>& prepare)
    {
        Environment environment;
        if (GetParam().value != nullptr) {
            environment[variable] = GetParam().value;
        }
        return withEnvironment(environment, [&] {
            STBLoggerLogParams params{};
            params.prefix = "";
            params.application = "VEXA";
            params.defaultLevel = "debug";
            prepare(params);
            STBLogger_log(&params, "", STBLogLevel_eInfo, 42, "Bluez.cpp", "text");
        });
    }
};

TEST_P(AFlagOfTheEnvironment, DecidesAboutLineNumbers)
{
    for (const bool record : {false, true}) {
        const kit::Outcome outcome =
            logWith("VEXA_LOG_LINENUM", [&](STBLoggerLogParams& params) { params.lineNumbers = record; });
        const bool on = record ? GetParam().onByRecord : GetParam().on;
        EXPECT_THAT(outcome.errors, HasSubstr(on ? " I [Bluez:42] text\n" : " I [Bluez] text\n"));
    }
}

TEST_P(AFlagOfTheEnvironment, DecidesAboutTheThreadIdentifier)
{
    for (const bool record : {false, true}) {
        const kit::Outcome outcome =
            logWith("VEXA_LOG_THREAD_ID", [&](STBLoggerLogParams& params) { params.threadId = record; });
        const bool on = record ? GetParam().onByRecord : GetParam().on;
        EXPECT_THAT(outcome.errors, HasSubstr(on ? " I 0x" : " I [Bluez] text\n"));
    }
}

TEST_P(AFlagOfTheEnvironment, DecidesAboutColours)
{
    for (const bool record : {false, true}) {
        const kit::Outcome outcome =
            logWith("VEXA_LOG_USE_COLORS", [&](STBLoggerLogParams& params) { params.useColors = record; });
        const bool on = record ? GetParam().onByRecord : GetParam().on;
        EXPECT_EQ(on, outcome.errors.find('\x1b') != std::string::npos) << outcome;
    }
}

TEST_P(AFlagOfTheEnvironment, DecidesAboutSyslog)
{
    const kit::Outcome outcome = logWith("VEXA_LOG_SYSLOG", [](STBLoggerLogParams&) {});

    EXPECT_EQ(GetParam().on, outcome.errors.empty()) << outcome;
    EXPECT_EQ(GetParam().on, !outcome.output.empty()) << outcome;
}

const FlagCase kAFlagOfTheEnvironmentCases[] = {
    {"NotSet", nullptr, false, true},     {"One", "1", true, true},       {"Y", "y", true, true},
    {"Zero", "0", false, false},          {"Empty", "", false, false},    {"CapitalY", "Y", false, false},
    {"Yes", "yes", false, false},         {"True", "true", false, false}, {"Eleven", "11", false, false},
    {"OneAndABlank", "1 ", false, false},
};

INSTANTIATE_TEST_SUITE_P(Table, AFlagOfTheEnvironment, testing::ValuesIn(kAFlagOfTheEnvironmentCases), named);

// --- Lists of modules

struct ListCase : NamedCase {
    const char* list;
    std::vector<const char*> modules; ///< in the order of the announcements
};

class AListOfModules : public testing::TestWithParam<ListCase>
{
};

TEST_P(AListOfModules, IsSplitAtCommas)
{
    const kit::Outcome outcome =
        withEnvironment(plain({{"VEXA_LOG_TRACE_MODULES", GetParam().list}, {"VEXA_LOG_LINENUM", "0"}}),
                        [] { say(STBLogLevel_eTrace, "dropped", "unnamed"); });

    std::vector<std::string> expected;
    for (const char* module : GetParam().modules) {
        expected.push_back(std::string("D Setting loglevel for module '") + module + "' to 'TRACE'");
    }
    EXPECT_EQ(expected, toldBehindGreeting(outcome));
}

const ListCase kAListOfModulesCases[] = {
    {"Empty", "", {}},
    {"OfACommaAlone", ",", {}},
    {"OfCommasAlone", ",,,", {}},
    {"OfOne", "a", {"a"}},
    {"OfTwoByName", "b,a", {"a", "b"}},
    {"WithRunsOfCommas", "a,,,b", {"a", "b"}},
    {"WithCommasAtItsEnds", ",,a,b,,", {"a", "b"}},
    {"WithBlanks", "a, b ,c", {" b ", "a", "c"}},
    {"WithARepetition", "a,b,a", {"a", "b"}},
};

INSTANTIATE_TEST_SUITE_P(Table, AListOfModules, testing::ValuesIn(kAListOfModulesCases), named);

TEST(AModuleInSeveralLists, KeepsTheMostTalkativeLevel)
{
    const kit::Outcome outcome = withEnvironment(plain({{"VEXA_LOG_LINENUM", "0"},
                                                        {"VEXA_LOG_WARN_MODULES", "a,b,c,d"},
                                                        {"VEXA_LOG_INFO_MODULES", "b,c,d"},
                                                        {"VEXA_LOG_DEBUG_MODULES", "c,d"},
                                                        {"VEXA_LOG_TRACE_MODULES", "d"}}),
                                                 [] { say(STBLogLevel_eTrace, "dropped"); });

    EXPECT_THAT(toldBehindGreeting(outcome), ElementsAre("D Setting loglevel for module 'a' to 'WARN'",
                                                         "D Setting loglevel for module 'b' to 'INFO'",
                                                         "D Setting loglevel for module 'c' to 'DEBUG'",
                                                         "D Setting loglevel for module 'd' to 'TRACE'"));
}

TEST(TheListsOfTheRecord, CountWhereTheEnvironmentHasNone)
{
    const kit::Outcome outcome =
        withEnvironment(plain({{"VEXA_LOG_LINENUM", "0"}, {"VEXA_LOG_INFO_MODULES", "e"}}), [] {
            STBLoggerLogParams params = daemonParams();
            params.warnModules = "w";
            params.infoModules = "i"; // replaced, not added to
            params.debugModules = "d";
            params.traceModules = "t";
            STBLogger_log(&params, "", STBLogLevel_eTrace, 42, "Bluez.cpp", "dropped");
        });

    EXPECT_THAT(toldBehindGreeting(outcome), ElementsAre("D Setting loglevel for module 'd' to 'DEBUG'",
                                                         "D Setting loglevel for module 'e' to 'INFO'",
                                                         "D Setting loglevel for module 't' to 'TRACE'",
                                                         "D Setting loglevel for module 'w' to 'WARN'"));
}

TEST(AnEmptyListInTheEnvironment, ReplacesTheRecordsToo)
{
    const kit::Outcome outcome = withEnvironment(plain({{"VEXA_LOG_WARN_MODULES", ""}}), [] {
        STBLoggerLogParams params = daemonParams();
        params.warnModules = "Bluez";
        STBLogger_log(&params, "", STBLogLevel_eInfo, 42, "Bluez.cpp", "text");
    });

    EXPECT_THAT(toldBehindGreeting(outcome), ElementsAre("I [Bluez:42] text"));
}

TEST(TheAnnouncementOfAModule, HasALineButNoModuleInItsTag)
{
    const kit::Outcome outcome =
        withEnvironment(plain({{"VEXA_LOG_INFO_MODULES", "a"}}), [] { say(STBLogLevel_eTrace, "dropped"); });

    EXPECT_THAT(
        toldBehindGreeting(outcome),
        ElementsAre(testing::MatchesRegex("D \\[:[0-9]+\\] Setting loglevel for module 'a' to 'INFO'")));
}

// --- The life of a logger

TEST(TheGreeting, ComesBeforeTheFirstMessageAndHasNoTag)
{
    const kit::Outcome outcome = withEnvironment(plain(), [] { say(STBLogLevel_eInfo, "first"); });

    EXPECT_THAT(told(outcome), ElementsAre("I " + kGreeting, "I [Bluez:42] first"));
}

TEST(TheGreeting, ComesAlsoWhenTheFirstMessageIsDropped)
{
    const kit::Outcome outcome = withEnvironment(plain(), [] {
        say(STBLogLevel_eTrace, "dropped");
        say(STBLogLevel_eTrace, "dropped");
    });

    EXPECT_THAT(told(outcome), ElementsAre("I " + kGreeting));
}

TEST(TheGreeting, IsSubjectToTheLevelItself)
{
    const kit::Outcome outcome =
        withEnvironment(plain({{"VEXA_LOG_LEVEL", "WARN"}}), [] { say(STBLogLevel_eWarn, "first"); });

    EXPECT_THAT(told(outcome), ElementsAre("W [Bluez:42] first"));
}

TEST(TheFirstRecord, IsTheOneThatCounts)
{
    const kit::Outcome outcome = withEnvironment(plain(), [] {
        say(STBLogLevel_eInfo, "first");
        STBLoggerLogParams other = daemonParams();
        other.prefix = ">>";
        other.defaultLevel = "error";
        other.lineNumbers = false;
        other.threadId = true;
        STBLogger_log(&other, "", STBLogLevel_eDebug, 43, "Bluez.cpp", "second");
    });

    EXPECT_THAT(toldBehindGreeting(outcome), ElementsAre("I [Bluez:42] first", "D [Bluez:43] second"));
}

TEST(TheEnvironment, IsReadOnceOnly)
{
    const kit::Outcome outcome = withEnvironment(plain(), [] {
        say(STBLogLevel_eInfo, "first");
        setenv("VEXA_LOG_LEVEL", "ERROR", 1);
        setenv("VEXA_LOG_LINENUM", "0", 1);
        say(STBLogLevel_eDebug, "second");
    });

    EXPECT_THAT(toldBehindGreeting(outcome), ElementsAre("I [Bluez:42] first", "D [Bluez:42] second"));
}

TEST(EachApplication, HasALoggerAndVariablesOfItsOwn)
{
    const kit::Outcome outcome =
        withEnvironment(plain({{"OTHER_LOG_LEVEL", "ERROR"}, {"OTHER_LOG_USE_COLORS", "0"}}), [] {
            STBLoggerLogParams other = daemonParams();
            other.application = "OTHER";
            STBLogger_log(&other, "", STBLogLevel_eInfo, 42, "Bluez.cpp", "dropped");
            STBLogger_log(&other, "", STBLogLevel_eError, 42, "Bluez.cpp", "of the other");
            say(STBLogLevel_eInfo, "of the daemon");
        });

    EXPECT_THAT(told(outcome),
                ElementsAre("E [Bluez:42] of the other", "I " + kGreeting, "I [Bluez:42] of the daemon"));
}

struct NullCase : NamedCase {
    void (*spoil)(STBLoggerLogParams& params, const char*& module);
};

class ANull : public testing::TestWithParam<NullCase>
{
};

TEST_P(ANull, IsALogicErrorThatPassesThroughAndLeavesTheLoggerUsable)
{
    for (const char* level : {"", "INFO"}) { // also where the variable stands in for the default
        const kit::Outcome outcome = withEnvironment(
            plain(*level != '\0' ? Environment{{"VEXA_LOG_LEVEL", level}} : Environment{}), [] {
                STBLoggerLogParams params = daemonParams();
                const char* module = "";
                GetParam().spoil(params, module);
                EXPECT_THROW(STBLogger_log(&params, module, STBLogLevel_eInfo, 42, "Bluez.cpp", "text"),
                             std::logic_error);
                say(STBLogLevel_eInfo, "goes on");
            });

        EXPECT_THAT(toldBehindGreeting(outcome), ElementsAre("I [Bluez:42] goes on"));
    }
}

TEST_P(ANull, DoesntHarmTheEndOfTheProcess)
{
    const kit::Outcome outcome = withEnvironment(plain(), [] {
        STBLoggerLogParams params = daemonParams();
        const char* module = "";
        GetParam().spoil(params, module);
        EXPECT_THROW(STBLogger_log(&params, module, STBLogLevel_eInfo, 42, "Bluez.cpp", "text"),
                     std::logic_error);
    });

    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
}

const NullCase kANullCases[] = {
    {"Module", [](STBLoggerLogParams&, const char*& module) { module = nullptr; }},
    {"Application", [](STBLoggerLogParams& params, const char*&) { params.application = nullptr; }},
    {"Prefix", [](STBLoggerLogParams& params, const char*&) { params.prefix = nullptr; }},
    {"DefaultLevel", [](STBLoggerLogParams& params, const char*&) { params.defaultLevel = nullptr; }},
};

INSTANTIATE_TEST_SUITE_P(Table, ANull, testing::ValuesIn(kANullCases), named);

TEST(AnEmptyPrefix, LeavesTheTimeAtTheHeadOfTheLine)
{
    const kit::Outcome outcome = withEnvironment(plain(), [] {
        STBLoggerLogParams params = daemonParams();
        params.prefix = "";
        STBLogger_log(&params, "", STBLogLevel_eInfo, 42, "Bluez.cpp", "text");
    });

    EXPECT_THAT(outcome.errors, testing::EndsWith("\n12:34:56.789 I [Bluez:42] text\n"));
}

TEST(APrefixThatLooksLikeAFormat, IsWrittenAsItIs)
{
    const kit::Outcome outcome = withEnvironment(plain(), [] {
        STBLoggerLogParams params = daemonParams();
        params.prefix = "%s%n ";
        STBLogger_log(&params, "", STBLogLevel_eInfo, 42, "Bluez.cpp", "text");
    });

    EXPECT_THAT(outcome.errors, testing::EndsWith("\n%s%n 12:34:56.789 I [Bluez:42] text\n"));
}

// --- syslog

TEST(Syslog, IsOpenedWithTheDefaultNameAndClosedAtTheEnd)
{
    const kit::Outcome outcome = withEnvironment(onSyslogOnly(), [] { say(STBLogLevel_eInfo, "text"); });

    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
    EXPECT_THAT(kit::linesOf(outcome.output), ElementsAre("openlog null 3 8", // LOG_PID | LOG_CONS, LOG_USER

                                                          "syslog 6 %s <.789 " + kGreeting + ">",
                                                          "syslog 6 %s <.789 [Bluez:42] text>", "closelog"));
    EXPECT_EQ("", outcome.errors);
}

TEST(Syslog, IsClosedForEachLoggerThatUsesIt)
{
    const kit::Outcome outcome = withEnvironment(onSyslogOnly(), [] {
        setenv("SECOND_LOG_SYSLOG", "y", 1);
        for (const char* application : {"VEXA", "SECOND", "THIRD"}) {
            STBLoggerLogParams params = daemonParams();
            params.application = application;
            STBLogger_log(&params, "", STBLogLevel_eTrace, 42, "main.cpp", "dropped");
        }
    });

    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
    const auto lines = kit::linesOf(outcome.output);
    EXPECT_EQ(2, std::count(lines.begin(), lines.end(), "openlog null 3 8"));
    EXPECT_EQ(2, std::count(lines.begin(), lines.end(), "closelog"));
}

TEST(Syslog, IsLeftAloneWhileItIsOff)
{
    const kit::Outcome outcome = withEnvironment({}, [] { say(STBLogLevel_eInfo, "text"); });

    EXPECT_EQ("", outcome.output);
}

struct PriorityCase : NamedCase {
    STBLogLevel level;
    int priority;
    const char* text;
};

class APriority : public testing::TestWithParam<PriorityCase>
{
};

TEST_P(APriority, FollowsTheLevel)
{
    const kit::Outcome outcome =
        withEnvironment(onSyslogOnly({{"VEXA_LOG_LEVEL", "TRACE"}}), [] { say(GetParam().level, "text"); });

    EXPECT_THAT(sent(outcome), ElementsAre("syslog " + std::to_string(GetParam().priority) + " %s <" +
                                           GetParam().text + ">"));
}

const PriorityCase kAPriorityCases[] = {
    {"OfNone", STBLogLevel_eNone, 5, ".789 [Bluez:42] text"},
    {"OfError", STBLogLevel_eError, 3, ".789 [Bluez:42] text"},
    {"OfWarn", STBLogLevel_eWarn, 4, ".789 [Bluez:42] text"},
    {"OfInfo", STBLogLevel_eInfo, 6, ".789 [Bluez:42] text"},
    {"OfDebug", STBLogLevel_eDebug, 7, ".789 [Bluez:42] text"},
    {"OfTrace", STBLogLevel_eTrace, 7, ".789 TRACE [Bluez:42] text"},
    {"OfMinusOne", static_cast<STBLogLevel>(-1), 5, ".789 [Bluez:42] text"},
};

INSTANTIATE_TEST_SUITE_P(Table, APriority, testing::ValuesIn(kAPriorityCases), named);

struct SegmentCase : NamedCase {
    const char* text;
    std::vector<const char*> records;
};

class ATextForSyslog : public testing::TestWithParam<SegmentCase>
{
};

TEST_P(ATextForSyslog, GoesLineByLine)
{
    const kit::Outcome outcome =
        withEnvironment(onSyslogOnly(), [] { say(STBLogLevel_eInfo, GetParam().text); });

    std::vector<std::string> expected;
    for (const char* record : GetParam().records) {
        expected.push_back(std::string("syslog 6 %s <") + record + ">");
    }
    EXPECT_EQ(expected, sent(outcome));
}

const SegmentCase kATextForSyslogCases[] = {
    {"OfOneLine", "one", {".789 [Bluez:42] one"}},
    {"OfTwoLines", "one\ntwo", {".789 [Bluez:42] one", "two"}},
    {"OfTwoLinesAndANewline", "one\ntwo\n", {".789 [Bluez:42] one", "two"}},
    {"OfThreeLines", "one\ntwo\nthree", {".789 [Bluez:42] one", "two", "three"}},
    {"WithAnEmptyLineWithin", "one\n\ntwo", {".789 [Bluez:42] one", ""}},
    {"WithAnEmptyLineAndMoreBehind", "one\n\ntwo\nthree", {".789 [Bluez:42] one", ""}},
    {"WithTwoNewlinesAtItsEnd", "one\n\n", {".789 [Bluez:42] one"}},
    {"WithThreeNewlinesAtItsEnd", "one\n\n\n", {".789 [Bluez:42] one", ""}},
    {"WithANewlineAtItsHead", "\none", {".789 [Bluez:42] ", "one"}},
    {"WithFormatSigns", "100%s%n", {".789 [Bluez:42] 100%s%n"}},
};

INSTANTIATE_TEST_SUITE_P(Table, ATextForSyslog, testing::ValuesIn(kATextForSyslogCases), named);

TEST(ATextForSyslogWithAThreadIdentifier, HasItBehindTheMilliseconds)
{
    const kit::Outcome outcome =
        withEnvironment(onSyslogOnly({{"VEXA_LOG_THREAD_ID", "y"}, {"VEXA_LOG_LINENUM", "0"}}),
                        [] { say(STBLogLevel_eInfo, "text"); });

    EXPECT_THAT(sent(outcome),
                ElementsAre(testing::MatchesRegex("syslog 6 %s <.789 0x[0-9a-f]+ \\[Bluez\\] text>")));
}

TEST(ALongTextForSyslog, IsCutTo1023Characters)
{
    const kit::Outcome outcome =
        withEnvironment(onSyslogOnly(), [] { say(STBLogLevel_eInfo, std::string(5000, 'x')); });

    const std::string head = ".789 [Bluez:42] ";
    EXPECT_THAT(sent(outcome),
                ElementsAre("syslog 6 %s <" + head + std::string(1023 - head.size(), 'x') + ">"));
}

TEST(TheUnknownLevelLine, GoesToSyslogIfThatIsOn)
{
    const kit::Outcome outcome =
        withEnvironment(onSyslogOnly({{"VEXA_LOG_LEVEL", "none"}}), [] { say(STBLogLevel_eInfo, "text"); });

    EXPECT_THAT(outcome.output, HasSubstr("Unknown log level: 'NONE', setting to 'INFO'>"));
    EXPECT_EQ("", outcome.errors);
}

} // namespace
