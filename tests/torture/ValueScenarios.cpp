// Texts, blocks, lists, paths, times, messages, queues and trees: all of them ask for memory, and some for a mutex.
#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <functional>
#include <vector>

#include "KAssert.h"
#include "KDebug.h"
#include "KList.h"
#include "KMem.h"
#include "KMessage.h"
#include "KNet.h"
#include "KPath.h"
#include "KPropertyList.h"
#include "KQueue.h"
#include "KSystem.h"
#include "KTime.h"
#include "support/Support.h"
#include "torture/Scenarios.h"

namespace torture {

namespace {

using Texts = std::vector<std::string>;

// ------------------------------------------------------------------------------------------------------------- Texts

/// Longer than what any block of a shorter text has to spare, so that appending it always asks for memory.
std::string Long(char ch, std::size_t nLen) {
    return std::string(nLen, ch);
}

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
    const Step replace([&] { fgReplaced = text->Replace("two", "deux,zwei"); });
    EXPECT_EQ(fgReplaced, !replace.LackedMemory());
    for (std::size_t n = model.find("two"); fgReplaced && n != std::string::npos; n = model.find("two")) {
        model.replace(n, 3, "deux,zwei");
    }
    EXPECT_EQ(TextOf(*text), model);

    const Step assign([&] { *text = "  trimmed "; });
    model = assign.LackedMemory() ? "" : "  trimmed ";
    EXPECT_EQ(TextOf(*text), model);
    const Step trim([&] { text->Trim(' '); });
    model = assign.LackedMemory() || trim.LackedMemory() ? "" : "  trimmed";
    EXPECT_EQ(TextOf(*text), model);
    const Step trimSet([&] { text->Trim(" "); });
    EXPECT_EQ(TextOf(*text), model.empty() || trimSet.LackedMemory() ? "" : "trimmed");
    const Step clear([&] { *text = KString("left"); });
    EXPECT_EQ(TextOf(*text), clear.LackedMemory() ? "" : "left");
    const Step trimLeft([&] { text->TrimL('-'); });
    model = clear.LackedMemory() || trimLeft.LackedMemory() ? "" : "left";
    EXPECT_EQ(TextOf(*text), model);
    const Step trimLeftSet([&] { text->TrimL("-"); });
    EXPECT_EQ(TextOf(*text), trimLeftSet.LackedMemory() ? "" : model);
}

/// Every way to a copy: whole, or without memory empty.
void TextsAreCopied() {
    const KString source("source");
    const std::function<KString()> ways[] = {
        [] { return KString("source"); }, [] { return KString("source of all", 6); },
        [&] { return KString(source); },  [] { return KString::FromUTF8String("source"); },
        [&] { return source.Sub(0, 0); }, [&] { return source + KString(); },
        [&] { return source + ""; },      [&] { return KPath(source).GetPath(); }};
    for (const auto& make : ways) {
        KString made;
        const Step copy([&] { made = make(); });
        EXPECT_EQ(TextOf(made), copy.LackedMemory() ? "" : "source");
    }
    KString assigned("before");
    const Step assign([&] { assigned = source; });
    EXPECT_EQ(TextOf(assigned), assign.LackedMemory() ? "" : "source");
}

/// A sum is whole, or without memory for any part of it empty.
void TextsAreJoined() {
    const std::string strLeft = Long('l', 40);
    const std::string strRight = Long('r', 400);
    const KString left(strLeft.c_str());
    const KString right(strRight.c_str());
    for (const bool fgText : {true, false}) {
        KString sum;
        const Step join([&] { sum = fgText ? left + right : left + strRight.c_str(); });
        EXPECT_EQ(TextOf(sum), join.LackedMemory() ? "" : strLeft + strRight);
    }
    KString inserted;
    const Step insert([&] { inserted = left.Insert(7, right); });
    EXPECT_EQ(TextOf(inserted), insert.LackedMemory() ? "" : Long('l', 7) + strRight + Long('l', 33));
    const Step insertText([&] { inserted = left.Insert(40, "r"); });
    EXPECT_EQ(TextOf(inserted), insertText.LackedMemory() ? "" : strLeft + "r");
}

void TextIsDivided() {
    const KString text("one,two,three");
    KString part;
    const Step sub([&] { part = text.Sub(4, 7); });
    EXPECT_EQ(TextOf(part), sub.LackedMemory() ? "" : "two");

    KList<KString> fields;
    bool fgDone = false;
    const Step divide([&] { fgDone = text.Divide(",", fields); });
    EXPECT_TRUE(fgDone);
    Texts expected = {"one", "two", "three"};
    if (divide.LackedMemory()) {
        // Every field is an element and a text: without the one it ends there, without the other it stays empty.
        const std::size_t nField = static_cast<std::size_t>(divide.FailedCall() - 1) / 2;
        if (divide.FailedCall() % 2 == 1) {
            expected.resize(nField);
        } else {
            expected[nField] = "";
        }
    }
    EXPECT_EQ(TextsOf(fields), expected);

    KList<KString> whole;
    const Step keep([&] { fgDone = text.Divide(nullptr, whole); });
    EXPECT_TRUE(fgDone);
    EXPECT_EQ(TextsOf(whole), keep.FailedCall() == 1   ? Texts()
                              : keep.FailedCall() == 2 ? Texts({""})
                                                       : Texts({"one,two,three"}));
}

void TextIsFormatted() {
    // The second is of the one length that has to be rendered twice.
    for (const int nWidth : {0, 10240 - 8}) {
        KString text("before");
        int nCount = 0;
        const Step format([&] { nCount = text.Sprintf("%*d answers", nWidth, 42); });
        if (format.Failed()) {
            EXPECT_EQ(nCount, format.LackedMemory() ? 0 : -1);
            EXPECT_EQ(TextOf(text), "before");
        } else {
            EXPECT_EQ(nCount, nWidth == 0 ? 10 : 10240);
            EXPECT_EQ(text.Length(), nCount);
            EXPECT_EQ(TextOf(text).substr(static_cast<std::size_t>(nCount) - 10), "42 answers");
        }
    }
}

void TextIsScanned() {
    const KString text("width 640");
    char szWord[16] = "";
    int nNumber = 0;
    int nCount = 0;
    const Step scan([&] { nCount = text.Scanf(0, "%15s %d", szWord, &nNumber); });
    // As libc says it.
    EXPECT_EQ(nCount, scan.Failed("vsscanf") ? EOF : 2);
    EXPECT_STREQ(szWord, scan.Failed() ? "" : "width");
    EXPECT_EQ(nNumber, scan.Failed() ? 0 : 640);
}

void TextIsConverted() {
    const KString text("wide");
    wchar_t szWide[16] = {};
    int nWide = 0;
    const Step widen([&] { nWide = text.GetWideString(szWide, 16); });
    EXPECT_EQ(nWide, widen.Failed("mbstowcs") ? -1 : 4);
    if (!KAssert::GetActive()) {
        // Without room the text is measured, and written as far as there is some.
        const Step measure([&] { nWide = text.GetWideString(nullptr, 16); });
        EXPECT_EQ(nWide, measure.Failed("mbstowcs") ? -1 : 4);
        const Step cut([&] { nWide = text.GetWideString(szWide, 2); });
        EXPECT_EQ(nWide, cut.FailedCall() == 2 ? -1 : 4);
        const KString nothing;
        const Step cutNothing([&] { nWide = nothing.GetWideString(szWide, 0); });
        EXPECT_EQ(nWide, cutNothing.FailedCall() == 2 ? -1 : 0);
    }

    KString narrow;
    const Step back([&] { narrow = KString::FromWideString(L"narrow"); });
    std::string strNarrow = back.LackedMemory() ? "" : "narrow";
    if (back.Failed("wcrtomb")) {
        // A character that cannot be converted is left out. The first call is for the room.
        strNarrow.erase(static_cast<std::size_t>(back.FailedCall()) - 2, 1);
    }
    EXPECT_EQ(TextOf(narrow), strNarrow);

    char* pszCopy = nullptr;
    char szSource[] = "copied";
    bool fgCopied = false;
    const Step copy([&] { fgCopied = KString::AllocAndCopy(&pszCopy, szSource, -1); });
    EXPECT_EQ(fgCopied, !copy.LackedMemory());
    EXPECT_EQ(fgCopied, pszCopy != nullptr);
    const Step release([&] { KString::FreeAllocedString(&pszCopy); });
    EXPECT_EQ(pszCopy, nullptr);
}

// ------------------------------------------------------------------------------------------------------------- Lists

/// What a step makes that copies texts in order: each takes an element, without which it is left out, and the text. Without
/// the record of its mutex a list is not locked, and works.
Texts CopiedBy(const Step& step, Texts texts) {
    if (step.Failed("malloc")) {
        const auto pText = texts.begin() + (step.FailedOfItsKind() - 1) / 2;
        if (step.FailedOfItsKind() % 2 == 1) {
            texts.erase(pText);
        } else {
            *pText = "";
        }
    }
    return texts;
}

void ListIsFilledAndEmptied() {
    Made<KList<KString>> list;
    Texts model;
    for (const char* const pszText : {"first", "second", "third"}) {
        bool fgAdded = false;
        const KString text(pszText);
        const Step add([&] { fgAdded = list->Add(text); });
        if (add.LackedMemory()) {
            // For the element, or for its text.
            EXPECT_EQ(fgAdded, add.FailedOfItsKind() == 2);
            if (fgAdded) {
                model.emplace_back();
            }
        } else {
            EXPECT_TRUE(fgAdded);
            model.emplace_back(pszText);
        }
        EXPECT_EQ(TextsOf(*list), model);
    }
    {
        std::optional<KList<KString>> copy;
        const Step duplicate([&] { copy.emplace(*list); });
        EXPECT_EQ(TextsOf(*copy), CopiedBy(duplicate, model));
        const Step assign([&] { *copy = *list; });
        EXPECT_EQ(TextsOf(*copy), CopiedBy(assign, model));
        const Step reset([&] { copy->Reset(); });
        EXPECT_EQ(copy->GetCount(), 0);
        const Step drop([&] { copy.reset(); });
    }
    KString out;
    bool fgDone = false;
    const Step get([&] { fgDone = list->Get(out, 1); });
    EXPECT_EQ(fgDone, model.size() > 1);
    if (fgDone) {
        EXPECT_EQ(TextOf(out), get.LackedMemory() ? "" : model[1]);
    }
    while (!model.empty()) {
        const Step pop([&] { fgDone = list->Pop(out, -1); });
        EXPECT_TRUE(fgDone);
        EXPECT_EQ(TextOf(out), pop.LackedMemory() ? "" : model.front());
        model.erase(model.begin());
        EXPECT_EQ(TextsOf(*list), model);
    }
}

/// The lists that the library has for its own use and lends to programs.
template <typename T>
void FillACopy(const T& value) {
    Made<KList<T>> list;
    bool fgDone = false;
    const Step add([&] { fgDone = list->Add(value); });
    // The first memory is for the element; what a value takes itself may be lacking.
    const auto getsElement = [](const Step& step) { return !step.Failed("malloc") || step.FailedOfItsKind() != 1; };
    EXPECT_EQ(fgDone, getsElement(add));
    EXPECT_EQ(list->GetCount(), fgDone ? 1 : 0);
    Made<KList<T>> copy(*list);
    EXPECT_EQ(copy->GetCount(), getsElement(copy.Making()) ? list->GetCount() : 0);
    const Step assign([&] { *copy = *list; });
    EXPECT_EQ(copy->GetCount(), getsElement(assign) ? list->GetCount() : 0);
    // What an element takes itself may be lacking where it is copied to, too.
    const bool fgThere = list->GetCount() > 0;
    T out = value;
    const Step get([&] { fgDone = list->Get(out, 0); });
    EXPECT_EQ(fgDone, fgThere);
    const Step pop([&] { fgDone = list->Pop(out, -1); });
    EXPECT_EQ(fgDone, fgThere);
    EXPECT_EQ(list->GetCount(), 0);
}

void ListsOfAllKindsAreCopied() {
    FillACopy<KPath>(KPath("path"));
    FillACopy<KMessageHandler*>(nullptr);
    FillACopy<KPropertyNode*>(nullptr);
    FillACopy<KDynamicDataBuffer*>(nullptr);
    FillACopy<KSystem::DiskInformation>(KSystem::DiskInformation());
}

// ------------------------------------------------------------------------------------------------------------- Paths

void PathIsPutTogether() {
    Made<KPath> path("/usr\\share");
    EXPECT_EQ(TextOf(path->GetPath()), path.LackedMemory() ? "" : "/usr/share");
    const std::string before = TextOf(path->GetPath());
    const KString name("file.txt");
    const Step join([&] { *path += name; });
    const std::string joined = before.empty() ? "file.txt" : before + "/file.txt";
    EXPECT_EQ(TextOf(path->GetPath()), join.LackedMemory() ? "" : joined);
    const char* pszSystemPath = nullptr;
    const Step render([&] { pszSystemPath = path->GetSystemPath(KPath::CONV_SLASH); });
    EXPECT_EQ(pszSystemPath, TextOf(path->GetPath()));

    // Every other way to join.
    const std::string strDirectory = "/" + Long('d', 40);
    const KPath directory(strDirectory.c_str());
    // Longer than the directory, so that it is not taken for the sum.
    const std::string strFile = Long('f', 60);
    const KPath file(strFile.c_str());
    const KString text(strFile.c_str());
    const std::function<void(KPath&)> ways[] = {[&](KPath& sum) { sum += strFile.c_str(); },
                                                [&](KPath& sum) { sum += file; }, [&](KPath& sum) { sum = sum + file; },
                                                [&](KPath& sum) { sum = sum + text; },
                                                [&](KPath& sum) { sum = sum + strFile.c_str(); }};
    for (const auto& way : ways) {
        KPath sum(directory);
        sum.SetType(KPath::TYPE_DIRECTORY);
        const Step joining([&] { way(sum); });
        // Never a part of it, nor the root, as which an empty directory path is rendered.
        EXPECT_EQ(TextOf(sum.GetPath()), joining.LackedMemory() ? "" : strDirectory + "/" + strFile);
        EXPECT_EQ(sum.GetType(), joining.LackedMemory() ? KPath::TYPE_NONE : KPath::TYPE_DIRECTORY);
    }
}

void PathIsTakenApart() {
    const KPath path("/usr/share/name.txt");
    KString part;
    const Step root([&] { part = path.GetRootOnly(); });
    EXPECT_EQ(TextOf(part), root.LackedMemory() ? "" : "/usr/share");
    const Step name([&] { part = path.GetNameOnly(); });
    EXPECT_EQ(TextOf(part), name.LackedMemory() ? "" : "name");
    const Step extension([&] { part = path.GetExt(); });
    EXPECT_EQ(TextOf(part), extension.LackedMemory() ? "" : "txt");
    KPath last;
    const Step sub([&] { last = path.GetSubPath(); });
    EXPECT_EQ(TextOf(last.GetPath()), sub.LackedMemory() ? "" : "name.txt");

    Made<KPath> copy(path);
    EXPECT_EQ(TextOf(copy->GetPath()), copy.LackedMemory() ? "" : "/usr/share/name.txt");
    KPath other;
    const Step assign([&] { other = path; });
    EXPECT_EQ(TextOf(other.GetPath()), assign.LackedMemory() ? "" : "/usr/share/name.txt");
    const Step assignText([&] { other = "\\usr\\other.txt"; });
    EXPECT_EQ(TextOf(other.GetPath()), assignText.LackedMemory() ? "" : "/usr/other.txt");
    const KString text("\\usr");
    const Step assignString([&] { other = text; });
    EXPECT_EQ(TextOf(other.GetPath()), assignString.LackedMemory() ? "" : "/usr");
    const Step set([&] { other.SetPath(text); });
    EXPECT_EQ(TextOf(other.GetPath()), set.LackedMemory() ? "" : "\\usr");

    KPath shorter("/usr/share");
    const Step remove([&] { shorter.RemoveSubPath(); });
    EXPECT_EQ(TextOf(shorter.GetPath()), remove.LackedMemory() ? "" : "/usr");
}

void ExtensionIsSet() {
    const KString extension("cfg");
    KPath path("/usr/name.txt");
    const Step replace([&] { path.SetExt(extension); });
    EXPECT_EQ(TextOf(path.GetPath()), replace.LackedMemory() ? "" : "/usr/name.cfg");
    const std::string strPath = "/" + Long('n', 40);
    KPath bare(strPath.c_str());
    const Step append([&] { bare.SetExt(extension); });
    EXPECT_EQ(TextOf(bare.GetPath()), append.LackedMemory() ? "" : strPath + ".cfg");
}

// ---------------------------------------------------------------------------------------------- Time, ends of a network

void TimeIsToldAndRendered() {
    KTime now;
    const Step tell([&] { now = KTime::GetCurrentTime(); });
    EXPECT_EQ(now.IsValid(), !tell.Failed("gettimeofday"));
    if (tell.Failed("gettimeofday")) {
        EXPECT_EQ(now.sec, 0);
    }
    const struct {
        int nFormat;
        const char* pszText;
    } forms[] = {{1, "1970/01/02"},           {2, "00:00:00"},       {3, "1970/01/02 00:00:00"},
                 {6, "00:00:00 000000"},      {8, "19700102000000"}, {7, "1970/01/02 00:00:00 000000"},
                 {16, "19700102000000000000"}};
    for (const auto& form : forms) {
        KString text;
        const Step render([&] { text = KTime(86400, 0, 0).GetHumanTimeString(form.nFormat, 0, 0); });
        EXPECT_EQ(TextOf(text), render.LackedMemory() ? "" : form.pszText);
    }
}

void EndOfANetworkIsDescribed() {
    const KString host("host");
    Made<KNetInfo> info(KNetInfo::IPV4, KNetInfo::TCP, KNetInfo::UNICAST, host, 80);
    EXPECT_EQ(TextOf(info->GetAddress()), info.LackedMemory() ? "" : "host");
    Made<KNetInfo> byText(KNetInfo::IPV4, KNetInfo::TCP, KNetInfo::UNICAST, "host", 80);
    EXPECT_EQ(TextOf(byText->GetAddress()), byText.LackedMemory() ? "" : "host");
    KNetInfo copy;
    const Step assign([&] { copy = *info; });
    EXPECT_EQ(TextOf(copy.GetAddress()), info.LackedMemory() || assign.LackedMemory() ? "" : "host");
    EXPECT_EQ(copy.GetPort(), 80);
    bool fgDone = false;
    Made<KNetInfo> another(copy);
    EXPECT_EQ(TextOf(another->GetAddress()), another.LackedMemory() ? "" : TextOf(copy.GetAddress()));
    const Step setString([&] { fgDone = another->SetAddress(host); });
    EXPECT_TRUE(fgDone);
    EXPECT_EQ(TextOf(another->GetAddress()), setString.LackedMemory() ? "" : "host");
    const Step setText([&] { fgDone = copy.SetAddress("other"); });
    EXPECT_TRUE(fgDone);
    EXPECT_EQ(TextOf(copy.GetAddress()), setText.LackedMemory() ? "" : "other");
    const Step set([&] { fgDone = copy.Set(KNetInfo::IPV4, KNetInfo::UDP, KNetInfo::BROADCAST, host, 81); });
    EXPECT_TRUE(fgDone);
    EXPECT_EQ(TextOf(copy.GetAddress()), set.LackedMemory() ? "" : "host");
    EXPECT_EQ(copy.GetPort(), 81);
    for (int i = 0; i < 2; ++i) {
        const char* pszRaw = nullptr;
        const Step raw([&] { pszRaw = copy.RawAddress(); });
        EXPECT_EQ(pszRaw == nullptr, raw.LackedMemory());
        EXPECT_TRUE(pszRaw == nullptr || pszRaw == TextOf(copy.GetAddress()));
    }
}

// ------------------------------------------------------------------------------------------------------------ Memory

std::string BytesOf(KMem& block) {
    return block.GetSize() > 0 ? std::string(block.Pos(0), static_cast<std::size_t>(block.GetSize())) : "";
}

void BlocksAreMadeAndJoined() {
    char szBytes[] = "abcd";
    {
        Made<KMem> block(szBytes, 4);
        std::string model = block.LackedMemory() ? "" : "abcd";
        EXPECT_EQ(BytesOf(*block), model);
        KMem more(szBytes, 2);
        const Step append([&] { *block += more; });
        model += append.LackedMemory() ? "" : "ab";
        EXPECT_EQ(BytesOf(*block), model);
        bool fgCut = false;
        const Step cut([&] { fgCut = block->RemoveLBuffer(1); });
        EXPECT_EQ(fgCut, !cut.LackedMemory());
        model.erase(0, fgCut ? 1 : 0);
        EXPECT_EQ(BytesOf(*block), model);

        KMem* pSum = nullptr;
        const Step sum([&] { pSum = *block + more; });
        // The object, the copy of the one, and both together.
        EXPECT_EQ(pSum == nullptr, sum.FailedCall() == 1);
        if (pSum != nullptr) {
            EXPECT_EQ(BytesOf(*pSum), (sum.FailedCall() == 2 ? "" : model) + (sum.FailedCall() == 3 ? "" : "ab"));
        }
        delete pSum;

        Made<KMem> copy(*block);
        EXPECT_EQ(BytesOf(*copy), copy.LackedMemory() ? "" : model);
        const std::string before = BytesOf(*copy);
        const Step assign([&] { *copy = more; });
        EXPECT_EQ(BytesOf(*copy), assign.LackedMemory() ? before : "ab");
        const bool fgCuttable = copy->GetSize() > 1;
        const Step cutRight([&] { fgCut = copy->RemoveRBuffer(1); });
        EXPECT_EQ(fgCut, fgCuttable);
        const Step empty([&] { copy->RemoveAll(); });
        EXPECT_EQ(copy->GetSize(), 0);
    }
    Made<KMem> blank(16);
    EXPECT_EQ(blank->GetSize(), blank.LackedMemory() ? 0 : 16);
    if (blank->GetSize() > 0) {
        const Step fill([&] {
            KMem::Set(blank->Pos(0), 'x', 16);
            KMem::Copy(blank->Pos(4), 12, szBytes, 4);
            EXPECT_EQ(KMem::Cmp(blank->Pos(4), szBytes, 4), 0);
        });
        EXPECT_EQ(BytesOf(*blank), "xxxxabcdxxxxxxxx");
    }
    Made<KMem> nothing;
    EXPECT_EQ(nothing->GetSize(), 0);
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
    EXPECT_EQ(fgMade, !make.Failed("mmap"));
    void* pBlock = nullptr;
    // Made now, where it was lacking.
    const Step use([&] { pBlock = KMem::Malloc(8); });
    EXPECT_EQ(pBlock == nullptr, use.Failed("malloc"));
    KMem::Free(&pBlock);
}

void RegistryEnds() {
    DropRegistry();
    KMem::Init();
    const Step end([] { KMem::Deinit(); });
    // What could not be given back is not asked for again.
    LeavesMappings(end.Failed("munmap") ? 1 : 0);
    KMem::Init();
}

/// The first object makes it too. One that it could not be made for is in none.
void RegistryIsMadeByAnObject() {
    DropRegistry();
    {
        Made<KMem> block;
        char szBytes[] = "abcd";
        const Step assign([&] { *block = KMem(szBytes, 4); });
        EXPECT_EQ(BytesOf(*block), assign.Failed("new[]") ? "" : "abcd");
    }
    KMem::Init();
}

/// Whatever needs it first makes it.
void RegistryIsMadeByWhatNeedsIt() {
    DropRegistry();
    void* pBlock = nullptr;
    const Step clear([&] { pBlock = KMem::Calloc(4, 4); });
    EXPECT_EQ(pBlock == nullptr, clear.LackedMemory());
    KMem::Free(&pBlock);
    DropRegistry();
    char ch = 'x';
    bool fgDone = false;
    const Step enter([&] { fgDone = KMem::AddForNonClass(&ch, 1); });
    EXPECT_EQ(fgDone, !enter.Failed("mmap"));
    if (fgDone) {
        EXPECT_TRUE(KMem::RemoveForNonClass(&ch));
    }
    {
        KMem entered;
        KMem::Remove(&entered);
        DropRegistry();
        const Step enterObject([&] { fgDone = KMem::Add(&entered); });
        EXPECT_EQ(fgDone, !enterObject.Failed("mmap"));
    }
    DropRegistry();
    {
        Made<KMem> block(16);
        EXPECT_EQ(block->GetSize(), block.LackedMemory() ? 0 : 16);
    }
    KMem::Init();
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

void MessageIsCopied() {
    KString first("first");
    KString second("second");
    char payload[] = {1, 2, 3};
    Made<KMessage> message(first, second, payload, 3);
    const auto expectOf = [](const KMessage& each, const Step& step) {
        // They are copied in this order.
        EXPECT_EQ(TextOf(each.GetText1()), step.FailedCall() == 1 ? "" : "first");
        EXPECT_EQ(TextOf(each.GetText2()), step.FailedCall() == 2 ? "" : "second");
        EXPECT_EQ(each.GetData() == nullptr, step.FailedCall() == 3);
        EXPECT_EQ(each.GetSize(), step.FailedCall() == 3 ? 0 : 3);
    };
    expectOf(*message, message.Making());
    const KMessage source(first, second, payload, 3);
    Made<KMessage> copy(source);
    expectOf(*copy, copy.Making());
    KMessage target;
    const Step assign([&] { target = source; });
    expectOf(target, assign);
}

void MessageReachesItsReceiver() {
    const KMessage message;
    Receiver receiver;
    KString name("torture");
    const Step enter([&] { KMessageHandler::Register(&receiver, name); });
    const Step send([&] { KMessageHandler::SendMessage(name, message); });
    EXPECT_EQ(receiver.nReceived, enter.LackedMemory() ? 0 : 1);
    bool fgLeft = false;
    const Step leave([&] { fgLeft = KMessageHandler::Unregister(&receiver, name); });
    EXPECT_EQ(fgLeft, !enter.LackedMemory());
    // The index, which keeps its room for the next one.
    LeavesBlocks(enter.FailedCall() > 1 ? 1 : 0);
}

// ------------------------------------------------------------------------------------------------------------ Queues

void BuffersGoRoundAQueue() {
    constexpr int kQueue = 77;
    constexpr int kBuffers = 2;
    const Step create([&] { KManagedDynamicDataQueue::Create(kQueue, kBuffers); });
    KManagedDynamicDataQueue* pQueue = nullptr;
    const Step find([&] { pQueue = KManagedDynamicDataQueue::GetInstance(kQueue); });
    EXPECT_EQ(pQueue == nullptr, create.FailedCall() == 1);
    if (pQueue == nullptr) {
        return;
    }
    // A buffer gets the storage that it lacks when it is written; the table comes behind the buffers.
    const bool fgTable = !create.Failed("malloc") || create.FailedOfItsKind() <= kBuffers;
    EXPECT_EQ(pQueue->GetCount(), fgTable && !create.Failed("new[]") ? kBuffers : 0);
    // The free table is not released.
    LeavesBlocks(pQueue->GetCount() > 0 ? 1 : 0);
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
        const Step handAgain([&] { pQueue->PushWrite(pQueue->PopWrite()); });
        const Step clear([&] { pQueue->ClearAll(); });
        // Every place is filled again, if with what was queued; a queue from which one was lost has one buffer left.
        EXPECT_NE(pQueue->PopWrite(), nullptr);
        EXPECT_EQ(pQueue->PopWrite() != nullptr, !handAgain.LackedMemory());
    }
    const Step destroy([&] { KManagedDynamicDataQueue::Delete(kQueue); });
}

void BufferIsWrittenAndRead() {
    Made<KDynamicDataBuffer> buffer(64);
    EXPECT_EQ(buffer->GetCapacity(), buffer.Making().Failed("malloc") ? 0u : 64u);
    void* pBytes = nullptr;
    const Step write([&] {
        pBytes = buffer->LockWriteBuffer(16, 0);
        buffer->UnlockWriteBuffer();
    });
    // Without memory before, it gets some now.
    EXPECT_EQ(pBytes == nullptr, write.LackedMemory());
    buffer->SetDataSize(16);
    void* pRead = nullptr;
    const Step read([&] {
        pRead = buffer->LockReadBuffer(0);
        buffer->UnlockReadBuffer();
    });
    EXPECT_EQ(pRead, pBytes);
}

/// One that is not in the table.
void QueueIsAnObject() {
    constexpr int kBuffers = 2;
    Made<KManagedDynamicDataQueue> queue(kBuffers);
    const Step& make = queue.Making();
    const bool fgTable = !make.Failed("malloc") || make.FailedOfItsKind() <= kBuffers;
    EXPECT_EQ(queue->GetCount(), fgTable && !make.Failed("new[]") ? kBuffers : 0);
    LeavesBlocks(queue->GetCount() > 0 ? 1 : 0);
}

/// A pool of one that is at home is destroyed after a sleep, which may end early. With the checks on it is refused.
void QueueOfOneIsDestroyed() {
    constexpr int kQueue = 78;
    KManagedDynamicDataQueue::Create(kQueue, 1);
    LeavesBlocks(1);
    bool fgDone = false;
    const Step destroy([&] { fgDone = KManagedDynamicDataQueue::Delete(kQueue); });
    EXPECT_TRUE(fgDone);
}

// ------------------------------------------------------------------------------------------------------------- Trees

constexpr char kDocument[] =
    "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
    "<key>name</key><string>camera</string>"
    "<key>ports</key><array><integer>80</integer><integer>554</integer></array>"
    "<key>on</key><true/><key>off</key><false/></dict></plist>";

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
    // The list's own node has two mutexes.
    Reading reading(read, 2);
    reading.Header("?xml version=\"1.0\"?");
    reading.Open("plist version=\"1.0\"");
    reading.Open("dict");
    reading.Key("name");
    reading.Value("string", "camera");
    reading.Key("ports");
    reading.Open("array");
    reading.Value("integer", "80");
    reading.Value("integer", "554");
    reading.Close("/array");
    reading.Key("on");
    reading.Truth("true/", "TRUE");
    reading.Key("off");
    reading.Truth("false/", "FALSE");
    reading.Close("/dict");
    reading.Close("/plist");
    read.ExpectLog(reading.Logged());
    const Texts texts = TextsOf(*list->GetRoot());
    EXPECT_EQ(texts, reading.Texts());
    KString header;
    const Step ask([&] { header = list->GetHeader(); });
    EXPECT_EQ(TextOf(header), ask.LackedMemory() ? "" : reading.HeaderText());
    KList<KString> path;
    path.Add(KString("name"));
    KPropertyNode** ppFound = nullptr;
    const Step find([&] { ppFound = list->GetRoot()->GetNode(path); });
    EXPECT_EQ(ppFound != nullptr, std::find(texts.begin(), texts.end(), "name") != texts.end());
    FreeTree(*list->GetRoot());
    const Step destroy([&] { list.reset(); });
}

