/// @file
/// The network endpoint and the socket.
#ifndef KALVOREN_KNET_H
#define KALVOREN_KNET_H

// The system's header defines HOST_NOT_FOUND as a macro. Included and undefined here, it cannot spoil the enumeration
// below, whichever header a program includes first.
#include <netdb.h>
#undef HOST_NOT_FOUND

#include "KList.h"
#include "KString.h"
#include "KTypes.h"

/// One end of a network conversation: address family, transport, delivery, host and port. A plain description: nothing is
/// resolved and nothing validated.
///
/// Thread-safety: none, as for any value.
class KALVOREN_API KNetInfo {
 public:
    /// The address family.
    enum NetAddressDomain : int {
        UNSPECIFIED = 0,  ///< AF_UNSPEC
        IPV4 = 1,         ///< AF_INET
        IPV6 = 2,         ///< AF_INET6
        LOCAL = 3         ///< AF_UNIX
    };

    /// The transport.
    enum NetProtocol : int {
        RAW = 0,   ///< SOCK_RAW with IPPROTO_RAW
        IP = 1,    ///< SOCK_RAW with protocol 0
        ICMP = 2,  ///< SOCK_RAW with protocol 1
        IGMP = 3,  ///< SOCK_RAW with protocol 2
        TCP = 4,   ///< SOCK_STREAM
        UDP = 5    ///< SOCK_DGRAM
    };

    /// The delivery.
    enum NetCasting : int {
        UNICAST = 0,    ///< To one host.
        MULTICAST = 1,  ///< To a group; UDP only.
        BROADCAST = 2   ///< To all hosts of a network; UDP only.
    };

    /// UNSPECIFIED, RAW, UNICAST, an empty address, and port -1, which means that it is not set.
    KNetInfo();

    /// What Set() stores.
    KNetInfo(NetAddressDomain eDomain, NetProtocol eProtocol, NetCasting eCasting, const char* pszAddress, int nPort);
    KNetInfo(NetAddressDomain eDomain, NetProtocol eProtocol, NetCasting eCasting, const KString& address, int nPort);

    /// Copies the five fields. The copy has no raw address.
    KNetInfo(const KNetInfo& other);

    /// Copies the five fields. @b Beware: this object's raw address is forgotten and leaks. To avoid that, make a new
    /// object instead of assigning to one whose RawAddress() was called.
    KNetInfo& operator=(const KNetInfo& other);

    virtual ~KNetInfo();

    /// Store all fields, or one. They take any value, also one that is not in its enumeration, and return true.
    bool Set(NetAddressDomain eDomain, NetProtocol eProtocol, NetCasting eCasting, const KString& address, int nPort);
    bool SetAddressDomain(NetAddressDomain eDomain);
    bool SetProtocol(NetProtocol eProtocol);
    bool SetCasting(NetCasting eCasting);
    bool SetAddress(const char* pszAddress);
    bool SetAddress(const KString& address);
    bool SetPort(int nPort);

    /// Return the fields.
    NetAddressDomain GetAddressDomain() const { return m_eDomain; }
    NetProtocol GetProtocol() const { return m_eProtocol; }
    NetCasting GetCasting() const { return m_eCasting; }
    const KString& GetAddress() const { return m_Address; }
    int GetPort() const { return m_nPort; }

    /// Returns a copy of the address as a text in a new array, null when memory is lacking. It belongs to this object and
    /// is good until the next call, which releases it, an assignment, or destruction.
    const char* RawAddress();

 private:
    NetAddressDomain m_eDomain;
    NetProtocol m_eProtocol;
    NetCasting m_eCasting;
    KString m_Address;
    char* m_pRawAddress;
    int m_nPort;
};

