#include "KPath.h"

#include <climits>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <type_traits>

#include "support/LittleMemory.h"
#include "support/Support.h"
#include "support/Texts.h"

using namespace std::string_literals;
using support::ScopedChecks;
using support::TextOf;

namespace {

constexpr const char* kNull = nullptr;

/// A path with this text as it stands.
KPath AsItStands(const std::string& text, KPath::Type eType = KPath::TYPE_NONE) {
    KPath path;
    path.SetPath(KString(text.data(), static_cast<int>(text.size())));
    path.SetType(eType);
    return path;
}

KPath Typed(const char* pszPath, KPath::Type eType) {
    KPath path(pszPath);
    path.SetType(eType);
    return path;
}

/// What a path is that names nothing.
bool IsNothing(const KPath& path) {
    return path.GetPath().Length() == 0 && path.GetType() == KPath::TYPE_NONE;
}

std::string Repeated(int nCount) {
    return std::string(static_cast<std::size_t>(nCount), 'x');
}

}  // namespace

// ------------------------------------------------------------------------------------------------------- The object

TEST(KPathTest, HasAVirtualDestructor) {
    EXPECT_TRUE(std::has_virtual_destructor<KPath>::value);
}

TEST(KPathTest, HoldsItsTypeThenItsTextThenItsBuffer) {
    KPath path = Typed("a/b", KPath::TYPE_LINK);
    const auto offset = [&](const void* pField) {
        return static_cast<std::size_t>(static_cast<const char*>(pField) - reinterpret_cast<const char*>(&path));
    };
    int nType = 0;
    std::memcpy(&nType, reinterpret_cast<const char*>(&path) + sizeof(void*), sizeof(nType));
    EXPECT_EQ(nType, 3);
    const std::size_t nText = offset(&path.GetPath());
    EXPECT_EQ(nText, 2 * sizeof(void*));
    EXPECT_EQ(offset(path.GetSystemPath(KPath::CONV_SLASH)), nText + sizeof(KString));
    EXPECT_EQ(sizeof(KPath), nText + sizeof(KString) + 2048);
    if (sizeof(void*) == 4) {
        EXPECT_EQ(sizeof(KPath), 2068u);
    }
}

TEST(KPathTest, TypesAndConversionsHaveTheirNumbers) {
    EXPECT_EQ(KPath::TYPE_NONE, 0);
    EXPECT_EQ(KPath::TYPE_DIRECTORY, 1);
    EXPECT_EQ(KPath::TYPE_FILE, 2);
    EXPECT_EQ(KPath::TYPE_LINK, 3);
    EXPECT_EQ(KPath::TYPE_OTHER, 4);
    EXPECT_EQ(KPath::CONV_BACKSLASH, 0);
    EXPECT_EQ(KPath::CONV_SLASH, 1);
    EXPECT_EQ(sizeof(KPath::Type), 4u);
    EXPECT_EQ(sizeof(KPath::ConvPathTo), 4u);
}

// -------------------------------------------------------------------------------------------- Making and assigning

TEST(KPathTest, TheDefaultIsEmptyAndOfNoType) {
    const KPath path;
    EXPECT_EQ(TextOf(path), "");
    EXPECT_EQ(path.GetType(), KPath::TYPE_NONE);
}

TEST(KPathTest, TextsComeInWithASlashForEveryBackslash) {
    const char* const pszText = "C:\\dir\\\\f.txt\\";
    const std::string expected = "C:/dir//f.txt/";
    EXPECT_EQ(TextOf(KPath(pszText)), expected);
    EXPECT_EQ(TextOf(KPath(KString(pszText))), expected);
    EXPECT_EQ(KPath(pszText).GetType(), KPath::TYPE_NONE);

    KPath path = Typed("old", KPath::TYPE_DIRECTORY);
    KPath& result = path = pszText;
    EXPECT_EQ(&result, &path);
    EXPECT_EQ(TextOf(path), expected);
    EXPECT_EQ(path.GetType(), KPath::TYPE_NONE);

    KPath other = Typed("old", KPath::TYPE_FILE);
    KPath& otherResult = other = KString(pszText);
    EXPECT_EQ(&otherResult, &other);
    EXPECT_EQ(TextOf(other), expected);
    EXPECT_EQ(other.GetType(), KPath::TYPE_NONE);
}

TEST(KPathTest, MakingAPathLeavesTheTextAlone) {
    const KString text("a\\b");
    const KPath made(text);
    KPath assigned;
    assigned = text;
    EXPECT_EQ(TextOf(text), "a\\b");
}

