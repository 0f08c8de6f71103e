/// @file
/// Channels between processes.
#ifndef KALVOREN_KIPC_H
#define KALVOREN_KIPC_H

#include "KPath.h"
#include "KTypes.h"

/// Connects processes on one machine: through 520 bytes of shared memory, or through a Unix-domain stream socket over
/// which records of 520 bytes are exchanged.
///
/// Channels are numbered 0 to 999 and kept in a table, so that every part of a program reaches channel n by
/// GetInstance(n). Objects outside the table work as well.
///
/// @par Shared memory
/// Both sides call `Init(n, isServer, KIPC::SHARED_MEMORY, KPath())` and use GetSharedMemory(). The object's name is
/// "KALVOREN_IPC_" and the number. The memory has no lock; the processes agree on how they use it. Whichever side
/// closes the channel removes the name, and the next server makes a new object.
///
/// @par Local socket
/// The socket file's name is the path, "_" and the number. @b Beware: of a name longer than 107 characters the rest is cut
/// off, without a word: first the number, so that channels with different numbers have the same file, and each takes it
/// away from the one before.
/// - The server calls `Init(n, true, KIPC::LOCAL_SOCKET, path)` and WaitForConnectToMe() with another KIPC as the peer,
///   on which it then reads and writes. Prepare the peer before: `peer.SetType(KIPC::LOCAL_SOCKET)`, or closing it acts
///   on shared memory (see Close()).
/// - The client makes a KIPC, calls SetPath() and SetIndex() with the server's, then @b CreateClient() and
///   ConnectToServer(). @b Beware: Create() and Init() do the same for a client as for a server, so a client made
///   through them takes the socket file away from the server and cannot connect.
///
/// Operations that need the channel record check "m_pInternal"; with the checks off and without a record, they are true
/// with nothing done, unless stated otherwise.
///
/// Who may open the memory (mode 0666) or connect to the socket file (0777) is everybody, less the process's umask: set
/// it, or keep the socket file in a directory that only the right users can search, where others have accounts.
///
/// @b Beware: the memory's size is looked at once, when it is mapped. Whoever may write to the object, which need not be
/// its maker, can shorten it afterwards (`ftruncate`); a process that touches the memory then is ended by SIGBUS, on
/// either side. Let only processes that you trust write to it, as by `umask(077)` before the server's Create(). Where
/// that cannot be, have the system read it: `pread()` on a descriptor of `shm_open("/KALVOREN_IPC_7", O_RDONLY, 0)`
/// returns fewer than 520 bytes instead.
///
/// Writing to a peer that is gone raises SIGPIPE, which ends the process unless it is ignored: KSystem::Init(), and so
/// KEntry::Init(), ignores it.
///
/// Thread-safety: none. Fill and empty the table at start-up and shut-down; use one object from one thread at a time.
class KALVOREN_API KIPC {
 public:
    /// The kind of channel.
    enum KIPCType : int {
        SHARED_MEMORY = 0,  ///< POSIX shared memory, 520 bytes.
        UNSUPPORTED = 1,    ///< Nothing.
        LOCAL_SOCKET = 2    ///< A Unix-domain stream socket.
    };

    /// One record. What is in it is up to the programs that exchange it.
    struct IPCData {
        unsigned char bytes[520];  ///< What is exchanged.
    };

    // ------------------------------------------------------------------------------------------------ The table

    /// Makes channel @p nIndex, unless it is there, with its number and path, and creates it. Returns whether the
    /// channel is in the table; an existing one is true whatever its type. When Create() fails the result is false, and
    /// the channel stays in the table. Checks "nIndex >= 0 && nIndex < (1000)"; with the checks off false outside 0 to
    /// 1000: number 1000 is let through.
    static bool Init(int nIndex, bool fgServer, KIPCType eType, const KPath& path);

    /// Returns channel @p nIndex. Checks "nIndex >= 0 && nIndex < (1000)", and "0" when there is none; with the checks
    /// off it returns null.
    static KIPC* GetInstance(int nIndex);

    /// Removes a channel. Returns true. Checks "nIndex >= 0 && nIndex < (1000)".
    ///
    /// @b Beware: if channel @p nIndex is there, it is channel @b 0 that is closed and deleted, whatever @p nIndex is,
    /// and only when IsCreated() is false for it, as it is for shared memory: a local-socket channel is never removed.
    /// To end a channel, call Close() on its instance.
    static bool Deinit(int nIndex);

    // ------------------------------------------------------------------------------------------ Making and closing

    /// A shared-memory client for channel 0 that is not created. Checks "m_pInternal" when memory is lacking.
    KIPC();

