#include "KTime.h"

#include <sys/time.h>

#include <cstdint>

#include "Checks.h"
#include "Numbers.h"
#include "TimeText.h"

namespace {

constexpr Checks g_Checks("src/api/KTime");

constexpr int kMicrosecondsPerSecond = 1000000;
constexpr int kSecondsPerQuarterHour = 900;
constexpr int kSecondsPerMinute = 60;
constexpr int kSecondsPerHour = 3600;
constexpr int kSecondsPerDay = 86400;
constexpr int kDaysPerWeek = 7;
constexpr int kEpochYear = 1970;
constexpr int kEpochWeekDay = 4;  // 1970-01-01 was a Thursday.

/// Days before the first of each month in a common year; the last entry is the January after.
constexpr int kDaysBeforeMonth[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365};
constexpr int kMonthAfterTable = 13;

/// A zone's two counts are unsigned whatever the compiler makes of `char`.
constexpr int ZoneSeconds(char gmt, char dst) {
    return kSecondsPerQuarterHour * (static_cast<unsigned char>(gmt) + static_cast<unsigned char>(dst));
}

/// Leap years from year 1 to the year given.
constexpr int LeapYearsThrough(int nYear) {
    return nYear / 4 - nYear / 100 + nYear / 400;
}

constexpr int DaysBeforeYear(int nYear) {
    return 365 * (nYear - kEpochYear) + LeapYearsThrough(nYear - 1) - LeapYearsThrough(kEpochYear - 1);
}

int DaysBeforeMonth(short month, short year) {
    if (month <= 1) {
        return 0;
    }
    const int nMonth = month < kMonthAfterTable ? month : kMonthAfterTable;
    return kDaysBeforeMonth[nMonth - 1] + (nMonth > 2 && IsLeapYear(year) ? 1 : 0);
}

/// Year, month and day of a day counted from the epoch. The count is moved to start on a first of March, so that the
/// leap day is the last of its year and every month's start is a linear function of its number. Divisions are by
/// constants, and the two that matter are a multiplication and a shift (Neri and Schneider, "Euclidean affine functions
/// and their application to calendar algorithms").
void SetDate(KHumanTime& human, int nDays) {
    constexpr unsigned int kDaysToEpoch = 719468;   // from 0000-03-01 to 1970-01-01
    constexpr unsigned int kDaysPerEra = 146097;    // 400 years
    constexpr std::uint64_t kYearFactor = 2939745;  // 2^32 / 1461, rounded up: 1461 days are four years
    constexpr unsigned int kMonthFactor = 2141;     // 2^16 / 30.6, the mean length of March to January
    constexpr unsigned int kMonthOffset = 197913;   // makes the first month 3
    constexpr unsigned int kDaysToJanuary = 306;    // from the first of March
    const unsigned int nQuarters = 4 * static_cast<unsigned int>(nDays + static_cast<int>(kDaysToEpoch)) + 3;
    const unsigned int nCentury = nQuarters / kDaysPerEra;
    const std::uint64_t nYears = kYearFactor * (nQuarters % kDaysPerEra | 3);
    const unsigned int nDayOfYear = static_cast<unsigned int>(nYears) / static_cast<unsigned int>(kYearFactor) / 4;
    const unsigned int nMonths = kMonthFactor * nDayOfYear + kMonthOffset;
    const unsigned int nNextYear = nDayOfYear >= kDaysToJanuary ? 1 : 0;
    human.day = static_cast<int>((nMonths & 0xFFFF) / kMonthFactor + 1);
    human.month = static_cast<int>((nMonths >> 16) - 12 * nNextYear);
    human.year = static_cast<int>(100 * nCentury + static_cast<unsigned int>(nYears >> 32) + nNextYear);
}

/// Takes one second to make negative microseconds positive, once.
void Borrow(KTime& time) {
    if (time.usec < 0) {
        time.sec = WrappedDifference(time.sec, 1);
        time.usec = WrappedSum(time.usec, kMicrosecondsPerSecond);
    }
}

void AddTime(KTime& time, const KUnixTime& other) {
    const int nUSec = WrappedSum(time.usec, other.usec);
    time.sec = WrappedSum(WrappedSum(time.sec, other.sec), nUSec / kMicrosecondsPerSecond);
    time.usec = nUSec % kMicrosecondsPerSecond;
}

void Subtract(KTime& time, int nSec, int nUSec) {
    time.sec = WrappedDifference(time.sec, nSec);
    time.usec = WrappedDifference(time.usec, nUSec);
    Borrow(time);
}

bool IsBefore(const KUnixTime& left, const KUnixTime& right) {
    return left.sec != right.sec ? left.sec < right.sec : left.usec < right.usec;
}

int Pack(int nSec, int nUSec) {
    return WrappedSum(WrappedProduct(nSec, kMicrosecondsPerSecond), nUSec);
}

int Pack(const KTime& time) {
    return Pack(time.sec, time.usec);
}

int Pack(const SecUSec& amount) {
    return Pack(amount.sec, amount.usec);
}

}  // namespace

