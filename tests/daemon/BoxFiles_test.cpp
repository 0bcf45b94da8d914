// SPDX-License-Identifier: MIT
#include "BoxFiles.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <iterator>
#include <limits>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/daemon/Planter.h"
#include "tests/kit/NamedCase.h"
#include "tests/kit/ScratchFolder.h"

using std::string_literals::operator""s;
using kit::Planter;

ssize_t realWrite(int file, const void* bytes, std::size_t size) __asm__("__real_write");
ssize_t wrappedWrite(int file, const void* bytes, std::size_t size) __asm__("__wrap_write");
int realUnlink(const char* path) __asm__("__real_unlink");
int wrappedUnlink(const char* path) __asm__("__wrap_unlink");

namespace
{

std::size_t longestWrite = std::numeric_limits<std::size_t>::max();
std::function<void()> afterUnlink;

} // namespace

ssize_t wrappedWrite(int file, const void* bytes, std::size_t size)
{
    return realWrite(file, bytes, std::min(size, longestWrite));
}

int wrappedUnlink(const char* path)
{
    const int result = realUnlink(path);
    if (afterUnlink) {
        afterUnlink();
    }
    return result;
}

namespace
{

constexpr int kOtherwise = 1024;
const int kLargest = std::numeric_limits<int>::max();
const int kLeast = std::numeric_limits<int>::min();

class ABoxFile : public testing::Test
{
protected:
    ino_t inode() const
    {
        struct stat info {
        };
        return lstat(path.c_str(), &info) == 0 ? info.st_ino : 0;
    }

