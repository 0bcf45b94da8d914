// SPDX-License-Identifier: MIT
#include "aes.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <ostream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "tests/kit/Cipher.h"
#include "tests/kit/Hex.h"

namespace
{

constexpr std::size_t kBlockBytes = 16;
using Bytes = std::vector<std::uint8_t>;

AesContext contextFor(const Bytes& key)
{
    AesContext context{};
    EXPECT_EQ(0, aes_set_key(&context, key.data(), static_cast<int>(8 * key.size())));
    return context;
}

std::string encipher(const AesContext& context, const Bytes& block)
{
    std::array<std::uint8_t, kBlockBytes> output{};
    aes_encrypt(&context, block.data(), output.data());
    return toHex(output);
}

std::string decipher(const AesContext& context, const Bytes& block)
{
    std::array<std::uint8_t, kBlockBytes> output{};
    aes_decrypt(&context, block.data(), output.data());
    return toHex(output);
}

// ---------------------------------------------------------------- Setting a key

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

INSTANTIATE_TEST_SUITE_P(Sizes, AKeySizeThatIsNone, testing::Values(0, -1, 100, 127, 129, 160, 255, 257, 512),
                         [](const auto& given) {
                             return "Of" +
                                    (given.param < 0 ? std::string{"Minus1"} : std::to_string(given.param));
                         });

TEST(AKey, SetsTheRoundsOfItsSize)
{
    EXPECT_EQ(10, contextFor(Bytes(16)).rounds);
    EXPECT_EQ(12, contextFor(Bytes(24)).rounds);
    EXPECT_EQ(14, contextFor(Bytes(32)).rounds);
}

// FIPS-197, appendix A: the key expansion examples, all words.
struct Expansion {
    const char* name;
    const char* key;
    const char* words; // behind those of the key itself

    friend std::ostream& operator<<(std::ostream& out, const Expansion& e) { return out << e.name; }
};

const Expansion kExpansions[] = {
    {"A1", "2b7e151628aed2a6abf7158809cf4f3c",
     "a0fafe17 88542cb1 23a33939 2a6c7605 f2c295f2 7a96b943 5935807a 7359f67f 3d80477d 4716fe3e "
     "1e237e44 6d7a883b ef44a541 a8525b7f b671253b db0bad00 d4d1c6f8 7c839d87 caf2b8bc 11f915bc "
     "6d88a37a 110b3efd dbf98641 ca0093fd 4e54f70e 5f5fc9f3 84a64fb2 4ea6dc4f ead27321 b58dbad2 "
     "312bf560 7f8d292f ac7766f3 19fadc21 28d12941 575c006e d014f9a8 c9ee2589 e13f0cc8 b6630ca6"},
    {"A2", "8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b",
     "fe0c91f7 2402f5a5 ec12068e 6c827f6b 0e7a95b9 5c56fec2 4db7b4bd 69b54118 85a74796 e92538fd "
     "e75fad44 bb095386 485af057 21efb14f a448f6d9 4d6dce24 aa326360 113b30e6 a25e7ed5 83b1cf9a "
     "27f93943 6a94f767 c0a69407 d19da4e1 ec1786eb 6fa64971 485f7032 22cb8755 e26d1352 33f0b7b3 "
     "40beeb28 2f18a259 6747d26b 458c553e a7e1466c 9411f1df 821f750a ad07d753 ca400538 8fcc5006 "
     "282d166a bc3ce7b5 e98ba06f 448c773c 8ecc7204 01002202"},
    {"A3", "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
     "9ba35411 8e6925af a51a8b5f 2067fcde a8b09c1a 93d194cd be49846e b75d5b9a d59aecb8 5bf3c917 "
     "fee94248 de8ebe96 b5a9328a 2678a647 98312229 2f6c79b3 812c81ad dadf48ba 24360af2 fab8b464 "
     "98c5bfc9 bebd198e 268c3ba7 09e04214 68007bac b2df3316 96e939e4 6c518d80 c814e204 76a9fb8a "
     "5025c02d 59c58239 de136967 6ccc5a71 fa256395 9674ee15 5886ca5d 2e2f31d7 7e0af1fa 27cf73c3 "
     "749c47ab 18501dda e2757e4f 7401905a cafaaae3 e4d59b34 9adf6ace bd10190d fe4890d1 e6188d0b "
     "046df344 706c631e"},
};

class TheKeyExpansionExample : public testing::TestWithParam<Expansion>
{
};

TEST_P(TheKeyExpansionExample, ComesOutWordByWord)
{
    const Bytes key = fromHex(GetParam().key);
    const AesContext context = contextFor(key);

    const Bytes expected = fromHex(std::string{GetParam().key} + GetParam().words);
    ASSERT_EQ(expected.size(), 16U * static_cast<std::size_t>(context.rounds + 1));
    for (std::size_t i = 0; i < expected.size(); i += 4) {
        char word[9];
        std::snprintf(word, sizeof word, "%08x", context.encryptRoundKeys[i / 4]);
        EXPECT_EQ(toHex(Bytes(expected.begin() + static_cast<std::ptrdiff_t>(i),
                              expected.begin() + static_cast<std::ptrdiff_t>(i) + 4)),
                  word)
            << "word " << i / 4;
    }
}

INSTANTIATE_TEST_SUITE_P(Fips197, TheKeyExpansionExample, testing::ValuesIn(kExpansions),
                         [](const auto& given) { return std::string{given.param.name}; });

TEST(TheDecipheringSchedule, IsTheEncipheringOneReversedAndMixedButForItsEnds)
{
    // FIPS-197, appendix C.1, the ik_sch lines of the equivalent inverse cipher.
    const AesContext context = contextFor(fromHex("000102030405060708090a0b0c0d0e0f"));
    const std::array<std::uint32_t, 8> firstTwo = {0x13111d7f, 0xe3944a17, 0xf307a78b, 0x4d2b30c5,
                                                   0x13aa29be, 0x9c8faff6, 0xf770f580, 0x00f7bf03};
    const std::array<std::uint32_t, 4> last = {0x00010203, 0x04050607, 0x08090a0b, 0x0c0d0e0f};

    EXPECT_TRUE(std::equal(firstTwo.begin(), firstTwo.end(), context.decryptRoundKeys));
    EXPECT_TRUE(std::equal(last.begin(), last.end(), context.decryptRoundKeys + 40));
}

// ------------------------------------------------------------------- One block

struct Example {
    const char* name;
    const char* key;
    const char* plain;
    const char* cipher;

