// SPDX-License-Identifier: MIT
// The real program vexafw, on real files.
#include <cstdlib>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "tests/kit/ChildProcess.h"
#include "tests/kit/FirmwareImage.h"
#include "tests/kit/NamedCase.h"
#include "tests/kit/ScratchFolder.h"

namespace
{

using testing::HasSubstr;
using testing::Not;

class Vexafw : public testing::Test
{
protected:
    Vexafw() { unsetenv("VEXA_LOG_LEVEL"); }

    static kit::Outcome run(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), VEXAFW_PROGRAM);
        return kit::runProgram(std::move(arguments));
    }

    /// Packs into the file "packed" of the folder.
    kit::Outcome pack(const std::string& payload, const std::vector<std::string>& more = {}) const
    {
        std::vector<std::string> command{"pack", payload, packed(), "--signature", "1", "--version", "2"};
        command.insert(command.end(), more.begin(), more.end());
        return run(command);
    }
    std::string packed() const { return mFolder.path("packed"); }

    std::string image(const kit::FirmwareImage& content) const
    {
        return mFolder.write("image.bin", content.file());
    }

    /// Expects a failure with status 2, `word` on standard error and no other output.
    static void expectError(const kit::Outcome& result, const std::string& word)
    {
        EXPECT_EQ(kit::Exit::with(2), result.exit);
        EXPECT_THAT(result.errors, HasSubstr(word));
        EXPECT_EQ("", result.output);
    }

    kit::ScratchFolder mFolder;
};

// --- info ---

TEST_F(Vexafw, InfoShowsTheHeaderThePayloadAndTheTransfer)
{
    const std::string path = image(kit::FirmwareImage::ofWords(250));

    const auto result = run({"info", path});

    EXPECT_TRUE(result.exitedWith(0));
    EXPECT_EQ("", result.errors);
    EXPECT_EQ(path + "\n"
                     "  offset      0x0011\n"
                     "  signature   0x1234\n"
                     "  version     0x0205\n"
                     "  checksum    0xbeef\n"
                     "  length      250 words, 1000 bytes\n"
                     "  ota_flag    0x5a\n"
                     "  reserved    0xa5\n"
                     "  payload     1000 bytes in the file\n"
                     "  transfer    1000 bytes in 50 blocks, at least 0.7 s\n",
              result.output);
}

TEST_F(Vexafw, InfoShowsTheLargestImage)
{
    const auto result = run({"info", image(kit::FirmwareImage::ofWords(65535))});

    EXPECT_THAT(result.output, HasSubstr("  transfer    262140 bytes in 13107 blocks, at least 170.4 s\n"));
    EXPECT_THAT(result.output, Not(HasSubstr("warning")));
}

TEST_F(Vexafw, InfoLogsAsTheDaemonDoesWhenAsked)
{
    setenv("VEXA_LOG_LEVEL", "DEBUG", 1);

    const auto result = run({"info", image(kit::FirmwareImage::ofWords(5))});

    EXPECT_THAT(result.errors, HasSubstr("signature: 0x1234"));
}

struct Oddity : kit::NamedCase {
    std::size_t bytes; // of payload in the file
    std::uint16_t words;
    bool exact;
    std::vector<std::string> warnings;
};

constexpr char kFails[] =
    " before the announced length: the daemon sends what there is and logs \"Stream end\", "
    "and the update fails";
constexpr char kOvershoots[] =
    " from beyond the payload: the length isn't a multiple of 5 words and the file goes on";
constexpr char kLastBlock[] = "the length isn't a multiple of 5 words: the last block holds ";
constexpr char kNoData[] = "length 0: the daemon sends no data and asks the remote to verify at once";

const Oddity kOddities[] = {
    {{"PlainAndGood"}, 1000, 250, true, {}},
    {{"AFileOneByteShort"}, 999, 250, false, {std::string{"the file ends 1 byte"} + kFails}},
    {{"AFileWithoutPayload"}, 0, 5, false, {std::string{"the file ends 20 bytes"} + kFails}},
    {{"ALongerFileAndFullBlocks"}, 1003, 250, true, {"the last 3 bytes of the file are never read"}},
    {{"ALongerFileOfOneWord"},
     45,
     1,
     false,
     {std::string{"the last block carries 16 bytes"} + kOvershoots,
      "the last 25 bytes of the file are never read"}},
    {{"ALongerFileThatEndsInTheBlock"},
     5,
     1,
     false,
     {std::string{"the last block carries 1 byte"} + kOvershoots}},
    {{"ALastBlockOfSixteen"}, 36, 9, true, {std::string{kLastBlock} + "16 bytes"}},
    {{"ALastBlockInTheClear"},
     32,
     8,
     true,
     {std::string{kLastBlock} + "12 bytes, too few to be enciphered, and is sent in the clear"}},
    {{"NoLength"}, 0, 0, true, {kNoData}},
    {{"NoLengthButAPayload"}, 7, 0, true, {kNoData, "the last 7 bytes of the file are never read"}},
};

