#include "KTime.h"

#include <sys/time.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <new>
#include <random>
#include <string>
#include <type_traits>

#include "support/ScopedClock.h"
#include "support/Support.h"
#include "support/Threads.h"

using support::ScopedChecks;
using support::ScopedZone;

namespace {

constexpr int kQuarterHour = 900;
constexpr int kMillion = 1000000;

KTime At(int nSec, int nUSec) {
    return KTime(static_cast<long long>(nSec), nUSec, 0, 0);
}

KUnixTime Unix(int nSec, int nUSec) {
    KUnixTime time;
    time.sec = nSec;
    time.usec = nUSec;
    time.gmt15Min = 7;
    time.dst15Min = 9;
    return time;
}

KHumanTime Human(int nYear, int nMonth, int nDay, int nHour, int nMinute, int nSecond, int nUSec) {
    KHumanTime human;
    human.year = nYear;
    human.month = nMonth;
    human.day = nDay;
    human.weekDay = -1;
    human.hour = nHour;
    human.minute = nMinute;
    human.second = nSecond;
    human.usec = nUSec;
    human.gmt15Min = 0;
    human.dst15Min = 0;
    return human;
}

std::string TextOf(const KUnixTime& time) {
    return std::to_string(time.sec) + "s " + std::to_string(time.usec) + "us " + std::to_string(time.gmt15Min) + "/" +
           std::to_string(time.dst15Min) + " [" + std::to_string(time.reserved1) + std::to_string(time.reserved2) + "]";
}

/// The text of a time in zone 0/0.
std::string TextOf(int nSec, int nUSec) {
    return TextOf(At(nSec, nUSec));
}

std::string TextOf(const KHumanTime& human) {
    std::string text;
    for (const int n :
         {human.year, human.month, human.day, human.weekDay, human.hour, human.minute, human.second, human.usec,
          int{human.gmt15Min}, int{human.dst15Min}, int{human.reserved1}, int{human.reserved2}}) {
        text += std::to_string(n) + " ";
    }
    return text;
}

/// What libc makes of a UTC instant, in the form of TextOf(KHumanTime).
std::string TextByLibc(int nUtc, int nUSec, int nGmt, int nDst) {
    const std::time_t nTime = nUtc;
    std::tm tm;
    EXPECT_NE(gmtime_r(&nTime, &tm), nullptr);
    std::string text;
    for (const int n : {tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_wday, tm.tm_hour, tm.tm_min, tm.tm_sec,
                        nUSec, nGmt, nDst, 0, 0}) {
        text += std::to_string(n) + " ";
    }
    return text;
}

// 32-bit arithmetic that wraps, done in 64 bits.

int Low(long long n) {
    return static_cast<int>(static_cast<std::uint32_t>(n));
}

/// Whole numbers that meet every edge of the arithmetic now and then.
class RandomNumber {
 public:
    explicit RandomNumber(unsigned int nSeed) : m_Random(nSeed) {}

    int Between(int nLow, int nHigh) { return std::uniform_int_distribution<int>(nLow, nHigh)(m_Random); }

    int Any() {
        static const int kEdges[] = {0,         1,       -1,      kMillion - 1, kMillion,    kMillion + 1,
                                     -kMillion, INT_MAX, INT_MIN, INT_MIN + 1,  2 * kMillion};
        return Between(0, 2) == 0 ? kEdges[Between(0, 10)] : Between(INT_MIN, INT_MAX);
    }

    /// Microseconds as they normally are.
    int USecs() { return Between(0, kMillion - 1); }

 private:
    std::mt19937 m_Random;
};

constexpr int kRandomRounds = 3000;

}  // namespace

// ------------------------------------------------------------------------------------------------------ The records

TEST(KTimeTest, TheRecordsHaveTheSizesOfTheirFields) {
    EXPECT_EQ(sizeof(KUnixTime), 12u);
    EXPECT_EQ(sizeof(KHumanTime), 36u);
    EXPECT_EQ(sizeof(USec), 4u);
    EXPECT_EQ(sizeof(SecUSec), 8u);
    EXPECT_EQ(sizeof(KTime), sizeof(void*) == 4 ? 16u : 24u);
}

TEST(KTimeTest, TheRecordsHaveTheirFieldsInOrder) {
    KUnixTime time;
    const auto offset = [](const void* pRecord, const void* pField) {
        return static_cast<const char*>(pField) - static_cast<const char*>(pRecord);
    };
    EXPECT_EQ(offset(&time, &time.sec), 0);
    EXPECT_EQ(offset(&time, &time.usec), 4);
    EXPECT_EQ(offset(&time, &time.gmt15Min), 8);
    EXPECT_EQ(offset(&time, &time.dst15Min), 9);
    EXPECT_EQ(offset(&time, &time.reserved1), 10);
    EXPECT_EQ(offset(&time, &time.reserved2), 11);

    KHumanTime human;
    const int* const fields[] = {&human.year, &human.month,  &human.day,    &human.weekDay,
                                 &human.hour, &human.minute, &human.second, &human.usec};
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(offset(&human, fields[i]), 4 * i);
    }
    EXPECT_EQ(offset(&human, &human.gmt15Min), 32);
    EXPECT_EQ(offset(&human, &human.dst15Min), 33);
    EXPECT_EQ(offset(&human, &human.reserved1), 34);
    EXPECT_EQ(offset(&human, &human.reserved2), 35);

    SecUSec amount = {1, 2};
    EXPECT_EQ(offset(&amount, &amount.sec), 0);
    EXPECT_EQ(offset(&amount, &amount.usec), 4);
}

TEST(KTimeTest, ZoneFieldsAreUnsigned) {
    EXPECT_TRUE((std::is_same<decltype(KUnixTime::gmt15Min), unsigned char>::value));
    EXPECT_TRUE((std::is_same<decltype(KHumanTime::dst15Min), unsigned char>::value));
}

TEST(KTimeTest, TheRecordsStartWithTheirReservedBytesZero) {
    const KUnixTime time;
    EXPECT_EQ(time.reserved1, 0);
    EXPECT_EQ(time.reserved2, 0);
    const KHumanTime human;
    EXPECT_EQ(human.reserved1, 0);
    EXPECT_EQ(human.reserved2, 0);
}

TEST(KTimeTest, IsARecordWithAVirtualDestructor) {
    EXPECT_TRUE((std::is_base_of<KUnixTime, KTime>::value));
    EXPECT_TRUE((std::is_convertible<KTime*, KUnixTime*>::value)) << "publicly";
    EXPECT_TRUE(std::has_virtual_destructor<KTime>::value);
    EXPECT_FALSE(std::is_polymorphic<KUnixTime>::value);
    KTime* const pTime = new KTime(1, 2, 3);
    delete pTime;
}

// ----------------------------------------------------------------------------------------------------- Constructors

TEST(KTimeTest, TheDefaultIsTheEpochInZoneZero) {
    EXPECT_EQ(TextOf(KTime()), "0s 0us 0/0 [00]");
}

