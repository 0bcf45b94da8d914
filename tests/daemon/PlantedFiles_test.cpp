// SPDX-License-Identifier: MIT
// Things that others plant where the daemon reads or writes. None makes the daemon wait, redirects its writes
// or passes for one of its own files.

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <iterator>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <tuple>

#include "tests/daemon/Planter.h"
#include "tests/daemon/UpdateStory.h"
#include "tests/kit/NamedCase.h"

namespace kit
{

using std::chrono_literals::operator""s;

namespace
{

constexpr std::chrono::milliseconds kEndsWithin = 2s * kSlowness;
const std::string kVictim = "victim";
const std::string kVictimsText = "what belongs to somebody else\n";

/// A box with things that somebody planted, and a victim's file that must not change.
class InAPlantedBox : public InABox
{
protected:
    explicit InAPlantedBox(const BoxOptions& options) : InABox(options)
    {
        box.writeText(kVictim, kVictimsText);
    }

    void expectVictimUntouched()
    {
        EXPECT_EQ(box.content(kVictim), kVictimsText);
        EXPECT_FALSE(box.exists(kVictim + ".made")) << "through the link that led nowhere";
    }

    Planter planter{"/tmp/" + kVictim, box.file(kVictim), box.adcFile()};
};

::testing::AssertionResult endsAtOnce(Box& box)
{
    const auto start = std::chrono::steady_clock::now();
    box.interrupt();
    const auto exit = box.awaitExit();
    if (!exit || !(*exit == Exit::with(0))) {
        return ::testing::AssertionFailure() << "it didn't end in order";
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    return took <= kEndsWithin ? ::testing::AssertionSuccess()
                               : ::testing::AssertionFailure() << "it took " << took.count() << " s";
}

void skipWithoutRoot(Plant plant)
{
    if (plant == &Planter::anothersFile && geteuid() != 0) {
        GTEST_SKIP() << "only root can make a file of another user";
    }
}

struct Planted : NamedCase {
    Plant plant;
    bool areFlags;
    bool isPress;
    bool isRegular = false; ///< and may therefore be an image
};

const std::vector<Planted> kPlanted = {
    {{"AFifo"}, &Planter::fifo, true, false},
    {{"AFifoWithASilentWriter"}, &Planter::fifoWithSilentWriter, true, false},
    {{"AFifoWithoutEnd"}, &Planter::fifoOfBlanks, true, false},
    {{"AFifoThatHoldsAnImage"}, &Planter::fifoWithImage, true, true},
    {{"AFolder"}, &Planter::folder, true, false},
    {{"ALinkToAFile"}, &Planter::linkToAnothersFile, true, true, true},
    {{"ALinkToNothing"}, &Planter::linkToNothing, false, false},
    {{"ALinkToADevice"}, &Planter::linkToDevice, true, true},
    {{"ALinkToATerminal"}, &Planter::linkToTerminal, true, false},
    {{"AHardLink"}, &Planter::hardLink, true, true, true},
    {{"AnothersFile"}, &Planter::anothersFile, true, true, true},
    {{"ASocket"}, &Planter::socketFile, false, false},
    {{"ALeasedFile"}, &Planter::leasedFile, false, false},
    {{"AHugeFile"}, &Planter::hugeFile, true, true, true},
};

template <typename Condition>
std::vector<Planted> plantedIf(Condition condition)
{
    std::vector<Planted> chosen;
    std::copy_if(kPlanted.begin(), kPlanted.end(), std::back_inserter(chosen), condition);
    return chosen;
}

// The planter has only one endless writer, and the watcher of /tmp would read a huge file.
bool isForSeveralNames(const Planted& planted)
{
    return planted.plant != &Planter::fifoOfBlanks && planted.plant != &Planter::hugeFile;
}

// --- the flags ---

class FlagsThatAre : public InAPlantedBox, public ::testing::WithParamInterface<Planted>
{
protected:
    FlagsThatAre() : InAPlantedBox(noRemote()) {}
    void SetUp() override { skipWithoutRoot(GetParam().plant); }
};

TEST_P(FlagsThatAre, AreTakenIfTheyOpenAtOnce)
{
    startAtRest();
    for (const char* flag : {"bluetooth_pair", "bluetooth_reset"}) {
        (planter.*GetParam().plant)(box.file(flag));
    }
    ASSERT_TRUE(box.pass());

    const std::size_t taken = GetParam().areFlags ? 1 : 0;
    for (const char* flag : {"bluetooth_pair", "bluetooth_reset"}) {
        EXPECT_EQ(box.exists(flag), taken == 0) << flag;
        EXPECT_EQ(box.countLog(WARN, "main", std::string("REMOVE /tmp/") + flag), taken);
    }
    EXPECT_EQ(box.countLog(INFO, "main", "Pairing flag set, transiting to Pair"), taken);
    expectVictimUntouched();
    EXPECT_TRUE(endsAtOnce(box));
}

INSTANTIATE_TEST_SUITE_P(Each, FlagsThatAre, ::testing::ValuesIn(plantedIf(isForSeveralNames)), named);

// --- the status files ---

struct Published {
    const char* name;
    const char* content;
};

constexpr std::array<Published, 4> kPublished = {{{"bluetooth_status", "connected\n"},
                                                  {"bluetooth_rc", "C0:FF:EE:00:00:01\n"},
                                                  {"bluetooth_rc_battery", "80\n"},
                                                  {"bluetooth_rc_fw_version", "1a3\n"}}};

class AStatusFileThatIs : public InAPlantedBox, public ::testing::WithParamInterface<Planted>
{
protected:
    AStatusFileThatIs() : InAPlantedBox(pairedRemote()) {}
    void SetUp() override { skipWithoutRoot(GetParam().plant); }

    /// Plants the thing at each of the four names.
    void plant(Plant thing)
    {
        for (const Published& file : kPublished) {
            std::filesystem::remove(box.file(file.name));
            (planter.*thing)(box.file(file.name));
        }
    }
    /// Makes a pass that has reason to write each of them.
    void publishAll()
    {
        ASSERT_TRUE(box.pass(16s));
        EXPECT_LOG(box, DEBUG, "main", "rc fw version: 1a3");
    }
};

TEST_P(AStatusFileThatIs, IsMadeAnew)
{
    startConnectedAtRest();
    plant(GetParam().plant);
    publishAll();

    for (const Published& file : kPublished) {
        ASSERT_TRUE(isOwnFile(box.file(file.name))) << file.name;
        EXPECT_EQ(box.content(file.name), file.content);
    }
    expectVictimUntouched();
    EXPECT_TRUE(endsAtOnce(box));
    for (const Published& file : kPublished) {
        EXPECT_FALSE(box.exists(file.name)) << file.name;
    }
    expectVictimUntouched();
}

INSTANTIATE_TEST_SUITE_P(Each, AStatusFileThatIs, ::testing::ValuesIn(plantedIf([](const Planted& planted) {
                             return isForSeveralNames(planted) && planted.plant != &Planter::folder;
                         })),
                         named);

class AFolderForEachStatusFile : public AStatusFileThatIs
{
};

TEST_P(AFolderForEachStatusFile, IsPassedOverInSilence)
{
    startConnectedAtRest();
    plant(GetParam().plant);
    const auto isLoud = [](const LogRecord& record) { return record.level == ERROR || record.level == WARN; };
    const std::size_t loud = box.log().count(isLoud);
    publishAll();

    for (const Published& file : kPublished) {
        EXPECT_TRUE(std::filesystem::is_directory(box.file(file.name))) << file.name;
    }
    EXPECT_EQ(box.log().count(isLoud), loud);
    EXPECT_TRUE(endsAtOnce(box));
}

INSTANTIATE_TEST_SUITE_P(Which, AFolderForEachStatusFile,
                         ::testing::Values(Planted{{"IsEmpty"}, &Planter::folder, false, false},
                                           Planted{{"IsFull"}, &Planter::fullFolder, false, false}),
                         named);

// --- the image ---

class AnImageThatIs : public UpdateStory, public ::testing::WithParamInterface<Planted>
{
protected:
    void SetUp() override { ASSERT_TRUE(remoteIsRead()); }

    Planter planter{"/tmp/" + kVictim, box.file(kVictim), box.adcFile()};
};

TEST_P(AnImageThatIs, IsUnnecessary)
{
    (planter.*GetParam().plant)(box.file("planted"));
    box.linkFirmware("/tmp/planted");

    ASSERT_TRUE(ends("canceled"));
    ASSERT_TRUE(idlesWith("connected"));
    EXPECT_THAT(updateLog(),
                ::testing::ElementsAre("D Firmware symlink found: /tmp/planted",
                                       "W REMOVE: /tmp/bluetooth_rc_fw", "W RC update is unnecessary"));
    EXPECT_TRUE(endsAtOnce(box));
}

INSTANTIATE_TEST_SUITE_P(Each, AnImageThatIs, ::testing::ValuesIn(plantedIf([](const Planted& planted) {
                             return !planted.isRegular;
                         })),
                         named);

// --- the button ---

class AButtonThatIs : public FlagsThatAre
{
};

TEST_P(AButtonThatIs, IsReadAtOnce)
{
    startAtRest();
    box.removeAdc();
    (planter.*GetParam().plant)(box.adcFile());
    ASSERT_TRUE(box.pass());

    EXPECT_EQ(GetParam().isPress,
              box.countLog(INFO, "main", "Button pressed, transiting to Activation") == 1);
    EXPECT_TRUE(endsAtOnce(box));
}

INSTANTIATE_TEST_SUITE_P(Each, AButtonThatIs, ::testing::ValuesIn(kPlanted), named);

// --- a race ---

constexpr int kRacedPasses = 100;
constexpr std::array kRaced = {"bluetooth_status", "bluetooth_rc"};

/// Runs in a child as another user, as fast as it can, until it is killed. Each name appears by a single
/// rename, so that it can come between any two of the daemon's calls.
[[noreturn]] void plantForEver(int folder)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) {
        for (const char* name : kRaced) {
            std::ignore = symlinkat("/tmp/victim", folder, "planted");
            renameat(folder, "planted", folder, name);
            unlinkat(folder, name, 0);
            std::ignore = symlinkat("/tmp/victim.made", folder, name);
            std::ignore = linkat(folder, "victim", folder, "planted", 0); // if the kernel allows it
            renameat(folder, "planted", folder, name);
            unlinkat(folder, "planted", 0);
        }
    }
}

class ARacingPlanter : public AStatusFileThatIs
{
protected:
    void SetUp() override {}

