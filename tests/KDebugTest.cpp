#include "KDebug.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>
#include <type_traits>
#include <vector>

#include "KString.h"
#include "KTime.h"
#include "support/FailingMalloc.h"
#include "support/HeapUse.h"
#include "support/ScopedClock.h"
#include "support/Support.h"
#include "support/Threads.h"

namespace {

using support::ScopedChecks;
using support::ScopedClock;
using support::ScopedLevel;
using support::ScopedNoMalloc;
using support::StampPattern;
using support::StderrOf;
using testing::MatchesRegex;

constexpr const char* kSource = "src/api/KDebug";
constexpr std::size_t kBufferSize = 1048576;

/// How far ahead of UTC every stamp runs, in seconds.
constexpr int kStampShift = 232200;

/// The text of a stamp, by libc's calendar.
std::string StampOf(int nSec, int nUSec) {
    const time_t shifted = static_cast<std::int32_t>(static_cast<std::uint32_t>(nSec) + std::uint32_t{kStampShift});
    tm fields = {};
    gmtime_r(&shifted, &fields);
    char szText[100];
    std::snprintf(szText, sizeof szText, "%04d/%02d/%02d %02d:%02d:%02d:%06d %d", fields.tm_year + 1900,
                  fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec, nUSec % 1000000,
                  fields.tm_wday);
    return szText;
}

// ------------------------------------------------------------------------------------------------------- Small helpers

enum class Form { kError, kDebug, kLog };

/// The three graded operations, for what they have in common.
struct Operation {
    Form eForm;
    int nHighestLevel;
    const char* pszSignature;
};

constexpr Operation kOperations[] = {
    {Form::kError, 2, "static bool KDebug::Error(const tchar*, ...)"},
    {Form::kDebug, 1, "static bool KDebug::Debug(const tchar*, ...)"},
    {Form::kLog, 0, "static bool KDebug::Log(const tchar*, ...)"},
};

bool Write(const Operation& operation, const std::string& text) {
    switch (operation.eForm) {
        case Form::kError:
            return KDebug::Error("%s", text.c_str());
        case Form::kDebug:
            return KDebug::Debug("%s", text.c_str());
        case Form::kLog:
            break;
    }
    return KDebug::Log("%s", text.c_str());
}

bool WriteString(const Operation& operation, const KString& text) {
    switch (operation.eForm) {
        case Form::kError:
            return KDebug::Error(text);
        case Form::kDebug:
            return KDebug::Debug(text);
        case Form::kLog:
            break;
    }
    return KDebug::Log(text);
}

/// What stands before a message; for a log line, at a moment that ScopedClock set.
std::string HeadOf(const Operation& operation, int nSec = 0, int nUSec = 0) {
    switch (operation.eForm) {
        case Form::kError:
            return "Error****: ";
        case Form::kDebug:
            return "Debug: ";
        case Form::kLog:
            break;
    }
    return "Log[" + StampOf(nSec, nUSec) + "]";
}

std::string LongMessage(std::size_t nLength) {
    return std::string(nLength, 'm');
}

std::string WithoutStamps(std::string text) {
    for (std::size_t nStart = text.find("Log["); nStart != std::string::npos; nStart = text.find("Log[", nStart)) {
        text.erase(nStart, text.find(']', nStart) - nStart + 1);
    }
    return text;
}

std::vector<std::string> LinesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t nStart = 0;
    for (std::size_t nEnd = text.find('\n'); nEnd != std::string::npos; nEnd = text.find('\n', nStart)) {
        lines.push_back(text.substr(nStart, nEnd - nStart));
        nStart = nEnd + 1;
    }
    EXPECT_EQ(nStart, text.size()) << "the last line is not ended";
    return lines;
}

/// Each test starts without buffers, at level 0 and with the checks off, and leaves them so.
class KDebugTest : public testing::Test {
 protected:
    KDebugTest() : m_Checks(false), m_Level(0) { KDebug::Deinit(); }
    ~KDebugTest() override { KDebug::Deinit(); }

 private:
    ScopedChecks m_Checks;
    ScopedLevel m_Level;
};