TEST(KTimeTest, IsMadeFromARecordWithoutItsReservedBytes) {
    KUnixTime time = Unix(-5, 1234567);
    time.gmt15Min = 236;
    time.reserved1 = 3;
    time.reserved2 = 4;
    EXPECT_EQ(TextOf(KTime(time)), "-5s 1234567us 236/9 [00]");
}

TEST(KTimeTest, IsMadeFromSecondsAndAZone) {
    EXPECT_EQ(TextOf(KTime(5, 36, 4)), "5s 0us 36/4 [00]");
    EXPECT_EQ(TextOf(KTime(INT_MIN, static_cast<char>(255), static_cast<char>(128))), "-2147483648s 0us 255/128 [00]");
}

TEST(KTimeTest, IsMadeFromTheLowBitsOfWideSecondsAndMicrosecondsAsTheyAre) {
    EXPECT_EQ(TextOf(KTime(5LL, 999999, 36, 4)), "5s 999999us 36/4 [00]");
    EXPECT_EQ(TextOf(KTime(0x100000007LL, 5000000, 0, 0)), "7s 5000000us 0/0 [00]");
    EXPECT_EQ(TextOf(KTime(0x80000000LL, -1, 0, 0)), "-2147483648s -1us 0/0 [00]");
    EXPECT_EQ(TextOf(KTime(-1LL, INT_MIN, 0, 0)), "-1s -2147483648us 0/0 [00]");
    EXPECT_EQ(TextOf(KTime(LLONG_MIN, 0, 0, 0)), "0s 0us 0/0 [00]");
}

TEST(KTimeTest, ACopyHasTheSameFieldsAndNoReservedBytes) {
    KTime time(7LL, 8, 9, 10);
    time.reserved1 = 1;
    time.reserved2 = 2;
    EXPECT_EQ(TextOf(KTime(time)), "7s 8us 9/10 [00]");
}

TEST(KTimeTest, IsMadeFromCalendarFieldsInTheirZone) {
    EXPECT_EQ(TextOf(KTime(2000, 1, 1, 9, 0, 0, 5, 36, 0)), "946684800s 5us 36/0 [00]");
    EXPECT_EQ(TextOf(KTime(2000, 1, 1, 9, 0, 0, 5000000, 32, 4)), "946684800s 5000000us 32/4 [00]");
}

TEST(KTimeTest, IsMadeFromAHumanTimeWithoutItsWeekDay) {
    KHumanTime human = Human(2000, 1, 1, 9, 0, 0, -7);
    human.weekDay = 99;
    human.gmt15Min = 236;
    human.dst15Min = 16;
    human.reserved1 = 1;
    human.reserved2 = 2;
    EXPECT_EQ(TextOf(KTime(human)), std::to_string(946684800 + 9 * 3600 - 252 * kQuarterHour) + "s -7us 236/16 [00]");
}

// ------------------------------------------------------------------------------------------------------- Assignment

TEST(KTimeTest, AssignmentCopiesTheFourFields) {
    KTime source(7LL, 8, 9, 10);
    source.reserved1 = 5;
    KTime target(1, 2, 3);
    target.reserved2 = 6;
    KTime& result = target = source;
    EXPECT_EQ(&result, &target);
    EXPECT_EQ(TextOf(target), "7s 8us 9/10 [00]");

    KUnixTime record = Unix(11, 12);
    record.reserved1 = 5;
    KTime& recordResult = target = record;
    EXPECT_EQ(&recordResult, &target);
    EXPECT_EQ(TextOf(target), "11s 12us 7/9 [00]");
}

TEST(KTimeTest, AssigningATimeToItselfReturnsAtOnceButItsRecordClearsTheReservedBytes) {
    KTime time(7LL, 8, 9, 10);
    time.reserved1 = 5;
    const KTime& same = time;
    time = same;
    EXPECT_EQ(TextOf(time), "7s 8us 9/10 [50]");
    const KUnixTime& sameRecord = time;
    time = sameRecord;
    EXPECT_EQ(TextOf(time), "7s 8us 9/10 [00]");
}

TEST(KTimeTest, IsValidAfterTheEpoch) {
    EXPECT_FALSE(KTime().IsValid());
    EXPECT_FALSE(At(0, 999999).IsValid());
    EXPECT_FALSE(At(-1, 0).IsValid());
    EXPECT_FALSE(At(INT_MIN, 0).IsValid());
    EXPECT_TRUE(At(1, 0).IsValid());
    EXPECT_TRUE(At(INT_MAX, -1).IsValid());
}

// --------------------------------------------------------------------------------------------------------- Shifting

TEST(KTimeTest, AddingATimeCarriesWholeSecondsOver) {
    struct Case {
        int nSec, nUSec, nOtherSec, nOtherUSec, nResultSec, nResultUSec;
    };
    const Case cases[] = {
        {10, 900000, 0, 200000, 11, 100000},     {10, 500000, 1, 500000, 12, 0},  {10, 0, -3, 0, 7, 0},
        {10, 100000, 0, -200000, 10, -100000},                              // no borrowing
        {10, -1500000, 0, -1000000, 8, -500000}, {0, 5000000, 0, 0, 5, 0},  // what was too much before is carried too
        {INT_MAX, 999999, 0, 1, INT_MIN, 0},     {INT_MIN, 0, -1, 0, INT_MAX, 0}, {0, INT_MAX, 0, 1, -2147, -483648},
        {0, INT_MIN, 0, -1, 2147, 483647},
    };
    for (const Case& test : cases) {
        const std::string expected = TextOf(test.nResultSec, test.nResultUSec);
        KTime time = At(test.nSec, test.nUSec);
        KTime& result = time += At(test.nOtherSec, test.nOtherUSec);
        EXPECT_EQ(&result, &time);
        EXPECT_EQ(TextOf(time), expected);

        KTime other = At(test.nSec, test.nUSec);
        KTime& otherResult = other += Unix(test.nOtherSec, test.nOtherUSec);
        EXPECT_EQ(&otherResult, &other);
        EXPECT_EQ(TextOf(other), expected);

        const KTime constant = At(test.nSec, test.nUSec);
        EXPECT_EQ(TextOf(constant + At(test.nOtherSec, test.nOtherUSec)), expected);
        EXPECT_EQ(TextOf(constant + Unix(test.nOtherSec, test.nOtherUSec)), expected);
        EXPECT_EQ(TextOf(constant), TextOf(test.nSec, test.nUSec));
    }
}

TEST(KTimeTest, ATimeCanBeAddedToItselfAndTakenFromItself) {
    KTime time = At(10, 700000);
    const KTime& same = time;
    time += same;
    EXPECT_EQ(TextOf(time), TextOf(21, 400000));
    time -= same;
    EXPECT_EQ(TextOf(time), TextOf(0, 0));
}

