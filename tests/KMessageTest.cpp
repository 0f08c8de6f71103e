#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "KMessage.h"
#include "support/FailingMalloc.h"
#include "support/HeapUse.h"
#include "support/Interpose.h"
#include "support/LittleMemory.h"
#include "support/LogLines.h"
#include "support/MutexCalls.h"
#include "support/Process.h"
#include "support/Registry.h"
#include "support/Support.h"
#include "support/Threads.h"

namespace {

using support::InChildProcess;
using support::kLock;
using support::kUnlock;
using support::ReportedSizes;
using support::ScopedCalls;
using support::ScopedChecks;
using support::ScopedNoMalloc;
using support::StartWithAnEmptyRegistry;
using testing::ElementsAre;
using testing::IsEmpty;

// ------------------------------------------------------------------------------------------------------------ Helpers

KMessage MessageOf(const char* pszText1, const char* pszText2, const std::string& payload) {
    KString text1(pszText1);
    KString text2(pszText2);
    std::string bytes = payload;
    return KMessage(text1, text2, &bytes[0], static_cast<int>(bytes.size()));
}

std::string PayloadOf(const KMessage& message) {
    return message.GetData() == nullptr
               ? std::string()
               : std::string(static_cast<const char*>(message.GetData()), static_cast<std::size_t>(message.GetSize()));
}

/// A message whose size is left over from a payload that is gone.
KMessage StaleMessage(const std::string& payload) {
    KMessage message = MessageOf("old", "old", payload);
    message = KMessage();
    return message;
}

/// A handler that notes what it receives, under a name of its own, in a list that several may share.
class Listener : public KMessageHandler {
 public:
    using Notes = std::vector<std::string>;

