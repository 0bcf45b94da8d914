// SPDX-License-Identifier: MIT
#include "Firmware.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/kit/FirmwareImage.h"
#include "tests/kit/LogRecorder.h"
#include "tests/kit/NamedCase.h"
#include "tests/kit/ScratchFolder.h"

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;
using Bytes = std::vector<std::uint8_t>;

class AFirmware : public testing::Test
{
protected:
    std::unique_ptr<Firmware> open(const Bytes& content)
    {
        return Firmware::createWithLocation(mFolder.write("image.bin", content));
    }

    /// The next block as the update asks for it.
    static Bytes nextBlock(Firmware& firmware)
    {
        Bytes buffer;
        const int result = firmware.fillBuffer(buffer);
        EXPECT_EQ(static_cast<int>(buffer.size()), result);
        return buffer;
    }

    /// All that is left, and the sizes of its blocks.
    static Bytes rest(Firmware& firmware, std::vector<std::size_t>* sizes = nullptr)
    {
        Bytes all;
        for (Bytes block = nextBlock(firmware); !block.empty(); block = nextBlock(firmware)) {
            all.insert(all.end(), block.begin(), block.end());
            if (sizes != nullptr) {
                sizes->push_back(block.size());
            }
        }
        return all;
    }

    static std::vector<std::size_t> blockSizes(Firmware& firmware, std::size_t calls)
    {
        std::vector<std::size_t> sizes;
        for (std::size_t i = 0; i < calls; ++i) {
            sizes.push_back(nextBlock(firmware).size());
        }
        return sizes;
    }

    /// The descriptor by which this process has the file open, -1 if there is none.
    int descriptorOf(const std::string& name) const
    {
        const std::string path = mFolder.path(name);
        for (const auto& entry : std::filesystem::directory_iterator{"/proc/self/fd"}) {
            std::error_code gone;
            if (std::filesystem::read_symlink(entry.path(), gone) == path) {
                return std::stoi(entry.path().filename().string());
            }
        }
        return -1;
    }

