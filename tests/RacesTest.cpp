// Every class that threads may share, hammered by 2, 4 and 16 of them at once, with something that has to hold whatever their
// order. The thread sanitizer sees what only looks right.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "KAssert.h"
#include "KDebug.h"
#include "KDirectory.h"
#include "KFile.h"
#include "KList.h"
#include "KMessage.h"
#include "KNet.h"
#include "KPropertyList.h"
#include "KQueue.h"
#include "KSystem.h"
#include "KThread.h"
#include "KTime.h"
#include "support/Descriptors.h"
#include "support/LittleMemory.h"
#include "support/PropertyTree.h"
#include "support/Support.h"
#include "support/Texts.h"
#include "support/Threads.h"

namespace {

/// Where threads wait for each other, as often as they like.
class Meeting {
 public:
    explicit Meeting(int nThreads) : m_nThreads(nThreads), m_nMissing(nThreads), m_nTimes(0) {}

    /// Returns once all threads are here.
    void Wait() {
        std::unique_lock<std::mutex> lock(m_Mutex);
        const int nTimes = m_nTimes;
        if (--m_nMissing == 0) {
            m_nMissing = m_nThreads;
            ++m_nTimes;
            m_All.notify_all();
        }
        m_All.wait(lock, [&] { return m_nTimes != nTimes; });
    }

 private:
    std::mutex m_Mutex;
    std::condition_variable m_All;
    const int m_nThreads;
    int m_nMissing;
    int m_nTimes;
};

/// Runs the same code in several threads, which start together. It is told which of them it is.
template <typename Code>
void Hammer(int nThreads, const Code& code) {
    Meeting start(nThreads);
    support::RunInThreads(nThreads, [&](int nThread) {
        start.Wait();
        code(nThread);
    });
}

class RacesTest : public testing::TestWithParam<int> {
 protected:
    static int Threads() { return GetParam(); }
    /// The same work however many share it. valgrind runs one thread at a time and looks for other things than races.
    static int Rounds(int nAll) {
        const int nSlower = support::IsUnderValgrind() ? 20 : 1;
        return std::max(1, nAll / (GetParam() * nSlower));
    }
};

/// Sees whether threads pass one at a time. Its numbers are plain ones, so that they go wrong where two do at once.
class Gateway {
 public:
    void Pass() {
        m_fgAlone = m_fgAlone && ++m_nInside == 1;
        ++m_nPassed;
        --m_nInside;
    }
    void ExpectPassedAlone(int nTimes) const {
        EXPECT_TRUE(m_fgAlone);
        EXPECT_EQ(m_nPassed, nTimes);
    }