/// One BSD socket, made from a KNetInfo. IPv4 only: every address it builds is an IPv4 one.
///
/// A client calls GetHostName(), CreateSocket(), one of the ways to connect, Read() and Write(), and DeleteSocket(). A
/// server calls CreateSocket(), Bind(), and Accept() into another KNet, on which it then reads and writes.
///
/// Failures are reported by the result and by GetError(), which only failures and a successful CreateSocket() change.
///
/// Ownership: @b the @b destructor @b does @b not @b close the socket, and copies share one descriptor. Exactly one owner
/// must call DeleteSocket(). CreateSocket() and Accept() overwrite a descriptor without closing it.
///
/// Operations that need the socket record check "pInfo"; with the checks off they set NO_SOCKET and return false, 0 or -1
/// as stated. Without a host entry (no successful GetHostName()) a connect fails.
///
/// Sending to a peer that is gone raises SIGPIPE, which ends the process unless it is ignored: KSystem::Init(), and so
/// KEntry::Init(), ignores it.
///
/// Thread-safety: one object belongs to one thread at a time. Different objects may be used by different threads, and
/// look-ups from several threads do not mix.
class KALVOREN_API KNet {
 public:
    /// What went wrong last.
    enum NetError : int {
        NONE = 0,                ///< CreateSocket() succeeded.
        NO_SOCKET = 1,           ///< There is no socket, or no record.
        HOST_NOT_FOUND = 2,      ///< The host has no address.
        SOCKET_FAILED = 3,       ///< No socket could be made.
        MULTICAST_FAILED = 4,    ///< Multicast loop-back could not be switched off.
        CONNECT_FAILED = 5,      ///< A connect failed, timed out or was abandoned.
        BIND_FAILED = 6,         ///< Binding, joining a group, listening or accepting failed.
        RECEIVE_FAILED = 8,      ///< Receiving or waiting for data failed.
        BAD_DOMAIN = 10,         ///< Not an address family.
        CASTING_NEEDS_UDP = 11,  ///< Multicast and broadcast need UDP.
        BAD_CASTING = 12,        ///< Not a delivery.
        PEER_NOT_IPV4 = 13       ///< The accepted peer has no IPv4 address.
    };

    /// Do nothing.
    static void Init();
    static void Deinit();

    /// No socket, a default description, and a time-out of 10,000 milliseconds.
    KNet();

    /// No socket, and the description and time-out given.
    KNet(KNetInfo& info, int nTimeOut);

    /// Both share one socket and host entry afterwards. An assignment overwrites this object's descriptor without closing
    /// it and its description as SetConnectionInfo() does.
    KNet(const KNet& other);
    KNet& operator=(const KNet& other);

    /// Does not close the socket.
    virtual ~KNet();

    /// Stores the description and a time-out in milliseconds, which no operation of this class looks at. Returns true. The
    /// socket, the host entry and the error stay. @b Beware: after a look-up the old description's raw address leaks, as with
    /// every assignment of a KNetInfo; an object for each host avoids that.
    bool SetConnectionInfo(const KNetInfo& info, int nTimeOut);

    /// Return what is stored.
    const KNetInfo& GetConnectionInfo() const { return m_ConInfo; }
    int GetTimeOut() const { return m_nTimeOut; }

    /// Returns what went wrong last.
    NetError GetError() const { return m_eError; }

    /// Returns the descriptor, -1 when there is none.
    int GetSocket() const;

    // ------------------------------------------------------------------------------------------ Making a socket

    /// Looks up the description's host (`gethostbyname`) and keeps its first address and family for the connects and for
    /// multicast. Waits for as long as the system's resolver does. On failure sets HOST_NOT_FOUND, keeps none, and returns
    /// false. Where memory for the host's text is lacking it does not look up: the host found before stays, and decides.
    bool GetHostName();

    /// Makes the socket (`socket`) in the host entry's family, or else in the description's, and for multicast or broadcast
    /// prepares it (`setsockopt`: loop-back off, broadcast on).
    ///
    /// - Unknown family: check "0"; else BAD_DOMAIN, false.
    /// - Unknown protocol: check "0"; else @b true, with nothing made.
    /// - The system refuses: SOCKET_FAILED, false.
    /// - Multicast or broadcast without UDP: CASTING_NEEDS_UDP, false; the socket stays open.
    /// - Loop-back cannot be switched off: MULTICAST_FAILED, false; the socket is closed.
    /// - Broadcast cannot be switched on: false, without an error; the socket stays open.
    /// - Unknown delivery: check "0"; else BAD_CASTING, false; the socket stays open.
    bool CreateSocket();

    /// Closes the socket (`close`), if there is one. Returns true.
    bool DeleteSocket();

    // ------------------------------------------------------------------------------------------------- Serving