class AnImage : public Vexafw, public testing::WithParamInterface<Oddity>
{
protected:
    std::string warnings() const
    {
        std::string text;
        for (const auto& warning : GetParam().warnings) {
            text += "  warning     " + warning + "\n";
        }
        return text;
    }
    std::string path() const
    {
        return image(kit::FirmwareImage::ofBytes(GetParam().words, GetParam().bytes));
    }
};

TEST_P(AnImage, IsWarnedAboutByInfo)
{
    const auto result = run({"info", path()});

    EXPECT_TRUE(result.exitedWith(0));
    const std::size_t begin = result.output.find("  warning");
    EXPECT_EQ(warnings(), begin == std::string::npos ? "" : result.output.substr(begin));
}

TEST_P(AnImage, IsJudgedByVerify)
{
    const std::string file = path();
    const auto result = run({"verify", file});

    EXPECT_EQ(kit::Exit::with(GetParam().exact ? 0 : 1), result.exit);
    EXPECT_EQ("", result.errors);
    EXPECT_EQ(file +
                  (GetParam().exact ? ": the daemon sends exactly what the header says\n"
                                    : ": the daemon doesn't send what the header says\n") +
                  warnings(),
              result.output);
}

INSTANTIATE_TEST_SUITE_P(With, AnImage, testing::ValuesIn(kOddities), kit::named);

TEST_F(Vexafw, VerifyRefusesVersionZeroWhichIsNeverSent)
{
    kit::FirmwareImage odd = kit::FirmwareImage::ofWords(5);
    odd.version = 0;

    const auto result = run({"verify", image(odd)});

    EXPECT_EQ(kit::Exit::with(1), result.exit);
    EXPECT_THAT(result.output,
                HasSubstr("version 0: never newer than the remote's, so the daemon cancels the update"));
}

// --- Files at fault ---

TEST_F(Vexafw, SaysWhyAFileIsNoImage)
{
    for (const char* command : {"info", "verify"}) {
        SCOPED_TRACE(command);
        expectError(run({command, mFolder.path("missing")}),
                    "vexafw: can't open " + mFolder.path("missing") + ": No such file or directory\n");
        expectError(run({command, mFolder.path()}), "vexafw: " + mFolder.path() + " is a folder\n");
        expectError(run({command, "/dev/zero"}),
                    "vexafw: /dev/zero isn't a regular file, so the daemon doesn't accept it\n");
        const std::string shortFile = mFolder.write("short", "11 bytes...");
        expectError(run({command, shortFile}),
                    shortFile + " has 11 bytes, but the header of an image alone has 12\n");
    }
}

// --- pack ---

TEST_F(Vexafw, PackWritesTheHeaderAndThePayload)
{
    const kit::FirmwareImage wanted = kit::FirmwareImage::ofWords(25);
    const std::string payload = mFolder.write("payload", wanted.payload);

    const auto result =
        run({"pack", payload, packed(), "--offset", "0x11", "--signature", "0x1234", "--version", "517",
             "--checksum", "0xBEEF", "--ota-flag", "0x5a", "--reserved", "165"});

    EXPECT_TRUE(result.exitedWith(0)) << result;
    const auto file = wanted.file();
    EXPECT_EQ(std::string(file.begin(), file.end()), mFolder.read("packed"));
    EXPECT_THAT(result.output, HasSubstr("25 words, 100 bytes"));
    EXPECT_TRUE(run({"verify", packed()}).exitedWith(0));
    EXPECT_EQ(2, std::distance(std::filesystem::directory_iterator{mFolder.path()}, {}))
        << "nothing else is left";
}

TEST_F(Vexafw, PackFillsFieldsThatAreNotGivenWithZero)
{
    const std::string payload = mFolder.write("payload", "word");

    EXPECT_TRUE(pack(payload).exitedWith(0));

    EXPECT_EQ((std::string{"\0\0\1\0\2\0\0\0\1\0\0\0word", 16}), mFolder.read("packed"));
}

TEST_F(Vexafw, PackKeepsAnExistingFileUnlessForced)
{
    const std::string payload = mFolder.write("payload", "word");
    mFolder.write("packed", "precious");

    expectError(pack(payload), "exists: use --force");
    EXPECT_EQ("precious", mFolder.read("packed"));

    EXPECT_TRUE(pack(payload, {"--force"}).exitedWith(0));
    EXPECT_EQ(16U, mFolder.read("packed").size());
}

TEST_F(Vexafw, PackNeverReplacesThePayload)
{
    const std::string payload = mFolder.write("payload", "word");
    std::filesystem::create_symlink(payload, mFolder.path("link"));

    for (const auto& image : {payload, mFolder.path("link"), mFolder.path("./payload")}) {
        expectError(run({"pack", payload, image, "--signature", "1", "--version", "2", "--force"}),
                    image + " is the payload itself: choose another file for the image");
    }
    EXPECT_EQ("word", mFolder.read("payload"));
}

TEST_F(Vexafw, PackGivesTheImageThePermissionsOfAnyNewFile)
{
    const std::string payload = mFolder.write("payload", "word");
    const mode_t former = umask(027);
    EXPECT_TRUE(pack(payload).exitedWith(0));
    umask(former);

    EXPECT_EQ(static_cast<std::filesystem::perms>(0640), std::filesystem::status(packed()).permissions());
}

