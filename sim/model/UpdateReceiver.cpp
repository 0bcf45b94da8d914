// SPDX-License-Identifier: MIT
#include "sim/model/UpdateReceiver.h"

#include <algorithm>
#include <fstream>
#include <glib.h>
#include <iterator>
#include <memory>
#include <openssl/evp.h>
#include <stdexcept>
#include <utility>

namespace vexasim
{

namespace
{
constexpr std::uint8_t kSwitchToUpdate = 0x01;
constexpr std::uint8_t kStatusGood = 0x01;
constexpr std::uint8_t kStatusBad = 0x00;
constexpr std::size_t kCipherBlock = 16;
constexpr std::size_t kDataBlock = 20;
constexpr std::size_t kKeyDigits = 64;

struct Command {
    std::uint8_t opcode;
    UpdateStep step;
    std::size_t length; ///< of the whole packet
    bool answered;      ///< a correct remote answers by notification
};

constexpr std::array<Command, 6> kCommands = {{
    {0x01, UpdateStep::StartUpdate, 17, true},
    {0x02, UpdateStep::ImageInfo, 7, false},
    {0x03, UpdateStep::Verify, 3, true},
    {0x04, UpdateStep::Reset, 1, false},
    {0x06, UpdateStep::GetImageInfo, 3, true},
    {0x07, UpdateStep::ConnectionParameters, 9, true},
}};

constexpr std::array<std::pair<UpdateStep, const char*>, 10> kStepWords = {{
    {UpdateStep::Switch, "switch"},
    {UpdateStep::StartNotify, "start-notify"},
    {UpdateStep::ConnectionParameters, "connection-parameters"},
    {UpdateStep::GetImageInfo, "get-image-info"},
    {UpdateStep::StartUpdate, "start-update"},
    {UpdateStep::ImageInfo, "image-info"},
    {UpdateStep::Data, "data"},
    {UpdateStep::Verify, "verify"},
    {UpdateStep::StopNotify, "stop-notify"},
    {UpdateStep::Reset, "reset"},
}};

std::uint16_t littleEndian16(const std::uint8_t* bytes)
{
    return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
}

void append(Bytes& bytes, std::uint32_t value, std::size_t width)
{
    for (std::size_t i = 0; i < width; ++i) {
        bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

const Command* findCommand(const Bytes& bytes)
{
    const auto* found = std::find_if(kCommands.begin(), kCommands.end(), [&bytes](const Command& command) {
        return !bytes.empty() && command.opcode == bytes[0];
    });
    return found != kCommands.end() ? found : nullptr;
}
} // namespace

UpdateKey developmentKey()
{
    UpdateKey key{};
    for (std::size_t i = 0; i < key.size(); ++i) {
        key[i] = static_cast<std::uint8_t>(i);
    }
    return key;
}

UpdateKey readKeyFile(const std::string& path)
{
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error("can't open the key file " + path);
    }
    std::string text{std::istreambuf_iterator<char>(file), {}};
    text = g_strstrip(text.data());
    if (text.size() != kKeyDigits) {
        throw std::runtime_error("the key file " + path + " holds " + std::to_string(text.size()) +
                                 " characters where 64 hexadecimal digits are expected");
    }
    if (!std::all_of(text.begin(), text.end(), [](char c) { return g_ascii_isxdigit(c) != FALSE; })) {
        throw std::runtime_error("the key file " + path + " holds something other than hexadecimal digits");
    }
    UpdateKey key{};
    for (std::size_t i = 0; i < key.size(); ++i) {
        key[i] = static_cast<std::uint8_t>(g_ascii_xdigit_value(text[2 * i]) << 4 |
                                           g_ascii_xdigit_value(text[2 * i + 1]));
    }
    return key;
}

std::string toString(UpdateStep step)
{
    for (const auto& [known, word] : kStepWords) {
        if (known == step) {
            return word;
        }
    }
    return "";
}

std::optional<UpdateStep> updateStepFrom(const std::string& word)
{
    for (const auto& [step, known] : kStepWords) {
        if (word == known) {
            return step;
        }
    }
    return {};
}

ImageHeader ImageHeader::decode(const std::uint8_t* bytes)
{
    ImageHeader header;
    header.offset = littleEndian16(bytes);
    header.signature = littleEndian16(bytes + 2);
    header.version = littleEndian16(bytes + 4);
    header.checksum = littleEndian16(bytes + 6);
    header.length = littleEndian16(bytes + 8);
    header.otaFlag = bytes[10];
    header.reserved = bytes[11];
    return header;
}

Bytes ImageHeader::encode() const
{
    Bytes bytes;
    for (const std::uint16_t field : {offset, signature, version, checksum, length}) {
        append(bytes, field, 2);
    }
    bytes.push_back(otaFlag);
    bytes.push_back(reserved);
    return bytes;
}

UpdateReceiver::UpdateReceiver(const UpdateKey& key) : mKey(key) {}

void UpdateReceiver::setRunningImage(std::uint16_t version, std::uint32_t offset)
{
    const std::lock_guard lock(mMutex);
    mRunningVersion = version;
    mRunningOffset = offset;
}

void UpdateReceiver::setFault(UpdateStep step, const UpdateFault& fault)
{
    const std::lock_guard lock(mMutex);
    mFaults[step] = fault;
}

UpdateReceiver::Outcome UpdateReceiver::switchWritten(const Bytes& bytes)
{
    std::lock_guard lock(mMutex);
    record(UpdatePacket::Channel::Switch, false, bytes);
    Outcome outcome;
    outcome.reset = bytes == Bytes{kSwitchToUpdate};
    if (!outcome.reset) {
        complain("the switch wants the one byte 01");
    }
    const auto fault = takeFault(UpdateStep::Switch);
    return fault ? apply(*fault, outcome) : outcome;
}

UpdateReceiver::Outcome UpdateReceiver::commandWritten(const Bytes& bytes)
{
    std::lock_guard lock(mMutex);
    record(UpdatePacket::Channel::ControlPoint, false, bytes);
    const Command* known = findCommand(bytes);
    if (known != nullptr) {
        return command(known->step, bytes);
    }
    complain("an unknown command");
    return {};
}

UpdateReceiver::Outcome UpdateReceiver::command(UpdateStep step, const Bytes& bytes)
{
    const auto fault = takeFault(step);
    if (fault && fault->refuse != att::kOk) {
        return apply(*fault, {});
    }
    Outcome outcome;
    const bool good = carryOut(step, bytes);
    const Command& known = *findCommand(bytes);
    if (known.answered || (fault && (fault->status || fault->length || fault->copies > 1))) {
        outcome.answers.push_back(answerTo(step, bytes, good));
    }
    outcome.reset = step == UpdateStep::Reset && good;
    return fault ? apply(*fault, outcome) : outcome;
}

bool UpdateReceiver::carryOut(UpdateStep step, const Bytes& bytes)
{
    mSession.complaint.clear();
    if (bytes.size() != findCommand(bytes)->length) {
        return complain(toString(step) + ": wrong length of the packet");
    }
    switch (step) {
    case UpdateStep::StartUpdate:
        return startUpdate(bytes);
    case UpdateStep::ImageInfo:
        if (!mSession.header || littleEndian16(&bytes[1]) != mSession.header->signature) {
            return complain("image-info: not the signature that was announced");
        }
        if (Bytes(bytes.begin() + 3, bytes.end()) != Bytes{ImageHeader::kSize, 0, 0, 0}) {
            return complain("image-info: the header size isn't 12");
        }
        return true;
    case UpdateStep::Verify:
        return verify(bytes);
    default:
        return true;
    }
}

bool UpdateReceiver::startUpdate(const Bytes& bytes)
{
    mSession.startBlock = decipher(&bytes[1]);
    if (!std::all_of(mSession.startBlock.begin() + ImageHeader::kSize, mSession.startBlock.end(),
                     [](std::uint8_t byte) { return byte == 0; })) {
        return complain("start-update: no zeros behind the header; another key?");
    }
    if (!mExpected.empty() &&
        !std::equal(mExpected.begin(), mExpected.begin() + ImageHeader::kSize, mSession.startBlock.begin())) {
        return complain("start-update: not the header of the image");
    }
    mSession.header = ImageHeader::decode(mSession.startBlock.data());
    mSession.payload.clear();
    mSession.blocks = 0;
    mSession.verified = false;
    return true;
}

UpdateReceiver::Outcome UpdateReceiver::dataWritten(const Bytes& bytes)
{
    std::lock_guard lock(mMutex);
    record(UpdatePacket::Channel::Data, false, bytes);
    const auto fault = takeFault(UpdateStep::Data);
    if (fault && fault->refuse != att::kOk) {
        return apply(*fault, {});
    }
    if (bytes.empty() || bytes.size() > kDataBlock) {
        complain("data: a block has 1 to 20 bytes");
    }
    // A block shorter than a cipher block is unencrypted, and so is everything after the first 16 bytes.
    std::size_t clear = 0;
    if (bytes.size() >= kCipherBlock) {
        const Bytes plain = decipher(bytes.data());
        mSession.payload.insert(mSession.payload.end(), plain.begin(), plain.end());
        clear = kCipherBlock;
    }
    mSession.payload.insert(mSession.payload.end(), bytes.begin() + static_cast<std::ptrdiff_t>(clear),
                            bytes.end());
    ++mSession.blocks;
    return fault ? apply(*fault, {}) : Outcome{};
}

bool UpdateReceiver::verify(const Bytes& bytes)
{
    mSession.verified = false;
    if (!mSession.header) {
        return complain("verify: no update was started");
    }
    if (littleEndian16(&bytes[1]) != mSession.header->signature) {
        return complain("verify: not the signature that was announced");
    }
    // The sender doesn't cut its last block to the announced length.
    const std::size_t announced = mSession.header->payloadBytes();
    if (mSession.payload.size() < announced || mSession.payload.size() >= announced + kDataBlock) {
        return complain("verify: " + std::to_string(mSession.payload.size()) + " bytes came, " +
                        std::to_string(announced) + " were announced");
    }
    if (!mExpected.empty()) {
        const Bytes expected(mExpected.begin() + ImageHeader::kSize, mExpected.end());
        const auto compared = static_cast<std::ptrdiff_t>(std::min(mSession.payload.size(), expected.size()));
        if (!std::equal(expected.begin(), expected.begin() + compared, mSession.payload.begin())) {
            return complain("verify: not the bytes of the image");
        }
    }
    mSession.verified = true;
    return true;
}

UpdateReceiver::Outcome UpdateReceiver::notifySwitched(bool on)
{
    std::lock_guard lock(mMutex);
    const auto fault = takeFault(on ? UpdateStep::StartNotify : UpdateStep::StopNotify);
    return fault ? apply(*fault, {}) : Outcome{};
}

Bytes UpdateReceiver::answerTo(UpdateStep step, const Bytes& command, bool good) const
{
    Bytes answer = {command[0], 0x00, good ? kStatusGood : kStatusBad};
    if (step == UpdateStep::GetImageInfo) {
        append(answer, mRunningVersion, 2);
        append(answer, mRunningOffset, 4);
    }
    return answer;
}

UpdateReceiver::Outcome UpdateReceiver::apply(const UpdateFault& fault, Outcome outcome) const
{
    constexpr std::size_t kStatusOffset = 2;
    outcome.vanish = fault.vanish;
    outcome.reply.error = fault.refuse;
    if (fault.noWriteReply) {
        outcome.reply.kind = AttReply::Kind::NoAnswer;
    }
    if (fault.refuse != att::kOk) {
        outcome.reset = false;
    }
    outcome.answerDelay = fault.late;
    for (Bytes& answer : outcome.answers) {
        if (fault.status) {
            answer[kStatusOffset] = *fault.status;
        }
        if (fault.length) {
            answer.resize(*fault.length);
        }
    }
    if (!outcome.answers.empty() && fault.copies > 1) {
        outcome.answers.resize(fault.copies, Bytes(outcome.answers.front()));
    }
    if (!fault.answers.empty()) {
        outcome.answers = fault.answers;
    }
    if (fault.silent || fault.vanish || fault.refuse != att::kOk) {
        outcome.answers.clear();
    }
    return outcome;
}

std::optional<UpdateFault> UpdateReceiver::takeFault(UpdateStep step)
{
    const auto found = mFaults.find(step);
    if (found == mFaults.end()) {
        return {};
    }
    UpdateFault& fault = found->second;
    if (step == UpdateStep::Data && fault.block && *fault.block != mSession.blocks) {
        return {};
    }
    const UpdateFault taken = fault;
    if (fault.times > 0 && --fault.times == 0) {
        mFaults.erase(found);
    }
    return taken;
}

Bytes UpdateReceiver::decipher(const std::uint8_t* block) const
{
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                  &EVP_CIPHER_CTX_free);
    Bytes plain(kCipherBlock);
    int length = 0;
    if (context == nullptr ||
        EVP_DecryptInit_ex(context.get(), EVP_aes_256_ecb(), nullptr, mKey.data(), nullptr) != 1 ||
        EVP_CIPHER_CTX_set_padding(context.get(), 0) != 1 ||
        EVP_DecryptUpdate(context.get(), plain.data(), &length, block, int{kCipherBlock}) != 1) {
        throw std::runtime_error("libcrypto doesn't decipher AES-256-ECB");
    }
    return plain;
}

bool UpdateReceiver::complain(const std::string& text)
{
    mSession.complaint = text;
    return false;
}

void UpdateReceiver::record(UpdatePacket::Channel channel, bool fromRemote, const Bytes& bytes)
{
    mPackets.push_back({g_get_monotonic_time(), channel, fromRemote, bytes});
}

void UpdateReceiver::answered(const Bytes& bytes)
{
    std::lock_guard lock(mMutex);
    record(UpdatePacket::Channel::ControlPoint, true, bytes);
}

} // namespace vexasim
