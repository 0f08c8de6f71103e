#include "KLocale.h"

#include <climits>
#include <clocale>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "support/Interpose.h"
#include "support/Locales.h"
#include "support/Support.h"

namespace {

struct Call {
    int nCategory;
    std::optional<std::string> name;

    bool operator==(const Call& other) const { return nCategory == other.nCategory && name == other.name; }
};

char* NextSetLocale(int nCategory, const char* pszName) {
    static const auto pNext = support::NextFunction(&setlocale, "setlocale");
    return pNext(nCategory, pszName);
}

/// What the test's setlocale does with a call.
enum class Answer { kPassOn, kFixedText, kMissingLocale };

Answer g_eAnswer = Answer::kPassOn;
std::vector<Call>* g_pCalls = nullptr;
char g_szFixedText[] = "a text of libc";

/// Records the calls of setlocale and answers them for the length of a block.
class ScopedSetLocale {
 public:
    explicit ScopedSetLocale(Answer eAnswer) {
        g_eAnswer = eAnswer;
        g_pCalls = &m_Calls;
    }
    ~ScopedSetLocale() {
        g_eAnswer = Answer::kPassOn;
        g_pCalls = nullptr;
    }
    ScopedSetLocale(const ScopedSetLocale&) = delete;
    ScopedSetLocale& operator=(const ScopedSetLocale&) = delete;

    const std::vector<Call>& Calls() const { return m_Calls; }

 private:
    std::vector<Call> m_Calls;
};

/// Puts the locale back at the end of the block.
class ScopedLocale {
 public:
    ScopedLocale() : m_Before(NextSetLocale(LC_ALL, nullptr)) {}
    ~ScopedLocale() { NextSetLocale(LC_ALL, m_Before.c_str()); }
    ScopedLocale(const ScopedLocale&) = delete;
    ScopedLocale& operator=(const ScopedLocale&) = delete;

 private:
    std::string m_Before;
};

struct Language {
    int nValue;
    const char* pszLocale;
};

constexpr Language kLanguages[] = {
    {0, "en_US.UTF-8"},  {1, "ko_KR.UTF-8"},   {2, "ja_JP.UTF-8"},       {3, "en_US.UTF-8"},
    {7, "en_US.UTF-8"},  {-1, "en_US.UTF-8"},  {0x101, "en_US.UTF-8"},   {256, "en_US.UTF-8"},
    {-2, "en_US.UTF-8"}, {258, "en_US.UTF-8"}, {INT_MAX, "en_US.UTF-8"}, {INT_MIN, "en_US.UTF-8"},
};

KLocale::LocalSupport LanguageOf(int nValue) {
    return static_cast<KLocale::LocalSupport>(nValue);
}

}  // namespace

/// Stands in front of libc's setlocale.
extern "C" char* setlocale(int nCategory, const char* pszLocale) noexcept {
    if (g_pCalls != nullptr) {
        g_pCalls->push_back({nCategory, pszLocale != nullptr ? std::optional<std::string>(pszLocale) : std::nullopt});
    }
    switch (g_eAnswer) {
        case Answer::kFixedText:
            return g_szFixedText;
        case Answer::kMissingLocale:
            return NextSetLocale(nCategory, pszLocale != nullptr ? "no_such_locale.NONE" : nullptr);
        case Answer::kPassOn:
            break;
    }
    return NextSetLocale(nCategory, pszLocale);
}

TEST(KLocaleTest, TheLanguagesHaveTheirValues) {
    EXPECT_EQ(KLocale::ENGLISH, 0);
    EXPECT_EQ(KLocale::KOREAN, 1);
    EXPECT_EQ(KLocale::JAPANESE, 2);
    EXPECT_TRUE((std::is_same<std::underlying_type<KLocale::LocalSupport>::type, int>::value));
}

TEST(KLocaleTest, InitSetsAllCategoriesToTheLanguagesLocaleAndAnyOtherValueToEnglish) {
    for (const Language& language : kLanguages) {
        const ScopedSetLocale recorded(Answer::kFixedText);
        KLocale::Init(LanguageOf(language.nValue));
        EXPECT_THAT(recorded.Calls(), testing::ElementsAre(Call{LC_ALL, language.pszLocale})) << language.nValue;
    }
}

TEST(KLocaleTest, InitReturnsTheTextThatSetlocaleReturned) {
    const ScopedSetLocale recorded(Answer::kFixedText);
    EXPECT_EQ(KLocale::Init(KLocale::JAPANESE), g_szFixedText);
}

TEST(KLocaleTest, AFailedSwitchReturnsNullAndLeavesThePreviousLocaleInForce) {
    const ScopedLocale restore;
    const std::string strBefore = KLocale::GetSystemLocale();
    {
        const ScopedSetLocale missing(Answer::kMissingLocale);
        EXPECT_EQ(KLocale::Init(KLocale::KOREAN), nullptr);
    }
    EXPECT_EQ(KLocale::GetSystemLocale(), strBefore);
}

TEST(KLocaleTest, AFailedSwitchWritesNothing) {
    const support::ScopedChecks checks(true);
    const support::ScopedLevel level(0);
    const ScopedSetLocale missing(Answer::kMissingLocale);
    EXPECT_EQ(support::StderrOf([] { KLocale::Init(KLocale::KOREAN); }), "");
}

TEST(KLocaleTest, GetSystemLocaleAsksForTheLocaleInForceAndSwitchesNothing) {
    const ScopedSetLocale recorded(Answer::kFixedText);
    EXPECT_EQ(KLocale::GetSystemLocale(), g_szFixedText);
    EXPECT_THAT(recorded.Calls(), testing::ElementsAre(Call{LC_ALL, std::nullopt}));
}

TEST(KLocaleTest, GetSystemLocaleTellsALocaleThatTheProgramSetItself) {
    const ScopedLocale restore;
    ASSERT_NE(NextSetLocale(LC_ALL, "C"), nullptr);
    EXPECT_STREQ(KLocale::GetSystemLocale(), "C");
}

TEST(KLocaleTest, AfterASwitchToAnInstalledLocaleItsNameIsTheOneInForce) {
    const support::ScopedLocales locales({"en_US", "ko_KR", "ja_JP"});
    int nInstalled = 0;
    for (const Language& language : kLanguages) {
        if (NextSetLocale(LC_ALL, language.pszLocale) == nullptr) {
            continue;
        }
        ++nInstalled;
        NextSetLocale(LC_ALL, "C");
        EXPECT_STREQ(KLocale::Init(LanguageOf(language.nValue)), language.pszLocale);
        EXPECT_STREQ(KLocale::GetSystemLocale(), language.pszLocale);
    }
    if (nInstalled == 0) {
        GTEST_SKIP()
            << "none of en_US.UTF-8, ko_KR.UTF-8 and ja_JP.UTF-8 is installed or can be made (Debian: locales)";
    }
}

TEST(KLocaleTest, DeinitLeavesTheLocaleAsItIs) {
    const ScopedSetLocale recorded(Answer::kFixedText);
    KLocale::Deinit();
    EXPECT_THAT(recorded.Calls(), testing::IsEmpty());
}

TEST(KLocaleTest, AnObjectHasAVirtualDestructorNoDataAndDoesNoWork) {
    EXPECT_TRUE(std::has_virtual_destructor<KLocale>::value);
    EXPECT_EQ(sizeof(KLocale), sizeof(void*));
    const ScopedSetLocale recorded(Answer::kFixedText);
    { const KLocale object; }
    EXPECT_THAT(recorded.Calls(), testing::IsEmpty());
}