bool IsLeapYear(short year) {
    return (year & 3) == 0 && (year % 100 != 0 || year % 400 == 0);
}

std::time_t mkgmtime(short year, short month, short day, short hour, short minute, short second) {
    const int nDays = (year > kEpochYear ? DaysBeforeYear(year) : 0) + DaysBeforeMonth(month, year) + (day - 1);
    const int nTimeOfDay = hour * kSecondsPerHour + minute * kSecondsPerMinute + second;
    return WrappedSum(WrappedProduct(nDays, kSecondsPerDay), nTimeOfDay);
}

KTime::KTime() : KTime(0, 0, 0) {}

KTime::KTime(const KUnixTime& time) : KUnixTime() {
    *this = time;
}

KTime::KTime(int nSec, char gmt, char dst) : KTime(static_cast<long long>(nSec), 0, gmt, dst) {}

KTime::KTime(long long nSec, int nUSec, char gmt, char dst) : KUnixTime() {
    sec = LowWord(nSec);
    usec = nUSec;
    gmt15Min = static_cast<unsigned char>(gmt);
    dst15Min = static_cast<unsigned char>(dst);
}

KTime::KTime(const KTime& time) : KTime(static_cast<const KUnixTime&>(time)) {}

KTime::KTime(int nYear, int nMonth, int nDay, int nHour, int nMinute, int nSecond, int nUSec, char gmt, char dst)
    : KTime(MakeUnixTime(nYear, nMonth, nDay, nHour, nMinute, nSecond, gmt, dst), nUSec, gmt, dst) {}

KTime::KTime(const KHumanTime& time)
    : KTime(time.year, time.month, time.day, time.hour, time.minute, time.second, time.usec,
            static_cast<char>(time.gmt15Min), static_cast<char>(time.dst15Min)) {}

KTime::~KTime() = default;

KTime& KTime::operator=(const KTime& time) {
    if (this != &time) {
        *this = static_cast<const KUnixTime&>(time);
    }
    return *this;
}

KTime& KTime::operator=(const KUnixTime& time) {
    sec = time.sec;
    usec = time.usec;
    gmt15Min = time.gmt15Min;
    dst15Min = time.dst15Min;
    reserved1 = 0;
    reserved2 = 0;
    return *this;
}

bool KTime::IsValid() const {
    return sec > 0;
}

KTime& KTime::operator+=(const KTime& time) {
    AddTime(*this, time);
    return *this;
}

KTime& KTime::operator+=(const KUnixTime& time) {
    AddTime(*this, time);
    return *this;
}

KTime& KTime::operator-=(const KTime& time) {
    Subtract(*this, time.sec, time.usec);
    return *this;
}

KTime& KTime::operator-=(const KUnixTime& time) {
    Subtract(*this, WrappedSum(time.sec, time.usec / kMicrosecondsPerSecond), time.usec % kMicrosecondsPerSecond);
    return *this;
}

KTime KTime::operator+(const KTime& time) const {
    return KTime(*this) += time;
}
KTime KTime::operator+(const KUnixTime& time) const {
    return KTime(*this) += time;
}
KTime KTime::operator-(const KTime&) const {
    return *this;
}
KTime KTime::operator-(const KUnixTime&) const {
    return *this;
}

KTime& KTime::operator+=(int nSec) {
    sec = WrappedSum(sec, nSec);
    return *this;
}

KTime& KTime::operator-=(int nSec) {
    sec = WrappedDifference(sec, nSec);
    return *this;
}