TEST(KTimeTest, SubtractingATimeBorrowsOneSecondOnce) {
    struct Case {
        int nSec, nUSec, nOtherSec, nOtherUSec, nResultSec, nResultUSec;
    };
    const Case cases[] = {
        {10, 100000, 0, 200000, 9, 900000}, {10, 500000, 3, 200000, 7, 300000},
        {10, 0, 0, 2500000, 9, -1500000},  // one second is not enough here
        {10, 0, 0, -2500000, 10, 2500000},  {INT_MIN, 0, 0, 1, INT_MAX, 999999},
        {INT_MIN, 0, 1, 0, INT_MAX, 0},     {0, INT_MIN, 0, 1, 0, INT_MAX},  // wrapped, so not negative
    };
    for (const Case& test : cases) {
        KTime time = At(test.nSec, test.nUSec);
        KTime& result = time -= At(test.nOtherSec, test.nOtherUSec);
        EXPECT_EQ(&result, &time);
        EXPECT_EQ(TextOf(time), TextOf(test.nResultSec, test.nResultUSec));
    }
}

TEST(KTimeTest, SubtractingARecordTakesWholeSecondsOutOfItsMicroseconds) {
    struct Case {
        int nSec, nUSec, nOtherSec, nOtherUSec, nResultSec, nResultUSec;
    };
    const Case cases[] = {
        {10, 100000, 0, 200000, 9, 900000}, {10, 0, 0, 2500000, 7, 500000},
        {10, 0, 0, -2500000, 12, 500000},   {10, 0, 3, 1000000, 6, 0},
        {10, -1500000, 0, 0, 9, -500000},   {INT_MIN, 0, 0, 1000001, INT_MAX - 1, 999999},
    };
    for (const Case& test : cases) {
        KTime time = At(test.nSec, test.nUSec);
        KTime& result = time -= Unix(test.nOtherSec, test.nOtherUSec);
        EXPECT_EQ(&result, &time);
        EXPECT_EQ(TextOf(time), TextOf(test.nResultSec, test.nResultUSec));
    }
}

TEST(KTimeTest, TheDifferenceWithATimeIsTheLeftSideUnchanged) {
    const KTime time(10LL, 500000, 3, 4);
    EXPECT_EQ(TextOf(time - At(3, 200000)), TextOf(time));
    EXPECT_EQ(TextOf(time - Unix(3, 200000)), TextOf(time));
    EXPECT_EQ(TextOf(time - time), TextOf(time));
}

TEST(KTimeTest, WholeSecondsAreAddedAndSubtracted) {
    KTime time(10LL, 500000, 3, 4);
    KTime& added = time += 5;
    EXPECT_EQ(&added, &time);
    EXPECT_EQ(TextOf(time), "15s 500000us 3/4 [00]");
    KTime& subtracted = time -= 20;
    EXPECT_EQ(&subtracted, &time);
    EXPECT_EQ(TextOf(time), "-5s 500000us 3/4 [00]");
    const KTime constant = time;
    EXPECT_EQ(TextOf(constant + 6), "1s 500000us 3/4 [00]");
    EXPECT_EQ(TextOf(constant - -6), "1s 500000us 3/4 [00]");
    EXPECT_EQ(TextOf(At(INT_MAX, 1) + 1), TextOf(INT_MIN, 1));
    EXPECT_EQ(TextOf(At(INT_MIN, 1) - 1), TextOf(INT_MAX, 1));
    EXPECT_EQ(TextOf(At(0, 0) - INT_MIN), TextOf(INT_MIN, 0));
}

TEST(KTimeTest, AddingMicrosecondsReplacesTheMicroseconds) {
    KTime time = At(10, 500000);
    KTime& result = time += USec{1200000};
    EXPECT_EQ(&result, &time);
    EXPECT_EQ(TextOf(time), TextOf(11, 200000));
    EXPECT_EQ(TextOf(At(10, 500000) += USec{0}), TextOf(10, 0));
    EXPECT_EQ(TextOf(At(10, 500000) += USec{-1200000}), TextOf(9, -200000));
    EXPECT_EQ(TextOf(At(INT_MAX, 500000) += USec{1000000}), TextOf(INT_MIN, 0));
}

TEST(KTimeTest, TheSumWithMicrosecondsIsTheLeftSideUnchanged) {
    const KTime time(10LL, 500000, 3, 4);
    EXPECT_EQ(TextOf(time + USec{1200000}), TextOf(time));
}

TEST(KTimeTest, SubtractingMicrosecondsBorrowsOneSecondOnce) {
    struct Case {
        int nSec, nUSec, nAmount, nResultSec, nResultUSec;
    };
    const Case cases[] = {
        {10, 500000, 200000, 10, 300000}, {10, 500000, 1200000, 9, 300000},   {10, 100000, 200000, 9, 900000},
        {10, 100000, 1200000, 8, 900000}, {10, 100000, -1200000, 11, 300000}, {10, -1500000, 0, 9, -500000},
        {INT_MIN, 0, 1, INT_MAX, 999999},
    };
    for (const Case& test : cases) {
        KTime time = At(test.nSec, test.nUSec);
        KTime& result = time -= USec{test.nAmount};
        EXPECT_EQ(&result, &time);
        EXPECT_EQ(TextOf(time), TextOf(test.nResultSec, test.nResultUSec));
        const KTime constant = At(test.nSec, test.nUSec);
        EXPECT_EQ(TextOf(constant - USec{test.nAmount}), TextOf(test.nResultSec, test.nResultUSec));
    }
}

TEST(KTimeTest, AddingSecondsAndMicrosecondsAddsAMillionthOfTheSecondsAndReplacesTheMicroseconds) {
    KTime time = At(10, 500000);
    KTime& result = time += SecUSec{3, 0};
    EXPECT_EQ(&result, &time);
    EXPECT_EQ(TextOf(time), TextOf(10, 0));
    EXPECT_EQ(TextOf(At(10, 500000) += SecUSec{3500000, 2200000}), TextOf(13, 200000));
    EXPECT_EQ(TextOf(At(10, 500000) += SecUSec{-3500000, -2200000}), TextOf(7, -200000));
    EXPECT_EQ(TextOf(At(INT_MAX, 0) += SecUSec{1000000, 0}), TextOf(INT_MIN, 0));
}

TEST(KTimeTest, TheSumWithSecondsAndMicrosecondsIsTheLeftSideUnchanged) {
    const KTime time(10LL, 500000, 3, 4);
    EXPECT_EQ(TextOf(time + SecUSec{3000000, 5}), TextOf(time));
}

TEST(KTimeTest, SubtractingSecondsAndMicrosecondsDropsWholeSecondsInTheMicroseconds) {
    struct Case {
        int nSec, nUSec, nAmountSec, nAmountUSec, nResultSec, nResultUSec;
    };
    const Case cases[] = {
        {10, 500000, 3, 200000, 7, 300000},       {10, 500000, 3, 5200000, 7, 300000},
        {10, 100000, 3, 200000, 6, 900000},       {10, 100000, -3, -5200000, 13, 300000},
        {INT_MIN, 0, 0, 1, INT_MAX, 999999},      {10, -1500000, 0, 0, 9, -500000},
        {INT_MIN, 500000, 1, 0, INT_MAX, 500000},
    };
    for (const Case& test : cases) {
        KTime time = At(test.nSec, test.nUSec);
        KTime& result = time -= SecUSec{test.nAmountSec, test.nAmountUSec};
        EXPECT_EQ(&result, &time);
        EXPECT_EQ(TextOf(time), TextOf(test.nResultSec, test.nResultUSec));
        const KTime constant = At(test.nSec, test.nUSec);
        EXPECT_EQ(TextOf(constant - SecUSec{test.nAmountSec, test.nAmountUSec}),
                  TextOf(test.nResultSec, test.nResultUSec));
    }
}