TEST(KPathTest, ANullTextMakesAnEmptyPath) {
    EXPECT_EQ(TextOf(KPath(kNull)), "");
    KPath path = Typed("old", KPath::TYPE_DIRECTORY);
    path = kNull;
    EXPECT_EQ(TextOf(path), "");
    EXPECT_EQ(path.GetType(), KPath::TYPE_NONE);
}

TEST(KPathTest, ACopyHasTheTextAndTheTypeAndABufferOfItsOwn) {
    KPath path = Typed("/a", KPath::TYPE_DIRECTORY);
    const char* const pszRendered = path.GetSystemPath(KPath::CONV_SLASH);
    KPath copy(path);
    EXPECT_EQ(TextOf(copy), "/a");
    EXPECT_EQ(copy.GetType(), KPath::TYPE_DIRECTORY);
    copy = "/b";
    EXPECT_STREQ(copy.GetSystemPath(KPath::CONV_SLASH), "/b");
    EXPECT_STREQ(pszRendered, "/a/");
    EXPECT_EQ(TextOf(path), "/a");
}

TEST(KPathTest, ACopyKeepsBackslashes) {
    const KPath path = AsItStands("a\\b");
    EXPECT_EQ(TextOf(KPath(path)), "a\\b");
    KPath assigned;
    assigned = path;
    EXPECT_EQ(TextOf(assigned), "a\\b");
}

TEST(KPathTest, AssigningAPathTakesItsTextAndItsType) {
    KPath path("old");
    KPath& result = path = Typed("/a", KPath::TYPE_OTHER);
    EXPECT_EQ(&result, &path);
    EXPECT_EQ(TextOf(path), "/a");
    EXPECT_EQ(path.GetType(), KPath::TYPE_OTHER);
}

TEST(KPathTest, AssigningAPathToItselfDoesNothing) {
    KPath path = AsItStands("a\\b", KPath::TYPE_FILE);
    const KPath& same = path;
    path = same;
    EXPECT_EQ(TextOf(path), "a\\b");
    EXPECT_EQ(path.GetType(), KPath::TYPE_FILE);
}

TEST(KPathTest, ItsOwnTextCanBeAssigned) {
    KPath path = AsItStands("a\\b", KPath::TYPE_FILE);
    path = path.GetPath();
    EXPECT_EQ(TextOf(path), "a/b");
    EXPECT_EQ(path.GetType(), KPath::TYPE_NONE);
    path = path.GetPath().GetBuffer() + 1;
    EXPECT_EQ(TextOf(path), "/b");
    EXPECT_TRUE(path.SetPath(path.GetPath()));
    EXPECT_EQ(TextOf(path), "/b");
}

TEST(KPathTest, SetPathTakesATextAsItStandsAndLeavesTheType) {
    KPath path = Typed("old", KPath::TYPE_DIRECTORY);
    EXPECT_TRUE(path.SetPath("C:\\dir\\f.txt"));
    EXPECT_EQ(TextOf(path), "C:\\dir\\f.txt");
    EXPECT_EQ(path.GetType(), KPath::TYPE_DIRECTORY);
    EXPECT_TRUE(path.SetPath(KString()));
    EXPECT_EQ(TextOf(path), "");
}

TEST(KPathTest, SetTypeStoresAnyType) {
    KPath path("a");
    for (const int nType : {0, 1, 2, 3, 4, 5, -1, INT_MAX}) {
        EXPECT_TRUE(path.SetType(static_cast<KPath::Type>(nType)));
        EXPECT_EQ(path.GetType(), nType);
    }
}

// -------------------------------------------------------------------------------------------------------- Comparing

TEST(KPathTest, PathsAreEqualWhenTheirTextsAre) {
    EXPECT_TRUE(KPath("a") == KPath("a"));
    EXPECT_FALSE(KPath("a") != KPath("a"));
    EXPECT_FALSE(KPath("a") == KPath("A"));
    EXPECT_TRUE(KPath("a") != KPath("A"));
    EXPECT_FALSE(KPath("a") == KPath("a/"));
    EXPECT_TRUE(KPath("a\\b") == KPath("a/b"));
    EXPECT_TRUE(AsItStands("a\\b") != KPath("a/b"));
}

