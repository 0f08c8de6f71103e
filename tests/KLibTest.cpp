#include <dlfcn.h>

#include <memory>
#include <string>
#include <type_traits>

#include "KLib.h"
#include "support/Interpose.h"
#include "support/Support.h"

namespace {

using support::ScopedCalls;
using support::ScopedChecks;
using support::StderrOf;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kSource = "src/api/KLib";

// The plug-ins are below KALVOREN_PLUGINS; the directory "search" there is in this program's search path.
const std::string kPlugins = KALVOREN_PLUGINS;
const std::string kFound = kPlugins + "/search/libkalvoren-plugin.so";
const std::string kOther = kPlugins + "/search/libkalvoren-other.so";
const std::string kPlaces = kPlugins + "/places";

/// Whether a shared library is in this process now.
bool IsInProcess(const std::string& file) {
    void* const pHandle = dlopen(file.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (pHandle != nullptr) {
        dlclose(pHandle);
    }
    return pHandle != nullptr;
}

/// Takes a shared library out of this process however often it was loaded, when the block ends.
class ScopedLibrary {
 public:
    explicit ScopedLibrary(std::string file) : m_File(std::move(file)) { EXPECT_FALSE(IsLoaded()) << m_File; }
    ~ScopedLibrary() {
        while (void* const pHandle = dlopen(m_File.c_str(), RTLD_LAZY | RTLD_NOLOAD)) {
            dlclose(pHandle);
            dlclose(pHandle);
        }
    }
    ScopedLibrary(const ScopedLibrary&) = delete;
    ScopedLibrary& operator=(const ScopedLibrary&) = delete;

    bool IsLoaded() const { return IsInProcess(m_File); }

 private:
    std::string m_File;
};

template <typename Function>
Function FunctionOf(KLib& library, const char* pszName) {
    return reinterpret_cast<Function>(library.GetFunc(KString(pszName)));
}

/// What a loaded plug-in says it is.
std::string NameOf(KLib& library) {
    using GetName = const char* (*)();
    const auto pGetName = FunctionOf<GetName>(library, "PluginName");
    return pGetName != nullptr ? pGetName() : "";
}

std::string PathOf(const KLib& library) {
    return library.GetPath().GetPath().GetBuffer();
}

bool Load(KLib& library, const std::string& path) {
    return library.Load(KPath(path.c_str()));
}

}  // namespace

// ------------------------------------------------------------------------------------ The function in front of libc's

extern "C" int dlclose(void* pHandle) noexcept {
    return support::NoteAndPassOn<&dlclose>("dlclose", pHandle);
}

namespace {

// ------------------------------------------------------------------------------------------------------------- Loading

TEST(KLibTest, ANewLoaderHasAnEmptyPathAndNothingLoaded) {
    const ScopedChecks checks(true);
    KLib library;
    EXPECT_EQ(library.GetPath().GetPath().Length(), 0);
    EXPECT_EQ(library.GetFunc(KString("PluginName")), nullptr);
    EXPECT_TRUE(std::has_virtual_destructor<KLib>::value);
}

TEST(KLibTest, ABareNameIsFoundInTheSearchPath) {
    const ScopedChecks checks(true);
    const ScopedLibrary plugin(kFound);
    KLib library;
    EXPECT_TRUE(Load(library, "kalvoren-plugin"));
    EXPECT_TRUE(plugin.IsLoaded());
    EXPECT_EQ(PathOf(library), "libkalvoren-plugin.so");
    EXPECT_EQ(NameOf(library), "found");
}

TEST(KLibTest, ANameWithADirectoryKeepsItsSlashSoThatLibBecomesADirectory) {
    const ScopedChecks checks(true);
    const ScopedLibrary plugin(kPlaces + "/lib/codec.so");
    KLib library;
    EXPECT_TRUE(Load(library, kPlaces + "/codec"));
    EXPECT_EQ(PathOf(library), kPlaces + "/lib/codec.so");
    EXPECT_EQ(NameOf(library), "without-extension");
}

TEST(KLibTest, ANameWithADirectoryThatEndsInADotIsFoundInThatDirectory) {
    const ScopedChecks checks(true);
    const ScopedLibrary plugin(kPlaces + "/libcodec.so");
    KLib library;
    EXPECT_TRUE(Load(library, kPlaces + "/codec."));
    EXPECT_EQ(PathOf(library), kPlaces + "/libcodec.so");
    EXPECT_EQ(NameOf(library), "with-extension");
}

TEST(KLibTest, ANameWithAnExtensionFailsTheCheck) {
    for (const char* const pszPath : {"codec.so", "plugins/codec.so", "a.b"}) {
        EXPECT_CHECK_FAILS(KLib().Load(KPath(pszPath)), "0", kSource, "bool KLib::Load(const KPath&)");
    }
}

TEST(KLibTest, WithTheChecksOffAnExtensionIsDropped) {
    const ScopedChecks checks(false);
    {
        const ScopedLibrary plugin(kFound);
        KLib library;
        EXPECT_TRUE(Load(library, "kalvoren-plugin.so"));
        EXPECT_EQ(PathOf(library), "libkalvoren-plugin.so");
        EXPECT_EQ(NameOf(library), "found");
    }
    const ScopedLibrary plugin(kPlaces + "/libcodec.so");
    KLib library;
    EXPECT_TRUE(Load(library, kPlaces + "/codec.so"));
    EXPECT_EQ(NameOf(library), "with-extension");
}

TEST(KLibTest, MakesTheFileNameFromThePath) {
    struct Case {
        const char* pszPath;
        const char* pszFile;
    };
    const Case cases[] = {
        {"kalvoren-none", "libkalvoren-none.so"},
        {"", "lib.so"},
        {".none", "lib.none.so"},
        {"none.", "libnone.so"},
        {"plugins/none", "plugins/lib/none.so"},
        {"plugins\\none", "plugins/lib/none.so"},
        {"a/b/none", "a/b/lib/none.so"},
        {"./none", "./lib/none.so"},
        {"../none", "../lib/none.so"},
        {"a.b/none", "a.b/lib/none.so"},
        {"a/none.", "a/libnone.so"},
        {"/none", "lib/none.so"},
        {"/", "lib/.so"},
        {"a/", "a/lib/.so"},
        {"a//none", "a//lib/none.so"},
        // With an extension.
        {"none.so", "libnone.so"},
        {"none.tar.gz", "libnone.tar.so"},
        {"libnone.so", "liblibnone.so"},
        {"a/none.so", "a/libnone.so"},
        {"/a/none.so", "/a/libnone.so"},
        {"/none.so", "lib/none.so"},
        {"a/.none", "a/lib.so"},
    };
    const ScopedChecks checks(false);
    for (const Case& each : cases) {
        SCOPED_TRACE(each.pszPath);
        KLib library;
        EXPECT_FALSE(Load(library, each.pszPath));
        EXPECT_EQ(PathOf(library), each.pszFile);
    }
}

TEST(KLibTest, BackslashesBecomeSlashesInTheDirectoryAndStayInTheName) {
    const ScopedChecks checks(true);
    KPath path;
    path.SetPath(KString("a\\b/no\\ne"));
    path.SetType(KPath::TYPE_DIRECTORY);
    KLib library;
    EXPECT_FALSE(library.Load(path));
    EXPECT_EQ(PathOf(library), "a/b/lib/no\\ne.so");
    EXPECT_EQ(library.GetPath().GetType(), KPath::TYPE_NONE);
}

TEST(KLibTest, ALibraryThatIsNotThereIsFalseAndLogsNothing) {
    const ScopedChecks checks(true);
    KLib library;
    EXPECT_EQ(StderrOf([&] {
                  EXPECT_FALSE(Load(library, "kalvoren-none"));
                  EXPECT_EQ(library.GetFunc(KString("PluginName")), nullptr);
                  EXPECT_FALSE(library.Unload());
              }),
              "");
}

TEST(KLibTest, AFileThatIsNoLibraryIsFalse) {
    const ScopedChecks checks(true);
    const support::ScopedDirectory directory;
    directory.File("libtext.so", "this is no library");
    KLib library;
    EXPECT_FALSE(Load(library, directory.Entry("text.")));
    EXPECT_EQ(PathOf(library), directory.Entry("libtext.so"));
}

TEST(KLibTest, APathThatIsTooLongFailsTheCheckOfThePath) {
    EXPECT_CHECK_FAILS(KLib().Load(KPath(std::string(2100, 'x').c_str())), "nLen < 2048", "src/KPath",
                       "char* KPath::GetSystemPath(KPath::ConvPathTo)");
}

TEST(KLibTest, WithTheChecksOffAPathThatIsTooLongLoadsNothingNotEvenTheProgramItself) {
    const ScopedChecks checks(false);
    KLib library;
    EXPECT_FALSE(Load(library, std::string(2100, 'x')));
    EXPECT_EQ(library.GetFunc(KString("malloc")), nullptr);
    EXPECT_FALSE(library.Unload());
}

TEST(KLibTest, FunctionsAreLookedForWhenTheyAreFirstCalled) {
    void* const pAtOnce = dlopen(kFound.c_str(), RTLD_NOW);
    ASSERT_EQ(pAtOnce, nullptr) << "the plug-in refers to nothing that is missing";
    const ScopedLibrary plugin(kFound);
    KLib library;
    EXPECT_TRUE(Load(library, "kalvoren-plugin"));
    EXPECT_NE(library.GetFunc(KString("PluginCallNobody")), nullptr);
}

TEST(KLibTest, ASecondLoadReplacesTheFirstLibraryWhichStaysLoaded) {
    const ScopedLibrary first(kFound);
    const ScopedLibrary second(kOther);
    KLib library;
    EXPECT_TRUE(Load(library, "kalvoren-plugin"));
    EXPECT_TRUE(Load(library, "kalvoren-other"));
    EXPECT_EQ(NameOf(library), "other");
    EXPECT_EQ(PathOf(library), "libkalvoren-other.so");
    EXPECT_TRUE(library.Unload());
    EXPECT_FALSE(second.IsLoaded());
    EXPECT_TRUE(first.IsLoaded());
}

TEST(KLibTest, ASecondLoadThatFailsForgetsTheFirstLibraryToo) {
    const ScopedLibrary first(kFound);
    KLib library;
    EXPECT_TRUE(Load(library, "kalvoren-plugin"));
    EXPECT_FALSE(Load(library, "kalvoren-none"));
    EXPECT_EQ(library.GetFunc(KString("PluginName")), nullptr);
    EXPECT_FALSE(library.Unload());
    EXPECT_TRUE(first.IsLoaded());
}

// ----------------------------------------------------------------------------------------------------------- Functions

TEST(KLibTest, FindsFunctionsAndDataByName) {
    const ScopedLibrary plugin(kFound);
    KLib library;
    ASSERT_TRUE(Load(library, "kalvoren-plugin"));
    using Add = int (*)(int, int);
    const auto pAdd = FunctionOf<Add>(library, "PluginAdd");
    ASSERT_NE(pAdd, nullptr);
    EXPECT_EQ(pAdd(20, 22), 42);
    const auto* const pValue = static_cast<const int*>(library.GetFunc(KString("PluginValue")));
    ASSERT_NE(pValue, nullptr);
    EXPECT_EQ(*pValue, 4711);
}

TEST(KLibTest, ANameThatTheLibraryDoesNotHaveIsNull) {
    const ScopedLibrary plugin(kFound);
    KLib library;
    ASSERT_TRUE(Load(library, "kalvoren-plugin"));
    for (const char* const pszName : {"PluginNam", "pluginname", "PluginName ", "KalvorenNobodyDefinesThis", ""}) {
        EXPECT_EQ(library.GetFunc(KString(pszName)), nullptr) << pszName;
    }
}

TEST(KLibTest, BeforeALoadNoNameIsFoundNotEvenOneThatEveryProgramHas) {
    KLib library;
    EXPECT_NE(dlsym(RTLD_DEFAULT, "malloc"), nullptr);
    EXPECT_EQ(library.GetFunc(KString("malloc")), nullptr);
}

// ----------------------------------------------------------------------------------------------------------- Unloading

TEST(KLibTest, UnloadingTakesTheLibraryOut) {
    const ScopedChecks checks(true);
    const ScopedLibrary plugin(kFound);
    KLib library;
    ASSERT_TRUE(Load(library, "kalvoren-plugin"));
    EXPECT_EQ(StderrOf([&] { EXPECT_TRUE(library.Unload()); }), "");
    EXPECT_FALSE(plugin.IsLoaded());
    EXPECT_EQ(library.GetFunc(KString("PluginName")), nullptr);
    EXPECT_EQ(PathOf(library), "libkalvoren-plugin.so");
}

TEST(KLibTest, UnloadingWithNothingLoadedIsFalse) {
    const ScopedChecks checks(true);
    const ScopedLibrary plugin(kFound);
    KLib library;
    EXPECT_FALSE(library.Unload());
    ASSERT_TRUE(Load(library, "kalvoren-plugin"));
    EXPECT_TRUE(library.Unload());
    const ScopedCalls calls;
    EXPECT_FALSE(library.Unload());
    EXPECT_THAT(calls.Names(), IsEmpty());
}

TEST(KLibTest, WhenTheSystemRefusesToUnloadTheLibraryStaysLoaded) {
    const ScopedLibrary plugin(kFound);
    KLib library;
    ASSERT_TRUE(Load(library, "kalvoren-plugin"));
    {
        const ScopedCalls calls({{"dlclose", -1}});
        EXPECT_FALSE(library.Unload());
        EXPECT_THAT(calls.Names(), ElementsAre("dlclose"));
    }
    EXPECT_EQ(NameOf(library), "found");
    EXPECT_TRUE(library.Unload());
}

TEST(KLibTest, DestroyingALoaderLeavesItsLibraryLoaded) {
    const ScopedLibrary plugin(kFound);
    const char* (*pGetName)() = nullptr;
    {
        KLib library;
        ASSERT_TRUE(Load(library, "kalvoren-plugin"));
        pGetName = FunctionOf<const char* (*)()>(library, "PluginName");
    }
    EXPECT_TRUE(plugin.IsLoaded());
    EXPECT_STREQ(pGetName(), "found");
}

TEST(KLibTest, ALibraryIsThereUntilTheLastLoaderThatLoadedItUnloadsIt) {
    const ScopedLibrary plugin(kFound);
    KLib first;
    KLib second;
    ASSERT_TRUE(Load(first, "kalvoren-plugin"));
    ASSERT_TRUE(Load(second, "kalvoren-plugin"));
    EXPECT_TRUE(first.Unload());
    EXPECT_EQ(NameOf(second), "found");
    EXPECT_TRUE(second.Unload());
    EXPECT_FALSE(plugin.IsLoaded());
}

TEST(KLibTest, ALoaderLoadsAndUnloadsAnyNumberOfTimes) {
    const ScopedLibrary plugin(kFound);
    KLib library;
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(Load(library, "kalvoren-plugin"));
        ASSERT_EQ(NameOf(library), "found");
        ASSERT_TRUE(library.Unload());
        ASSERT_FALSE(plugin.IsLoaded());
    }
}

// ------------------------------------------------------------------------------------------------------------- Copying

TEST(KLibTest, CopyingALoaderFailsTheCheck) {
    EXPECT_CHECK_FAILS(
        {
            const KLib library;
            const KLib copy(library);
        },
        "0", kSource, "KLib::KLib(const KLib&)");
    EXPECT_CHECK_FAILS(
        {
            const KLib library;
            KLib target;
            target = library;
        },
        "0", kSource, "KLib& KLib::operator=(const KLib&)");
}

TEST(KLibTest, WithTheChecksOffACopyHasNothingLoadedAndAnAssignmentDoesNothing) {
    const ScopedChecks checks(false);
    const ScopedLibrary plugin(kFound);
    const ScopedLibrary other(kOther);
    KLib library;
    KLib target;
    ASSERT_TRUE(Load(library, "kalvoren-plugin"));
    ASSERT_TRUE(Load(target, "kalvoren-other"));
    KLib copy(library);
    EXPECT_EQ(PathOf(copy), "");
    EXPECT_FALSE(copy.Unload());
    EXPECT_EQ(&(target = library), &target);
    EXPECT_EQ(NameOf(target), "other");
    EXPECT_EQ(PathOf(target), "libkalvoren-other.so");
    EXPECT_TRUE(target.Unload());
    EXPECT_TRUE(library.Unload());
}

}  // namespace
