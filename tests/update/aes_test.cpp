// SPDX-License-Identifier: MIT
#include "aes.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <gmock/gmock.h>
#include <map>
#include <memory>
#include <ostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/kit/ChildProcess.h"
#include "tests/kit/Cipher.h"
#include "tests/kit/Hex.h"

namespace
{

constexpr std::size_t kBlockBytes = 16;
using Bytes = std::vector<std::uint8_t>;
using Cipher = void (*)(const AesContext*, const unsigned char*, unsigned char*);

AesContext contextFor(const Bytes& key)
{
    AesContext context{};
    EXPECT_EQ(0, aes_set_key(&context, key.data(), static_cast<int>(8 * key.size())));
    return context;
}

// --- Setting a key ---

class AKeySizeThatIsNone : public testing::TestWithParam<int>
{
};

TEST_P(AKeySizeThatIsNone, IsRefusedAndLeavesTheContextUntouched)
{
    AesContext context{};
    std::memset(&context, 0x5a, sizeof context);
    const AesContext before = context;
    const Bytes key(64, 0x11);

    EXPECT_EQ(1, aes_set_key(&context, key.data(), GetParam()));
    EXPECT_EQ(0, std::memcmp(&before, &context, sizeof context));
}

INSTANTIATE_TEST_SUITE_P(Sizes, AKeySizeThatIsNone,
                         testing::Values(0, -1, 100, 127, 129, 160, 255, 257, 512));

// FIPS-197, appendix C.1: the first and the last round of k_sch, and of ik_sch, the equivalent inverse
// cipher.
TEST(AKey, IsExpandedIntoASchedulePerDirection)
{
    using testing::ElementsAre;
    const AesContext context = contextFor(kit::fromHex("000102030405060708090a0b0c0d0e0f"));
    const auto round = [](const std::uint32_t* schedule, int number) {
        return std::vector<std::uint32_t>(schedule + 4 * number, schedule + 4 * number + 4);
    };

    EXPECT_EQ(10, context.rounds);
    EXPECT_THAT(round(context.encryptRoundKeys, 0),
                ElementsAre(0x00010203, 0x04050607, 0x08090a0b, 0x0c0d0e0f));
    EXPECT_THAT(round(context.encryptRoundKeys, 1),
                ElementsAre(0xd6aa74fd, 0xd2af72fa, 0xdaa678f1, 0xd6ab76fe));
    EXPECT_THAT(round(context.encryptRoundKeys, 10),
                ElementsAre(0x13111d7f, 0xe3944a17, 0xf307a78b, 0x4d2b30c5));
    EXPECT_THAT(round(context.decryptRoundKeys, 0),
                ElementsAre(0x13111d7f, 0xe3944a17, 0xf307a78b, 0x4d2b30c5));
    EXPECT_THAT(round(context.decryptRoundKeys, 1),
                ElementsAre(0x13aa29be, 0x9c8faff6, 0xf770f580, 0x00f7bf03));
    EXPECT_THAT(round(context.decryptRoundKeys, 10),
                ElementsAre(0x00010203, 0x04050607, 0x08090a0b, 0x0c0d0e0f));
}

// --- Known answers of NIST, mode ECB ---

struct AnswerFile {
    std::string name;
    std::size_t answers; ///< for each direction, so that a truncated file doesn't pass