    /// Binds the socket to the description's port on all addresses, with the port free for reuse, joins the host entry's
    /// group for multicast, and listens with a backlog of 1000 (`setsockopt`, `bind`, `listen`). Of a port, here and
    /// everywhere, the low 16 bits count: the -1 that means "not set" is port 65535. Port 0 lets the system choose.
    ///
    /// Returns false with NO_SOCKET without a socket. Any failure closes the socket and gives BIND_FAILED and false. @b A
    /// @b datagram @b socket @b cannot @b listen, so Bind() fails for UDP.
    bool Bind();

    /// Bind(), and closes the socket again. Tells whether the port is free.
    bool BindTest();

    /// Waits for a peer (`accept`) and hands its socket to @p client, which takes over this object's description, with the
    /// peer's address in it. What @p client held is overwritten, not closed.
    ///
    /// Returns false with NO_SOCKET when this socket does not listen. When the system's call fails, @b this @b socket @b is
    /// @b closed: BIND_FAILED, false. A peer without an IPv4 address gives PEER_NOT_IPV4 and @b true; its socket is lost.
    /// In all three cases @p client is left with this object's description and descriptor, in the second with one that is
    /// closed: do not use it.
    bool Accept(KNet& client);

    // ---------------------------------------------------------------------------------------------- Connecting
    //
    // Each of the three ways stores the host entry's address and the description's port. Multicast and broadcast need that:
    // it is where Write() sends to, and SyncConnectWithTimedBlock() does nothing else for them.

    /// Connects and waits for as long as the system does (`connect`). Returns false with NO_SOCKET without a socket. A
    /// failure closes the socket: CONNECT_FAILED, false.
    bool SyncConnectWithBlock();

    /// Connects and waits for at most @p nMilliseconds / 1000 seconds and @p nMilliseconds % 1000 @b microseconds
    /// (`connect`, `select`): 1500 waits for 1.0005 seconds.
    ///
    /// Returns true at once, with the address stored but without connecting, for anything but unicast TCP. @b Beware: whether
    /// the connection was made is not looked at, so that a refused one, or a network that cannot be reached, is @b true as
    /// well: the first Read() or Write() tells. A connection made at once leaves the socket non-blocking.
    ///
    /// Returns false with NO_SOCKET without a socket. A time-out, a negative one, or a descriptor that `select` cannot take
    /// (1024 and above) closes the socket: CONNECT_FAILED, false.
    bool SyncConnectWithTimedBlock(int nMilliseconds);

    /// Starts connecting without waiting (`fcntl`, `connect`). Returns 0 when connected at once (as a datagram socket is), 1
    /// when on the way, which is also the result of any failure, and -1 when not started: without a socket, a host entry or
    /// a descriptor that `select` can take, and for anything but unicast. With a socket and a host entry the socket is
    /// non-blocking from here on, whatever the result (whether `fcntl` did it is not looked at, here and in
    /// SyncConnectWithTimedBlock()). Sets no error.
    int ASyncConnectionCheckStart();

    /// Waits for a started connect for at most @p nMilliseconds, counted as by SyncConnectWithTimedBlock() (`select`). Returns
    /// 1 when it is still on the way or the wait failed (a negative time), 0 when the socket is ready, connected or refused,
    /// and -1 when it is neither, or `select` cannot take the descriptor. May be repeated. Sets no error.
    int ASyncConnectionChecking(int nMilliseconds);

    /// Ends a started connect: puts the socket's flags back when it is connected, else closes it and sets CONNECT_FAILED.
    /// Returns true.
    bool ASyncConnectionCheckDone(bool fgConnected);

    /// Tells whether the described host can be connected to (GetHostName(), CreateSocket(), a connect, DeleteSocket()), and
    /// leaves no socket open. Waits without limit when @p nMilliseconds is below 1, else as SyncConnectWithTimedBlock() does,
    /// with the same caveat: a refused connection counts as made. False, with the error of the step that failed, when it
    /// cannot. True without a test for RAW and UDP, whose socket is closed.
    ///
    /// @b Beware: any other protocol with multicast or broadcast is false with CASTING_NEEDS_UDP, and @b that @b socket
    /// @b stays @b open. So does that of a casting that is none of the three, which with the checks off is false with
    /// BAD_CASTING.
    bool ConnectionTest(int nMilliseconds);