    Listener(std::string name, Notes& notes) : m_strName(std::move(name)), m_Notes(notes) {}
    virtual ~Listener() {
        for (std::string& name : m_RegisteredUnder) {
            KString text(name.c_str());
            KMessageHandler::Unregister(this, text);
        }
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    bool Register(const char* pszName) {
        m_RegisteredUnder.emplace_back(pszName);
        KString name(pszName);
        return KMessageHandler::Register(this, name);
    }
    bool Unregister(const char* pszName) {
        KString name(pszName);
        return KMessageHandler::Unregister(this, name);
    }

    int HandleMessage(const KMessage& message) override {
        m_pLast = &message;
        m_nThread = std::this_thread::get_id();
        m_Notes.push_back(m_strName + ":" + message.GetText1().GetBuffer());
        return -77;
    }

    const KMessage* Last() const { return m_pLast; }
    std::thread::id Thread() const { return m_nThread; }

 private:
    std::string m_strName;
    Notes& m_Notes;
    std::vector<std::string> m_RegisteredUnder;
    const KMessage* m_pLast = nullptr;
    std::thread::id m_nThread;
};

int Send(const char* pszName, const char* pszText) {
    return KMessageHandler::SendMessage(KString(pszName), MessageOf(pszText, "", ""));
}

// ------------------------------------------------------------------------------------------------------------ Messages

TEST(KMessageTest, ANewMessageHasEmptyTextsAndNoPayload) {
    const ScopedChecks checks(true);
    const KMessage message;
    EXPECT_EQ(message.GetText1().Length(), 0);
    EXPECT_EQ(message.GetText2().Length(), 0);
    EXPECT_EQ(message.GetData(), nullptr);
    EXPECT_EQ(message.GetSize(), 0);
    EXPECT_FALSE(std::is_polymorphic<KMessage>::value);
}

TEST(KMessageTest, AMessageHasCopiesOfItsTextsAndItsPayload) {
    const ScopedChecks checks(true);
    KString text1("first");
    KString text2("second");
    char bytes[16];
    std::memcpy(bytes, "0123456789\0bcdef", sizeof bytes);
    const KMessage message(text1, text2, bytes, sizeof bytes);
    text1 = "gone";
    text2 = "gone";
    std::memset(bytes, 0, sizeof bytes);
    EXPECT_STREQ(message.GetText1().GetBuffer(), "first");
    EXPECT_STREQ(message.GetText2().GetBuffer(), "second");
    EXPECT_NE(message.GetData(), bytes);
    EXPECT_EQ(message.GetSize(), 16);
    EXPECT_EQ(PayloadOf(message), std::string("0123456789\0bcdef", 16));
}

TEST(KMessageTest, ASizeBelowOneGivesNoPayloadAndNeitherHasACopy) {
    const ScopedChecks checks(true);
    KString text("text");
    char byte = 'x';
    for (const int nSize : {0, -1, INT_MIN}) {
        SCOPED_TRACE(nSize);
        const KMessage message(text, text, &byte, nSize);
        EXPECT_EQ(message.GetData(), nullptr);
        EXPECT_EQ(message.GetSize(), 0);
        const KMessage copy(message);
        EXPECT_EQ(copy.GetData(), nullptr);
        EXPECT_EQ(copy.GetSize(), 0);
        EXPECT_STREQ(copy.GetText1().GetBuffer(), "text");
    }
}

TEST(KMessageTest, ANullPayloadWithASizeFailsTheCheckOfItsCopy) {
    EXPECT_CHECK_FAILS(
        {
            KString text("text");
            const KMessage message(text, text, nullptr, 8);
        },
        "pSrc", "src/api/KMem", "static void KMem::Copy(void*, size_t, const void*, size_t)");
}

TEST(KMessageTest, WithTheChecksOffANullPayloadWithASizeIsZeros) {
    const ScopedChecks checks(false);
    KString text("text");
    const KMessage message(text, text, nullptr, 8);
    EXPECT_EQ(PayloadOf(message), std::string(8, '\0'));
}

TEST(KMessageTest, ACopyHasAPayloadOfItsOwn) {
    const ScopedChecks checks(true);
    auto message = std::make_unique<KMessage>(MessageOf("a", "b", "payload"));
    const KMessage copy(*message);
    EXPECT_NE(copy.GetData(), message->GetData());
    message.reset();
    EXPECT_EQ(PayloadOf(copy), "payload");
    EXPECT_STREQ(copy.GetText1().GetBuffer(), "a");
    EXPECT_STREQ(copy.GetText2().GetBuffer(), "b");
}

TEST(KMessageTest, AssigningTakesTextsAndPayloadWhateverTheirSizes) {
    const ScopedChecks checks(true);
    KMessage message = MessageOf("old", "old", "0123456789");
    for (const char* const pszPayload : {"x", "longer than before, by far", "0123456789"}) {
        auto source = std::make_unique<KMessage>(MessageOf(pszPayload, "two", pszPayload));
        KMessage& result = message = *source;
        source.reset();
        EXPECT_EQ(&result, &message);
        EXPECT_EQ(PayloadOf(message), pszPayload);
        EXPECT_STREQ(message.GetText1().GetBuffer(), pszPayload);
        EXPECT_STREQ(message.GetText2().GetBuffer(), "two");
    }
}

TEST(KMessageTest, AssigningAMessageToItselfChangesNothing) {
    const ScopedChecks checks(true);
    KMessage message = MessageOf("a", "b", "payload");
    const void* const pData = message.GetData();
    const KMessage& self = message;
    message = self;
    EXPECT_EQ(message.GetData(), pData);
    EXPECT_EQ(PayloadOf(message), "payload");
    EXPECT_STREQ(message.GetText1().GetBuffer(), "a");
}

TEST(KMessageTest, AssigningAMessageWithoutPayloadDropsThePayloadAndKeepsTheSize) {
    const ScopedChecks checks(true);
    KMessage message = MessageOf("a", "b", "sixteen bytes...");
    message = MessageOf("c", "d", "");
    EXPECT_EQ(message.GetData(), nullptr);
    EXPECT_EQ(message.GetSize(), 16);
    EXPECT_STREQ(message.GetText1().GetBuffer(), "c");
    EXPECT_STREQ(message.GetText2().GetBuffer(), "d");
}

TEST(KMessageTest, AMessageWhoseSizeIsLeftOverHasNoPayloadToCopy) {
    const ScopedChecks checks(true);
    const KMessage stale = StaleMessage("sixteen bytes...");
    const KMessage copy(stale);
    EXPECT_EQ(copy.GetData(), nullptr);
    EXPECT_EQ(copy.GetSize(), 0);
    KMessage assigned = MessageOf("a", "b", "payload");
    assigned = stale;
    EXPECT_EQ(assigned.GetData(), nullptr);
    EXPECT_EQ(assigned.GetSize(), 7);
    // It takes a payload like any other message.
    assigned = MessageOf("a", "b", "new");
    EXPECT_EQ(PayloadOf(assigned), "new");
}

TEST(KMessageTest, PayloadsAreInTheLeakReportForAsLongAsTheirMessagesLive) {
    InChildProcess([] {
        StartWithAnEmptyRegistry();
        const KMessage kept = MessageOf("a", "b", "12345");
        {
            const KMessage gone = MessageOf("a", "b", "123456");
            KMessage replaced = MessageOf("a", "b", "1234567");
            replaced = kept;
            replaced = KMessage();
        }
        EXPECT_THAT(ReportedSizes(), ElementsAre(5u));
    });
}

// ------------------------------------------------------------------------------------------------------- Registrations

TEST(KMessageTest, AHandlerIsAnInterfaceThatHasOneVirtualOperationInItsFirstSlot) {
    EXPECT_TRUE(std::is_abstract<KMessageHandler>::value);
    EXPECT_EQ(sizeof(KMessageHandler), sizeof(void*));
    Listener::Notes notes;
    Listener listener("L", notes);
    // Called as a program does that knows the first slot alone.
    using Slot = int (*)(KMessageHandler*, const KMessage&);
    KMessageHandler* const pHandler = &listener;
    const Slot* pSlots = nullptr;
    std::memcpy(&pSlots, static_cast<const void*>(pHandler), sizeof pSlots);
    EXPECT_EQ(pSlots[0](pHandler, MessageOf("slot", "", "")), -77);
    EXPECT_THAT(notes, ElementsAre("L:slot"));
}

TEST(KMessageTest, AHandlerReceivesTheVeryMessageOnTheSendingThreadBeforeSendMessageReturns) {
    Listener::Notes notes;
    Listener listener("L", notes);
    EXPECT_TRUE(listener.Register("KMessageTest/very"));
    const KMessage message = MessageOf("hello", "there", "payload");
    std::thread::id nSender;
    std::thread([&] {
        nSender = std::this_thread::get_id();
        EXPECT_EQ(KMessageHandler::SendMessage(KString("KMessageTest/very"), message), 0);
        EXPECT_THAT(notes, ElementsAre("L:hello"));
    }).join();
    EXPECT_EQ(listener.Last(), &message);
    EXPECT_EQ(listener.Thread(), nSender);
}

TEST(KMessageTest, SendingToANameThatNobodyIsRegisteredUnderCallsNobodyAndIsZero) {
    Listener::Notes notes;
    Listener listener("L", notes);
    listener.Register("KMessageTest/somebody");
    for (const char* const pszName :
         {"KMessageTest/nobody", "kmessagetest/somebody", "KMessageTest/somebod", "KMessageTest/somebody ", ""}) {
        EXPECT_EQ(Send(pszName, "x"), 0) << pszName;
    }
    EXPECT_THAT(notes, IsEmpty());
}

TEST(KMessageTest, HandlersAreCalledInTheOrderOfRegistration) {
    Listener::Notes notes;
    Listener a("a", notes);
    Listener b("b", notes);
    Listener c("c", notes);
    b.Register("KMessageTest/order");
    c.Register("KMessageTest/order/other");
    c.Register("KMessageTest/order");
    a.Register("KMessageTest/order");
    EXPECT_EQ(Send("KMessageTest/order", "1"), 0);
    EXPECT_THAT(notes, ElementsAre("b:1", "c:1", "a:1"));
}

TEST(KMessageTest, RegisteringTwiceUnderOneNameIsTrueAndLeavesOneRegistration) {
    Listener::Notes notes;
    Listener listener("L", notes);
    EXPECT_TRUE(listener.Register("KMessageTest/twice"));
    EXPECT_TRUE(listener.Register("KMessageTest/twice"));
    Send("KMessageTest/twice", "1");
    EXPECT_THAT(notes, ElementsAre("L:1"));
    EXPECT_TRUE(listener.Unregister("KMessageTest/twice"));
    EXPECT_FALSE(listener.Unregister("KMessageTest/twice"));
    Send("KMessageTest/twice", "2");
    EXPECT_THAT(notes, ElementsAre("L:1"));
}

TEST(KMessageTest, AHandlerUnderTwoNamesReceivesWhatIsSentToEither) {
    Listener::Notes notes;
    Listener listener("L", notes);
    listener.Register("KMessageTest/one");
    listener.Register("KMessageTest/two");
    Send("KMessageTest/one", "1");
    Send("KMessageTest/two", "2");
    EXPECT_TRUE(listener.Unregister("KMessageTest/one"));
    Send("KMessageTest/one", "3");
    Send("KMessageTest/two", "4");
    EXPECT_THAT(notes, ElementsAre("L:1", "L:2", "L:4"));
}

TEST(KMessageTest, NamesThatEndAlikeAreDifferentNames) {
    Listener::Notes notes;
    Listener listener("L", notes);
    // Eight bytes at the end are the same; two of them have the same length.
    const char* const names[] = {"KMessageTest/a/door/open", "KMessageTest/b/door/open", "KMessageTest/door/open",
                                 "oor/open"};
    for (const char* const pszRegistered : names) {
        listener.Register(pszRegistered);
        for (const char* const pszSent : names) {
            notes.clear();
            Send(pszSent, "1");
            EXPECT_EQ(notes.size(), pszSent == pszRegistered ? 1u : 0u) << pszRegistered << ' ' << pszSent;
        }
        EXPECT_TRUE(listener.Unregister(pszRegistered));
    }
}

TEST(KMessageTest, UnregisteringNeedsBothTheHandlerAndTheName) {
    Listener::Notes notes;
    Listener a("a", notes);
    Listener b("b", notes);
    a.Register("KMessageTest/both");
    EXPECT_FALSE(b.Unregister("KMessageTest/both"));
    EXPECT_FALSE(a.Unregister("KMessageTest/Both"));
    Send("KMessageTest/both", "1");
    EXPECT_THAT(notes, ElementsAre("a:1"));
}

TEST(KMessageTest, UnregisteringFromTheMiddleKeepsTheOthersAndTheirOrder) {
    Listener::Notes notes;
    std::vector<std::unique_ptr<Listener>> listeners;
    std::vector<std::string> expected;
    for (int i = 0; i < 9; ++i) {
        listeners.push_back(std::make_unique<Listener>(std::to_string(i), notes));
        listeners.back()->Register("KMessageTest/middle");
        listeners.back()->Register("KMessageTest/middle/other");
    }
    for (const std::size_t i : {4u, 0u, 8u}) {
        EXPECT_TRUE(listeners[i]->Unregister("KMessageTest/middle"));
    }
    Send("KMessageTest/middle", "x");
    EXPECT_THAT(notes, ElementsAre("1:x", "2:x", "3:x", "5:x", "6:x", "7:x"));
    notes.clear();
    listeners[4]->Register("KMessageTest/middle");
    Send("KMessageTest/middle", "y");
    EXPECT_THAT(notes, ElementsAre("1:y", "2:y", "3:y", "5:y", "6:y", "7:y", "4:y"));
    notes.clear();
    Send("KMessageTest/middle/other", "z");
    EXPECT_THAT(notes, ElementsAre("0:z", "1:z", "2:z", "3:z", "4:z", "5:z", "6:z", "7:z", "8:z"));
}

TEST(KMessageTest, ARegistrationWithoutMemoryForItsNameIsTrueAndLeavesNothing) {
    Listener::Notes notes;
    Listener earlier("earlier", notes);
    Listener first("first", notes);
    Listener second("second", notes);
    EXPECT_TRUE(earlier.Register("memory-earlier"));
    KString name("memory-first");
    // There is memory for the handler's place in its list, and none for the name's; or for that too, and none for the name.
    for (const int nStillWorks : {1, 2}) {
        const ScopedNoMalloc noMemory(nStillWorks);
        EXPECT_TRUE(KMessageHandler::Register(&first, name));
        EXPECT_EQ(noMemory.Refused(), 1);
    }
    EXPECT_TRUE(second.Register("memory-second"));
    Send("memory-earlier", "a");
    Send("memory-first", "b");
    Send("memory-second", "c");
    EXPECT_THAT(notes, ElementsAre("earlier:a", "second:c"));
    EXPECT_FALSE(KMessageHandler::Unregister(&first, name));
}

TEST(KMessageTest, RegistrationsThatAreGoneLeaveNothingAllocated) {
    Listener::Notes notes;
    Listener listener("L", notes);
    KString name("KMessageTest/allocated");
    EXPECT_EQ(support::BytesLeftBy([&] {
                  KMessageHandler::Register(&listener, name);
                  KMessageHandler::Unregister(&listener, name);
              }),
              0u);
}

TEST(KMessageTest, RegistrationsWithoutMemoryForTheNamesTextLeaveNothingAllocated) {
    Listener::Notes notes;
    Listener listener("L", notes);
    KString name("KMessageTest/allocated");
    EXPECT_EQ(support::BytesLeftBy([&] {
                  const ScopedNoMalloc noMemory(2);
                  KMessageHandler::Register(&listener, name);
              }),
              0u);
}

TEST(KMessageTest, ARegistryThatIsEmptyAgainKeepsNoTable) {
    Listener::Notes notes;
    Listener listener("L", notes);
    const auto registerAndUnregister = [&](int nRegistrations) {
        for (bool fgRegisters : {true, false}) {
            for (int i = 0; i < nRegistrations; ++i) {
                KString name(("KMessageTest/table/" + std::to_string(i)).c_str());
                fgRegisters ? KMessageHandler::Register(&listener, name) : KMessageHandler::Unregister(&listener, name);
            }
        }
    };
    registerAndUnregister(8);
    const std::size_t nBefore = support::BytesInUse();
    registerAndUnregister(2000);
    // Libc keeps some small blocks for the next time. The table had more than 40,000 bytes.
    EXPECT_LT(support::BytesInUse(), nBefore + 20000);
}

TEST(KMessageTest, ARegistrationWithoutMemoryAmongManyIsTrueAndLeavesNothing) {
    constexpr int kRegistrations = 2000;
    Listener::Notes notes;
    Listener listener("L", notes);
    const auto nameOf = [](int i) { return KString(("KMessageTest/many/" + std::to_string(10000 + i)).c_str()); };
    std::vector<KString> names;
    for (int i = 0; i < kRegistrations; ++i) {
        names.push_back(nameOf(i));
    }
    std::vector<void*> small(std::size_t{8} * kRegistrations);
    const int nStep = support::InLittleMemory([&] {
        // Small blocks are left, large ones are not: what is the largest is the first that cannot be had.
        for (void*& pBlock : small) {
            pBlock = std::malloc(48);
        }
        void* volatile pTaken = nullptr;
        for (std::size_t nSize = 1 << 24; nSize > 1000; nSize /= 2) {
            do {
                pTaken = std::malloc(nSize);
            } while (pTaken != nullptr);
        }
        for (std::size_t i = 0; i < small.size(); i += 2) {
            std::free(small[i]);
        }
        int nRegistered = 0;
        const KMessage message;
        for (KString& name : names) {
            if (!KMessageHandler::Register(&listener, name)) {
                return 1;
            }
            notes.clear();
            KMessageHandler::SendMessage(name, message);
            if (notes.empty()) {
                break;
            }
            ++nRegistered;
        }
        if (nRegistered == kRegistrations) {
            return 2;
        }
        for (int i = 0; i < kRegistrations; ++i) {
            if (KMessageHandler::Unregister(&listener, names[static_cast<std::size_t>(i)]) != (i < nRegistered)) {
                return 3;
            }
        }
        return 0;
    });
    if (nStep == support::kMemoryCannotBeLimited) {
        GTEST_SKIP() << "memory cannot be limited here";
    }
    EXPECT_EQ(nStep, 0);
}

TEST(KMessageTest, TheNameIsCopiedAtTheRegistration) {
    Listener::Notes notes;
    Listener listener("L", notes);
    KString name("KMessageTest/copied");
    EXPECT_TRUE(KMessageHandler::Register(&listener, name));
    name = "KMessageTest/changed";
    Send("KMessageTest/copied", "1");
    Send("KMessageTest/changed", "2");
    EXPECT_THAT(notes, ElementsAre("L:1"));
    EXPECT_TRUE(listener.Unregister("KMessageTest/copied"));
}

TEST(KMessageTest, ANullHandlerCanBeRegisteredAndIsPassedOver) {
    Listener::Notes notes;
    Listener listener("L", notes);
    KString name("KMessageTest/null");
    EXPECT_TRUE(KMessageHandler::Register(nullptr, name));
    EXPECT_TRUE(KMessageHandler::Register(nullptr, name));
    listener.Register("KMessageTest/null");
    EXPECT_EQ(Send("KMessageTest/null", "1"), 0);
    EXPECT_THAT(notes, ElementsAre("L:1"));
    EXPECT_TRUE(KMessageHandler::Unregister(nullptr, name));
    EXPECT_FALSE(KMessageHandler::Unregister(nullptr, name));
}

TEST(KMessageTest, AnEmptyNameMatchesNothingSoThatItsRegistrationsPileUpUnseen) {
    InChildProcess([] {
        Listener::Notes notes;
        Listener listener("L", notes);
        EXPECT_TRUE(listener.Register(""));
        EXPECT_TRUE(listener.Register(""));
        EXPECT_EQ(Send("", "1"), 0);
        EXPECT_FALSE(listener.Unregister(""));
        EXPECT_THAT(notes, IsEmpty());
        // They are in nobody's way.
        listener.Register("KMessageTest/after");
        Send("KMessageTest/after", "2");
        EXPECT_THAT(notes, ElementsAre("L:2"));
        EXPECT_TRUE(listener.Unregister("KMessageTest/after"));
    });
}

/// Counts how often the registry's or a list's mutex is held while the handler runs.
class LockWatcher : public KMessageHandler {
 public:
    virtual ~LockWatcher() = default;