TEST(KTimeTest, NoOperatorLooksAtAZone) {
    const KTime left(10LL, 5, 3, 4);
    const KTime right(1LL, 2, 100, 120);
    const std::string zone = "us 3/4 [00]";
    EXPECT_EQ(TextOf(left + right), "11s 7" + zone);
    EXPECT_EQ(TextOf(KTime(left) -= right), "9s 3" + zone);
    EXPECT_EQ(TextOf(KTime(left) -= static_cast<const KUnixTime&>(right)), "9s 3" + zone);
    EXPECT_EQ(TextOf(KTime(left) += USec{2}), "10s 2" + zone);
    EXPECT_EQ(TextOf(KTime(left) -= USec{2}), "10s 3" + zone);
    EXPECT_EQ(TextOf(KTime(left) += SecUSec{1000000, 2}), "11s 2" + zone);
    EXPECT_EQ(TextOf(KTime(left) -= SecUSec{1, 2}), "9s 3" + zone);
    EXPECT_TRUE(KTime(5, 1, 2) == KTime(5, 3, 4));
    EXPECT_FALSE(KTime(5, 1, 2) < KTime(5, 3, 4));
}

namespace {

/// A time as a pair of numbers, with the rules of the shifting operators.
struct Model {
    int nSec;
    int nUSec;

    Model Borrowed() const { return nUSec < 0 ? Model{Low(nSec - 1LL), Low(nUSec + 1000000LL)} : *this; }
};

std::string TextOf(const Model& model) {
    return TextOf(model.nSec, model.nUSec);
}

Model AddTime(const Model& t, const Model& o) {
    const int nUSec = Low(static_cast<long long>(t.nUSec) + o.nUSec);
    return {Low(static_cast<long long>(t.nSec) + o.nSec + nUSec / kMillion), nUSec % kMillion};
}

Model SubtractTime(const Model& t, const Model& o) {
    return Model{Low(static_cast<long long>(t.nSec) - o.nSec), Low(static_cast<long long>(t.nUSec) - o.nUSec)}
        .Borrowed();
}

Model SubtractRecord(const Model& t, const Model& o) {
    return Model{Low(static_cast<long long>(t.nSec) - o.nSec - o.nUSec / kMillion),
                 Low(static_cast<long long>(t.nUSec) - o.nUSec % kMillion)}
        .Borrowed();
}

Model AddUSec(const Model& t, int nUSec) {
    return {Low(static_cast<long long>(t.nSec) + nUSec / kMillion), nUSec % kMillion};
}

Model SubtractUSec(const Model& t, int nUSec) {
    return SubtractRecord(t, {0, nUSec});
}

Model AddSecUSec(const Model& t, const SecUSec& s) {
    return {Low(static_cast<long long>(t.nSec) + s.sec / kMillion), s.usec % kMillion};
}

Model SubtractSecUSec(const Model& t, const SecUSec& s) {
    return SubtractTime(t, {s.sec, s.usec % kMillion});
}

int Packed(int nSec, int nUSec) {
    return Low(static_cast<long long>(nSec) * kMillion + nUSec);
}

}  // namespace

TEST(KTimeTest, ShiftingAgreesWithTheRulesForAnyNumbers) {
    RandomNumber random(1);
    for (int i = 0; i < kRandomRounds; ++i) {
        const Model t = {random.Any(), i % 2 == 0 ? random.USecs() : random.Any()};
        const Model o = {random.Any(), i % 3 == 0 ? random.USecs() : random.Any()};
        const KTime time = At(t.nSec, t.nUSec);
        const SecUSec amount = {o.nSec, o.nUSec};
        SCOPED_TRACE(TextOf(t) + " and " + TextOf(o));
        ASSERT_EQ(TextOf(KTime(time) += At(o.nSec, o.nUSec)), TextOf(AddTime(t, o)));
        ASSERT_EQ(TextOf(KTime(time) += Unix(o.nSec, o.nUSec)), TextOf(AddTime(t, o)));
        ASSERT_EQ(TextOf(KTime(time) -= At(o.nSec, o.nUSec)), TextOf(SubtractTime(t, o)));
        ASSERT_EQ(TextOf(KTime(time) -= Unix(o.nSec, o.nUSec)), TextOf(SubtractRecord(t, o)));
        ASSERT_EQ(TextOf(KTime(time) += o.nSec), TextOf(Low(static_cast<long long>(t.nSec) + o.nSec), t.nUSec));
        ASSERT_EQ(TextOf(KTime(time) -= o.nSec), TextOf(Low(static_cast<long long>(t.nSec) - o.nSec), t.nUSec));
        ASSERT_EQ(TextOf(KTime(time) += USec{o.nUSec}), TextOf(AddUSec(t, o.nUSec)));
        ASSERT_EQ(TextOf(KTime(time) -= USec{o.nUSec}), TextOf(SubtractUSec(t, o.nUSec)));
        ASSERT_EQ(TextOf(KTime(time) += amount), TextOf(AddSecUSec(t, amount)));
        ASSERT_EQ(TextOf(KTime(time) -= amount), TextOf(SubtractSecUSec(t, amount)));
    }
}

// -------------------------------------------------------------------------------------------------------- Comparing

TEST(KTimeTest, TimesAreEqualInTheSameSecondAndOrderedByTheirMicroseconds) {
    struct Case {
        int nSec, nUSec, nOtherSec, nOtherUSec;
        bool fgEqual, fgLess, fgGreater;
    };
    const Case cases[] = {
        {5, 0, 5, 999999, true, true, false},
        {5, 3, 5, 3, true, false, false},
        {5, 0, 6, 0, false, true, false},
        {5, 999999, 6, 0, false, true, false},
        {-5, 0, 5, 0, false, true, false},
        {5, -1, 5, 0, true, true, false},
        {INT_MIN, 0, INT_MAX, 0, false, true, false},
    };
    for (const Case& test : cases) {
        const KTime left = At(test.nSec, test.nUSec);
        const KTime right = At(test.nOtherSec, test.nOtherUSec);
        const KUnixTime record = Unix(test.nOtherSec, test.nOtherUSec);
        SCOPED_TRACE(TextOf(left) + " and " + TextOf(right));
        EXPECT_EQ(left == right, test.fgEqual);
        EXPECT_EQ(left != right, !test.fgEqual);
        EXPECT_EQ(left < right, test.fgLess);
        EXPECT_EQ(left > right, test.fgGreater);
        EXPECT_EQ(left <= right, !test.fgGreater);
        EXPECT_EQ(left >= right, !test.fgLess);
        EXPECT_EQ(left == record, test.fgEqual);
        EXPECT_EQ(left != record, !test.fgEqual);
        EXPECT_EQ(left < record, test.fgLess);
        EXPECT_EQ(left > record, test.fgGreater);
        EXPECT_EQ(left <= record, !test.fgGreater);
        EXPECT_EQ(left >= record, !test.fgLess);
        // The other way round.
        EXPECT_EQ(right == left, test.fgEqual);
        EXPECT_EQ(right < left, test.fgGreater);
        EXPECT_EQ(right > left, test.fgLess);
        EXPECT_EQ(right <= left, !test.fgLess);
        EXPECT_EQ(right >= left, !test.fgGreater);
        const KUnixTime leftRecord = Unix(test.nSec, test.nUSec);
        EXPECT_EQ(right == leftRecord, test.fgEqual);
        EXPECT_EQ(right < leftRecord, test.fgGreater);
        EXPECT_EQ(right > leftRecord, test.fgLess);
        EXPECT_EQ(right <= leftRecord, !test.fgLess);
        EXPECT_EQ(right >= leftRecord, !test.fgGreater);
    }
}

