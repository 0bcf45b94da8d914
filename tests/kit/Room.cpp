// SPDX-License-Identifier: MIT
#include "tests/kit/Room.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/kit/Handle.h"

namespace kit
{

namespace
{

constexpr const char* kAdcFolder = "/class/saradc";
constexpr const char* kAdcFile = "/class/saradc/saradc_ch0";
constexpr const char* kOwnFolder = "/own/"; // below the program's /run
constexpr std::size_t kTailLines = 60;

/// The devices that a program may need.
constexpr std::array kDevices = {"/dev/null", "/dev/zero", "/dev/random", "/dev/urandom"};

std::runtime_error systemError(const std::string& what)
{
    return std::runtime_error(what + ": " + std::strerror(errno));
}

std::string makeFolder()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "vexabox-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw systemError("can't make " + pattern);
    }
    return pattern;
}

/// Starts a process that waits until the test ends, in whatever way, and then removes `folder`. Returns its
/// ID and the handle whose closing triggers the removal.
std::pair<pid_t, Handle> hireJanitor(const std::string& folder)
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw systemError("pipe");
    }
    const Handle reader(ends[0]);
    Handle writer(ends[1]);
    const pid_t pid = fork();
    if (pid == 0) {
        // Keeps none of the test's streams open, or their readers would wait for this process, too.
        setsid();
        const int null = open("/dev/null", O_RDWR);
        dup2(reader.get(), STDIN_FILENO);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        execl("/bin/sh", "sh", "-c", "read -r _; rm -rf \"$1\"", "janitor", folder.c_str(),
              static_cast<char*>(nullptr));
        _exit(127);
    }
    return {pid, std::move(writer)};
}

void touch(const std::string& path)
{
    std::ofstream(path).flush();
}

std::string nameOf(const std::string& path)
{
    return std::filesystem::path(path).filename().string();
}

/// Where a sanitizer's options name their suppressions file: the start and end of its path.
std::optional<std::pair<std::size_t, std::size_t>> placeOfSuppressions(const std::string& options)
{
    static const std::string key = ":suppressions=";
    const std::size_t at = (":" + options).find(key);
    if (at == std::string::npos) {
        return {};
    }
    const std::size_t begin = at + key.size() - 1;
    return {{begin, std::min(options.find(':', begin), options.size())}};
}

} // namespace

Room::Room() : mFolder(makeFolder())
{
    std::tie(mJanitorPid, mJanitor) = hireJanitor(mFolder);
    for (const char* folder : {"/tmp", "/class", kAdcFolder, "/run", "/run/dbus", "/run/own"}) {
        std::filesystem::create_directory(mFolder + folder);
    }
    std::filesystem::permissions(mFolder + "/tmp", std::filesystem::perms(01777));
    mClock = std::make_unique<Clock>(runFolder() + "/clock");
    mFiles = std::make_unique<FileWatch>(mFolder + "/tmp");
    releaseButton();
}

Room::~Room()
{
    mProgram.reset();
    mFiles.reset();
    mJanitor.reset();
    waitpid(mJanitorPid, nullptr, 0);
}

// --- the program ---

// The options with the suppressions file below the program's /run/own, since the build may be under the
// hidden /tmp.
std::string Room::showSuppressions(const std::string& options) const
{
    const auto place = placeOfSuppressions(options);
    if (!place) {
        return options;
    }
    const auto [begin, end] = *place;
    const std::string file = options.substr(begin, end - begin);
    const std::string shown = kOwnFolder + nameOf(file);
    std::filesystem::copy_file(file, runFolder() + shown, std::filesystem::copy_options::overwrite_existing);
    return options.substr(0, begin) + "/run" + shown + options.substr(end);
}

std::string Room::makeDeviceFolder()
{
    std::filesystem::create_directory(mFolder + "/dev");
    for (const char* device : kDevices) {
        touch(mFolder + device);
    }
    mHasDeviceFolder = true;
    return mFolder + "/dev";
}

void Room::launch(ProgramOptions options)
{
    if (mHasDeviceFolder) {
        for (const char* device : kDevices) {
            options.mounts.emplace_back(device, mFolder + device);
        }
        options.mounts.emplace_back(mFolder + "/dev", "/dev");
    }
    // The room's /tmp comes last: the room itself is under the outer one.
    options.mounts.emplace_back(mFolder + "/class", "/sys/class");
    options.mounts.emplace_back(runFolder(), "/run");
    options.mounts.emplace_back(mFolder + "/tmp", "/tmp");
    mProgram.reset(); // ends the previous program before this one starts
    mProgram = std::make_unique<Program>(options);
}