KTime KTime::operator+(int nSec) const {
    return KTime(*this) += nSec;
}
KTime KTime::operator-(int nSec) const {
    return KTime(*this) -= nSec;
}

KTime& KTime::operator+=(const USec& amount) {
    sec = WrappedSum(sec, amount.usec / kMicrosecondsPerSecond);
    usec = amount.usec % kMicrosecondsPerSecond;
    return *this;
}

KTime& KTime::operator-=(const USec& amount) {
    Subtract(*this, amount.usec / kMicrosecondsPerSecond, amount.usec % kMicrosecondsPerSecond);
    return *this;
}

KTime KTime::operator+(const USec&) const {
    return *this;
}
KTime KTime::operator-(const USec& amount) const {
    return KTime(*this) -= amount;
}

KTime& KTime::operator+=(const SecUSec& amount) {
    sec = WrappedSum(sec, amount.sec / kMicrosecondsPerSecond);
    usec = amount.usec % kMicrosecondsPerSecond;
    return *this;
}

KTime& KTime::operator-=(const SecUSec& amount) {
    Subtract(*this, amount.sec, amount.usec % kMicrosecondsPerSecond);
    return *this;
}

KTime KTime::operator+(const SecUSec&) const {
    return *this;
}
KTime KTime::operator-(const SecUSec& amount) const {
    return KTime(*this) -= amount;
}

bool KTime::operator==(const KTime& time) const {
    return sec == time.sec;
}
bool KTime::operator==(const KUnixTime& time) const {
    return sec == time.sec;
}
bool KTime::operator!=(const KTime& time) const {
    return sec != time.sec;
}
bool KTime::operator!=(const KUnixTime& time) const {
    return sec != time.sec;
}
bool KTime::operator<(const KTime& time) const {
    return IsBefore(*this, time);
}
bool KTime::operator<(const KUnixTime& time) const {
    return IsBefore(*this, time);
}
bool KTime::operator>(const KTime& time) const {
    return IsBefore(time, *this);
}
bool KTime::operator>(const KUnixTime& time) const {
    return IsBefore(time, *this);
}
bool KTime::operator<=(const KTime& time) const {
    return !IsBefore(time, *this);
}
bool KTime::operator<=(const KUnixTime& time) const {
    return !IsBefore(time, *this);
}
bool KTime::operator>=(const KTime& time) const {
    return !IsBefore(*this, time);
}
bool KTime::operator>=(const KUnixTime& time) const {
    return !IsBefore(*this, time);
}

bool KTime::operator==(int nSec) {
    return sec == nSec;
}
bool KTime::operator!=(int nSec) {
    return sec != nSec;
}
bool KTime::operator<(int nSec) {
    return sec < nSec;
}
bool KTime::operator>(int nSec) {
    return sec > nSec;
}
bool KTime::operator<=(int nSec) {
    return sec <= nSec;
}
bool KTime::operator>=(int nSec) {
    return sec >= nSec;
}

bool KTime::operator==(const SecUSec& amount) {
    return Pack(*this) == Pack(amount);
}
bool KTime::operator!=(const SecUSec& amount) {
    return Pack(*this) != Pack(amount);
}
bool KTime::operator<(const SecUSec& amount) {
    return Pack(*this) < Pack(amount);
}
bool KTime::operator>(const SecUSec& amount) {
    return Pack(*this) > Pack(amount);
}
bool KTime::operator<=(const SecUSec& amount) {
    return Pack(*this) <= Pack(amount);
}
bool KTime::operator>=(const SecUSec& amount) {
    return Pack(*this) >= Pack(amount);
}

long long KTime::MakeUnixTime(int nYear, int nMonth, int nDay, int nHour, int nMinute, int nSecond, char gmt,
                              char dst) {
    const std::time_t nLocal =
        mkgmtime(static_cast<short>(nYear), static_cast<short>(nMonth), static_cast<short>(nDay),
                 static_cast<short>(nHour), static_cast<short>(nMinute), static_cast<short>(nSecond));
    return WrappedDifference(LowWord(nLocal), ZoneSeconds(gmt, dst));
}

