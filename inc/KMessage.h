/// @file
/// Messages, and the handlers that receive them by name.
#ifndef KALVOREN_KMESSAGE_H
#define KALVOREN_KMESSAGE_H

#include "KList.h"
#include "KString.h"
#include "KThread.h"
#include "KTypes.h"

/// Two texts and a copy of a block of bytes, the payload. What the texts stand for is up to the program.
///
/// The payload's memory comes from KMem::Malloc, whose registry has no lock: see there.
///
/// Thread-safety: none, as for any value.
class KALVOREN_API KMessage {
 public:
    /// Empty texts and no payload.
    KMessage();

    /// Copies of two texts and of @p nSize bytes; no payload for a size below 1, or when memory is lacking. A null
    /// @p pData fails KMem::Copy's check "pSrc"; with the checks off the payload is zeros.
    KMessage(KString& text1, KString& text2, void* pData, int nSize);

    /// A copy with a payload of its own.
    KMessage(const KMessage& other);

    /// Takes copies of the texts and the payload. @b Beware: from a message without payload, the payload is freed but
    /// @b GetSize() @b keeps @b its @b value. Look at GetData(), not at the size, to tell whether there is one.
    KMessage& operator=(const KMessage& other);

    /// Frees the payload.
    ~KMessage();

    /// Return the texts.
    const KString& GetText1() const { return mText1; }
    const KString& GetText2() const { return mText2; }

    /// Returns the payload, null when there is none. It belongs to the message.
    void* GetData() const { return mData; }

    /// Returns the payload's length in bytes; see operator=().
    int GetSize() const { return mSize; }

 private:
    KALVOREN_LOCAL void CopyPayload(const void* pData, int nSize);

    KString mText1;
    KString mText2;
    void* mData;
    int mSize;
};

/// Receives messages by name. Implement HandleMessage() and register under one or more names.
///
/// Messages are handed over on the sending thread, to each handler in the order of registration. An @b empty @b name
/// matches nothing, not even itself: a registration under it is never found again.
///
/// Thread-safety: one mutex is held for every registration, removal, and the whole of a dispatch. It is not recursive:
/// @b a @b handler @b must @b not @b register, @b unregister @b or @b send from inside HandleMessage(); it would block
/// for good. A handler must not wait for a thread that does one of these either.
class KALVOREN_API KMessageHandler {
 public:
    /// Receives a message. It belongs to the sender and is good until the return. The result is ignored.
    virtual int HandleMessage(const KMessage& message) = 0;

    /// Registers a handler under a name, unless it is already registered under it. It is not owned: unregister it
    /// before it is destroyed. Returns true, also where memory is lacking: the handler is not registered then.
    static bool Register(KMessageHandler* pHandler, KString& name);

    /// Removes a handler's registration under a name. Returns false when there is none.
    static bool Unregister(KMessageHandler* pHandler, KString& name);

    /// Hands a message to every handler that is registered under a name. Returns 0. The time is proportional to the
    /// number of registrations.
    static int SendMessage(const KString& name, const KMessage& message);

 protected:
    /// Handlers are destroyed by those who made them, as what they are.
    ~KMessageHandler() = default;

 private:
    KALVOREN_LOCAL static int Find(const KMessageHandler* pHandler, const KString& name);

    KALVOREN_LOCAL static KList<KMessageHandler*> g_ObjList;
    KALVOREN_LOCAL static KList<KString> g_MessageList;
    KALVOREN_LOCAL static KMutex g_Mutex;
};

extern template class KList<KMessageHandler*>;

#endif  // KALVOREN_KMESSAGE_H