 private:
    int m_nInside = 0;
    int m_nPassed = 0;
    bool m_fgAlone = true;
};

TEST_P(RacesTest, AMutexLetsOneThreadInAtATime) {
    KMutex mutex;
    Gateway gateway;
    const int nRounds = Rounds(200000);
    Hammer(Threads(), [&](int) {
        for (int i = 0; i < nRounds; ++i) {
            if (i % 4 != 0 || !mutex.TryLock()) {
                mutex.Lock();
            }
            gateway.Pass();
            mutex.Unlock();
        }
    });
    gateway.ExpectPassedAlone(nRounds * Threads());
}

/// A time-out for a mutex's timed forms that ends hours from now, whatever the 32 bits of their clock say: these are 36
/// minutes from 1970 at most.
long long HoursAhead() {
    constexpr long long kHours = 3;
    return (std::time(nullptr) + kHours * 3600) * 1000000;
}

TEST_P(RacesTest, ATimedLockWithTimeAheadLetsOneThreadInAtATime) {
    KMutex mutex;
    Gateway gateway;
    const int nRounds = Rounds(100000);
    Hammer(Threads(), [&](int nThread) {
        for (int i = 0; i < nRounds; ++i) {
            if (i % 3 == 0) {
                mutex.Lock();
            } else if (nThread == 0) {
                // One thread alone may use this form.
                EXPECT_TRUE(mutex.LockWithSystemTimeBasedTimeOut(HoursAhead(), i % 3 == 1));
            } else {
                EXPECT_TRUE(mutex.LockWithTimeOut(HoursAhead()));
            }
            gateway.Pass();
            mutex.Unlock();
        }
    });
    gateway.ExpectPassedAlone(nRounds * Threads());
}

TEST_P(RacesTest, TheSwitchOfTheChecksIsSeenByAllThreads) {
    const support::ScopedChecks checks(false);
    Meeting round(Threads());
    Hammer(Threads(), [&](int nThread) {
        KThread own;
        for (int i = 0; i < Rounds(320); ++i) {
            const bool fgOn = i % 2 == 0;
            if (i / 2 % Threads() == nThread) {
                KAssert::SetActive(fgOn);
            }
            while (KAssert::GetActive() != fgOn) {
                std::this_thread::yield();
            }
            // A speed that fails its check: it would end the process in a thread for which they are still on.
            const int nSpeed = fgOn ? i : -1;
            own.SetSpeed(nSpeed);
            EXPECT_EQ(own.GetSpeed(), nSpeed);
            round.Wait();
        }
    });
}

TEST_P(RacesTest, TheSwitchOfTheChecksIsTurnedByAllThreadsAtOnce) {
    const support::ScopedChecks checks(false);
    Hammer(Threads(), [&](int) {
        KThread own;
        for (int i = 0; i < Rounds(80000); ++i) {
            if (i % 2 == 0) {
                KAssert::Init(KAssert::ASSERT_DEFAULT);
                KAssert::SetActive(false);
            } else {
                KAssert::SetActive(true);
                KAssert::Deinit();
            }
            KAssert::SetType(KAssert::ASSERT_DEFAULT);
            // A check that holds, on or off.
            own.SetSpeed(i);
            EXPECT_EQ(own.GetSpeed(), i);
        }
        KAssert::SetActive(true);
    });
    // Whichever thread was the last one to turn it off has turned it on since.
    EXPECT_TRUE(KAssert::GetActive());
}

TEST_P(RacesTest, AListNeitherLosesNorDoublesAnElement) {
    KList<int> list;
    std::atomic<long long> nTaken(0);
    std::atomic<int> nCount(0);
    const int nRounds = Rounds(16000);
    Hammer(Threads(), [&](int nThread) {
        for (int i = 0; i < nRounds; ++i) {
            EXPECT_TRUE(list.Add(nThread * nRounds + i));
            int nOut = -1;
            // From the front, or from wherever there is one.
            if (i % 100 != 0 && list.Pop(nOut, i % 4 == 0 ? -1 : i % 3)) {
                EXPECT_GE(nOut, 0);
                nTaken += nOut;
                ++nCount;
            }
            EXPECT_GE(list.GetCount(), 0);
        }
    });
    for (int nOut = 0; list.Pop(nOut, -1);) {
        nTaken += nOut;
        ++nCount;
    }
    const long long nAll = static_cast<long long>(nRounds) * Threads();
    EXPECT_EQ(nCount, nAll);
    EXPECT_EQ(nTaken, nAll * (nAll - 1) / 2);
}

TEST_P(RacesTest, AListIsCopiedAsItWasAtOneMoment) {
    // Elements come in pairs of neighbours under the list's lock, and go all at once.
    KList<KString> list;
    Hammer(Threads(), [&](int nThread) {
        for (int i = 0; i < Rounds(4800); ++i) {
            if (nThread % 2 == 0) {
                if (i % 40 == 0) {
                    list.Reset();
                }
                KList<KString>::Appender appender(list);
                appender.Add(KString("left"));
                appender.Add(KString("right"));
            } else {
                const KList<KString> copy(list);
                EXPECT_EQ(copy.GetCount() % 2, 0);
                KString last;
                if (copy.GetCount() > 0) {
                    EXPECT_TRUE(copy.Get(last, copy.GetCount() - 1));
                    EXPECT_STREQ(last.GetBuffer(), "right");
                }
            }
        }
    });
    EXPECT_EQ(list.GetCount() % 2, 0);
}

TEST_P(RacesTest, AListIsPutInOrderUnderThoseWhoReadIt) {
    constexpr int kLength = 64;
    KList<int> list;
    for (int i = 0; i < kLength; ++i) {
        list.Add(i);
    }
    Hammer(Threads(), [&](int nThread) {
        for (int i = 0; i < Rounds(9600); ++i) {
            const int nIndex = i % kLength;
            if (nThread % 2 == 0) {
                EXPECT_TRUE(list.Arrange([&](int** ppFirst, int nCount) {
                    EXPECT_EQ(nCount, kLength);
                    std::rotate(ppFirst, ppFirst + nIndex % nCount, ppFirst + nCount);
                }));
            } else {
                // Their order changes and their values do not, so that this one may be looked at without the lock.
                const int* const pValue = list[nIndex];
                ASSERT_NE(pValue, nullptr);
                int nOut = -1;
                EXPECT_TRUE(list.Get(nOut, nIndex));
                for (const int nValue : {*pValue, nOut}) {
                    EXPECT_GE(nValue, 0);
                    EXPECT_LT(nValue, kLength);
                }
                int nSum = 0;
                KList<int>::Reader reader(list);
                while (const int* const pNext = reader.Next()) {
                    nSum += *pNext;
                }
                EXPECT_EQ(nSum, kLength * (kLength - 1) / 2);
            }
        }
    });
    // Turned round and round: whoever is first, the others follow in their order.
    KList<int>::Reader reader(list);
    int nBefore = *reader.Next();
    while (const int* const pNext = reader.Next()) {
        EXPECT_EQ(*pNext, (nBefore + 1) % kLength);
        nBefore = *pNext;
    }
}

/// An element that knows whose it is, and how many there are.
struct Counted {
    Counted() { ++g_nThere; }
    ~Counted() { --g_nThere; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = default;

    int nThread = 0;
    int nNumber = 0;
    static std::atomic<int> g_nThere;
};

std::atomic<int> Counted::g_nThere(0);

/// Expects that each thread's elements stand in the order in which it added them.
void ExpectOrder(const KList<Counted>& list, int nThreads) {
    std::vector<int> last(static_cast<std::size_t>(nThreads), -1);
    KList<Counted>::Reader reader(list);
    while (const Counted* const pElement = reader.Next()) {
        int& nLast = last[static_cast<std::size_t>(pElement->nThread)];
        EXPECT_GT(pElement->nNumber, nLast);
        nLast = pElement->nNumber;
    }
}

TEST_P(RacesTest, AListIsEmptiedUnderThoseWhoFillIt) {
    KList<Counted> list;
    Hammer(Threads(), [&](int nThread) {
        Counted own;
        own.nThread = nThread;
        for (int i = 0; i < Rounds(24000); ++i) {
            own.nNumber = i;
            EXPECT_TRUE(list.Add(own));
            if (i % 50 == nThread) {
                list.Reset();
            } else if (i % 10 == 0) {
                ExpectOrder(list, Threads());
            }
        }
    });
    ExpectOrder(list, Threads());
    EXPECT_EQ(Counted::g_nThere, list.GetCount());
    list.Reset();
    EXPECT_EQ(list.GetCount(), 0);
    EXPECT_EQ(Counted::g_nThere, 0);
}

TEST_P(RacesTest, TwoListsAreAssignedToEachOther) {
    constexpr int kLength = 30;
    KList<int> lists[2];
    Hammer(Threads(), [&](int nThread) {
        // All of one kind, so that a mixture would show.
        KList<int> own;
        for (int i = 0; i < kLength; ++i) {
            own.Add(nThread);
        }
        KList<int>& target = lists[nThread % 2];
        const KList<int>& source = lists[1 - nThread % 2];
        target = own;
        for (int i = 0; i < Rounds(8000); ++i) {
            target = i % 4 == 0 || source.GetCount() == 0 ? own : source;
            KList<int>::Reader reader(target);
            const int nKind = *reader.Next();
            int nLength = 1;
            for (; const int* const pNext = reader.Next(); ++nLength) {
                EXPECT_EQ(*pNext, nKind);
            }
            EXPECT_EQ(nLength, kLength);
        }
    });
}

/// Counts what it gets. Messages are handled under the registry's lock, one at a time.
struct Counter : KMessageHandler {
    int HandleMessage(const KMessage&) override {
        ++nReceived;
        return 0;
    }
    int nReceived = 0;
};

TEST_P(RacesTest, EveryMessageReachesThoseThatAreRegistered) {
    Counter always;
    KString common("races");
    KMessageHandler::Register(&always, common);
    const int nRounds = Rounds(16000);
    Hammer(Threads(), [&](int nThread) {
        Counter own;
        KString name(("races-" + std::to_string(nThread)).c_str());
        KString text("text");
        for (int i = 0; i < nRounds; ++i) {
            KMessage message(text, text, nullptr, 0);
            EXPECT_TRUE(KMessageHandler::Register(&own, name));
            KMessageHandler::SendMessage(name, message);
            KMessageHandler::SendMessage(common, message);
            EXPECT_TRUE(KMessageHandler::Unregister(&own, name));
            KMessageHandler::SendMessage(name, message);
        }
        EXPECT_EQ(own.nReceived, nRounds);
    });
    EXPECT_TRUE(KMessageHandler::Unregister(&always, common));
    EXPECT_EQ(always.nReceived, nRounds * Threads());
}

/// Makes all buffers of a queue free.
void GiveBackAll(KManagedDynamicDataQueue& queue) {
    while (KDynamicDataBuffer* const pBuffer = queue.PopRead()) {
        queue.PushRead(pBuffer);
    }
}

/// Who has which buffer of a queue.
class Owners {
 public:
    /// Of a queue whose buffers are all free.
    explicit Owners(KManagedDynamicDataQueue& queue) {
        while (KDynamicDataBuffer* const pBuffer = queue.PopWrite()) {
            m_Taken[pBuffer] = false;
        }
        for (const auto& entry : m_Taken) {
            queue.PushWrite(entry.first);
        }
        GiveBackAll(queue);
    }

    std::size_t Count() const { return m_Taken.size(); }
    /// Whether nobody else has it.
    bool Take(KDynamicDataBuffer* pBuffer) { return !m_Taken.at(pBuffer).exchange(true); }
    void Give(KDynamicDataBuffer* pBuffer) { m_Taken.at(pBuffer) = false; }