    kit::ScratchFolder folder;
    const std::string path = folder.path("file");
    kit::Planter planter{folder.path("victim"), folder.path("victim"), path};
};

// --- The number ---

struct Content : kit::NamedCase {
    std::string text;
    int number;
};

class ANumberFile : public ABoxFile, public testing::WithParamInterface<Content>
{
};

TEST_P(ANumberFile, IsReadAsByAStream)
{
    folder.write("file", GetParam().text);

    EXPECT_EQ(GetParam().number, box_files::readNumber(path.c_str(), kOtherwise));

    int ofStream = kOtherwise;
    std::istringstream(GetParam().text) >> ofStream;
    EXPECT_EQ(GetParam().number, ofStream) << "so the table is right";
}

INSTANTIATE_TEST_SUITE_P(
    Holding, ANumberFile,
    testing::Values(Content{{"Nothing"}, "", kOtherwise}, Content{{"ALineEnd"}, "\n", kOtherwise},
                    Content{{"EveryWhiteSpace"}, " \t\n\v\f\r", kOtherwise}, Content{{"AShortRead"}, "0", 0},
                    Content{{"TheThreshold"}, "900\n", 900}, Content{{"ANumberWithoutEnd"}, "901", 901},
                    Content{{"EveryWhiteSpaceBefore"}, " \t\n\v\f\r12\n", 12},
                    Content{{"APlus"}, "+12\n", 12}, Content{{"AMinus"}, "-12\n", -12},
                    Content{{"ASignAlone"}, "-", 0}, Content{{"TwoSigns"}, "+-12", 0},
                    Content{{"ASpaceBehindItsSign"}, "- 12", 0},
                    Content{{"LeadingZeros"}, "0000000000000000000000012\n", 12},
                    Content{{"AnOctalNumber"}, "010", 10}, Content{{"AHexadecimalNumber"}, "0x7f", 0},
                    Content{{"AFraction"}, "3.9", 3}, Content{{"AnExponent"}, "1e3", 1},
                    Content{{"AGroupedNumber"}, "1,023", 1}, Content{{"AUnit"}, "12mV", 12},
                    Content{{"TwoNumbers"}, "12 13", 12}, Content{{"Words"}, "no number", 0},
                    Content{{"ALineEndAndWords"}, "\nno number", 0}, Content{{"ANullByte"}, "\0"s, 0},
                    Content{{"ANullByteBehind"}, "12\0003"s, 12}, Content{{"AByteAboveAscii"}, "\xa0\x31", 0},
                    Content{{"TheLargestInt"}, "2147483647", kLargest},
                    Content{{"OneMoreThanTheLargestInt"}, "2147483648", kLargest},
                    Content{{"TheLeastInt"}, "-2147483648", kLeast},
                    Content{{"OneLessThanTheLeastInt"}, "-2147483649", kLeast},
                    Content{{"TheLargestLong"}, "9223372036854775807", kLargest},
                    Content{{"MoreThanALong"}, "9223372036854775808", kLargest},
                    Content{{"LessThanALong"}, "-9223372036854775809", kLeast},
                    Content{{"TwoHundredDigits"}, std::string(200, '9'), kLargest}),
    kit::named);

TEST_F(ABoxFile, ThatFailsToReadGivesNoNumber)
{
    EXPECT_EQ(kOtherwise, box_files::readNumber("/proc/self/mem", kOtherwise)); // nothing is at address 0
}

TEST_F(ABoxFile, IsReadForItsFirst256BytesAlone)
{
    planter.fifo(path);
    const kit::Handle writer(open(path.c_str(), O_RDWR | O_CLOEXEC));
    const std::string text(1000, '1');
    ASSERT_EQ(1000, realWrite(writer.get(), text.data(), text.size()));

    EXPECT_EQ(kLargest, box_files::readNumber(path.c_str(), kOtherwise));

    int left = 0;
    ASSERT_EQ(0, ioctl(writer.get(), FIONREAD, &left));
    EXPECT_EQ(1000 - 256, left);
}

// --- The things ---

struct Thing : kit::NamedCase {
    kit::Plant plant;
    bool readable;
    int number;
    bool replaced = true; ///< by a fresh status file
};

class AThing : public ABoxFile, public testing::WithParamInterface<Thing>
{
protected:
    void SetUp() override { (planter.*GetParam().plant)(path); }
};

TEST_P(AThing, IsAFlagIfItOpensAtOnce)
{
    EXPECT_EQ(GetParam().readable, box_files::isReadable(path.c_str()));
}

TEST_P(AThing, GivesItsNumberAtOnce)
{
    EXPECT_EQ(GetParam().number, box_files::readNumber(path.c_str(), kOtherwise));
}

TEST_P(AThing, GivesNoStreamUnlessItIsARegularFile)
{
    EXPECT_EQ(GetParam().plant == &Planter::emptyFile, box_files::openRegularFile(path).is_open());
}

TEST_P(AThing, GoesForAFreshStatusFileUnlessItIsAFolder)
{
    box_files::writeLine("init", path);

    EXPECT_EQ(GetParam().replaced, kit::isOwnFile(path));
    EXPECT_TRUE(GetParam().replaced ? folder.read("file") == "init\n" : std::filesystem::is_empty(path));
}

INSTANTIATE_TEST_SUITE_P(
    Which, AThing,
    testing::Values(Thing{{"IsNotThere"}, &Planter::nothing, false, kOtherwise},
                    Thing{{"IsAnEmptyFile"}, &Planter::emptyFile, true, kOtherwise},
                    Thing{{"IsAFolder"}, &Planter::folder, true, kOtherwise, false},
                    Thing{{"IsAFifo"}, &Planter::fifo, true, kOtherwise},
                    Thing{{"IsAFifoWithAWriter"}, &Planter::fifoWithSilentWriter, true, kOtherwise},
                    Thing{{"IsASocket"}, &Planter::socketFile, false, kOtherwise},
                    Thing{{"IsALeasedFile"}, &Planter::leasedFile, false, kOtherwise},
                    Thing{{"IsALinkToADevice"}, &Planter::linkToDevice, true, 0},
                    Thing{{"IsALinkToNothing"}, &Planter::linkToNothing, false, kOtherwise}),
    kit::named);

// --- The status files ---

class AStatusFile : public ABoxFile
{
protected:
    ~AStatusFile() override
    {
        longestWrite = std::numeric_limits<std::size_t>::max();
        afterUnlink = nullptr;
    }