/// The values when the library was loaded and nothing of it had been called.
struct AtLoad {
    int nLevel = g_eDebugLevel;
    const tchar* pFormat = g_pDebugFormat;
    const tchar* pBuffer = g_pDebugBuffer;
};
const AtLoad g_AtLoad;

// -------------------------------------------------------------------------------------------------- Globals and life time

TEST_F(KDebugTest, AtLoadTheLevelIsZeroAndThereAreNoBuffers) {
    EXPECT_EQ(g_AtLoad.nLevel, 0);
    EXPECT_EQ(g_AtLoad.pFormat, nullptr);
    EXPECT_EQ(g_AtLoad.pBuffer, nullptr);
}

TEST_F(KDebugTest, TheGlobalsAreExportedByTheirPlainNames) {
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "g_eDebugLevel"), &g_eDebugLevel);
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "g_pDebugFormat"), &g_pDebugFormat);
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "g_pDebugBuffer"), &g_pDebugBuffer);
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "g_Mutex"), &g_Mutex);
    EXPECT_TRUE((std::is_same<decltype(g_eDebugLevel), int>::value));
    EXPECT_TRUE((std::is_same<decltype(g_pDebugFormat), tchar*>::value));
    EXPECT_TRUE((std::is_same<decltype(g_pDebugBuffer), tchar*>::value));
    EXPECT_TRUE((std::is_same<decltype(g_Mutex), KMutex>::value));
}

TEST_F(KDebugTest, InitMakesTwoBlocksOfAMebibyte) {
    KDebug::Init();
    ASSERT_NE(g_pDebugFormat, nullptr);
    ASSERT_NE(g_pDebugBuffer, nullptr);
    EXPECT_NE(g_pDebugFormat, g_pDebugBuffer);
    std::fill_n(g_pDebugFormat, kBufferSize, 'f');  // an address sanitizer notices a block that is smaller
    std::fill_n(g_pDebugBuffer, kBufferSize, 'b');
    EXPECT_EQ(g_pDebugFormat[kBufferSize - 1], 'f');
}

TEST_F(KDebugTest, DeinitFreesBothBlocksAndMayBeRepeated) {
    KDebug::Init();
    for (int nRound = 0; nRound < 2; ++nRound) {
        KDebug::Deinit();
        EXPECT_EQ(g_pDebugFormat, nullptr);
        EXPECT_EQ(g_pDebugBuffer, nullptr);
    }
    const auto initAndDeinit = [] {
        KDebug::Init();
        KDebug::Deinit();
    };
    EXPECT_EQ(support::BytesLeftBy(initAndDeinit), 0u);
}

TEST_F(KDebugTest, InitTwiceMakesAnotherPairAndLeaksTheFirst) {
    KDebug::Init();
    tchar* const pFirstFormat = g_pDebugFormat;
    tchar* const pFirstBuffer = g_pDebugBuffer;
    KDebug::Init();
    EXPECT_NE(g_pDebugFormat, pFirstFormat);
    EXPECT_NE(g_pDebugBuffer, pFirstBuffer);
    std::free(pFirstFormat);  // still there to be freed
    std::free(pFirstBuffer);
}

TEST_F(KDebugTest, AMessageMakesTheBuffersAndASecondOneKeepsThem) {
    for (const Operation& operation : kOperations) {
        KDebug::Deinit();
        StderrOf([&operation] { Write(operation, "first"); });
        const tchar* const pBuffer = g_pDebugBuffer;
        EXPECT_NE(g_pDebugFormat, nullptr);
        EXPECT_NE(pBuffer, nullptr);
        StderrOf([&operation] { Write(operation, "second"); });
        EXPECT_EQ(g_pDebugBuffer, pBuffer);
    }
}

TEST_F(KDebugTest, AMessageThatTheLevelDropsMakesTheBuffersAllTheSame) {
    const ScopedLevel level(3);
    for (const Operation& operation : kOperations) {
        KDebug::Deinit();
        EXPECT_TRUE(Write(operation, "dropped"));
        EXPECT_NE(g_pDebugFormat, nullptr);
        EXPECT_NE(g_pDebugBuffer, nullptr);
    }
}