 private:
    std::map<KDynamicDataBuffer*, std::atomic<bool>> m_Taken;
};

TEST_P(RacesTest, ABufferOfAQueueBelongsToOneThreadAtATime) {
    constexpr int kBuffers = 5;
    const int nQueue = 40 + Threads();
    KManagedDynamicDataQueue::Create(nQueue, kBuffers);
    KManagedDynamicDataQueue& queue = *KManagedDynamicDataQueue::GetInstance(nQueue);
    Owners owners(queue);
    ASSERT_EQ(owners.Count(), std::size_t{kBuffers});
    std::atomic<int> nWritten(0), nRead(0), nShared(0), nWrong(0);
    const int nRounds = Rounds(12000);
    Hammer(Threads(), [&](int nThread) {
        for (int i = 0; i < nRounds; ++i) {
            if (KDynamicDataBuffer* const pBuffer = queue.PopWrite()) {
                nShared += owners.Take(pBuffer) ? 0 : 1;
                std::memset(pBuffer->LockWriteBuffer(512, 0), nThread + 1, 512);
                pBuffer->SetDataSize(512);
                pBuffer->UnlockWriteBuffer();
                owners.Give(pBuffer);
                queue.PushWrite(pBuffer);
                ++nWritten;
            }
            if (KDynamicDataBuffer* const pBuffer = queue.PopRead()) {
                nShared += owners.Take(pBuffer) ? 0 : 1;
                const auto* const pBytes = static_cast<const unsigned char*>(pBuffer->LockReadBuffer(0));
                nWrong += std::count(pBytes, pBytes + 512, pBytes[0]) == 512 ? 0 : 1;
                pBuffer->UnlockReadBuffer();
                owners.Give(pBuffer);
                queue.PushRead(pBuffer);
                ++nRead;
            }
        }
    });
    EXPECT_EQ(nShared, 0);
    EXPECT_EQ(nWrong, 0);
    EXPECT_GT(nWritten, 0);
    EXPECT_LE(nRead, nWritten);
    EXPECT_LE(nWritten - nRead, kBuffers);
    GiveBackAll(queue);
    EXPECT_EQ(Owners(queue).Count(), std::size_t{kBuffers});
    KManagedDynamicDataQueue::Delete(nQueue);
}

TEST_P(RacesTest, ABufferIsWrittenByOneThreadAtATime) {
    KDynamicDataBuffer buffer(sizeof(int));
    *static_cast<int*>(buffer.LockWriteBuffer(sizeof(int), 0)) = 0;
    buffer.SetDataSize(sizeof(int));
    buffer.UnlockWriteBuffer();
    const int nRounds = Rounds(200000);
    Hammer(Threads(), [&](int) {
        for (int i = 0; i < nRounds; ++i) {
            ++*static_cast<int*>(buffer.LockWriteBuffer(sizeof(int), 0));
            buffer.UnlockWriteBuffer();
        }
    });
    EXPECT_EQ(*static_cast<int*>(buffer.LockReadBuffer(0)), nRounds * Threads());
    buffer.UnlockReadBuffer();
}

TEST_P(RacesTest, ABufferIsReadAsItWasWrittenLast) {
    constexpr unsigned int kLargest = 32768;
    KDynamicDataBuffer buffer(1);
    const int nRounds = Rounds(6000);
    const unsigned int nStep = kLargest / static_cast<unsigned int>(nRounds);
    Hammer(Threads(), [&](int nThread) {
        for (int i = 0; i < nRounds; ++i) {
            if (nThread % 2 == 0) {
                // Longer and longer, so that it grows under its readers.
                const unsigned int nSize = nStep * static_cast<unsigned int>(i + 1);
                std::memset(buffer.LockWriteBuffer(nSize, 0), 'a' + (nThread + i) % 26, nSize);
                buffer.SetDataSize(nSize);
                buffer.UnlockWriteBuffer();
            } else {
                const auto* const pBytes = static_cast<const unsigned char*>(buffer.LockReadBuffer(0));
                // These take no lock: they are asked for while this thread has it.
                const unsigned int nSize = buffer.GetDataSize();
                EXPECT_LE(nSize, buffer.GetCapacity());
                EXPECT_EQ(pBytes, buffer.GetBuffer());
                EXPECT_TRUE(nSize == 0 || std::memcmp(pBytes, pBytes + 1, nSize - 1) == 0);
                buffer.UnlockReadBuffer();
            }
        }
    });
    EXPECT_EQ(buffer.GetDataSize(), nStep * static_cast<unsigned int>(nRounds));
}

/// The kinds of line that the log has, and what each begins with. A log line has a stamp of its own before it.
constexpr const char* kMarks[] = {"Error****: ", "Debug: ", "log: "};
constexpr int kLogKind = 2;
constexpr int kKinds = 3;

/// A message of a thread's: a short one, or one that is longer than the buffer in which lines are put together.
std::string MessageOf(int nThread, int nNumber) {
    const std::size_t nLength = nNumber % 8 == 0 ? 900 : 40;
    return std::to_string(nThread) + " " + std::to_string(nNumber) + " " +
           std::string(nLength, static_cast<char>('a' + nThread));
}

void WriteMessage(int nKind, const std::string& message) {
    switch (nKind) {
        case 0:
            KDebug::Error("%s", message.c_str());
            break;
        case 1:
            KDebug::Debug("%s", message.c_str());
            break;
        default:
            KDebug::Log("%s%s", kMarks[kLogKind], message.c_str());
    }
}

/// The same as a text.
void WriteText(int nKind, const std::string& message) {
    switch (nKind) {
        case 0:
            KDebug::Error(KString(message.c_str()));
            break;
        case 1:
            KDebug::Debug(KString(message.c_str()));
            break;
        default:
            KDebug::Log(KString((kMarks[kLogKind] + message).c_str()));
    }
}

/// What was written to the log, taken from its front piece by piece.
class LogText {
 public:
    explicit LogText(std::string text) : m_Text(std::move(text)), m_nAt(0) {}

    bool IsAtEnd() const { return m_nAt >= m_Text.size(); }

    /// Takes a whole stamp, if there is one.
    bool TakeStamp() {
        const std::string pattern = "Log[0000/00/00 00:00:00:000000 0]";
        for (std::size_t i = 0; i < pattern.size(); ++i) {
            const char ch = m_nAt + i < m_Text.size() ? m_Text[m_nAt + i] : '\0';
            if (pattern[i] == '0' ? ch < '0' || ch > '9' : ch != pattern[i]) {
                return false;
            }
        }
        m_nAt += pattern.size();
        return true;
    }

    /// Takes what is left of a line, without the line feed.
    std::string TakeLine() {
        const std::size_t nBegin = m_nAt;
        const std::size_t nEnd = std::min(m_Text.find('\n', nBegin), m_Text.size());
        m_nAt = nEnd + 1;
        return m_Text.substr(nBegin, nEnd - nBegin);
    }

 private:
    const std::string m_Text;
    std::size_t m_nAt;
};

/// Which kind of line this is; -1 for none.
int KindOf(const std::string& line) {
    for (int nKind = 0; nKind < kKinds; ++nKind) {
        if (line.rfind(kMarks[nKind], 0) == 0) {
            return nKind;
        }
    }
    return -1;
}

/// A log that has its buffers before threads write to it, and gives them back: threads that write the first message at once
/// would each make them.
class ScopedLog {
 public:
    explicit ScopedLog(int nLevel = 0) : m_Level(nLevel) {
        KDebug::Deinit();
        KDebug::Init();
    }
    ~ScopedLog() { KDebug::Deinit(); }
    ScopedLog(const ScopedLog&) = delete;
    ScopedLog& operator=(const ScopedLog&) = delete;