TEST_F(Vexafw, PackPadsOnlyWhenAsked)
{
    const std::string payload = mFolder.write("payload", "12345");

    expectError(pack(payload), "use --pad to append zeros");
    EXPECT_FALSE(std::filesystem::exists(packed()));

    EXPECT_TRUE(pack(payload, {"--pad"}).exitedWith(0));
    EXPECT_EQ((std::string{"\2\0\0\0"
                           "12345\0\0\0",
                           12}),
              mFolder.read("packed").substr(8));
}

TEST_F(Vexafw, PackAnnouncesAnyLengthForTests)
{
    const std::string payload = mFolder.write("payload", "12345");

    const auto result = pack(payload, {"--length", "65535"});

    EXPECT_TRUE(result.exitedWith(0));
    EXPECT_THAT(result.output, HasSubstr("length      65535 words, 262140 bytes"));
    EXPECT_EQ(17U, mFolder.read("packed").size());
}

TEST_F(Vexafw, PackTakesTheLargestPayloadAndNoMore)
{
    const std::string largest = mFolder.write("largest", std::string(262140, 'x'));
    EXPECT_TRUE(pack(largest).exitedWith(0));
    EXPECT_TRUE(run({"verify", packed()}).exitedWith(0));

    const std::string larger = mFolder.write("larger", std::string(262144, 'x'));
    expectError(pack(larger, {"--force"}), "has 262144 bytes, but an image carries at most 262140");
    EXPECT_EQ(262152U, mFolder.read("packed").size()) << "the image of before is gone";
}

TEST_F(Vexafw, PackSaysWhyAFileCantBeReadOrWritten)
{
    const std::string payload = mFolder.write("payload", "word");

    expectError(pack(mFolder.path("none")),
                "can't open " + mFolder.path("none") + ": No such file or directory");
    expectError(run({"pack", payload, mFolder.path("no/folder"), "--signature", "1", "--version", "2"}),
                "can't write " + mFolder.path("no/folder") + ": No such file or directory");
}

TEST_F(Vexafw, PackSaysWhichFieldIsOutOfRange)
{
    const std::string payload = mFolder.write("payload", "word");
    const auto packWith = [&](const std::string& field, const std::string& value) {
        std::vector<std::string> command{"pack", payload, packed(), field, value};
        for (const char* required : {"--signature", "--version"}) {
            if (field != required) {
                command.insert(command.end(), {required, "1"});
            }
        }
        return run(command);
    };

    for (const char* field : {"--signature", "--version", "--offset", "--checksum", "--length"}) {
        expectError(packWith(field, "65536"), field);
        expectError(packWith(field, "-1"), field);
        expectError(packWith(field, "abc"), field);
        expectError(packWith(field, "08"), "08 isn't a number from 0 to 65535");
        expectError(packWith(field, "1.5"), "1.5 isn't a number from 0 to 65535");
        expectError(packWith(field, "99999999999999999999"), "isn't a number from 0 to 65535");
    }
    for (const char* field : {"--ota-flag", "--reserved"}) {
        expectError(packWith(field, "256"), field);
    }
    expectError(run({"pack", payload, packed(), "--version", "1"}), "--signature is required");
    expectError(run({"pack", payload, packed(), "--signature", "1"}), "--version is required");
    EXPECT_FALSE(std::filesystem::exists(packed()));
}

// --- The command line ---

TEST_F(Vexafw, ExplainsItself)
{
    for (const auto& command : std::vector<std::vector<std::string>>{
             {"--help"}, {"info", "--help"}, {"verify", "--help"}, {"pack", "--help"}}) {
        const auto result = run(command);
        EXPECT_TRUE(result.exitedWith(0));
        EXPECT_THAT(result.output, HasSubstr("Usage: vexafw"));
        EXPECT_EQ("", result.errors);
    }
    EXPECT_TRUE(run({"--version"}).exitedWith(0));
}

TEST_F(Vexafw, RefusesACommandLineThatItDoesNotKnow)
{
    expectError(run({}), "vexafw: a command is required: info, verify or pack\n");
    expectError(run({"info"}), "vexafw: IMAGE is required\n");
    expectError(run({"melt", "image"}), "vexafw: a command is required: info, verify or pack\n");
    expectError(run({"info", "a", "b"}), "vexafw: The following argument was not expected: b\n");
    expectError(run({"info", "a", "b"}), "See vexafw --help.\n");
}

TEST_F(Vexafw, FailsIfNobodyCanReadItsAnswer)
{
    const std::string file = image(kit::FirmwareImage::ofWords(5));

    for (const char* command : {"info", "verify"}) {
        const auto result = kit::runProgram(
            {"/bin/sh", "-c", R"(exec "$0" "$@" > /dev/full)", VEXAFW_PROGRAM, command, file});
        EXPECT_EQ(kit::Exit::with(2), result.exit);
        EXPECT_EQ("vexafw: can't write to standard output: No space left on device\n", result.errors);
    }
}

} // namespace
