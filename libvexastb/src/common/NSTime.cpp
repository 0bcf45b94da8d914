// SPDX-License-Identifier: MIT
#include "NSTime.h"

#include <algorithm>
#include <alloca.h>
#include <array>
#include <cstddef>
#include <cstdio>

namespace
{

constexpr std::int64_t kMs = 1000;
constexpr std::int64_t kSecond = 1000000;
constexpr std::int64_t kMinute = 60 * kSecond;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;

struct Unit {
    std::int64_t count;
    const char* one;
    const char* many;
};

void append(std::string& text, const Unit& unit)
{
    if (unit.count == 0) {
        return;
    }
    if (!text.empty()) {
        text += ", ";
    }
    text += std::to_string(unit.count);
    text += unit.count < 2 ? unit.one : unit.many; // Kept: negative counts take the singular
}

} // namespace

NSTime::NSTime(long long microseconds) : _microseconds(microseconds) {}

NSTime NSTime::now()
{
    timeval value{};
    gettimeofday(&value, nullptr);
    NSTime result;
    result = value;
    return result;
}

NSTime NSTime::nowRelative()
{
    timespec value{};
    clock_gettime(CLOCK_MONOTONIC, &value);
    return {value.tv_sec * kSecond + value.tv_nsec / 1000};
}

bool NSTime::operator>(const NSTime& other) const
{
    return _microseconds > other._microseconds;
}

bool NSTime::operator>=(const NSTime& other) const
{
    return _microseconds >= other._microseconds;
}

bool NSTime::operator<(const NSTime& other) const
{
    return _microseconds < other._microseconds;
}

bool NSTime::operator<=(const NSTime& other) const
{
    return _microseconds <= other._microseconds;
}

bool NSTime::operator==(const NSTime& other) const
{
    return _microseconds == other._microseconds;
}

bool NSTime::operator!=(const NSTime& other) const
{
    return _microseconds != other._microseconds;
}

NSTime& NSTime::operator=(const timeval& value)
{
    _microseconds = value.tv_sec * kSecond + value.tv_usec;
    return *this;
}

NSTime& NSTime::operator+=(long long microseconds)
{
    _microseconds += microseconds;
    return *this;
}

NSTime& NSTime::operator-=(long long microseconds)
{
    _microseconds -= microseconds;
    return *this;
}

std::time_t NSTime::toTimeT() const
{
    return static_cast<std::time_t>(_microseconds / kSecond);
}

std::int64_t NSTime::toInt64() const
{
    return _microseconds;
}

// The caller chooses the format.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
std::string NSTime::toString(const std::string& format) const
{
    constexpr std::size_t kExpansion = 5;
    const std::time_t seconds = toTimeT();
    const std::size_t size = format.size() * kExpansion;
    // cppcheck-suppress allocaCalled ; five times a format that the program wrote
    auto* buffer = static_cast<char*>(alloca(size + 1));
    std::fill_n(buffer, size + 1, '\0');
    std::strftime(buffer, size, format.c_str(), std::localtime(&seconds));
    return buffer;
}
#pragma GCC diagnostic pop

timeval NSTime::getTimeVal() const
{
    timeval value{};
    value.tv_sec = static_cast<std::time_t>(_microseconds / kSecond);
    value.tv_usec = static_cast<suseconds_t>(_microseconds % kSecond);
    return value;
}

std::string NSTime::printInterval() const
{
    if (_microseconds == 0) {
        return "0";
    }
    std::string text;
    for (const Unit& unit :
         {Unit{_microseconds / kDay, "day", "days"}, Unit{_microseconds % kDay / kHour, "hour", "hours"},
          Unit{_microseconds % kHour / kMinute, "minute", "minutes"},
          Unit{_microseconds % kMinute / kSecond, "second", "seconds"},
          Unit{_microseconds % kSecond / kMs, "ms", "ms"}}) {
        append(text, unit);
    }
    if (text.empty()) {
        text = std::to_string(_microseconds % kMs) + "us";
    }
    return text;
}

std::string NSTime::dump() const
{
    constexpr std::size_t kSize = 255;
    if (_microseconds == 0) {
        return "EMPTY";
    }
    const std::time_t seconds = toTimeT();
    std::array<char, kSize> date{};
    std::strftime(date.data(), date.size(), "%Y-%m-%d %H:%M:%S", std::localtime(&seconds));
    std::array<char, kSize + 16> text{};
    std::snprintf(text.data(), text.size(), "%s.%03d", date.data(),
                  static_cast<int>(_microseconds % kSecond / kMs));
    return text.data();
}

void NSTime::addDays(int days)
{
    _microseconds += days * kDay;
}

void NSTime::addHours(int hours)
{
    _microseconds += hours * kHour;
}

void NSTime::addMinutes(int minutes)
{
    _microseconds += minutes * kMinute;
}

void NSTime::addSeconds(int seconds)
{
    _microseconds += seconds * kSecond;
}

NSTime operator+(const NSTime& time, long long microseconds)
{
    return {time.toInt64() + microseconds};
}

NSTime operator-(const NSTime& time, long long microseconds)
{
    return {time.toInt64() - microseconds};
}

NSTime operator+(const NSTime& left, const NSTime& right)
{
    return {left.toInt64() + right.toInt64()};
}

NSTime operator-(const NSTime& left, const NSTime& right)
{
    return {left.toInt64() - right.toInt64()};
}