TEST_F(KDebugTest, AMessageAfterDeinitIsWritten) {
    KDebug::Init();
    KDebug::Deinit();
    EXPECT_EQ(StderrOf([] { KDebug::Error("again"); }), "Error****: again\n");
}

TEST_F(KDebugTest, AMessageIsWrittenUpToItsFirstNul) {
    EXPECT_EQ(StderrOf([] { KDebug::Error("one%ctwo", '\0'); }), "Error****: one\n");
}

TEST_F(KDebugTest, ALineLongerThanMostIsWrittenWhole) {
    for (const std::size_t nLength : {499u, 500u, 501u, 512u, 513u, 100000u}) {
        const std::string message(nLength, 'x');
        EXPECT_EQ(StderrOf([&message] { KDebug::Error("%s", message.c_str()); }), "Error****: " + message + "\n");
    }
}

TEST_F(KDebugTest, AMessageIsRenderedInTheBuffer) {
    StderrOf([] { KDebug::Error("number %d", 5); });
    EXPECT_STREQ(g_pDebugBuffer, "number 5");
}

TEST_F(KDebugTest, AMessageFromAnExitHandlerIsStillWritten) {
    EXPECT_EXIT(
        {
            std::atexit([] { KDebug::Error("late"); });
            std::exit(0);
        },
        testing::ExitedWithCode(0), "Error\\*\\*\\*\\*: late\n");
}

TEST_F(KDebugTest, AnObjectHasAVirtualDestructorAndNoData) {
    EXPECT_TRUE(std::has_virtual_destructor<KDebug>::value);
    EXPECT_EQ(sizeof(KDebug), sizeof(void*));
}

TEST_F(KDebugTest, ACopyFailsACheck) {
    const auto copy = [] {
        const KDebug first;
        const KDebug second(first);
    };
    EXPECT_CHECK_FAILS(copy(), "0", kSource, "KDebug::KDebug(const KDebug&)");
    EXPECT_EQ(StderrOf(copy), "") << "quiet with the checks off";
}

TEST_F(KDebugTest, AnAssignmentFailsACheckAndReturnsTheLeftSideWithTheChecksOff) {
    const KDebug right;
    KDebug left;
    EXPECT_CHECK_FAILS(left = right, "0", kSource, "KDebug& KDebug::operator=(const KDebug&)");
    EXPECT_EQ(&(left = right), &left);
}

// ----------------------------------------------------------------------------------------------------------------- Lines

TEST_F(KDebugTest, AnErrorLineIsItsHeadTheMessageAndALineFeed) {
    bool fgResult = false;
    EXPECT_EQ(StderrOf([&fgResult] { fgResult = KDebug::Error("x"); }), "Error****: x\n");
    EXPECT_TRUE(fgResult);
}

TEST_F(KDebugTest, ADebugLineIsItsHeadTheMessageAndALineFeed) {
    bool fgResult = false;
    EXPECT_EQ(StderrOf([&fgResult] { fgResult = KDebug::Debug("x"); }), "Debug: x\n");
    EXPECT_TRUE(fgResult);
}

TEST_F(KDebugTest, ALogLineIsTheStampTheMessageRightBehindItAndALineFeed) {
    bool fgResult = false;
    EXPECT_THAT(StderrOf([&fgResult] { fgResult = KDebug::Log("x"); }), MatchesRegex(StampPattern() + "x\n"));
    EXPECT_TRUE(fgResult);
}

TEST_F(KDebugTest, MessagesAreFormattedAsByPrintf) {
    char szExpected[200];
    std::snprintf(szExpected, sizeof szExpected, "%d|%5.2f|%-6s|%c|%08x|%lld|%%|%s", -7, 3.14159, "ab", 'c', 0xBEEFu,
                  1LL << 40, "");
    const std::string strWritten = StderrOf([] {
        KDebug::Error("%d|%5.2f|%-6s|%c|%08x|%lld|%%|%s", -7, 3.14159, "ab", 'c', 0xBEEFu, 1LL << 40, "");
        KDebug::Debug("%d|%5.2f|%-6s|%c|%08x|%lld|%%|%s", -7, 3.14159, "ab", 'c', 0xBEEFu, 1LL << 40, "");
        KDebug::Log("%d|%5.2f|%-6s|%c|%08x|%lld|%%|%s", -7, 3.14159, "ab", 'c', 0xBEEFu, 1LL << 40, "");
    });
    EXPECT_THAT(
        LinesOf(WithoutStamps(strWritten)),
        testing::ElementsAre("Error****: " + std::string(szExpected), "Debug: " + std::string(szExpected), szExpected));
}

