// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <sys/time.h>

/**
 * Signed microseconds: a point on the wall clock, a point on the monotonic clock, or an interval. Only the
 * way a value was obtained tells which; callers must not mix them. Zero means unset.
 *
 * A plain value without a lock. toString and dump use localtime, whose result is shared by all threads.
 */
class NSTime
{
public:
    /// An unset time.
    NSTime() = default;
    /// A number of microseconds.
    NSTime(long long microseconds); // NOLINT(google-explicit-constructor): counts are times here

    /// The wall clock, since 1970-01-01 00:00:00 UTC.
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
    /// Local time, formatted by strftime. `format` must not be empty and must expand to less than five times
    /// its length; otherwise the result is undefined.
    std::string toString(const std::string& format) const;
    /// Seconds and microseconds, both with the sign of the value.
    timeval getTimeVal() const;
    /// The interval in readable form ("1day, 2hours, 3ms"); microseconds appear only if it is below 1 ms.
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