    /// Both share the descriptors and the mapping afterwards. @b Beware: closing or destroying one closes them for
    /// both, and the other then closes whatever the system has given the same numbers to. Pass references instead.
    KIPC(const KIPC& other);
    KIPC& operator=(const KIPC& other);

    /// Calls Close(). The channel record is never freed.
    virtual ~KIPC();

    /// Creates the channel as server or client and returns true when that succeeded. Type and side are stored in any
    /// case.
    ///
    /// SHARED_MEMORY (`shm_open`, `ftruncate`, `mmap`): the server makes the object, or opens an existing one; the
    /// client opens it for reading, and false is returned when it is not there. When the memory cannot be mapped, or an
    /// existing object is shorter than 520 bytes, the result is @b true and GetSharedMemory() is null. A client may
    /// find it so in the moment before the server gives the object its size, and calls Create() again. Memory that is
    /// open already is not closed first: call Close() before.
    ///
    /// LOCAL_SOCKET (`socket`, `unlink`, `bind`, `listen` with a backlog of 1000), on @b both sides: removes the socket
    /// file, makes a new one and listens. True at once when this object has a socket. Logs "Create IPC %d" with the
    /// descriptor, or the error "IPC Socket Create Failed". When binding or listening fails the socket stays open.
    ///
    /// Anything else: check "0"; with the checks off true, with nothing made.
    bool Create(bool fgServer, KIPCType eType);

    /// Makes the client's side of a local socket: a socket and the server's address, from this object's path and
    /// number. Leaves the socket file alone, so that ConnectToServer() reaches the server that listens there. Returns
    /// true, at once when this object has a socket; false, with the error "IPC Socket Create Failed", when the system
    /// has none. Logs "Create IPC %d". The object is a LOCAL_SOCKET client afterwards and IsCreated().
    bool CreateClient();

    /// Closes the channel. Returns true; IsCreated() is false afterwards.
    ///
    /// LOCAL_SOCKET: logs "Close IPC %d" and closes the socket, if there is one. The socket file stays.
    ///
    /// SHARED_MEMORY: unmaps the memory, closes the descriptor, and removes the object's name, on either side.
    /// @b Beware: an object that was never created holds descriptor 0, which is closed (the standard input, usually),
    /// and removes channel 0's name unless it has another number. Destroying such an object does the same. An accepted
    /// peer is such an object unless SetType() was called on it before.
    ///
    /// UNSUPPORTED: nothing. Anything else: check "0".
    bool Close();

    // ------------------------------------------------------------------------------------------------- Connecting

    /// Connects a client to its server (`connect`). Returns false on the server's side, without a socket, or when the
    /// server is not there.
    bool ConnectToServer();

    /// Waits for a client (`accept`) and hands its socket to @p client, of which nothing else changes; a socket that it
    /// had is not closed. Returns false unless this is a server with a socket, and when the system's call fails:
    /// @p client then has no socket. Checks "pCInfo": the record of @p client.
    bool WaitForConnectToMe(KIPC& client);

    // ------------------------------------------------------------------------------------------ Reading and writing

    /// Read or write one record over the socket, in one call (`read`, `write`). Return true only when all 520 bytes
    /// moved in that call: what moved otherwise is lost, and the stream is out of step. False without a socket.
    bool Read(IPCData& data);
    bool Write(const IPCData& data);

    /// Returns the address of the shared memory, 520 bytes, for reading only on a client; null when nothing is mapped.
    /// Good until Close().
    void* GetSharedMemory() const;

    // ------------------------------------------------------------------------------------------------- Accessors

    /// Store the path of the socket file, the channel's number, its type. Return true.
    bool SetPath(const KPath& path);
    bool SetIndex(int nIndex);
    bool SetType(KIPCType eType);

    /// Return what is stored.
    int GetIndex() const { return m_nIndex; }
    bool IsServer() const { return m_fgServer; }
    KIPCType GetType() const { return m_eType; }

    /// Returns true from Create() as a local socket, or CreateClient(), to Close(). Never true for shared memory.
    bool IsCreated();

 private:
    struct IPCInternal;

    KALVOREN_LOCAL bool CreateSharedMemory();
    KALVOREN_LOCAL bool CreateSocket();
    KALVOREN_LOCAL void MapSharedMemory();
    KALVOREN_LOCAL void CloseSharedMemory();
    KALVOREN_LOCAL void CloseSharedDescriptor();
    KALVOREN_LOCAL void CloseSocket();

    IPCInternal* m_pInternal;
    int m_nIndex;
    bool m_fgServer;
    KIPCType m_eType;
    bool m_fgCreated;
    KPath m_Path;
};

#endif  // KALVOREN_KIPC_H