TEST(KTimeTest, ANumberIsComparedWithTheSecondsAlone) {
    for (const int nSec : {INT_MIN, -1, 0, 4, 5, 6, INT_MAX}) {
        KTime time = At(5, 999999);
        EXPECT_EQ(time == nSec, 5 == nSec);
        EXPECT_EQ(time != nSec, 5 != nSec);
        EXPECT_EQ(time < nSec, 5 < nSec);
        EXPECT_EQ(time > nSec, 5 > nSec);
        EXPECT_EQ(time <= nSec, 5 <= nSec);
        EXPECT_EQ(time >= nSec, 5 >= nSec);
    }
}

namespace {

template <typename Left, typename Right, typename = void>
struct IsComparable : std::false_type {};
template <typename Left, typename Right>
struct IsComparable<Left, Right, decltype(void(std::declval<Left>() < std::declval<Right>()))> : std::true_type {};

}  // namespace

TEST(KTimeTest, ComparisonsWithNumbersAndAmountsNeedATimeThatIsNotConst) {
    EXPECT_TRUE((IsComparable<const KTime&, KTime>::value));
    EXPECT_TRUE((IsComparable<const KTime&, KUnixTime>::value));
    EXPECT_TRUE((IsComparable<KTime&, int>::value));
    EXPECT_FALSE((IsComparable<const KTime&, int>::value));
    EXPECT_TRUE((IsComparable<KTime&, SecUSec>::value));
    EXPECT_FALSE((IsComparable<const KTime&, SecUSec>::value));
    EXPECT_FALSE((IsComparable<KTime&, USec>::value)) << "there is none";
}

TEST(KTimeTest, AnAmountIsComparedInMicrosecondsThatWrapIn32Bits) {
    KTime small = At(2, 500000);
    EXPECT_TRUE(small == (SecUSec{2, 500000}));
    EXPECT_TRUE(small == (SecUSec{1, 1500000}));
    EXPECT_FALSE(small != (SecUSec{1, 1500000}));
    EXPECT_TRUE(small < (SecUSec{2, 500001}));
    EXPECT_TRUE(small > (SecUSec{2, 499999}));

    // 2147 s 483647 us is the last that fits; one more microsecond is the lowest of all.
    KTime last = At(2147, 483647);
    EXPECT_TRUE(last > (SecUSec{2147, 483648}));
    EXPECT_TRUE(last > (SecUSec{3000, 0}));
    EXPECT_FALSE(last < (SecUSec{3000, 0}));

    // 4294 s 967296 us is a whole turn.
    KTime turned = At(4294, 967296);
    EXPECT_TRUE(turned == (SecUSec{0, 0}));
    EXPECT_TRUE(turned >= (SecUSec{0, 0}));
    EXPECT_TRUE(turned <= (SecUSec{0, 0}));

    // Present-day seconds: the order is that of the wrapped values.
    KTime now = At(1700000000, 0);
    EXPECT_TRUE(now == (SecUSec{0, 404635648}));
    EXPECT_TRUE(now > (SecUSec{1700001743, 0})) << "half an hour later, and wrapped to a negative number";
    EXPECT_FALSE(now <= (SecUSec{1700001743, 0}));
}

TEST(KTimeTest, AmountsAreComparedByTheirPackedValuesForAnyNumbers) {
    RandomNumber random(2);
    for (int i = 0; i < kRandomRounds; ++i) {
        KTime time = At(random.Any(), random.Any());
        const SecUSec amount = {i % 4 == 0 ? time.sec : random.Any(), i % 8 == 0 ? time.usec : random.Any()};
        const int nLeft = Packed(time.sec, time.usec);
        const int nRight = Packed(amount.sec, amount.usec);
        ASSERT_EQ(time == amount, nLeft == nRight);
        ASSERT_EQ(time != amount, nLeft != nRight);
        ASSERT_EQ(time < amount, nLeft < nRight);
        ASSERT_EQ(time > amount, nLeft > nRight);
        ASSERT_EQ(time <= amount, nLeft <= nRight);
        ASSERT_EQ(time >= amount, nLeft >= nRight);
    }
}

// ----------------------------------------------------------------------------------------------------- The calendar

TEST(KTimeTest, LeapYearsAreThoseOfTheGregorianCalendar) {
    struct Case {
        short year;
        bool fgLeap;
    };
    const Case cases[] = {{1900, false}, {2000, true}, {2024, true},  {2023, false}, {2100, false}, {2400, true},
                          {1970, false}, {1972, true}, {0, true},     {4, true},     {100, false},  {32767, false},
                          {32764, true}, {-4, true},   {-100, false}, {-400, true},  {-1, false},   {-32768, true}};
    for (const Case& test : cases) {
        EXPECT_EQ(IsLeapYear(test.year), test.fgLeap) << test.year;
    }
}