void TreeIsExtended() {
    KPropertyList list{KString("")};
    KString text("<key>a</key><array><string>b</string></array>and so on");
    const std::string before = TextOf(text);
    bool fgDone = false;
    const Step read([&] { fgDone = list.Parshing(text, list.GetRoot()); });
    EXPECT_TRUE(fgDone);
    Reading reading(read, 0);
    const bool fgBegun = !reading.HasEnded();
    reading.Key("a");
    reading.Open("array");
    const bool fgWhole = !reading.HasEnded();
    reading.Value("string", "b");
    reading.Close("/array");
    read.ExpectLog(reading.Logged());
    EXPECT_EQ(TextsOf(*list.GetRoot()), reading.Texts());
    // What was read is cut off; without memory for what is left, which is the last that is asked for, that is gone too.
    const std::string strRest = fgWhole ? "and so on" : fgBegun ? "<string>b</string></array>and so on" : before;
    const int nMallocsOfAll = 5;
    EXPECT_EQ(TextOf(text), read.Failed("malloc") && read.FailedOfItsKind() == nMallocsOfAll ? "" : strRest);
    FreeTree(*list.GetRoot());
}

void NodesAreMadeByHand() {
    Made<KPropertyNode> node;
    const KString text("2010-05-06T07:08:09Z");
    bool fgDone = false;
    const Step set([&] { fgDone = node->Set(PROPERTY_DATE, text); });
    EXPECT_TRUE(fgDone);
    const std::string strText = set.LackedMemory() ? "" : TextOf(text);
    for (KString (KPropertyNode::*const get)() :
         {&KPropertyNode::GetKey, &KPropertyNode::GetStringValue, &KPropertyNode::GetDataValue}) {
        KString copy;
        const Step ask([&] { copy = ((*node).*get)(); });
        EXPECT_EQ(TextOf(copy), ask.LackedMemory() ? "" : strText);
    }
    KTime time;
    const Step askTime([&] { time = node->GetDateValue(); });
    EXPECT_EQ(time.IsValid(), !set.LackedMemory() && !askTime.Failed("vsscanf"));
    // The one child that may be added while the checks are on.
    const Step add([&] { fgDone = node->AddNode(nullptr); });
    EXPECT_TRUE(fgDone);
    EXPECT_EQ(node->GetNodeCount(), add.LackedMemory() ? 0 : 1);
    const Step remove([&] { fgDone = node->RemoveNode(0); });
    EXPECT_TRUE(fgDone);
    EXPECT_EQ(node->GetNodeCount(), 0);
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
    EXPECT_EQ(TextsOf(*parent), Texts({"a", "b"}));
    const Step destroy([&] { parent.reset(); });
}