 private:
    const support::ScopedLevel m_Level;
};

TEST_P(RacesTest, LinesOfTheLogStayWholeAndInTheOrderOfTheirThread) {
    const ScopedLog written;
    const int nRounds = Rounds(2000) * kKinds;
    LogText log(support::StderrOf([&] {
        Hammer(Threads(), [&](int nThread) {
            for (int i = 0; i < nRounds; ++i) {
                (i % 2 == 0 ? WriteMessage : WriteText)(i % kKinds, MessageOf(nThread, i));
            }
        });
    }));
    std::vector<int> next(static_cast<std::size_t>(Threads()), 0);
    int nStamps = 0;
    int nLogged = 0;
    while (!log.IsAtEnd()) {
        // Another thread's line may come between a stamp and its message.
        if (log.TakeStamp()) {
            ++nStamps;
            continue;
        }
        const std::string line = log.TakeLine();
        const int nKind = KindOf(line);
        ASSERT_GE(nKind, 0) << line;
        const int nThread = std::atoi(line.c_str() + std::strlen(kMarks[nKind]));
        ASSERT_TRUE(nThread >= 0 && nThread < Threads()) << line;
        int& nNext = next[static_cast<std::size_t>(nThread)];
        ASSERT_EQ(line, kMarks[nNext % kKinds] + MessageOf(nThread, nNext));
        nLogged += nKind == kLogKind ? 1 : 0;
        ASSERT_LE(nLogged, nStamps) << "a message before its stamp";
        ++nNext;
    }
    EXPECT_EQ(next, std::vector<int>(static_cast<std::size_t>(Threads()), nRounds));
    EXPECT_EQ(nStamps, nRounds / kKinds * Threads());
}

/// A thread's time, by which its lines are told: seconds and microseconds.
std::string TimeLineOf(int nThread, int nNumber) {
    char szLine[64];
    std::snprintf(szLine, sizeof szLine, "Time:1970/01/03 16:30:%02d:%06d 6", nThread, nNumber);
    return szLine;
}

TEST_P(RacesTest, TimesAreWrittenWholeBetweenTheLinesOfOthers) {
    const ScopedLog written;
    const int nRounds = Rounds(6000);
    LogText log(support::StderrOf([&] {
        Hammer(Threads(), [&](int nThread) {
            for (int i = 0; i < nRounds; ++i) {
                if (nThread % 2 == 0) {
                    KDebug::Time(KTime(static_cast<long long>(nThread), i, 0, 0));
                } else {
                    WriteText(0, MessageOf(nThread, i));
                }
            }
        });
    }));
    std::vector<int> next(static_cast<std::size_t>(Threads()), 0);
    while (!log.IsAtEnd()) {
        const std::string line = log.TakeLine();
        // Behind the mark stands the thread; of a time, behind the minute.
        const bool fgTime = line.rfind("Time:", 0) == 0;
        const std::size_t nAt = fgTime ? TimeLineOf(0, 0).find("00:000000") : std::strlen(kMarks[0]);
        ASSERT_GT(line.size(), nAt) << line;
        const int nThread = std::atoi(line.c_str() + nAt);
        ASSERT_TRUE(nThread >= 0 && nThread < Threads()) << line;
        int& nNext = next[static_cast<std::size_t>(nThread)];
        ASSERT_EQ(line, nThread % 2 == 0 ? TimeLineOf(nThread, nNext) : kMarks[0] + MessageOf(nThread, nNext));
        ++nNext;
    }
    EXPECT_EQ(next, std::vector<int>(static_cast<std::size_t>(Threads()), nRounds));
}

TEST_P(RacesTest, RecordsOfAFileAreWrittenAndReadWhole) {
    constexpr std::size_t kRecord = 64;
    const ScopedLog quiet(3);
    const support::ScopedDirectory directory;
    KFile file;
    ASSERT_TRUE(file.Open(KPath(directory.Entry("file").c_str()), true));
    Hammer(Threads(), [&](int nThread) {
        char record[kRecord];
        char read[kRecord];
        for (int i = 0; i < Rounds(8000); ++i) {
            std::memset(record, 'a' + nThread + i % 4, kRecord);
            const long long nPlace = static_cast<long long>(kRecord) * nThread;
            EXPECT_TRUE(file.Write(nPlace, record, kRecord));
            EXPECT_TRUE(file.Read(nPlace, read, kRecord));
            EXPECT_EQ(std::memcmp(record, read, kRecord), 0);
        }
    });
    EXPECT_EQ(file.GetSize(), kRecord * static_cast<std::size_t>(Threads()));
    EXPECT_TRUE(file.Close());
}

// Records of one file, which all threads have open as one object. Each thread writes to a place of its own.
constexpr std::size_t kRecord = 64;

long long PlaceOf(int nThread) {
    return static_cast<long long>(kRecord) * nThread;
}

/// Expects of a record that it was written by this thread, or is the gap that a record behind it left.
void ExpectWhole(const char* pRecord, int nThread) {
    EXPECT_TRUE(pRecord[0] == 'a' + nThread || pRecord[0] == '\0') << static_cast<int>(pRecord[0]);
    EXPECT_EQ(std::memcmp(pRecord, pRecord + 1, kRecord - 1), 0);
}

TEST_P(RacesTest, TheSizeOfAFileIsThatOfWholeRecordsAndNeverFalls) {
    const ScopedLog quiet(3);
    const support::ScopedDirectory directory;
    KFile file;
    ASSERT_TRUE(file.Open(KPath(directory.Entry("file").c_str()), true));
    const int nRounds = Rounds(8000);
    Hammer(Threads(), [&](int nThread) {
        char record[kRecord];
        std::size_t nBefore = 0;
        for (int i = 0; i < nRounds; ++i) {
            const long long nPlace = PlaceOf(i * Threads() + nThread);
            std::memset(record, 'a' + nThread, kRecord);
            EXPECT_TRUE(file.Write(nPlace, record, kRecord));
            const std::size_t nSize = file.GetSize();
            EXPECT_EQ(nSize % kRecord, 0u);
            EXPECT_GE(nSize, std::max(nBefore, static_cast<std::size_t>(nPlace) + kRecord));
            nBefore = nSize;
            EXPECT_TRUE(file.SetPosition(i % 2 == 0 ? -1 : i));
            EXPECT_TRUE(file.Read(PlaceOf(i / 2 * Threads() + nThread), record, kRecord));
            ExpectWhole(record, nThread);
        }
    });
    EXPECT_EQ(file.GetSize(), kRecord * static_cast<std::size_t>(Threads() * nRounds));
    EXPECT_TRUE(file.Close());
}

/// The owner's turn: opens the file anew, and leaves it renamed, deleted, closed or open.
void TakeTurnOfOwner(KFile& file, const KPath& path, int nTurn) {
    KPath target(path.GetPath() + "-renamed");
    const std::string name = path.GetPath().GetBuffer();
    EXPECT_TRUE(file.Open(path, true));
    switch (nTurn % 4) {
        case 0:
            // False when somebody closed it before.
            if (file.Rename(target)) {
                EXPECT_FALSE(std::filesystem::exists(name));
                EXPECT_TRUE(std::filesystem::remove(name + "-renamed"));
            }
            break;
        case 1:
            if (file.Delete()) {
                EXPECT_FALSE(std::filesystem::exists(name));
            }
            break;
        case 2:
            EXPECT_TRUE(file.Close());
            EXPECT_FALSE(file.Delete()) << "nobody else opens it";
            EXPECT_TRUE(file.Create(true));
            break;
        default:
            break;
    }
}

/// The turn of the others, who find it open or closed.
void TakeTurnOfUser(KFile& file, int nThread, int nThreads, int nTurn) {
    char record[kRecord];
    std::memset(record, 'a' + nThread, kRecord);
    file.Write(PlaceOf(nThread), record, kRecord);
    if (file.Read(PlaceOf(nThread), record, kRecord)) {
        ExpectWhole(record, nThread);
    }
    file.SetPosition(nTurn);
    const std::size_t nSize = file.GetSize();
    if (nSize != static_cast<std::size_t>(-1)) {
        EXPECT_EQ(nSize % kRecord, 0u);
        EXPECT_LE(nSize, kRecord * static_cast<std::size_t>(nThreads));
    }
    if (nTurn % 16 == nThread) {
        EXPECT_TRUE(file.Close());
    }
}

TEST_P(RacesTest, AFileIsOpenedRenamedAndDeletedUnderThoseWhoUseIt) {
    const ScopedLog quiet(3);
    const support::ScopedChecks checks(false);
    const support::ScopedDirectory directory;
    const std::vector<int> before = support::OpenDescriptors();
    KFile file;
    const KPath path(directory.Entry("file").c_str());
    Hammer(Threads(), [&](int nThread) {
        for (int i = 0; i < Rounds(4000); ++i) {
            // What works with the file's own path is for one thread at a time: the path itself has no lock.
            if (nThread == 0) {
                TakeTurnOfOwner(file, path, i);
            } else {
                TakeTurnOfUser(file, nThread, Threads(), i);
            }
        }
    });
    EXPECT_TRUE(file.Close());
    EXPECT_EQ(support::OpenDescriptors(), before) << "a stream was lost";
}

TEST_P(RacesTest, AFileThatHasNoPositionGivesItsLockBackToAll) {
    // A success would keep the lock for good. A pipe has no position, and a closed file has none either.
    const ScopedLog quiet(3);
    const support::ScopedChecks checks(false);
    const support::ScopedDirectory directory;
    const std::string name = directory.Entry("pipe");
    ASSERT_EQ(mkfifo(name.c_str(), 0600), 0);
    const int nOtherEnd = open(name.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(nOtherEnd, 0);
    const std::vector<int> before = support::OpenDescriptors();
    KFile file;
    const KPath path(name.c_str());
    Hammer(Threads(), [&](int nThread) {
        char chByte = 'x';
        for (int i = 0; i < Rounds(8000); ++i) {
            if (nThread == 0 && i % 4 == 0) {
                EXPECT_TRUE(file.Open(path, false));
            }
            long long nPosition = 7;
            EXPECT_FALSE(file.GetPosition(nPosition));
            EXPECT_EQ(nPosition, -1);
            EXPECT_FALSE(file.SetPosition(0));
            EXPECT_EQ(file.GetSize(), static_cast<std::size_t>(-1));
            EXPECT_FALSE(file.Read(0, &chByte, 1));
            if (i % 16 == nThread) {
                EXPECT_TRUE(file.Close());
            }
        }
    });
    EXPECT_TRUE(file.Close());
    EXPECT_EQ(support::OpenDescriptors(), before) << "a stream was lost";
    close(nOtherEnd);
}

/// The numbers that stand behind a text.
std::set<int> NumbersBehind(const std::string& text, const std::string& sought) {
    std::set<int> numbers;
    for (auto n = text.find(sought); n != std::string::npos; n = text.find(sought, n + 1)) {
        numbers.insert(std::atoi(text.c_str() + n + sought.size()));
    }
    return numbers;
}

TEST_P(RacesTest, DirectoriesOfAllThreadsCountTheirEntriesTogether) {
    constexpr int kEntries = 5;  // With the directory itself and its parent.
    const support::ScopedDirectory scratch;
    for (const char* const pszName : {"a", "b", "c"}) {
        scratch.File(pszName, "");
    }
    const ScopedLog written;
    const int nRounds = Rounds(800);
    const std::string log = support::StderrOf([&] {
        Hammer(Threads(), [&](int) {
            KPath path(scratch.Path().c_str());
            for (int i = 0; i < nRounds; ++i) {
                KDirectory own;
                EXPECT_TRUE(own.Open(path));
                EXPECT_EQ(own.GetCount(), kEntries);
                KPath entry;
                EXPECT_TRUE(own.Read(2, entry));
                EXPECT_STREQ(entry.GetPath().GetBuffer(), "a");
                EXPECT_TRUE(own.Close());
            }
        });
    });
    // Whoever reads an entry has the next number.
    const std::set<int> numbers = NumbersBehind(log, "is Alread Read ");
    const int nAll = kEntries * nRounds * Threads();
    ASSERT_EQ(numbers.size(), static_cast<std::size_t>(nAll));
    EXPECT_EQ(*numbers.rbegin() - *numbers.begin(), nAll - 1);
}

TEST_P(RacesTest, NodesAreAddedAndCountedWhole) {
    const support::ScopedChecks checks(false);
    support::Tree tree;
    const int nRounds = Rounds(2400);
    Hammer(Threads(), [&](int nThread) {
        int nBefore = 0;
        for (int i = 0; i < nRounds; ++i) {
            KPropertyNode* const pNode = new KPropertyNode();
            pNode->Set(PROPERTY_STRING, KString(std::to_string(nThread).c_str()));
            EXPECT_TRUE(tree.Root().AddNode(pNode));
            const int nCount = tree.Root().GetNodeCount();
            EXPECT_GT(nCount, nBefore);
            nBefore = nCount;
            EXPECT_NE(tree.Root().GetNode(nCount - 1), nullptr);
        }
    });
    EXPECT_EQ(tree.Root().GetNodeCount(), nRounds * Threads());
}

TEST_P(RacesTest, TypeAndTextOfANodeAreStoredTogether) {
    static const char* const texts[] = {"a boolean, in a text that is long enough for a block of its own",
                                        "a string, in a text that is long enough for a block of its own, and longer"};
    KPropertyNode node;
    Meeting round(Threads());
    Hammer(Threads(), [&](int nThread) {
        const KString own(texts[nThread % 2]);
        for (int i = 0; i < Rounds(800); ++i) {
            for (int j = 0; j < 20; ++j) {
                EXPECT_TRUE(node.Set(nThread % 2 == 0 ? PROPERTY_BOOLEAN : PROPERTY_STRING, own));
            }
            // Read while nobody writes.
            round.Wait();
            const bool fgString = node.GetValueType() == PROPERTY_STRING;
            EXPECT_STREQ(node.GetStringValue().GetBuffer(), texts[fgString ? 1 : 0]);
            round.Wait();
        }
    });
}

TEST_P(RacesTest, ChildrenAreTakenOutOfANodeOneByOne) {
    constexpr int kOwn = 2;
    const support::ScopedChecks checks(false);
    const int nRounds = Rounds(16000);
    const auto nEach = static_cast<std::size_t>(nRounds) + kOwn;
    std::vector<KPropertyNode> children(static_cast<std::size_t>(Threads()) * nEach);
    KPropertyNode parent;
    Hammer(Threads(), [&](int nThread) {
        KPropertyNode* pOwn = &children[static_cast<std::size_t>(nThread) * nEach];
        for (int i = 0; i < kOwn; ++i) {
            EXPECT_TRUE(parent.AddNode(pOwn++));
        }
        for (int i = 0; i < nRounds; ++i) {
            EXPECT_TRUE(parent.AddNode(pOwn++));
            // Each thread has put in more than it has taken out, so that there is one at this place, whoever's it is.
            EXPECT_TRUE(parent.RemoveNode(i % 2));
            EXPECT_GE(parent.GetNodeCount(), kOwn);
        }
    });
    EXPECT_EQ(parent.GetNodeCount(), kOwn * Threads());
    std::set<const KPropertyNode*> left;
    while (parent.GetNodeCount() > 0) {
        left.insert(support::TakeFirstChild(parent));
    }
    EXPECT_EQ(left.size(), static_cast<std::size_t>(kOwn * Threads())) << "one is in the node twice";
}

TEST_P(RacesTest, ATreeIsReadByAllThreadsAtOnce) {
    const ScopedLog quiet(3);
    support::ReadList read(
        KString("<dict><key>Camera</key><dict><key>Name</key><string>North gate, beside the bridge over the river"
                "</string></dict><key>Ports</key><array><integer>80</integer><integer>554</integer></array></dict>"));
    const std::string wanted = read.Dump();
    ASSERT_THAT(wanted, testing::HasSubstr("string(North gate, beside"));
    Hammer(Threads(), [&](int) {
        KList<KString> path;
        path.Add(KString("Camera"));
        path.Add(KString("Name"));
        for (int i = 0; i < Rounds(4800); ++i) {
            KPropertyNode** const ppName = read.Root().GetNode(path);
            ASSERT_NE(ppName, nullptr);
            KPropertyNode** const ppText = (*ppName)->GetNode(0);
            ASSERT_NE(ppText, nullptr);
            EXPECT_STREQ((*ppText)->GetStringValue().GetBuffer(), "North gate, beside the bridge over the river");
            EXPECT_EQ(read.Dump(), wanted);
        }
    });
}

TEST_P(RacesTest, PropertyListsAreReadSideBySide) {
    const ScopedLog quiet(3);
    const support::ScopedDirectory directory;
    Hammer(Threads(), [&](int nThread) {
        const std::string name =
            "a name that is long enough for a block of its own, of thread " + std::to_string(nThread);
        for (int i = 0; i < Rounds(1600); ++i) {
            const std::string number = std::to_string(i);
            const std::string text = "<plist><dict><key>Name</key><string>" + name +
                                     "</string><key>Number</key><integer>" + number + "</integer></dict></plist>";
            const std::string wanted = "key(Name){string(" + name + ")}key(Number){integer(" + number + ")}";
            support::ReadList fromText{KString(text.c_str())};
            EXPECT_EQ(fromText.Dump(), wanted);
            support::ReadList fromFile{KPath(directory.File(std::to_string(nThread), text).c_str())};
            EXPECT_EQ(fromFile.Dump(), wanted);
        }
    });
}

struct Worker : KThread {
    ~Worker() override { Stop(); }
};

TEST_P(RacesTest, ThreadsEndHoweverTheyArePausedMeanwhile) {
    Hammer(Threads(), [&](int) {
        for (int i = 0; i < Rounds(160); ++i) {
            Worker worker;
            EXPECT_TRUE(worker.Start(0, KThread::NORMAL, -1, nullptr));
            std::thread meddler([&worker] {
                for (int j = 0; j < 20; ++j) {
                    worker.Pause();
                    worker.SetSpeed(j % 2);
                    worker.Resume();
                }
            });
            EXPECT_TRUE(worker.Stop());
            meddler.join();
            EXPECT_TRUE(worker.Stop());
        }
    });
}

/// Counts its bodies: those that run, and all that ever did.
struct Body : KThread {
    ~Body() override { Stop(); }

    int ThreadMainLoop() override {
        EXPECT_EQ(++nRunning, 1);
        ++nRuns;
        KThread::ThreadMainLoop();
        return --nRunning;
    }

    // Of the body and, while there is none, of the owner.
    int nRunning = 0;
    int nRuns = 0;
};

/// What any thread may do to a thread that it does not own.
void Meddle(KThread& thread, int nTurn) {
    const int nStatus = thread.GetStatus();
    EXPECT_TRUE(nStatus >= KThread::RUNNING && nStatus <= KThread::STOPPED) << nStatus;
    thread.Pause();
    thread.Resume();
    thread.IsPaused();
    thread.IsRunning();
    thread.SetSpeed(nTurn % 2);
    const int nSpeed = thread.GetSpeed();
    EXPECT_TRUE(nSpeed == 0 || nSpeed == 1) << nSpeed;
}

TEST_P(RacesTest, AThreadHasOneOwnerAtATimeAndTheStatusOperationsAreEverybodys) {
    Body body;
    std::mutex owner;
    int nStarts = 0;
    Hammer(Threads(), [&](int nThread) {
        for (int i = 0; i < Rounds(1600); ++i) {
            std::unique_lock<std::mutex> lock(owner, std::defer_lock);
            if (i % 4 != nThread % 4 || !lock.try_lock()) {
                Meddle(body, i);
                continue;
            }
            ++nStarts;
            EXPECT_TRUE(body.Start(0, KThread::NORMAL, -1, nullptr));
            while (i % 3 != 0 && !body.IsRunning()) {
                std::this_thread::yield();
            }
            EXPECT_TRUE(body.Stop());
            EXPECT_EQ(body.GetStatus(), KThread::STOPPED);
            EXPECT_EQ(body.nRunning, 0);
            EXPECT_EQ(body.nRuns, nStarts);
        }
    });
    EXPECT_GT(nStarts, 0);
}

TEST_P(RacesTest, TheSystemsDescriptionIsReadWhole) {
    const ScopedLog quiet(3);
    KSystem& system = *KSystem::Init();
    ASSERT_TRUE(system.SetOSInfo());
    const KSystem::OSInformation wanted = KSystem::GetOSInfo();
    Hammer(Threads(), [&](int nThread) {
        for (int i = 0; i < Rounds(16000); ++i) {
            if (nThread % 2 == 0) {
                EXPECT_TRUE(system.SetOSInfo());
            } else {
                const KSystem::OSInformation info = KSystem::GetOSInfo();
                EXPECT_STREQ(info.m_strName.GetBuffer(), wanted.m_strName.GetBuffer());
                EXPECT_STREQ(info.m_strVersion.GetBuffer(), wanted.m_strVersion.GetBuffer());
            }
        }
    });
    KSystem::Deinit();
}

/// Reads every record that nothing fills.
void ExpectUnfilledRecords() {
    const KSystem::HardwareInformation hardware = KSystem::GetHWInfo();
    EXPECT_EQ(hardware.m_strName.Length() + hardware.m_strVersion.Length() + hardware.m_nValue, 0);
    const KSystem::UserInformation user = KSystem::GetUserInfo();
    EXPECT_EQ(user.m_strName.Length() + user.m_Path.GetPath().Length() + user.m_nValue, 0);
    const KSystem::StorageInformation storage = KSystem::GetStorageInfo();
    for (const KPath* const pPath : {&storage.m_Path1, &storage.m_Path2, &storage.m_Path3}) {
        EXPECT_EQ(pPath->GetPath().Length(), 0);
    }
    const KSystem::ApplicationInformation program = KSystem::GetAppInfo();
    EXPECT_EQ(program.m_Path.GetPath().Length() + program.m_ConfigPath.GetPath().Length(), 0);
    EXPECT_EQ(program.m_Arguments.GetCount() + program.m_Environment.GetCount(), 0);
}

TEST_P(RacesTest, TheProgramIsDescribedByOneThreadAtATime) {
    const ScopedLog written;
    KSystem& system = *KSystem::Init();
    const int nRounds = Rounds(3200);
    LogText log(support::StderrOf([&] {
        Hammer(Threads(), [&](int nThread) {
            const std::string name = "thread " + std::to_string(nThread);
            const KString text(name.c_str());
            KPath path(name.c_str());
            for (int i = 0; i < nRounds; ++i) {
                EXPECT_TRUE(system.SetAppInfo(text, path));
                EXPECT_TRUE(system.SetHWInfo() && system.SetUserInfo() && system.SetDiskInfo() &&
                            system.SetDefaultStoragePathInfo());
                ExpectUnfilledRecords();
            }
        });
    }));
    KSystem::Deinit();
    // The two lines of one description stand together.
    int nDescriptions = 0;
    for (; !log.IsAtEnd(); ++nDescriptions) {
        ASSERT_TRUE(log.TakeStamp());
        const std::string line = log.TakeLine();
        const std::string mark = "AppName: ";
        ASSERT_EQ(line.rfind(mark + "thread ", 0), 0u) << line;
        ASSERT_TRUE(log.TakeStamp());
        ASSERT_EQ(log.TakeLine(), "Configurefile: " + line.substr(mark.size()));
    }
    EXPECT_EQ(nDescriptions, nRounds * Threads());
}

/// Two settings stores: how often each was written to. What is read from one tells which it is.
std::atomic<int> g_nWritten[2];

template <int nStore>
bool WriteToStore(KSystem::RegistryLevel, const KString&, const KString&) {
    ++g_nWritten[nStore];
    return true;
}

template <int nStore>
bool ReadFromStore(KSystem::RegistryLevel, const KString& key, KString& value) {
    value = key;
    value += nStore == 0 ? " of the first" : " of the second";
    return true;
}

void ConnectStore(KSystem& system, int nTurn) {
    switch (nTurn % 3) {
        case 0:
            system.SetRegistryHooks(&WriteToStore<0>, &ReadFromStore<0>);
            break;
        case 1:
            system.SetRegistryHooks(&WriteToStore<1>, &ReadFromStore<1>);
            break;
        default:
            system.SetRegistryHooks(nullptr, nullptr);
    }
}

TEST_P(RacesTest, ASettingGoesToOneStoreWhileTheyAreExchanged) {
    KSystem& system = *KSystem::Init();
    std::atomic<int> nWritten(0);
    g_nWritten[0] = 0;
    g_nWritten[1] = 0;
    Hammer(Threads(), [&](int nThread) {
        const std::string name = "key " + std::to_string(nThread);
        const KString key(name.c_str());
        for (int i = 0; i < Rounds(16000); ++i) {
            if (i % 4 == nThread % 4) {
                ConnectStore(system, i + nThread);
            }
            nWritten += system.WriteRegistry(KSystem::REGISTRY_USER, key, key) ? 1 : 0;
            KString value("none");
            const bool fgRead = system.ReadRegistry(KSystem::REGISTRY_USER, key, value);
            const std::string read = value.GetBuffer();
            EXPECT_TRUE(fgRead ? read == name + " of the first" || read == name + " of the second" : read == "none")
                << read;
        }
    });
    EXPECT_EQ(nWritten, g_nWritten[0] + g_nWritten[1]);
    system.SetRegistryHooks(nullptr, nullptr);
    KSystem::Deinit();
}

KNetInfo Datagrams(const std::string& host) {
    return KNetInfo(KNetInfo::IPV4, KNetInfo::UDP, KNetInfo::UNICAST, host.c_str(), 9);
}

/// The address that a look-up found: a datagram socket "connects" to it without any traffic.
std::string FoundBy(KNet& net) {
    EXPECT_TRUE(net.CreateSocket());
    EXPECT_TRUE(net.SyncConnectWithBlock());
    sockaddr_in address = {};
    socklen_t nSize = sizeof(address);
    EXPECT_EQ(getpeername(net.GetSocket(), reinterpret_cast<sockaddr*>(&address), &nSize), 0);
    EXPECT_TRUE(net.DeleteSocket());
    char szAddress[INET_ADDRSTRLEN] = "";
    return inet_ntop(AF_INET, &address.sin_addr, szAddress, sizeof(szAddress)) != nullptr ? szAddress : "";
}

TEST_P(RacesTest, LookUpsOfDifferentHostsDoNotMix) {
    Hammer(Threads(), [&](int nThread) {
        for (int i = 0; i < Rounds(800); ++i) {
            const std::string host =
                "127." + std::to_string(nThread) + "." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1);
            KNetInfo infos[] = {Datagrams(host), Datagrams("localhost")};
            KNet own(infos[0], 0);
            KNet local(infos[1], 0);
            EXPECT_TRUE(own.GetHostName());
            EXPECT_TRUE(local.GetHostName());
            EXPECT_EQ(FoundBy(own), host);
            EXPECT_EQ(FoundBy(local), "127.0.0.1");
        }
    });
}

TEST_P(RacesTest, AHostEntryIsSharedByCopiesInAllThreads) {
    const std::string host = "127.0.0.4";
    for (int nRound = 0; nRound < 10; ++nRound) {
        KNetInfo info = Datagrams(host);
        auto pFirst = std::make_unique<KNet>(info, 0);
        ASSERT_TRUE(pFirst->GetHostName());
        std::vector<std::unique_ptr<KNet>> copies;
        for (int i = 0; i < Threads(); ++i) {
            copies.push_back(std::make_unique<KNet>(*pFirst));
        }
        // From here on the threads' copies are its only users, and the last one of them ends it.
        pFirst.reset();
        Hammer(Threads(), [&](int nThread) {
            std::unique_ptr<KNet> pOwn = std::move(copies[static_cast<std::size_t>(nThread)]);
            for (int i = 0; i < Rounds(320); ++i) {
                auto pNext = std::make_unique<KNet>(*pOwn);
                *pOwn = KNet();
                *pOwn = *pNext;
                pOwn = std::move(pNext);
            }
            EXPECT_EQ(FoundBy(*pOwn), host);
        });
    }
}

TEST_P(RacesTest, ConversionsOfTimeDoNotMixTheirFields) {
    Hammer(Threads(), [&](int nThread) {
        for (int i = 0; i < Rounds(40000); ++i) {
            const int nSec = nThread * 100000000 + i * 86399;
            const KHumanTime human = KTime::MakeHumanTime(nSec, 0, 0, 0);
            EXPECT_EQ(
                KTime::MakeUnixTime(human.year, human.month, human.day, human.hour, human.minute, human.second, 0, 0),
                nSec);
        }
    });
}

// ------------------------------------------------------------------------------------------------- The order of locks

/// One of everything that has a lock, shared by all threads, and each way in which one of the library's locks is held while
/// another is taken, as CONTRIBUTING.md lists them.
class AllLocks {
 public:
    explicit AllLocks(const std::string& path)
        : m_File(KPath(path.c_str()), true), m_Queue(kBuffers), m_System(*KSystem::Init()) {
        EXPECT_TRUE(m_File.Open());
        m_Path.Add(KString("Key"));
        // The one that is looked for on the path. The first child stays one whatever comes and goes behind it.
        auto* const pKey = new KPropertyNode();
        pKey->Set(PROPERTY_KEY, KString("Key"));
        m_Tree.Root().AddNode(pKey);
    }
    ~AllLocks() {
        KSystem::Deinit();
        m_File.Close();
    }
    AllLocks(const AllLocks&) = delete;
    AllLocks& operator=(const AllLocks&) = delete;