    friend std::ostream& operator<<(std::ostream& out, const Example& e) { return out << e.name; }
};

// FIPS-197, appendices B and C.
const Example kExamples[] = {
    {"B", "2b7e151628aed2a6abf7158809cf4f3c", "3243f6a8885a308d313198a2e0370734",
     "3925841d02dc09fbdc118597196a0b32"},
    {"C1", "000102030405060708090a0b0c0d0e0f", "00112233445566778899aabbccddeeff",
     "69c4e0d86a7b0430d8cdb78070b4c55a"},
    {"C2", "000102030405060708090a0b0c0d0e0f1011121314151617", "00112233445566778899aabbccddeeff",
     "dda97ca4864cdfe06eaf70a0ec0d7191"},
    {"C3", "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f",
     "00112233445566778899aabbccddeeff", "8ea2b7ca516745bfeafc49904b496089"},
};

class TheExampleBlock : public testing::TestWithParam<Example>
{
};

TEST_P(TheExampleBlock, GoesBothWays)
{
    const AesContext context = contextFor(fromHex(GetParam().key));

    EXPECT_EQ(GetParam().cipher, encipher(context, fromHex(GetParam().plain)));
    EXPECT_EQ(GetParam().plain, decipher(context, fromHex(GetParam().cipher)));
}

TEST_P(TheExampleBlock, MayBeItsOwnOutput)
{
    const AesContext context = contextFor(fromHex(GetParam().key));
    Bytes block = fromHex(GetParam().plain);

    aes_encrypt(&context, block.data(), block.data());
    EXPECT_EQ(GetParam().cipher, toHex(block));
    aes_decrypt(&context, block.data(), block.data());
    EXPECT_EQ(GetParam().plain, toHex(block));
}

INSTANTIATE_TEST_SUITE_P(Fips197, TheExampleBlock, testing::ValuesIn(kExamples),
                         [](const auto& given) { return std::string{given.param.name}; });

// ------------------------------------------- Known answers of NIST, mode ECB

struct KnownAnswer {
    std::string count;
    std::string key;
    std::string plain;
    std::string cipher;
};

// Reads the answers of one section ("[ENCRYPT]" or "[DECRYPT]") of a .rsp file.
std::vector<KnownAnswer> readAnswers(std::istream& file, const std::string& wantedSection)
{
    std::vector<KnownAnswer> answers;
    std::string section;
    std::string line;
    while (std::getline(file, line)) {
        std::istringstream words{line};
        std::string name;
        std::string equals;
        std::string value;
        words >> name >> equals >> value;
        if (name.rfind('[', 0) == 0) {
            section = name;
        } else if (section == wantedSection && equals == "=") {
            if (name == "COUNT") {
                answers.push_back({value, "", "", ""});
            } else if (!answers.empty()) {
                auto& answer = answers.back();
                (name == "KEY" ? answer.key : name == "PLAINTEXT" ? answer.plain : answer.cipher) = value;
            }
        }
    }
    return answers;
}

using AnswerFile = std::tuple<const char*, int>;

class TheKnownAnswers : public testing::TestWithParam<AnswerFile>
{
protected:
    std::vector<KnownAnswer> answers(const std::string& section) const
    {
        const auto& [kind, bits] = GetParam();
        const std::string path =
            std::string{VEXA_AES_VECTORS} + "/ECB" + kind + std::to_string(bits) + ".rsp";
        std::ifstream file{path};
        EXPECT_TRUE(file)
            << "Can't read " << path
            << ": the known answers come with Debian's python3-cryptography-vectors. Install it "
               "and configure again, or set VEXA_AES_VECTORS to the folder that holds the files.";
        return readAnswers(file, section);
    }

