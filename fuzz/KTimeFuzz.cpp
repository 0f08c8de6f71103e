// Time: conversions and arithmetic against libc's calendar and 64-bit sums, of which 32 bits are kept.
#include <ctime>

#include "CalendarModel.h"
#include "Fuzz.h"
#include "KTime.h"

namespace {

using fuzz::IsLeap;
using fuzz::Low32;
using fuzz::ModelSeconds;

constexpr long long kMillion = 1000000;

long long ZoneSeconds(std::uint8_t nGmt, std::uint8_t nDst) {
    return 900LL * (nGmt + nDst);
}

/// A KTime in all its parts.
struct Parts {
    Parts(long long nSec, long long nUSec, std::uint8_t nGmt, std::uint8_t nDst)
        : m_nSec(Low32(nSec)), m_nUSec(nUSec), m_nZone(nGmt * 256 + nDst), m_nReserved(0) {}
    explicit Parts(const KUnixTime& time) : Parts(time.sec, time.usec, time.gmt15Min, time.dst15Min) {
        m_nReserved = time.reserved1 + time.reserved2;
    }

    bool operator==(const Parts& other) const {
        return m_nSec == other.m_nSec && m_nUSec == other.m_nUSec && m_nZone == other.m_nZone &&
               m_nReserved == other.m_nReserved;
    }

