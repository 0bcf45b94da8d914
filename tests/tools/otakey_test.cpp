// SPDX-License-Identifier: MIT
// The over-the-air key, from its file into the build: the real cmake, on the module alone and on the whole
// project in a scratch folder.
#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <regex>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "tests/kit/ChildProcess.h"
#include "tests/kit/Hex.h"
#include "tests/kit/NamedCase.h"
#include "tests/kit/ScratchFolder.h"

namespace
{

namespace fs = std::filesystem;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char kDevelopmentKey[] = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";
constexpr char kOwnKey[] = "8f3a61c05be27d94f10e6b82d7a94c3519fe60ab73d2c8451e9cb0674fa3d528";

std::string upperCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
    return text;
}

/// "0x8f, 0x3a, ..." as the generated source lists a key.
std::string asList(const std::string& key)
{
    std::string list;
    for (std::size_t i = 0; i < key.size(); i += 2) {
        list += (i == 0 ? "0x" : ", 0x") + key.substr(i, 2);
    }
    return list;
}

/// Whether any eight digits of the key in a row can be read in `text`, in either case, in its list form or as
/// bytes.
bool reveals(const std::string& text, const std::string& key)
{
    for (std::size_t i = 0; i + 8 <= key.size(); i += 2) {
        const std::string piece = key.substr(i, 8);
        const auto bytes = kit::fromHex(piece);
        for (const auto& form :
             {piece, upperCase(piece), asList(piece), std::string(bytes.begin(), bytes.end())}) {
            if (text.find(form) != std::string::npos) {
                return true;
            }
        }
    }
    return false;
}

/// All that the program said, without the line breaks that cmake puts into its messages.
std::string saidBy(const kit::Outcome& result)
{
    return std::regex_replace(result.output + result.errors, std::regex{"\\s+"}, " ");
}

