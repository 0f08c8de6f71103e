// The layout that programs on the 32-bit target were compiled with: sizes and offsets of every field, and the slots of every
// table of virtual operations. Elsewhere the fields stand in the same order. Compiled without access control.

#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Kalvoren.h"
#include "support/Support.h"

namespace {

constexpr bool kIsTarget = sizeof(void*) == 4;

struct Field {
    const char* pszName;
    std::size_t nOffset;
    std::size_t nOnTarget;
};

struct Record {
    const char* pszName;
    std::size_t nSize;
    std::size_t nOnTarget;
    std::vector<Field> fields;
};

#define FIELD(record, field, onTarget) \
    { #field, offsetof(record, field), onTarget }
#define RECORD(record, onTarget, ...)        \
    {                                        \
#record, sizeof(record), onTarget, { \
            __VA_ARGS__                      \
        }                                    \
    }

#define EMPTY_RECORD(record, onTarget)        \
    {                                         \
#record, sizeof(record), onTarget, {} \
    }

using StringList = KList<KString>;

std::vector<Record> Records() {
    return {
        EMPTY_RECORD(KAssert, 4),
        EMPTY_RECORD(KDebug, 4),
        EMPTY_RECORD(KEntry, 4),
        EMPTY_RECORD(KLocale, 4),
        RECORD(KMutex, 24, FIELD(KMutex, m_nBaseTime, 8), FIELD(KMutex, pInfo, 16)),
        RECORD(KMem, 12, FIELD(KMem, m_nSize, 4), FIELD(KMem, m_pBuf, 8)),
        RECORD(KString, 12, FIELD(KString, m_nLen, 4), FIELD(KString, m_pszString, 8)),
        RECORD(StringList, 40, FIELD(StringList, m_pHead, 4), FIELD(StringList, m_nCount, 8),
               FIELD(StringList, m_Mutex, 16)),
        RECORD(StringList::KElement, 16, FIELD(StringList::KElement, m_Value, 0),
               FIELD(StringList::KElement, m_pNext, 12)),
        RECORD(KUnixTime, 12, FIELD(KUnixTime, sec, 0), FIELD(KUnixTime, usec, 4), FIELD(KUnixTime, gmt15Min, 8),
               FIELD(KUnixTime, dst15Min, 9), FIELD(KUnixTime, reserved1, 10), FIELD(KUnixTime, reserved2, 11)),
        RECORD(KHumanTime, 36, FIELD(KHumanTime, year, 0), FIELD(KHumanTime, month, 4), FIELD(KHumanTime, day, 8),
               FIELD(KHumanTime, weekDay, 12), FIELD(KHumanTime, hour, 16), FIELD(KHumanTime, minute, 20),
               FIELD(KHumanTime, second, 24), FIELD(KHumanTime, usec, 28), FIELD(KHumanTime, gmt15Min, 32),
               FIELD(KHumanTime, dst15Min, 33), FIELD(KHumanTime, reserved1, 34), FIELD(KHumanTime, reserved2, 35)),
        RECORD(USec, 4, FIELD(USec, usec, 0)),
        RECORD(SecUSec, 8, FIELD(SecUSec, sec, 0), FIELD(SecUSec, usec, 4)),
        RECORD(KTime, 16, FIELD(KTime, sec, 4), FIELD(KTime, usec, 8), FIELD(KTime, gmt15Min, 12),
               FIELD(KTime, dst15Min, 13), FIELD(KTime, reserved1, 14), FIELD(KTime, reserved2, 15)),
        RECORD(KPath, 2068, FIELD(KPath, m_eType, 4), FIELD(KPath, m_Path, 8), FIELD(KPath, m_szSystemPath, 20)),
        RECORD(KFile, 2104, FIELD(KFile, pInfo, 4), FIELD(KFile, m_Path, 8), FIELD(KFile, m_fgWrite, 2076),
               FIELD(KFile, m_Mutex, 2080)),
        RECORD(KDirectory, 2120, FIELD(KDirectory, pInfo, 4), FIELD(KDirectory, m_Entries, 8),
               FIELD(KDirectory, m_Path, 48)),
        RECORD(KPropertyNode, 80, FIELD(KPropertyNode, m_eType, 0), FIELD(KPropertyNode, m_Text, 4),
               FIELD(KPropertyNode, m_Children, 16), FIELD(KPropertyNode, m_Mutex, 56)),
        RECORD(KPropertyList, 120, FIELD(KPropertyList, m_Header, 4), FIELD(KPropertyList, m_Reserved, 16),
               FIELD(KPropertyList, m_Root, 40)),
        RECORD(KThread, 28, FIELD(KThread, m_eStatus, 4), FIELD(KThread, m_nSpeed, 8), FIELD(KThread, m_nStackSize, 12),
               FIELD(KThread, m_nReserved, 16), FIELD(KThread, pInfo, 24)),
        RECORD(KNetInfo, 36, FIELD(KNetInfo, m_eDomain, 4), FIELD(KNetInfo, m_eProtocol, 8),
               FIELD(KNetInfo, m_eCasting, 12), FIELD(KNetInfo, m_Address, 16), FIELD(KNetInfo, m_pRawAddress, 28),
               FIELD(KNetInfo, m_nPort, 32)),
        RECORD(KNet, 52, FIELD(KNet, m_eError, 4), FIELD(KNet, m_ConInfo, 8), FIELD(KNet, m_nTimeOut, 44),
               FIELD(KNet, pInfo, 48)),
        RECORD(KIPC, 2092, FIELD(KIPC, m_pInternal, 4), FIELD(KIPC, m_nIndex, 8), FIELD(KIPC, m_fgServer, 12),
               FIELD(KIPC, m_eType, 16), FIELD(KIPC, m_fgCreated, 20), FIELD(KIPC, m_Path, 24)),
        RECORD(KIPC::IPCData, 520, FIELD(KIPC::IPCData, bytes, 0)),
        RECORD(KDynamicDataBuffer, 40, FIELD(KDynamicDataBuffer, m_nCapacity, 0),
               FIELD(KDynamicDataBuffer, m_nDataSize, 4), FIELD(KDynamicDataBuffer, m_pBuf, 8),
               FIELD(KDynamicDataBuffer, m_Mutex, 16)),
        RECORD(KManagedDynamicDataQueue, 80, FIELD(KManagedDynamicDataQueue, m_pBuffers, 0),
               FIELD(KManagedDynamicDataQueue, m_ppFree, 4), FIELD(KManagedDynamicDataQueue, m_ReadList, 8),
               FIELD(KManagedDynamicDataQueue, m_nCount, 48), FIELD(KManagedDynamicDataQueue, m_Mutex, 56)),
        RECORD(KMessage, 32, FIELD(KMessage, mText1, 0), FIELD(KMessage, mText2, 12), FIELD(KMessage, mData, 24),
               FIELD(KMessage, mSize, 28)),
        EMPTY_RECORD(KMessageHandler, 4),
        RECORD(KSystem, 12, FIELD(KSystem, m_WriteRegistry, 4), FIELD(KSystem, m_ReadRegistry, 8)),
        RECORD(KSystem::OSInformation, 24, FIELD(KSystem::OSInformation, m_strName, 0),
               FIELD(KSystem::OSInformation, m_strVersion, 12)),
        RECORD(KSystem::HardwareInformation, 28, FIELD(KSystem::HardwareInformation, m_strName, 0),
               FIELD(KSystem::HardwareInformation, m_strVersion, 12),
               FIELD(KSystem::HardwareInformation, m_nValue, 24)),
        RECORD(KSystem::UserInformation, 2084, FIELD(KSystem::UserInformation, m_strName, 0),
               FIELD(KSystem::UserInformation, m_Path, 12), FIELD(KSystem::UserInformation, m_nValue, 2080)),
        RECORD(KSystem::ApplicationInformation, 4216, FIELD(KSystem::ApplicationInformation, m_Path, 0),
               FIELD(KSystem::ApplicationInformation, m_ConfigPath, 2068),
               FIELD(KSystem::ApplicationInformation, m_Arguments, 4136),
               FIELD(KSystem::ApplicationInformation, m_Environment, 4176)),
        RECORD(KSystem::StorageInformation, 6204, FIELD(KSystem::StorageInformation, m_Path1, 0),
               FIELD(KSystem::StorageInformation, m_Path2, 2068), FIELD(KSystem::StorageInformation, m_Path3, 4136)),
        RECORD(KSystem::DiskInformation, 4176, FIELD(KSystem::DiskInformation, m_nType, 0),
               FIELD(KSystem::DiskInformation, m_nTotalSize, 8), FIELD(KSystem::DiskInformation, m_nFreeSize, 16),
               FIELD(KSystem::DiskInformation, m_Device, 24), FIELD(KSystem::DiskInformation, m_MountPoint, 2092),
               FIELD(KSystem::DiskInformation, m_strName, 4160)),
        RECORD(KLib, 2076, FIELD(KLib, m_Path, 4), FIELD(KLib, m_pHandle, 2072)),
    };
}

/// The name of the function at an address, as the dynamic linker knows it, cleared of what tells copies of one function
/// apart (the complete and the base destructor share their code).
std::string NameOf(const void* pFunction) {
    Dl_info info = {};
    if (dladdr(pFunction, &info) == 0 || info.dli_sname == nullptr) {
        return "?";
    }
    const std::string name = info.dli_sname;
    const std::size_t nDestructor = name.rfind("D2Ev");
    return nDestructor == std::string::npos ? name : name.substr(0, nDestructor) + "D1Ev";
}

struct Table {
    std::size_t nSlots;
    std::vector<std::string> names;
};

/// The table of virtual operations of a live object.
Table TableOf(const void* pObject) {
    const void* const* const ppSlots = *static_cast<const void* const* const*>(pObject);
    // The table's symbol starts two words before its first slot.
    Dl_info info = {};
    const ElfW(Sym)* pSymbol = nullptr;
    EXPECT_NE(dladdr1(ppSlots, &info, reinterpret_cast<void**>(const_cast<ElfW(Sym)**>(&pSymbol)), RTLD_DL_SYMENT), 0);
    Table table = {pSymbol != nullptr ? pSymbol->st_size / sizeof(void*) - 2 : 0, {}};
    for (std::size_t i = 0; i < table.nSlots; ++i) {
        table.names.push_back(NameOf(ppSlots[i]));
    }
    return table;
}

/// The mangled names of both destructors of a class.
std::vector<std::string> Destructors(const std::string& mangled) {
    return {"_ZN" + mangled + "D1Ev", "_ZN" + mangled + "D0Ev"};
}

class RecordingHandler : public KMessageHandler {
 public:
    int HandleMessage(const KMessage& message) override {
        pReceived = &message;
        return 7;
    }