    // After each of the next `times` unlinks, somebody is faster than the daemon and plants a link to the
    // file "victim".
    void plantAfterTheNextUnlinks(int times)
    {
        folder.write("victim", "untouched"s);
        std::filesystem::create_symlink(folder.path("victim"), path);
        afterUnlink = [this, times]() mutable {
            if (times-- > 0) {
                std::filesystem::create_symlink(folder.path("victim"), path);
            }
        };
    }
};

TEST_F(AStatusFile, IsMadeForItsFirstLine)
{
    const mode_t before = umask(0022);
    box_files::writeLine("init", path);
    umask(before);

    EXPECT_EQ("init\n", folder.read("file"));
    EXPECT_TRUE(kit::isOwnFile(path));
    EXPECT_EQ(std::filesystem::perms(0644), std::filesystem::status(path).permissions());
}

TEST_F(AStatusFile, IsWrittenInPlaceAfterwards)
{
    folder.write("file", "a longer word than the next one\n"s);
    const ino_t before = inode();
    std::ifstream reader(path);

    box_files::writeLine("init", path);

    EXPECT_EQ(before, inode());
    EXPECT_EQ("init\n", std::string(std::istreambuf_iterator<char>(reader), {}));
}

TEST_F(AStatusFile, IsWrittenWholeByAWriteThatComesToAStopEachTime)
{
    longestWrite = 3;

    box_files::writeLine("rc_fw_update_preparing", path);

    EXPECT_EQ("rc_fw_update_preparing\n", folder.read("file"));
}

TEST_F(AStatusFile, StaysWhenThereIsNoDescriptorLeft)
{
    folder.write("file", "old\n"s);
    const ino_t before = inode();
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));

    box_files::writeLine("init", path);

    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(before, inode());
    EXPECT_EQ("old\n", folder.read("file"));
}

class AStatusFileThatIsPlantedAgain : public AStatusFile, public testing::WithParamInterface<int>
{
};

TEST_P(AStatusFileThatIsPlantedAgain, IsMadeAnewInThePlaceOfALink)
{
    plantAfterTheNextUnlinks(GetParam());

    box_files::writeLine("init", path);

    EXPECT_TRUE(kit::isOwnFile(path));
    EXPECT_EQ("init\n", folder.read("file"));
    EXPECT_EQ("untouched", folder.read("victim"));
}

INSTANTIATE_TEST_SUITE_P(Times, AStatusFileThatIsPlantedAgain, testing::Values(0, 1),
                         testing::PrintToStringParamName());

TEST_F(AStatusFile, IsGivenUpWhenSomebodyAlwaysPlantsALink)
{
    plantAfterTheNextUnlinks(std::numeric_limits<int>::max());

    box_files::writeLine("init", path);

    EXPECT_EQ("untouched", folder.read("victim"));
}

TEST_F(AStatusFile, IsMadeAnewInThePlaceOfAHardLink)
{
    folder.write("victim", "untouched"s);
    std::filesystem::create_hard_link(folder.path("victim"), path);

    box_files::writeLine("init", path);

    EXPECT_TRUE(kit::isOwnFile(path));
    EXPECT_EQ("init\n", folder.read("file"));
    EXPECT_EQ("untouched", folder.read("victim"));
}

// --- The image ---

TEST_F(ABoxFile, IsReadAsItWasOpenedThoughItIsReplaced)
{
    folder.write("file", "the image"s);
    std::filebuf image = box_files::openRegularFile(path);
    std::filesystem::rename(folder.write("other", "another"s), path);

    EXPECT_EQ("the image", std::string(std::istreambuf_iterator<char>(&image), {}));
}

} // namespace