    /// From here on every read of the image fails: its descriptor becomes a folder's.
    void breakDisk() const
    {
        const int descriptor = descriptorOf("image.bin");
        ASSERT_GE(descriptor, 0);
        const int folder = ::open(mFolder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_EQ(descriptor, dup2(folder, descriptor));
        close(folder);
    }

    kit::ScratchFolder mFolder;
    kit::LogRecorder& mLog = kit::LogRecorder::cleared();
};

// --- What can't be opened ---

TEST_F(AFirmware, WithAnEmptyPathIsRefusedAloud)
{
    EXPECT_EQ(nullptr, Firmware::createWithLocation(""));
    EXPECT_THAT(mLog.linesOf("Firmware"), ElementsAre("E Empty path"));
}

TEST_F(AFirmware, ThatIsNoImageIsRefusedInSilence)
{
    EXPECT_EQ(nullptr, Firmware::createWithLocation(mFolder.path("missing.bin")));
    EXPECT_EQ(nullptr, Firmware::createWithLocation(mFolder.path())) << "a folder";
    EXPECT_EQ(nullptr, open({})) << "an empty file";
    EXPECT_EQ(nullptr, open(Bytes(11, 0xff))) << "a header that is cut off";
    // Opens, but nothing is mapped at address 0: the read gives an I/O error.
    EXPECT_EQ(nullptr, Firmware::createWithLocation("/proc/self/mem"));
    EXPECT_EQ(nullptr, Firmware::createWithLocation("/dev/zero")) << "although it has 12 bytes to read";

    EXPECT_EQ("", mLog.text());
}

TEST_F(AFirmware, OfAFifoIsRefusedInSilence)
{
    const std::string path = mFolder.path("fifo");
    ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
    EXPECT_EQ(nullptr, Firmware::createWithLocation(path)) << "without a writer, for whom it would wait";

    std::fstream writer(path); // for both directions, so that it doesn't wait either
    const Bytes file = kit::FirmwareImage::ofWords(1).file();
    writer.write(reinterpret_cast<const char*>(file.data()), static_cast<std::streamsize>(file.size()));
    ASSERT_TRUE(writer.flush());
    EXPECT_EQ(nullptr, Firmware::createWithLocation(path)) << "although an image comes through it";
    EXPECT_EQ("", mLog.text());
}

TEST_F(AFirmware, BehindALinkIsAnImage)
{
    mFolder.write("image.bin", kit::FirmwareImage::ofWords(1).file());
    std::filesystem::create_symlink(mFolder.path("image.bin"), mFolder.path("link"));

    EXPECT_NE(nullptr, Firmware::createWithLocation(mFolder.path("link")));
}

TEST_F(AFirmware, ClosesItsFile)
{
    open(kit::FirmwareImage::ofWords(1).file());

    EXPECT_EQ(-1, descriptorOf("image.bin"));
}

// --- The header ---

TEST_F(AFirmware, DecodesItsHeaderLowByteFirst)
{
    const auto firmware =
        open({0xcd, 0xab, 0x34, 0x12, 0x01, 0x80, 0xfe, 0xff, 0x00, 0x01, 0x7f, 0x80, 'p', 'a', 'y'});

    ASSERT_NE(nullptr, firmware);
    const Firmware::Header& header = firmware->header();
    EXPECT_EQ(0xabcd, header.offset);
    EXPECT_EQ(0x1234, header.signature);
    EXPECT_EQ(0x8001, header.version);
    EXPECT_EQ(0xfffe, header.checksum);
    EXPECT_EQ(0x0100, header.length);
    EXPECT_EQ(0x7f, header.ota_flag);
    EXPECT_EQ(0x80, header.reserved);
    EXPECT_THAT(mLog.linesOf("Firmware"),
                ElementsAre("D offset: 0xabcd signature: 0x1234 version: 0x8001 checksum: 0xfffe "
                            "length: 0x0100 ota_flag: 0x7f reserved: 0x80"));
}

TEST_F(AFirmware, PrintsItsHeaderWithLeadingZeros)
{
    ASSERT_NE(nullptr, open({1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 6, 7}));

    EXPECT_THAT(mLog.linesOf("Firmware"),
                ElementsAre("D offset: 0x0001 signature: 0x0002 version: 0x0003 checksum: 0x0004 "
                            "length: 0x0005 ota_flag: 0x06 reserved: 0x07"));
}

// --- The blocks ---

struct Payload : kit::NamedCase {
    std::uint16_t words; ///< as the header announces
    std::size_t bytes;   ///< as the file holds
    std::vector<std::size_t> blocks;
};

class APayload : public AFirmware, public testing::WithParamInterface<Payload>
{
};

TEST_P(APayload, IsHandedOutToItsEndWhateverTheHeaderSays)
{
    const kit::FirmwareImage image = kit::FirmwareImage::ofBytes(GetParam().words, GetParam().bytes);
    const auto firmware = open(image.file());
    ASSERT_NE(nullptr, firmware);
    EXPECT_EQ(GetParam().words, firmware->header().length);

    std::vector<std::size_t> blocks;
    EXPECT_EQ(image.payload, rest(*firmware, &blocks));

    EXPECT_EQ(GetParam().blocks, blocks);
    Bytes buffer(7, 0x11);
    EXPECT_EQ(0, firmware->fillBuffer(buffer)) << "it stays at its end";
    EXPECT_THAT(buffer, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Of, APayload,
                         testing::Values(Payload{{"Nothing"}, 0, 0, {}},
                                         Payload{{"LessThanAnnounced"}, 65535, 21, {20, 1}},
                                         Payload{{"APartOfABlock"}, 8, 33, {20, 13}},
                                         Payload{{"WholeBlocks"}, 10, 40, {20, 20}},
                                         Payload{{"MoreThanAnnounced"}, 1, 45, {20, 20, 5}}),
                         kit::named);

class ABufferOfSomeSize : public AFirmware, public testing::WithParamInterface<std::size_t>
{
};

TEST_P(ABufferOfSomeSize, IsFilledUpToTwentyBytes)
{
    const kit::FirmwareImage image = kit::FirmwareImage::ofWords(25);
    const auto firmware = open(image.file());
    ASSERT_NE(nullptr, firmware);
    const std::size_t given = GetParam() == 0 ? 20 : std::min<std::size_t>(GetParam(), 20);
    Bytes buffer(GetParam(), 0xee);

    EXPECT_EQ(static_cast<int>(given), firmware->fillBuffer(buffer));

    const auto begin = image.payload.begin();
    EXPECT_EQ(Bytes(begin, begin + static_cast<std::ptrdiff_t>(given)), buffer);
    // The next read starts right after the bytes that were given.
    EXPECT_EQ(image.payload.at(given), nextBlock(*firmware).at(0));
}

INSTANTIATE_TEST_SUITE_P(OfBytes, ABufferOfSomeSize, testing::Values(0, 1, 5, 19, 20, 21, 40));

TEST_F(AFirmware, TakesAnErrorOfTheDiskForTheEndOfTheFile)
{
    // Longer than the stream reads ahead.
    const auto firmware = open(kit::FirmwareImage::ofWords(10000).file());
    ASSERT_NE(nullptr, firmware);
    breakDisk();

    const std::size_t bytes = rest(*firmware).size();
    EXPECT_GT(bytes, 0U);
    EXPECT_LT(bytes, 40000U);
    EXPECT_THAT(nextBlock(*firmware), IsEmpty());
}

TEST_F(AFirmware, GivesTheBytesThatCameBeforeAnErrorOfTheDisk)
{
    // Read ahead to its end, so that the error comes within the second block.
    const kit::FirmwareImage image = kit::FirmwareImage::ofBytes(10, 33);
    const auto firmware = open(image.file());
    ASSERT_NE(nullptr, firmware);
    breakDisk();

    EXPECT_THAT(blockSizes(*firmware, 1), ElementsAre(20));
    EXPECT_EQ(Bytes(image.payload.begin() + 20, image.payload.end()), nextBlock(*firmware));
    EXPECT_THAT(nextBlock(*firmware), IsEmpty());
}

TEST_F(AFirmware, StaysAtItsEndThoughTheFileGrows)
{
    const auto firmware = open(kit::FirmwareImage::ofBytes(10, 33).file());
    ASSERT_NE(nullptr, firmware);
    EXPECT_THAT(blockSizes(*firmware, 2), ElementsAre(20, 13));
    std::ofstream{mFolder.path("image.bin"), std::ios::app} << "more";

    EXPECT_THAT(blockSizes(*firmware, 2), ElementsAre(0, 0));
}

// --- Starting again ---

TEST_F(AFirmware, BeginsWithItsHeaderOnceReset)
{
    const kit::FirmwareImage image = kit::FirmwareImage::ofWords(25);
    const auto firmware = open(image.file());
    ASSERT_NE(nullptr, firmware);
    nextBlock(*firmware);

    firmware->resetStream();

    const Bytes file = image.file();
    EXPECT_EQ(Bytes(file.begin(), file.begin() + 20), nextBlock(*firmware));
}

TEST_F(AFirmware, CanParseItsHeaderAgainOnceReset)
{
    const auto firmware = open(kit::FirmwareImage::ofWords(1).file());
    ASSERT_NE(nullptr, firmware);
    EXPECT_FALSE(firmware->parseHeader()) << "only 4 bytes are left";
    EXPECT_FALSE(firmware->parseHeader()) << "the stream has failed";
    EXPECT_EQ(1U, mLog.linesOf("Firmware").size()) << "a failure to parse says nothing";

    firmware->resetStream();

    EXPECT_TRUE(firmware->parseHeader());
    EXPECT_EQ(0x1234, firmware->header().signature);
    EXPECT_EQ(2U, mLog.linesOf("Firmware").size());
}

} // namespace
