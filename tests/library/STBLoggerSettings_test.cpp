// SPDX-License-Identifier: MIT
// How an application's record and the environment configure a logger, how long it lives, and syslog.
#include <algorithm>
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/kit/NamedCase.h"
#include "tests/library/STBLoggerChild.h"

namespace
{

using kit::named;
using kit::NamedCase;
using testing::ElementsAre;
using testing::HasSubstr;

// --- Yes and no ---

struct FlagCase : kit::NamedCase {
    const char* value; ///< null: not set
    bool on;           ///< for a record that says no
    bool onByRecord;   ///< for a record that says yes
};

class AFlagOfTheEnvironment : public testing::TestWithParam<FlagCase>
{
protected:
    static kit::Outcome logWith(const std::string& variable, const STBLoggerLogParams& params)
    {
        Environment environment;
        if (GetParam().value != nullptr) {
            environment[variable] = GetParam().value;
        }
        return withEnvironment(environment, [&] { say({}, params); });
    }

    static STBLoggerLogParams bareParams()
    {
        STBLoggerLogParams params{};
        params.prefix = "";
        params.application = "VEXA";
        params.defaultLevel = "debug";
        return params;
    }
};

TEST_P(AFlagOfTheEnvironment, DecidesAboutWhatALineShows)
{
    struct Setting {
        const char* variable;
        bool STBLoggerLogParams::*member;
        const char* shown;
    };
    for (const Setting& setting :
         {Setting{"VEXA_LOG_LINENUM", &STBLoggerLogParams::lineNumbers, "[Bluez:42]"},
          Setting{"VEXA_LOG_THREAD_ID", &STBLoggerLogParams::threadId, " I 0x"},
          Setting{"VEXA_LOG_USE_COLORS", &STBLoggerLogParams::useColors, "\x1b"}}) {
        for (const bool record : {false, true}) {
            STBLoggerLogParams params = bareParams();
            params.*setting.member = record;
            const kit::Outcome outcome = logWith(setting.variable, params);
            EXPECT_EQ(record ? GetParam().onByRecord : GetParam().on,
                      outcome.errors.find(setting.shown) != std::string::npos)
                << setting.variable << ": " << outcome;
            EXPECT_THAT(outcome.errors, HasSubstr("] text\n"));
        }
    }
}

TEST_P(AFlagOfTheEnvironment, DecidesAboutSyslog)
{
    const kit::Outcome outcome = logWith("VEXA_LOG_SYSLOG", bareParams());

    EXPECT_EQ(GetParam().on, outcome.errors.empty()) << outcome;
    EXPECT_EQ(GetParam().on, !outcome.output.empty()) << outcome;
}

const FlagCase kFlags[] = {
    {"NotSet", nullptr, false, true},     {"One", "1", true, true},       {"Y", "y", true, true},
    {"Zero", "0", false, false},          {"Empty", "", false, false},    {"CapitalY", "Y", false, false},
    {"Yes", "yes", false, false},         {"True", "true", false, false}, {"Eleven", "11", false, false},
    {"OneAndABlank", "1 ", false, false},
};

INSTANTIATE_TEST_SUITE_P(Table, AFlagOfTheEnvironment, testing::ValuesIn(kFlags), named);

// --- Lists of modules, and the lifetime of a logger ---

struct StoryCase : kit::NamedCase {
    Environment environment;
    void (*log)();
    std::vector<std::string> lines; ///< after the greeting
};

class ALogger : public testing::TestWithParam<StoryCase>
{
};

TEST_P(ALogger, Writes)
{
    Environment environment = GetParam().environment;
    environment.insert({"VEXA_LOG_LINENUM", "0"});

    EXPECT_EQ(GetParam().lines, logged(environment, GetParam().log));
}

void dropOne()
{
    say(STBLogLevel_eTrace, "dropped");
}

void logWithListsOfTheRecord()
{
    STBLoggerLogParams params = daemonParams();
    params.warnModules = "w";
    params.infoModules = "i";
    params.debugModules = "d";
    params.traceModules = "t";
    say({STBLogLevel_eTrace}, params);
}

void logWithBluezAtWarn()
{
    STBLoggerLogParams params = daemonParams();
    params.warnModules = "Bluez";
    say({}, params);
}

void logWithAnotherRecordBehind()
{
    say(STBLogLevel_eInfo, "first");
    STBLoggerLogParams other = daemonParams();
    other.prefix = ">>";
    other.defaultLevel = "error";
    other.lineNumbers = true;
    other.threadId = true;
    say({STBLogLevel_eDebug, "second"}, other);
}

void logWithAnotherEnvironmentBehind()
{
    say(STBLogLevel_eInfo, "first");
    setenv("VEXA_LOG_LEVEL", "ERROR", 1);
    setenv("VEXA_LOG_LINENUM", "1", 1);
    say(STBLogLevel_eDebug, "second");
}

std::string setting(const std::string& module, const std::string& level)
{
    return "D Setting loglevel for module '" + module + "' to '" + level + "'";
}

Environment traceModules(const char* list)
{
    return {{"VEXA_LOG_TRACE_MODULES", list}};
}

const StoryCase kStories[] = {
    {{"NothingOfAnEmptyList"}, traceModules(""), dropOne, {}},
    {{"NothingOfACommaAlone"}, traceModules(","), dropOne, {}},
    {{"NothingOfCommasAlone"}, traceModules(",,,"), dropOne, {}},
    {{"TheOneModuleOfAList"}, traceModules("a"), dropOne, {setting("a", "TRACE")}},
    {{"TheModulesOfAListByName"},
     traceModules("b,a"),
     dropOne,
     {setting("a", "TRACE"), setting("b", "TRACE")}},
    {{"TheModulesBetweenRunsOfCommas"},
     traceModules(",,a,,,b,,"),
     dropOne,
     {setting("a", "TRACE"), setting("b", "TRACE")}},
    {{"TheModulesWithTheirBlanks"},
     traceModules("a, b ,c"),
     dropOne,
     {setting(" b ", "TRACE"), setting("a", "TRACE"), setting("c", "TRACE")}},
    {{"ARepeatedModuleOnce"}, traceModules("a,b,a"), dropOne, {setting("a", "TRACE"), setting("b", "TRACE")}},
    {{"TheMostTalkativeLevelOfAModuleInSeveralLists"},
     {{"VEXA_LOG_WARN_MODULES", "a,b,c,d"},
      {"VEXA_LOG_INFO_MODULES", "b,c,d"},
      {"VEXA_LOG_DEBUG_MODULES", "c,d"},
      {"VEXA_LOG_TRACE_MODULES", "d"}},
     dropOne,
     {setting("a", "WARN"), setting("b", "INFO"), setting("c", "DEBUG"), setting("d", "TRACE")}},
    {{"TheListsOfTheRecordWhereTheEnvironmentHasNone"}, // whose lists replace the record's
     {{"VEXA_LOG_INFO_MODULES", "e"}},
     logWithListsOfTheRecord,
     {setting("d", "DEBUG"), setting("e", "INFO"), setting("t", "TRACE"), setting("w", "WARN")}},
    {{"ByTheEmptyListOfTheEnvironmentInsteadOfTheRecords"},
     {{"VEXA_LOG_WARN_MODULES", ""}},
     logWithBluezAtWarn,
     {"I [Bluez] text"}},
    {{"AsItsFirstRecordSays"}, {}, logWithAnotherRecordBehind, {"I [Bluez] first", "D [Bluez] second"}},
    {{"AsTheEnvironmentWasAtFirst"},
     {},
     logWithAnotherEnvironmentBehind,
     {"I [Bluez] first", "D [Bluez] second"}},
};

INSTANTIATE_TEST_SUITE_P(Table, ALogger, testing::ValuesIn(kStories), named);

TEST(TheAnnouncementOfAModule, HasALineButNoModuleInItsTag)
{
    EXPECT_THAT(
        logged({{"VEXA_LOG_INFO_MODULES", "a"}}, dropOne),
        ElementsAre(testing::MatchesRegex("D \\[:[0-9]+\\] Setting loglevel for module 'a' to 'INFO'")));
}

TEST(TheGreeting, ComesOnceBeforeTheFirstMessageAlsoIfThatIsDropped)
{
    const kit::Outcome outcome = withEnvironment(plain(), [] {
        dropOne();
        say(STBLogLevel_eInfo, "second");
    });

    EXPECT_THAT(told(outcome), ElementsAre("I " + kGreeting, "I [Bluez:42] second"));
}

TEST(TheGreeting, IsSubjectToTheLevelItself)
{
    const kit::Outcome outcome =
        withEnvironment(plain({{"VEXA_LOG_LEVEL", "WARN"}}), [] { say(STBLogLevel_eWarn, "first"); });

    EXPECT_THAT(told(outcome), ElementsAre("W [Bluez:42] first"));
}

TEST(EachApplication, HasALoggerAndVariablesOfItsOwn)
{
    const kit::Outcome outcome =
        withEnvironment(plain({{"OTHER_LOG_LEVEL", "ERROR"}, {"OTHER_LOG_USE_COLORS", "0"}}), [] {
            STBLoggerLogParams other = daemonParams();
            other.application = "OTHER";
            say({STBLogLevel_eInfo, "dropped"}, other);
            say({STBLogLevel_eError, "of the other"}, other);
            say(STBLogLevel_eInfo, "of the daemon");
        });

    EXPECT_THAT(told(outcome),
                ElementsAre("E [Bluez:42] of the other", "I " + kGreeting, "I [Bluez:42] of the daemon"));
}

struct NullCase : kit::NamedCase {
    void (*spoil)(STBLoggerLogParams& params, const char*& module);
};

class ANull : public testing::TestWithParam<NullCase>
{
};

void logSpoilt()
{
    STBLoggerLogParams params = daemonParams();
    const char* module = "";
    ANull::GetParam().spoil(params, module);
    EXPECT_THROW(STBLogger_log(&params, module, STBLogLevel_eInfo, 42, "Bluez.cpp", "text"),
                 std::logic_error);
}

TEST_P(ANull, IsALogicErrorThatPassesThroughAndLeavesTheLoggerUsable)
{
    // Also where the variable stands in for the default.
    for (const Environment& environment : {Environment{}, Environment{{"VEXA_LOG_LEVEL", "INFO"}}}) {
        const auto lines = logged(environment, [] {
            logSpoilt();
            say(STBLogLevel_eInfo, "goes on");
        });

        EXPECT_THAT(lines, ElementsAre("I [Bluez:42] goes on"));
    }
}

TEST_P(ANull, DoesntHarmTheEndOfTheProcess)
{
    const kit::Outcome outcome = withEnvironment(plain(), logSpoilt);

    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
}

const NullCase kANullCases[] = {
    {"Module", [](STBLoggerLogParams&, const char*& module) { module = nullptr; }},
    {"Application", [](STBLoggerLogParams& params, const char*&) { params.application = nullptr; }},
    {"Prefix", [](STBLoggerLogParams& params, const char*&) { params.prefix = nullptr; }},
    {"DefaultLevel", [](STBLoggerLogParams& params, const char*&) { params.defaultLevel = nullptr; }},
};

INSTANTIATE_TEST_SUITE_P(Table, ANull, testing::ValuesIn(kANullCases), named);

TEST(ThePrefix, IsWrittenAsItIs)
{
    for (const char* prefix : {"", "%s%n "}) {
        const kit::Outcome outcome = withEnvironment(plain(), [&] {
            STBLoggerLogParams params = daemonParams();
            params.prefix = prefix;
            say({}, params);
        });

        EXPECT_THAT(outcome.errors,
                    testing::EndsWith(std::string("\n") + prefix + "12:34:56.789 I [Bluez:42] text\n"));
    }
}

// --- syslog ---

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
            say({STBLogLevel_eTrace}, params);
        }
    });

    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
    const auto lines = kit::linesOf(outcome.output);
    EXPECT_EQ(2, std::count(lines.begin(), lines.end(), "openlog null 3 8"));
    EXPECT_EQ(2, std::count(lines.begin(), lines.end(), "closelog"));
}

struct SegmentCase : kit::NamedCase {
    const char* text;
    std::vector<const char*> records;
};

class ATextForSyslog : public testing::TestWithParam<SegmentCase>
{
};

TEST_P(ATextForSyslog, GoesLineByLine)
{
    std::vector<std::string> expected;
    for (const char* record : GetParam().records) {
        expected.push_back(std::string("syslog 6 %s <") + record + ">");
    }
    EXPECT_EQ(expected, sent({}, [] { say(STBLogLevel_eInfo, GetParam().text); }));
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
    const auto records = sent({{"VEXA_LOG_THREAD_ID", "y"}, {"VEXA_LOG_LINENUM", "0"}},
                              [] { say(STBLogLevel_eInfo, "text"); });

    EXPECT_THAT(records,
                ElementsAre(testing::MatchesRegex("syslog 6 %s <.789 0x[0-9a-f]+ \\[Bluez\\] text>")));
}

TEST(ALongTextForSyslog, IsCutTo1023Characters)
{
    const std::string head = ".789 [Bluez:42] ";
    EXPECT_THAT(sent({}, [] { say(STBLogLevel_eInfo, std::string(5000, 'x')); }),
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
