#include "KMessage.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "KMem.h"
#include "ScopedLock.h"

template class KList<KMessageHandler*>;

// ---------------------------------------------------------------------------------------------------------- KMessage

KMessage::KMessage() : mData(nullptr), mSize(0) {}

KMessage::KMessage(KString& text1, KString& text2, void* pData, int nSize)
    : mText1(text1), mText2(text2), mData(nullptr), mSize(0) {
    CopyPayload(pData, nSize);
}

KMessage::KMessage(const KMessage& other) : mText1(other.mText1), mText2(other.mText2), mData(nullptr), mSize(0) {
    // A size can be left over from a payload that is gone.
    if (other.mData != nullptr) {
        CopyPayload(other.mData, other.mSize);
    }
}

KMessage& KMessage::operator=(const KMessage& other) {
    if (this != &other) {
        mText1 = other.mText1;
        mText2 = other.mText2;
        KMem::Free(&mData);
        if (other.mData != nullptr) {
            CopyPayload(other.mData, other.mSize);
        }
    }
    return *this;
}

KMessage::~KMessage() {
    mSize = 0;
    KMem::Free(&mData);
}

/// Makes the payload, where there is none yet. The size changes only with it.
void KMessage::CopyPayload(const void* pData, int nSize) {
    if (nSize < 1) {
        return;
    }
    const std::size_t nBytes = static_cast<std::size_t>(nSize);
    mData = KMem::Malloc(nBytes);
    if (mData != nullptr) {
        if (pData == nullptr) {
            KMem::Set(mData, 0, nBytes);
        }
        KMem::Copy(mData, nBytes, pData, nBytes);
        mSize = nSize;
    }
}

// --------------------------------------------------------------------------------------------------- KMessageHandler

// Registration i is handler i under name i. They are made in this order when the library is loaded.
KList<KMessageHandler*> KMessageHandler::g_ObjList;
KList<KString> KMessageHandler::g_MessageList;
KMutex KMessageHandler::g_Mutex;

namespace {

/// What tells most names apart without a look at the text: its length and its last bytes.
struct Digest {
    explicit Digest(const KString& name) : nTail(0), nLength(name.Length()) {
        const char* const pText = name.GetBuffer();
        if (nLength >= static_cast<int>(sizeof nTail)) {
            std::memcpy(&nTail, pText + (nLength - static_cast<int>(sizeof nTail)), sizeof nTail);
        } else {
            std::memcpy(&nTail, pText, static_cast<std::size_t>(nLength));
        }
    }
    bool operator==(const Digest& other) const { return nTail == other.nTail && nLength == other.nLength; }

    std::uint64_t nTail;
    int nLength;
};

/// The registrations once more, side by side: whoever looks for a name neither takes the lists' locks nor follows their
/// chains. Used under the registry's mutex alone.
class Index {
 public:
    struct Entry {
        bool Is(const Digest& other, const KString& name) const { return digest == other && *pName == name; }

        Digest digest;
        /// The number of the first registration under this name: a dispatch compares one text only.
        std::size_t nFirst;
        const KString* pName;  ///< The name in its list.
        KMessageHandler* pHandler;
    };

    /// Leaves an index that can be filled again: threads and exit handlers may outlive it.
    ~Index() {
        m_nCount = 0;
        Release();
    }

    const Entry* begin() const { return m_pEntries; }
    const Entry* end() const { return m_pEntries + m_nCount; }

    /// Makes room for one more. False without memory.
    bool Reserve() {
        if (m_nCount < m_nCapacity) {
            return true;
        }
        const std::size_t nCapacity = m_nCapacity + m_nCapacity / 2 + 8;
        void* const pEntries = std::realloc(static_cast<void*>(m_pEntries), nCapacity * sizeof(Entry));
        if (pEntries == nullptr) {
            return false;
        }
        m_pEntries = static_cast<Entry*>(pEntries);
        m_nCapacity = nCapacity;
        return true;
    }

