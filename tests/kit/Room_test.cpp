// SPDX-License-Identifier: MIT
// Tests the room itself, with small commands instead of the daemon.

#include "tests/kit/Room.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kit
{

using std::chrono_literals::operator""ms;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace
{

class ARoom : public ::testing::Test
{
protected:
    void sh(const std::string& script, const Environment& environment = {})
    {
        room.start("/bin/sh", {"-c", script}, environment);
    }

    std::vector<std::string> errors()
    {
        std::vector<std::string> lines;
        for (const LogRecord& record : room.log().records()) {
            lines.push_back(record.text);
        }
        return lines;
    }

    Room room;
};

TEST_F(ARoom, HasAnEmptyTmpOfItsOwn)
{
    sh("ls -A /tmp >&2; echo made > /tmp/inside");

    EXPECT_EQ(room.awaitExit(), Exit::with(0));
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_EQ(room.content("inside"), "made\n");
    EXPECT_FALSE(std::filesystem::exists("/tmp/inside"));
}

TEST_F(ARoom, TellsStatusesAndSignalsApart)
{
    sh("exit 3");
    EXPECT_EQ(room.awaitExit(), Exit::with(3));
    sh("kill -9 $$");
    EXPECT_EQ(room.awaitExit(), Exit::by(SIGKILL));
}

TEST_F(ARoom, SaysThatAProgramStillRuns)
{
    sh("exec sleep 60");

    EXPECT_EQ(room.awaitExit(10ms), std::nullopt);
}

TEST_F(ARoom, SaysWhichProgramItCantStart)
{
    try {
        room.start("/no/such/program", {});
        FAIL() << "started";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), HasSubstr("execute: No such file or directory (/no/such/program)"));
    }
}

TEST_F(ARoom, InterruptsOnceAndTwice)
{
    const auto says = [this](const std::string& text) {
        return room.log().await([&text](const LogRecord& record) { return record.text == text; });
    };
    sh("trap 'echo one >&2' INT; echo ready >&2; sleep 60 & while :; do wait; done");
    ASSERT_TRUE(says("ready"));
    room.interrupt();
    ASSERT_TRUE(says("one"));
    room.interruptTwice();

    EXPECT_TRUE(says("one"));
}

TEST_F(ARoom, ShowsStandardOutputAlthoughTheProgramIsKilled)
{
    sh("echo last words; kill -9 $$");

    EXPECT_EQ(room.awaitExit(), Exit::by(SIGKILL));
    EXPECT_TRUE(room.output().awaitEnd());
    ASSERT_EQ(room.output().records().size(), 1U);
    EXPECT_EQ(room.output().records()[0].text, "last words");
}

TEST_F(ARoom, ParsesTheLogAsItComes)
{
    sh("printf '\\033[33m    12:34:56.789 W [main:42] REMOVE /tmp/x [y]\\n\\033[0m' >&2;"
       "printf '\\n(x:1): GLib-CRITICAL **: 12:00:00.000: oh\\n' >&2;"
       "printf '    12:34:56.790 D [:7] Setting\\n    12:34:56.791  [main] odd\\n    12:34:56.792 I bare\\n' "
       ">&2");

    EXPECT_EQ(room.awaitExit(), Exit::with(0));
    const std::vector<LogRecord> records = room.log().records();
    ASSERT_EQ(records.size(), 5U);
    EXPECT_EQ(records[0].summary(), "W main REMOVE /tmp/x [y]");
    EXPECT_EQ(records[0].time, "12:34:56.789");
    EXPECT_EQ(records[0].line, 42);
    EXPECT_THAT(records[0].raw, ::testing::StartsWith("\x1b[33m    12"));
    EXPECT_TRUE(records[1].foreign);
    EXPECT_THAT(records[1].text, HasSubstr("GLib-CRITICAL"));
    EXPECT_EQ(records[2].summary(), "D Setting");
    EXPECT_EQ(records[2].line, 7);
    EXPECT_EQ(records[3].level, NONE);
    EXPECT_EQ(records[3].module, "main");
    EXPECT_EQ(records[4].summary(), "I bare");
}