// --------------------------------------------------------------------------------------------------------------- Log

void LogMakesItsBuffers() {
    KDebug::Deinit();
    for (int i = 0; i < 2; ++i) {
        bool fgDone = false;
        const Step say([&] { fgDone = KDebug::Error("said %d", i); });
        EXPECT_TRUE(fgDone);
        // The next message asks for both again.
        EXPECT_EQ(g_pDebugBuffer == nullptr, say.LackedMemory());
        EXPECT_EQ(g_pDebugFormat == nullptr, say.LackedMemory());
        say.ExpectLog(ErrorIf(!say.LackedMemory(), "said " + std::to_string(i)));
    }
    KDebug::Deinit();
    KDebug::Error(KString());
}

/// What is written of a line that is written at once.
std::string WrittenOf(const Step& step, const std::string& line) {
    return !step.LostItsLine() ? line : line.substr(0, TheOutcome().nError == kShort ? line.size() / 2 : 0);
}

void LogIsMadeReady() {
    KDebug::Deinit();
    const Step make([] { KDebug::Init(); });
    EXPECT_EQ(g_pDebugBuffer == nullptr, make.LackedMemory());
    EXPECT_EQ(g_pDebugFormat == nullptr, make.LackedMemory());
    KDebug::Deinit();
    KDebug::Error(KString());
}