    const KMessage* pReceived = nullptr;
};

}  // namespace

TEST(LayoutTest, FieldsStandInTheirOrder) {
    for (const Record& record : Records()) {
        std::size_t nNext = 0;
        for (const Field& field : record.fields) {
            EXPECT_GE(field.nOffset, nNext) << record.pszName << "::" << field.pszName;
            nNext = field.nOffset + 1;
        }
        EXPECT_GE(record.nSize, nNext) << record.pszName;
    }
}

TEST(LayoutTest, SizesAndOffsetsAreThoseOfTheTarget) {
    if (!kIsTarget) {
        GTEST_SKIP() << "for a 32-bit target";
    }
    for (const Record& record : Records()) {
        EXPECT_EQ(record.nSize, record.nOnTarget) << record.pszName;
        for (const Field& field : record.fields) {
            EXPECT_EQ(field.nOffset, field.nOnTarget) << record.pszName << "::" << field.pszName;
        }
    }
}

TEST(LayoutTest, EnumerationsHaveFourBytes) {
    EXPECT_EQ(sizeof(KAssert::KAssertType), 4u);
    EXPECT_EQ(sizeof(KDirectory::DirectoryAction), 4u);
    EXPECT_EQ(sizeof(KDirectory::DirectoryCanHandle), 4u);
    EXPECT_EQ(sizeof(KDirectory::SortMethod), 4u);
    EXPECT_EQ(sizeof(KFile::FileCanHandle), 4u);
    EXPECT_EQ(sizeof(KIPC::KIPCType), 4u);
    EXPECT_EQ(sizeof(KLocale::LocalSupport), 4u);
    EXPECT_EQ(sizeof(KNet::NetError), 4u);
    EXPECT_EQ(sizeof(KNetInfo::NetAddressDomain), 4u);
    EXPECT_EQ(sizeof(KNetInfo::NetCasting), 4u);
    EXPECT_EQ(sizeof(KNetInfo::NetProtocol), 4u);
    EXPECT_EQ(sizeof(KPath::ConvPathTo), 4u);
    EXPECT_EQ(sizeof(KPath::Type), 4u);
    EXPECT_EQ(sizeof(KPropertyNodeType), 4u);
    EXPECT_EQ(sizeof(KSystem::RegistryLevel), 4u);
    EXPECT_EQ(sizeof(KThread::Priority), 4u);
    EXPECT_EQ(sizeof(KThread::Status), 4u);
}