TEST_F(KDebugTest, MessagesAreWrittenAsTheyAre) {
    const std::string texts[] = {"", " ", "two\nlines", "ends in a line feed\n", "\xC3\xA4\xEA\xB0\x80", "tab\tbell\a"};
    const ScopedClock clock(77, 5);
    for (const std::string& text : texts) {
        for (const Operation& operation : kOperations) {
            EXPECT_EQ(StderrOf([&] { Write(operation, text); }), HeadOf(operation, 77, 5) + text + "\n");
        }
    }
}

TEST_F(KDebugTest, AMessageThatCannotBeRenderedToItsEndIsWrittenUpToThere) {
    // No byte stands for this character in the locale that every program starts with.
    const wchar_t szWide[] = {L'x', static_cast<wchar_t>(0xAC00), 0};
    const std::string strWritten = StderrOf([&szWide] {
        EXPECT_TRUE(KDebug::Error("up to here%ls and no more", szWide));
        EXPECT_TRUE(KDebug::Debug("up to here%ls and no more", szWide));
        EXPECT_TRUE(KDebug::Log("up to here%ls and no more", szWide));
    });
    EXPECT_THAT(WithoutStamps(strWritten),
                MatchesRegex("Error\\*\\*\\*\\*: up to herex?\nDebug: up to herex?\nup to herex?\n"));
}

// ---------------------------------------------------------------------------------------------------------------- Levels

TEST_F(KDebugTest, TheLevelFiltersTheGradesAndEveryOperationReturnsTrue) {
    for (const int nLevel : {INT_MIN, -1, 0, 1, 2, 3, 4, INT_MAX}) {
        const ScopedLevel level(nLevel);
        for (const Operation& operation : kOperations) {
            bool fgResult = false;
            const std::string strWritten = StderrOf([&] { fgResult = Write(operation, "x"); });
            EXPECT_TRUE(fgResult);
            EXPECT_EQ(!strWritten.empty(), nLevel <= operation.nHighestLevel)
                << operation.pszSignature << " at level " << nLevel;
        }
    }
}

TEST_F(KDebugTest, TheLevelFiltersTheTextFormsLikewise) {
    for (const int nLevel : {-1, 0, 1, 2, 3}) {
        const ScopedLevel level(nLevel);
        for (const Operation& operation : kOperations) {
            bool fgResult = false;
            const std::string strWritten = StderrOf([&] { fgResult = WriteString(operation, KString("x")); });
            EXPECT_TRUE(fgResult);
            EXPECT_EQ(!strWritten.empty(), nLevel <= operation.nHighestLevel)
                << operation.pszSignature << " at level " << nLevel;
        }
    }
}

TEST_F(KDebugTest, TimeIsWrittenAtEveryLevel) {
    for (const int nLevel : {INT_MIN, 0, 3, INT_MAX}) {
        const ScopedLevel level(nLevel);
        bool fgResult = false;
        EXPECT_NE(StderrOf([&fgResult] { fgResult = KDebug::Time(KTime()); }), "") << nLevel;
        EXPECT_TRUE(fgResult);
    }
}

// ----------------------------------------------------------------------------------------------------------- Text forms

TEST_F(KDebugTest, AStringIsWrittenAsItStands) {
    const char* const texts[] = {"plain", "100%", "%s%d%n", "%%", "", "a\nb"};
    const ScopedClock clock(3, 4);
    for (const char* const pszText : texts) {
        for (const Operation& operation : kOperations) {
            bool fgResult = false;
            EXPECT_EQ(StderrOf([&] { fgResult = WriteString(operation, KString(pszText)); }),
                      HeadOf(operation, 3, 4) + pszText + "\n");
            EXPECT_TRUE(fgResult);
        }
    }
}

