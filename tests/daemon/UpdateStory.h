// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "tests/kit/Box.h"
#include "tests/kit/Cipher.h"
#include "tests/kit/FirmwareImage.h"
#include "tests/kit/Hex.h"

namespace kit
{

using Lines = std::vector<std::string>;

/// Reads the status file while the daemon waits for the answer to a write, so that it misses no word however
/// late the test wakes up. Any thread.
class StatusSampler
{
public:
    void watch(const Room& room);
    /// Forgets the course; what the file holds now is its first word.
    void begin();
    void sample();
    /// Adds a word that was seen some other way.
    void note(const std::string& word);
    Lines course() const;

private:
    mutable std::recursive_mutex mMutex;
    const Room* mRoom = nullptr;
    Lines mCourse;
};

/// Made before the box, whose options name it.
struct HasStatusSampler {
    StatusSampler sampler;
};

/// A box with a paired remote, and everything that a test of an update needs.
class UpdateStory : private HasStatusSampler, public InABox
{
protected:
    explicit UpdateStory(const BoxOptions& options = pairedRemote());

    // --- before the update ---
    /// Starts the daemon and waits until the remote is connected and its battery and version are read.
    bool remoteIsRead(std::uint8_t battery = 80, std::uint16_t version = 0x1a3);
    /// Writes the image's file, and links it for the daemon.
    void offer(const FirmwareImage& image, const std::string& name = "image.bin");

    // --- its end ---
    /// Awaits the outcome, "succeed", "failed" or "canceled". Its word stays for three seconds.
    bool ends(const std::string& outcome, std::chrono::milliseconds limit = kPatience);
    /// Awaits the ordinary word that follows the outcome.
    bool idlesWith(const std::string& word);
    /// Expects an update that fails, from "connected" to `idle`, and logs `log` after "Updating...".
    void expectFailure(const FirmwareImage& image, const Lines& log, const std::vector<int>& numbers,
                       const std::string& idle = "disconnected");

    // --- what was seen ---
    /// The words of the status file since the image was offered.
    Lines course() const { return sampler.course(); }
    /// The daemon's records about the update, as "E Upload fw failed".
    Lines updateLog();
    /// The packets in both directions, as "> control 07 06 00", "< control ..." or "> data ...".
    Lines exchange();
    std::vector<vexasim::UpdatePacket> packets() { return box.remote().receiver().packets(); }

    std::string updatePathOf(const std::string& uuid)
    {
        return box.sim().pathOf(*box.remote().update(), uuid);
    }

private:
    BoxOptions sampled(BoxOptions options);
};

/// An image of version 1a4 that announces `words` words and holds `bytes` bytes of payload.
FirmwareImage newerImage(std::uint16_t words, std::size_t bytes);
FirmwareImage newerImage(std::uint16_t words);

/// What the daemon and a well-behaved remote send each other for this image when `bytes` bytes of its payload
/// are sent, in blocks of 20.
Lines goodExchange(const FirmwareImage& image, std::size_t bytes);
Lines exchangeUpToData(const FirmwareImage& image);
Lines dataPackets(const FirmwareImage& image, std::size_t bytes);
/// The packets of an exchange that go to the remote.
Lines sentIn(const Lines& exchange);

// --- other behaviour of the remote or of BlueZ ---
using Arrangement = std::function<void(Box&)>;
Arrangement both(const Arrangement& first, const Arrangement& second);
Arrangement with(vexasim::UpdateStep step, const std::function<void(vexasim::UpdateFault&)>& edit);
/// The write itself is refused.
Arrangement refused(vexasim::UpdateStep step);
/// The command is carried out but not answered.
Arrangement silent(vexasim::UpdateStep step);
/// The answer comes this much later.
Arrangement late(vexasim::UpdateStep step, std::chrono::milliseconds delay);
/// These are sent in place of the remote's own answer.
Arrangement answering(vexasim::UpdateStep step, const std::vector<vexasim::Bytes>& answers);
/// BlueZ takes this long to answer the writes of the connection parameters and of the image query.
Arrangement slowWrites(std::chrono::milliseconds delay);

// --- the log ---
/// From the firmware link to the end of a successful update that sends `bytes` bytes.
Lines logOfGoodUpdate(const FirmwareImage& image, std::size_t bytes);
/// From the firmware link to the start of the update.
Lines logOfStart(const FirmwareImage& image, const std::string& name = "image.bin");
/// "I 20 bytes written. Sent 20 of 100 left 80 (20.00%)" and so on.
Lines logOfBlocks(const FirmwareImage& image, std::size_t bytes);

// --- the status file ---
/// The percentages that an upload publishes: one whenever it has risen by more than 0.95, rounded up from
/// single precision.
std::vector<int> publishedNumbers(int total, std::size_t bytes);
/// "connected", "rc_fw_update_preparing", a word for each number, and `rest`.
Lines words(const std::vector<int>& numbers, const Lines& rest);

Lines operator+(Lines left, const Lines& right);

} // namespace kit