void LogIsStamped() {
    const Step log([&] { KDebug::Log("stamped"); });
    log.ExpectLog({"Log: stamped"});
    const std::string strStamp = support::StampPattern();
    if (log.Failed("gettimeofday")) {
        // The moment 0, and the shift that every stamp has.
        EXPECT_EQ(log.Log(), "Log[1970/01/03 16:30:00:000000 6]stamped\n");
    } else if (log.Failed(kRenderingOfALine)) {
        EXPECT_THAT(log.Log(), testing::MatchesRegex(strStamp + "\n"));
    } else if (log.LostItsLine()) {
        // The stamp, or the message; or half of it.
        const bool fgHalf = TheOutcome().nError == kShort;
        EXPECT_THAT(log.Log(), testing::MatchesRegex(log.FailedOfItsKind() == 1
                                                         ? std::string(fgHalf ? "Log.[0-9/]+ [0-9]" : "") + "stamped\n"
                                                         : strStamp + (fgHalf ? "stam" : "")));
    } else {
        EXPECT_THAT(log.Log(), testing::MatchesRegex(strStamp + "stamped\n"));
    }
    KTime time(0, 0, 0);
    const Step tell([&] { KDebug::Time(time); });
    tell.ExpectLog({"Time:1970/01/03 16:30:00:000000 6"});
    EXPECT_EQ(tell.Log(), WrittenOf(tell, "Time:1970/01/03 16:30:00:000000 6\n"));
    const KString mark("mark");
    const Step mention([&] { KDebug::Log(mark); });
    mention.ExpectLog({"Log: mark"});
    const Step warn([&] { KDebug::Error(mark); });
    warn.ExpectLog({"Error****: mark"});
    const Step describe([&] { KDebug::Debug("%d", 42); });
    describe.ExpectLog({"Debug: 42"});
    EXPECT_EQ(describe.Log(), WrittenOf(describe, describe.Failed(kRenderingOfALine) ? "Debug: \n" : "Debug: 42\n"));
    // What is too long for a line that is put together first.
    const std::string strText = Long('t', 600);
    std::optional<KString> text;
    const Step make([&] { text.emplace(strText.c_str()); });
    const Step debug([&] { KDebug::Debug(*text); });
    debug.ExpectLog({"Debug: " + (make.LackedMemory() ? "" : strText)});
    const bool fgText = !make.LackedMemory() && !debug.Failed(kRenderingOfALine);
    EXPECT_EQ(debug.Log(), WrittenOf(debug, "Debug: " + (fgText ? strText : "") + "\n"));
    const Step destroy([&] { text.reset(); });
}

}  // namespace