mode_t modeOf(const std::string& path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

// --- The module ---

class TheKeyFile : public testing::Test
{
protected:
    /// Runs the module's choice of a key in a script of its own.
    kit::Outcome choose(const std::string& keyFile, bool requireOwn = false,
                        std::vector<std::string> runner = {}) const
    {
        const std::string script = mFolder.write(
            "script.cmake", "cmake_minimum_required(VERSION 3.25)\ninclude(\"" VEXA_KEY_MODULE "\")\n"
                            "vexa_generate_ota_key(\"" +
                                keyFile + "\" " + (requireOwn ? "ON" : "OFF") + " \"" +
                                mFolder.path("key.cpp") + "\")\n");
        runner.insert(runner.end(), {VEXA_CMAKE, "-P", script});
        return kit::runProgram(runner);
    }

    /// The key that the generated source defines, as lower-case digits.
    std::string chosenKey() const
    {
        static const std::regex kByte{"0x([0-9a-f]{2}), "};
        const std::string source = mFolder.read("key.cpp");
        std::string key;
        for (auto i = std::sregex_iterator{source.begin(), source.end(), kByte}; i != std::sregex_iterator{};
             ++i) {
            key += (*i)[1];
        }
        return key;
    }

    /// Expects that the choice failed with these words and without a source.
    void expectRefused(const kit::Outcome& outcome, const std::string& words) const
    {
        EXPECT_FALSE(outcome.exitedWith(0));
        EXPECT_THAT(saidBy(outcome), HasSubstr(words));
        EXPECT_FALSE(reveals(saidBy(outcome), kOwnKey));
        EXPECT_FALSE(fs::exists(mFolder.path("key.cpp")));
    }

    kit::ScratchFolder mFolder;
};

TEST_F(TheKeyFile, GivesItsBytesInTheirOrder)
{
    const auto result = choose(mFolder.write("key", kOwnKey));

    EXPECT_TRUE(result.exitedWith(0)) << result;
    EXPECT_EQ(kOwnKey, chosenKey());
    EXPECT_THAT(saidBy(result), HasSubstr("Over-the-air key: from " + mFolder.path("key")));
    EXPECT_FALSE(reveals(saidBy(result), kOwnKey));
}

TEST_F(TheKeyFile, MayHaveBlanksAroundTheDigitsAndEitherCase)
{
    const std::string upper = upperCase(kOwnKey);
    for (const auto& content : {std::string{kOwnKey} + "\n", std::string{kOwnKey} + "\r\n", upper,
                                " \t\n " + upper.substr(0, 32) + std::string{kOwnKey}.substr(32) + " \n\n"}) {
        EXPECT_TRUE(choose(mFolder.write("key", content)).exitedWith(0));
        EXPECT_EQ(kOwnKey, chosenKey());
        fs::remove(mFolder.path("key.cpp"));
    }
}

TEST_F(TheKeyFile, MayHaveAnyName)
{
    EXPECT_TRUE(choose(mFolder.write("the key; of the product $x", kOwnKey)).exitedWith(0));
    EXPECT_EQ(kOwnKey, chosenKey());
}

struct Malformed : kit::NamedCase {
    std::string content;
    const char* word;
};

const std::string kOwn{kOwnKey};
const Malformed kMalformed[] = {
    {{"Empty"}, "", "has the wrong length, 0 characters"},
    {{"BlankOnly"}, " \n\n", "has the wrong length, 0 characters"},
    {{"OneDigitShort"}, kOwn.substr(1), "has the wrong length, 63 characters"},
    {{"OneDigitLong"}, kOwn + "0", "has the wrong length, 65 characters"},
    {{"WithAPrefix"}, "0x" + kOwn, "has the wrong length, 66 characters"},
    {{"TwoKeys"}, kOwn + "\n" + kOwn + "\n", "has the wrong length, 129 characters"},
    {{"ALetterAmongTheDigits"}, kOwn.substr(0, 40) + "g" + kOwn.substr(41), "isn't a hexadecimal digit"},
    {{"ABlankAmongTheDigits"}, kOwn.substr(0, 40) + " " + kOwn.substr(41), "isn't a hexadecimal digit"},
    {{"ANewlineAmongTheDigits"}, kOwn.substr(0, 32) + "\n" + kOwn.substr(33), "isn't a hexadecimal digit"},
    {{"ASemicolonAmongTheDigits"}, kOwn.substr(0, 40) + ";" + kOwn.substr(41), "isn't a hexadecimal digit"},
    {{"ABracketAmongTheDigits"}, kOwn.substr(0, 40) + "[" + kOwn.substr(41), "isn't a hexadecimal digit"},
    {{"AVariableAmongTheDigits"}, kOwn.substr(0, 60) + "${x}", "isn't a hexadecimal digit"},
    {{"AZeroByteBehindTheDigits"}, kOwn + std::string{"\0", 1} + "junk", "wrong length"},
    {{"TheBytesThemselves"},
     "\x8f\x3a\x61\xc0\x5b\xe2\x7d\x94\xf1\x0e\x6b\x82\xd7\xa9\x4c\x35",
     "wrong length"},
    {{"HugeAndWrong"}, std::string(1U << 20U, 'a'), "wrong length"},
};

class AMalformedKeyFile : public TheKeyFile, public testing::WithParamInterface<Malformed>
{
};

TEST_P(AMalformedKeyFile, IsRefusedWithoutShowingWhatItHolds)
{
    const std::string file = mFolder.write("key", GetParam().content);

    const auto result = choose(file);

    expectRefused(result, "Over-the-air key: " + file);
    EXPECT_THAT(saidBy(result), HasSubstr(GetParam().word));
    EXPECT_THAT(saidBy(result), Not(HasSubstr("aaaaaaaa")));
}

INSTANTIATE_TEST_SUITE_P(With, AMalformedKeyFile, testing::ValuesIn(kMalformed), kit::named);

TEST_F(TheKeyFile, ThatIsMissingOrAFolderIsRefused)
{
    expectRefused(choose(mFolder.path("none")), mFolder.path("none") + " doesn't exist or can't be read");
    expectRefused(choose(mFolder.path()), "is a folder");
}

TEST_F(TheKeyFile, ThatCannotBeReadIsRefused)
{
    const std::string file = mFolder.write("key", kOwnKey);
    fs::permissions(file, fs::perms::none);
    fs::permissions(mFolder.path(), fs::perms::all);
    // Root reads everything, so somebody else tries.
    std::vector<std::string> runner;
    if (geteuid() == 0) {
        runner = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    }

    expectRefused(choose(file, false, runner), file + " doesn't exist or can't be read");
}

TEST_F(TheKeyFile, ThatIsNotGivenOrHoldsTheDevelopmentKeyIsAnnounced)
{
    for (const auto& file : {std::string{}, mFolder.write("key", upperCase(kDevelopmentKey))}) {
        const auto result = choose(file);

        EXPECT_TRUE(result.exitedWith(0)) << result;
        EXPECT_EQ(kDevelopmentKey, chosenKey());
        EXPECT_THAT(saidBy(result), HasSubstr("PUBLISHED DEVELOPMENT KEY"));
    }
}

TEST_F(TheKeyFile, MustBeGivenAndItsOwnForARelease)
{
    expectRefused(choose("", true), "VEXA_OTA_KEY_FILE");
    expectRefused(choose(mFolder.write("key", upperCase(kDevelopmentKey) + "\n"), true),
                  "published development key");

    EXPECT_TRUE(choose(mFolder.write("key", kOwnKey), true).exitedWith(0));
    EXPECT_EQ(kOwnKey, chosenKey());
}

TEST_F(TheKeyFile, MakesASourceThatOnlyItsOwnerCanRead)
{
    const std::string file = mFolder.write("key", kOwnKey);
    const std::string source = mFolder.path("key.cpp");
    const mode_t former = umask(0);

    EXPECT_TRUE(choose(file).exitedWith(0));
    EXPECT_EQ(mode_t{0600}, modeOf(source));

    fs::permissions(source, static_cast<fs::perms>(0644));
    EXPECT_TRUE(choose(file).exitedWith(0));
    EXPECT_EQ(mode_t{0600}, modeOf(source)) << "of an older build, opened to others";
    umask(former);
}

TEST_F(TheKeyFile, MakesTheSourceAnewOnlyWhenTheKeyChanges)
{
    const std::string source = mFolder.path("key.cpp");
    EXPECT_TRUE(choose(mFolder.write("key", kOwnKey)).exitedWith(0));
    const auto longAgo = fs::file_time_type::clock::now() - std::chrono::hours{1};
    fs::last_write_time(source, longAgo);

    EXPECT_TRUE(choose(mFolder.write("key", upperCase(kOwnKey) + "\n")).exitedWith(0));
    EXPECT_EQ(longAgo, fs::last_write_time(source));

    EXPECT_TRUE(choose("").exitedWith(0));
    EXPECT_NE(longAgo, fs::last_write_time(source));
    EXPECT_EQ(kDevelopmentKey, chosenKey());
}

// --- The whole project ---

class TheProject : public testing::Test
{
protected:
    TheProject()
    {
        // The developer's environment must not affect the test.
        for (const char* variable : {"CMAKE_CXX_COMPILER_LAUNCHER", "CMAKE_GENERATOR", "VEXA_OTA_KEY_FILE"}) {
            unsetenv(variable);
        }
    }

    kit::Outcome configure(const std::string& preset, const std::vector<std::string>& options) const
    {
        std::vector<std::string> command{VEXA_CMAKE,  "--preset", preset,  "-S",
                                         VEXA_SOURCE, "-B",       build(), "-DVEXA_DEVELOPMENT=OFF"};
        command.insert(command.end(), options.begin(), options.end());
        // Presets are looked for where the command runs.
        const fs::path before = fs::current_path();
        fs::current_path(VEXA_SOURCE);
        auto result = kit::runProgram(command);
        fs::current_path(before);
        return result;
    }

    kit::Outcome make(const std::string& target) const
    {
        return kit::runProgram({VEXA_CMAKE, "--build", build(), "--target", target, "--verbose"});
    }

    std::string build() const { return mFolder.path("build"); }

    std::vector<std::string> filesThatReveal(const std::string& key) const
    {
        return filesThatReveal(key, build());
    }

    /// The files below the folder in which the key can be read, in any form.
    static std::vector<std::string> filesThatReveal(const std::string& key, const std::string& folder)
    {
        std::vector<std::string> files;
        for (const auto& entry : fs::recursive_directory_iterator{folder}) {
            if (entry.is_regular_file() && reveals(kit::contentOf(entry.path()), key)) {
                files.push_back(fs::relative(entry.path(), folder).string());
            }
        }
        std::sort(files.begin(), files.end());
        return files;
    }

    kit::ScratchFolder mFolder;
};

constexpr char kKeySource[] = "utils/vexabluetoohtd/otakey/OtaKey.cpp";
constexpr char kKeyObject[] = "utils/vexabluetoohtd/CMakeFiles/vexaotakey.dir/otakey/OtaKey.cpp.o";

TEST_F(TheProject, KeepsTheKeyInItsGeneratedSourceAndTheObjectMadeOfIt)
{
    const std::string file = mFolder.write("key", std::string{kOwnKey} + "\n");
    const auto configured =
        configure("release-package", {"-DVEXA_OTA_KEY_FILE=" + file, "-DCMAKE_CXX_COMPILER_LAUNCHER=env"});
    ASSERT_TRUE(configured.exitedWith(0)) << configured;
    EXPECT_FALSE(reveals(configured.output + configured.errors, kOwnKey));
    EXPECT_THAT(filesThatReveal(kOwnKey), testing::ElementsAre(kKeySource))
        << "neither the cache, nor a log, nor compile_commands.json";
    EXPECT_EQ(mode_t{0600}, modeOf(build() + "/" + kKeySource));
    EXPECT_EQ(mode_t{0700}, modeOf(fs::path(build() + "/" + kKeySource).parent_path()));

    const auto made = make("vexaotakey");
    ASSERT_TRUE(made.exitedWith(0)) << made;
    EXPECT_FALSE(reveals(made.output + made.errors, kOwnKey));
    EXPECT_THAT(filesThatReveal(kOwnKey), testing::ElementsAre(kKeyObject, kKeySource));
    EXPECT_EQ(mode_t{0600}, modeOf(build() + "/" + kKeyObject));
    EXPECT_THAT(made.output, Not(HasSubstr("env "))) << "a compiler launcher, which may keep copies";
}

// Checks the build that this test belongs to, since a whole one takes long.
TEST(TheBuild, LetsNobodyElseReadWhatHoldsTheKey)
{
    for (const char* file : {VEXA_KEY_OBJECT, VEXA_KEY_ARCHIVE, VEXA_DAEMON, VEXA_UPDATER_TEST}) {
        ASSERT_TRUE(fs::exists(file)) << file;
        EXPECT_EQ(mode_t{0}, modeOf(file) & 077) << file;
    }
}

class TheInstallation : public TheProject
{
protected:
    TheInstallation()
    {
        const std::string file = mFolder.write("key", kOwnKey);
        const auto configured =
            configure("release-package", {"-DVEXA_OTA_KEY_FILE=" + file, "-DVEXA_SYSTEMD_UNIT_DIR=units",
                                          "-DCMAKE_INSTALL_PREFIX=" + installed()});
        EXPECT_TRUE(configured.exitedWith(0)) << configured;
        // The programs aren't built for this; one with symbols and another key stands in for each.
        for (const char* program : {"vexabluetoohtd", "vexaagent", "vexafw"}) {
            fs::copy_file(VEXA_DAEMON, build() + "/utils/" + program + "/" + program);
        }
        mInstalling = kit::runProgram({VEXA_CMAKE, "--install", build()});
        EXPECT_TRUE(mInstalling.exitedWith(0)) << mInstalling;
    }

    std::string installed() const { return mFolder.path("installed"); }

    /// The lines of a section of an installed unit.
    std::vector<std::string> section(const std::string& unit, const std::string& heading) const
    {
        std::vector<std::string> lines;
        std::string current;
        for (const std::string& line : kit::linesOf(mFolder.read("installed/units/" + unit))) {
            if (!line.empty() && line.front() == '[') {
                current = line;
            } else if (current == heading) {
                lines.push_back(line);
            }
        }
        return lines;
    }

    kit::Outcome mInstalling;
};

TEST_F(TheInstallation, HoldsNothingOfTheKeyButTheDaemonItself)
{
    EXPECT_THAT(filesThatReveal(kOwnKey, installed()), IsEmpty());
    EXPECT_FALSE(reveals(mInstalling.output + mInstalling.errors, kOwnKey));
}

TEST_F(TheInstallation, KeepsTheDaemonFromOthersAndWithoutItsSymbols)
{
    const std::string daemon = installed() + "/sbin/vexabluetoohtd";

    EXPECT_EQ(mode_t{0750}, modeOf(daemon));
    EXPECT_FALSE(kit::runProgram({VEXA_NM, VEXA_DAEMON}).output.empty());
    EXPECT_TRUE(kit::runProgram({VEXA_NM, daemon}).output.empty());
    EXPECT_THAT(kit::runProgram({VEXA_NM, "--dynamic", daemon}).output, HasSubstr(" T main"))
        << "the names that a stack trace shows";
}

TEST_F(TheInstallation, HasTheDaemonStartedAnewWheneverItEnds)
{
    for (const char* unit : {"vexabluetoohtd.service", "vexaagent.service"}) {
        EXPECT_THAT(section(unit, "[Unit]"), Contains("StartLimitIntervalSec=0")) << unit;
        EXPECT_THAT(section(unit, "[Service]"), Contains("Restart=always")) << unit;
    }
}

TEST_F(TheInstallation, HasTheDaemonLeaveNoCoreAndFillNoLog)
{
    EXPECT_THAT(
        section("vexabluetoohtd.service", "[Service]"),
        testing::IsSupersetOf({"LimitCORE=0", "LogRateLimitIntervalSec=30s", "LogRateLimitBurst=5000"}));
}

TEST_F(TheInstallation, HasAnInitScriptThatRunsTheDaemonWithoutACore)
{
    const std::string daemon = installed() + "/sbin/vexabluetoohtd";
    fs::remove(daemon);
    std::ofstream{daemon} << "#!/bin/sh\necho core $(ulimit -c) syslog $VEXA_LOG_SYSLOG";
    fs::permissions(daemon, fs::perms::owner_all);
    rlimit core{};
    getrlimit(RLIMIT_CORE, &core);
    if (core.rlim_max == 0) {
        GTEST_SKIP() << "no process of this one may leave a core anyway, for instance under a sanitizer";
    }
    core.rlim_cur = core.rlim_max; // what the script inherits
    setrlimit(RLIMIT_CORE, &core);

    const auto run = kit::runProgram({installed() + "/etc/init.d/vexabluetoohtd", "run"});

    EXPECT_TRUE(run.exitedWith(0)) << run;
    EXPECT_EQ("core 0 syslog 1\n", run.output);
}

TEST_F(TheProject, TakesAChangedKeyOnTheNextBuild)
{
    const std::string file = mFolder.write("key", kDevelopmentKey);
    const auto configured = configure("debug", {"-DVEXA_OTA_KEY_FILE=" + file});
    ASSERT_TRUE(configured.exitedWith(0)) << configured;
    ASSERT_TRUE(make("vexaotakey").exitedWith(0));
    // The build tool compares times; it must not matter how fast this test is.
    fs::last_write_time(mFolder.write("key", kOwnKey),
                        fs::file_time_type::clock::now() + std::chrono::seconds{2});

    const auto made = make("vexaotakey");

    ASSERT_TRUE(made.exitedWith(0)) << made;
    EXPECT_THAT(filesThatReveal(kOwnKey), testing::ElementsAre(kKeyObject, kKeySource));
    EXPECT_THAT(filesThatReveal(kDevelopmentKey), IsEmpty());
}

TEST_F(TheProject, IsNoReleasePackageWithoutAKeyOfItsOwn)
{
    const auto none = configure("release-package", {});
    EXPECT_FALSE(none.exitedWith(0));
    EXPECT_THAT(saidBy(none), HasSubstr("Set VEXA_OTA_KEY_FILE to a file"));

    const auto development =
        configure("release-package", {"-DVEXA_OTA_KEY_FILE=" + mFolder.write("key", kDevelopmentKey)});
    EXPECT_FALSE(development.exitedWith(0));
    EXPECT_THAT(saidBy(development), HasSubstr("published development key"));
}

} // namespace
