// SPDX-License-Identifier: MIT
#include "NSTime.h"

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <limits>
#include <ostream>
#include <string>
#include <sys/time.h>

#include "tests/kit/NamedCase.h"

// The linker sends the library's calls of these functions here (--wrap).
int realGettimeofday(timeval* now, void* zone) __asm__("__real_gettimeofday");
int realClockGettime(clockid_t clock, timespec* now) __asm__("__real_clock_gettime");
int wrappedGettimeofday(timeval* now, void* zone) __asm__("__wrap_gettimeofday");
int wrappedClockGettime(clockid_t clock, timespec* now) __asm__("__wrap_clock_gettime");

namespace
{
const timeval* wallClock = nullptr;
const timespec* monotonicClock = nullptr;
} // namespace

int wrappedGettimeofday(timeval* now, void* zone)
{
    if (wallClock == nullptr) {
        return realGettimeofday(now, zone);
    }
    *now = *wallClock;
    return 0;
}

int wrappedClockGettime(clockid_t clock, timespec* now)
{
    if (monotonicClock == nullptr || clock != CLOCK_MONOTONIC) {
        return realClockGettime(clock, now);
    }
    *now = *monotonicClock;
    return 0;
}

namespace
{

constexpr long long kDayUs = 86400000000;
constexpr long long kLargest = std::numeric_limits<std::int64_t>::max();

// --- Clocks and values ---

TEST(ATimeThatIsNotSet, IsZero)
{
    EXPECT_EQ(0, NSTime().toInt64());
    EXPECT_EQ("EMPTY", NSTime().dump());
}

TEST(ATime, IsOneSigned64BitNumber)
{
    static_assert(sizeof(NSTime) == sizeof(std::int64_t));
    EXPECT_EQ(kLargest, NSTime(kLargest).toInt64());
    EXPECT_EQ(-kLargest, NSTime(-kLargest).toInt64());
}

TEST(TheWallClock, IsReadToTheMicrosecond)
{
    const timeval now{1700000000, 999999};
    wallClock = &now;
    const NSTime read = NSTime::now();
    wallClock = nullptr;

    EXPECT_EQ(1700000000999999, read.toInt64());
}

TEST(TheMonotonicClock, IsTruncatedToTheMicrosecond)
{
    const timespec now{5, 1999999};
    monotonicClock = &now;
    const NSTime read = NSTime::nowRelative();
    monotonicClock = nullptr;

    EXPECT_EQ(5001999, read.toInt64());
}

TEST(AnAssignedTimeval, IsSecondsAndMicroseconds)
{
    NSTime time;
    NSTime& result = time = timeval{-2, 500000};

    EXPECT_EQ(-1500000, time.toInt64());
    EXPECT_EQ(&time, &result);
}

TEST(AnAssignedTime, IsACopy)
{
    const NSTime original(42);
    NSTime copy;
    NSTime& result = copy = original;
    copy += 1;

    EXPECT_EQ(&copy, &result);
    EXPECT_EQ(43, copy.toInt64());
    EXPECT_EQ(42, original.toInt64());
}

struct ComparisonCase : kit::NamedCase {
    long long left;
    long long right;
    int order; ///< below, at or above zero
};

class AComparison : public testing::TestWithParam<ComparisonCase>
{
};

TEST_P(AComparison, IsSigned)
{
    const NSTime left(GetParam().left);
    const NSTime right(GetParam().right);
    const int order = GetParam().order;

    EXPECT_EQ(order > 0, left > right);
    EXPECT_EQ(order >= 0, left >= right);
    EXPECT_EQ(order < 0, left < right);
    EXPECT_EQ(order <= 0, left <= right);
    EXPECT_EQ(order == 0, left == right);
    EXPECT_EQ(order != 0, left != right);
}

const ComparisonCase kComparisons[] = {
    {"OfEquals", 7, 7, 0},
    {"OfALesser", 7, 8, -1},
    {"OfAGreater", 8, 7, 1},
    {"OfANegative", -1, 0, -1},
    {"OfNegatives", -1, -2, 1},
    {"OfTheEnds", -kLargest, kLargest, -1},
    {"OfValuesThatDifferAbove32Bits", 0x100000000, 1, 1},
};

INSTANTIATE_TEST_SUITE_P(Table, AComparison, testing::ValuesIn(kComparisons), kit::named);

// --- Arithmetic ---

TEST(Arithmetic, AddsAndTakesOffMicrosecondsAndTimes)
{
    const NSTime time(10);
    NSTime changed = time;
    changed += 5;
    EXPECT_EQ(15, changed.toInt64());
    changed -= 20;
    EXPECT_EQ(-5, changed.toInt64());

    EXPECT_EQ(15, (time + 5LL).toInt64());
    EXPECT_EQ(-5, (time - 15LL).toInt64());
    EXPECT_EQ(15, (time + 5).toInt64());
    EXPECT_EQ(13, (time + NSTime(3)).toInt64());
    EXPECT_EQ(7, (time - NSTime(3)).toInt64());
    EXPECT_EQ(-7, (NSTime(3) - time).toInt64());
    EXPECT_EQ(10, time.toInt64());
}

struct UnitCase : kit::NamedCase {
    void (NSTime::*add)(int);
    long long us;
};

class AddingAUnit : public testing::TestWithParam<UnitCase>
{
};

TEST_P(AddingAUnit, AddsSoManyMicrosecondsExactly)
{
    for (const int count : {1, 0, -3, 100000000, -100000000}) {
        NSTime time(1);
        (time.*GetParam().add)(count);
        EXPECT_EQ(1 + count * GetParam().us, time.toInt64()) << count;
    }
}

const UnitCase kUnits[] = {
    {"OfDays", &NSTime::addDays, kDayUs},
    {"OfHours", &NSTime::addHours, 3600000000},
    {"OfMinutes", &NSTime::addMinutes, 60000000},
    {"OfSeconds", &NSTime::addSeconds, 1000000},
};

INSTANTIATE_TEST_SUITE_P(Table, AddingAUnit, testing::ValuesIn(kUnits), kit::named);

// --- Other forms ---

struct FormCase : kit::NamedCase {
    long long us;
    std::time_t seconds;
    long remainder;
};

class TheSecondsOf : public testing::TestWithParam<FormCase>
{
};

TEST_P(TheSecondsOf, AreTruncatedTowardZero)
{
    const NSTime time(GetParam().us);

    EXPECT_EQ(GetParam().seconds, time.toTimeT());
    EXPECT_EQ(GetParam().seconds, time.getTimeVal().tv_sec);
    EXPECT_EQ(GetParam().remainder, time.getTimeVal().tv_usec);
}

const FormCase kForms[] = {
    {"Nothing", 0, 0, 0},
    {"AMicrosecond", 1, 0, 1},
    {"AlmostTwoSeconds", 1999999, 1, 999999},
    {"MinusAMicrosecond", -1, 0, -1},
    {"MinusOneAndAHalf", -1500000, -1, -500000},
    {"ADateBeyond2038", 4102444800000001, 4102444800, 1},
};

INSTANTIATE_TEST_SUITE_P(Table, TheSecondsOf, testing::ValuesIn(kForms), kit::named);

struct IntervalCase : kit::NamedCase {
    long long us;
    const char* text;
};

class AnInterval : public testing::TestWithParam<IntervalCase>
{
};

TEST_P(AnInterval, IsPrintedForPeople)
{
    EXPECT_EQ(GetParam().text, NSTime(GetParam().us).printInterval());
}

const IntervalCase kIntervals[] = {
    {"OfNothing", 0, "0"},
    {"OfOneMicrosecond", 1, "1us"},
    {"Of999Microseconds", 999, "999us"},
    {"OfAMillisecond", 1000, "1ms"},
    {"OfAMillisecondAndAHalf", 1500, "1ms"},
    {"OfTwoMilliseconds", 2000, "2ms"},
    {"OfASecond", 1000000, "1second"},
    {"OfASecondAndAMicrosecond", 1000001, "1second"},
    {"OfTwoSeconds", 2000000, "2seconds"},
    {"OfAMinute", 60000000, "1minute"},
    {"OfTwoMinutes", 120000000, "2minutes"},
    {"OfAnHour", 3600000000, "1hour"},
    {"OfTwoHours", 7200000000, "2hours"},
    {"OfADay", kDayUs, "1day"},
    {"OfTwoDays", 2 * kDayUs, "2days"},
    {"OfOneOfEach", 90061001000, "1day, 1hour, 1minute, 1second, 1ms"},
    {"OfTwoOfEach", 180122002999, "2days, 2hours, 2minutes, 2seconds, 2ms"},
    {"OfTheLargestParts", 86399999999, "23hours, 59minutes, 59seconds, 999ms"},
    {"WithGaps", kDayUs + 60000000, "1day, 1minute"},
    {"OfADayAndAMicrosecond", kDayUs + 1, "1day"},
    {"OfMinusASecond", -1000000, "-1second"},
    {"OfMinusTwoSeconds", -2000000, "-2second"}, // everything under 2 takes the singular
    {"OfMinusTwoDaysAndMore", -2 * kDayUs - 3000, "-2day, -3ms"},
    {"OfMinus500Microseconds", -500, "-500us"},
};

INSTANTIATE_TEST_SUITE_P(Table, AnInterval, testing::ValuesIn(kIntervals), kit::named);

// --- Local time ---

constexpr long long kNoon = 1700049600000000; // 2023-11-15 12:00:00 UTC
constexpr const char* kDumped = nullptr;

struct LocalCase : kit::NamedCase {
    const char* zone;
    long long us;
    const char* format; ///< or kDumped
    const char* text;
};

class ALocalTime : public testing::TestWithParam<LocalCase>
{
};

TEST_P(ALocalTime, IsFormattedOrDumped)
{
    setenv("TZ", GetParam().zone, 1);
    tzset();
    const NSTime time(GetParam().us);

    EXPECT_EQ(GetParam().text, GetParam().format != kDumped ? time.toString(GetParam().format) : time.dump());
}

const LocalCase kLocals[] = {
    {"InUtc", "UTC", kNoon, "%Y-%m-%d %H:%M:%S", "2023-11-15 12:00:00"},
    {"EastOfIt", "XXX-3", kNoon, "%Y-%m-%d %H:%M:%S", "2023-11-15 15:00:00"},
    {"ByItsWholeSeconds", "UTC", kNoon + 999999, "%S", "00"},
    {"ByItsWholeSecondsTowardZero", "UTC", -999999, "%H:%M:%S", "00:00:00"},
    {"AlmostFiveTimesItsFormat", "UTC", kNoon, "%B", "November"},
    {"AtLength", "UTC", kNoon, "%A%A", "WednesdayWednesday"},
    {"WithoutASign", "UTC", kNoon, "plain", "plain"},
    {"DumpedWithMilliseconds", "UTC", kNoon, kDumped, "2023-11-15 12:00:00.000"},
    {"DumpedWithThreeDigits", "UTC", kNoon + 7000, kDumped, "2023-11-15 12:00:00.007"},
    {"DumpedWestOfIt", "XXX+3", kNoon + 123456, kDumped, "2023-11-15 09:00:00.123"},
    {"DumpedTruncated", "UTC", kNoon + 999999, kDumped, "2023-11-15 12:00:00.999"},
    {"DumpedOfAMicrosecond", "UTC", 1, kDumped, "1970-01-01 00:00:00.000"},
};

INSTANTIATE_TEST_SUITE_P(Table, ALocalTime, testing::ValuesIn(kLocals), kit::named);

} // namespace
