// SPDX-License-Identifier: MIT
// Things that others plant where the daemon reads or writes: nothing of it makes
// the daemon wait, leads its writing elsewhere, or stands for a file of its own.

#include "tests/daemon/UpdateStory.h"

#include "tests/kit/NamedCase.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>
#include <tuple>

using namespace vexabox;
using namespace std::chrono_literals;

namespace
{

constexpr uid_t kAnother = 65534; // a user who is neither root nor the test's
constexpr std::chrono::milliseconds kEndsWithin = 2s * kSlowness;
const std::string kVictim = "victim";
const std::string kVictimsText = "what belongs to somebody else\n";

/// Everything that may be found at a path of the daemon's. Paths are as seen from outside.
class Planter
{
public:
    explicit Planter(Box& box) : mBox(box) {}
    ~Planter()
    {
        mDone = true;
        if (mWriter.joinable()) {
            mWriter.join();
        }
    }
    Planter(const Planter&) = delete;
    Planter& operator=(const Planter&) = delete;

    /// Whose content and name have to stay as they are.
    void makeVictim() { mBox.writeText(kVictim, kVictimsText); }

    void fifo(const std::string& path) { must(mkfifo(path.c_str(), 0666), path); }
    void fifoWithSilentWriter(const std::string& path)
    {
        fifo(path);
        hold(path);
    }
    /// One that never comes to an end.
    void fifoOfBlanks(const std::string& path)
    {
        fifo(path);
        const int pipe = hold(path);
        mWriter = std::thread([this, pipe] {
            const std::string blanks(4096, ' ');
            while (!mDone) {
                pollfd writable{pipe, POLLOUT, 0};
                poll(&writable, 1, 10);
                [[maybe_unused]] const ssize_t written = write(pipe, blanks.data(), blanks.size());
            }
        });
    }
    /// With the header of an image that is newer.
    void fifoWithImage(const std::string& path)
    {
        fifo(path);
        const std::vector<std::uint8_t> image = newerImage(5).file();
        must(static_cast<int>(write(hold(path), image.data(), image.size())), path);
    }
    void folder(const std::string& path) { std::filesystem::create_directory(path); }
    void fullFolder(const std::string& path)
    {
        folder(path);
        std::ofstream(path + "/file").flush();
    }
    void linkToAnothersFile(const std::string& path) { link("/tmp/" + kVictim, path); }
    void linkToNothing(const std::string& path) { link("/tmp/made", path); }
    void linkToDevice(const std::string& path) { link("/dev/zero", path); }
    void linkToTerminal(const std::string& path)
    {
        mHeld.emplace_back(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
        must(grantpt(mHeld.back().get()), path);
        must(unlockpt(mHeld.back().get()), path);
        link(ptsname(mHeld.back().get()), path);
    }
    void hardLink(const std::string& path) { std::filesystem::create_hard_link(mBox.file(kVictim), path); }
    void anothersFile(const std::string& path)
    {
        std::ofstream(path) << "forged\n" << std::flush;
        must(chmod(path.c_str(), 0666), path);
        must(chown(path.c_str(), kAnother, kAnother), path);
        hold(path);
    }
    void socketFile(const std::string& path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        mHeld.emplace_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        must(bind(mHeld.back().get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), path);
    }
    /// Whoever opens it waits until its owner gives it back, or for 45 seconds.
    void leasedFile(const std::string& path)
    {
        ::signal(SIGIO, SIG_IGN); // so does the kernel ask for it
        // Made where the watch of /tmp doesn't open it.
        const std::string elsewhere = mBox.adcFile() + ".leased";
        const std::vector<std::uint8_t> image = newerImage(5).file();
        std::ofstream(elsewhere).write(reinterpret_cast<const char*>(image.data()),
                                       static_cast<std::streamsize>(image.size()));
        must(fcntl(hold(elsewhere), F_SETLEASE, F_WRLCK), path);
        std::filesystem::rename(elsewhere, path);
    }
    /// Begins with what is a number below the threshold.
    void hugeFile(const std::string& path)
    {
        std::ofstream(path) << "12" << std::flush;
        must(truncate(path.c_str(), off_t{1} << 30), path);
    }

    void expectVictimUntouched()
    {
        EXPECT_EQ(mBox.content(kVictim), kVictimsText);
        EXPECT_FALSE(mBox.exists("made")) << "through the link that led nowhere";
    }

private:
    static void must(int result, const std::string& path)
    {
        if (result < 0) {
            throw std::system_error(errno, std::generic_category(), "can't plant " + path);
        }
    }
    static void link(const std::string& target, const std::string& path)
    {
        std::filesystem::create_symlink(target, path);
    }
    int hold(const std::string& path)
    {
        mHeld.emplace_back(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
        must(mHeld.back().get(), path);
        return mHeld.back().get();
    }

    Box& mBox;
    std::vector<Handle> mHeld;
    std::atomic<bool> mDone = false;
    std::thread mWriter;
};

using Plant = void (Planter::*)(const std::string& path);

struct stat infoOf(const std::string& path)
{
    struct stat info {
    };
    if (lstat(path.c_str(), &info) != 0) {
        info.st_mode = 0;
    }
    return info;
}

/// Published by the daemon itself, and by nobody else.
bool isOwnFile(const std::string& path)
{
    const struct stat info = infoOf(path);
    return S_ISREG(info.st_mode) && info.st_uid == geteuid() && info.st_nlink == 1;
}

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

// ---- the flags

struct PlantedFlags : NamedCase {
    Plant plant;
    bool areFlags;
};

class FlagsThat : public InABox, public ::testing::WithParamInterface<PlantedFlags>
{
protected:
    FlagsThat() : InABox(noRemote()) {}
    void SetUp() override { skipWithoutRoot(GetParam().plant); }

    Planter planter{box};
};

TEST_P(FlagsThat, AreTakenIfTheyOpenAtOnce)
{
    startAtRest();
    planter.makeVictim();
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
    planter.expectVictimUntouched();
    EXPECT_TRUE(endsAtOnce(box));
}

INSTANTIATE_TEST_SUITE_P(
    Each, FlagsThat,
    ::testing::Values(PlantedFlags{{"IsAFifo"}, &Planter::fifo, true},
                      PlantedFlags{{"IsAFifoWithASilentWriter"}, &Planter::fifoWithSilentWriter, true},
                      PlantedFlags{{"IsAFolder"}, &Planter::folder, true},
                      PlantedFlags{{"IsALinkToAFile"}, &Planter::linkToAnothersFile, true},
                      PlantedFlags{{"IsALinkToNothing"}, &Planter::linkToNothing, false},
                      PlantedFlags{{"IsALinkToADevice"}, &Planter::linkToDevice, true},
                      PlantedFlags{{"IsALinkToATerminal"}, &Planter::linkToTerminal, true},
                      PlantedFlags{{"IsAHardLink"}, &Planter::hardLink, true},
                      PlantedFlags{{"IsAnothersFile"}, &Planter::anothersFile, true},
                      PlantedFlags{{"IsASocket"}, &Planter::socketFile, false},
                      PlantedFlags{{"IsALeasedFile"}, &Planter::leasedFile, false}),
    named);

// ---- the status files

struct Published {
    const char* name;
    const char* content;
};

constexpr std::array<Published, 4> kPublished = {{{"bluetooth_status", "connected\n"},
                                                  {"bluetooth_rc", "C0:FF:EE:00:00:01\n"},
                                                  {"bluetooth_rc_battery", "80\n"},
                                                  {"bluetooth_rc_fw_version", "1a3\n"}}};

struct PlantedStatus : NamedCase {
    Plant plant;
};

class AStatusFileThat : public InABox, public ::testing::WithParamInterface<PlantedStatus>
{
protected:
    AStatusFileThat() : InABox(pairedRemote()) {}
    void SetUp() override { skipWithoutRoot(GetParam().plant); }

    /// At each of the four names.
    void plant(Plant thing)
    {
        planter.makeVictim();
        for (const Published& file : kPublished) {
            std::filesystem::remove(box.file(file.name));
            (planter.*thing)(box.file(file.name));
        }
    }
    /// A pass that has an occasion to write each of them.
    void publishAll()
    {
        ASSERT_TRUE(box.pass(16s));
        EXPECT_LOG(box, DEBUG, "main", "rc fw version: 1a3");
    }

    Planter planter{box};
};

TEST_P(AStatusFileThat, IsMadeAnew)
{
    startConnectedAtRest();
    plant(GetParam().plant);
    publishAll();

    for (const Published& file : kPublished) {
        ASSERT_TRUE(isOwnFile(box.file(file.name))) << file.name;
        EXPECT_EQ(box.content(file.name), file.content);
    }
    planter.expectVictimUntouched();
    EXPECT_TRUE(endsAtOnce(box));
    for (const Published& file : kPublished) {
        EXPECT_FALSE(box.exists(file.name)) << file.name;
    }
    planter.expectVictimUntouched();
}

INSTANTIATE_TEST_SUITE_P(Each, AStatusFileThat,
                         ::testing::Values(PlantedStatus{{"IsAFifo"}, &Planter::fifo},
                                           PlantedStatus{{"IsAFifoWithASilentWriter"},
                                                         &Planter::fifoWithSilentWriter},
                                           PlantedStatus{{"IsALinkToAFile"}, &Planter::linkToAnothersFile},
                                           PlantedStatus{{"IsALinkToNothing"}, &Planter::linkToNothing},
                                           PlantedStatus{{"IsALinkToADevice"}, &Planter::linkToDevice},
                                           PlantedStatus{{"IsALinkToATerminal"}, &Planter::linkToTerminal},
                                           PlantedStatus{{"IsAHardLink"}, &Planter::hardLink},
                                           PlantedStatus{{"IsAnothersFile"}, &Planter::anothersFile},
                                           PlantedStatus{{"IsASocket"}, &Planter::socketFile},
                                           PlantedStatus{{"IsALeasedFile"}, &Planter::leasedFile}),
                         named);

class AFolderForEachStatusFile : public AStatusFileThat
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
        EXPECT_TRUE(S_ISDIR(infoOf(box.file(file.name)).st_mode)) << file.name;
    }
    EXPECT_EQ(box.log().count(isLoud), loud);
    EXPECT_TRUE(endsAtOnce(box));
}

INSTANTIATE_TEST_SUITE_P(Which, AFolderForEachStatusFile,
                         ::testing::Values(PlantedStatus{{"IsEmpty"}, &Planter::folder},
                                           PlantedStatus{{"IsFull"}, &Planter::fullFolder}),
                         named);

// ---- the image

class AnImageThat : public UpdateStory, public ::testing::WithParamInterface<PlantedStatus>
{
protected:
    void SetUp() override { ASSERT_TRUE(remoteIsRead()); }

