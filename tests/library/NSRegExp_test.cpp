// SPDX-License-Identifier: MIT
#include "NSRegExp.h"

#include <cstdio>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "tests/kit/ChildProcess.h"
#include "tests/kit/NamedCase.h"

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

using Groups = std::vector<std::string>;

// --- Matching ---

struct MatchCase : kit::NamedCase {
    const char* pattern;
    const char* text;
    bool matches;
    Groups groups;
};

class APattern : public testing::TestWithParam<MatchCase>
{
};

TEST_P(APattern, GivesTheMatchAndItsGroups)
{
    NSRegExp expression(GetParam().pattern, REG_EXTENDED);
    Groups groups{"filled", "earlier"};

    EXPECT_EQ(GetParam().matches, expression.match(GetParam().text, groups, 0));
    EXPECT_EQ(GetParam().groups, groups);
}

const MatchCase kMatches[] = {
    {"WithoutGroupsGivesTheWholeMatch", "b+", "abbc", true, {"bb"}},
    {"OfTwoAlternativeGroupsKeepsTheirPlaces", "(a)|(b)", "b", true, {"b", "", "b"}},
    {"OfTwoAlternativeGroupsLeavesTheSecondEmpty", "(a)|(b)", "a", true, {"a", "a", ""}},
    {"WithNestedGroupsGivesThemInOrder", "((a)(b))c", "xabc", true, {"abc", "ab", "a", "b"}},
    {"ThatMatchesNothingOfATextGivesAnEmptyString", "x*", "abc", true, {""}},
    {"ThatFailsEmptiesTheGroups", "b", "aaa", false, {}},
    {"OfTheRemotesNameMatchesAName", "^VEXA.+$", "VEXA RC", true, {"VEXA RC"}},
    {"OfTheRemotesNameWantsMoreThanThePrefix", "^VEXA.+$", "VEXA", false, {}},
    {"OfTheRemotesNameWantsItAtTheHead", "^VEXA.+$", "my VEXA RC", false, {}},
    {"WithGroupsOfAPathGivesItsParts",
     "^(.*)/([^/]+)$",
     "/org/bluez/hci0",
     true,
     {"/org/bluez/hci0", "/org/bluez", "hci0"}},
    {"OfManyGroupsGivesThemAll",
     "(a)(b)(c)(d)(e)(f)(g)(h)(i)(j)(k)",
     "abcdefghijk",
     true,
     {"abcdefghijk", "a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k"}},
    {"ThatIsEmptyMatchesAnything", "", "abc", true, {""}},
    {"OnAnEmptyTextCanMatch", "^$", "", true, {""}},
};

INSTANTIATE_TEST_SUITE_P(Table, APattern, testing::ValuesIn(kMatches), kit::named);

TEST(AnExpression, MatchesOneTextAfterTheOther)
{
    NSRegExp expression("([0-9]+)", REG_EXTENDED);
    Groups groups;

    EXPECT_TRUE(expression.match("service001", groups, 0));
    EXPECT_THAT(groups, ElementsAre("001", "001"));
    EXPECT_FALSE(expression.match("service", groups, 0));
    EXPECT_THAT(groups, IsEmpty());
    EXPECT_TRUE(expression.match("char42", groups, 0));
    EXPECT_THAT(groups, ElementsAre("42", "42"));
}

// --- Flags ---

TEST(TheFlagsOfTheConstructor, GoToTheCompilation)
{
    Groups groups;

    EXPECT_FALSE(NSRegExp("vexa", REG_EXTENDED).match("VEXA", groups, 0));
    EXPECT_TRUE(NSRegExp("vexa", REG_EXTENDED | REG_ICASE).match("VEXA", groups, 0));
    EXPECT_TRUE(NSRegExp("a+", 0).match("a+", groups, 0)); // a plus is literal in a basic expression
    EXPECT_THAT(groups, ElementsAre("a+"));
}

TEST(TheFlagsOfAMatch, GoToTheMatching)
{
    NSRegExp expression("^a", REG_EXTENDED);
    Groups groups;

    EXPECT_TRUE(expression.match("a", groups, 0));
    EXPECT_FALSE(expression.match("a", groups, REG_NOTBOL));
}

TEST(AnExpressionThatReportsNoGroups, GivesEmptyStringsInTheirPlaces)
{
    NSRegExp expression("(a)(b)", REG_EXTENDED | REG_NOSUB);
    Groups groups;

    EXPECT_TRUE(expression.match("ab", groups, 0));
    EXPECT_THAT(groups, ElementsAre("", "", ""));
}

// --- A pattern that doesn't compile ---

TEST(AnInvalidPattern, IsReportedOnceWhenItIsMade)
{
    const kit::Outcome outcome = kit::inChild([] { const NSRegExp expression("(a", REG_EXTENDED); });

    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
    EXPECT_EQ("NSRegExp: Error while compiling regexp: (a\n", outcome.errors);
    EXPECT_EQ("", outcome.output);
}

TEST(AnInvalidPattern, MatchesNothingSaysSoEachTimeAndLeavesTheGroupsAlone)
{
    const kit::Outcome outcome = kit::inChild([] {
        NSRegExp expression("[", REG_EXTENDED);
        Groups groups{"filled", "earlier"};
        EXPECT_FALSE(expression.match("[", groups, 0));
        EXPECT_FALSE(expression.match("", groups, 0));
        EXPECT_THAT(groups, ElementsAre("filled", "earlier"));
    });

    EXPECT_TRUE(outcome.exitedWith(0)) << outcome;
    EXPECT_EQ("NSRegExp: Error while compiling regexp: [\n"
              "NSRegExp: Error while matching (invalid regexp: [)\n"
              "NSRegExp: Error while matching (invalid regexp: [)\n",
              outcome.errors);
}

TEST(AValidPattern, WritesNothing)
{
    const kit::Outcome outcome = kit::inChild([] {
        NSRegExp expression("a", REG_EXTENDED);
        Groups groups;
        expression.match("a", groups, 0);
        expression.match("b", groups, 0);
    });

    EXPECT_EQ("", outcome.errors + outcome.output);
}

} // namespace
