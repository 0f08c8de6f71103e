#include "KMessage.h"

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

/// The number of a registration, or -1. The registry's mutex is held.
int KMessageHandler::Find(const KMessageHandler* pHandler, const KString& name) {
    KList<KMessageHandler*>::Reader handlers(g_ObjList);
    KList<KString>::Reader names(g_MessageList);
    for (int i = 0; KMessageHandler* const* const ppHandler = handlers.Next(); ++i) {
        const KString* const pName = names.Next();
        if (*ppHandler == pHandler && pName != nullptr && *pName == name) {
            return i;
        }
    }
    return -1;
}

bool KMessageHandler::Register(KMessageHandler* pHandler, KString& name) {
    const ScopedLock lock(g_Mutex);
    if (Find(pHandler, name) < 0 && g_ObjList.Add(pHandler) && !g_MessageList.Add(name)) {
        // Without memory for the name the lists would no longer go together.
        KMessageHandler* pRemoved = nullptr;
        g_ObjList.Pop(pRemoved, g_ObjList.GetCount() - 1);
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
    g_ObjList.Pop(pRemoved, nIndex);
    g_MessageList.Pop(removedName, nIndex);
    return true;
}

int KMessageHandler::SendMessage(const KString& name, const KMessage& message) {
    const ScopedLock lock(g_Mutex);
    KList<KMessageHandler*>::Reader handlers(g_ObjList);
    KList<KString>::Reader names(g_MessageList);
    while (const KString* const pName = names.Next()) {
        KMessageHandler* const* const ppHandler = handlers.Next();
        if (*pName == name && ppHandler != nullptr && *ppHandler != nullptr) {
            (*ppHandler)->HandleMessage(message);
        }
    }
    return 0;
}