TEST(LayoutTest, APathsBufferHas2048Characters) {
    EXPECT_EQ(sizeof(KPath::m_szSystemPath), 2048u);
}

TEST(LayoutTest, MostTablesHoldTheTwoDestructorsAlone) {
    const support::ScopedChecks checks(false);
    const support::ScopedLevel level(3);
    const KAssert assertion;
    const KDebug debug;
    const KLocale locale;
    const KMutex mutex;
    const KMem mem;
    const KString string;
    const KTime time;
    const KPath path;
    const KFile file;
    const KDirectory directory;
    const KPropertyList properties{KString()};
    const KNetInfo info;
    const KNet net;
    KIPC channel;
    channel.SetType(KIPC::UNSUPPORTED);
    const KLib lib;
    const KList<KString> strings;
    const KList<KPath> paths;
    const KList<KPropertyNode*> nodes;
    const KList<KDynamicDataBuffer*> buffers;
    const KList<KMessageHandler*> handlers;
    const KList<KSystem::DiskInformation> disks;
    const struct {
        const void* pObject;
        const char* pszMangled;
    } cases[] = {{&assertion, "7KAssert"},
                 {&debug, "6KDebug"},
                 {&locale, "7KLocale"},
                 {&mutex, "6KMutex"},
                 {&mem, "4KMem"},
                 {&string, "7KString"},
                 {&time, "5KTime"},
                 {&path, "5KPath"},
                 {&file, "5KFile"},
                 {&directory, "10KDirectory"},
                 {&properties, "13KPropertyList"},
                 {&info, "8KNetInfo"},
                 {&net, "4KNet"},
                 {&channel, "4KIPC"},
                 {&lib, "4KLib"},
                 {&strings, "5KListI7KStringE"},
                 {&paths, "5KListI5KPathE"},
                 {&nodes, "5KListIP13KPropertyNodeE"},
                 {&buffers, "5KListIP18KDynamicDataBufferE"},
                 {&handlers, "5KListIP15KMessageHandlerE"},
                 {&disks, "5KListIN7KSystem15DiskInformationEE"},
                 {KSystem::Init(), "7KSystem"}};
    for (const auto& entry : cases) {
        const Table table = TableOf(entry.pObject);
        EXPECT_EQ(table.nSlots, 2u) << entry.pszMangled;
        EXPECT_EQ(table.names, Destructors(entry.pszMangled));
    }
}

TEST(LayoutTest, AnEntrysTableHoldsTheTwoDestructors) {
    const support::ScopedLevel level(3);
    const Table table = TableOf(KEntry::Init(0, nullptr));
    EXPECT_EQ(table.names, Destructors("6KEntry"));
    KEntry::Deinit();
}

TEST(LayoutTest, AThreadsTableHoldsForceStopAndTheLoopBehindTheDestructors) {
    const support::ScopedChecks checks(false);
    const KThread thread;
    std::vector<std::string> expected = Destructors("7KThread");
    expected.push_back("_ZN7KThread9ForceStopEv");
    expected.push_back("_ZN7KThread14ThreadMainLoopEv");
    EXPECT_EQ(TableOf(&thread).names, expected);
}

TEST(LayoutTest, AHandlersFirstSlotReceivesMessages) {
    RecordingHandler handler;
    const KMessage message;
    using Receive = int (*)(KMessageHandler*, const KMessage&);
    KMessageHandler* const pHandler = &handler;
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): an object starts with the address of its table.
    const Receive receive = (*reinterpret_cast<const Receive* const*>(pHandler))[0];
    EXPECT_EQ(receive(pHandler, message), 7);
    EXPECT_EQ(handler.pReceived, &message);
}