    int m_nSec;
    long long m_nUSec;
    int m_nZone;
    int m_nReserved;
};

std::string Shown(const Parts& parts) {
    return std::to_string(parts.m_nSec) + " s " + std::to_string(parts.m_nUSec) + " us at " +
           std::to_string(parts.m_nZone / 256) + "/" + std::to_string(parts.m_nZone % 256);
}

std::string Fields(const KHumanTime& human) {
    std::string text;
    for (const int nField : {human.year, human.month, human.day, human.weekDay, human.hour, human.minute, human.second,
                             human.usec, int{human.gmt15Min}, int{human.dst15Min}, human.reserved1 + human.reserved2}) {
        text += std::to_string(nField) + " ";
    }
    return text;
}

/// Every form that there is, and those around them that there are not.
void CompareTexts(int nSec, int nUSec, std::uint8_t nGmt, std::uint8_t nDst, const std::tm& wanted) {
    static const struct {
        const char* pszSeconds;
        int nFormat;
        bool fgMicroseconds;
    } kForms[] = {{"%Y/%m/%d", 1, false},    {"%H:%M:%S", 2, false},          {"%Y/%m/%d %H:%M:%S", 3, false},
                  {"%H:%M:%S ", 6, true},    {"%Y/%m/%d %H:%M:%S ", 7, true}, {"%Y%m%d%H%M%S", 8, false},
                  {"%Y%m%d%H%M%S", 16, true}};
    // In the zone that is passed; the one that is stored does not matter.
    const KTime time(static_cast<long long>(nSec), nUSec, static_cast<char>(nDst), static_cast<char>(nGmt));
    for (int nFormat = -1; nFormat <= 18; ++nFormat) {
        std::string text;
        for (const auto& form : kForms) {
            if (form.nFormat == nFormat) {
                char szSeconds[64], szMicroseconds[64];
                std::strftime(szSeconds, sizeof(szSeconds), form.pszSeconds, &wanted);
                std::snprintf(szMicroseconds, sizeof(szMicroseconds), "%06d", nUSec % static_cast<int>(kMillion));
                text = std::string(szSeconds) + (form.fgMicroseconds ? szMicroseconds : "");
            }
        }
        const KString got = time.GetHumanTimeString(nFormat, static_cast<char>(nGmt), static_cast<char>(nDst));
        fuzz::ExpectSame(fuzz::TextOf(got), text, "text");
    }
}

void CompareHuman(int nSec, int nUSec, std::uint8_t nGmt, std::uint8_t nDst) {
    const KHumanTime human = KTime::MakeHumanTime(nSec, nUSec, static_cast<char>(nGmt), static_cast<char>(nDst));
    const std::time_t nLocal = Low32(nSec + ZoneSeconds(nGmt, nDst));
    std::tm wanted = {};
    gmtime_r(&nLocal, &wanted);
    fuzz::ExpectSame(static_cast<int>(human.year), wanted.tm_year + 1900, "year");
    fuzz::ExpectSame(static_cast<int>(human.month), wanted.tm_mon + 1, "month");
    fuzz::ExpectSame(static_cast<int>(human.day), wanted.tm_mday, "day");
    fuzz::ExpectSame(static_cast<int>(human.hour), wanted.tm_hour, "hour");
    fuzz::ExpectSame(static_cast<int>(human.minute), wanted.tm_min, "minute");
    fuzz::ExpectSame(static_cast<int>(human.second), wanted.tm_sec, "second");
    fuzz::ExpectSame(static_cast<int>(human.weekDay), wanted.tm_wday, "day of the week");
    fuzz::ExpectSame(static_cast<int>(human.usec), nUSec % static_cast<int>(kMillion), "microseconds");

    // The high half of the seconds does not count, and a value's own zone neither.
    const long long nHigh = static_cast<long long>(nUSec / 2) * (1LL << 32);
    fuzz::ExpectSame(
        Fields(KTime::MakeHumanTime(nSec + nHigh, nUSec, static_cast<char>(nGmt), static_cast<char>(nDst))),
        Fields(human), "fields of more than 32 bits");
    const KTime time(nSec + nHigh, nUSec, static_cast<char>(nDst), static_cast<char>(nGmt));
    fuzz::ExpectSame(Parts(time), Parts(nSec, nUSec, nDst, nGmt), "a time of more than 32 bits");
    fuzz::ExpectSame(Fields(time.GetHumanTime(static_cast<char>(nGmt), static_cast<char>(nDst))), Fields(human),
                     "GetHumanTime");
    fuzz::ExpectSame(int{human.gmt15Min}, int{nGmt}, "offset from GMT");
    fuzz::ExpectSame(int{human.dst15Min}, int{nDst}, "daylight-saving offset");

    // And back, from the year that the count starts with on.
    if (wanted.tm_year >= 70) {
        const long long nBack = KTime::MakeUnixTime(human.year, human.month, human.day, human.hour, human.minute,
                                                    human.second, static_cast<char>(nGmt), static_cast<char>(nDst));
        fuzz::ExpectSame(nBack, static_cast<long long>(nSec), "there and back");
        KHumanTime other = human;
        other.weekDay = nUSec;
        fuzz::ExpectSame(Parts(KTime(other)), Parts(nSec, nUSec % kMillion, nGmt, nDst), "there and back as a record");
    }

    CompareTexts(nSec, nUSec, nGmt, nDst, wanted);
}

void CompareSeconds(fuzz::Input& input) {
    const int nYear = 1900 + input.Range(0, 255) + input.Range(0, 255);
    const int nMonth = input.Range(-2, 13);
    const auto nDay = static_cast<short>(input.Int());
    const auto nHour = static_cast<short>(input.Int());
    const auto nMinute = static_cast<short>(input.Int());
    const auto nSecond = static_cast<short>(input.Int());
    const std::time_t nGot =
        mkgmtime(static_cast<short>(nYear), static_cast<short>(nMonth), nDay, nHour, nMinute, nSecond);
    const int nWanted =
        ModelSeconds(static_cast<short>(nYear), static_cast<short>(nMonth), nDay, nHour, nMinute, nSecond);
    fuzz::ExpectSame(static_cast<long long>(nGot), static_cast<long long>(nWanted), "mkgmtime");
    fuzz::ExpectSame(IsLeapYear(static_cast<short>(nYear)), IsLeap(nYear), "leap year");
}

/// Fields of any size, of which the low 16 bits count, in a zone.
void CompareFields(fuzz::Input& input) {
    int fields[6];
    short cut[6];
    for (int i = 0; i < 6; ++i) {
        fields[i] = input.Int();
        cut[i] = static_cast<short>(static_cast<std::uint16_t>(fields[i]));
    }
    const int nUSec = input.Int();
    const std::uint8_t nGmt = input.Byte();
    const std::uint8_t nDst = input.Byte();
    const auto gmt = static_cast<char>(nGmt);
    const auto dst = static_cast<char>(nDst);
    const long long nLocal = ModelSeconds(cut[0], cut[1], cut[2], cut[3], cut[4], cut[5]);
    const long long nWanted = Low32(nLocal - ZoneSeconds(nGmt, nDst));
    fuzz::ExpectSame(static_cast<long long>(mkgmtime(cut[0], cut[1], cut[2], cut[3], cut[4], cut[5])), nLocal,
                     "mkgmtime of anything");
    fuzz::ExpectSame(KTime::MakeUnixTime(fields[0], fields[1], fields[2], fields[3], fields[4], fields[5], gmt, dst),
                     nWanted, "MakeUnixTime");
    fuzz::ExpectSame(IsLeapYear(cut[0]), IsLeap(cut[0]), "leap year of any");
    const KTime time(fields[0], fields[1], fields[2], fields[3], fields[4], fields[5], nUSec, gmt, dst);
    fuzz::ExpectSame(Parts(time), Parts(nWanted, nUSec, nGmt, nDst), "a time of fields");
    fuzz::ExpectSame(time.IsValid(), nWanted > 0, "valid");
    fuzz::ExpectSame(Parts(KTime(fields[0], gmt, dst)), Parts(fields[0], 0, nGmt, nDst), "a time of seconds");
    KTime other;
    fuzz::ExpectSame(Parts(other), Parts(0, 0, 0, 0), "a new time");
    other = static_cast<const KUnixTime&>(time);
    fuzz::ExpectSame(Parts(other), Parts(time), "a time assigned");
    fuzz::ExpectSame(Parts(KTime(static_cast<const KUnixTime&>(time))), Parts(time), "a time of a record");
    fuzz::ExpectSame(KTime::GetDSTOffSet15Min(fields[0]), fields[0] == 1 ? 16 : 0, "what a clock's flag stands for");
    fuzz::ExpectSame(KTime::GetDSTOffSet15Min(cut[1] % 3), cut[1] % 3 == 1 ? 16 : 0, "what a small flag stands for");
}

KUnixTime Unix(int nSec, int nUSec) {
    KUnixTime time;
    time.sec = nSec;
    time.usec = nUSec;
    time.gmt15Min = 0;
    time.dst15Min = 0;
    return time;
}

/// Sums and differences of times whose microseconds are in range, as times go that are not made up.
void CompareArithmetic(fuzz::Input& input) {
    const int nSec = input.Int();
    const int nUSec = static_cast<int>(static_cast<unsigned>(input.Int()) % kMillion);
    const int nOther = input.Int();
    const int nOtherUSec = static_cast<int>(static_cast<unsigned>(input.Int()) % kMillion);
    const KUnixTime left = Unix(nSec, nUSec);
    const KUnixTime right = Unix(nOther, nOtherUSec);

    KTime sum(left);
    sum += KTime(right);
    const long long nSum = static_cast<long long>(nUSec) + nOtherUSec;
    fuzz::ExpectSame(sum.sec, Low32(static_cast<long long>(nSec) + nOther + nSum / kMillion), "seconds of a sum");
    fuzz::ExpectSame(sum.usec, static_cast<int>(nSum % kMillion), "microseconds of a sum");

    KTime difference(left);
    difference -= KTime(right);
    const long long nBorrow = nUSec < nOtherUSec ? 1 : 0;
    fuzz::ExpectSame(difference.sec, Low32(static_cast<long long>(nSec) - nOther - nBorrow), "seconds of a difference");
    fuzz::ExpectSame(difference.usec, static_cast<int>(nUSec - nOtherUSec + nBorrow * kMillion), "microseconds of it");

    const long long nLeft = nSec * kMillion + nUSec;
    const long long nRight = nOther * kMillion + nOtherUSec;
    fuzz::ExpectSame(KTime(left) < KTime(right), nLeft < nRight, "<");
    fuzz::ExpectSame(KTime(left) > KTime(right), nLeft > nRight, ">");
    fuzz::ExpectSame(KTime(left) <= KTime(right), nLeft <= nRight, "<=");
    fuzz::ExpectSame(KTime(left) >= KTime(right), nLeft >= nRight, ">=");
    fuzz::ExpectSame(KTime(left) == KTime(right), nSec == nOther, "==");

    KTime moved(left);
    const auto nGmt = static_cast<char>(input.Byte());
    const bool fgMoved = moved.MoveGMT(nGmt);
    const int nOffset = static_cast<unsigned char>(nGmt);
    fuzz::ExpectSame(fgMoved, nOffset <= 48, "MoveGMT");
    fuzz::ExpectSame(moved.sec, fgMoved ? Low32(nSec - 900LL * nOffset) : nSec, "seconds after MoveGMT");
}

/// A time in a zone whose microseconds are any, so that sums and differences of them wrap as those of the seconds do.
struct Moment {
    explicit Moment(fuzz::Input& input)
        : nSec(input.Int()), nUSec(input.Int()), nGmt(input.Byte()), nDst(input.Byte()) {}

