#include <malloc.h>

#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>

#include "KNet.h"
#include "support/FailingNew.h"
#include "support/Support.h"
#include "support/Texts.h"

using support::TextOf;

namespace {

using support::ScopedChecks;
using support::ScopedNoMemory;

constexpr int kLargestInt = std::numeric_limits<int>::max();
constexpr int kSmallestInt = std::numeric_limits<int>::min();

/// What RawAddress() allocates beyond the text and its NUL.
constexpr std::size_t kSpare = 20;

struct Fields {
    int nDomain;
    int nProtocol;
    int nCasting;
    std::string address;
    int nPort;

    bool operator==(const Fields& other) const {
        return nDomain == other.nDomain && nProtocol == other.nProtocol && nCasting == other.nCasting &&
               address == other.address && nPort == other.nPort;
    }
};

void PrintTo(const Fields& fields, std::ostream* pStream) {
    *pStream << fields.nDomain << ' ' << fields.nProtocol << ' ' << fields.nCasting << " '" << fields.address << "' "
             << fields.nPort;
}

Fields FieldsOf(const KNetInfo& info) {
    return {info.GetAddressDomain(), info.GetProtocol(), info.GetCasting(), TextOf(info.GetAddress()), info.GetPort()};
}

const Fields kDefaults = {0, 0, 0, "", -1};
const Fields kCamera = {KNetInfo::IPV4, KNetInfo::UDP, KNetInfo::MULTICAST, "239.255.255.250", 3702};

KNetInfo Camera() {
    return KNetInfo(KNetInfo::IPV4, KNetInfo::UDP, KNetInfo::MULTICAST, "239.255.255.250", 3702);
}

// --------------------------------------------------------------------------------------------------------------- Values

static_assert(std::has_virtual_destructor<KNetInfo>::value, "programs delete endpoints through their class");
static_assert(std::is_same<std::underlying_type<KNetInfo::NetAddressDomain>::type, int>::value, "32 bits, signed");
static_assert(std::is_same<std::underlying_type<KNetInfo::NetProtocol>::type, int>::value, "32 bits, signed");
static_assert(std::is_same<std::underlying_type<KNetInfo::NetCasting>::type, int>::value, "32 bits, signed");

TEST(KNetInfoTest, TheAddressFamiliesHaveTheirNumbers) {
    EXPECT_EQ(KNetInfo::UNSPECIFIED, 0);
    EXPECT_EQ(KNetInfo::IPV4, 1);
    EXPECT_EQ(KNetInfo::IPV6, 2);
    EXPECT_EQ(KNetInfo::LOCAL, 3);
}

TEST(KNetInfoTest, TheTransportsHaveTheirNumbers) {
    EXPECT_EQ(KNetInfo::RAW, 0);
    EXPECT_EQ(KNetInfo::IP, 1);
    EXPECT_EQ(KNetInfo::ICMP, 2);
    EXPECT_EQ(KNetInfo::IGMP, 3);
    EXPECT_EQ(KNetInfo::TCP, 4);
    EXPECT_EQ(KNetInfo::UDP, 5);
}

TEST(KNetInfoTest, TheDeliveriesHaveTheirNumbers) {
    EXPECT_EQ(KNetInfo::UNICAST, 0);
    EXPECT_EQ(KNetInfo::MULTICAST, 1);
    EXPECT_EQ(KNetInfo::BROADCAST, 2);
}

// --------------------------------------------------------------------------------------------------------------- Making

TEST(KNetInfoTest, ADefaultObjectDescribesNothing) {
    KNetInfo info;
    EXPECT_EQ(FieldsOf(info), kDefaults);
    EXPECT_STREQ(info.RawAddress(), "");
}

TEST(KNetInfoTest, TheConstructorsStoreEveryField) {
    const KNetInfo fromText(KNetInfo::IPV4, KNetInfo::UDP, KNetInfo::MULTICAST, "239.255.255.250", 3702);
    EXPECT_EQ(FieldsOf(fromText), kCamera);
    const KNetInfo fromString(KNetInfo::IPV4, KNetInfo::UDP, KNetInfo::MULTICAST, KString("239.255.255.250"), 3702);
    EXPECT_EQ(FieldsOf(fromString), kCamera);
}

TEST(KNetInfoTest, ANullAddressIsAnEmptyOne) {
    const char* const pszNone = nullptr;
    KNetInfo info(KNetInfo::IPV4, KNetInfo::TCP, KNetInfo::UNICAST, pszNone, 80);
    EXPECT_EQ(FieldsOf(info), (Fields{KNetInfo::IPV4, KNetInfo::TCP, KNetInfo::UNICAST, "", 80}));
    info.SetAddress("camera");
    EXPECT_TRUE(info.SetAddress(pszNone));
    EXPECT_EQ(TextOf(info.GetAddress()), "");
}

TEST(KNetInfoTest, ACopyHasTheFiveFieldsAndNoRawAddress) {
    KNetInfo info = Camera();
    const char* const pRaw = info.RawAddress();
    {
        KNetInfo copy(info);
        EXPECT_EQ(FieldsOf(copy), kCamera);
        // Neither shared nor released together with the copy: the first call in the copy has nothing to release.
        EXPECT_NE(copy.RawAddress(), pRaw);
        EXPECT_STREQ(copy.RawAddress(), "239.255.255.250");
    }
    EXPECT_STREQ(pRaw, "239.255.255.250");
    EXPECT_EQ(FieldsOf(info), kCamera);
}

TEST(KNetInfoTest, ACopyIsIndependentOfItsSource) {
    KNetInfo info = Camera();
    const KNetInfo copy(info);
    info.Set(KNetInfo::LOCAL, KNetInfo::RAW, KNetInfo::UNICAST, "elsewhere", 1);
    EXPECT_EQ(FieldsOf(copy), kCamera);
}

// ----------------------------------------------------------------------------------------------------------- Assignment

TEST(KNetInfoTest, AssignmentCopiesTheFiveFields) {
    const KNetInfo source = Camera();
    KNetInfo target;
    EXPECT_EQ(&(target = source), &target);
    EXPECT_EQ(FieldsOf(target), kCamera);
    EXPECT_EQ(FieldsOf(source), kCamera);
}

TEST(KNetInfoTest, AssignmentForgetsTheRawAddressWithoutReleasingIt) {
    const KNetInfo source = Camera();
    const char* pForgotten = nullptr;
    {
        KNetInfo target(KNetInfo::IPV4, KNetInfo::TCP, KNetInfo::UNICAST, "192.0.2.1", 80);
        pForgotten = target.RawAddress();
        target = source;
        EXPECT_STREQ(pForgotten, "192.0.2.1");
        EXPECT_STREQ(target.RawAddress(), "239.255.255.250");
    }
    EXPECT_STREQ(pForgotten, "192.0.2.1");
    delete[] pForgotten;
}

TEST(KNetInfoTest, TheSourceOfAnAssignmentKeepsItsRawAddress) {
    KNetInfo source = Camera();
    const char* const pRaw = source.RawAddress();
    KNetInfo target;
    target = source;
    EXPECT_NE(target.RawAddress(), pRaw);
    EXPECT_STREQ(pRaw, "239.255.255.250");
}

TEST(KNetInfoTest, SelfAssignmentDoesNothing) {
    KNetInfo info = Camera();
    const char* const pRaw = info.RawAddress();
    const KNetInfo& same = info;
    EXPECT_EQ(&(info = same), &info);
    EXPECT_EQ(FieldsOf(info), kCamera);
    // Still its own: were it forgotten, it would leak.
    EXPECT_STREQ(pRaw, "239.255.255.250");
}

// -------------------------------------------------------------------------------------------------------------- Setting

TEST(KNetInfoTest, SetStoresEveryField) {
    KNetInfo info;
    EXPECT_TRUE(info.Set(KNetInfo::IPV4, KNetInfo::UDP, KNetInfo::MULTICAST, KString("239.255.255.250"), 3702));
    EXPECT_EQ(FieldsOf(info), kCamera);
}

TEST(KNetInfoTest, EachSetterStoresItsFieldAlone) {
    KNetInfo info;
    Fields expected = kDefaults;
    EXPECT_TRUE(info.SetAddressDomain(KNetInfo::LOCAL));
    expected.nDomain = 3;
    EXPECT_EQ(FieldsOf(info), expected);
    EXPECT_TRUE(info.SetProtocol(KNetInfo::TCP));
    expected.nProtocol = 4;
    EXPECT_EQ(FieldsOf(info), expected);
    EXPECT_TRUE(info.SetCasting(KNetInfo::BROADCAST));
    expected.nCasting = 2;
    EXPECT_EQ(FieldsOf(info), expected);
    EXPECT_TRUE(info.SetAddress("a text"));
    expected.address = "a text";
    EXPECT_EQ(FieldsOf(info), expected);
    EXPECT_TRUE(info.SetAddress(KString("a string")));
    expected.address = "a string";
    EXPECT_EQ(FieldsOf(info), expected);
    EXPECT_TRUE(info.SetPort(8080));
    expected.nPort = 8080;
    EXPECT_EQ(FieldsOf(info), expected);
}

TEST(KNetInfoTest, TheSettersTakeAnyNumber) {
    const ScopedChecks on(true);
    for (const int nValue : {-1, 4, 6, 65536, kSmallestInt, kLargestInt}) {
        KNetInfo info;
        EXPECT_TRUE(info.SetAddressDomain(static_cast<KNetInfo::NetAddressDomain>(nValue)));
        EXPECT_TRUE(info.SetProtocol(static_cast<KNetInfo::NetProtocol>(nValue)));
        EXPECT_TRUE(info.SetCasting(static_cast<KNetInfo::NetCasting>(nValue)));
        EXPECT_TRUE(info.SetPort(nValue));
        EXPECT_EQ(FieldsOf(info), (Fields{nValue, nValue, nValue, "", nValue}));
    }
}

TEST(KNetInfoTest, NothingIsResolvedAndNothingValidated) {
    const ScopedChecks on(true);
    for (const char* const pszAddress : {"localhost", "999.999.999.999", "::1", "no such host", "\xE4\xF6\xFC", " "}) {
        KNetInfo info;
        EXPECT_TRUE(info.SetAddress(pszAddress));
        EXPECT_EQ(TextOf(info.GetAddress()), pszAddress);
        EXPECT_STREQ(info.RawAddress(), pszAddress);
    }
}

TEST(KNetInfoTest, TheAddressCanBeSetToAPartOfItself) {
    KNetInfo info = Camera();
    EXPECT_TRUE(info.SetAddress(info.GetAddress()));
    EXPECT_EQ(TextOf(info.GetAddress()), "239.255.255.250");
    EXPECT_TRUE(info.SetAddress(info.GetAddress().GetBuffer() + 4));
    EXPECT_EQ(TextOf(info.GetAddress()), "255.255.250");
    EXPECT_TRUE(info.Set(info.GetAddressDomain(), info.GetProtocol(), info.GetCasting(), info.GetAddress(), 1));
    EXPECT_EQ(TextOf(info.GetAddress()), "255.255.250");
}

// ---------------------------------------------------------------------------------------------------------- Raw address

TEST(KNetInfoTest, TheRawAddressIsACopyOfTheAddress) {
    KNetInfo info = Camera();
    const char* const pRaw = info.RawAddress();
    EXPECT_STREQ(pRaw, "239.255.255.250");
    EXPECT_NE(pRaw, info.GetAddress().GetBuffer());
    info.SetAddress("changed");
    EXPECT_STREQ(pRaw, "239.255.255.250");
    EXPECT_STREQ(info.RawAddress(), "changed");
}

TEST(KNetInfoTest, EachCallGivesAnotherArray) {
    KNetInfo info = Camera();
    const auto nFirst = reinterpret_cast<std::uintptr_t>(info.RawAddress());
    const auto nSecond = reinterpret_cast<std::uintptr_t>(info.RawAddress());
    EXPECT_NE(nFirst, nSecond);
}

TEST(KNetInfoTest, TheRawAddressHasTwentyBytesToSpare) {
    // The capacity handed to the conversion is one more than there is; the checks do not mind, and nothing is written
    // there.
    const ScopedChecks on(true);
    for (const std::size_t nLength : {0u, 1u, 15u, 255u, 2048u, 100000u}) {
        const std::string text(nLength, 'x');
        KNetInfo info;
        info.SetAddress(text.c_str());
        const char* const pRaw = info.RawAddress();
        EXPECT_EQ(std::strlen(pRaw), nLength);
        EXPECT_GE(malloc_usable_size(const_cast<char*>(pRaw)), nLength + 1 + kSpare);
    }
}

TEST(KNetInfoTest, TheRawAddressHasTheWholeLengthNulsIncluded) {
    KNetInfo info;
    info.SetAddress(KString("ab\0cd", 5));
    EXPECT_EQ(std::memcmp(info.RawAddress(), "ab\0cd", 6), 0);
}

TEST(KNetInfoTest, AnAddressWhoseLengthExceedsItsTextIsCopiedSafely) {
    constexpr int kLength = 20000;
    KString text;
    text.Sprintf("%*d", kLength, 7);
    ASSERT_EQ(text.Length(), kLength);
    KNetInfo info;
    info.SetAddress(text);
    const char* const pRaw = info.RawAddress();
    EXPECT_EQ(std::string(pRaw, kLength), TextOf(text));
    EXPECT_EQ(pRaw[kLength], '\0');
}

TEST(KNetInfoTest, WithoutMemoryTheRawAddressIsNull) {
    KNetInfo info = Camera();
    info.RawAddress();
    {
        const ScopedNoMemory none;
        EXPECT_EQ(info.RawAddress(), nullptr);
    }
    EXPECT_EQ(FieldsOf(info), kCamera);
    EXPECT_STREQ(info.RawAddress(), "239.255.255.250");
}

TEST(KNetInfoTest, ADerivedObjectIsDestroyedThroughItsBase) {
    class Derived : public KNetInfo {
     public:
        explicit Derived(bool& fgDestroyed) : m_fgDestroyed(fgDestroyed) {}
        Derived(const Derived&) = delete;
        Derived& operator=(const Derived&) = delete;
        ~Derived() override { m_fgDestroyed = true; }

     private:
        bool& m_fgDestroyed;
    };
    bool fgDestroyed = false;
    std::unique_ptr<KNetInfo> pInfo = std::make_unique<Derived>(fgDestroyed);
    pInfo->RawAddress();
    pInfo.reset();
    EXPECT_TRUE(fgDestroyed);
}

}  // namespace