    friend std::ostream& operator<<(std::ostream& out, const AnswerFile& file) { return out << file.name; }
};

class TheKnownAnswers : public testing::TestWithParam<AnswerFile>
{
};

std::string applied(Cipher cipher, const std::string& key, const std::string& block)
{
    const AesContext context = contextFor(kit::fromHex(key));
    std::array<std::uint8_t, kBlockBytes> output{};
    cipher(&context, kit::fromHex(block).data(), output.data());
    return kit::toHex(output);
}

TEST_P(TheKnownAnswers, ComeOutBothWays)
{
    const std::string path = std::string{VEXA_AES_VECTORS} + "/ECB" + GetParam().name + ".rsp";
    std::ifstream file{path};
    ASSERT_TRUE(file) << "Can't read " << path
                      << ": the known answers come with Debian's python3-cryptography-vectors. Install it "
                         "and configure again, or set VEXA_AES_VECTORS to the folder that holds the files.";
    std::map<std::string, std::string> answer;
    std::size_t answers = 0;
    for (std::string line; std::getline(file, line);) {
        std::istringstream words{line};
        std::string name;
        std::string equals;
        words >> name >> equals >> answer[name];
        if (name == "COUNT") {
            answer.erase("PLAINTEXT");
            answer.erase("CIPHERTEXT");
        } else if (answer.count("PLAINTEXT") + answer.count("CIPHERTEXT") == 2) {
            EXPECT_EQ(answer["CIPHERTEXT"], applied(aes_encrypt, answer["KEY"], answer["PLAINTEXT"]));
            EXPECT_EQ(answer["PLAINTEXT"], applied(aes_decrypt, answer["KEY"], answer["CIPHERTEXT"]));
            ++answers;
            answer.clear();
        }
    }
    EXPECT_EQ(2 * GetParam().answers, answers);
}

INSTANTIATE_TEST_SUITE_P(Nist, TheKnownAnswers,
                         testing::ValuesIn(std::vector<AnswerFile>{{"GFSbox128", 7},
                                                                   {"GFSbox192", 6},
                                                                   {"GFSbox256", 5},
                                                                   {"KeySbox128", 21},
                                                                   {"KeySbox192", 24},
                                                                   {"KeySbox256", 16},
                                                                   {"VarTxt128", 128},
                                                                   {"VarTxt192", 128},
                                                                   {"VarTxt256", 128},
                                                                   {"VarKey128", 128},
                                                                   {"VarKey192", 192},
                                                                   {"VarKey256", 256}}),
                         [](const auto& given) { return given.param.name; });

// --- Random blocks and libcrypto ---

/// Each block is its own output.
Bytes byOurs(const Bytes& key, Bytes blocks, Cipher direction)
{
    const AesContext context = contextFor(key);
    for (std::size_t i = 0; i < blocks.size(); i += kBlockBytes) {
        direction(&context, &blocks[i], &blocks[i]);
    }
    return blocks;
}

Bytes randomBytes(std::mt19937_64& random, std::size_t size)
{
    Bytes bytes(size);
    std::generate(bytes.begin(), bytes.end(), [&random] { return static_cast<std::uint8_t>(random()); });
    return bytes;
}

class RandomBlocks : public testing::TestWithParam<std::size_t>
{
};

TEST_P(RandomBlocks, ComeOutAsFromLibcrypto)
{
    // 100,000 blocks for each key size, a new key every 100.
    std::mt19937_64 random{GetParam()};
    for (int i = 0; i < 1000; ++i) {
        const Bytes key = randomBytes(random, GetParam() / 8);
        const Bytes input = randomBytes(random, 100 * kBlockBytes);
        ASSERT_EQ(kit::aesEcb(key, input, kit::Direction::Encipher), byOurs(key, input, aes_encrypt))
            << "key " << kit::toHex(key);
        ASSERT_EQ(kit::aesEcb(key, input, kit::Direction::Decipher), byOurs(key, input, aes_decrypt))
            << "key " << kit::toHex(key);
    }
}

INSTANTIATE_TEST_SUITE_P(KeyBits, RandomBlocks, testing::Values(128, 192, 256),
                         [](const auto& given) { return "Of" + std::to_string(given.param); });

// --- The tables ---

TEST(TheTables, AreConstantDataOfTheBinary)
{
    // "ADDRESS TYPE NAME" for each symbol of the object that holds them.
    const std::string symbols = kit::runProgram({VEXA_NM, "-C", VEXA_AES_OBJECT}).output;

    for (const std::string table :
         {"kSBox", "kInverseSBox", "kEncryptTables", "kDecryptTables", "kRoundConstants"}) {
        EXPECT_THAT(symbols, testing::HasSubstr(" r (anonymous namespace)::" + table + "\n"));
    }
}

} // namespace