TEST(KTimeTest, CalendarReadingsBecomeSeconds) {
    struct Case {
        short year, month, day, hour, minute, second;
        int nSeconds;
    };
    const Case cases[] = {
        {1970, 1, 1, 0, 0, 0, 0},
        {1970, 1, 1, 0, 0, 1, 1},
        {2000, 3, 1, 0, 0, 0, 951868800},
        {2000, 2, 29, 0, 0, 0, 951782400},
        {2001, 9, 9, 1, 46, 40, 1000000000},
        {2038, 1, 19, 3, 14, 7, INT_MAX},
        {2038, 1, 19, 3, 14, 8, INT_MIN},  // wraps
        // A year before 1970 counts as 1970 ...
        {1969, 1, 1, 0, 0, 0, 0},
        {1969, 12, 31, 23, 59, 59, 31535999},
        {-32768, 1, 1, 0, 0, 0, 0},
        // ... though its own 29th of February counts.
        {1968, 3, 1, 0, 0, 0, 60 * 86400},
        {1969, 3, 1, 0, 0, 0, 59 * 86400},
        // Fields out of range add their value.
        {1970, 1, 0, 0, 0, 0, -86400},
        {1970, 2, 0, 0, 0, 0, 30 * 86400},
        {1970, 1, 32, 0, 0, 0, 31 * 86400},
        {1970, 1, 1, 24, 0, 0, 86400},
        {1970, 1, 1, -1, 0, 0, -3600},
        {1970, 1, 1, 0, 60, 0, 3600},
        {1970, 1, 1, 0, 0, -1, -1},
        {1970, 1, 1, 32767, 32767, 32767, 32767 * 3661},
        {1970, 1, -32768, 0, 0, 0, Low(-32769LL * 86400)},
        // Months.
        {1970, 0, 1, 0, 0, 0, 0},
        {1970, -5, 1, 0, 0, 0, 0},
        {1970, 12, 1, 0, 0, 0, 334 * 86400},
        {1970, 13, 1, 0, 0, 0, 365 * 86400},
        {1972, 13, 1, 0, 0, 0, (730 + 366) * 86400},
    };
    for (const Case& test : cases) {
        EXPECT_EQ(mkgmtime(test.year, test.month, test.day, test.hour, test.minute, test.second), test.nSeconds)
            << test.year << '/' << test.month << '/' << test.day << ' ' << test.hour << ':' << test.minute << ':'
            << test.second;
    }
}

TEST(KTimeTest, AMonthBehindTheTableAddsNoMoreThanTheThirteenth) {
    for (const short month : {short{14}, short{15}, short{100}, short{32767}}) {
        EXPECT_EQ(mkgmtime(1970, month, 1, 0, 0, 0), 365 * 86400) << month;
        EXPECT_EQ(mkgmtime(2000, month, 1, 0, 0, 0), mkgmtime(2001, 1, 1, 0, 0, 0)) << month;
    }
}

namespace {

/// The seconds of a calendar reading, counted year by year and month by month.
int SecondsByCounting(short year, short month, short day, short hour, short minute, short second) {
    static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    std::uint32_t nTotal = 0;
    for (int y = 1970; y < year; ++y) {
        nTotal += y % 4 == 0 && (y % 100 != 0 || y % 400 == 0) ? 31622400u : 31536000u;
    }
    for (int m = 1; m < month && m <= 12; ++m) {
        nTotal += static_cast<std::uint32_t>(kDays[m - 1]) * 86400u;
        nTotal += m == 2 && year % 4 == 0 && (year % 100 != 0 || year % 400 == 0) ? 86400u : 0u;
    }
    nTotal += static_cast<std::uint32_t>(hour * 3600) + static_cast<std::uint32_t>((day - 1)) * 86400u +
              static_cast<std::uint32_t>(minute * 60) + static_cast<std::uint32_t>(second);
    return static_cast<int>(nTotal);
}

}  // namespace

TEST(KTimeTest, CalendarReadingsAgreeWithCountingForAnyFields) {
    RandomNumber random(3);
    const auto any = [&] { return static_cast<short>(random.Between(SHRT_MIN, SHRT_MAX)); };
    for (int i = 0; i < kRandomRounds; ++i) {
        const short year = i % 8 == 0 ? any() : static_cast<short>(random.Between(1890, 2110));
        const short month = static_cast<short>(random.Between(-2, 15));
        const short day = any();
        const short hour = any();
        const short minute = any();
        const short second = any();
        ASSERT_EQ(mkgmtime(year, month, day, hour, minute, second),
                  SecondsByCounting(year, month, day, hour, minute, second))
            << year << '/' << month << '/' << day << ' ' << hour << ':' << minute << ':' << second;
    }
}

TEST(KTimeTest, CalendarReadingsAgreeWithLibcForEveryDayFrom1970To2037) {
    for (int nDay = 0; nDay < 24837; ++nDay) {
        const std::time_t nTime = static_cast<std::time_t>(nDay) * 86400 + 45296;
        std::tm tm;
        ASSERT_NE(gmtime_r(&nTime, &tm), nullptr);
        ASSERT_EQ(mkgmtime(static_cast<short>(tm.tm_year + 1900), static_cast<short>(tm.tm_mon + 1),
                           static_cast<short>(tm.tm_mday), static_cast<short>(tm.tm_hour),
                           static_cast<short>(tm.tm_min), static_cast<short>(tm.tm_sec)),
                  nTime);
    }
}

TEST(KTimeTest, TheUnixTimeOfAReadingTakesBothOffsetsOff) {
    EXPECT_EQ(KTime::MakeUnixTime(2000, 1, 1, 9, 0, 0, 36, 0), 946684800);
    EXPECT_EQ(KTime::MakeUnixTime(2000, 1, 1, 9, 0, 0, 20, 16), 946684800);
    EXPECT_EQ(KTime::MakeUnixTime(1970, 1, 1, 0, 0, 0, 0, 0), 0);
    EXPECT_EQ(KTime::MakeUnixTime(1970, 1, 1, 0, 0, 0, 1, 0), -kQuarterHour);
    EXPECT_EQ(KTime::MakeUnixTime(1970, 1, 1, 0, 0, 0, static_cast<char>(255), static_cast<char>(255)),
              -510 * kQuarterHour)
        << "offsets are unsigned whatever a char is";
    EXPECT_EQ(KTime::MakeUnixTime(2038, 1, 19, 3, 14, 8, 0, 0), INT_MIN) << "wrapped, then widened with its sign";
    EXPECT_EQ(KTime::MakeUnixTime(2038, 1, 19, 3, 14, 8, 1, 0), INT_MAX - 899);
}

TEST(KTimeTest, TheUnixTimeOfAReadingSeesSixteenBitsOfEachField) {
    constexpr int kTurn = 65536;
    EXPECT_EQ(KTime::MakeUnixTime(2000 + kTurn, 1 + kTurn, 1 - kTurn, 9 + kTurn, 0 - kTurn, 5 + 2 * kTurn, 36, 0),
              946684805);
    EXPECT_EQ(KTime::MakeUnixTime(1970, 1, 1, 0, 0, 32768, 0, 0), -32768);
}

TEST(KTimeTest, TheHumanTimeOfAnInstantShowsItInTheZoneGiven) {
    EXPECT_EQ(TextOf(KTime::MakeHumanTime(946684800, 5, 36, 0)), "2000 1 1 6 9 0 0 5 36 0 0 0 ");
    EXPECT_EQ(TextOf(KTime::MakeHumanTime(946684800, 5, 20, 16)), "2000 1 1 6 9 0 0 5 20 16 0 0 ");
    EXPECT_EQ(TextOf(KTime::MakeHumanTime(0, 0, 0, 0)), "1970 1 1 4 0 0 0 0 0 0 0 0 ");
    EXPECT_EQ(TextOf(KTime::MakeHumanTime(-1, 0, 0, 0)), "1969 12 31 3 23 59 59 0 0 0 0 0 ");
    EXPECT_EQ(TextOf(KTime::MakeHumanTime(INT_MAX, 0, 0, 0)), "2038 1 19 2 3 14 7 0 0 0 0 0 ");
    EXPECT_EQ(TextOf(KTime::MakeHumanTime(INT_MIN, 0, 0, 0)), "1901 12 13 5 20 45 52 0 0 0 0 0 ");
    EXPECT_EQ(TextOf(KTime::MakeHumanTime(951782400, 0, 0, 0)), "2000 2 29 2 0 0 0 0 0 0 0 0 ");
}

