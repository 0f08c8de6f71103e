#include "KIPC.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <new>

#include "Checks.h"
#include "KDebug.h"
#include "KMem.h"

/// What a channel holds of the system: 124 bytes on the 32-bit target.
struct KIPC::IPCInternal {
    int nShared;
    void* pMapped;
    int nSocket;
    sockaddr_un address;
};

namespace {

constexpr Checks g_Checks("src/api/KIPC");

constexpr int kChannels = 1000;
constexpr int kBacklog = 1000;
constexpr int kNone = -1;
constexpr mode_t kSharedMode = 0666;
constexpr char kSharedName[] = "KALVOREN_IPC";
constexpr char kNameFormat[] = "%s_%d";

/// The instances by channel number. The one more is for number 1000, which is let in while the checks are off.
KIPC* g_hIPC[kChannels + 1];

bool IsChannel(int nIndex, const char* pszSignature) {
    return g_Checks.Hold(nIndex >= 0 && nIndex < kChannels, "nIndex >= 0 && nIndex < (1000)", pszSignature);
}

bool IsInTable(int nIndex) {
    return nIndex >= 0 && nIndex <= kChannels;
}

/// The name of a channel's shared-memory object.
struct SharedName {
    explicit SharedName(int nIndex) { std::snprintf(szName, sizeof(szName), kNameFormat, kSharedName, nIndex); }

    char szName[512];
};

void* const kNotMapped = MAP_FAILED;

bool IsMappable(int nDescriptor) {
    struct stat status = {};
    return fstat(nDescriptor, &status) == 0 && status.st_size >= static_cast<off_t>(sizeof(KIPC::IPCData));
}

}  // namespace

// --------------------------------------------------------------------------------------------------------- The table

bool KIPC::Init(int nIndex, bool fgServer, KIPCType eType, const KPath& path) {
    IsChannel(nIndex, "static bool KIPC::Init(int, bool, KIPC::KIPCType, const KPath&)");
    if (!IsInTable(nIndex)) {
        return false;
    }
    KIPC*& pChannel = g_hIPC[nIndex];
    if (pChannel == nullptr) {
        pChannel = new (std::nothrow) KIPC();
        if (pChannel == nullptr) {
            return false;
        }
        pChannel->SetIndex(nIndex);
        pChannel->SetPath(path);
        return pChannel->Create(fgServer, eType);
    }
    return true;
}

KIPC* KIPC::GetInstance(int nIndex) {
    const char* const pszSignature = "static KIPC* KIPC::GetInstance(int)";
    IsChannel(nIndex, pszSignature);
    KIPC* const pChannel = IsInTable(nIndex) ? g_hIPC[nIndex] : nullptr;
    g_Checks.Hold(pChannel != nullptr, "0", pszSignature);
    return pChannel;
}

bool KIPC::Deinit(int nIndex) {
    if (!IsChannel(nIndex, "static bool KIPC::Deinit(int)") || g_hIPC[nIndex] == nullptr) {
        return true;
    }
    // Channel 0, whichever was meant: programs rely on the others staying.
    KIPC*& pChannel = g_hIPC[0];
    if (pChannel != nullptr && !pChannel->IsCreated()) {
        pChannel->Close();
        delete pChannel;  // GCOVR_EXCL_BR_LINE: delete asks once more whether there is one
        pChannel = nullptr;
    }
    return true;
}

// ----------------------------------------------------------------------------------------------- Making and closing

static_assert(sizeof(KIPC::IPCData) == 520, "the record that both sides move");

KIPC::KIPC()
    : m_pInternal(new (std::nothrow) IPCInternal()),
      m_nIndex(0),
      m_fgServer(false),
      m_eType(SHARED_MEMORY),
      m_fgCreated(false) {
    static_assert(sizeof(void*) != 4 || (sizeof(IPCInternal) == 124 && offsetof(IPCInternal, nShared) == 0 &&
                                         offsetof(IPCInternal, pMapped) == 4 && offsetof(IPCInternal, nSocket) == 8 &&
                                         offsetof(IPCInternal, address) == 12),
                  "programs on the target know the record");
    if (g_Checks.Hold(m_pInternal != nullptr, "m_pInternal", "KIPC::KIPC()")) {
        m_pInternal->nSocket = kNone;
    }
}

