// SPDX-License-Identifier: MIT
// A single interrupt never kills the daemon, whatever it is doing and however much it logs. Each interrupt
// goes to a fresh daemon, at a random moment of a phase. The seed of the moments is printed; pass it to
// --gtest_random_seed to repeat a run.

#include <chrono>
#include <csignal>
#include <fstream>
#include <iostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/daemon/UpdateStory.h"

namespace kit
{

using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;

namespace
{

using std::chrono::microseconds;
using std::chrono::steady_clock;

constexpr auto kStop = 2s * 2 * kSlowness; // two seconds, and as much again for cases run in parallel
constexpr int kLargestSeed = 99999;        // the largest that --gtest_random_seed takes

// --- the phases ---

struct Phase {
    std::string name;
    BoxOptions options;
    bool (*reach)(Box& box);
    microseconds length;      ///< the interrupt comes at any moment of it
    unsigned lines;           ///< that the daemon logs in it, roughly
    bool goesOnFirst = false; ///< like an update, which can't be interrupted
};

bool startWithoutAdapter(Box& box)
{
    box.sim().removeAdapter();
    box.startDaemon();
    return box.program().awaitHandlerOf(SIGINT);
}

bool start(Box& box)
{
    box.startDaemon();
    return box.program().awaitHandlerOf(SIGINT);
}

bool idle(Box& box)
{
    return box.startToIdle();
}

bool readValues(Box& box)
{
    const bool connected = box.startConnected();
    box.clock().advance(16s); // the fifteen seconds that the daemon leaves a new link alone
    return connected;
}

bool holdButton(Box& box)
{
    const bool idles = box.startToIdle();
    box.pressButton();
    return idles;
}

bool scan(Box& box)
{
    const bool idles = box.startToIdle();
    box.setFlag("pair");
    return idles && box.awaitStatus("scanning");
}

bool pair(Box& box)
{
    const bool idles = box.startToIdle();
    box.setFlag("pair");
    return idles;
}

bool update(Box& box)
{
    box.remote().setBattery(80);
    box.remote().setVersion(0x1a3);
    if (!readValues(box) || !box.log().await(beginsLog(DEBUG, "main", "rc fw version: "))) {
        return false;
    }
    const vexasim::Bytes image = newerImage(250).file();
    std::ofstream(box.file("image.bin"), std::ios::binary)
        .write(reinterpret_cast<const char*>(image.data()), static_cast<std::streamsize>(image.size()));
    box.remote().receiver().setExpectedImage(image);
    box.linkFirmware("/tmp/image.bin");
    return true;
}

BoxOptions withKey(BoxOptions options)
{
    options.simulator.remote.key = sharedKey();
    return options;
}

std::vector<Phase> phases()
{
    return {{"Update", withKey(pairedRemote()), update, 6s, 120, true},
            {"StartWithoutAnAdapter", {}, startWithoutAdapter, 1200ms, 12},
            {"Start", {}, start, 800ms, 30},
            {"Idle", {}, idle, 800ms, 12},
            {"Readings", pairedRemote(), readValues, 800ms, 30},
            {"HeldButton", {}, holdButton, 1200ms, 12},
            {"Scan", noRemote(), scan, 500ms, 12},
            {"Pairing", {}, pair, 1500ms, 60}};
}

// --- the interrupts ---

struct Series {
    Phase phase;
    unsigned part;
    unsigned interrupts;