TEST(KPathTest, TheTypeIsNotCompared) {
    EXPECT_TRUE(Typed("a", KPath::TYPE_DIRECTORY) == KPath("a"));
    EXPECT_FALSE(Typed("a", KPath::TYPE_DIRECTORY) != KPath("a"));
}

TEST(KPathTest, EmptyPathsAreNotEqual) {
    EXPECT_FALSE(KPath() == KPath());
    EXPECT_TRUE(KPath() != KPath());
    EXPECT_FALSE(KPath("") == KPath("a"));
}

// ---------------------------------------------------------------------------------------------------------- Joining

TEST(KPathTest, JoiningATextPutsASlashBetween) {
    struct Case {
        const char* pszPath;
        const char* pszText;
        const char* pszJoined;
    };
    const Case cases[] =
        {
            {"a", "b", "a/b"},       {"a", "/b", "a/b"},    {"a", "//b", "a//b"},
            {"a/", "b", "a//b"},   // the slash that is there does not count
            {"a/", "/b", "a//b"},  // and the text keeps its own
            {"/", "b", "//b"},       {"a", "", "a/"},       {"a/", "", "a//"},
            {"", "b", "b"},          {"", "/b", "/b"},      {"", "", ""},
            {"a", "b\\c", "a/b\\c"}, {"a", "\\b", "a/\\b"}, {"", "b\\c", "b\\c"},
        };
    for (const Case& test : cases) {
        SCOPED_TRACE(testing::PrintToString(test.pszPath) + " and " + testing::PrintToString(test.pszText));
        KPath path = Typed(test.pszPath, KPath::TYPE_DIRECTORY);
        KPath& result = path += test.pszText;
        EXPECT_EQ(&result, &path);
        EXPECT_EQ(TextOf(path), test.pszJoined);
        EXPECT_EQ(path.GetType(), KPath::TYPE_DIRECTORY);

        KPath other = Typed(test.pszPath, KPath::TYPE_LINK);
        KPath& otherResult = other += KString(test.pszText);
        EXPECT_EQ(&otherResult, &other);
        EXPECT_EQ(TextOf(other), test.pszJoined);
        EXPECT_EQ(other.GetType(), KPath::TYPE_LINK);
    }
}

TEST(KPathTest, JoiningADirectoryThatEndsInASlashDoublesIt) {
    KPath path = Typed("/tmp/", KPath::TYPE_DIRECTORY);
    path += "file";
    EXPECT_EQ(TextOf(path), "/tmp//file");
}