TEST(KTimeTest, TheHumanTimeTakes129QuarterHoursLikeAnyOtherCount) {
    const char ch = static_cast<char>(129);
    EXPECT_EQ(TextOf(KTime::MakeHumanTime(0, 0, ch, ch)), TextByLibc(232200, 0, 129, 129));
    EXPECT_EQ(TextOf(KTime().GetHumanTime(ch, ch)), "1970 1 3 6 16 30 0 0 129 129 0 0 ");
}

TEST(KTimeTest, TheSecondsOfAHumanTimeAreCutTo32BitsAfterTheZoneWasAdded) {
    EXPECT_EQ(TextOf(KTime::MakeHumanTime(0x100000000LL, 0, 0, 0)), TextByLibc(0, 0, 0, 0));
    EXPECT_EQ(TextOf(KTime::MakeHumanTime(INT_MAX, 0, 1, 0)), TextByLibc(INT_MIN + 899, 0, 1, 0));
    EXPECT_EQ(TextOf(KTime::MakeHumanTime(0xFFFFFFFFLL, 0, 1, 0)), TextByLibc(899, 0, 1, 0));
    EXPECT_EQ(TextOf(KTime::MakeHumanTime(LLONG_MAX, 0, 1, 0)), TextByLibc(899, 0, 1, 0));
    EXPECT_EQ(TextOf(KTime::MakeHumanTime(LLONG_MIN, 0, 0, 0)), TextByLibc(0, 0, 0, 0));
}

TEST(KTimeTest, TheMicrosecondsOfAHumanTimeAreTheRemainderWithItsSign) {
    EXPECT_EQ(KTime::MakeHumanTime(0, 999999, 0, 0).usec, 999999);
    EXPECT_EQ(KTime::MakeHumanTime(0, 1000000, 0, 0).usec, 0);
    EXPECT_EQ(KTime::MakeHumanTime(0, 2500000, 0, 0).usec, 500000);
    EXPECT_EQ(KTime::MakeHumanTime(0, -2500000, 0, 0).usec, -500000);
    EXPECT_EQ(KTime::MakeHumanTime(0, INT_MIN, 0, 0).usec, -483648);
    EXPECT_EQ(KTime::MakeHumanTime(5, 2500000, 0, 0).second, 5) << "whole seconds are not carried";
}

TEST(KTimeTest, HumanTimesAgreeWithLibcForEveryDayThatCanBeHeld) {
    for (long long nDay = INT_MIN / 86400; nDay <= INT_MAX / 86400; ++nDay) {
        for (const long long nSecond : {nDay * 86400 - 1, nDay * 86400, nDay * 86400 + 45296}) {
            if (nSecond >= INT_MIN && nSecond <= INT_MAX) {
                ASSERT_EQ(TextOf(KTime::MakeHumanTime(nSecond, 0, 0, 0)),
                          TextByLibc(static_cast<int>(nSecond), 0, 0, 0));
            }
        }
    }
}

TEST(KTimeTest, HumanTimesAgreeWithLibcForAnyInstantAndZone) {
    RandomNumber random(4);
    for (int i = 0; i < kRandomRounds; ++i) {
        const int nSec = random.Any();
        const int nGmt = random.Between(0, 255);
        const int nDst = random.Between(0, 255);
        ASSERT_EQ(TextOf(At(nSec, 7).GetHumanTime(static_cast<char>(nGmt), static_cast<char>(nDst))),
                  TextByLibc(Low(nSec + 900LL * (nGmt + nDst)), 7, nGmt, nDst));
    }
}

TEST(KTimeTest, GetHumanTimeUsesTheZonePassedAndNotTheOneStored) {
    const KTime time(946684800LL, 5, 36, 4);
    EXPECT_EQ(TextOf(time.GetHumanTime(36, 0)), "2000 1 1 6 9 0 0 5 36 0 0 0 ");
    EXPECT_EQ(TextOf(time.GetHumanTime(0, 0)), "2000 1 1 6 0 0 0 5 0 0 0 0 ");
}

TEST(KTimeTest, ATimeAndItsHumanTimeAreMadeFromEachOther) {
    RandomNumber random(5);
    for (int i = 0; i < kRandomRounds; ++i) {
        const int nGmt = random.Between(0, 48);
        const KTime time(static_cast<long long>(random.Between(0, INT_MAX - 100 * kQuarterHour)), random.USecs(),
                         static_cast<char>(nGmt), 4);
        const KHumanTime human = time.GetHumanTime(static_cast<char>(nGmt), 4);
        ASSERT_EQ(TextOf(KTime(human)), TextOf(time));
    }
}

TEST(KTimeTest, ThreadsMayConvertAtOnce) {
    support::RunInThreads(4, [](int nThread) {
        const int nSec = nThread * 500000000;
        const std::string expected = TextByLibc(nSec, nThread, 0, 0);
        for (int i = 0; i < 500; ++i) {
            EXPECT_EQ(TextOf(At(nSec, nThread).GetHumanTime(0, 0)), expected);
        }
    });
}

// --------------------------------------------------------------------------------------------------------- The zone

TEST(KTimeTest, MovingTheGmtOffsetKeepsTheReadingAndMovesTheInstant) {
    KTime time(946684800LL, 5, 36, 4);
    EXPECT_TRUE(time.MoveGMT(0));
    EXPECT_EQ(TextOf(time), std::to_string(946684800 + 9 * 3600) + "s 5us 0/4 [00]");
    EXPECT_EQ(time.GetHumanTime(0, 0).hour, 9);
    EXPECT_TRUE(time.MoveGMT(48));
    EXPECT_EQ(TextOf(time), std::to_string(946684800 - 3 * 3600) + "s 5us 48/4 [00]");
}

TEST(KTimeTest, MovingToMoreThanTwelveHoursIsRefused) {
    for (const int nOffset : {49, 127, 128, 200, 255}) {
        KTime time(946684800LL, 5, 36, 4);
        EXPECT_FALSE(time.MoveGMT(static_cast<char>(nOffset))) << nOffset;
        EXPECT_EQ(TextOf(time), "946684800s 5us 36/4 [00]") << nOffset;
    }
}

TEST(KTimeTest, MovingFromAnOffsetAboveTwelveHoursWorks) {
    KTime time(0, static_cast<char>(236), 0);
    EXPECT_TRUE(time.MoveGMT(0));
    EXPECT_EQ(TextOf(time), std::to_string(236 * kQuarterHour) + "s 0us 0/0 [00]");
}

TEST(KTimeTest, MovingTheDaylightSavingOffsetTakesAnyValue) {
    for (const int nOffset : {0, 4, 16, 49, 128, 255}) {
        KTime time(946684800LL, 5, 36, 4);
        EXPECT_TRUE(time.MoveDST(static_cast<char>(nOffset)));
        EXPECT_EQ(TextOf(time), std::to_string(946684800 + kQuarterHour * (4 - nOffset)) + "s 5us 36/" +
                                    std::to_string(nOffset) + " [00]");
    }
}