std::vector<Scenario> ValueScenarios() {
    return {
        {"TextIsAssignedAndEdited", TextIsAssignedAndEdited, {}},
        {"TextsAreCopied", TextsAreCopied, {}},
        {"TextsAreJoined", TextsAreJoined, {}},
        {"TextIsDivided", TextIsDivided, {}},
        {"TextIsFormatted", TextIsFormatted, {}},
        {"TextIsScanned", TextIsScanned, {}},
        {"TextIsConverted", TextIsConverted, {}},
        {"ListIsFilledAndEmptied", ListIsFilledAndEmptied, MutexRefusalsAnd({})},
        {"ListsOfAllKindsAreCopied", ListsOfAllKindsAreCopied, MutexRefusalsAnd({})},
        {"PathIsPutTogether", PathIsPutTogether, {}},
        {"PathIsTakenApart", PathIsTakenApart, {}},
        {"ExtensionIsSet", ExtensionIsSet, {}},
        {"TimeIsToldAndRendered", TimeIsToldAndRendered, {}},
        {"EndOfANetworkIsDescribed", EndOfANetworkIsDescribed, {}},
        {"BlocksAreMadeAndJoined",
         BlocksAreMadeAndJoined,
         {"new[] in KMem::KMem(int): m_pBuf", "new[] in KMem::KMem(char*, int): m_pBuf",
          "new[] in KMem::KMem(const KMem&): m_pBuf", "new[] in KMem& KMem::operator=(const KMem&): m_pBuf",
          "new[] in KMem& KMem::operator+=(const KMem&): m_pBuf", "new[] in bool KMem::RemoveLBuffer(int): m_pBuf"}},
        {"RawBlocksGrow", RawBlocksGrow, {}},
        {"RegistryIsMade", RegistryIsMade, {}},
        {"RegistryEnds", RegistryEnds, {}},
        {"RegistryIsMadeByAnObject",
         RegistryIsMadeByAnObject,
         {"mmap in static bool KMem::Add(KMem*): 0", "new[] in KMem::KMem(char*, int): m_pBuf",
          "new[] in KMem& KMem::operator=(const KMem&): m_pBuf"}},
        {"RegistryIsMadeByWhatNeedsIt",
         RegistryIsMadeByWhatNeedsIt,
         {"mmap in static bool KMem::Add(KMem*): 0", "mmap in static bool KMem::AddForNonClass(void*, size_t): 0",
          "new[] in KMem::KMem(int): m_pBuf"}},
        {"MessageIsCopied", MessageIsCopied, {}},
        {"MessageReachesItsReceiver", MessageReachesItsReceiver, {}, true},
        {"BuffersGoRoundAQueue", BuffersGoRoundAQueue,
         MutexRefusalsAnd(
             {"new in static KManagedDynamicDataQueue* KManagedDynamicDataQueue::GetInstance(int): g_pInstance[nIndex]",
              "realloc in void* KDynamicDataBuffer::LockWriteBuffer(unsigned int, unsigned int): m_pBuf"})},
        {"BufferIsWrittenAndRead", BufferIsWrittenAndRead, MutexRefusalsAnd({})},
        {"QueueIsAnObject", QueueIsAnObject, MutexRefusalsAnd({})},
        {"QueueOfOneIsDestroyed",
         QueueOfOneIsDestroyed,
         {"nothing in KManagedDynamicDataQueue::~KManagedDynamicDataQueue(): 0"},
         true},
        {"TreeIsReadFromAText", TreeIsReadFromAText, MutexRefusalsAnd({})},
        {"TreeIsExtended", TreeIsExtended, MutexRefusalsAnd({})},
        {"NodesAreMadeByHand", NodesAreMadeByHand, MutexRefusalsAnd({})},
        {"NodesAreDestroyedWithTheirParent", NodesAreDestroyedWithTheirParent, MutexRefusalsAnd({})},
        {"LogMakesItsBuffers", LogMakesItsBuffers, {}},
        {"LogIsMadeReady", LogIsMadeReady, {}},
        {"LogIsStamped", LogIsStamped, {}}};
}

}  // namespace torture
