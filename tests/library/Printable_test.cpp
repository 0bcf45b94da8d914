// SPDX-License-Identifier: MIT
#include "Printable.h"

#include <gtest/gtest.h>
#include <string>

#include "tests/kit/Allocations.h"
#include "tests/kit/NamedCase.h"

namespace
{

struct TextCase : kit::NamedCase {
    std::string text;
    std::string shown;
};

// --- With control characters ---

class AControlCharacter : public testing::TestWithParam<TextCase>
{
};

TEST_P(AControlCharacter, IsShownAsAQuestionMark)
{
    EXPECT_EQ(GetParam().shown, Printable(GetParam().text).text());
}

const TextCase kReplaced[] = {
    {{"OfTheEndOfALine"},
     "VEXA RC\n    12:34:56.789 W [main:1] REMOVE",
     "VEXA RC?    12:34:56.789 W [main:1] REMOVE"},
    {{"OfATerminalsEscapeSequence"}, "a\x1b[2Jb", "a?[2Jb"},
    {{"ThatIsTheFirst"}, std::string("a\0b", 3), "a?b"},
    {{"ThatIsTheLastBelowTheBlank"}, "a\x1f b", "a? b"},
    {{"ThatDeletes"}, "~\x7f", "~?"},
    {{"OfTwoBytesThatIsTheFirst"}, "a\xC2\x80", "a?"},
    {{"OfTwoBytesThatIsTheLast"}, "\xC2\x9F", "?"},
    {{"OfTwoBytesThatBeginsASequence"}, std::string("\xC2\x9B") + "31m", "?31m"},
    {{"OfOneByteThatIsTheFirst"}, "\x80", "?"},
    {{"OfOneByteThatIsTheLast"}, std::string("a\x9f") + "b", "a?b"},
    {{"BehindACompleteSequence"}, "\xE2\x80\x99\x9B", "\xE2\x80\x99?"},
    {{"AtTheCutEndOfASequence"}, "\xE2\x80", "\xE2?"},
    {{"WithinASequenceThatIsBroken"}, "\xE2\x80z", "\xE2?z"},
    {{"WithinASequenceThatIsTooLong"}, "\xC0\x9B\xE0\x80\x9B", "\xC0?\xE0??"},
    {{"WithinASequenceBeyondUnicode"}, "\xF4\x90\x80\x80", "\xF4???"},
    {{"WithinHalfOfAPair"}, "\xED\xA0\x80", "\xED\xA0?"},
    {{"BehindAByteThatBeginsNothing"}, "\xE2\xC2\x9B", "\xE2?"},
    {{"BesideOthers"}, "\r\n\t", "???"},
};

INSTANTIATE_TEST_SUITE_P(Table, AControlCharacter, testing::ValuesIn(kReplaced), kit::named);

// --- Without ---

class AnOrdinaryText : public testing::TestWithParam<TextCase>
{
};

TEST_P(AnOrdinaryText, IsNeitherChangedNorCopied)
{
    const std::string& text = GetParam().text;
    const int before = allocations;
    const Printable printable(text);
    const Printable fromPointer(text.c_str());
    const int after = allocations;

    EXPECT_EQ(text.c_str(), printable.text()); // the same place
    EXPECT_EQ(text.c_str(), fromPointer.text());
    EXPECT_EQ(before, after);
}

const TextCase kKept[] = {
    {{"OfAsciiFromEndToEnd"}, " !09AZaz~ and more than fits into a short string", ""},
    {{"ThatIsEmpty"}, "", ""},
    {{"WithAnApostropheOfThreeBytes"}, "Mary\xE2\x80\x99s remote control in the living room", ""},
    {{"WithLettersOfTwoBytes"},
     "K\xC3\xBC"
     "che \xC3\x80 \xC3\x9F",
     ""}, // their second bytes from 80 to 9F
    {{"WithTheFirstCharacterBehindTheControls"}, "\xC2\xA0", ""},
    {{"WithACharacterOfFourBytes"}, "\xF0\x9F\x93\xBA", ""},
    {{"WithBytesThatAreNoUtf8"}, "caf\xE9 \xA0\xFF", ""},
};

INSTANTIATE_TEST_SUITE_P(Table, AnOrdinaryText, testing::ValuesIn(kKept), kit::named);

TEST(ANullPointer, IsShownAsAnEmptyText)
{
    EXPECT_STREQ("", Printable(nullptr).text());
}

TEST(ATextByPointer, HasItsControlCharactersReplacedToo)
{
    EXPECT_STREQ("a?b", Printable("a\nb").text());
}

} // namespace
