#include "torture/Faults.h"

#include <dirent.h>
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <map>
#include <mutex>
#include <new>
#include <ostream>
#include <set>

namespace torture {

namespace {

// ------------------------------------------------------------------------------------------------------- The engine

/// How a function tells that it failed.
enum class Tells : int { MINUS_ONE, NULL_POINTER, ZERO, ERROR_NUMBER, MAP_FAILURE };

/// A function that can fail, with the error numbers that it has in store.
struct Spec {
    const char* pszName;
    Tells eTells;
    std::array<int, 6> errors;

    int Ways() const {
        int nWays = 0;
        for (const int nError : errors) {
            nWays += nError != 0 ? 1 : 0;
        }
        return nWays;
    }
};

thread_local bool t_fgArmed = false;

Fault g_Fault = {0, 0};
int g_nCalls = 0;
std::size_t g_nAllowedBlocks = 0;
std::size_t g_nAllowedDescriptors = 0;

// Never destroyed: the library's own objects go later than the test's.
std::mutex& g_Guard = *new std::mutex();  // of what follows
std::string& g_Log = *new std::string();
std::map<const void*, std::size_t>& g_Blocks = *new std::map<const void*, std::size_t>();
std::set<const void*>& g_Mappings = *new std::set<const void*>();
std::set<DIR*>& g_Directories = *new std::set<DIR*>();

Outcome& SharedOutcome() {
    static Outcome* const pOutcome = static_cast<Outcome*>(
        mmap(nullptr, sizeof(Outcome), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    return *pOutcome;
}

void CopyText(char* pTarget, std::size_t nSize, const std::string& text) {
    std::snprintf(pTarget, nSize, "%s", text.c_str());
}

/// Counts a call of the library. The error number that it has to fail with, or 0.
int ErrorFor(const Spec& spec) {
    if (!t_fgArmed || ++g_nCalls != g_Fault.nCall) {
        return 0;
    }
    Outcome& outcome = SharedOutcome();
    outcome.fgFailed = true;
    outcome.nWays = spec.Ways();
    outcome.nError = spec.errors[static_cast<std::size_t>(g_Fault.nWay)];
    CopyText(outcome.szFunction, sizeof(outcome.szFunction), spec.pszName);
    return outcome.nError;
}

/// The same for functions that leave their error number in errno.
bool Fails(const Spec& spec) {
    const int nError = ErrorFor(spec);
    if (nError > 0) {
        errno = nError;
    }
    return nError != 0;
}

template <typename Result>
Result FailureOf(const Spec& spec) {
    if constexpr (std::is_pointer<Result>::value) {
        return spec.eTells == Tells::MAP_FAILURE ? reinterpret_cast<Result>(MAP_FAILED) : nullptr;
    } else {
        switch (spec.eTells) {
            case Tells::ERROR_NUMBER:
                return static_cast<Result>(errno);
            case Tells::ZERO:
                return 0;
            default:
                return static_cast<Result>(-1);
        }
    }
}

/// What stands in front of a function that simply fails or is called. There is one for each Spec.
template <const Spec& spec, typename Result, typename... Arguments>
struct InFront {
    static Result Call(Arguments... arguments) { return Fails(spec) ? FailureOf<Result>(spec) : s_pReal(arguments...); }
    static inline Result (*s_pReal)(Arguments...) = nullptr;
};

// ----------------------------------------------------------------------------------------------------------- Memory

constexpr Spec kMalloc = {"malloc", Tells::NULL_POINTER, {ENOMEM}};
constexpr Spec kCalloc = {"calloc", Tells::NULL_POINTER, {ENOMEM}};
constexpr Spec kRealloc = {"realloc", Tells::NULL_POINTER, {ENOMEM}};
constexpr Spec kNew = {"new", Tells::NULL_POINTER, {ENOMEM}};

void* Hold(void* pBlock, std::size_t nSize) {
    if (pBlock != nullptr) {
        const std::lock_guard<std::mutex> lock(g_Guard);
        g_Blocks[pBlock] = nSize;
    }
    return pBlock;
}

void LetGo(const void* pBlock) {
    const std::lock_guard<std::mutex> lock(g_Guard);
    g_Blocks.erase(pBlock);
}

/// A block full of a value that nobody expects, so that nothing is zero by chance.
void* Unexpected(void* pBlock, std::size_t nSize) {
    return pBlock != nullptr ? std::memset(pBlock, 0xA5, nSize) : nullptr;
}

void* Malloc(std::size_t nSize) {
    return Fails(kMalloc) ? nullptr : Hold(Unexpected(std::malloc(nSize), nSize), nSize);
}

void* Calloc(std::size_t nCount, std::size_t nSize) {
    return Fails(kCalloc) ? nullptr : Hold(std::calloc(nCount, nSize), nCount * nSize);
}

void* Realloc(void* pBlock, std::size_t nSize) {
    if (Fails(kRealloc)) {
        return nullptr;
    }
    LetGo(pBlock);
    void* const pResult = std::realloc(pBlock, nSize);
    return Hold(pResult != nullptr ? pResult : pBlock, nSize) == pResult ? pResult : nullptr;
}

void Free(void* pBlock) {
    LetGo(pBlock);
    std::free(pBlock);
}

void* New(std::size_t nSize, const std::nothrow_t& tag) {
    return Fails(kNew) ? nullptr : Hold(Unexpected(::operator new(nSize, tag), nSize), nSize);
}

void* NewArray(std::size_t nSize, const std::nothrow_t& tag) {
    return Fails(kNew) ? nullptr : Hold(Unexpected(::operator new[](nSize, tag), nSize), nSize);
}

void Delete(void* pBlock) {
    LetGo(pBlock);
    ::operator delete(pBlock);
}

void DeleteSized(void* pBlock, std::size_t nSize) {
    LetGo(pBlock);
#ifdef __cpp_sized_deallocation
    ::operator delete(pBlock, nSize);
#else
    static_cast<void>(nSize);
    ::operator delete(pBlock);
#endif
}

void DeleteNothrow(void* pBlock, const std::nothrow_t& tag) {
    LetGo(pBlock);
    ::operator delete(pBlock, tag);
}

void DeleteArray(void* pBlock) {
    LetGo(pBlock);
    ::operator delete[](pBlock);
}

void DeleteArraySized(void* pBlock, std::size_t nSize) {
    LetGo(pBlock);
#ifdef __cpp_sized_deallocation
    ::operator delete[](pBlock, nSize);
#else
    static_cast<void>(nSize);
    ::operator delete[](pBlock);
#endif
}

void DeleteArrayNothrow(void* pBlock, const std::nothrow_t& tag) {
    LetGo(pBlock);
    ::operator delete[](pBlock, tag);
}

constexpr Spec kMmap = {"mmap", Tells::MAP_FAILURE, {ENOMEM, EACCES, EAGAIN, ENODEV}};
constexpr Spec kMunmap = {"munmap", Tells::MINUS_ONE, {EINVAL, ENOMEM}};

void* Mmap(void* pWish, std::size_t nSize, int nProtection, int nFlags, int nDescriptor, off_t nOffset) {
    if (Fails(kMmap)) {
        return MAP_FAILED;
    }
    void* const pMapped = mmap(pWish, nSize, nProtection, nFlags, nDescriptor, nOffset);
    if (pMapped != MAP_FAILED) {
        const std::lock_guard<std::mutex> lock(g_Guard);
        g_Mappings.insert(pMapped);
    }
    return pMapped;
}

int Munmap(void* pMapped, std::size_t nSize) {
    if (Fails(kMunmap)) {
        return -1;
    }
    {
        const std::lock_guard<std::mutex> lock(g_Guard);
        g_Mappings.erase(pMapped);
    }
    return munmap(pMapped, nSize);
}

// ------------------------------------------------------------------------------------------------ Files, directories

constexpr Spec kFopen = {"fopen", Tells::NULL_POINTER, {ENOENT, EACCES, EMFILE, EINTR, ENOMEM, ENOSPC}};
constexpr Spec kFseek = {"fseek", Tells::MINUS_ONE, {ESPIPE, EINVAL, EIO}};
constexpr Spec kFtell = {"ftell", Tells::MINUS_ONE, {ESPIPE, EBADF, EOVERFLOW}};
constexpr Spec kFread = {"fread", Tells::ZERO, {EIO, EINTR, EISDIR, kShort}};
constexpr Spec kFwrite = {"fwrite", Tells::ZERO, {EIO, EINTR, ENOSPC, EFBIG, kShort}};
constexpr Spec kFclose = {"fclose", Tells::MINUS_ONE, {EIO, EINTR, ENOSPC}};
constexpr Spec kFprintf = {"fprintf", Tells::MINUS_ONE, {EIO, EINTR, EPIPE, ENOSPC}};
constexpr Spec kVsnprintf = {"vsnprintf", Tells::MINUS_ONE, {ENOMEM, EOVERFLOW, EILSEQ}};
constexpr Spec kRemove = {"remove", Tells::MINUS_ONE, {EACCES, EBUSY, ENOENT, EROFS}};
constexpr Spec kRename = {"rename", Tells::MINUS_ONE, {EACCES, EXDEV, ENOENT, ENOSPC}};
constexpr Spec kUnlink = {"unlink", Tells::MINUS_ONE, {ENOENT, EACCES, EBUSY}};
constexpr Spec kMkdir = {"mkdir", Tells::MINUS_ONE, {EACCES, ENOSPC, ENOENT, EROFS}};
constexpr Spec kRmdir = {"rmdir", Tells::MINUS_ONE, {EACCES, EBUSY, ENOTEMPTY}};
constexpr Spec kStat = {"stat", Tells::MINUS_ONE, {EACCES, ENOENT, ENOTDIR, EOVERFLOW}};
constexpr Spec kFstatat = {"fstatat", Tells::MINUS_ONE, {EACCES, ENOENT, EOVERFLOW}};
constexpr Spec kUnlinkat = {"unlinkat", Tells::MINUS_ONE, {EACCES, EBUSY, ENOENT, EROFS}};
constexpr Spec kFstat = {"fstat", Tells::MINUS_ONE, {EBADF, EOVERFLOW}};
constexpr Spec kOpenat = {"openat", Tells::MINUS_ONE, {EACCES, EINTR, EMFILE, ELOOP, ENOENT}};
constexpr Spec kOpendir = {"opendir", Tells::NULL_POINTER, {EACCES, EMFILE, ENOENT, ENOMEM, ENOTDIR}};
constexpr Spec kFdopendir = {"fdopendir", Tells::NULL_POINTER, {ENOMEM, EBADF}};
constexpr Spec kReaddir = {"readdir", Tells::NULL_POINTER, {EBADF, EIO}};
constexpr Spec kClosedir = {"closedir", Tells::MINUS_ONE, {EBADF, EINTR}};
constexpr Spec kDirfd = {"dirfd", Tells::MINUS_ONE, {EINVAL, ENOTSUP}};
DIR* Opened(DIR* pDirectory) {
    if (pDirectory != nullptr) {
        const std::lock_guard<std::mutex> lock(g_Guard);
        g_Directories.insert(pDirectory);
    }
    return pDirectory;
}

constexpr Spec kMktemp = {"mktemp", Tells::NULL_POINTER, {EEXIST, EACCES}};
constexpr Spec kFtruncate = {"ftruncate", Tells::MINUS_ONE, {EINTR, EIO, EINVAL}};
constexpr Spec kShmOpen = {"shm_open", Tells::MINUS_ONE, {EACCES, EMFILE, ENOENT, EEXIST}};
constexpr Spec kShmUnlink = {"shm_unlink", Tells::MINUS_ONE, {EACCES, ENOENT}};
constexpr Spec kClose = {"close", Tells::MINUS_ONE, {EINTR, EIO}};

DIR* Opendir(const char* pszPath) {
    return Fails(kOpendir) ? nullptr : Opened(opendir(pszPath));
}

DIR* Fdopendir(int nDescriptor) {
    return Fails(kFdopendir) ? nullptr : Opened(fdopendir(nDescriptor));
}

/// libc closes the stream whatever it has to report.
int Fclose(std::FILE* pStream) {
    const int nError = ErrorFor(kFclose);
    const int nResult = std::fclose(pStream);
    errno = nError != 0 ? nError : errno;
    return nError != 0 ? EOF : nResult;
}

/// So does the system with a descriptor.
int Close(int nDescriptor) {
    const int nError = ErrorFor(kClose);
    const int nResult = close(nDescriptor);
    errno = nError != 0 ? nError : errno;
    return nError != 0 ? -1 : nResult;
}

int Closedir(DIR* pDirectory) {
    const int nError = ErrorFor(kClosedir);
    {
        const std::lock_guard<std::mutex> lock(g_Guard);
        g_Directories.erase(pDirectory);
    }
    const int nResult = closedir(pDirectory);
    errno = nError != 0 ? nError : errno;
    return nError != 0 ? -1 : nResult;
}

std::size_t Fread(void* pBuffer, std::size_t nSize, std::size_t nCount, std::FILE* pStream) {
    const int nError = ErrorFor(kFread);
    if (nError == kShort) {
        return std::fread(pBuffer, 1, nSize * nCount / 2, pStream) / nSize;
    }
    errno = nError != 0 ? nError : errno;
    return nError != 0 ? 0 : std::fread(pBuffer, nSize, nCount, pStream);
}

/// A name that cannot be made is told by an empty text.
char* Mktemp(char* pszPattern) {
    if (Fails(kMktemp)) {
        *pszPattern = '\0';
        return pszPattern;
    }
    // NOLINTNEXTLINE(clang-analyzer-security.insecureAPI.mktemp): a name is what is asked for.
    return mkdtemp(pszPattern) != nullptr && rmdir(pszPattern) == 0 ? pszPattern : nullptr;
}

int Openat(int nDirectory, const char* pszName, int nFlags, ...) {
    return Fails(kOpenat) ? -1 : openat(nDirectory, pszName, nFlags);
}

int KeepText(const std::string& text) {
    const std::lock_guard<std::mutex> lock(g_Guard);
    g_Log += text;
    return static_cast<int>(text.size());
}

/// What the library logs is kept, not printed, by whichever call it is written.
std::size_t Fwrite(const void* pBuffer, std::size_t nSize, std::size_t nCount, std::FILE* pStream) {
    if (pStream == stderr) {
        if (Fails(kFprintf)) {
            return 0;
        }
        KeepText(std::string(static_cast<const char*>(pBuffer), nSize * nCount));
        return nCount;
    }
    const int nError = ErrorFor(kFwrite);
    if (nError == kShort) {
        return std::fwrite(pBuffer, 1, nSize * nCount / 2, pStream) / nSize;
    }
    errno = nError != 0 ? nError : errno;
    return nError != 0 ? 0 : std::fwrite(pBuffer, nSize, nCount, pStream);
}

__attribute__((format(printf, 1, 0))) int KeepText(const char* pszFormat, va_list arguments) {
    char szText[4096];
    std::vsnprintf(szText, sizeof(szText), pszFormat, arguments);
    return KeepText(std::string(szText));
}

__attribute__((format(printf, 2, 3))) int Fprintf(std::FILE*, const char* pszFormat, ...) {
    if (Fails(kFprintf)) {
        return -1;
    }
    va_list arguments;
    va_start(arguments, pszFormat);
    const int nLength = KeepText(pszFormat, arguments);
    va_end(arguments);
    return nLength;
}

/// The form that hardened builds call.
__attribute__((format(printf, 3, 4))) int CheckedFprintf(std::FILE*, int, const char* pszFormat, ...) {
    if (Fails(kFprintf)) {
        return -1;
    }
    va_list arguments;
    va_start(arguments, pszFormat);
    const int nLength = KeepText(pszFormat, arguments);
    va_end(arguments);
    return nLength;
}

void Perror(const char* pszText) {
    const std::string strError = std::strerror(errno);
    KeepText(pszText + (": " + strError + "\n"));
}

__attribute__((format(printf, 3, 0))) int Vsnprintf(char* pTarget, std::size_t nSize, const char* pszFormat,
                                                    va_list arguments) {
    return Fails(kVsnprintf) ? -1 : std::vsnprintf(pTarget, nSize, pszFormat, arguments);
}

__attribute__((format(printf, 5, 0))) int CheckedVsnprintf(char* pTarget, std::size_t nSize, int, std::size_t,
                                                           const char* pszFormat, va_list arguments) {
    return Fails(kVsnprintf) ? -1 : std::vsnprintf(pTarget, nSize, pszFormat, arguments);
}

// ------------------------------------------------------------------------------------------------------ Connections

constexpr Spec kSocket = {"socket", Tells::MINUS_ONE, {EMFILE, ENFILE, EACCES, ENOBUFS, EAFNOSUPPORT}};
constexpr Spec kBind = {"bind", Tells::MINUS_ONE, {EADDRINUSE, EACCES, EADDRNOTAVAIL}};
constexpr Spec kListen = {"listen", Tells::MINUS_ONE, {EADDRINUSE, EOPNOTSUPP}};
constexpr Spec kAccept = {"accept", Tells::MINUS_ONE, {EMFILE, EINTR, ECONNABORTED, ENOBUFS}};
constexpr Spec kConnect = {"connect", Tells::MINUS_ONE, {ECONNREFUSED, EINTR, ETIMEDOUT, ENETUNREACH}};
constexpr Spec kSetsockopt = {"setsockopt", Tells::MINUS_ONE, {ENOPROTOOPT, ENOBUFS, ENODEV}};
constexpr Spec kFcntl = {"fcntl", Tells::MINUS_ONE, {EBADF, EPERM}};
constexpr Spec kIoctl = {"ioctl", Tells::MINUS_ONE, {EBADF, ENOTTY}};
constexpr Spec kPoll = {"poll", Tells::MINUS_ONE, {EINTR, ENOMEM}};
constexpr Spec kSelect = {"select", Tells::MINUS_ONE, {EINTR, ENOMEM, EBADF}};
constexpr Spec kRecv = {"recv", Tells::MINUS_ONE, {EINTR, ECONNRESET, ENOMEM, kShort}};
constexpr Spec kRecvfrom = {"recvfrom", Tells::MINUS_ONE, {EINTR, EAGAIN, ECONNREFUSED}};
constexpr Spec kSend = {"send", Tells::MINUS_ONE, {EINTR, ECONNRESET, EPIPE, ENOBUFS, kShort}};
constexpr Spec kSendto = {"sendto", Tells::MINUS_ONE, {EINTR, EHOSTUNREACH, ENOBUFS}};
constexpr Spec kRead = {"read", Tells::MINUS_ONE, {EINTR, EIO, ECONNRESET, kShort}};
constexpr Spec kWrite = {"write", Tells::MINUS_ONE, {EINTR, EPIPE, ENOSPC, kShort}};
constexpr Spec kGethostname = {"gethostname", Tells::MINUS_ONE, {ENAMETOOLONG}};

/// A transfer that may be short.
template <typename Transfer>
ssize_t Transferred(const Spec& spec, std::size_t nSize, Transfer transfer) {
    const int nError = ErrorFor(spec);
    if (nError > 0) {
        errno = nError;
        return -1;
    }
    return transfer(nError == kShort ? nSize / 2 : nSize);
}

ssize_t Recv(int nSocket, void* pBuffer, std::size_t nSize, int nFlags) {
    return Transferred(kRecv, nSize, [&](std::size_t n) { return recv(nSocket, pBuffer, n, nFlags); });
}
ssize_t Send(int nSocket, const void* pBuffer, std::size_t nSize, int nFlags) {
    return Transferred(kSend, nSize, [&](std::size_t n) { return send(nSocket, pBuffer, n, nFlags); });
}
ssize_t Read(int nDescriptor, void* pBuffer, std::size_t nSize) {
    return Transferred(kRead, nSize, [&](std::size_t n) { return read(nDescriptor, pBuffer, n); });
}
ssize_t Write(int nDescriptor, const void* pBuffer, std::size_t nSize) {
    return Transferred(kWrite, nSize, [&](std::size_t n) { return write(nDescriptor, pBuffer, n); });
}
ssize_t Recvfrom(int nSocket, void* pBuffer, std::size_t nSize, int nFlags, sockaddr* pSender, socklen_t* pnSender) {
    return Fails(kRecvfrom) ? -1 : recvfrom(nSocket, pBuffer, nSize, nFlags, pSender, pnSender);
}
ssize_t Sendto(int nSocket, const void* pBuffer, std::size_t nSize, int nFlags, const sockaddr* pTarget,
               socklen_t nTarget) {
    return Fails(kSendto) ? -1 : sendto(nSocket, pBuffer, nSize, nFlags, pTarget, nTarget);
}
int Bind(int nSocket, const sockaddr* pAddress, socklen_t nSize) {
    return Fails(kBind) ? -1 : bind(nSocket, pAddress, nSize);
}
int Connect(int nSocket, const sockaddr* pAddress, socklen_t nSize) {
    return Fails(kConnect) ? -1 : connect(nSocket, pAddress, nSize);
}
int Accept(int nSocket, sockaddr* pAddress, socklen_t* pnSize) {
    return Fails(kAccept) ? -1 : accept(nSocket, pAddress, pnSize);
}
int Fcntl(int nDescriptor, int nCommand, long nArgument) {
    return Fails(kFcntl) ? -1 : fcntl(nDescriptor, nCommand, nArgument);
}
int Ioctl(int nDescriptor, unsigned long nRequest, void* pArgument) {
    return Fails(kIoctl) ? -1 : ioctl(nDescriptor, nRequest, pArgument);
}
int Poll(pollfd* pPolls, nfds_t nPolls, int nTimeOut) {
    return Fails(kPoll) ? -1 : poll(pPolls, nPolls, nTimeOut);
}

/// A look-up fails in three ways: with an error, without an entry, and for want of room as often as it is tried.
int Gethostbyname(const char* pszHost, hostent* pStorage, char* pBuffer, std::size_t nSize, hostent** ppEntry,
                  int* pnError) {
    static constexpr Spec kSpec = {"gethostbyname_r", Tells::ERROR_NUMBER, {EAGAIN, ENOENT, ERANGE}};
    const int nError = ErrorFor(kSpec);
    if (nError == 0) {
        return gethostbyname_r(pszHost, pStorage, pBuffer, nSize, ppEntry, pnError);
    }
    *ppEntry = nullptr;
    *pnError = nError == EAGAIN ? TRY_AGAIN : nError == ENOENT ? HOST_NOT_FOUND : NETDB_INTERNAL;
    return nError == ENOENT ? 0 : nError;
}

// ------------------------------------------------------------------------------------ Threads, clock, loader, locale

constexpr Spec kAttributeInit = {"pthread_mutexattr_init", Tells::ERROR_NUMBER, {ENOMEM}};
constexpr Spec kAttributeType = {"pthread_mutexattr_settype", Tells::ERROR_NUMBER, {EINVAL}};
constexpr Spec kMutexInit = {"pthread_mutex_init", Tells::ERROR_NUMBER, {EAGAIN, ENOMEM, EPERM}};
constexpr Spec kMutexDestroy = {"pthread_mutex_destroy", Tells::ERROR_NUMBER, {EBUSY}};
constexpr Spec kTryLock = {"pthread_mutex_trylock", Tells::ERROR_NUMBER, {EBUSY}};
constexpr Spec kTimedLock = {"pthread_mutex_timedlock", Tells::ERROR_NUMBER, {ETIMEDOUT, EINVAL}};
constexpr Spec kThreadAttribute = {"pthread_attr_init", Tells::ERROR_NUMBER, {ENOMEM}};
constexpr Spec kDetach = {"pthread_attr_setdetachstate", Tells::ERROR_NUMBER, {EINVAL}};
constexpr Spec kStackSize = {"pthread_attr_setstacksize", Tells::ERROR_NUMBER, {EINVAL}};
constexpr Spec kGetParameter = {"pthread_attr_getschedparam", Tells::ERROR_NUMBER, {EINVAL}};
constexpr Spec kSetParameter = {"pthread_attr_setschedparam", Tells::ERROR_NUMBER, {EINVAL, ENOTSUP}};
constexpr Spec kThreadCreate = {"pthread_create", Tells::ERROR_NUMBER, {EAGAIN, EPERM, EINVAL}};
constexpr Spec kThreadJoin = {"pthread_join", Tells::ERROR_NUMBER, {ESRCH, EINVAL, EDEADLK}};
constexpr Spec kThreadCancel = {"pthread_cancel", Tells::ERROR_NUMBER, {ESRCH}};
constexpr Spec kThreadAttributeEnd = {"pthread_attr_destroy", Tells::ERROR_NUMBER, {EINVAL}};
constexpr Spec kUsleep = {"usleep", Tells::MINUS_ONE, {EINTR, EINVAL}};
constexpr Spec kClock = {"gettimeofday", Tells::MINUS_ONE, {EFAULT, EPERM}};
constexpr Spec kUname = {"uname", Tells::MINUS_ONE, {EFAULT}};
constexpr Spec kDlopen = {"dlopen", Tells::NULL_POINTER, {ENOENT}};
constexpr Spec kDlsym = {"dlsym", Tells::NULL_POINTER, {ENOENT}};
constexpr Spec kDlclose = {"dlclose", Tells::MINUS_ONE, {EINVAL}};
constexpr Spec kSetlocale = {"setlocale", Tells::NULL_POINTER, {ENOENT}};
constexpr Spec kMbstowcs = {"mbstowcs", Tells::MINUS_ONE, {EILSEQ}};
constexpr Spec kWcrtomb = {"wcrtomb", Tells::MINUS_ONE, {EILSEQ}};
int Gettimeofday(timeval* pNow, void* pZone) {
    return Fails(kClock) ? -1 : gettimeofday(pNow, static_cast<struct timezone*>(pZone));
}

int ThreadCreate(pthread_t* pThread, const pthread_attr_t* pAttribute, void* (*pBody)(void*), void* pArgument) {
    const int nError = ErrorFor(kThreadCreate);
    return nError != 0 ? nError : pthread_create(pThread, pAttribute, pBody, pArgument);
}

/// A failed check. Where a run is made in a process of its own, it ends here, with the reason left behind.
[[noreturn]] void AssertFail(const char* pszCondition, const char*, unsigned int, const char* pszSignature) {
    Outcome& outcome = SharedOutcome();
    outcome.fgRefused = true;
    CopyText(outcome.szRefusal, sizeof(outcome.szRefusal), std::string(pszSignature) + ": " + pszCondition);
    if (!outcome.fgMayBeRefused) {
        std::fprintf(stderr, "A check failed where none may: %s\n", outcome.szRefusal);
        std::abort();
    }
    // At once: a sanitizer would look for threads that were not waited for.
    syscall(SYS_exit_group, 0);
    std::abort();
}

// ------------------------------------------------------------------------------------------------- The import table

struct Hook {
    const char* pszName;
    void* pFunction;
};

template <typename Function>
void* Address(Function* pFunction) {
    return reinterpret_cast<void*>(pFunction);
}

template <const Spec& spec, typename Result, typename... Arguments>
Hook Simple(Result (*pReal)(Arguments...)) {
    InFront<spec, Result, Arguments...>::s_pReal = pReal;
    return {spec.pszName, Address(&InFront<spec, Result, Arguments...>::Call)};
}

const Hook g_Hooks[] = {
    {"malloc", Address(&Malloc)},
    {"calloc", Address(&Calloc)},
    {"realloc", Address(&Realloc)},
    {"free", Address(&Free)},
    {"_ZnwmRKSt9nothrow_t", Address(&New)},
    {"_ZnwjRKSt9nothrow_t", Address(&New)},
    {"_ZnamRKSt9nothrow_t", Address(&NewArray)},
    {"_ZnajRKSt9nothrow_t", Address(&NewArray)},
    {"_ZdlPv", Address(&Delete)},
    {"_ZdlPvm", Address(&DeleteSized)},
    {"_ZdlPvj", Address(&DeleteSized)},
    {"_ZdlPvRKSt9nothrow_t", Address(&DeleteNothrow)},
    {"_ZdaPv", Address(&DeleteArray)},
    {"_ZdaPvm", Address(&DeleteArraySized)},
    {"_ZdaPvj", Address(&DeleteArraySized)},
    {"_ZdaPvRKSt9nothrow_t", Address(&DeleteArrayNothrow)},
    {"mmap", Address(&Mmap)},
    {"munmap", Address(&Munmap)},
    Simple<kFopen>(&std::fopen),
    Simple<kFseek>(&std::fseek),
    Simple<kFtell>(&std::ftell),
    {"fread", Address(&Fread)},
    {"fwrite", Address(&Fwrite)},
    {"fclose", Address(&Fclose)},
    {"fprintf", Address(&Fprintf)},
    {"__fprintf_chk", Address(&CheckedFprintf)},
    {"perror", Address(&Perror)},
    {"vsnprintf", Address(&Vsnprintf)},
    {"__vsnprintf_chk", Address(&CheckedVsnprintf)},
    Simple<kRemove>(&::remove),
    Simple<kRename>(&::rename),
    Simple<kUnlink>(&unlink),
    Simple<kMkdir>(&mkdir),
    Simple<kRmdir>(&rmdir),
    Simple<kStat>(&stat),
    Simple<kFstatat>(&fstatat),
    Simple<kUnlinkat>(&unlinkat),
    Simple<kFstat>(&fstat),
    {"openat", Address(&Openat)},
    {"opendir", Address(&Opendir)},
    {"fdopendir", Address(&Fdopendir)},
    Simple<kReaddir>(&readdir),
    {"closedir", Address(&Closedir)},
    Simple<kDirfd>(&dirfd),
    {"mktemp", Address(&Mktemp)},
    Simple<kFtruncate>(&ftruncate),
    Simple<kShmOpen>(&shm_open),
    Simple<kShmUnlink>(&shm_unlink),
    {"close", Address(&Close)},
    Simple<kSocket>(&socket),
    {"bind", Address(&Bind)},
    Simple<kListen>(&listen),
    {"accept", Address(&Accept)},
    {"connect", Address(&Connect)},
    Simple<kSetsockopt>(&setsockopt),
    {"fcntl", Address(&Fcntl)},
    {"ioctl", Address(&Ioctl)},
    {"poll", Address(&Poll)},
    Simple<kSelect>(&select),
    {"recv", Address(&Recv)},
    {"recvfrom", Address(&Recvfrom)},
    {"send", Address(&Send)},
    {"sendto", Address(&Sendto)},
    {"read", Address(&Read)},
    {"write", Address(&Write)},
    {"gethostbyname_r", Address(&Gethostbyname)},
    Simple<kGethostname>(&gethostname),
    Simple<kAttributeInit>(&pthread_mutexattr_init),
    Simple<kAttributeType>(&pthread_mutexattr_settype),
    Simple<kMutexInit>(&pthread_mutex_init),
    Simple<kMutexDestroy>(&pthread_mutex_destroy),
    Simple<kTryLock>(&pthread_mutex_trylock),
    Simple<kTimedLock>(&pthread_mutex_timedlock),
    Simple<kThreadAttribute>(&pthread_attr_init),
    Simple<kDetach>(&pthread_attr_setdetachstate),
    Simple<kStackSize>(&pthread_attr_setstacksize),
    Simple<kGetParameter>(&pthread_attr_getschedparam),
    Simple<kSetParameter>(&pthread_attr_setschedparam),
    {"pthread_create", Address(&ThreadCreate)},
    Simple<kThreadJoin>(&pthread_join),
    Simple<kThreadCancel>(&pthread_cancel),
    Simple<kThreadAttributeEnd>(&pthread_attr_destroy),
    Simple<kUsleep>(&usleep),
    {"gettimeofday", Address(&Gettimeofday)},
    Simple<kUname>(&uname),
    Simple<kDlopen>(&dlopen),
    Simple<kDlsym>(&dlsym),
    Simple<kDlclose>(&dlclose),
    Simple<kSetlocale>(&std::setlocale),
    Simple<kMbstowcs>(&std::mbstowcs),
    Simple<kWcrtomb>(&std::wcrtomb),
    {"__assert_fail", Address(&AssertFail)},
};

/// What cannot fail, or not by itself: it depends on its arguments alone.
const std::set<std::string> g_CannotFail = {
    // A mutex of the normal kind reports nothing; its attribute has nothing to release.
    "pthread_mutex_lock", "pthread_mutex_unlock", "pthread_mutexattr_destroy",
    // Renders numbers and texts alone, which takes no memory.
    "snprintf",
    // Refuses only numbers that are no signal's.
    "signal",
    // Looks at its arguments.
    "vsscanf", "strcasecmp", "strcasestr", "strchr", "strcmp", "strlen", "malloc_usable_size", "strncasecmp", "strncmp",
    "strstr", "strcspn", "strspn", "strrchr", "tolower", "toupper", "wcslen", "bcmp", "memchr", "memcmp", "memcpy",
    "memmove", "memrchr", "memset",
    // Looks at the process.
    "getenv", "getgid", "getuid", "stderr"};

/// Whether a symbol belongs to the compiler, the language or a sanitizer.
bool IsMachinery(const std::string& name) {
    for (const char* const pszPrefix : {"_Z", "__cxa", "__aeabi", "_ITM", "__asan", "__ubsan", "__tsan", "__gcov",
                                        "__sanitizer", "__gmon", "_Unwind", "__gxx", "__errno", "__ctype", "__llvm"}) {
        if (name.rfind(pszPrefix, 0) == 0) {
            return true;
        }
    }
    // Helpers of the compiler and the checks of hardened builds.
    return name == "__ctzdi2" || name == "__stack_chk_fail" || name == "__stack_chk_guard" ||
           (name.size() > 6 && name.rfind("__", 0) == 0 && name.find("_chk") == name.size() - 4);
}

/// A function's name without what tells a variant of it: the wider forms of 32-bit machines, a newer standard's.
std::string PlainName(std::string name) {
    const std::string strStandard = "__isoc99_";
    if (name.rfind(strStandard, 0) == 0) {
        name.erase(0, strStandard.size());
    }
    if (name.size() > 2 && name.compare(name.size() - 2, 2, "64") == 0) {
        name.erase(name.size() - 2);
    }
    return name;
}

void* HookFor(const std::string& name) {
    for (const Hook& hook : g_Hooks) {
        if (name == hook.pszName) {
            return hook.pFunction;
        }
    }
    return nullptr;
}

std::set<std::string> g_Unknown;

// The loader's tables hold addresses as numbers.
// NOLINTBEGIN(performance-no-int-to-ptr)

/// The parts of a loaded object that its imports are told by.
struct Imports {
    std::uintptr_t nBase = 0;
    const ElfW(Sym) * pSymbols = nullptr;
    const char* pStrings = nullptr;

    template <typename Pointer>
    Pointer At(ElfW(Addr) nAddress) const {
        // Mostly the loader has added the base already.
        return reinterpret_cast<Pointer>(nAddress < nBase ? nBase + nAddress : nAddress);
    }

    void Redirect(std::size_t nSymbol, unsigned nType, ElfW(Addr) nOffset) const {
        constexpr unsigned kFilledIn[] = {R_X86_64_GLOB_DAT, R_X86_64_JUMP_SLOT, R_ARM_GLOB_DAT,
                                          R_ARM_JUMP_SLOT,   R_AARCH64_GLOB_DAT, R_AARCH64_JUMP_SLOT};
        const bool fgFilledIn = std::find(std::begin(kFilledIn), std::end(kFilledIn), nType) != std::end(kFilledIn);
        const ElfW(Sym)& symbol = pSymbols[nSymbol];
        if (nSymbol == 0 || !fgFilledIn || symbol.st_shndx != SHN_UNDEF) {
            return;
        }
        const std::string name = PlainName(pStrings + symbol.st_name);
        void* const pHook = HookFor(name);
        if (pHook != nullptr) {
            Replace(reinterpret_cast<void**>(nBase + nOffset), pHook);
        } else if (!IsMachinery(name) && g_CannotFail.count(name) == 0) {
            g_Unknown.insert(name);
        }
    }

    static void Replace(void** ppSlot, void* pHook) {
        const std::uintptr_t nPage = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
        void* const pPage = reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(ppSlot) / nPage * nPage);
        mprotect(pPage, nPage, PROT_READ | PROT_WRITE);
        *ppSlot = pHook;
    }

    template <typename Relocation>
    void RedirectAll(ElfW(Addr) nTable, std::size_t nSize) const {
        const Relocation* const pFirst = At<const Relocation*>(nTable);
        for (const Relocation* p = pFirst; p < pFirst + nSize / sizeof(Relocation); ++p) {
#if __ELF_NATIVE_CLASS == 64
            Redirect(ELF64_R_SYM(p->r_info), static_cast<unsigned>(ELF64_R_TYPE(p->r_info)), p->r_offset);
#else
            Redirect(ELF32_R_SYM(p->r_info), ELF32_R_TYPE(p->r_info), p->r_offset);
#endif
        }
    }
};

int RedirectLibrary(dl_phdr_info* pObject, std::size_t, void*) {
    if (std::strstr(pObject->dlpi_name, "libkalvoren-sharedd") == nullptr) {
        return 0;
    }
    std::map<ElfW(Sxword), ElfW(Addr)> entries;
    for (int i = 0; i < pObject->dlpi_phnum; ++i) {
        if (pObject->dlpi_phdr[i].p_type == PT_DYNAMIC) {
            const auto* p = reinterpret_cast<const ElfW(Dyn)*>(pObject->dlpi_addr + pObject->dlpi_phdr[i].p_vaddr);
            for (; p->d_tag != DT_NULL; ++p) {
                entries[p->d_tag] = p->d_un.d_ptr;
            }
        }
    }
    Imports imports;
    imports.nBase = pObject->dlpi_addr;
    imports.pSymbols = imports.At<const ElfW(Sym)*>(entries[DT_SYMTAB]);
    imports.pStrings = imports.At<const char*>(entries[DT_STRTAB]);
    if (entries.count(DT_RELA) != 0) {
        imports.RedirectAll<ElfW(Rela)>(entries[DT_RELA], entries[DT_RELASZ]);
    }
    if (entries.count(DT_REL) != 0) {
        imports.RedirectAll<ElfW(Rel)>(entries[DT_REL], entries[DT_RELSZ]);
    }
    if (entries.count(DT_JMPREL) != 0) {
        if (entries[DT_PLTREL] == DT_RELA) {
            imports.RedirectAll<ElfW(Rela)>(entries[DT_JMPREL], entries[DT_PLTRELSZ]);
        } else {
            imports.RedirectAll<ElfW(Rel)>(entries[DT_JMPREL], entries[DT_PLTRELSZ]);
        }
    }
    return 1;
}

// NOLINTEND(performance-no-int-to-ptr)

bool IsMemory(const std::string& function) {
    return function == "malloc" || function == "calloc" || function == "realloc" || function == "new";
}

}  // namespace

void Install() {
    static const int s_nFound = dl_iterate_phdr(&RedirectLibrary, nullptr);
    if (s_nFound != 1) {
        std::abort();
    }
}

std::vector<std::string> UnknownImports() {
    return std::vector<std::string>(g_Unknown.begin(), g_Unknown.end());
}

void Begin(const Fault& fault, bool fgMayBeRefused) {
    g_Fault = fault;
    g_nCalls = 0;
    g_nAllowedBlocks = 0;
    g_nAllowedDescriptors = 0;
    SharedOutcome() = Outcome();
    SharedOutcome().fgMayBeRefused = fgMayBeRefused;
}

Outcome& TheOutcome() {
    return SharedOutcome();
}

Holdings TakeStock() {
    constexpr int kDescriptors = 256;
    const std::lock_guard<std::mutex> lock(g_Guard);
    Holdings holdings = {g_Blocks.size(), g_Mappings.size(), 0};
    for (int i = 0; i < kDescriptors; ++i) {
        holdings.nDescriptors += fcntl(i, F_GETFD) >= 0 ? 1 : 0;
    }
    return holdings;
}

void LeavesBlocks(std::size_t nBlocks) {
    g_nAllowedBlocks += nBlocks;
}

std::size_t AllowedBlocks() {
    return g_nAllowedBlocks;
}

void CloseDirectories() {
    const std::lock_guard<std::mutex> lock(g_Guard);
    for (DIR* const pDirectory : g_Directories) {
        closedir(pDirectory);
    }
    g_Directories.clear();
}

void Forget(const void* pBlock) {
    LetGo(pBlock);
}

void LeavesDescriptors(std::size_t nDescriptors) {
    g_nAllowedDescriptors += nDescriptors;
}

std::size_t AllowedDescriptors() {
    return g_nAllowedDescriptors;
}

bool HasFailed() {
    return SharedOutcome().fgFailed;
}

bool HasLackedMemory() {
    return HasFailed() && IsMemory(SharedOutcome().szFunction);
}

bool Step::Failed(std::initializer_list<const char*> functions) const {
    for (const char* const pszFunction : functions) {
        if (Failed(pszFunction)) {
            return true;
        }
    }
    return false;
}

bool Step::LackedMemory() const {
    return m_fgFailed && IsMemory(m_Function);
}

std::vector<std::string> MutexRefusalsAnd(std::vector<std::string> others) {
    for (const char* const pszRefusal :
         {"new in KMutex::KMutex(): pInfo", "pthread_mutexattr_init in KMutex::KMutex(): nRet == 0",
          "pthread_mutexattr_settype in KMutex::KMutex(): nRet == 0",
          "pthread_mutex_init in KMutex::KMutex(): nRet == 0",
          "pthread_mutex_destroy in virtual KMutex::~KMutex(): nRet == 0"}) {
        others.emplace_back(pszRefusal);
    }
    return others;
}

void PrintTo(const Scenario& scenario, std::ostream* pOut) {
    *pOut << scenario.pszName;
}

void Step::Arm() {
    {
        const std::lock_guard<std::mutex> lock(g_Guard);
        g_Log.clear();
    }
    t_fgArmed = true;
}

void Step::Disarm() {
    t_fgArmed = false;
    m_fgFailed = HasFailed() && !m_fgBefore;
    m_Function = m_fgFailed ? SharedOutcome().szFunction : "";
    const std::lock_guard<std::mutex> lock(g_Guard);
    m_Log = g_Log;
}

}  // namespace torture