    int HandleMessage(const KMessage&) override {
        const std::vector<std::string>& names = ScopedCalls::Current()->Names();
        m_nHeld = std::count(names.begin(), names.end(), kLock) - std::count(names.begin(), names.end(), kUnlock);
        return 0;
    }

    std::ptrdiff_t Held() const { return m_nHeld; }

 private:
    std::ptrdiff_t m_nHeld = 0;
};

TEST(KMessageTest, TheRegistryIsLockedWhileAHandlerRunsAndFreeAfterwards) {
    LockWatcher watcher;
    KString name("KMessageTest/locked");
    KMessageHandler::Register(&watcher, name);
    const KMessage message;
    {
        const ScopedCalls calls;
        KMessageHandler::SendMessage(name, message);
        EXPECT_GE(watcher.Held(), 1);
        EXPECT_EQ(std::count(calls.Names().begin(), calls.Names().end(), kLock),
                  std::count(calls.Names().begin(), calls.Names().end(), kUnlock));
    }
    EXPECT_TRUE(KMessageHandler::Unregister(&watcher, name));
}

/// Compares with a plain list of pairs over random registrations, removals and dispatches.
TEST(KMessageTest, AgreesWithAPlainListOfRegistrations) {
    constexpr int kSteps = 3000;
    const char* const names[] = {"KMessageTest/r0", "KMessageTest/r1", "KMessageTest/R1", "KMessageTest/r"};
    Listener::Notes notes;
    std::vector<std::unique_ptr<Listener>> listeners;
    for (int i = 0; i < 6; ++i) {
        listeners.push_back(std::make_unique<Listener>(std::to_string(i), notes));
    }
    std::vector<std::pair<std::size_t, std::size_t>> model;
    unsigned int nRandom = 12345;
    const auto next = [&nRandom](unsigned int nBelow) {
        nRandom = nRandom * 1103515245u + 12345u;
        return (nRandom >> 16) % nBelow;
    };
    for (int nStep = 0; nStep < kSteps; ++nStep) {
        const std::pair<std::size_t, std::size_t> each(next(6), next(4));
        const auto found = std::find(model.begin(), model.end(), each);
        const unsigned int nChoice = next(3);
        if (nChoice == 0) {
            EXPECT_TRUE(listeners[each.first]->Register(names[each.second]));
            if (found == model.end()) {
                model.push_back(each);
            }
        } else if (nChoice == 1) {
            EXPECT_EQ(listeners[each.first]->Unregister(names[each.second]), found != model.end());
            if (found != model.end()) {
                model.erase(found);
            }
        } else {
            std::vector<std::string> expected;
            for (const auto& registration : model) {
                if (registration.second == each.second) {
                    expected.push_back(std::to_string(registration.first) + ":m");
                }
            }
            notes.clear();
            EXPECT_EQ(Send(names[each.second], "m"), 0);
            ASSERT_EQ(notes, expected) << "step " << nStep;
        }
    }
}

// ------------------------------------------------------------------------------------------------------------- Threads

/// A handler that counts without a lock of its own: the registry's is enough.
class Counter : public KMessageHandler {
 public:
    virtual ~Counter() = default;
    int HandleMessage(const KMessage&) override { return ++m_nCount; }
    int Count() const { return m_nCount; }

