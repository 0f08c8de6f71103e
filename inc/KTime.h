/// @file
/// The time value, its records and the calendar.
#ifndef KALVOREN_KTIME_H
#define KALVOREN_KTIME_H

#include <ctime>

#include "KString.h"
#include "KTypes.h"

/// An instant with the zone it is to be shown in. KTime is this record with operations.
struct KALVOREN_API KUnixTime {
    /// Zeroes the reserved bytes and leaves the rest undefined.
    KUnixTime() : reserved1(0), reserved2(0) {}

    int sec;                  ///< Seconds since 1970-01-01 00:00:00 UTC.
    int usec;                 ///< Microseconds; normally 0 to 999999, but nothing enforces it.
    unsigned char gmt15Min;   ///< Offset from GMT in quarter-hours, eastward: 36 is UTC+9:00.
    unsigned char dst15Min;   ///< Daylight-saving offset in quarter-hours.
    unsigned char reserved1;  ///< Not used.
    unsigned char reserved2;  ///< Not used.
};

/// The calendar fields of an instant, shown in a zone.
struct KALVOREN_API KHumanTime {
    /// Zeroes the reserved bytes and leaves the rest undefined.
    KHumanTime() : reserved1(0), reserved2(0) {}

    int year;                 ///< The full year, for example 2024.
    int month;                ///< 1 to 12.
    int day;                  ///< 1 to 31.
    int weekDay;              ///< 0 (Sunday) to 6. Written by conversions and never read back.
    int hour;                 ///< 0 to 23.
    int minute;               ///< 0 to 59.
    int second;               ///< 0 to 59.
    int usec;                 ///< Microseconds.
    unsigned char gmt15Min;   ///< Offset from GMT in quarter-hours.
    unsigned char dst15Min;   ///< Daylight-saving offset in quarter-hours.
    unsigned char reserved1;  ///< Not used.
    unsigned char reserved2;  ///< Not used.
};

/// An amount of microseconds.
struct USec {
    int usec;  ///< Microseconds.
};

/// An amount of seconds and microseconds.
struct SecUSec {
    int sec;   ///< Seconds.
    int usec;  ///< Microseconds.
};

/// Returns true when @p year has a 29th of February in the Gregorian calendar: 2000 and 2024 do, 1900 does not.
KALVOREN_API bool IsLeapYear(short year);

/// Returns the seconds from 1970-01-01 00:00:00 UTC to a calendar reading in UTC, as a signed 32-bit count that wraps
/// negative after 2038-01-19 03:14:07.
///
/// Nothing is validated. A year before 1970 counts as 1970, but for its own 29 February; a month below 1 counts as 1, one
/// above 13 as 13 (the January after); the other fields add their value, so that day 0 is the last day of the month before
/// and hour 24 the first of the next day. `mkgmtime(2000, 3, 1, 0, 0, 0)` is 951868800.
///
/// On 32 bits the result is as wide as `time_t` is where the library is built: a program that is built with another
/// `_TIME_BITS` than the library takes KTime::MakeUnixTime() instead.
KALVOREN_API std::time_t mkgmtime(short year, short month, short day, short hour, short minute, short second);

/// The library's time value: an instant in whole seconds and microseconds since 1970-01-01 00:00:00 UTC, labelled with
/// the zone in which it is to be shown.
///
/// The seconds are a signed 32-bit count and wrap. A zone is two unsigned counts of quarter-hours, the offset from GMT
/// (eastward) and the daylight-saving offset; offsets west of GMT cannot be expressed.
///
/// @b The @b operators @b are @b not @b what @b they @b look @b like in several places. Programs rely on each of them,
/// so they stay; the table in `docs/behaviour.md` says what to use instead:
/// - `t - u` with a time returns `t` unchanged. A difference is made with `-=`.
/// - `t + USec{n}` and `t + SecUSec{s, n}` return `t` unchanged.
/// - `t += USec{n}` @b replaces the microseconds: 10 s 500000 us `+= USec{1200000}` is 11 s 200000 us.
/// - `t += SecUSec{s, n}` adds a millionth of the seconds and replaces the microseconds.
/// - `t == u` compares whole seconds alone, while `<` and its kin compare the microseconds too.
/// - Comparisons with a SecUSec pack both sides into 32-bit microsecond counts that wrap.
/// No operator reads or changes a zone.
///
/// Thread-safety: a plain value without shared state.
class KALVOREN_API KTime : public KUnixTime {
 public:
    /// The epoch in zone 0/0.
    KTime();

    /// The same instant and zone.
    KTime(const KUnixTime& time);

    /// @p nSec seconds and no microseconds, in the zone given.
    KTime(int nSec, char gmt, char dst);

    /// The low 32 bits of @p nSec, and @p nUSec microseconds as they are: not normalised.
    KTime(long long nSec, int nUSec, char gmt, char dst);

    /// The same instant and zone.
    KTime(const KTime& time);

    /// The instant at which a clock in the given zone shows these fields (see MakeUnixTime()); @p nUSec is stored as
    /// it is.
    KTime(int nYear, int nMonth, int nDay, int nHour, int nMinute, int nSecond, int nUSec, char gmt, char dst);

    /// As the previous, from a record; its week day is ignored.
    KTime(const KHumanTime& time);

    virtual ~KTime();

    /// Takes over instant and zone.
    KTime& operator=(const KTime& time);
    KTime& operator=(const KUnixTime& time);

    /// Returns true when the seconds are above 0: the epoch itself is not valid.
    bool IsValid() const;