    // How many answers the published set holds, so that a cut file doesn't pass.
    std::size_t expectedCount() const
    {
        static const std::map<std::string, std::map<int, std::size_t>> kCounts = {
            {"GFSbox", {{128, 7}, {192, 6}, {256, 5}}},
            {"KeySbox", {{128, 21}, {192, 24}, {256, 16}}},
            {"VarTxt", {{128, 128}, {192, 128}, {256, 128}}},
            {"VarKey", {{128, 128}, {192, 192}, {256, 256}}}};
        return kCounts.at(std::get<0>(GetParam())).at(std::get<1>(GetParam()));
    }
};

TEST_P(TheKnownAnswers, Encipher)
{
    const auto all = answers("[ENCRYPT]");
    EXPECT_EQ(expectedCount(), all.size());
    for (const auto& answer : all) {
        EXPECT_EQ(answer.cipher, encipher(contextFor(fromHex(answer.key)), fromHex(answer.plain)))
            << "COUNT " << answer.count;
    }
}

TEST_P(TheKnownAnswers, Decipher)
{
    const auto all = answers("[DECRYPT]");
    EXPECT_EQ(expectedCount(), all.size());
    for (const auto& answer : all) {
        EXPECT_EQ(answer.plain, decipher(contextFor(fromHex(answer.key)), fromHex(answer.cipher)))
            << "COUNT " << answer.count;
    }
}

INSTANTIATE_TEST_SUITE_P(Nist, TheKnownAnswers,
                         testing::Combine(testing::Values("GFSbox", "KeySbox", "VarTxt", "VarKey"),
                                          testing::Values(128, 192, 256)),
                         [](const auto& given) {
                             return std::get<0>(given.param) + std::to_string(std::get<1>(given.param));
                         });

// ------------------------------------------------- Random blocks and libcrypto

Bytes byOurs(const Bytes& key, const Bytes& input, kit::Direction direction)
{
    const AesContext context = contextFor(key);
    Bytes output(input.size());
    for (std::size_t i = 0; i < input.size(); i += kBlockBytes) {
        (direction == kit::Direction::Encipher ? aes_encrypt : aes_decrypt)(&context, &input[i], &output[i]);
    }
    return output;
}

Bytes randomBytes(std::mt19937_64& random, std::size_t size)
{
    Bytes bytes(size);
    for (auto& byte : bytes) {
        byte = static_cast<std::uint8_t>(random());
    }
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
        ASSERT_EQ(kit::aesEcb(key, input, kit::Direction::Encipher),
                  byOurs(key, input, kit::Direction::Encipher))
            << "key " << toHex(key);
        ASSERT_EQ(kit::aesEcb(key, input, kit::Direction::Decipher),
                  byOurs(key, input, kit::Direction::Decipher))
            << "key " << toHex(key);
    }
}

INSTANTIATE_TEST_SUITE_P(KeyBits, RandomBlocks, testing::Values(128, 192, 256),
                         [](const auto& given) { return "Of" + std::to_string(given.param); });

// ------------------------------------------------------------------ The tables

TEST(TheTables, AreConstantDataOfTheBinary)
{
    // "ADDRESS TYPE NAME" for each symbol of the object that holds them.
    const std::string command = std::string{VEXA_NM} + " -C '" + VEXA_AES_OBJECT + "'";
    const std::unique_ptr<FILE, int (*)(FILE*)> symbols{popen(command.c_str(), "r"), pclose};
    ASSERT_NE(nullptr, symbols);

    std::set<std::string> readOnly;
    std::string all;
    char line[512];
    while (std::fgets(line, sizeof line, symbols.get()) != nullptr) {
        all += line;
        char type = 0;
        char name[256] = "";
        if (std::sscanf(line, "%*x %c (anonymous namespace)::%255[^\n]", &type, name) == 2 && type == 'r') {
            readOnly.insert(name);
        }
    }
    for (const char* table :
         {"kSBox", "kInverseSBox", "kEncryptTables", "kDecryptTables", "kRoundConstants"}) {
        EXPECT_EQ(1U, readOnly.count(table)) << table << " isn't read-only data in:\n" << all;
    }
}

} // namespace