KIPC::KIPC(const KIPC& other) : KIPC() {
    *this = other;
}

KIPC& KIPC::operator=(const KIPC& other) {
    if (this != &other) {
        if (m_pInternal != nullptr && other.m_pInternal != nullptr) {
            KMem::Copy(m_pInternal, sizeof(*m_pInternal), other.m_pInternal, sizeof(*other.m_pInternal));
        }
        m_nIndex = other.m_nIndex;
        m_eType = other.m_eType;
        m_fgCreated = other.m_fgCreated;
        m_fgServer = other.m_fgServer;
        m_Path = other.m_Path;
    }
    return *this;
}

/// The record stays: copies made byte by byte may still look at it.
KIPC::~KIPC() {
    Close();
}

bool KIPC::Create(bool fgServer, KIPCType eType) {
    const char* const pszSignature = "bool KIPC::Create(bool, KIPC::KIPCType)";
    if (!g_Checks.Hold(m_pInternal != nullptr, "m_pInternal", pszSignature)) {
        return true;
    }
    m_eType = eType;
    m_fgServer = fgServer;
    switch (eType) {
        case SHARED_MEMORY:
            return CreateSharedMemory();
        case LOCAL_SOCKET: {
            if (m_pInternal->nSocket != kNone) {
                return true;
            }
            if (!CreateSocket()) {
                return false;
            }
            // For a client too, which thereby takes the file away from the server; CreateClient() does not.
            const sockaddr_un& address = m_pInternal->address;
            unlink(address.sun_path);
            return bind(m_pInternal->nSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
                   listen(m_pInternal->nSocket, kBacklog) == 0;
        }
        case UNSUPPORTED:
            break;
    }
    g_Checks.Fail(pszSignature);
    return true;
}

bool KIPC::CreateClient() {
    if (!g_Checks.Hold(m_pInternal != nullptr, "m_pInternal", "bool KIPC::CreateClient()")) {
        return true;
    }
    m_eType = LOCAL_SOCKET;
    m_fgServer = false;
    return m_pInternal->nSocket != kNone || CreateSocket();
}

bool KIPC::CreateSharedMemory() {
    const SharedName name(m_nIndex);
    int& nShared = m_pInternal->nShared;
    if (!m_fgServer) {
        nShared = shm_open(name.szName, O_RDONLY, kSharedMode);
        if (nShared == kNone) {
            return false;
        }
        MapSharedMemory();
        return true;
    }
    nShared = shm_open(name.szName, O_CREAT | O_EXCL | O_RDWR, kSharedMode);
    if (nShared != kNone) {
        if (ftruncate(nShared, sizeof(IPCData)) != 0) {
            CloseSharedDescriptor();
            shm_unlink(name.szName);
        }
    } else {
        nShared = shm_open(name.szName, O_EXCL | O_RDWR, kSharedMode);
        if (nShared == kNone) {
            return false;
        }
    }
    MapSharedMemory();
    return true;
}

/// Maps the object. A failure shows only in the address. An object that is too short would be mapped too, and end the
/// process when it is used.
void KIPC::MapSharedMemory() {
    const int nProtection = m_fgServer ? PROT_READ | PROT_WRITE : PROT_READ;
    m_pInternal->pMapped = IsMappable(m_pInternal->nShared)
                               ? mmap(nullptr, sizeof(IPCData), nProtection, MAP_SHARED, m_pInternal->nShared, 0)
                               : kNotMapped;
    if (m_pInternal->pMapped == kNotMapped) {
        CloseSharedDescriptor();
    }
}

/// Makes the socket and the address of the socket file.
bool KIPC::CreateSocket() {
    m_pInternal->nSocket = socket(AF_UNIX, SOCK_STREAM, 0);
    if (m_pInternal->nSocket == kNone) {
        KDebug::Error("IPC Socket Create Failed");
        return false;
    }
    KDebug::Log("Create IPC %d", m_pInternal->nSocket);
    const char* pszPath = m_Path.GetSystemPath(KPath::CONV_SLASH);
    if (*pszPath == '\0') {
        // Only the text itself is left of a path that is too long to be rendered.
        pszPath = m_Path.GetPath().GetBuffer();
    }
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const int nLen = std::snprintf(address.sun_path, sizeof(address.sun_path), kNameFormat, pszPath, m_nIndex);
    static_cast<void>(nLen);  // A longer name is cut.
    m_pInternal->address = address;
    m_fgCreated = true;
    return true;
}

bool KIPC::Close() {
    const char* const pszSignature = "bool KIPC::Close()";
    if (!g_Checks.Hold(m_pInternal != nullptr, "m_pInternal", pszSignature)) {
        return true;
    }
    switch (m_eType) {
        case SHARED_MEMORY:
            CloseSharedMemory();
            break;
        case LOCAL_SOCKET:
            CloseSocket();
            break;
        case UNSUPPORTED:
            break;
        default:
            g_Checks.Fail(pszSignature);
            break;
    }
    m_fgCreated = false;
    return true;
}

void KIPC::CloseSharedMemory() {
    if (m_pInternal->pMapped != kNotMapped && munmap(m_pInternal->pMapped, sizeof(IPCData)) == 0) {
        m_pInternal->pMapped = kNotMapped;
    }
    CloseSharedDescriptor();
    shm_unlink(SharedName(m_nIndex).szName);
}

void KIPC::CloseSharedDescriptor() {
    if (m_pInternal->nShared != kNone) {
        close(m_pInternal->nShared);
        m_pInternal->nShared = kNone;
    }
}

void KIPC::CloseSocket() {
    if (m_pInternal->nSocket != kNone) {
        KDebug::Log("Close IPC %d", m_pInternal->nSocket);
        close(m_pInternal->nSocket);
        m_pInternal->nSocket = kNone;
    }
}

// -------------------------------------------------------------------------------------------------------- Connecting

bool KIPC::ConnectToServer() {
    if (m_fgServer) {
        return false;
    }
    if (!g_Checks.Hold(m_pInternal != nullptr, "m_pInternal", "bool KIPC::ConnectToServer()")) {
        return true;
    }
    const sockaddr_un& address = m_pInternal->address;
    return m_pInternal->nSocket != kNone &&
           connect(m_pInternal->nSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) >= 0;
}

bool KIPC::WaitForConnectToMe(KIPC& client) {
    const char* const pszSignature = "bool KIPC::WaitForConnectToMe(KIPC&)";
    if (!m_fgServer || !g_Checks.Hold(m_pInternal != nullptr, "m_pInternal", pszSignature) ||
        m_pInternal->nSocket == kNone || !g_Checks.Hold(client.m_pInternal != nullptr, "pCInfo", pszSignature)) {
        return false;
    }
    IPCInternal& peer = *client.m_pInternal;
    socklen_t nLen = sizeof(peer.address);
    peer.nSocket = accept(m_pInternal->nSocket, reinterpret_cast<sockaddr*>(&peer.address), &nLen);
    return peer.nSocket != kNone;
}

// ----------------------------------------------------------------------------------------------- Reading and writing

bool KIPC::Read(IPCData& data) {
    if (!g_Checks.Hold(m_pInternal != nullptr, "m_pInternal", "bool KIPC::Read(KIPC::IPCData&)")) {
        return true;
    }
    return m_pInternal->nSocket != kNone &&
           read(m_pInternal->nSocket, &data, sizeof(data)) == static_cast<ssize_t>(sizeof(data));
}

bool KIPC::Write(const IPCData& data) {
    if (!g_Checks.Hold(m_pInternal != nullptr, "m_pInternal", "bool KIPC::Write(const KIPC::IPCData&)")) {
        return true;
    }
    return m_pInternal->nSocket != kNone &&
           write(m_pInternal->nSocket, &data, sizeof(data)) == static_cast<ssize_t>(sizeof(data));
}

void* KIPC::GetSharedMemory() const {
    return m_pInternal != nullptr && m_pInternal->pMapped != kNotMapped ? m_pInternal->pMapped : nullptr;
}

// --------------------------------------------------------------------------------------------------------- Accessors

bool KIPC::SetPath(const KPath& path) {
    m_Path = path;
    return true;
}

bool KIPC::SetIndex(int nIndex) {
    m_nIndex = nIndex;
    return true;
}

bool KIPC::SetType(KIPCType eType) {
    m_eType = eType;
    return true;
}

bool KIPC::IsCreated() {
    return m_fgCreated;
}