    /// @name Shifting by another time
    /// `+=` adds seconds and microseconds and carries whole seconds over. `-=` subtracts both and borrows one second
    /// when the microseconds became negative. `+` is a copy and `+=`. `-` returns a copy of the left side, unchanged.
    /// @{
    KTime& operator+=(const KTime& time);
    KTime& operator+=(const KUnixTime& time);
    KTime& operator-=(const KTime& time);
    /// Here whole seconds in the right side's microseconds are taken off the seconds first.
    KTime& operator-=(const KUnixTime& time);
    KTime operator+(const KTime& time) const;
    KTime operator+(const KUnixTime& time) const;
    KTime operator-(const KTime& time) const;
    KTime operator-(const KUnixTime& time) const;
    /// @}

    /// @name Shifting by whole seconds
    /// @{
    KTime& operator+=(int nSec);
    KTime& operator-=(int nSec);
    KTime operator+(int nSec) const;
    KTime operator-(int nSec) const;
    /// @}

    /// @name Shifting by microseconds
    /// `+=` adds whole seconds and @b replaces the microseconds by the rest. `-=` subtracts and borrows. `+` returns a
    /// copy of the left side, unchanged.
    /// @{
    KTime& operator+=(const USec& amount);
    KTime& operator-=(const USec& amount);
    KTime operator+(const USec& amount) const;
    KTime operator-(const USec& amount) const;
    /// @}

    /// @name Shifting by seconds and microseconds
    /// `+=` adds a millionth of the seconds and @b replaces the microseconds by those of the amount that are below one
    /// second: `+= SecUSec{0, 2500000}` leaves 500000. `-=` subtracts the seconds and the microseconds below one second,
    /// and borrows. `+` returns a copy of the left side, unchanged.
    /// @{
    KTime& operator+=(const SecUSec& amount);
    KTime& operator-=(const SecUSec& amount);
    KTime operator+(const SecUSec& amount) const;
    KTime operator-(const SecUSec& amount) const;
    /// @}

    /// @name Comparing with a time
    /// `==` and `!=` compare the seconds alone; the ordered comparisons compare seconds, then microseconds.
    /// @{
    bool operator==(const KTime& time) const;
    bool operator==(const KUnixTime& time) const;
    bool operator!=(const KTime& time) const;
    bool operator!=(const KUnixTime& time) const;
    bool operator<(const KTime& time) const;
    bool operator<(const KUnixTime& time) const;
    bool operator>(const KTime& time) const;
    bool operator>(const KUnixTime& time) const;
    bool operator<=(const KTime& time) const;
    bool operator<=(const KUnixTime& time) const;
    bool operator>=(const KTime& time) const;
    bool operator>=(const KUnixTime& time) const;
    /// @}

    /// @name Comparing the seconds with a number
    /// @{
    bool operator==(int nSec);
    bool operator!=(int nSec);
    bool operator<(int nSec);
    bool operator>(int nSec);
    bool operator<=(int nSec);
    bool operator>=(int nSec);
    /// @}

    /// @name Comparing with an amount
    /// Both sides are packed as seconds times 1,000,000 plus microseconds in 32-bit arithmetic that wraps, and compared
    /// as signed numbers: for present-day seconds the order is that of the wrapped values, not of the instants.
    /// @{
    bool operator==(const SecUSec& amount);
    bool operator!=(const SecUSec& amount);
    bool operator<(const SecUSec& amount);
    bool operator>(const SecUSec& amount);
    bool operator<=(const SecUSec& amount);
    bool operator>=(const SecUSec& amount);
    /// @}

    /// Returns the UTC seconds at which a clock in the given zone shows these fields: mkgmtime() of the fields, each
    /// cut to 16 bits, less 900 seconds for every quarter-hour of both offsets. The count is 32 bits wide and wraps.
    static long long MakeUnixTime(int nYear, int nMonth, int nDay, int nHour, int nMinute, int nSecond, char gmt,
                                  char dst);

    /// Returns the calendar fields that a clock in the given zone shows at an instant. The seconds are cut to 32 bits
    /// after the zone was added; the microseconds are the remainder by 1,000,000, with the sign of @p nUSec. The result
    /// is that of libc's `gmtime`, made without its shared storage, so that threads may convert at once.
    static KHumanTime MakeHumanTime(long long nSec, int nUSec, char gmt, char dst);

    /// Returns MakeHumanTime() of this value in the zone @b passed, not the zone stored.
    KHumanTime GetHumanTime(char gmt, char dst) const;

    /// Labels the value with another GMT offset so that the wall-clock reading stays and the @b instant @b moves: 09:00
    /// at offset 36 becomes 09:00 at offset 0, nine hours later in UTC. Returns false, with nothing changed, for an
    /// offset above 48 quarter-hours.
    bool MoveGMT(char gmt);

    /// The same with the daylight-saving offset, which may have any value. Always returns true.
    bool MoveDST(char dst);

    /// Returns the daylight-saving offset that a clock's flag stands for: 16 quarter-hours for exactly 1, else 0.
    static int GetDSTOffSet15Min(int nFlag);

    /// Returns the current time and the system's zone (`gettimeofday`). A zone west of GMT wraps: UTC-5:00 gives 236.
    static KTime GetCurrentTime();

    /// Returns the calendar fields in the zone @b passed as a text, zero-padded:
    ///
    /// | nFormat | text |
    /// |---|---|
    /// | 1 | `2000/01/01` |
    /// | 2 | `09:00:00` |
    /// | 3 | `2000/01/01 09:00:00` |
    /// | 6 | `09:00:00 000000` |
    /// | 7 | `2000/01/01 09:00:00 000000` |
    /// | 8 | `20000101090000` |
    /// | 16 | `20000101090000000000` |
    ///
    /// Any other format fails the check "0"; with the checks off the result is empty.
    KString GetHumanTimeString(int nFormat, char gmt, char dst) const;
};

#endif  // KALVOREN_KTIME_H
