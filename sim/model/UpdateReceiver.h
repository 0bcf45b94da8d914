// SPDX-License-Identifier: MIT
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sim/model/Gatt.h"

namespace vexasim
{

using UpdateKey = std::array<std::uint8_t, 32>;

/// The published development key: bytes 00 01 02 ... 1f.
UpdateKey developmentKey();

/// Reads 64 hexadecimal digits, blanks and newlines around them allowed, from a file. Throws
/// std::runtime_error that says what is wrong with the file.
UpdateKey readKeyFile(const std::string& path);

/// The steps of an update at which the remote can be made to misbehave.
enum class UpdateStep {
    Switch,               ///< the write of the switch byte, in normal mode
    StartNotify,          ///< notifications of the control point switched on
    ConnectionParameters, ///< command 0x07
    GetImageInfo,         ///< command 0x06
    StartUpdate,          ///< command 0x01
    ImageInfo,            ///< command 0x02
    Data,                 ///< a data block
    Verify,               ///< command 0x03
    StopNotify,           ///< notifications of the control point switched off
    Reset,                ///< command 0x04
};

/// "switch", "start-notify", "connection-parameters", ... as the program spells them.
std::string toString(UpdateStep step);
std::optional<UpdateStep> updateStepFrom(const std::string& word);

/// What goes wrong at one step. By default nothing does.
struct UpdateFault {
    bool silent = false;                ///< the command is carried out but not answered
    std::chrono::milliseconds late{0};  ///< the answer comes this much later
    std::optional<std::uint8_t> status; ///< replaces the status byte
    std::optional<std::size_t> length;  ///< the answer is cut, or filled with zeros, to this many bytes
    unsigned copies = 1;                ///< how many times the answer is sent
    std::vector<Bytes> answers;         ///< if not empty, these are sent instead
    std::uint8_t refuse = att::kOk; ///< the write itself is refused with this code; nothing is carried out
    bool noWriteReply = false;      ///< the write itself is never answered
    bool vanish = false;            ///< the link ends instead of an answer, and the remote goes off the air
    std::optional<unsigned> block;  ///< Data only: only at this block, counted from 0
    int times = -1;                 ///< how often; -1: until cleared
};

/// One packet as the remote saw it.
struct UpdatePacket {
    enum class Channel { Switch, ControlPoint, Data };
    std::int64_t timeUs = 0; ///< monotonic clock
    Channel channel = Channel::ControlPoint;
    bool fromRemote = false; ///< an answer; otherwise a write to the remote
    Bytes bytes;             ///< as on the wire
};

/// The 12 bytes at the head of an image, decoded.
struct ImageHeader {
    std::uint16_t offset = 0;
    std::uint16_t signature = 0;
    std::uint16_t version = 0;
    std::uint16_t checksum = 0;
    std::uint16_t length = 0; ///< of the payload in 32-bit words
    std::uint8_t otaFlag = 0;
    std::uint8_t reserved = 0;

    static constexpr std::size_t kSize = 12;
    /// Needs at least 12 bytes.
    static ImageHeader decode(const std::uint8_t* bytes);
    Bytes encode() const;
    std::size_t payloadBytes() const { return std::size_t{length} * 4; }
};

/// The receiving side of the update protocol: takes the writes, deciphers and reassembles the image, and
/// determines the answers. No D-Bus, no timers. Every method may be called on any thread.
class UpdateReceiver
{
public:
    /// The result of a write.
    struct Outcome {
        AttReply reply;             ///< to the write itself
        std::vector<Bytes> answers; ///< notifications of the control point, in order
        std::chrono::milliseconds answerDelay{0};
        bool vanish = false; ///< the link ends and the remote goes off the air
        bool reset = false;  ///< the remote restarts, into the new image if it was verified
    };

    explicit UpdateReceiver(const UpdateKey& key);

    void setKey(const UpdateKey& key) { set(mKey, key); }
    /// The whole image file, header included, with which Verify compares the received image. If it is empty,
    /// only the announced length is checked.
    void setExpectedImage(const Bytes& image) { set(mExpected, image); }
    /// What GetImageInfo answers.
    void setRunningImage(std::uint16_t version, std::uint32_t offset);
    void setFault(UpdateStep step, const UpdateFault& fault);
    void clearFaults() { set(mFaults, {}); }

    /// Starts a new session: clears the received data, but neither the faults nor the recorded packets.
    void begin() { set(mSession, {}); }
    Outcome switchWritten(const Bytes& bytes);
    Outcome commandWritten(const Bytes& bytes);
    Outcome dataWritten(const Bytes& bytes);
    Outcome notifySwitched(bool on);
    /// Records an answer that was actually sent.
    void answered(const Bytes& bytes);

    // --- received so far ---
    std::optional<ImageHeader> header() const
    {
        return get(mSession.header);
    } ///< of the last good start packet
    Bytes startBlock() const
    {
        return get(mSession.startBlock);
    }                                                       ///< the 16 deciphered bytes of the start packet
    Bytes payload() const { return get(mSession.payload); } ///< deciphered so far
    unsigned blocks() const { return get(mSession.blocks); }
    bool verified() const { return get(mSession.verified); }
    std::string complaint() const
    {
        return get(mSession.complaint);
    } ///< why the last step failed, empty if it didn't
    std::vector<UpdatePacket> packets() const { return get(mPackets); }
    void clearPackets() { set(mPackets, {}); }

private:
    /// Received since `begin`.
    struct Session {
        std::optional<ImageHeader> header;
        Bytes startBlock;
        Bytes payload;
        unsigned blocks = 0;
        bool verified = false;
        std::string complaint;
    };

    template <typename Value>
    Value get(const Value& member) const
    {
        const std::lock_guard lock(mMutex);
        return member;
    }
    template <typename Value>
    void set(Value& member, const Value& value)
    {
        const std::lock_guard lock(mMutex);
        member = value;
    }
    Outcome command(UpdateStep step, const Bytes& bytes);
    bool carryOut(UpdateStep step, const Bytes& bytes);
    bool startUpdate(const Bytes& bytes);
    bool verify(const Bytes& bytes);
    Bytes answerTo(UpdateStep step, const Bytes& command, bool good) const;
    Outcome apply(const UpdateFault& fault, Outcome outcome) const;
    std::optional<UpdateFault> takeFault(UpdateStep step);
    Bytes decipher(const std::uint8_t* block) const;
    bool complain(const std::string& text);
    void record(UpdatePacket::Channel channel, bool fromRemote, const Bytes& bytes);

    mutable std::mutex mMutex;
    UpdateKey mKey;
    Bytes mExpected;
    std::uint16_t mRunningVersion = 0;
    std::uint32_t mRunningOffset = 0;
    std::map<UpdateStep, UpdateFault> mFaults;
    Session mSession;
    std::vector<UpdatePacket> mPackets;
};

} // namespace vexasim