    KTime Time() const {
        return KTime(nSec, static_cast<int>(nUSec), static_cast<char>(nGmt), static_cast<char>(nDst));
    }

    /// What an operator makes of it: the zone is neither read nor changed.
    Parts With(long long nNewSec, long long nNewUSec) const { return Parts(nNewSec, nNewUSec, nGmt, nDst); }

    /// A difference, of which one second is borrowed where its microseconds are negative.
    Parts Less(long long nLessSec, long long nLessUSec) const {
        const int nLeft = Low32(nUSec - nLessUSec);
        const bool fgBorrow = nLeft < 0;
        return With(nSec - nLessSec - (fgBorrow ? 1 : 0), nLeft + (fgBorrow ? kMillion : 0));
    }

    const long long nSec;
    const long long nUSec;
    const std::uint8_t nGmt;
    const std::uint8_t nDst;
};

/// An operator that changes its left side, and the one that makes a new value. What they are given is compared as well.
template <typename Right>
void CompareShift(const Moment& left, const Right& right, const Parts& added, const Parts& plus, const Parts& taken,
                  const Parts& minus) {
    const KTime before = left.Time();
    KTime time(before);
    fuzz::Expect(&(time += right) == &time, "+= returns its left side");
    fuzz::ExpectSame(Parts(time), added, "+=");
    time = before;
    fuzz::Expect(&(time -= right) == &time, "-= returns its left side");
    fuzz::ExpectSame(Parts(time), taken, "-=");
    fuzz::ExpectSame(Parts(before + right), plus, "+");
    fuzz::ExpectSame(Parts(before - right), minus, "-");
    fuzz::ExpectSame(Parts(before), left.With(left.nSec, left.nUSec), "the left side of + and -");
}

template <typename Right>
void CompareOrder(const Moment& left, const Right& right, int nOrder, bool fgSame) {
    KTime time = left.Time();  // Some comparisons are not const.
    fuzz::ExpectSame(time == right, fgSame, "==");
    fuzz::ExpectSame(time != right, !fgSame, "!=");
    fuzz::ExpectSame(time < right, nOrder < 0, "<");
    fuzz::ExpectSame(time > right, nOrder > 0, ">");
    fuzz::ExpectSame(time <= right, nOrder <= 0, "<=");
    fuzz::ExpectSame(time >= right, nOrder >= 0, ">=");
}

int Order(long long nLeft, long long nRight) {
    return nLeft < nRight ? -1 : nLeft > nRight ? 1 : 0;
}

/// Every operator that there is, with every kind of right side.
void CompareOperators(fuzz::Input& input) {
    const Moment left(input);
    const Moment right(input);
    const Parts same = left.With(left.nSec, left.nUSec);
    const KTime time = right.Time();
    const KUnixTime& record = time;

    const int nUSecs = Low32(left.nUSec + right.nUSec);
    const Parts sum = left.With(left.nSec + right.nSec + nUSecs / kMillion, nUSecs % kMillion);
    CompareShift(left, time, sum, sum, left.Less(right.nSec, right.nUSec), same);
    const Parts less = left.Less(right.nSec + right.nUSec / kMillion, right.nUSec % kMillion);
    CompareShift(left, record, sum, sum, less, same);

    const Parts later = left.With(left.nSec + right.nSec, left.nUSec);
    const Parts earlier = left.With(left.nSec - right.nSec, left.nUSec);
    CompareShift(left, static_cast<int>(right.nSec), later, later, earlier, earlier);

    const long long nRest = right.nUSec % kMillion;
    const USec microseconds = {static_cast<int>(right.nUSec)};
    const Parts moved = left.With(left.nSec + right.nUSec / kMillion, nRest);
    const Parts back = left.Less(right.nUSec / kMillion, nRest);
    CompareShift(left, microseconds, moved, same, back, back);

    const SecUSec amount = {static_cast<int>(right.nSec), static_cast<int>(nRest)};
    const Parts shifted = left.With(left.nSec + right.nSec / kMillion, nRest);
    CompareShift(left, amount, shifted, same, left.Less(right.nSec, nRest), left.Less(right.nSec, nRest));
    const SecUSec large = {static_cast<int>(right.nSec), static_cast<int>(right.nUSec)};
    KTime less2 = left.Time();
    fuzz::ExpectSame(Parts(less2 -= large), left.Less(right.nSec, nRest), "-= counts what is below a second");

    const int nSeconds = Order(left.nSec, right.nSec);
    const int nOrder = nSeconds != 0 ? nSeconds : Order(left.nUSec, right.nUSec);
    CompareOrder(left, time, nOrder, nSeconds == 0);
    CompareOrder(left, record, nOrder, nSeconds == 0);
    CompareOrder(left, static_cast<int>(right.nSec), nSeconds, nSeconds == 0);
    const int nPacked = Low32(left.nSec * kMillion + left.nUSec);
    const int nOther = Low32(right.nSec * kMillion + right.nUSec);
    CompareOrder(left, large, Order(nPacked, nOther), nPacked == nOther);
    // Times alike but for the zone, the microseconds or nothing, which two of chance seldom are.
    const KTime near(left.nSec, static_cast<int>(right.nUSec), 0, 0);
    CompareOrder(left, near, Order(left.nUSec, right.nUSec), true);
    CompareOrder(left, KTime(left.nSec, static_cast<int>(left.nUSec), 0, 0), 0, true);
    CompareOrder(left, SecUSec{static_cast<int>(left.nSec), static_cast<int>(left.nUSec)}, 0, true);
    CompareOrder(left, static_cast<int>(left.nSec), 0, true);
}

/// Other labels on the same reading of the clock.
void CompareMoves(fuzz::Input& input) {
    const Moment start(input);
    const std::uint8_t nNew = input.Byte();
    KTime time = start.Time();
    const bool fgMoved = nNew <= 48;
    fuzz::ExpectSame(time.MoveGMT(static_cast<char>(nNew)), fgMoved, "MoveGMT of a time in a zone");
    const long long nSec = fgMoved ? Low32(start.nSec + 900LL * (start.nGmt - nNew)) : start.nSec;
    const std::uint8_t nGmt = fgMoved ? nNew : start.nGmt;
    fuzz::ExpectSame(Parts(time), Parts(nSec, start.nUSec, nGmt, start.nDst), "after MoveGMT");
    const std::uint8_t nDst = input.Byte();
    fuzz::Expect(time.MoveDST(static_cast<char>(nDst)), "MoveDST");
    fuzz::ExpectSame(Parts(time), Parts(nSec + 900LL * (start.nDst - nDst), start.nUSec, nGmt, nDst), "after MoveDST");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes) {
    fuzz::BeQuiet();
    fuzz::Input input(pBytes, nBytes);
    do {
        const int nSec = input.Int();
        const int nUSec = input.Int();
        const std::uint8_t nGmt = input.Byte();
        CompareHuman(nSec, nUSec, nGmt, input.Byte());
        CompareSeconds(input);
        CompareArithmetic(input);
        CompareFields(input);
        CompareOperators(input);
        CompareMoves(input);
    } while (!input.IsEmpty());
    return 0;
}
