// Texts, blocks, lists, paths, times, messages, queues and trees: all of them ask for memory, and some for a mutex.
#include <climits>
#include <cwchar>

#include "KDebug.h"
#include "KList.h"
#include "KMem.h"
#include "KMessage.h"
#include "KPath.h"
#include "KPropertyList.h"
#include "KQueue.h"
#include "KTime.h"
#include "torture/Scenarios.h"

namespace torture {

namespace {

// ------------------------------------------------------------------------------------------------------------- Texts

void TextIsAssignedAndEdited() {
    Made<KString> text("one,two,three");
    std::string model = text.LackedMemory() ? "" : "one,two,three";
    EXPECT_EQ(TextOf(*text), model);

    const Step append([&] { *text += ",four"; });
    model += append.LackedMemory() ? "" : ",four";
    EXPECT_EQ(TextOf(*text), model);

    const Step appendItself([&] { *text += *text; });
    // The copy that is appended, or the room for it, may be what is lacking.
    model += appendItself.LackedMemory() ? "" : model;
    EXPECT_EQ(TextOf(*text), model);

    bool fgReplaced = false;
    const std::string before = model;
    const Step replace([&] { fgReplaced = text->Replace("two", "deux,zwei"); });
    EXPECT_EQ(fgReplaced, !replace.LackedMemory());
    if (replace.LackedMemory()) {
        EXPECT_EQ(TextOf(*text), before);
    } else if (!HasFailed()) {
        EXPECT_EQ(TextOf(*text), "one,deux,zwei,three,fourone,deux,zwei,three,four");
    }

    const Step assign([&] { *text = "  trimmed "; });
    EXPECT_EQ(TextOf(*text), assign.LackedMemory() ? "" : "  trimmed ");
    const Step trim([&] { text->Trim(' '); });
    EXPECT_LE(text->Length(), 10);
}

void PartsOfATextAreTaken() {
    const KString text("one,two,three");
    KString part;
    const Step sub([&] { part = text.Sub(4, 7); });
    EXPECT_EQ(TextOf(part), sub.LackedMemory() ? "" : "two");

    KString inserted;
    const Step insert([&] { inserted = text.Insert(3, " and a half"); });
    if (!insert.LackedMemory()) {
        EXPECT_EQ(TextOf(inserted), "one and a half,two,three");
    } else {
        // Whichever part was lacking is left out.
        EXPECT_LT(inserted.Length(), 24);
    }

    KList<KString> fields;
    const Step divide([&] { text.Divide(",", fields); });
    if (!divide.LackedMemory()) {
        EXPECT_EQ(fields.GetCount(), HasFailed() && fields.GetCount() == 0 ? 0 : 3);
    } else {
        EXPECT_LE(fields.GetCount(), 3);
    }
}

void TextIsFormatted() {
    KString text("before");
    int nCount = 0;
    const Step format([&] { nCount = text.Sprintf("%d %s", 42, "answers"); });
    if (format.Failed()) {
        EXPECT_EQ(nCount, format.LackedMemory() ? 0 : -1);
        EXPECT_EQ(TextOf(text), "before");
    } else {
        EXPECT_EQ(nCount, 10);
        EXPECT_EQ(TextOf(text), "42 answers");
    }
}

void TextIsConverted() {
    const KString text("wide");
    wchar_t szWide[16] = {};
    int nWide = 0;
    const Step widen([&] { nWide = text.GetWideString(szWide, 16); });
    EXPECT_EQ(nWide, widen.Failed("mbstowcs") ? -1 : 4);

    KString narrow;
    const Step back([&] { narrow = KString::FromWideString(L"narrow"); });
    if (back.LackedMemory()) {
        EXPECT_EQ(TextOf(narrow), "");
    } else {
        // A character that cannot be converted is left out.
        EXPECT_EQ(narrow.Length(), back.Failed("wcrtomb") ? 5 : 6);
    }

    char* pszCopy = nullptr;
    char szSource[] = "copied";
    bool fgCopied = false;
    const Step copy([&] { fgCopied = KString::AllocAndCopy(&pszCopy, szSource, -1); });
    EXPECT_EQ(fgCopied, !copy.LackedMemory());
    EXPECT_EQ(fgCopied, pszCopy != nullptr);
    const Step release([&] { KString::FreeAllocedString(&pszCopy); });
    EXPECT_EQ(pszCopy, nullptr);
}

void ListIsFilledAndEmptied() {
    Made<KList<KString>> list;
    int nExpected = 0;
    for (const char* const pszText : {"first", "second", "third"}) {
        bool fgAdded = false;
        const KString text(pszText);
        const Step add([&] { fgAdded = list->Add(text); });
        nExpected += fgAdded ? 1 : 0;
        EXPECT_TRUE(fgAdded || add.LackedMemory());
        EXPECT_EQ(list->GetCount(), nExpected);
    }
    {
        std::optional<KList<KString>> copy;
        const Step duplicate([&] { copy.emplace(*list); });
        ExpectWholeOr(copy->GetCount() <= nExpected, true, true);
        if (!duplicate.LackedMemory()) {
            EXPECT_EQ(copy->GetCount(), nExpected);
        }
        const Step drop([&] { copy.reset(); });
    }
    KString out;
    for (int nLeft = nExpected; nLeft > 0; --nLeft) {
        bool fgPopped = false;
        const Step pop([&] { fgPopped = list->Pop(out, -1); });
        EXPECT_TRUE(fgPopped);
        EXPECT_EQ(list->GetCount(), nLeft - 1);
    }
}

void PathIsPutTogether() {
    Made<KPath> path("/usr\\share");
    ExpectWholeOr<std::string>(TextOf(path->GetPath()), "/usr/share", "");
    const std::string before = TextOf(path->GetPath());
    const Step join([&] { *path += KString("file.txt"); });
    if (!HasLackedMemory()) {
        EXPECT_EQ(TextOf(path->GetPath()), "/usr/share/file.txt");
    } else if (join.LackedMemory()) {
        // Either nothing is appended, or what could be copied of it.
        EXPECT_EQ(TextOf(path->GetPath()).rfind(before, 0), 0u);
    }
    KString part;
    const std::string whole = TextOf(path->GetPath());
    const Step name([&] { part = path->GetNameOnly(); });
    if (!HasLackedMemory()) {
        EXPECT_EQ(TextOf(part), "file");
    } else if (name.LackedMemory()) {
        EXPECT_EQ(TextOf(part), "");
    }
    const Step extend([&] { path->SetExt("cfg"); });
    if (!HasLackedMemory()) {
        EXPECT_EQ(TextOf(path->GetPath()), "/usr/share/file.cfg");
    }
    const char* pszSystemPath = nullptr;
    const Step render([&] { pszSystemPath = path->GetSystemPath(KPath::CONV_SLASH); });
    EXPECT_EQ(pszSystemPath, TextOf(path->GetPath()));
}

// -------------------------------------------------------------------------------------------------------------- Time

void TimeIsToldAndRendered() {
    KTime now;
    const Step tell([&] { now = KTime::GetCurrentTime(); });
    EXPECT_EQ(now.IsValid(), !tell.Failed("gettimeofday"));
    if (tell.Failed("gettimeofday")) {
        EXPECT_EQ(now.sec, 0);
    }
    KString text;
    const Step render([&] { text = KTime(86400, 0, 0).GetHumanTimeString(3, 0, 0); });
    EXPECT_EQ(TextOf(text), render.Failed() ? "" : "1970/01/02 00:00:00");
}

// ------------------------------------------------------------------------------------------------------------ Memory

void BlocksAreMadeAndJoined() {
    char szBytes[] = "abcd";
    {
        Made<KMem> block(szBytes, 4);
        EXPECT_EQ(block->Size(0), block.LackedMemory() ? 0 : 4);
        const int nBefore = block->Size(0);
        KMem more(szBytes, 2);
        const Step append([&] { *block += more; });
        EXPECT_EQ(block->Size(0), nBefore + (append.LackedMemory() ? 0 : 2));
        const int nJoined = block->Size(0);
        bool fgCut = false;
        const Step cut([&] { fgCut = block->RemoveLBuffer(1); });
        EXPECT_EQ(fgCut, !cut.LackedMemory() && nJoined > 1);
        EXPECT_EQ(block->Size(0), nJoined - (fgCut ? 1 : 0));
        KMem* pSum = nullptr;
        const int nWhole = block->Size(0);
        const Step sum([&] { pSum = *block + more; });
        if (!sum.LackedMemory()) {
            ASSERT_NE(pSum, nullptr);
            EXPECT_EQ(pSum->Size(0), nWhole + 2);
        }
        delete pSum;
    }
    Made<KMem> zeroed(16);
    EXPECT_EQ(zeroed->Size(0), zeroed.LackedMemory() ? 0 : 16);
}

void RawBlocksGrow() {
    void* pBlock = nullptr;
    const Step make([&] { pBlock = KMem::Malloc(8); });
    EXPECT_EQ(pBlock == nullptr, make.LackedMemory());
    void* const pBefore = pBlock;
    const Step grow([&] { pBlock = KMem::Realloc(pBlock, 4096); });
    EXPECT_EQ(pBlock == nullptr, grow.LackedMemory());
    if (pBlock == nullptr && pBefore != nullptr) {
        // The old block is still the caller's, if no more in the registry.
        KMem::AddForNonClass(pBefore, 8);
        pBlock = pBefore;
    }
    KMem::Free(&pBlock);
    const Step clear([&] { pBlock = KMem::Calloc(4, 4); });
    EXPECT_EQ(pBlock == nullptr, clear.LackedMemory());
    KMem::Free(&pBlock);
}

void RegistryIsMade() {
    DropRegistry();
    bool fgMade = false;
    const Step make([&] { fgMade = KMem::Init(); });
    EXPECT_EQ(fgMade, !make.LackedMemory());
    void* pBlock = nullptr;
    // Made now, where it was lacking.
    const Step use([&] { pBlock = KMem::Malloc(8); });
    EXPECT_EQ(pBlock == nullptr, use.Failed("malloc"));
    KMem::Free(&pBlock);
}

// ---------------------------------------------------------------------------------------------------------- Messages

struct Receiver : KMessageHandler {
    int HandleMessage(const KMessage& message) override {
        ++nReceived;
        nSize = message.GetSize();
        return 0;
    }
    int nReceived = 0;
    int nSize = 0;
};

void MessageReachesItsReceiver() {
    KString first("first");
    KString second("second");
    char payload[] = {1, 2, 3};
    Made<KMessage> message(first, second, payload, 3);
    EXPECT_EQ(message->GetData() != nullptr, message->GetSize() == 3);
    if (!HasLackedMemory()) {
        EXPECT_EQ(message->GetSize(), 3);
        EXPECT_EQ(TextOf(message->GetText1()), "first");
    }
    Receiver receiver;
    KString name("torture");
    const Step enter([&] { KMessageHandler::Register(&receiver, name); });
    const Step send([&] { KMessageHandler::SendMessage(name, *message); });
    if (!enter.LackedMemory()) {
        EXPECT_EQ(receiver.nReceived, 1);
        EXPECT_EQ(receiver.nSize, message->GetSize());
    }
    bool fgLeft = false;
    const Step leave([&] { fgLeft = KMessageHandler::Unregister(&receiver, name); });
    if (!fgLeft) {
        // Not entered for want of memory, or under a name that could not be copied, which equals none.
        EXPECT_TRUE(enter.LackedMemory());
        EXPECT_EQ(receiver.nReceived, 0);
        LeavesBlocks(3);
    }
}

void BuffersGoRoundAQueue() {
    constexpr int kQueue = 77;
    constexpr int kBuffers = 2;
    const Step create([&] { KManagedDynamicDataQueue::Create(kQueue, kBuffers); });
    KManagedDynamicDataQueue* pQueue = nullptr;
    const Step find([&] { pQueue = KManagedDynamicDataQueue::GetInstance(kQueue); });
    EXPECT_TRUE(pQueue != nullptr || create.LackedMemory());
    if (pQueue == nullptr) {
        return;
    }
    // The free table is not released.
    LeavesBlocks(pQueue->GetCount() > 0 ? 1 : 0);
    EXPECT_TRUE(pQueue->GetCount() == kBuffers || create.LackedMemory());
    KDynamicDataBuffer* pBuffer = nullptr;
    const Step pop([&] { pBuffer = pQueue->PopWrite(); });
    EXPECT_EQ(pBuffer != nullptr, pQueue->GetCount() > 0);
    if (pBuffer != nullptr) {
        void* pBytes = nullptr;
        const Step write([&] {
            pBytes = pBuffer->LockWriteBuffer(5000, 100);
            pBuffer->UnlockWriteBuffer();
        });
        EXPECT_EQ(pBytes == nullptr, write.LackedMemory());
        pBuffer->SetDataSize(pBytes != nullptr ? 5100 : 0);
        const Step hand([&] { pQueue->PushWrite(pBuffer); });
        KDynamicDataBuffer* pFilled = nullptr;
        const Step take([&] { pFilled = pQueue->PopRead(); });
        // Without memory for its place in the list the buffer is lost to the queue, which still frees it.
        EXPECT_EQ(pFilled, hand.LackedMemory() ? nullptr : pBuffer);
        const Step giveBack([&] { pQueue->PushRead(pFilled); });
    }
    const Step destroy([&] { KManagedDynamicDataQueue::Delete(kQueue); });
}

// ------------------------------------------------------------------------------------------------------------- Trees

constexpr char kDocument[] =
    "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
    "<key>name</key><string>camera</string>"
    "<key>ports</key><array><integer>80</integer><integer>554</integer></array>"
    "<key>on</key><true/></dict></plist>";

int CountNodes(KPropertyNode& node) {
    int nNodes = 0;
    for (int i = 0; i < node.GetNodeCount(); ++i) {
        nNodes += 1 + CountNodes(**node.GetNode(i));
    }
    return nNodes;
}

/// Frees what the tree's destructor leaves by rule.
void FreeTree(KPropertyNode& node) {
    while (node.GetNodeCount() > 0) {
        KPropertyNode* const pChild = *node.GetNode(0);
        node.RemoveNode(0);
        FreeTree(*pChild);
        Forget(pChild);
        delete pChild;
    }
}

void TreeIsReadFromAText() {
    const KString document(kDocument);
    std::optional<KPropertyList> list;
    const Step read([&] { list.emplace(document); });
    const int nNodes = CountNodes(*list->GetRoot());
    EXPECT_TRUE(read.LackedMemory() ? nNodes <= 7 : nNodes == 7) << nNodes;
    KList<KString> path;
    path.Add(KString("name"));
    KPropertyNode** ppFound = nullptr;
    const Step find([&] { ppFound = list->GetRoot()->GetNode(path); });
    EXPECT_TRUE(ppFound != nullptr || read.LackedMemory());
    FreeTree(*list->GetRoot());
    const Step destroy([&] { list.reset(); });
}

void NodesAreDestroyedWithTheirParent() {
    std::optional<KPropertyNode> parent;
    const Step make([&] { parent.emplace(); });
    {
        // The public way in refuses every node while checks are on; the reader's does not.
        KString text("<key>a</key><string>b</string>");
        KPropertyList list{KString("")};
        list.Parshing(text, &*parent);
    }
    EXPECT_EQ(CountNodes(*parent), 2);
    const Step destroy([&] { parent.reset(); });
    if (destroy.LackedMemory()) {
        // The list of those to be destroyed could not be made: the key and its value stay.
        LeavesBlocks(16);
    }
}

// --------------------------------------------------------------------------------------------------------------- Log

void LogMakesItsBuffers() {
    KDebug::Deinit();
    bool fgMade = true;
    for (int i = 0; i < 2; ++i) {
        bool fgDone = false;
        const Step say([&] { fgDone = KDebug::Error("said %d", i); });
        EXPECT_TRUE(fgDone);
        if (say.LackedMemory()) {
            // The next message makes both anew, if it is the second that is lacking, and never looks for the first.
            EXPECT_EQ(say.Log(), "");
            LeavesBlocks(1);
            fgMade = g_pDebugBuffer != nullptr;
        } else if (say.Failed("fprintf") || !fgMade) {
            EXPECT_EQ(say.Log(), "");
        } else {
            const std::string strText = say.Failed("vsnprintf") ? "" : "said " + std::to_string(i);
            EXPECT_EQ(say.Log(), "Error****: " + strText + "\n");
        }
    }
    KDebug::Deinit();
    KDebug::Error(KString());
}

void LogIsStamped() {
    const Step log([&] { KDebug::Log("stamped"); });
    if (!log.Failed()) {
        EXPECT_THAT(log.Log(), testing::MatchesRegex("Log\\[....\\/..\\/.. ..:..:..:...... .\\]stamped\n"));
    } else if (log.Failed("gettimeofday")) {
        // The moment 0, and the shift that every stamp has.
        EXPECT_EQ(log.Log(), "Log[1970/01/03 16:30:00:000000 6]stamped\n");
    }
    KTime time(0, 0, 0);
    const Step tell([&] { KDebug::Time(time); });
    EXPECT_EQ(tell.Log(), tell.Failed() ? "" : "Time:1970/01/03 16:30:00:000000 6\n");
}

}  // namespace

std::vector<Scenario> ValueScenarios() {
    return {
        {"TextIsAssignedAndEdited", TextIsAssignedAndEdited, {}},
        {"PartsOfATextAreTaken", PartsOfATextAreTaken, {}},
        {"TextIsFormatted", TextIsFormatted, {}},
        {"TextIsConverted", TextIsConverted, {}},
        {"ListIsFilledAndEmptied", ListIsFilledAndEmptied, MutexRefusalsAnd({})},
        {"PathIsPutTogether", PathIsPutTogether, {}},
        {"TimeIsToldAndRendered", TimeIsToldAndRendered, {}},
        {"BlocksAreMadeAndJoined",
         BlocksAreMadeAndJoined,
         {"new in KMem::KMem(int): m_pBuf", "new in KMem::KMem(char*, int): m_pBuf",
          "new in KMem::KMem(const KMem&): m_pBuf", "new in KMem& KMem::operator+=(const KMem&): m_pBuf",
          "new in bool KMem::RemoveLBuffer(int): m_pBuf"}},
        {"RawBlocksGrow", RawBlocksGrow, {}},
        {"RegistryIsMade", RegistryIsMade, {}},
        {"MessageReachesItsReceiver", MessageReachesItsReceiver, {}},
        {"BuffersGoRoundAQueue", BuffersGoRoundAQueue,
         MutexRefusalsAnd(
             {"new in static KManagedDynamicDataQueue* KManagedDynamicDataQueue::GetInstance(int): g_pInstance[nIndex]",
              "realloc in void* KDynamicDataBuffer::LockWriteBuffer(unsigned int, unsigned int): m_pBuf"})},
        {"TreeIsReadFromAText", TreeIsReadFromAText, MutexRefusalsAnd({})},
        {"NodesAreDestroyedWithTheirParent", NodesAreDestroyedWithTheirParent, MutexRefusalsAnd({})},
        {"LogMakesItsBuffers", LogMakesItsBuffers, {}},
        {"LogIsStamped", LogIsStamped, {}}};
}

}  // namespace torture
