// Every class that threads may share, hammered by 2, 4 and 16 of them at once, with something that has to hold whatever their
// order. The thread sanitizer sees what only looks right.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "KAssert.h"
#include "KDebug.h"
#include "KFile.h"
#include "KList.h"
#include "KMessage.h"
#include "KPropertyList.h"
#include "KQueue.h"
#include "KSystem.h"
#include "KThread.h"
#include "KTime.h"
#include "support/PropertyTree.h"
#include "support/Support.h"

namespace {

/// Runs the same code in several threads, which start together. It is told which of them it is.
template <typename Code>
void Hammer(int nThreads, const Code& code) {
    std::mutex mutex;
    std::condition_variable all;
    int nWaiting = nThreads;
    std::vector<std::thread> threads;
    for (int i = 0; i < nThreads; ++i) {
        threads.emplace_back([&, i] {
            {
                std::unique_lock<std::mutex> lock(mutex);
                --nWaiting;
                all.notify_all();
                all.wait(lock, [&] { return nWaiting == 0; });
            }
            code(i);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

class RacesTest : public testing::TestWithParam<int> {
 protected:
    static int Threads() { return GetParam(); }
    /// The same work however many share it.
    static int Rounds(int nAll) { return nAll / GetParam(); }
};

TEST_P(RacesTest, AMutexLetsOneThreadInAtATime) {
    KMutex mutex;
    int nInside = 0;
    int nSum = 0;
    bool fgAlone = true;
    const int nRounds = Rounds(16000);
    Hammer(Threads(), [&](int) {
        for (int i = 0; i < nRounds; ++i) {
            if (i % 4 != 0 || !mutex.TryLock()) {
                mutex.Lock();
            }
            fgAlone = fgAlone && ++nInside == 1;
            ++nSum;
            --nInside;
            mutex.Unlock();
        }
    });
    EXPECT_TRUE(fgAlone);
    EXPECT_EQ(nSum, nRounds * Threads());
}

TEST_P(RacesTest, AListNeitherLosesNorDoublesAnElement) {
    KList<int> list;
    std::atomic<long long> nTaken(0);
    std::atomic<int> nCount(0);
    const int nRounds = Rounds(4000);
    Hammer(Threads(), [&](int nThread) {
        for (int i = 0; i < nRounds; ++i) {
            EXPECT_TRUE(list.Add(nThread * nRounds + i));
            int nOut = -1;
            // From the front, or from wherever there is one.
            if (i % 2 == 0 && list.Pop(nOut, i % 4 == 0 ? -1 : i % 3)) {
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
    // Elements come in pairs of neighbours under the list's lock, and are taken out singly by nobody.
    KList<KString> list;
    Hammer(Threads(), [&](int nThread) {
        for (int i = 0; i < Rounds(320); ++i) {
            if (nThread % 2 == 0) {
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
    const int nRounds = Rounds(1600);
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

TEST_P(RacesTest, ABufferOfAQueueBelongsToOneThreadAtATime) {
    constexpr int kBuffers = 5;
    const int nQueue = 40 + Threads();
    KManagedDynamicDataQueue::Create(nQueue, kBuffers);
    KManagedDynamicDataQueue& queue = *KManagedDynamicDataQueue::GetInstance(nQueue);
    std::atomic<int> nWritten(0), nRead(0), nWrong(0);
    const int nRounds = Rounds(4000);
    Hammer(Threads(), [&](int nThread) {
        for (int i = 0; i < nRounds; ++i) {
            if (KDynamicDataBuffer* const pBuffer = queue.PopWrite()) {
                std::memset(pBuffer->LockWriteBuffer(512, 0), nThread + 1, 512);
                pBuffer->SetDataSize(512);
                pBuffer->UnlockWriteBuffer();
                queue.PushWrite(pBuffer);
                ++nWritten;
            }
            if (KDynamicDataBuffer* const pBuffer = queue.PopRead()) {
                const auto* const pBytes = static_cast<const unsigned char*>(pBuffer->LockReadBuffer(0));
                nWrong += std::count(pBytes, pBytes + 512, pBytes[0]) == 512 ? 0 : 1;
                pBuffer->UnlockReadBuffer();
                queue.PushRead(pBuffer);
                ++nRead;
            }
        }
    });
    EXPECT_EQ(nWrong, 0);
    EXPECT_LE(nRead, nWritten);
    EXPECT_LE(nWritten - nRead, kBuffers);
    queue.ClearAll();
    KManagedDynamicDataQueue::Delete(nQueue);
}

TEST_P(RacesTest, ABufferIsWrittenByOneThreadAtATime) {
    KDynamicDataBuffer buffer(sizeof(int));
    *static_cast<int*>(buffer.LockWriteBuffer(sizeof(int), 0)) = 0;
    buffer.SetDataSize(sizeof(int));
    buffer.UnlockWriteBuffer();
    const int nRounds = Rounds(16000);
    Hammer(Threads(), [&](int) {
        for (int i = 0; i < nRounds; ++i) {
            ++*static_cast<int*>(buffer.LockWriteBuffer(sizeof(int), 0));
            buffer.UnlockWriteBuffer();
        }
    });
    EXPECT_EQ(*static_cast<int*>(buffer.LockReadBuffer(0)), nRounds * Threads());
    buffer.UnlockReadBuffer();
}

TEST_P(RacesTest, ErrorLinesOfTheLogStayWhole) {
    const support::ScopedLevel level(2);
    KDebug::Error("first");
    const int nRounds = Rounds(800);
    const std::string strLog = support::StderrOf([&] {
        Hammer(Threads(), [&](int nThread) {
            for (int i = 0; i < nRounds; ++i) {
                KDebug::Error("%d:%s", nThread, std::string(40, static_cast<char>('a' + nThread)).c_str());
            }
        });
    });
    std::istringstream lines(strLog);
    int nLines = 0;
    for (std::string strLine; std::getline(lines, strLine); ++nLines) {
        const int nThread = std::stoi(strLine.substr(strlen("Error****: ")));
        EXPECT_EQ(strLine,
                  "Error****: " + std::to_string(nThread) + ":" + std::string(40, static_cast<char>('a' + nThread)));
    }
    EXPECT_EQ(nLines, nRounds * Threads());
}

TEST_P(RacesTest, RecordsOfAFileAreWrittenAndReadWhole) {
    constexpr std::size_t kRecord = 64;
    const support::ScopedLevel level(3);
    const support::ScopedDirectory directory;
    KFile file;
    ASSERT_TRUE(file.Open(KPath(directory.Entry("file").c_str()), true));
    Hammer(Threads(), [&](int nThread) {
        char record[kRecord];
        char read[kRecord];
        for (int i = 0; i < Rounds(1600); ++i) {
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

TEST_P(RacesTest, NodesAreAddedAndCountedWhole) {
    const support::ScopedChecks checks(false);
    support::Tree tree;
    const int nRounds = Rounds(1600);
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

struct Worker : KThread {
    ~Worker() override { Stop(); }
};

TEST_P(RacesTest, ThreadsEndHoweverTheyArePausedMeanwhile) {
    Hammer(Threads(), [&](int) {
        for (int i = 0; i < Rounds(64); ++i) {
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

TEST_P(RacesTest, TheSystemsDescriptionIsReadWhole) {
    const support::ScopedLevel level(3);
    KSystem& system = *KSystem::Init();
    ASSERT_TRUE(system.SetOSInfo());
    const KSystem::OSInformation wanted = KSystem::GetOSInfo();
    Hammer(Threads(), [&](int nThread) {
        for (int i = 0; i < Rounds(1600); ++i) {
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

TEST_P(RacesTest, ConversionsOfTimeDoNotMixTheirFields) {
    Hammer(Threads(), [&](int nThread) {
        for (int i = 0; i < Rounds(8000); ++i) {
            const int nSec = nThread * 100000000 + i * 86399;
            const KHumanTime human = KTime::MakeHumanTime(nSec, 0, 0, 0);
            EXPECT_EQ(
                KTime::MakeUnixTime(human.year, human.month, human.day, human.hour, human.minute, human.second, 0, 0),
                nSec);
        }
    });
}

INSTANTIATE_TEST_SUITE_P(Threads, RacesTest, testing::Values(2, 4, 16), testing::PrintToStringParamName());

}  // namespace