    Planter planter{box};
};

TEST_P(AnImageThat, IsUnnecessary)
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

INSTANTIATE_TEST_SUITE_P(Is, AnImageThat,
                         ::testing::Values(PlantedStatus{{"AFifo"}, &Planter::fifo},
                                           PlantedStatus{{"AFifoThatHoldsAnImage"}, &Planter::fifoWithImage},
                                           PlantedStatus{{"AFolder"}, &Planter::folder},
                                           PlantedStatus{{"ALinkToNothing"}, &Planter::linkToNothing},
                                           PlantedStatus{{"ALinkToADevice"}, &Planter::linkToDevice},
                                           PlantedStatus{{"ALinkToATerminal"}, &Planter::linkToTerminal},
                                           PlantedStatus{{"ASocket"}, &Planter::socketFile},
                                           PlantedStatus{{"ALeasedFile"}, &Planter::leasedFile}),
                         named);

// ---- the button

struct PlantedButton : NamedCase {
    Plant plant;
    bool pressed;
};

class AButtonThat : public InABox, public ::testing::WithParamInterface<PlantedButton>
{
protected:
    AButtonThat() : InABox(noRemote()) {}

    Planter planter{box};
};

TEST_P(AButtonThat, IsReadAtOnce)
{
    startAtRest();
    box.removeAdc();
    (planter.*GetParam().plant)(box.adcFile());
    ASSERT_TRUE(box.pass());

    EXPECT_EQ(GetParam().pressed,
              box.countLog(INFO, "main", "Button pressed, transiting to Activation") == 1);
    EXPECT_TRUE(endsAtOnce(box));
}

INSTANTIATE_TEST_SUITE_P(
    Is, AButtonThat,
    ::testing::Values(PlantedButton{{"AFifo"}, &Planter::fifo, false},
                      PlantedButton{{"AFifoWithASilentWriter"}, &Planter::fifoWithSilentWriter, false},
                      PlantedButton{{"AFifoWithoutEnd"}, &Planter::fifoOfBlanks, false},
                      PlantedButton{{"AFolder"}, &Planter::folder, false},
                      PlantedButton{{"ALinkToNothing"}, &Planter::linkToNothing, false},
                      PlantedButton{{"ADeviceThatGivesNoNumber"}, &Planter::linkToDevice, true},
                      PlantedButton{{"ALinkToATerminal"}, &Planter::linkToTerminal, false},
                      PlantedButton{{"ASocket"}, &Planter::socketFile, false},
                      PlantedButton{{"ALeasedFile"}, &Planter::leasedFile, false},
                      PlantedButton{{"AHugeFile"}, &Planter::hugeFile, true}),
    named);

// ---- a race

constexpr int kRacedPasses = 100;
constexpr std::array kRaced = {"bluetooth_status", "bluetooth_rc"};

/// The child of another user, as fast as it can, until it is killed. Every name comes by one rename, so that
/// it can come between any two calls of the daemon.
[[noreturn]] void plantForEver(int folder)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) {
        for (const char* name : kRaced) {
            std::ignore = symlinkat("/tmp/victim", folder, "planted");
            renameat(folder, "planted", folder, name);
            unlinkat(folder, name, 0);
            std::ignore = symlinkat("/tmp/made", folder, name);
            std::ignore = linkat(folder, "victim", folder, "planted", 0); // if the kernel lets it
            renameat(folder, "planted", folder, name);
            unlinkat(folder, "planted", 0);
        }
    }
}

class ARacingPlanter : public AStatusFileThat
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
            if (setgid(kAnother) == 0 && setuid(kAnother) == 0) {
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
    planter.makeVictim();
    startRace();
    for (int i = 0; i < kRacedPasses; ++i) {
        ASSERT_TRUE(box.pass());
    }
    endRace();

    planter.expectVictimUntouched();
    ASSERT_TRUE(box.pass());
    for (const char* name : kRaced) {
        EXPECT_TRUE(isOwnFile(box.file(name))) << name;
    }
    EXPECT_EQ(box.content("bluetooth_status"), "connected\n");
    EXPECT_TRUE(endsAtOnce(box));
}

} // namespace