KHumanTime KTime::MakeHumanTime(long long nSec, int nUSec, char gmt, char dst) {
    const int nLocal = WrappedSum(LowWord(nSec), ZoneSeconds(gmt, dst));
    int nDays = nLocal / kSecondsPerDay;
    int nTimeOfDay = nLocal % kSecondsPerDay;
    if (nTimeOfDay < 0) {
        nTimeOfDay += kSecondsPerDay;
        --nDays;
    }
    KHumanTime human;
    SetDate(human, nDays);
    // Whole weeks more than any day before the epoch is away from it.
    constexpr int kManyWeeks = 4000 * kDaysPerWeek;
    human.weekDay = static_cast<int>(static_cast<unsigned int>(nDays + kManyWeeks + kEpochWeekDay) % kDaysPerWeek);
    const unsigned int nSeconds = static_cast<unsigned int>(nTimeOfDay);
    human.hour = static_cast<int>(nSeconds / kSecondsPerHour);
    human.minute = static_cast<int>(nSeconds / kSecondsPerMinute % 60);
    human.second = static_cast<int>(nSeconds % kSecondsPerMinute);
    human.usec = nUSec % kMicrosecondsPerSecond;
    human.gmt15Min = static_cast<unsigned char>(gmt);
    human.dst15Min = static_cast<unsigned char>(dst);
    return human;
}

KHumanTime KTime::GetHumanTime(char gmt, char dst) const {
    return MakeHumanTime(sec, usec, gmt, dst);
}

bool KTime::MoveGMT(char gmt) {
    constexpr unsigned char kTwelveHours = 48;
    const unsigned char nOffset = static_cast<unsigned char>(gmt);
    if (nOffset > kTwelveHours) {
        return false;
    }
    sec = WrappedSum(sec, kSecondsPerQuarterHour * (gmt15Min - nOffset));
    gmt15Min = nOffset;
    return true;
}

bool KTime::MoveDST(char dst) {
    const unsigned char nOffset = static_cast<unsigned char>(dst);
    sec = WrappedSum(sec, kSecondsPerQuarterHour * (dst15Min - nOffset));
    dst15Min = nOffset;
    return true;
}

int KTime::GetDSTOffSet15Min(int nFlag) {
    return nFlag == 1 ? 16 : 0;
}

KTime KTime::GetCurrentTime() {
    timeval now = {};
    struct timezone zone = {};
    gettimeofday(&now, &zone);
    return KTime(static_cast<long long>(now.tv_sec), static_cast<int>(now.tv_usec),
                 static_cast<char>(zone.tz_minuteswest / -15), static_cast<char>(GetDSTOffSet15Min(zone.tz_dsttime)));
}

namespace {

/// What the parts of a time's text are separated by; a part without a separator is left out.
struct TimeForm {
    int nFormat;
    const char* pszDate;          ///< Between year, month and day.
    const char* pszTimeBefore;    ///< Before the time of day.
    const char* pszTime;          ///< Between hours, minutes and seconds.
    const char* pszMicroseconds;  ///< Before the microseconds.
};
constexpr TimeForm kTimeForms[] = {
    {1, "/", "", nullptr, nullptr}, {2, nullptr, "", ":", nullptr}, {3, "/", " ", ":", nullptr},
    {6, nullptr, "", ":", " "},     {7, "/", " ", ":", " "},        {8, "", "", "", nullptr},
    {16, "", "", "", ""},
};

const TimeForm* FindTimeForm(int nFormat) {
    for (const TimeForm& form : kTimeForms) {
        if (form.nFormat == nFormat) {
            return &form;
        }
    }
    return nullptr;
}

}  // namespace

KString KTime::GetHumanTimeString(int nFormat, char gmt, char dst) const {
    const KHumanTime human = GetHumanTime(gmt, dst);
    const TimeForm* const pForm = FindTimeForm(nFormat);
    if (pForm == nullptr) {
        g_Checks.Fail("KString KTime::GetHumanTimeString(int, char, char) const");
        return KString();
    }
    TimeText text;
    if (pForm->pszDate != nullptr) {
        text.Date(human, pForm->pszDate);
    }
    if (pForm->pszTime != nullptr) {
        text.Text(pForm->pszTimeBefore).TimeOfDay(human, pForm->pszTime);
    }
    if (pForm->pszMicroseconds != nullptr) {
        text.Text(pForm->pszMicroseconds).Microseconds(human);
    }
    return KString(text.Begin(), static_cast<int>(text.Length()));
}