 private:
    int m_nCount = 0;
};

TEST(KMessageTest, DispatchesFromManyThreadsReachAHandlerOneAtATime) {
    constexpr int kThreads = 4;
    constexpr int kMessages = 2000;
    Counter counter;
    KString name("KMessageTest/threads");
    KMessageHandler::Register(&counter, name);
    const KMessage message;
    support::RunInThreads(kThreads, [&](int) {
        for (int i = 0; i < kMessages; ++i) {
            KMessageHandler::SendMessage(name, message);
        }
    });
    EXPECT_TRUE(KMessageHandler::Unregister(&counter, name));
    EXPECT_EQ(counter.Count(), kThreads * kMessages);
}

TEST(KMessageTest, ThreadsRegisterUnregisterAndDispatchAtOnce) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 500;
    Counter constant;
    KString shared("KMessageTest/shared");
    KMessageHandler::Register(&constant, shared);
    std::vector<Counter> own(kThreads);
    const KMessage message;
    support::RunInThreads(kThreads, [&](int nThread) {
        Counter& counter = own[static_cast<std::size_t>(nThread)];
        KString name(("KMessageTest/own" + std::to_string(nThread)).c_str());
        for (int i = 0; i < kRounds; ++i) {
            EXPECT_TRUE(KMessageHandler::Register(&counter, name));
            EXPECT_TRUE(KMessageHandler::Register(&counter, shared));
            EXPECT_EQ(KMessageHandler::SendMessage(name, message), 0);
            EXPECT_EQ(KMessageHandler::SendMessage(shared, message), 0);
            EXPECT_TRUE(KMessageHandler::Unregister(&counter, shared));
            EXPECT_TRUE(KMessageHandler::Unregister(&counter, name));
            EXPECT_FALSE(KMessageHandler::Unregister(&counter, name));
        }
    });
    EXPECT_EQ(constant.Count(), kThreads * kRounds);
    for (const Counter& counter : own) {
        // Each was sent to under its own name, and under the shared one at least by itself.
        EXPECT_GE(counter.Count(), 2 * kRounds);
        EXPECT_LE(counter.Count(), kRounds + kThreads * kRounds);
    }
    EXPECT_TRUE(KMessageHandler::Unregister(&constant, shared));
    EXPECT_FALSE(KMessageHandler::Unregister(&constant, shared));
}

TEST(KMessageTest, AHandlerThatWasUnregisteredIsNotCalledAnyMore) {
    constexpr int kRounds = 200;
    KString name("KMessageTest/short-lived");
    const KMessage message;
    bool fgDone = false;
    KMutex mutex;
    std::thread sender([&] {
        for (bool fgEnd = false; !fgEnd;) {
            KMessageHandler::SendMessage(name, message);
            mutex.Lock();
            fgEnd = fgDone;
            mutex.Unlock();
        }
    });
    for (int i = 0; i < kRounds; ++i) {
        // Freed as soon as it is unregistered: a late call would touch what is gone.
        const auto handler = std::make_unique<Counter>();
        KMessageHandler::Register(handler.get(), name);
        KMessageHandler::Unregister(handler.get(), name);
    }
    mutex.Lock();
    fgDone = true;
    mutex.Unlock();
    sender.join();
}

TEST(KMessageTest, MessagesAreMadeAndSentByManyThreadsUnderALockOfTheirOwn) {
    constexpr int kThreads = 4;
    constexpr int kMessages = 300;
    Listener::Notes notes;
    Listener listener("L", notes);
    listener.Register("KMessageTest/made");
    std::mutex memory;
    support::RunInThreads(kThreads, [&](int nThread) {
        for (int i = 0; i < kMessages; ++i) {
            const std::string text = std::to_string(nThread) + "." + std::to_string(i);
            std::unique_ptr<KMessage> message;
            {
                const std::lock_guard<std::mutex> lock(memory);
                message = std::make_unique<KMessage>(MessageOf(text.c_str(), "", text));
            }
            KMessageHandler::SendMessage(KString("KMessageTest/made"), *message);
            EXPECT_EQ(PayloadOf(*message), text);
            const std::lock_guard<std::mutex> lock(memory);
            message.reset();
        }
    });
    EXPECT_EQ(notes.size(), static_cast<std::size_t>(kThreads * kMessages));
}

}  // namespace
