// SPDX-License-Identifier: MIT
#include "tests/daemon/UpdateStory.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <gmock/gmock.h>
#include <memory>

namespace kit
{

namespace
{

using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;
using ::testing::ElementsAreArray;
using vexasim::Bend;
using vexasim::Bytes;
using vexasim::UpdateFault;
using vexasim::UpdatePacket;
using vexasim::UpdateStep;

constexpr const char* kStatus = "bluetooth_status";
constexpr const char* kUpdating = "I Updating RC firmware from 1a3 to 1a4";
constexpr std::size_t kBlockBytes = 20;

bool begins(const std::string& text, const std::string& beginning)
{
    return text.compare(0, beginning.size(), beginning) == 0;
}

// Of the core's records, these concern the update, the others the remote's links.
bool isAboutUpdate(const LogRecord& record)
{
    if (record.module == "RcuOtaUpdater" || record.module == "Firmware") {
        return true;
    }
    static const Lines kBeginnings = {"Firmware symlink found", "REMOVE: /tmp/bluetooth_rc_fw",
                                      "Update canceled",        "RC update is unnecessary",
                                      "Updating RC firmware",   "Firmware updated",
                                      "Firmware update failed"};
    return record.module == "main" &&
           std::any_of(kBeginnings.begin(), kBeginnings.end(),
                       [&record](const std::string& beginning) { return begins(record.text, beginning); });
}

std::string signatureOf(const FirmwareImage& image)
{
    const Bytes header = image.header();
    return toHex(Bytes{header[2], header[3]}, " ");
}

} // namespace

// --- the status file ---

void StatusSampler::watch(const Room& room)
{
    const std::lock_guard lock(mMutex);
    mRoom = &room;
}

void StatusSampler::begin()
{
    const std::lock_guard lock(mMutex);
    mCourse.clear();
    while (mCourse.empty()) {
        sample(); // again if the daemon is writing it right now
    }
}

void StatusSampler::sample()
{
    const std::lock_guard lock(mMutex);
    const auto text = mRoom != nullptr ? mRoom->content(kStatus) : std::nullopt;
    if (text && !text->empty() && text->back() == '\n') {
        note(text->substr(0, text->size() - 1));
    }
}

void StatusSampler::note(const std::string& word)
{
    const std::lock_guard lock(mMutex);
    if (mCourse.empty() || mCourse.back() != word) {
        mCourse.push_back(word);
    }
}

Lines StatusSampler::course() const
{
    const std::lock_guard lock(mMutex);
    return mCourse;
}

// --- the fixture ---

UpdateStory::UpdateStory(const BoxOptions& options) : InABox(sampled(options))
{
    sampler.watch(box);
    // Changes only one thing: the simulator reports each write before it answers.
    box.sim().bend(Bend::lateReply("WriteValue", 0ms));
}

BoxOptions UpdateStory::sampled(BoxOptions options)
{
    options.simulator.remote.key = sharedKey();
    options.simulator.onEvent = [this](const std::string&) { sampler.sample(); };
    return options;
}

bool UpdateStory::remoteIsRead(std::uint8_t battery, std::uint16_t version)
{
    box.remote().setBattery(battery);
    box.remote().setVersion(version);
    if (!box.startConnected()) {
        return false;
    }
    box.clock().advance(20s); // the fifteen seconds that the daemon leaves a new link alone
    return box.log().await(beginsLog(DEBUG, "main", "rc fw version: ")) && box.awaitPasses(1);
}

void UpdateStory::offer(const FirmwareImage& image, const std::string& name)
{
    const Bytes bytes = image.file();
    std::ofstream(box.file(name), std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    box.remote().receiver().setExpectedImage(bytes);
    sampler.begin();
    box.linkFirmware("/tmp/" + name);
}

bool UpdateStory::ends(const std::string& outcome, std::chrono::milliseconds limit)
{
    const std::string word = "rc_fw_update_" + outcome;
    if (!box.files().await(kStatus, word, limit)) {
        return false;
    }
    sampler.note(word);
    return true;
}

bool UpdateStory::idlesWith(const std::string& word)
{
    if (!box.awaitStatus(word)) {
        return false;
    }
    sampler.note(word);
    return true;
}

void UpdateStory::expectFailure(const FirmwareImage& image, const Lines& log, const std::vector<int>& numbers,
                                const std::string& idle)
{
    constexpr auto kFindLimit = 60s; // real time: the update's waits don't follow the moved clock
    ASSERT_TRUE(ends("failed", kFindLimit + kPatience));
    ASSERT_TRUE(idlesWith(idle));
    EXPECT_THAT(updateLog(), ElementsAreArray(logOfStart(image) + Lines{kUpdating} + log +
                                              Lines{"E Firmware update failed"}));
    EXPECT_THAT(course(), ElementsAreArray(words(numbers, {"rc_fw_update_failed", idle})));
}

Lines UpdateStory::updateLog()
{
    Lines lines;
    for (const LogRecord& record : box.log().records()) {
        if (!record.foreign && isAboutUpdate(record)) {
            lines.push_back(std::string(1, static_cast<char>(record.level)) + " " + record.text);
        }
    }
    return lines;
}

Lines UpdateStory::exchange()
{
    Lines lines;
    for (const UpdatePacket& packet : packets()) {
        const char* channel = packet.channel == UpdatePacket::Channel::Switch         ? "switch"
                              : packet.channel == UpdatePacket::Channel::ControlPoint ? "control"
                                                                                      : "data";
        lines.push_back((packet.fromRemote ? "< " : "> ") + std::string(channel) + toHex(packet.bytes, " "));
    }
    return lines;
}

// --- the image and its packets ---

FirmwareImage newerImage(std::uint16_t words, std::size_t bytes)
{
    FirmwareImage image = FirmwareImage::ofBytes(words, bytes);
    image.version = 0x1a4;
    return image;
}

FirmwareImage newerImage(std::uint16_t words)
{
    return newerImage(words, std::size_t{4} * words);
}

Lines dataPackets(const FirmwareImage& image, std::size_t bytes)
{
    Lines lines;
    for (std::size_t i = 0; i < bytes; i += kBlockBytes) {
        const auto begin = image.payload.begin() + static_cast<std::ptrdiff_t>(i);
        const Bytes block(begin, begin + static_cast<std::ptrdiff_t>(std::min(kBlockBytes, bytes - i)));
        lines.push_back("> data" + toHex(onAir(block), " "));
    }
    return lines;
}

Lines exchangeUpToData(const FirmwareImage& image)
{
    Bytes plain = image.header();
    plain.resize(kCipherBytes);
    const std::string signature = signatureOf(image);
    return {"> switch 01",
            "> control 07 06 00 11 00 00 00 f4 01",
            "< control 07 00 01",
            "> control 06" + signature,
            "< control 06 00 01 a3 01 00 00 00 00",
            "> control 01" + toHex(enciphered(plain), " "),
            "< control 01 00 01",
            "> control 02" + signature + " 0c 00 00 00"};
}

Lines goodExchange(const FirmwareImage& image, std::size_t bytes)
{
    return exchangeUpToData(image) + dataPackets(image, bytes) +
           Lines{"> control 03" + signatureOf(image), "< control 03 00 01", "> control 04"};
}

Lines sentIn(const Lines& exchange)
{
    Lines sent;
    std::copy_if(exchange.begin(), exchange.end(), std::back_inserter(sent),
                 [](const std::string& line) { return line[0] == '>'; });
    return sent;
}

// --- other behaviour ---

Arrangement both(const Arrangement& first, const Arrangement& second)
{
    return [first, second](Box& box) {
        first(box);
        second(box);
    };
}

Arrangement with(UpdateStep step, const std::function<void(UpdateFault&)>& edit)
{
    UpdateFault fault;
    edit(fault);
    return [step, fault](Box& box) { box.remote().receiver().setFault(step, fault); };
}

Arrangement refused(UpdateStep step)
{
    return with(step, [](UpdateFault& fault) { fault.refuse = vexasim::att::kUnlikelyError; });
}

Arrangement silent(UpdateStep step)
{
    return with(step, [](UpdateFault& fault) { fault.silent = true; });
}

Arrangement late(UpdateStep step, std::chrono::milliseconds delay)
{
    return with(step, [delay](UpdateFault& fault) { fault.late = delay; });
}

Arrangement answering(UpdateStep step, const std::vector<Bytes>& answers)
{
    return with(step, [&answers](UpdateFault& fault) { fault.answers = answers; });
}

Arrangement slowWrites(std::chrono::milliseconds delay)
{
    return [delay](Box& box) {
        const std::string path = box.sim().pathOf(*box.remote().update(), vexasim::uuid::kControlPoint);
        box.sim().bend(Bend::lateReply("WriteValue", delay).on(path).times(2));
    };
}

// --- the log and the words ---

Lines logOfStart(const FirmwareImage& image, const std::string& name)
{
    std::array<char, 160> fields{};
    std::snprintf(fields.data(), fields.size(),
                  "D offset: 0x%04x signature: 0x%04x version: 0x%04x checksum: 0x%04x length: 0x%04x "
                  "ota_flag: 0x%02x reserved: 0x%02x",
                  image.offset, image.signature, image.version, image.checksum, image.length, image.otaFlag,
                  image.reserved);
    return {"D Firmware symlink found: /tmp/" + name, "W REMOVE: /tmp/bluetooth_rc_fw", fields.data()};
}

Lines logOfGoodUpdate(const FirmwareImage& image, std::size_t bytes)
{
    return logOfStart(image) +
           Lines{kUpdating, "D image version: 1a3 image offset: 0", "D writeFw: writing..."} +
           logOfBlocks(image, bytes) + Lines{"D img reset", "I Firmware updated"};
}

Lines logOfBlocks(const FirmwareImage& image, std::size_t bytes)
{
    Lines lines;
    const int total = image.length * 4;
    for (std::size_t i = 0; i < bytes; i += kBlockBytes) {
        const int size = static_cast<int>(std::min(kBlockBytes, bytes - i));
        const int sent = static_cast<int>(i) + size;
        std::array<char, 120> text{};
        std::snprintf(text.data(), text.size(), "I %d bytes written. Sent %d of %d left %d (%0.2f%%)", size,
                      sent, total, total - sent, 100.0 * sent / total);
        lines.emplace_back(text.data());
    }
    return lines;
}

std::vector<int> publishedNumbers(int total, std::size_t bytes)
{
    std::vector<int> numbers;
    float last = 0;
    for (std::size_t sent = 0; sent < bytes;) {
        sent = std::min(bytes, sent + kBlockBytes);
        const float percent = float(sent) / float(total) * 100;
        if (percent - last > 0.95F) {
            numbers.push_back(static_cast<int>(std::ceil(percent)));
            last = percent;
        }
    }
    return numbers;
}

Lines words(const std::vector<int>& numbers, const Lines& rest)
{
    Lines all = {"connected", "rc_fw_update_preparing"};
    for (const int number : numbers) {
        all.push_back("rc_fw_update_uploading_" + std::to_string(number));
    }
    // A word that is published twice in a row changes nothing in the file.
    all.erase(std::unique(all.begin(), all.end()), all.end());
    return all + rest;
}

Lines operator+(Lines left, const Lines& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

} // namespace kit