TEST(KPathTest, JoiningAPathPutsASlashInFrontEvenWhereThereWasNothing) {
    struct Case {
        const char* pszPath;
        const char* pszOther;
        const char* pszJoined;
    };
    const Case cases[] = {
        {"a", "b", "a/b"}, {"a", "/b", "a/b"}, {"a/", "b", "a//b"}, {"a/", "/b", "a//b"},   {"a", "", "a/"},
        {"", "b", "/b"},   {"", "/b", "/b"},   {"", "", "/"},       {"a", "b\\c", "a/b/c"}, {"a", "\\b", "a/b"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(testing::PrintToString(test.pszPath) + " and " + testing::PrintToString(test.pszOther));
        KPath path = Typed(test.pszPath, KPath::TYPE_LINK);
        KPath& result = path += Typed(test.pszOther, KPath::TYPE_DIRECTORY);
        EXPECT_EQ(&result, &path);
        EXPECT_EQ(TextOf(path), test.pszJoined);
        EXPECT_EQ(path.GetType(), KPath::TYPE_LINK);

        // The sum joins every right side as a path.
        KPath left = Typed(test.pszPath, KPath::TYPE_LINK);
        const KPath sums[] = {left + Typed(test.pszOther, KPath::TYPE_DIRECTORY), left + test.pszOther,
                              left + KString(test.pszOther)};
        for (const KPath& sum : sums) {
            EXPECT_EQ(TextOf(sum), test.pszJoined);
            EXPECT_EQ(sum.GetType(), KPath::TYPE_LINK);
        }
        EXPECT_EQ(TextOf(left), TextOf(KPath(test.pszPath)));
    }
}

TEST(KPathTest, AddingAPathKeepsTheBackslashesItHolds) {
    KPath path("a");
    path += AsItStands("b\\c");
    EXPECT_EQ(TextOf(path), "a/b\\c");
}

TEST(KPathTest, JoiningNoTextAppendsASlash) {
    KPath path("a");
    path += kNull;
    EXPECT_EQ(TextOf(path), "a/");
    KPath empty;
    empty += kNull;
    EXPECT_EQ(TextOf(empty), "");
    EXPECT_EQ(TextOf(KPath("a") + kNull), "a/");
}

TEST(KPathTest, JoiningAPathToItselfTakesItsTextAsItWas) {
    KPath path("a");
    const KPath& same = path;
    path += same;
    EXPECT_EQ(TextOf(path), "a/a");
    path += path.GetPath();
    EXPECT_EQ(TextOf(path), "a/a/a/a");
    path += path.GetPath().GetBuffer() + 4;
    EXPECT_EQ(TextOf(path), "a/a/a/a/a/a");

    KPath rooted("/a");
    const KPath& sameRooted = rooted;
    rooted += sameRooted;
    EXPECT_EQ(TextOf(rooted), "/a/a");
    rooted += rooted.GetPath();
    EXPECT_EQ(TextOf(rooted), "/a/a/a/a");
    EXPECT_EQ(TextOf(rooted + rooted), "/a/a/a/a/a/a/a/a");
}

TEST(KPathTest, OnlyAPathThatIsNotConstCanBeAddedTo) {
    // As each of these operations is declared.
    EXPECT_TRUE((std::is_same<decltype(static_cast<KPath (KPath::*)(const KPath&)>(&KPath::operator+)),
                              KPath (KPath::*)(const KPath&)>::value));
    EXPECT_TRUE((std::is_same<decltype(&KPath::GetSystemPath), char* (KPath::*)(KPath::ConvPathTo)>::value));
}

// -------------------------------------------------------------------------------------------------------- Splitting

TEST(KPathTest, SplitsPathsIntoTheirParts) {
    struct Case {
        const char* pszPath;
        const char* pszRoot;
        const char* pszName;
        const char* pszSubPath;
        const char* pszWithoutSubPath;
        const char* pszExt;
    };
    const Case cases[] = {
        {"a/b/c", "a/b", "/c", "c", "a/b", ""},
        {"a/b/", "a/b", "/", "", "a/b", ""},
        {"/abc", "", "/abc", "abc", "/abc", ""},
        {"abc", "", "abc", "", "abc", ""},
        {"", "", "", "", "", ""},
        {"/", "", "/", "", "/", ""},
        {"//", "/", "/", "", "/", ""},
        {"a/", "a", "/", "", "a", ""},
        {"/x/name.txt", "/x", "name", "name.txt", "/x", "txt"},
        {"/x/name", "/x", "/name", "name", "/x", ""},
        {"/x/", "/x", "/", "", "/x", ""},
        {"/name.txt", "", "/name", "name.txt", "/name.txt", "txt"},
        {"name.txt", "", "name", "", "name.txt", "txt"},
        {"/name", "", "/name", "name", "/name", ""},
        {".profile", "", ".profile", "", ".profile", ""},
        {"/.profile", "", "/", ".profile", "/.profile", "profile"},
        {"/x/.profile", "/x", "", ".profile", "/x", "profile"},
        {"name.", "", "name", "", "name.", ""},
        {"a/name.", "a", "name", "name.", "a", ""},
        {"a/b.tar.gz", "a", "b.tar", "b.tar.gz", "a", "gz"},
        {"a.b/c", "a.b", "/c", "c", "a.b", ""},
        {"a.b/", "a.b", "/", "", "a.b", ""},
        {"/usr/lib/libx", "/usr/lib", "/libx", "libx", "/usr/lib", ""},
        {"/usr/lib/libx.so", "/usr/lib", "libx", "libx.so", "/usr/lib", "so"},
        {"libx", "", "libx", "", "libx", ""},
        {"/usr/", "/usr", "/", "", "/usr", ""},
        {"/usr", "", "/usr", "usr", "/usr", ""},
        {"usr/lib", "usr", "/lib", "lib", "usr", ""},
        {".", "", ".", "", ".", ""},
        {"..", "", ".", "", "..", ""},
        {"a/..", "a", ".", "..", "a", ""},
        {"/..", "", "/.", "..", "/..", ""},
    };
    const ScopedChecks checks(true);
    for (const Case& test : cases) {
        SCOPED_TRACE(testing::PrintToString(test.pszPath));
        KPath path = Typed(test.pszPath, KPath::TYPE_DIRECTORY);
        EXPECT_EQ(TextOf(path.GetRootOnly()), test.pszRoot);
        EXPECT_EQ(TextOf(path.GetNameOnly()), test.pszName);
        EXPECT_EQ(TextOf(path.GetSubPath()), test.pszSubPath);
        EXPECT_EQ(path.GetSubPath().GetType(), KPath::TYPE_NONE);
        EXPECT_EQ(TextOf(path.GetExt()), test.pszExt);
        EXPECT_EQ(TextOf(path), test.pszPath);
        EXPECT_TRUE(path.RemoveSubPath());
        EXPECT_EQ(TextOf(path), test.pszWithoutSubPath);
        EXPECT_EQ(path.GetType(), KPath::TYPE_DIRECTORY);
    }
}

TEST(KPathTest, TheSubPathIsMadeAsFromAText) {
    EXPECT_EQ(TextOf(AsItStands("a/b\\c").GetSubPath()), "b/c");
    EXPECT_EQ(TextOf(AsItStands("a\\b").GetSubPath()), "");
    EXPECT_EQ(TextOf(AsItStands("a/b\\c").GetRootOnly()), "a");
}

TEST(KPathTest, RemovingSubPathsEndsAtTheFirstComponent) {
    KPath path("/a/b/c");
    for (const char* const pszExpected : {"/a/b", "/a", "/a"}) {
        EXPECT_TRUE(path.RemoveSubPath());
        EXPECT_EQ(TextOf(path), pszExpected);
        EXPECT_STREQ(path.GetPath().GetBuffer(), pszExpected);
    }
}

TEST(KPathTest, TheExtensionOfWhatIsLeftWithoutTheSubPathCanBeSet) {
    KPath path("/a/b.txt/c.txt");
    EXPECT_TRUE(path.RemoveSubPath());
    EXPECT_TRUE(path.SetExt(KString("log")));
    EXPECT_EQ(TextOf(path), "/a/b.log");
}

TEST(KPathTest, SetExtSetsOrReplacesTheExtension) {
    struct Case {
        const char* pszPath;
        const char* pszExt;
        const char* pszResult;
    };
    const Case cases[] = {
        {"doc.txt", "log", "doc.log"},
        {"txtfile.txt", "log", "logfile.log"},  // wherever it occurs
        {"/txt/a.txt", "log", "/log/a.log"},
        {"a.a", "b", "b.b"},
        {"a.aa", "b", "a.b"},
        {"aaa.aa", "b", "ba.b"},  // left to right, without overlap
        {"a", "b", "a.b"},
        {"a.", "b", "a..b"},
        {".profile", "b", ".profile.b"},
        {"a.b/c", "d", "a.b/c.d"},
        {"a/", "b", "a/.b"},
        {"", "b", ".b"},
        {"a", "", "a."},
        {"doc.txt", "", "doc."},
        {"doc.txt", "txt", "doc.txt"},
        {"doc.txt", "b\\c", "doc.b\\c"},
        {"doc.txt", ".log", "doc..log"},
    };
    for (const Case& test : cases) {
        KPath path = Typed(test.pszPath, KPath::TYPE_FILE);
        EXPECT_TRUE(path.SetExt(KString(test.pszExt)));
        EXPECT_EQ(TextOf(path), test.pszResult) << test.pszPath << " with " << test.pszExt;
        EXPECT_EQ(path.GetType(), KPath::TYPE_FILE);
    }
}

TEST(KPathTest, AnExtensionThatBeginsWithANulIsNotReplaced) {
    KPath path = AsItStands("a.\0b"s);
    EXPECT_TRUE(path.SetExt(KString("c")));
    EXPECT_EQ(TextOf(path), "a.\0b"s);
}

TEST(KPathTest, ItsOwnTextCanBeTheExtension) {
    KPath path("a.b");
    EXPECT_TRUE(path.SetExt(path.GetPath()));
    EXPECT_EQ(TextOf(path), "a.a.b");
    KPath plain("a");
    EXPECT_TRUE(plain.SetExt(plain.GetPath()));
    EXPECT_EQ(TextOf(plain), "a.a");
}

namespace {

// The splitting, step by step over std::string.

int LastOf(const std::string& text, char ch) {
    const std::size_t nAt = text.rfind(ch);
    return nAt == std::string::npos ? -1 : static_cast<int>(nAt);
}

/// From a start up to an end, where an end of 0 means that of the text.
std::string Range(const std::string& text, int nStart, int nEnd) {
    const int nCount = (nEnd == 0 ? static_cast<int>(text.size()) : nEnd) - nStart;
    return nCount > 0 ? text.substr(static_cast<std::size_t>(nStart), static_cast<std::size_t>(nCount)) : "";
}

std::string RootOf(const std::string& text) {
    const int nSlash = LastOf(text, '/');
    return nSlash > 0 ? Range(text, 0, nSlash) : "";
}

std::string NameOf(const std::string& text) {
    const int nSlash = LastOf(text, '/');
    const int nDot = LastOf(text, '.');
    if (nSlash > 0 && nDot > nSlash) {
        return Range(text, nSlash + 1, nDot);
    }
    if (nSlash > 0) {
        return Range(text, nSlash, static_cast<int>(text.size()));
    }
    return nDot > 0 ? Range(text, 0, nDot) : text;
}

std::string ExtOf(const std::string& text) {
    for (std::size_t i = text.size(); i-- > 1;) {
        if (text[i] == '/') {
            return "";
        }
        if (text[i] == '.') {
            return text.substr(i + 1);
        }
    }
    return "";
}

std::string JoinedOf(const std::string& text, const std::string& other) {
    return text + (other.empty() || other[0] != '/' ? "/" : "") + other;
}

}  // namespace

TEST(KPathTest, RandomPathsAreSplitAndJoinedAsAModelDoes) {
    std::mt19937 random(1);
    const auto any = [&](int nMaxLength) {
        std::string text(static_cast<std::size_t>(std::uniform_int_distribution<int>(0, nMaxLength)(random)), ' ');
        for (char& ch : text) {
            ch = "ab./"[std::uniform_int_distribution<int>(0, 3)(random)];
        }
        return text;
    };
    for (int i = 0; i < 3000; ++i) {
        const std::string text = any(10);
        const std::string other = any(4);
        SCOPED_TRACE(testing::PrintToString(text) + " and " + testing::PrintToString(other));
        const KPath path(text.c_str());
        ASSERT_EQ(TextOf(path.GetRootOnly()), RootOf(text));
        ASSERT_EQ(TextOf(path.GetNameOnly()), NameOf(text));
        ASSERT_EQ(TextOf(path.GetExt()), ExtOf(text));
        const int nSlash = LastOf(text, '/');
        ASSERT_EQ(TextOf(path.GetSubPath()), nSlash < 0 ? "" : text.substr(static_cast<std::size_t>(nSlash) + 1));
        KPath removed(path);
        ASSERT_TRUE(removed.RemoveSubPath());
        ASSERT_EQ(TextOf(removed), nSlash < 0 ? text : Range(text, 0, nSlash));
        KPath joined(path);
        joined += KString(other.c_str());
        ASSERT_EQ(TextOf(joined), text.empty() ? other : JoinedOf(text, other));
        KPath added(path);
        added += KPath(other.c_str());
        ASSERT_EQ(TextOf(added), JoinedOf(text, other));
    }
}

// -------------------------------------------------------------------------------------------------------- Rendering

TEST(KPathTest, RendersTheTextWithASeparatorBehindADirectory) {
    struct Case {
        const char* pszPath;
        const char* pszAsItStands;
        const char* pszAsDirectory;
        const char* pszBackslashed;
        const char* pszBackslashedDirectory;
    };
    const Case cases[] = {
        {"/tmp", "/tmp", "/tmp/", "\\tmp", "\\tmp\\"},
        {"/tmp/", "/tmp/", "/tmp/", "\\tmp\\", "\\tmp\\"},
        {"a/b.c", "a/b.c", "a/b.c/", "a\\b.c", "a\\b.c\\"},
        {"a//", "a//", "a//", "a\\\\", "a\\\\"},
        {"/", "/", "/", "\\", "\\"},
        {"", "", "/", "", "\\"},
        // Backslashes that SetPath let in.
        {"a\\b", "a\\b", "a\\b/", "a\\b", "a\\b\\"},
        {"a\\", "a\\", "a\\/", "a\\", "a\\"},
        {"a\\/", "a\\/", "a\\/", "a\\\\", "a\\\\"},
    };
    const ScopedChecks checks(true);
    for (const Case& test : cases) {
        SCOPED_TRACE(testing::PrintToString(test.pszPath));
        for (const int nConversion : {1, 2, -1, INT_MAX}) {
            const KPath::ConvPathTo eConversion = static_cast<KPath::ConvPathTo>(nConversion);
            EXPECT_STREQ(AsItStands(test.pszPath).GetSystemPath(eConversion), test.pszAsItStands);
            EXPECT_STREQ(AsItStands(test.pszPath, KPath::TYPE_DIRECTORY).GetSystemPath(eConversion),
                         test.pszAsDirectory);
        }
        EXPECT_STREQ(AsItStands(test.pszPath).GetSystemPath(KPath::CONV_BACKSLASH), test.pszBackslashed);
        EXPECT_STREQ(AsItStands(test.pszPath, KPath::TYPE_DIRECTORY).GetSystemPath(KPath::CONV_BACKSLASH),
                     test.pszBackslashedDirectory);
    }
}

TEST(KPathTest, OnlyADirectoryGetsASeparator) {
    for (const KPath::Type eType : {KPath::TYPE_NONE, KPath::TYPE_FILE, KPath::TYPE_LINK, KPath::TYPE_OTHER}) {
        EXPECT_STREQ(Typed("a", eType).GetSystemPath(KPath::CONV_SLASH), "a");
        EXPECT_STREQ(Typed("a", eType).GetSystemPath(KPath::CONV_BACKSLASH), "a");
    }
}

TEST(KPathTest, RenderingLeavesTheTextAlone) {
    KPath path = Typed("a/b", KPath::TYPE_DIRECTORY);
    path.GetSystemPath(KPath::CONV_BACKSLASH);
    EXPECT_EQ(TextOf(path), "a/b");
}

TEST(KPathTest, EveryCallRendersIntoTheObjectsOneBuffer) {
    KPath path("first");
    const char* const pszFirst = path.GetSystemPath(KPath::CONV_SLASH);
    path = "second";
    EXPECT_STREQ(pszFirst, "first") << "until the next call";
    EXPECT_EQ(path.GetSystemPath(KPath::CONV_SLASH), pszFirst);
    EXPECT_STREQ(pszFirst, "second");
    KPath other("other");
    EXPECT_NE(other.GetSystemPath(KPath::CONV_SLASH), pszFirst);
    EXPECT_STREQ(pszFirst, "second");
}

TEST(KPathTest, TheRenderedTextEndsInTwoNuls) {
    KPath path("abcdefgh");
    const char* const pszRendered = path.GetSystemPath(KPath::CONV_SLASH);
    path = "ab";
    path.GetSystemPath(KPath::CONV_SLASH);
    EXPECT_EQ(std::string(pszRendered, 8), "ab\0\0efgh"s);
    path.SetType(KPath::TYPE_DIRECTORY);
    path.GetSystemPath(KPath::CONV_SLASH);
    EXPECT_EQ(std::string(pszRendered, 8), "ab/\0\0fgh"s);
}

TEST(KPathTest, RendersAllBytesOfATextWithNuls) {
    KPath path = AsItStands("a\0/b"s, KPath::TYPE_DIRECTORY);
    EXPECT_EQ(std::string(path.GetSystemPath(KPath::CONV_BACKSLASH), 7), "a\0\\b\\\0\0"s);
}

TEST(KPathTest, RendersUpTo2046Characters) {
    const ScopedChecks checks(true);
    EXPECT_EQ(AsItStands(Repeated(2046)).GetSystemPath(KPath::CONV_SLASH), Repeated(2046));
    EXPECT_EQ(AsItStands(Repeated(2045), KPath::TYPE_DIRECTORY).GetSystemPath(KPath::CONV_SLASH), Repeated(2045) + "/");
    EXPECT_EQ(AsItStands(Repeated(2045) + "/", KPath::TYPE_DIRECTORY).GetSystemPath(KPath::CONV_SLASH),
              Repeated(2045) + "/");
    EXPECT_EQ(AsItStands(Repeated(2045), KPath::TYPE_DIRECTORY).GetSystemPath(KPath::CONV_BACKSLASH),
              Repeated(2045) + "\\");
}

TEST(KPathTest, RenderingMoreThan2046CharactersFailsACheck) {
    EXPECT_CHECK_FAILS(AsItStands(Repeated(2047)).GetSystemPath(KPath::CONV_SLASH), "nLen < 2048", "src/KPath",
                       "char* KPath::GetSystemPath(KPath::ConvPathTo)");
    EXPECT_CHECK_FAILS(AsItStands(Repeated(2048)).GetSystemPath(KPath::CONV_BACKSLASH), "nLen < 2048", "src/KPath",
                       "char* KPath::GetSystemPath(KPath::ConvPathTo)");
    EXPECT_CHECK_FAILS(AsItStands(Repeated(2046), KPath::TYPE_DIRECTORY).GetSystemPath(KPath::CONV_SLASH),
                       "nLen < 2048", "src/KPath", "char* KPath::GetSystemPath(KPath::ConvPathTo)");
    EXPECT_CHECK_FAILS(AsItStands(Repeated(100000)).GetSystemPath(KPath::CONV_SLASH), "nLen < 2048", "src/KPath",
                       "char* KPath::GetSystemPath(KPath::ConvPathTo)");
}

TEST(KPathTest, WithTheChecksOff2047CharactersAreRenderedToo) {
    const ScopedChecks checks(false);
    EXPECT_EQ(AsItStands(Repeated(2047)).GetSystemPath(KPath::CONV_SLASH), Repeated(2047));
    EXPECT_EQ(AsItStands(Repeated(2046), KPath::TYPE_DIRECTORY).GetSystemPath(KPath::CONV_SLASH), Repeated(2046) + "/");
}

TEST(KPathTest, WithTheChecksOffATextThatDoesNotFitIsRenderedAsAnEmptyOne) {
    const ScopedChecks checks(false);
    KPath path("short");
    const char* const pszRendered = path.GetSystemPath(KPath::CONV_SLASH);
    for (const int nLength : {2048, 2049, 4096, 100000}) {
        path.SetPath(KString(Repeated(nLength).c_str()));
        EXPECT_EQ(path.GetSystemPath(KPath::CONV_SLASH), pszRendered);
        EXPECT_STREQ(pszRendered, "") << nLength;
        EXPECT_STREQ(path.GetSystemPath(KPath::CONV_BACKSLASH), "") << nLength;
    }
    EXPECT_STREQ(AsItStands(Repeated(2047), KPath::TYPE_DIRECTORY).GetSystemPath(KPath::CONV_SLASH), "");
    path = "short";
    EXPECT_STREQ(path.GetSystemPath(KPath::CONV_SLASH), "short");
}

// ------------------------------------------------------------------------------------------------------------ Lists

TEST(KPathTest, PathsInAListKeepTheirTypes) {
    KList<KPath> list;
    list.Add(Typed("a", KPath::TYPE_DIRECTORY));
    list.Add(AsItStands("b\\c", KPath::TYPE_FILE));
    KPath out;
    EXPECT_TRUE(list.Get(out, 1));
    EXPECT_EQ(TextOf(out), "b\\c");
    EXPECT_EQ(out.GetType(), KPath::TYPE_FILE);
    EXPECT_EQ(list[0]->GetType(), KPath::TYPE_DIRECTORY);
}

// -------------------------------------------------------------------------------------------------- Lack of memory

TEST(KPathTest, APathOfWhichAnyPartLacksMemoryIsEmptyAndOfNoType) {
    KPath much = Typed(Repeated(support::kMuchMemory).c_str(), KPath::TYPE_DIRECTORY);
    const KString& text = much.GetPath();
    const KPath small = Typed("/small", KPath::TYPE_DIRECTORY);
    // The steps' numbers are those of this list.
    const std::function<void(KPath&)> ways[] = {
        [&](KPath& path) { path = much; },
        [&](KPath& path) { path = KPath(much); },
        [&](KPath& path) { path.SetPath(text); },
        [&](KPath& path) { path += much; },
        [&](KPath& path) { path += text; },
        [&](KPath& path) { path += text.GetBuffer(); },
        [&](KPath& path) { path = path + much; },
        [&](KPath& path) { path = path + text; },
        [&](KPath& path) { path = path + text.GetBuffer(); },
        [&](KPath& path) { path = much + path; },
        [&](KPath& path) { path.SetExt(text); },
        [&](KPath& path) {
            path += "name.txt";
            path.SetExt(text);
        },
        [&](KPath& path) {
            path.SetPath(KString());
            path += text;
        },
    };
    const int nStep = support::InLittleMemory([&] {
        int nWay = 0;
        for (const auto& way : ways) {
            ++nWay;
            KPath path(small);
            if (path.GetType() != KPath::TYPE_DIRECTORY) {
                return support::kMemoryCannotBeLimited;
            }
            way(path);
            if (!IsNothing(path)) {
                return nWay;
            }
        }
        return 0;
    });
    if (nStep == support::kMemoryCannotBeLimited) {
        GTEST_SKIP() << "memory cannot be limited here";
    }
    EXPECT_EQ(nStep, 0);
}