TEST_F(KDebugTest, AStringIsWrittenUpToItsFirstNul) {
    EXPECT_EQ(StderrOf([] { KDebug::Error(KString("ab\0cd", 5)); }), "Error****: ab\n");
}

TEST_F(KDebugTest, AStringWithoutABufferIsAnEmptyMessage) {
    EXPECT_EQ(StderrOf([] { KDebug::Debug(KString()); }), "Debug: \n");
}

TEST_F(KDebugTest, AStringThatIsTooLongFailsTheCheckOfTheOtherForm) {
    const KString text(LongMessage(kBufferSize).c_str());
    for (const Operation& operation : kOperations) {
        EXPECT_CHECK_FAILS(WriteString(operation, text), "0", kSource, operation.pszSignature);
    }
}

// ---------------------------------------------------------------------------------------------------------------- Stamps

struct StampCase {
    int nSec;
    int nUSec;
    const char* pszStamp;
};

// Each lies 64 hours and 30 minutes after the moment.
constexpr StampCase kStamps[] = {
    {0, 0, "1970/01/03 16:30:00:000000 6"},
    {0, 7, "1970/01/03 16:30:00:000007 6"},
    {946684800, 999999, "2000/01/03 16:30:00:999999 1"},
    {951609600, 1, "2000/02/29 16:30:00:000001 2"},
    {1078005599, 0, "2004/03/02 14:29:59:000000 2"},
    {1714746007, 123456, "2024/05/06 06:50:07:123456 1"},
    {-232200, 0, "1970/01/01 00:00:00:000000 4"},
    {-232201, 0, "1969/12/31 23:59:59:000000 3"},
    // The sum is 32 bits wide and wraps.
    {INT_MAX - kStampShift, 0, "2038/01/19 03:14:07:000000 2"},
    {INT_MAX - kStampShift + 1, 0, "1901/12/13 20:45:52:000000 5"},
    {INT_MAX, 0, "1901/12/16 13:15:51:000000 1"},
    {INT_MIN, 0, "1901/12/16 13:15:52:000000 1"},
    // Microseconds are the remainder by a million, with their sign.
    {0, 1000000, "1970/01/03 16:30:00:000000 6"},
    {0, INT_MAX, "1970/01/03 16:30:00:483647 6"},
    {0, -5, "1970/01/03 16:30:00:-00005 6"},
    {0, -1234567, "1970/01/03 16:30:00:-234567 6"},
};

TEST_F(KDebugTest, TimeWritesAMomentSixtyFourAndAHalfHoursLater) {
    for (const StampCase& row : kStamps) {
        const KTime time(static_cast<long long>(row.nSec), row.nUSec, 0, 0);
        EXPECT_EQ(StderrOf([&time] { KDebug::Time(time); }), std::string("Time:") + row.pszStamp + "\n");
    }
}

TEST_F(KDebugTest, TimeIgnoresTheZoneOfTheMoment) {
    const KTime time(1000, static_cast<char>(36), static_cast<char>(200));
    EXPECT_EQ(StderrOf([&time] { KDebug::Time(time); }), "Time:" + StampOf(1000, 0) + "\n");
}

TEST_F(KDebugTest, TimeAgreesWithLibcsCalendarForAnyMoment) {
    std::mt19937 random(20240506);
    std::uniform_int_distribution<int> seconds(INT_MIN, INT_MAX);
    std::uniform_int_distribution<int> microseconds(INT_MIN, INT_MAX);
    for (int nRound = 0; nRound < 500; ++nRound) {
        const int nSec = seconds(random);
        const int nUSec = microseconds(random);
        const KTime time(static_cast<long long>(nSec), nUSec, 0, 0);
        ASSERT_EQ(StderrOf([&time] { KDebug::Time(time); }), "Time:" + StampOf(nSec, nUSec) + "\n") << nSec;
    }
}

TEST_F(KDebugTest, TimeMakesNoBuffers) {
    StderrOf([] { KDebug::Time(KTime()); });
    EXPECT_EQ(g_pDebugFormat, nullptr);
    EXPECT_EQ(g_pDebugBuffer, nullptr);
}