    friend std::ostream& operator<<(std::ostream& out, const Series& series)
    {
        return out << series.interrupts << " interrupts";
    }
};

/// `updates` parts of the longest phase, `others` parts of each other phase.
std::vector<Series> allSeries(unsigned others, unsigned interrupts, unsigned updates,
                              unsigned interruptsOfUpdates)
{
    std::vector<Series> all;
    for (const Phase& phase : phases()) {
        const unsigned parts = phase.goesOnFirst ? updates : others;
        for (unsigned part = 1; part <= parts; ++part) {
            all.push_back({phase, part, phase.goesOnFirst ? interruptsOfUpdates : interrupts});
        }
    }
    return all;
}

std::string nameOf(const ::testing::TestParamInfo<Series>& given)
{
    return given.param.phase.name + std::to_string(given.param.part);
}

int chosenSeed()
{
    const int given = GTEST_FLAG_GET(random_seed);
    return given != 0 ? given : static_cast<int>(std::random_device()() % kLargestSeed) + 1;
}

class AnInterrupt : public ::testing::TestWithParam<Series>
{
protected:
    AnInterrupt() : mSeed(chosenSeed()), mRandom(static_cast<unsigned>(mSeed))
    {
        std::cout << "seed " << mSeed << "\n";
    }

    void interruptEach()
    {
        for (unsigned round = 1; round <= GetParam().interrupts; ++round) {
            SCOPED_TRACE("round " + std::to_string(round) + ", seed " + std::to_string(mSeed));
            interruptOne();
        }
    }

private:
    void interruptOne()
    {
        const Phase& phase = GetParam().phase;
        BoxOptions options = phase.options;
        options.environment = {{"VEXA_LOG_LEVEL", "TRACE"}};
        Box box(options);
        ASSERT_TRUE(phase.reach(box)) << box.describe();
        awaitMoment(box);

        const auto begin = steady_clock::now();
        box.interrupt();
        const auto exit = box.awaitExit();
        const auto took = steady_clock::now() - begin;
        EXPECT_EQ(exit, Exit::with(0)) << box.describe();
        EXPECT_FALSE(box.exists("bluetooth_status"));
        if (!phase.goesOnFirst) {
            EXPECT_LT(took, kStop) << box.describe();
        }
    }

    /// Waits for a moment anywhere in the phase, or right after a line of the log, where the daemon is most
    /// likely to write another one.
    void awaitMoment(Box& box)
    {
        constexpr microseconds kBehindLine{300};
        const Phase& phase = GetParam().phase;
        if (below(2) == 0) {
            std::this_thread::sleep_for(microseconds(below(phase.length.count())));
            return;
        }
        const auto any = [](const LogRecord&) { return true; };
        const auto line = static_cast<std::size_t>(below(phase.lines)) + 1;
        const auto limit = std::chrono::duration_cast<std::chrono::milliseconds>(phase.length);
        box.log().awaitCount(any, box.log().count(any) + line, limit);
        std::this_thread::sleep_for(microseconds(below(kBehindLine.count())));
    }

    long below(long limit) { return std::uniform_int_distribution<long>(0, limit - 1)(mRandom); }

    int mSeed;
    std::minstd_rand mRandom;
};

TEST_P(AnInterrupt, NeverKills)
{
    interruptEach();
}

INSTANTIATE_TEST_SUITE_P(Of, AnInterrupt, ::testing::ValuesIn(allSeries(4, 7, 4, 2)), nameOf); // 204

// --- at the worst moment ---

TEST(AnInterruptInTheMiddleOfALine, WaitsForItsEnd)
{
    BoxOptions options;
    // Without colours the line is the first thing written, under the logger's lock.
    options.environment = {{"VEXA_LOG_LEVEL", "TRACE"}, {"VEXA_LOG_USE_COLORS", "0"}};
    Box box(options);
    ASSERT_TRUE(box.startToIdle());
    {
        const auto paused = box.log().pause();
        box.program().fillErrors();
        ASSERT_TRUE(box.program().awaitMainThreadInWrite());
        box.interrupt();
    }

    EXPECT_EQ(box.awaitExit(), Exit::with(0)) << box.describe();
    EXPECT_LOG(box, WARN, "main", "Interrupt!");
}

class AnInterruptForLong : public AnInterrupt
{
};

TEST_P(AnInterruptForLong, NeverKills)
{
    interruptEach();
}

INSTANTIATE_TEST_SUITE_P(Of, AnInterruptForLong, ::testing::ValuesIn(allSeries(6, 110, 16, 24)),
                         nameOf); // 5,004

} // namespace

} // namespace kit