    void TakeAll() {
        HandAFilledBufferOn();
        ChangeTheTree();
        CopyLists();
        FailToMoveInTheFile();
        DescribeTheSystem();
    }

    void ExpectNothingLost() {
        EXPECT_EQ(m_Queue.PopRead(), nullptr);
        std::set<const KDynamicDataBuffer*> home;
        while (const KDynamicDataBuffer* const pBuffer = m_Queue.PopWrite()) {
            EXPECT_TRUE(home.insert(pBuffer).second);
        }
        EXPECT_EQ(home.size(), static_cast<std::size_t>(kBuffers));
        EXPECT_EQ(m_Tree.Root().GetNodeCount(), 1);
    }

 private:
    static constexpr int kBuffers = 4;

    /// A queue's lock and its list's; the user's own: a buffer's, the file's, the log's.
    void HandAFilledBufferOn() {
        if (KDynamicDataBuffer* const pBuffer = m_Queue.PopWrite()) {
            std::memset(pBuffer->LockWriteBuffer(8, 0), 'x', 8);
            pBuffer->SetDataSize(8);
            pBuffer->UnlockWriteBuffer();
            m_Queue.PushWrite(pBuffer);
        }
        if (KDynamicDataBuffer* const pBuffer = m_Queue.PopRead()) {
            EXPECT_TRUE(m_File.Write(0, static_cast<char*>(pBuffer->LockReadBuffer(0)), pBuffer->GetDataSize()));
            KDebug::Debug("a buffer");
            pBuffer->UnlockReadBuffer();
            m_Queue.PushRead(pBuffer);
        }
    }