TEST_F(KDebugTest, ALogStampIsTheClockSixtyFourAndAHalfHoursLaterWhateverTheZone) {
    for (const StampCase& row : kStamps) {
        if (row.nUSec < 0 || row.nUSec > 999999) {
            continue;  // no clock tells that
        }
        const ScopedClock clock(row.nSec, row.nUSec);
        EXPECT_EQ(StderrOf([] { KDebug::Log("x"); }), std::string("Log[") + row.pszStamp + "]x\n");
    }
}

TEST_F(KDebugTest, ALogStampTellsTheSystemsTime) {
    const time_t before = time(nullptr) - 1;
    const std::string strWritten = StderrOf([] { KDebug::Log("x"); });
    const time_t after = time(nullptr) + 1;
    tm fields = {};
    ASSERT_EQ(std::sscanf(strWritten.c_str(), "Log[%d/%d/%d %d:%d:%d:", &fields.tm_year, &fields.tm_mon,
                          &fields.tm_mday, &fields.tm_hour, &fields.tm_min, &fields.tm_sec),
              6);
    fields.tm_year -= 1900;
    --fields.tm_mon;
    const time_t told = timegm(&fields) - kStampShift;
    EXPECT_GE(told, before);
    EXPECT_LE(told, after);
}

// --------------------------------------------------------------------------------------------------------- Long messages

TEST_F(KDebugTest, AMessageOfOneByteLessThanTheBufferIsWrittenWhole) {
    const std::string text = LongMessage(kBufferSize - 1);
    const ScopedClock clock(1, 2);
    for (const Operation& operation : kOperations) {
        EXPECT_TRUE(StderrOf([&] { EXPECT_TRUE(Write(operation, text)); }) == HeadOf(operation, 1, 2) + text + "\n")
            << operation.pszSignature;
    }
}

TEST_F(KDebugTest, ALongerMessageIsDroppedWithTheChecksOffAndALogMessageLeavesItsStamp) {
    const ScopedClock clock(1, 2);
    for (const std::size_t nLength : {kBufferSize, kBufferSize + 1, 3 * kBufferSize}) {
        const std::string text = LongMessage(nLength);
        for (const Operation& operation : kOperations) {
            const std::string strLeft = operation.eForm == Form::kLog ? HeadOf(operation, 1, 2) : "";
            EXPECT_EQ(StderrOf([&] { EXPECT_TRUE(Write(operation, text)); }), strLeft) << operation.pszSignature;
        }
    }
}

TEST_F(KDebugTest, ALongerMessageFailsACheck) {
    const std::string text = LongMessage(kBufferSize);
    for (const Operation& operation : kOperations) {
        EXPECT_CHECK_FAILS(Write(operation, text), "0", kSource, operation.pszSignature);
    }
}

TEST_F(KDebugTest, ALongerMessageThatTheLevelDropsFailsNoCheck) {
    const ScopedChecks checks(true);
    const ScopedLevel level(3);
    for (const Operation& operation : kOperations) {
        EXPECT_TRUE(Write(operation, LongMessage(kBufferSize)));
    }
}

TEST_F(KDebugTest, AfterADroppedMessageTheLockIsFreeAndTheNextOneIsWritten) {
    for (const Operation& operation : kOperations) {
        StderrOf([&operation] { Write(operation, LongMessage(kBufferSize)); });
        ASSERT_TRUE(g_Mutex.TryLock()) << operation.pszSignature;
        g_Mutex.Unlock();
        EXPECT_EQ(StderrOf([] { KDebug::Error("next"); }), "Error****: next\n");
    }
}

// -------------------------------------------------------------------------------------------------------- Lack of memory

TEST_F(KDebugTest, WithoutMemoryForTheBuffersMessagesAreDroppedUntilThereIs) {
    for (const Operation& operation : kOperations) {
        KDebug::Deinit();
        {
            EXPECT_EQ(StderrOf([&operation] {
                          const ScopedNoMalloc noMemory;
                          EXPECT_TRUE(Write(operation, "x"));
                      }),
                      "");
            EXPECT_EQ(g_pDebugFormat, nullptr);
        }
        EXPECT_NE(StderrOf([&operation] { EXPECT_TRUE(Write(operation, "x")); }), "");
    }
}