TEST(KTimeTest, MovingPastTheEndOfTimeWraps) {
    KTime last(INT_MAX, 1, 0);
    EXPECT_TRUE(last.MoveGMT(0));
    EXPECT_EQ(last.sec, INT_MIN + 899);
    KTime first(INT_MIN, 0, 0);
    EXPECT_TRUE(first.MoveDST(static_cast<char>(255)));
    EXPECT_EQ(first.sec, Low(INT_MIN - 255LL * kQuarterHour));
}

TEST(KTimeTest, OnlyAFlagOfOneStandsForSixteenQuarterHours) {
    EXPECT_EQ(KTime::GetDSTOffSet15Min(1), 16);
    for (const int nFlag : {0, 2, -1, 256, 257, INT_MIN, INT_MAX}) {
        EXPECT_EQ(KTime::GetDSTOffSet15Min(nFlag), 0) << nFlag;
    }
}

TEST(KTimeTest, TheCurrentTimeIsTheClocksWithItsZone) {
    timeval before;
    struct timezone zone = {};
    ASSERT_EQ(gettimeofday(&before, &zone), 0);
    const KTime now = KTime::GetCurrentTime();
    timeval after;
    ASSERT_EQ(gettimeofday(&after, nullptr), 0);
    EXPECT_GE(now, At(static_cast<int>(before.tv_sec), static_cast<int>(before.tv_usec)));
    EXPECT_LE(now, At(static_cast<int>(after.tv_sec), static_cast<int>(after.tv_usec)));
    EXPECT_EQ(now.gmt15Min, static_cast<unsigned char>(zone.tz_minuteswest / -15));
    EXPECT_EQ(now.dst15Min, zone.tz_dsttime == 1 ? 16 : 0);
    EXPECT_EQ(now.reserved1, 0);
    EXPECT_EQ(now.reserved2, 0);
}

TEST(KTimeTest, TheClocksZoneIsInWholeQuarterHoursEastOfGreenwich) {
    const struct {
        int nMinutesWest;
        int nSummer;
        int nGmt;
        int nDst;
    } cases[] = {
        {0, 0, 0, 0},      {-540, 0, 36, 0}, {-330, 1, 22, 16}, {-345, 2, 23, 0},
        {-719, 1, 47, 16}, {-14, 0, 0, 0},   {300, 0, 236, 0},  {210, 1, 242, 16},
    };
    for (const auto& c : cases) {
        struct timezone zone = {};
        zone.tz_minuteswest = c.nMinutesWest;
        zone.tz_dsttime = c.nSummer;
        const ScopedZone set(zone);
        const KTime now = KTime::GetCurrentTime();
        EXPECT_EQ(now.gmt15Min, c.nGmt) << c.nMinutesWest;
        EXPECT_EQ(now.dst15Min, c.nDst) << c.nSummer;
    }
}

// --------------------------------------------------------------------------------------------------------- The text

TEST(KTimeTest, TheTextHasOneOfSevenForms) {
    struct Case {
        int nFormat;
        const char* pszText;
        const char* pszPadded;
    };
    const Case cases[] = {
        {1, "2000/01/01", "2037/12/31"},
        {2, "09:00:00", "23:59:58"},
        {3, "2000/01/01 09:00:00", "2037/12/31 23:59:58"},
        {6, "09:00:00 000000", "23:59:58 001234"},
        {7, "2000/01/01 09:00:00 000000", "2037/12/31 23:59:58 001234"},
        {8, "20000101090000", "20371231235958"},
        {16, "20000101090000000000", "20371231235958001234"},
    };
    const ScopedChecks checks(true);
    const KTime time(946684800, 36, 0);
    const KTime late(2037, 12, 31, 23, 59, 58, 1234, 0, 0);
    for (const Case& test : cases) {
        EXPECT_STREQ(time.GetHumanTimeString(test.nFormat, 36, 0).GetBuffer(), test.pszText);
        EXPECT_STREQ(late.GetHumanTimeString(test.nFormat, 0, 0).GetBuffer(), test.pszPadded);
    }
}

TEST(KTimeTest, TheTextUsesTheZonePassedAndNotTheOneStored) {
    const KTime time(946684800, 36, 0);
    EXPECT_STREQ(time.GetHumanTimeString(3, 0, 0).GetBuffer(), "2000/01/01 00:00:00");
    EXPECT_STREQ(time.GetHumanTimeString(3, 4, 4).GetBuffer(), "2000/01/01 02:00:00");
    EXPECT_STREQ(time.GetHumanTimeString(3, static_cast<char>(200), 0).GetBuffer(), "2000/01/03 02:00:00");
}

TEST(KTimeTest, TheTextOfMicrosecondsOutOfRangeIsThatOfTheirRemainder) {
    EXPECT_STREQ(At(0, 1500000).GetHumanTimeString(6, 0, 0).GetBuffer(), "00:00:00 500000");
    EXPECT_STREQ(At(0, -5).GetHumanTimeString(6, 0, 0).GetBuffer(), "00:00:00 -00005");
    // With a sign and five digits the six places are full; with six digits there are seven.
    EXPECT_STREQ(At(0, -99999).GetHumanTimeString(6, 0, 0).GetBuffer(), "00:00:00 -99999");
    EXPECT_STREQ(At(0, -100000).GetHumanTimeString(6, 0, 0).GetBuffer(), "00:00:00 -100000");
}

TEST(KTimeTest, EveryTextIsWhatPrintfMakesOfTheFields) {
    std::mt19937 random(1);
    for (int i = 0; i < 20000; ++i) {
        const KTime time = At(static_cast<int>(random()), static_cast<int>(random()));
        const KHumanTime human = time.GetHumanTime(0, 0);
        char szExpected[64];
        std::snprintf(szExpected, sizeof szExpected, "%04d/%02d/%02d %02d:%02d:%02d %06d", human.year, human.month,
                      human.day, human.hour, human.minute, human.second, human.usec);
        ASSERT_STREQ(time.GetHumanTimeString(7, 0, 0).GetBuffer(), szExpected);
    }
}

TEST(KTimeTest, AnyOtherFormFailsACheck) {
    EXPECT_CHECK_FAILS(KTime().GetHumanTimeString(5, 0, 0), "0", "src/api/KTime",
                       "KString KTime::GetHumanTimeString(int, char, char) const");
}

TEST(KTimeTest, AnyOtherFormIsEmptyWithTheChecksOff) {
    const ScopedChecks checks(false);
    for (const int nFormat : {INT_MIN, -1, 0, 4, 5, 9, 10, 15, 17, 24, 31, INT_MAX}) {
        const KString text = KTime().GetHumanTimeString(nFormat, 0, 0);
        EXPECT_EQ(text.Length(), 0) << nFormat;
        EXPECT_FALSE(text == "") << "a text without a buffer equals none";
    }
}