    /// A node's lock and its list's, from parent to child; a path's lock and that of a node's list.
    void ChangeTheTree() {
        EXPECT_NE(m_Tree.Root().GetNode(m_Path), nullptr);
        auto* const pBranch = new KPropertyNode();
        auto* const pTwig = new KPropertyNode();
        pTwig->AddNode(new KPropertyNode());
        pBranch->AddNode(pTwig);
        {
            // So that the one that is taken out is the one that was put in.
            const std::lock_guard<std::mutex> lock(m_TreeMutex);
            m_Tree.Root().AddNode(pBranch);
            m_Tree.Root().RemoveNode(1);
        }
        delete pBranch;
    }

    /// A list's lock and its copy's; a reader's, and the log's.
    void CopyLists() {
        KList<KString> copy(m_Path);
        m_Other = copy;
        copy = m_Other;
        m_Path = copy;
        KList<KString>::Reader reader(m_Other);
        KDebug::Debug("%s", reader.Next()->GetBuffer());
    }

    /// The file's lock and the log's.
    void FailToMoveInTheFile() { EXPECT_FALSE(m_File.SetPosition(-2)); }

    /// The system's lock and the log's, and those of the lists of a record.
    void DescribeTheSystem() {
        KPath path("configuration");
        EXPECT_TRUE(m_System.SetAppInfo(KString("races"), path));
        EXPECT_EQ(KSystem::GetAppInfo().m_Arguments.GetCount(), 0);
    }