TEST_F(ARoom, AwaitsLogLinesInTheirOrder)
{
    sh(R"(for i in 1 2 3; do printf "    12:34:56.789 I [main:$i] line $i\n" >&2; done)");

    EXPECT_TRUE(room.log().await(isLog(INFO, "main", "line 1")));
    EXPECT_TRUE(room.log().await(isLog(INFO, "main", "line 3")));
    EXPECT_FALSE(room.log().await(isLog(INFO, "main", "line 2"))) << "it came before";
    EXPECT_EQ(room.log().count(isLog(INFO, "main", "line 2")), 1U);
}

TEST_F(ARoom, KeepsTheCourseOfAFile)
{
    for (const char* gate : {"gate1", "gate2", "gate3"}) {
        ASSERT_EQ(mkfifo(room.file(gate).c_str(), 0600), 0);
    }
    sh("cd /tmp; echo one > f; read x < gate1; echo two > f; read x < gate2; rm f; read x < gate3; echo two "
       "> f");

    EXPECT_TRUE(room.files().await("f", "one"));
    room.writeText("gate1", "go\n");
    EXPECT_TRUE(room.files().await("f", "two"));
    room.writeText("gate2", "go\n");
    EXPECT_TRUE(room.files().awaitGone("f"));
    room.writeText("gate3", "go\n");
    EXPECT_EQ(room.awaitExit(), Exit::with(0));
    EXPECT_THAT(room.files().course("f"), ElementsAre("one", "two", kGone, "two"));
    EXPECT_EQ(room.files().writes("f"), 3U);
    EXPECT_EQ(room.files().moments("f").size(), 4U);
}

TEST_F(ARoom, NeverLosesTheLastContentBeforeARemoval)
{
    ASSERT_EQ(mkfifo(room.file("gate").c_str(), 0600), 0);
    sh("cd /tmp; echo one > f; read x < gate; echo two > f; echo three > f; rm f");

    EXPECT_TRUE(room.files().await("f", "one"));
    room.writeText("gate", "go\n");
    EXPECT_EQ(room.awaitExit(), Exit::with(0));
    const std::vector<std::string> course = room.files().course("f");
    ASSERT_GE(course.size(), 3U);
    EXPECT_EQ(course[course.size() - 2], "three");
    EXPECT_EQ(course.back(), kGone);
}

TEST_F(ARoom, PassesOnNothingOfTheOuterEnvironment)
{
    setenv("VEXA_LOG_LEVEL", "error", 1);
    sh("echo \"$VEXA_LOG_LEVEL$GIVEN\" >&2", {{"GIVEN", "given"}});

    EXPECT_EQ(room.awaitExit(), Exit::with(0));
    EXPECT_THAT(errors(), ElementsAre("given"));
}

TEST_F(ARoom, StopsAProgramWhereItStands)
{
    sh("trap 'echo went >&2; exit' INT; sleep 60 > /dev/null 2>&1 & wait"); // it doesn't hold the log open
    room.program().freeze();
    room.program().signal(SIGINT);
    EXPECT_FALSE(room.log().awaitEnd(50ms));
    room.program().thaw();

    EXPECT_TRUE(room.awaitExit());
}

TEST(ARoomOfATestThatDies, IsSweptAwayWithItsProgram)
{
    prctl(PR_SET_CHILD_SUBREAPER, 1); // orphans of the dead test become children of this process
    int report[2];
    ASSERT_EQ(pipe(report), 0);
    const pid_t test = fork();
    if (test == 0) {
        Room room;
        room.start("/bin/sleep", {"60"});
        const std::string folder = std::filesystem::path(room.file("x")).parent_path().parent_path();
        [[maybe_unused]] const ssize_t written = write(report[1], folder.c_str(), folder.size());
        raise(SIGKILL);
    }
    close(report[1]);
    std::array<char, 200> folder{};
    ASSERT_GT(read(report[0], folder.data(), folder.size() - 1), 0);
    close(report[0]);
    unsigned ended = 0;
    while (waitpid(-1, nullptr, 0) > 0) {
        ++ended;
    }

    EXPECT_EQ(ended, 3U) << "the test, its program and the janitor";
    EXPECT_FALSE(std::filesystem::exists(folder.data()));
}

} // namespace

} // namespace kit
