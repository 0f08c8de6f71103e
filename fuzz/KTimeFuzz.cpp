// Time: conversions and arithmetic against libc's calendar and 64-bit sums.
#include <ctime>

#include "Fuzz.h"
#include "KTime.h"

namespace {

constexpr long long kMillion = 1000000;

int Low32(long long nValue) {
    return static_cast<int>(static_cast<std::uint32_t>(nValue));
}

long long ZoneSeconds(std::uint8_t nGmt, std::uint8_t nDst) {
    return 900LL * (nGmt + nDst);
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

    // And back, from the year that the count starts with on.
    if (wanted.tm_year >= 70) {
        const long long nBack = KTime::MakeUnixTime(human.year, human.month, human.day, human.hour, human.minute,
                                                    human.second, static_cast<char>(nGmt), static_cast<char>(nDst));
        fuzz::ExpectSame(nBack, static_cast<long long>(nSec), "there and back");
    }

    char szWanted[32];
    std::strftime(szWanted, sizeof(szWanted), "%Y/%m/%d %H:%M:%S", &wanted);
    const KString text = KTime(nSec, 0, 0).GetHumanTimeString(3, static_cast<char>(nGmt), static_cast<char>(nDst));
    fuzz::ExpectSame(fuzz::TextOf(text), std::string(szWanted), "text");
}

bool IsLeap(int nYear) {
    return nYear % 4 == 0 && (nYear % 100 != 0 || nYear % 400 == 0);
}

/// Any fields, in range or not: years and months are summed up one by one, and the sum wraps.
void CompareSeconds(fuzz::Input& input) {
    static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const int nYear = 1900 + input.Range(0, 255) + input.Range(0, 255);
    const int nMonth = input.Range(-2, 13);
    const auto nDay = static_cast<short>(input.Int());
    const auto nHour = static_cast<short>(input.Int());
    const auto nMinute = static_cast<short>(input.Int());
    const auto nSecond = static_cast<short>(input.Int());
    long long nDays = nDay - 1;
    for (int nBefore = 1970; nBefore < nYear; ++nBefore) {
        nDays += IsLeap(nBefore) ? 366 : 365;
    }
    for (int nBefore = 1; nBefore < nMonth; ++nBefore) {
        nDays += kDays[nBefore - 1] + (nBefore == 2 && IsLeap(nYear) ? 1 : 0);
    }
    const long long nWanted = nDays * 86400 + nHour * 3600LL + nMinute * 60LL + nSecond;
    const std::time_t nGot =
        mkgmtime(static_cast<short>(nYear), static_cast<short>(nMonth), nDay, nHour, nMinute, nSecond);
    fuzz::ExpectSame(static_cast<long long>(nGot), static_cast<long long>(Low32(nWanted)), "mkgmtime");
    fuzz::ExpectSame(IsLeapYear(static_cast<short>(nYear)), IsLeap(nYear), "leap year");
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
    } while (!input.IsEmpty());
    return 0;
}