    KFile m_File;
    KManagedDynamicDataQueue m_Queue;
    support::Tree m_Tree;
    std::mutex m_TreeMutex;
    KList<KString> m_Path;
    KList<KString> m_Other;
    KSystem& m_System;
};

/// Takes every lock while the registry's is held for the dispatch.
struct Taker : KMessageHandler {
    explicit Taker(AllLocks& locks) : allLocks(locks) {}

    int HandleMessage(const KMessage&) override {
        ++nReceived;
        allLocks.TakeAll();
        return 0;
    }

    AllLocks& allLocks;
    int nReceived = 0;
};

TEST_P(RacesTest, LocksAreTakenInOneOrder) {
    const ScopedLog written;
    const support::ScopedChecks checks(false);
    const support::ScopedDirectory directory;
    const int nRounds = Rounds(480);
    int nReceived = 0;
    const std::string log = support::StderrOf([&] {
        AllLocks locks(directory.Entry("file"));
        Taker taker(locks);
        Hammer(Threads(), [&](int nThread) {
            Counter own;
            KString name(("order-" + std::to_string(nThread)).c_str());
            KString text("text");
            const KMessage message(text, text, nullptr, 0);
            for (int i = 0; i < nRounds; ++i) {
                KMessageHandler::Register(&own, name);
                KMessageHandler::Register(&taker, name);
                KMessageHandler::SendMessage(name, message);
                KMessageHandler::Unregister(&taker, name);
                KMessageHandler::Unregister(&own, name);
                locks.TakeAll();
            }
            EXPECT_EQ(own.nReceived, nRounds);
        });
        locks.ExpectNothingLost();
        nReceived = taker.nReceived;
    });
    EXPECT_EQ(nReceived, nRounds * Threads());
    EXPECT_EQ(support::CountOf(log, "AppName: races\n"), 2 * nReceived);
    EXPECT_EQ(support::CountOf(log, "Error****: File Position["), 2 * nReceived);
}

// ---------------------------------------------------------------------------------------------- From list to list

TEST_P(RacesTest, ElementsAreMovedOutOfAListUnderThoseWhoFillIt) {
    KList<int> source;
    KList<int> target;
    const int nRounds = Rounds(16000);
    Hammer(Threads(), [&](int nThread) {
        for (int i = 0; i < nRounds; ++i) {
            EXPECT_TRUE(source.Add(nThread * nRounds + i));
            if (i % 8 == nThread % 8) {
                KList<int>::Appender appender(target);
                appender.Take(source);
            }
        }
    });
    KList<int>::Appender(target).Take(source);
    EXPECT_EQ(source.GetCount(), 0);
    // Each thread's elements stand in the order in which it added them, and all are there.
    std::vector<int> next(static_cast<std::size_t>(Threads()), 0);
    KList<int>::Reader reader(target);
    while (const int* const pValue = reader.Next()) {
        ASSERT_EQ(*pValue % nRounds, next[static_cast<std::size_t>(*pValue / nRounds)]++);
    }
    EXPECT_EQ(next, std::vector<int>(static_cast<std::size_t>(Threads()), nRounds));
}

INSTANTIATE_TEST_SUITE_P(Threads, RacesTest, testing::Values(2, 4, 16), testing::PrintToStringParamName());

}  // namespace