    /// The first registration under a name; end() where there is none.
    const Entry* Find(const Digest& digest, const KString& name) const {
        return std::find_if(begin(), end(), [&](const Entry& entry) { return entry.Is(digest, name); });
    }

    /// After Reserve().
    void Add(const KString* pName, KMessageHandler* pHandler) {
        const Digest digest(*pName);
        // Its own number where there is none.
        const std::size_t nFirst = static_cast<std::size_t>(Find(digest, *pName) - begin());
        m_pEntries[m_nCount++] = Entry{digest, nFirst, pName, pHandler};
    }

    void RemoveAt(std::size_t nIndex) {
        std::copy(begin() + nIndex + 1, end(), m_pEntries + nIndex);
        --m_nCount;
        std::size_t nNext = m_nCount;  // the next of the same name
        for (std::size_t i = nIndex; i < m_nCount; ++i) {
            std::size_t& nFirst = m_pEntries[i].nFirst;
            if (nFirst == nIndex) {
                nNext = std::min(nNext, i);
                nFirst = nNext;
            } else if (nFirst > nIndex) {
                --nFirst;
            }
        }
        if (m_nCount == 0) {
            Release();
        }
    }

 private:
    void Release() {
        std::free(m_pEntries);
        m_pEntries = nullptr;
        m_nCapacity = 0;
    }

    Entry* m_pEntries = nullptr;
    std::size_t m_nCount = 0;
    std::size_t m_nCapacity = 0;
};

// Behind the lists, so that it is gone before the names that it points to.
Index g_Index;

}  // namespace

/// The number of a registration, or -1. The registry's mutex is held.
int KMessageHandler::Find(const KMessageHandler* pHandler, const KString& name) {
    const Digest digest(name);
    const Index::Entry* const pFound = std::find_if(g_Index.begin(), g_Index.end(), [&](const Index::Entry& entry) {
        return entry.pHandler == pHandler && entry.Is(digest, name);
    });
    return pFound != g_Index.end() ? static_cast<int>(pFound - g_Index.begin()) : -1;
}

bool KMessageHandler::Register(KMessageHandler* pHandler, KString& name) {
    const ScopedLock lock(g_Mutex);
    if (Find(pHandler, name) < 0 && g_Index.Reserve() && g_ObjList.Add(pHandler)) {
        const int nLast = g_ObjList.GetCount() - 1;
        const KString* const pName = g_MessageList.Add(name) ? g_MessageList[nLast] : nullptr;
        if (pName != nullptr && pName->Length() == name.Length()) {
            g_Index.Add(pName, pHandler);
        } else {
            // Without memory for the name the lists would no longer go together, or the handler would stay under none.
            KMessageHandler* pRemoved = nullptr;
            KString removedName;
            g_ObjList.Pop(pRemoved, nLast);
            g_MessageList.Pop(removedName, nLast);
        }
    }
    return true;
}

bool KMessageHandler::Unregister(KMessageHandler* pHandler, KString& name) {
    const ScopedLock lock(g_Mutex);
    const int nIndex = Find(pHandler, name);
    if (nIndex < 0) {
        return false;
    }
    KMessageHandler* pRemoved = nullptr;
    KString removedName;
    g_Index.RemoveAt(static_cast<std::size_t>(nIndex));
    g_ObjList.Pop(pRemoved, nIndex);
    g_MessageList.Pop(removedName, nIndex);
    return true;
}

int KMessageHandler::SendMessage(const KString& name, const KMessage& message) {
    const ScopedLock lock(g_Mutex);
    const Index::Entry* pEntry = g_Index.Find(Digest(name), name);
    const std::size_t nFirst = static_cast<std::size_t>(pEntry - g_Index.begin());
    // Nobody registers before the message is through: the registry is locked.
    for (const Index::Entry* const pEnd = g_Index.end(); pEntry != pEnd; ++pEntry) {
        if (pEntry->nFirst == nFirst && pEntry->pHandler != nullptr) {
            pEntry->pHandler->HandleMessage(message);
        }
    }
    return 0;
}
