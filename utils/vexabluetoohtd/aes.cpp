// SPDX-License-Identifier: MIT
#include "aes.h"

#include <array>
#include <cstddef>

namespace
{

constexpr unsigned kReduction = 0x11b; // x^8 + x^4 + x^3 + x + 1, the modulus of the field
constexpr unsigned kAffineConstant = 0x63;
constexpr std::ptrdiff_t kWordsPerRound = 4;
constexpr std::ptrdiff_t kBytesPerWord = 4;
constexpr int kExtraRounds = 6; // rounds beyond the number of key words

using ByteTable = std::array<std::uint8_t, 256>;
using WordTable = std::array<std::uint32_t, 256>;
// One table for each row of the state, so that a column of a round is four look-ups.
using RoundTables = std::array<WordTable, kWordsPerRound>;

// --- The arithmetic of FIPS-197, from which the compiler generates the tables ---

constexpr unsigned multiply(unsigned a, unsigned b)
{
    unsigned product = 0;
    for (; b != 0; b >>= 1) {
        if ((b & 1) != 0) {
            product ^= a;
        }
        a <<= 1;
        if ((a & 0x100) != 0) {
            a ^= kReduction;
        }
    }
    return product;
}

// The 254th power: the inverse of every element but 0, which stays 0.
constexpr unsigned inverse(unsigned a)
{
    unsigned result = 1;
    unsigned power = a;
    for (int exponent = 254; exponent != 0; exponent >>= 1) {
        if ((exponent & 1) != 0) {
            result = multiply(result, power);
        }
        power = multiply(power, power);
    }
    return result;
}

constexpr unsigned rotateByteLeft(unsigned byte, int bits)
{
    return ((byte << bits) | (byte >> (8 - bits))) & 0xff;
}

constexpr std::uint32_t rotateWordRight(std::uint32_t word, unsigned bits)
{
    return bits == 0 ? word : (word >> bits) | (word << (32 - bits));
}

constexpr std::uint32_t makeWord(unsigned b0, unsigned b1, unsigned b2, unsigned b3)
{
    return (b0 << 24) | (b1 << 16) | (b2 << 8) | b3;
}

constexpr ByteTable makeSBox()
{
    ByteTable box{};
    for (unsigned i = 0; i < box.size(); ++i) {
        const unsigned a = inverse(i);
        box[i] = static_cast<std::uint8_t>(a ^ rotateByteLeft(a, 1) ^ rotateByteLeft(a, 2) ^
                                           rotateByteLeft(a, 3) ^ rotateByteLeft(a, 4) ^ kAffineConstant);
    }
    return box;
}

constexpr ByteTable makeInverse(const ByteTable& box)
{
    ByteTable inverted{};
    for (unsigned i = 0; i < box.size(); ++i) {
        inverted[box[i]] = static_cast<std::uint8_t>(i);
    }
    return inverted;
}

// Substitution and column mix in one: the column that byte i of the first row contributes, mixed with the
// polynomial whose coefficients are given from the lowest; the other rows' columns are the same, rotated.
constexpr RoundTables makeRoundTables(const ByteTable& box, unsigned c0, unsigned c1, unsigned c2,
                                      unsigned c3)
{
    RoundTables tables{};
    for (unsigned i = 0; i < box.size(); ++i) {
        const unsigned s = box[i];
        const std::uint32_t column =
            makeWord(multiply(s, c0), multiply(s, c1), multiply(s, c2), multiply(s, c3));
        for (unsigned row = 0; row < tables.size(); ++row) {
            tables[row][i] = rotateWordRight(column, 8 * row);
        }
    }
    return tables;
}

constexpr std::array<std::uint32_t, 10> makeRoundConstants()
{
    std::array<std::uint32_t, 10> constants{};
    unsigned power = 1;
    for (auto& constant : constants) {
        constant = makeWord(power, 0, 0, 0);
        power = multiply(power, 2);
    }
    return constants;
}

// --- The tables, constant data of the program ---

constexpr ByteTable kSBox = makeSBox();
constexpr ByteTable kInverseSBox = makeInverse(kSBox);
constexpr RoundTables kEncryptTables = makeRoundTables(kSBox, 0x02, 0x01, 0x01, 0x03);
constexpr RoundTables kDecryptTables = makeRoundTables(kInverseSBox, 0x0e, 0x09, 0x0d, 0x0b);
constexpr std::array<std::uint32_t, 10> kRoundConstants = makeRoundConstants();

// --- The cipher ---

// The four columns of the state.
struct State {
    std::uint32_t c0, c1, c2, c3;
};

// Byte `row` of a column, the first row in the top bits.
constexpr std::size_t byteOf(std::uint32_t column, int row)
{
    return (column >> (24 - 8 * row)) & 0xff;
}

std::uint32_t loadWord(const unsigned char* bytes)
{
    return makeWord(bytes[0], bytes[1], bytes[2], bytes[3]);
}

void storeWord(std::uint32_t word, unsigned char* bytes)
{
    for (int row = 0; row < kWordsPerRound; ++row) {
        bytes[row] = static_cast<unsigned char>(byteOf(word, row));
    }
}

// The column of the next state whose four rows come from these columns.
inline std::uint32_t mixColumn(const RoundTables& tables, std::uint32_t row0, std::uint32_t row1,
                               std::uint32_t row2, std::uint32_t row3)
{
    return tables[0][byteOf(row0, 0)] ^ tables[1][byteOf(row1, 1)] ^ tables[2][byteOf(row2, 2)] ^
           tables[3][byteOf(row3, 3)];
}

// As mixColumn, without the mix: what the last round does.
inline std::uint32_t substituteColumn(const ByteTable& box, std::uint32_t row0, std::uint32_t row1,
                                      std::uint32_t row2, std::uint32_t row3)
{
    return makeWord(box[byteOf(row0, 0)], box[byteOf(row1, 1)], box[byteOf(row2, 2)], box[byteOf(row3, 3)]);
}

inline State addRoundKey(const State& s, const std::uint32_t* key)
{
    return {s.c0 ^ key[0], s.c1 ^ key[1], s.c2 ^ key[2], s.c3 ^ key[3]};
}

// Forced inline: otherwise the compiler makes each round a call and passes the state through memory.
[[gnu::always_inline]] inline State encryptRound(const State& s, const std::uint32_t* key)
{
    const auto& t = kEncryptTables;
    return addRoundKey({mixColumn(t, s.c0, s.c1, s.c2, s.c3), mixColumn(t, s.c1, s.c2, s.c3, s.c0),
                        mixColumn(t, s.c2, s.c3, s.c0, s.c1), mixColumn(t, s.c3, s.c0, s.c1, s.c2)},
                       key);
}

[[gnu::always_inline]] inline State decryptRound(const State& s, const std::uint32_t* key)
{
    const auto& t = kDecryptTables;
    return addRoundKey({mixColumn(t, s.c0, s.c3, s.c2, s.c1), mixColumn(t, s.c1, s.c0, s.c3, s.c2),
                        mixColumn(t, s.c2, s.c1, s.c0, s.c3), mixColumn(t, s.c3, s.c2, s.c1, s.c0)},
                       key);
}

inline State encryptLastRound(const State& s, const std::uint32_t* key)
{
    const auto& b = kSBox;
    return addRoundKey(
        {substituteColumn(b, s.c0, s.c1, s.c2, s.c3), substituteColumn(b, s.c1, s.c2, s.c3, s.c0),
         substituteColumn(b, s.c2, s.c3, s.c0, s.c1), substituteColumn(b, s.c3, s.c0, s.c1, s.c2)},
        key);
}

inline State decryptLastRound(const State& s, const std::uint32_t* key)
{
    const auto& b = kInverseSBox;
    return addRoundKey(
        {substituteColumn(b, s.c0, s.c3, s.c2, s.c1), substituteColumn(b, s.c1, s.c0, s.c3, s.c2),
         substituteColumn(b, s.c2, s.c1, s.c0, s.c3), substituteColumn(b, s.c3, s.c2, s.c1, s.c0)},
        key);
}

State load(const unsigned char* input)
{
    return {loadWord(input), loadWord(input + 4), loadWord(input + 8), loadWord(input + 12)};
}

void store(const State& s, unsigned char* output)
{
    storeWord(s.c0, output);
    storeWord(s.c1, output + 4);
    storeWord(s.c2, output + 8);
    storeWord(s.c3, output + 12);
}

std::uint32_t substituteWord(std::uint32_t word)
{
    return substituteColumn(kSBox, word, word, word, word);
}

void expandKey(AesContext& context, const unsigned char* key, int keyWords)
{
    std::uint32_t* words = context.encryptRoundKeys;
    for (int i = 0; i < keyWords; ++i) {
        words[i] = loadWord(key + kBytesPerWord * i);
    }
    for (int i = keyWords; i < kWordsPerRound * (context.rounds + 1); ++i) {
        std::uint32_t word = words[i - 1];
        if (i % keyWords == 0) {
            word = substituteWord(rotateWordRight(word, 24)) ^
                   kRoundConstants[static_cast<std::size_t>(i / keyWords - 1)];
        } else if (keyWords > 6 && i % keyWords == 4) {
            word = substituteWord(word);
        }
        words[i] = words[i - keyWords] ^ word;
    }
}

// The tables substitute before they mix, so the bytes go through the S-box first to cancel the inverse one.
std::uint32_t inverseMixWord(std::uint32_t word)
{
    const std::uint32_t substituted = substituteWord(word);
    return mixColumn(kDecryptTables, substituted, substituted, substituted, substituted);
}

void reverseKeySchedule(AesContext& context)
{
    for (int round = 0; round <= context.rounds; ++round) {
        const std::uint32_t* from = context.encryptRoundKeys + kWordsPerRound * (context.rounds - round);
        std::uint32_t* to = context.decryptRoundKeys + kWordsPerRound * round;
        const bool mixed = round != 0 && round != context.rounds;
        for (int i = 0; i < kWordsPerRound; ++i) {
            to[i] = mixed ? inverseMixWord(from[i]) : from[i];
        }
    }
}

} // namespace