    void startRace()
    {
        // Anybody may rename and remove here, and the kernel protects no link in such a folder.
        std::filesystem::permissions(box.file(""), std::filesystem::perms(0777));
        const Handle folder(open(box.file("").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        mChild = fork();
        if (mChild == 0) {
            if (setgid(kAnotherUser) == 0 && setuid(kAnotherUser) == 0) {
                plantForEver(folder.get());
            }
            _exit(1);
        }
    }
    void endRace() const
    {
        EXPECT_EQ(waitpid(mChild, nullptr, WNOHANG), 0) << "the planter has ended by itself";
        kill(mChild, SIGKILL);
        waitpid(mChild, nullptr, 0);
    }

    pid_t mChild = -1;
};

TEST_F(ARacingPlanter, HasNothingWrittenThroughItsLinks)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can start a process of another user";
    }
    startConnectedAtRest();
    startRace();
    for (int i = 0; i < kRacedPasses; ++i) {
        ASSERT_TRUE(box.pass());
    }
    endRace();

    expectVictimUntouched();
    ASSERT_TRUE(box.pass());
    for (const char* name : kRaced) {
        EXPECT_TRUE(isOwnFile(box.file(name))) << name;
    }
    EXPECT_EQ(box.content("bluetooth_status"), "connected\n");
    EXPECT_TRUE(endsAtOnce(box));
}

} // namespace

} // namespace kit