void Room::start(const std::string& path, const std::vector<std::string>& arguments,
                 const Environment& environment)
{
    launch({path, arguments, environment, {}});
}

void Room::startOwn(const std::string& path, const std::vector<std::string>& arguments,
                    const Environment& environment)
{
    ProgramOptions options;
    Environment all = environment;
    // Mounted below /run, since the build may be under the hidden /tmp.
    const auto show = [&](const std::string& own) {
        const std::string shown = kOwnFolder + nameOf(own);
        touch(runFolder() + shown);
        options.mounts.emplace_back(own, runFolder() + shown);
        return "/run" + shown;
    };
    for (const char* name : {"LSAN_OPTIONS", "TSAN_OPTIONS"}) {
        if (const char* value = getenv(name)) {
            all[name] = showSuppressions(value);
        }
    }
    all["LD_PRELOAD"] = show(mInterruptedEarly ? VEXABOX_INTERRUPT_PRELOAD : VEXABOX_CLOCK_PRELOAD);
    if (mHandlersSlow) {
        all["LD_PRELOAD"] += ":" + show(VEXABOX_SLOW_HANDLERS_PRELOAD);
    }
    all[kClockVariable] = "/run/clock";
    options.path = show(path);
    options.arguments = arguments;
    options.environment = all;
    launch(options);
}

// --- files ---

std::string Room::file(const std::string& name) const
{
    return mFolder + "/tmp/" + name;
}

bool Room::exists(const std::string& name) const
{
    struct stat info {
    };
    return lstat(file(name).c_str(), &info) == 0;
}

std::optional<std::string> Room::content(const std::string& name) const
{
    const Handle handle(open(file(name).c_str(), O_RDONLY | O_CLOEXEC));
    if (!handle.valid()) {
        return {};
    }
    return readAtOnce(handle);
}

void Room::writeText(const std::string& name, const std::string& text) const
{
    std::ofstream stream(file(name));
    stream << text << std::flush;
    if (!stream) {
        throw systemError("can't write " + file(name));
    }
}

void Room::setFlag(const std::string& flag) const
{
    writeText("bluetooth_" + flag, "");
}

bool Room::awaitFlagTaken(const std::string& flag) const
{
    return mFiles->awaitGone("bluetooth_" + flag);
}

void Room::linkFirmware(const std::string& image) const
{
    std::filesystem::create_symlink(image, file("bluetooth_rc_fw"));
}

// --- the button ---

void Room::writeAdc(const std::string& text) const
{
    const std::string path = adcFile();
    const std::string fresh = path + ".new";
    std::ofstream stream(fresh);
    stream << text << std::flush;
    if (!stream) {
        throw systemError("can't write " + fresh);
    }
    std::filesystem::rename(fresh, path);
}

void Room::removeAdc() const
{
    std::filesystem::remove(adcFile());
}

std::string Room::adcFile() const
{
    return mFolder + kAdcFile;
}

// --- signals ---

void Room::interrupt()
{
    mProgram->signal(SIGINT);
}

// One for the process and one for its main thread, since two pending signals of the same number would be
// merged. Both are delivered when the program continues.
void Room::interruptTwice()
{
    mProgram->awaitMainThreadAsleep();
    mProgram->freeze();
    mProgram->signalMainThread(SIGINT);
    mProgram->signal(SIGINT);
    mProgram->thaw();
}

std::optional<Exit> Room::awaitExit(std::chrono::milliseconds limit)
{
    const std::optional<Exit> exit = mProgram->awaitExit(limit);
    if (exit) {
        mFiles->sync();
    }
    return exit;
}

std::string Room::describe()
{
    std::ostringstream text;
    if (mProgram) {
        text << "  the log's end:\n" << log().tail(kTailLines);
        const std::string output = this->output().tail(kTailLines);
        text << (output.empty() ? "" : "  standard output:\n" + output);
        const auto exit = mProgram->running() ? std::nullopt : mProgram->awaitExit();
        text << "  the program: ";
        exit ? text << "ended by " << *exit : text << "runs";
        text << "\n";
    }
    text << "  the files:\n" << mFiles->summary();
    return text.str();
}

} // namespace kit