    /// Returns true, always.
    bool isClientConnected();

    // --------------------------------------------------------------------------------------- Reading and writing

    /// Waits until @p nLen bytes have come (`recv` with MSG_WAITALL, and MSG_PEEK when @p fgPeek). @b Returns @b -1 @b when
    /// @b all @b have. Anything else, also fewer bytes before the peer closed, gives 0 and RECEIVE_FAILED, or NO_SOCKET.
    /// On a datagram socket it takes one datagram, whose rest is lost when it is longer. A length of 0 waits for something
    /// to read, or for the end, and is complete then.
    int Read(char* pBuffer, int nLen, bool fgPeek);

    /// Takes what has come, without waiting (`recvfrom` with MSG_DONTWAIT, and MSG_PEEK when @p fgPeek), and the sender's
    /// address and port. Returns the number of bytes, which is 0 for an empty datagram and at the end of a stream; 0 with
    /// RECEIVE_FAILED, or NO_SOCKET, on failure. On a stream socket the address is "0.0.0.0" and the port 0.
    int ReadWithClientInfo(char* pBuffer, int nLen, KString& ip, int& nPort, bool fgPeek);

    /// Sends @p nLen bytes: to the peer (`send`), or for multicast and broadcast to the address that one of the ways to
    /// connect, or Bind(), stored last (`sendto`). Returns the number of bytes sent or -1; a failed `send` writes the log line
    /// "KNet Write Error: %d" with `errno`. Without a socket: NO_SOCKET, 0. Without a record: NO_SOCKET, -1. Unknown
    /// delivery: check "0"; else NO_SOCKET, -1.
    int Write(const char* pBuffer, int nLen);

    /// Broadcasts @p nLen bytes to 255.255.255.255 at a port. Returns the number of bytes sent or -1. Only for broadcast:
    /// anything else fails the check "0"; else -1. Without a socket: NO_SOCKET, 0.
    int WriteWithOtherPort(const char* pBuffer, int nLen, int nPort);

    /// Sends @p nLen bytes to a host (`gethostbyname`, `sendto`). Returns the number of bytes sent, or -1, also for a host that
    /// is not found or longer than 2047 characters; with the checks on, a longer one fails KString::GetUTF8String()'s. Only
    /// for UDP: anything else fails the check "0"; else -1. Without a socket: NO_SOCKET, 0.
    int WriteWithClientInfo(const char* pBuffer, int nLen, const KString& host, int nPort);

    /// Waits for at most 10 seconds (`poll`) and returns the number of bytes that can be read (`ioctl`), of datagrams those of
    /// the next one: 0 when none came or the peer closed, and without a socket (NO_SOCKET); -1 with RECEIVE_FAILED when
    /// waiting fails, and -1 without an error when counting does. What is waited for is the descriptor that CreateSocket()
    /// or Accept() made last with success.
    int GetReceivedSize();

    /// Appends the addresses of this host's name as texts to a list (`gethostname`, `gethostbyname`). Appends nothing when the
    /// name has none.
    void GetLocalIPs(KList<KString>& ips);

 private:
    struct KALVOREN_LOCAL SocketInfo;

    KALVOREN_LOCAL bool HasInfo(const char* pszSignature);
    KALVOREN_LOCAL bool HasSocket();
    KALVOREN_LOCAL bool Fail(NetError eError);
    KALVOREN_LOCAL bool FailAndClose(NetError eError);
    KALVOREN_LOCAL bool SetTargetAddress();
    KALVOREN_LOCAL bool JoinGroup();
    KALVOREN_LOCAL bool PrepareCasting();
    KALVOREN_LOCAL bool Connect();
    KALVOREN_LOCAL void SetNonBlocking();
    KALVOREN_LOCAL int Send(const char* pBuffer, int nLen);
    KALVOREN_LOCAL int SendTo(const char* pBuffer, int nLen, const struct sockaddr_in& target);

    NetError m_eError;
    KNetInfo m_ConInfo;
    int m_nTimeOut;
    SocketInfo* pInfo;
};

#endif  // KALVOREN_KNET_H