TEST_F(KDebugTest, WhereOneBufferIsLackingNeitherIsMadeAndNothingIsLeft) {
    for (const Operation& operation : kOperations) {
        for (const int nStillWorks : {0, 1}) {
            KDebug::Deinit();
            const std::size_t nBefore = support::BytesInUse();
            for (int i = 0; i < 3; ++i) {
                EXPECT_EQ(StderrOf([&operation, nStillWorks] {
                              const ScopedNoMalloc noMemory(nStillWorks, 1);
                              EXPECT_TRUE(Write(operation, "x"));
                              EXPECT_EQ(noMemory.Refused(), 1);
                          }),
                          "");
                EXPECT_EQ(g_pDebugFormat, nullptr);
                EXPECT_EQ(g_pDebugBuffer, nullptr);
            }
            EXPECT_LT(support::BytesInUse(), nBefore + kBufferSize);
        }
    }
}

TEST_F(KDebugTest, WithoutTheRenderingBufferMessagesAreDroppedAndALogMessageLeavesItsStamp) {
    KDebug::Init();
    tchar* const pBuffer = g_pDebugBuffer;
    g_pDebugBuffer = nullptr;
    const ScopedClock clock(1, 2);
    for (const Operation& operation : kOperations) {
        const std::string strLeft = operation.eForm == Form::kLog ? HeadOf(operation, 1, 2) : "";
        EXPECT_EQ(StderrOf([&operation] { EXPECT_TRUE(Write(operation, "x")); }), strLeft) << operation.pszSignature;
        EXPECT_TRUE(g_Mutex.TryLock());
        g_Mutex.Unlock();
    }
    g_pDebugBuffer = pBuffer;
}

// --------------------------------------------------------------------------------------------------------------- Threads

/// Runs a piece of code in a process that is ended if it blocks.
#define EXPECT_BLOCKS(statement, matcher) \
    EXPECT_EXIT(                          \
        {                                 \
            alarm(1);                     \
            statement;                    \
            _exit(0);                     \
        },                                \
        testing::KilledBySignal(SIGALRM), matcher)

TEST_F(KDebugTest, ErrorAndDebugWaitForTheLockBeforeTheyWrite) {
    EXPECT_BLOCKS(g_Mutex.Lock(); KDebug::Error("x"), testing::IsEmpty());
    EXPECT_BLOCKS(g_Mutex.Lock(); KDebug::Debug("x"), testing::IsEmpty());
}

TEST_F(KDebugTest, LogWritesItsStampBeforeItWaitsForTheLock) {
    EXPECT_BLOCKS(g_Mutex.Lock(); KDebug::Log("x"), MatchesRegex(StampPattern()));
}

TEST_F(KDebugTest, TimeDoesNotWaitForTheLock) {
    g_Mutex.Lock();
    EXPECT_NE(StderrOf([] { KDebug::Time(KTime()); }), "");
    g_Mutex.Unlock();
}

TEST_F(KDebugTest, AMessageThatTheLevelDropsDoesNotWaitForTheLock) {
    const ScopedLevel level(3);
    g_Mutex.Lock();
    for (const Operation& operation : kOperations) {
        EXPECT_TRUE(Write(operation, "x"));
    }
    g_Mutex.Unlock();
}

TEST_F(KDebugTest, MessagesOfSeveralThreadsAreNotMixed) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 60;
    constexpr std::size_t kLength = 2000;
    KDebug::Init();
    const std::string strWritten = StderrOf([] {
        support::RunInThreads(kThreads, [](int nThread) {
            const std::string text(kLength, static_cast<char>('a' + nThread));
            for (int nRound = 0; nRound < kRounds; ++nRound) {
                Write(kOperations[nRound % 3], text);
            }
        });
    });
    const std::vector<std::string> lines = LinesOf(WithoutStamps(strWritten));
    EXPECT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kRounds));
    for (const std::string& line : lines) {
        const std::string text = line.substr(line.size() < kLength ? 0 : line.size() - kLength);
        const std::string head = line.substr(0, line.size() - text.size());
        ASSERT_EQ(text, std::string(kLength, text[0]));
        ASSERT_THAT(head, testing::AnyOf("Error****: ", "Debug: ", ""));
    }
}

}  // namespace
