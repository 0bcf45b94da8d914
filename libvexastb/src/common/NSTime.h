// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <sys/time.h>

/**
 * Signed microseconds: a point on the wall clock, a point on the monotonic clock, or an interval. Only the
 * way in which a value was obtained says which; it is up to the user never to mix them. Zero means unset.
 *
 * A plain value without a lock. toString and dump use localtime, whose result is shared by all threads.
 */
class NSTime
{
public:
    /// No time is set.
    NSTime() = default;
    /// So many microseconds.
    NSTime(long long microseconds); // NOLINT(google-explicit-constructor): counts are times here

    /// The wall clock, from 1970-01-01 00:00:00 UTC.
    static NSTime now();
    /// The monotonic clock.
    static NSTime nowRelative();

    bool operator>(const NSTime& other) const;
    bool operator>=(const NSTime& other) const;
    bool operator<(const NSTime& other) const;
    bool operator<=(const NSTime& other) const;
    bool operator==(const NSTime& other) const;
    bool operator!=(const NSTime& other) const;

    NSTime(const NSTime&) = default;
    NSTime& operator=(const NSTime& other) = default;
    NSTime& operator=(const timeval& value);
    NSTime& operator+=(long long microseconds);
    NSTime& operator-=(long long microseconds);

    /// Whole seconds, truncated toward zero.
    std::time_t toTimeT() const;
    /// Microseconds.
    std::int64_t toInt64() const;
    /// Local time in the manner of strftime. `format` isn't empty and expands to less than five times its
    /// length; the result is undefined otherwise.
    std::string toString(const std::string& format) const;
    /// Seconds and microseconds, both with the sign of the value.
    timeval getTimeVal() const;
    /// The interval for people ("1day, 2hours, 3ms"); microseconds show only when nothing else does.
    std::string printInterval() const;
    /// Local date and time with milliseconds, or "EMPTY" for zero.
    std::string dump() const;

    void addDays(int days);
    void addHours(int hours);
    void addMinutes(int minutes);
    void addSeconds(int seconds);

private:
    std::int64_t _microseconds = 0;
};

NSTime operator+(const NSTime& time, long long microseconds);
NSTime operator-(const NSTime& time, long long microseconds);
NSTime operator+(const NSTime& left, const NSTime& right);
NSTime operator-(const NSTime& left, const NSTime& right);