int aes_set_key(AesContext* context, const unsigned char* key, int keyBits)
{
    if (keyBits != 128 && keyBits != 192 && keyBits != 256) {
        return 1;
    }
    const int keyWords = keyBits / 32;
    context->rounds = keyWords + kExtraRounds;
    expandKey(*context, key, keyWords);
    reverseKeySchedule(*context);
    return 0;
}

void aes_encrypt(const AesContext* context, const unsigned char* input, unsigned char* output)
{
    const std::uint32_t* key = context->encryptRoundKeys;
    State s = addRoundKey(load(input), key);
    s = encryptRound(s, key + 4);
    s = encryptRound(s, key + 8);
    s = encryptRound(s, key + 12);
    s = encryptRound(s, key + 16);
    s = encryptRound(s, key + 20);
    s = encryptRound(s, key + 24);
    s = encryptRound(s, key + 28);
    s = encryptRound(s, key + 32);
    s = encryptRound(s, key + 36);
    if (context->rounds > 10) {
        s = encryptRound(s, key + 40);
        s = encryptRound(s, key + 44);
        if (context->rounds > 12) {
            s = encryptRound(s, key + 48);
            s = encryptRound(s, key + 52);
        }
    }
    store(encryptLastRound(s, key + kWordsPerRound * context->rounds), output);
}

void aes_decrypt(const AesContext* context, const unsigned char* input, unsigned char* output)
{
    const std::uint32_t* key = context->decryptRoundKeys;
    State s = addRoundKey(load(input), key);
    s = decryptRound(s, key + 4);
    s = decryptRound(s, key + 8);
    s = decryptRound(s, key + 12);
    s = decryptRound(s, key + 16);
    s = decryptRound(s, key + 20);
    s = decryptRound(s, key + 24);
    s = decryptRound(s, key + 28);
    s = decryptRound(s, key + 32);
    s = decryptRound(s, key + 36);
    if (context->rounds > 10) {
        s = decryptRound(s, key + 40);
        s = decryptRound(s, key + 44);
        if (context->rounds > 12) {
            s = decryptRound(s, key + 48);
            s = decryptRound(s, key + 52);
        }
    }
    store(decryptLastRound(s, key + kWordsPerRound * context->rounds), output);
}
