#include "torture/Faults.h"

#include <gtest/gtest.h>

#include <cxxabi.h>
#include <dirent.h>
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <malloc.h>
#include <netdb.h>
#include <netinet/in.h>
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
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <iterator>
#include <map>
#include <mutex>
#include <new>
#include <ostream>
#include <set>

#include "KDebug.h"
#include "support/LittleMemory.h"
#include "support/LogLines.h"

namespace torture {

namespace {

// ------------------------------------------------------------------------------------------------------- The engine

/// How a function tells that it failed.
enum class Tells : int { MINUS_ONE, NULL_POINTER, ZERO, ERROR_NUMBER, MAP_FAILURE };

/// A function that can fail, with the error numbers that it has in store.
struct Spec {
    const char* pszName;
    Tells eTells;
    std::array<int, 20> errors;

    int Ways() const {
        int nWays = 0;
        for (const int nError : errors) {
            nWays += nError != 0 ? 1 : 0;
        }
        return nWays;
    }
};

thread_local bool t_fgArmed = false;

thread_local void (*t_pWhileSleeping)() = nullptr;

Fault g_Fault = {0, 0};
int g_nCalls = 0;
Holdings g_Left = {};
int g_nLastSocket = -1;
const void* g_pLastDirectory = nullptr;

/// What the library wrote to the log with one call, or would have.
struct Piece {
    std::string text;
    std::string written;
};

// None of these is ever destroyed: the library's own objects go later than the test's.

/// How often each function was called in this step, and that before the call that failed. The armed thread's alone.
std::map<std::string, int>& g_Calls = *new std::map<std::string, int>();
std::map<std::string, int>& g_CallsBefore = *new std::map<std::string, int>();

std::mutex& g_Guard = *new std::mutex();  // of what follows
std::vector<Piece>& g_Log = *new std::vector<Piece>();
int g_nUnrendered = -1;
std::map<const void*, std::size_t>& g_Blocks = *new std::map<const void*, std::size_t>();
std::set<const void*>& g_Mappings = *new std::set<const void*>();
std::set<DIR*>& g_Directories = *new std::set<DIR*>();
std::set<pthread_t>& g_Threads = *new std::set<pthread_t>();
std::multiset<void*>& g_Libraries = *new std::multiset<void*>();
std::set<std::string>& g_SharedNames = *new std::set<std::string>();
std::set<std::string>& g_Scratch = *new std::set<std::string>();

/// What child processes share with the one that made them.
struct Shared {
    static constexpr std::size_t kMostSpecs = 128;

    static constexpr std::size_t kMostSites = 4096;

    Outcome outcome;
    std::array<const Spec*, kMostSpecs> reached;  ///< By steps of runs in which nothing was to fail.
    std::array<std::uintptr_t, kMostSites>
        returned;  ///< Where calls by steps returned to. Hashed by their last digits.

    bool WasReached(const Spec& spec) const {
        return std::find(reached.begin(), reached.end(), &spec) != reached.end();
    }
    void Reach(const Spec& spec) {
        if (!WasReached(spec)) {
            const auto pFree = std::find(reached.begin(), reached.end(), nullptr);
            if (pFree == reached.end()) {
                std::abort();
            }
            *pFree = &spec;
        }
    }

    /// Whether a call returned to a place; notes it if so wanted.
    bool Returned(std::uintptr_t nAddress, bool fgNote) {
        for (std::size_t i = nAddress % kMostSites, nTry = 0; nTry < kMostSites; i = (i + 1) % kMostSites, ++nTry) {
            if (returned[i] == nAddress) {
                return true;
            }
            if (returned[i] == 0) {
                returned[i] = fgNote ? nAddress : 0;
                return fgNote;
            }
        }
        std::abort();
    }
};

Shared& InCommon() {
    static Shared* const pShared =
        static_cast<Shared*>(mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    return *pShared;
}

Outcome& SharedOutcome() {
    return InCommon().outcome;
}

void CopyText(char* pTarget, std::size_t nSize, const std::string& text) {
    std::snprintf(pTarget, nSize, "%s", text.c_str());
}

/// Counts a call of the library. The error number that it has to fail with, or 0. @p pReturn is where the function that
/// stands in front returns to, here and below: a default argument is worked out by whoever calls.
int ErrorFor(const Spec& spec, const void* pReturn = __builtin_return_address(0)) {
    if (t_fgArmed && g_Fault.nCall == 0) {
        InCommon().Reach(spec);
    }
    if (!t_fgArmed) {
        return 0;
    }
    InCommon().Returned(reinterpret_cast<std::uintptr_t>(pReturn), true);
    if (++g_nCalls != g_Fault.nCall) {
        ++g_Calls[spec.pszName];
        return 0;
    }
    g_CallsBefore = g_Calls;
    ++g_Calls[spec.pszName];
    Outcome& outcome = SharedOutcome();
    outcome.nWays = spec.Ways();
    if (g_Fault.nWay >= outcome.nWays) {
        // Another call than that of the run before, which had this way.
        return 0;
    }
    outcome.fgFailed = true;
    outcome.nError = spec.errors[static_cast<std::size_t>(g_Fault.nWay)];
    CopyText(outcome.szFunction, sizeof(outcome.szFunction), spec.pszName);
    return outcome.nError;
}

/// The same for functions that leave their error number in errno.
int ErrorLeftFor(const Spec& spec, const void* pReturn = __builtin_return_address(0)) {
    const int nError = ErrorFor(spec, pReturn);
    if (nError > 0) {
        errno = nError;
    }
    return nError;
}

bool Fails(const Spec& spec, const void* pReturn = __builtin_return_address(0)) {
    return ErrorLeftFor(spec, pReturn) != 0;
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
constexpr Spec kNewArray = {"new[]", Tells::NULL_POINTER, {ENOMEM}};

void* Hold(void* pBlock, std::size_t nSize) {
    if (pBlock != nullptr) {
        const std::lock_guard<std::mutex> lock(g_Guard);
        g_Blocks[pBlock] = nSize;
    }
    return pBlock;
}

/// Returns how large the block was held to be.
std::size_t LetGo(const void* pBlock) {
    const std::lock_guard<std::mutex> lock(g_Guard);
    const auto held = g_Blocks.find(pBlock);
    if (held == g_Blocks.end()) {
        return 0;
    }
    const std::size_t nSize = held->second;
    g_Blocks.erase(held);
    return nSize;
}

/// A block full of a value that nobody expects, so that nothing is zero by chance. valgrind knows itself what nobody wrote.
void* Unexpected(void* pBlock, std::size_t nSize) {
    static const bool s_fgLeave = support::IsUnderValgrind();
    return pBlock != nullptr && !s_fgLeave ? std::memset(pBlock, 0xA5, nSize) : pBlock;
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
    // Before: as soon as libc has moved the block, its place may be another thread's.
    const std::size_t nBefore = LetGo(pBlock);
    void* const pResult = std::realloc(pBlock, nSize);
    if (pResult == nullptr) {
        Hold(pBlock, nBefore);
        return nullptr;
    }
    return Hold(pResult, nSize);
}

/// What was asked for, and not what libc had: that varies with what other blocks left, and with it whether a text that grows
/// asks for memory.
std::size_t UsableSize(void* pBlock) {
    const std::lock_guard<std::mutex> lock(g_Guard);
    const auto held = g_Blocks.find(pBlock);
    return held != g_Blocks.end() ? held->second : malloc_usable_size(pBlock);
}

void Free(void* pBlock) {
    LetGo(pBlock);
    std::free(pBlock);
}

void* New(std::size_t nSize, const std::nothrow_t& tag) {
    return Fails(kNew) ? nullptr : Hold(Unexpected(::operator new(nSize, tag), nSize), nSize);
}

void* NewArray(std::size_t nSize, const std::nothrow_t& tag) {
    return Fails(kNewArray) ? nullptr : Hold(Unexpected(::operator new[](nSize, tag), nSize), nSize);
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

constexpr Spec kMmap = {"mmap", Tells::MAP_FAILURE, {ENOMEM, EACCES, EAGAIN, ENODEV, EPERM, ENFILE}};
constexpr Spec kMunmap = {"munmap", Tells::MINUS_ONE, {EINVAL, ENOMEM}};
constexpr Spec kMadvise = {"madvise", Tells::MINUS_ONE, {EINVAL, ENOMEM, EAGAIN, EPERM}};

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

constexpr Spec kFopen = {"fopen",
                         Tells::NULL_POINTER,
                         {ENOENT, EACCES, EMFILE, ENFILE, EINTR, ENOMEM, ENOSPC, EISDIR, ENOTDIR, EROFS, ENAMETOOLONG,
                          ELOOP, EPERM, ETXTBSY, ENXIO, EOVERFLOW, EDQUOT, ENODEV, EIO}};
constexpr Spec kFseek = {
    "fseek", Tells::MINUS_ONE, {ESPIPE, EINVAL, EIO, EBADF, EINTR, EAGAIN, ENOSPC, EFBIG, EPIPE, EOVERFLOW}};
constexpr Spec kFtell = {"ftell", Tells::MINUS_ONE, {ESPIPE, EBADF, EOVERFLOW}};
constexpr Spec kFread = {"fread", Tells::ZERO, {EIO, EINTR, EAGAIN, EISDIR, EBADF, EOVERFLOW, kShort, kNothing}};
constexpr Spec kFwrite = {"fwrite", Tells::ZERO, {EIO, EINTR, EAGAIN, ENOSPC, EDQUOT, EFBIG, EPIPE, EBADF, kShort}};
constexpr Spec kFclose = {"fclose", Tells::MINUS_ONE, {EIO, EINTR, ENOSPC, EDQUOT, EAGAIN, EFBIG, EPIPE, EBADF}};
constexpr Spec kFprintf = {
    "fprintf", Tells::MINUS_ONE, {EIO, EINTR, EAGAIN, EPIPE, ENOSPC, EDQUOT, EFBIG, EBADF, kShort}};
constexpr Spec kCheckedFprintf = kFprintf;
/// A line of the log, or a part of one.
constexpr Spec kWriteLine = {kWriteOfALine, Tells::ZERO, kFprintf.errors};
constexpr Spec kPerror = {"perror", Tells::ZERO, kFprintf.errors};
constexpr Spec kVsnprintf = {"vsnprintf", Tells::MINUS_ONE, {ENOMEM, EOVERFLOW, EILSEQ}};
constexpr Spec kCheckedVsnprintf = kVsnprintf;
/// A message of the log.
constexpr Spec kRenderLine = {kRenderingOfALine, Tells::MINUS_ONE, kVsnprintf.errors};
/// Of a long field it keeps a copy.
constexpr Spec kVsscanf = {"vsscanf", Tells::MINUS_ONE, {ENOMEM}};
constexpr Spec kRemove = {"remove",
                          Tells::MINUS_ONE,
                          {EACCES, EPERM, EBUSY, ENOENT, ENOTEMPTY, ENOTDIR, EROFS, EIO, ELOOP, ENAMETOOLONG, ENOMEM}};
constexpr Spec kRename = {"rename",
                          Tells::MINUS_ONE,
                          {EACCES, EPERM, EBUSY, EXDEV, ENOENT, ENOSPC, EDQUOT, ENOTEMPTY, EEXIST, EISDIR, ENOTDIR,
                           EROFS, EINVAL, ELOOP, EMLINK, ENAMETOOLONG, ENOMEM, EIO}};
constexpr Spec kUnlink = {"unlink",
                          Tells::MINUS_ONE,
                          {ENOENT, EACCES, EPERM, EBUSY, EISDIR, ENOTDIR, EROFS, EIO, ELOOP, ENAMETOOLONG, ENOMEM}};
constexpr Spec kMkdir = {
    "mkdir",
    Tells::MINUS_ONE,
    {EEXIST, EACCES, EPERM, ENOSPC, ENOENT, ENOTDIR, EROFS, EDQUOT, ELOOP, EMLINK, ENAMETOOLONG, ENOMEM, EINVAL, EIO}};
constexpr Spec kRmdir = {
    "rmdir",
    Tells::MINUS_ONE,
    {EACCES, EPERM, EBUSY, ENOTEMPTY, EEXIST, ENOENT, ENOTDIR, EROFS, EINVAL, ELOOP, ENAMETOOLONG, ENOMEM, EIO}};
constexpr Spec kStat = {
    "stat", Tells::MINUS_ONE, {EACCES, ENOENT, ENOTDIR, ELOOP, ENAMETOOLONG, ENOMEM, EOVERFLOW, EIO}};
constexpr Spec kFstatat = {
    "fstatat", Tells::MINUS_ONE, {EACCES, ENOENT, ENOTDIR, EBADF, ELOOP, ENAMETOOLONG, ENOMEM, EOVERFLOW, EIO}};
constexpr Spec kUnlinkat = {
    "unlinkat",
    Tells::MINUS_ONE,
    {EISDIR, ENOTEMPTY, EACCES, EPERM, EBUSY, ENOENT, ENOTDIR, EROFS, EBADF, EIO, ELOOP, ENAMETOOLONG, ENOMEM}};
constexpr Spec kFstat = {"fstat", Tells::MINUS_ONE, {EBADF, EOVERFLOW, ENOMEM, EIO}};
constexpr Spec kOpenat = {
    "openat",
    Tells::MINUS_ONE,
    {ENOTDIR, ELOOP, EACCES, EPERM, EINTR, EMFILE, ENFILE, ENOENT, ENOMEM, ENAMETOOLONG, EBADF, ENODEV, EIO}};
constexpr Spec kOpendir = {
    "opendir", Tells::NULL_POINTER, {EACCES, EMFILE, ENFILE, ENOENT, ENOMEM, ENOTDIR, ELOOP, ENAMETOOLONG, EINTR, EIO}};
constexpr Spec kFdopendir = {"fdopendir", Tells::NULL_POINTER, {ENOMEM, EBADF, ENOTDIR}};
constexpr Spec kReaddir = {"readdir", Tells::NULL_POINTER, {EBADF, EIO, ENOENT, EOVERFLOW}};
constexpr Spec kClosedir = {"closedir", Tells::MINUS_ONE, {EBADF, EINTR}};
constexpr Spec kDirfd = {"dirfd", Tells::MINUS_ONE, {EINVAL, ENOTSUP}};

DIR* Opened(DIR* pDirectory) {
    if (pDirectory != nullptr) {
        const std::lock_guard<std::mutex> lock(g_Guard);
        g_Directories.insert(pDirectory);
        g_pLastDirectory = pDirectory;
    }
    return pDirectory;
}

constexpr Spec kMktemp = {"mktemp", Tells::NULL_POINTER, {EEXIST, EACCES, EINVAL}};
constexpr Spec kFtruncate = {"ftruncate", Tells::MINUS_ONE, {EINTR, EIO, EINVAL, EFBIG, EPERM, ENOSPC}};
constexpr Spec kShmOpen = {
    "shm_open",
    Tells::MINUS_ONE,
    {EEXIST, ENOENT, EACCES, EMFILE, ENFILE, ENAMETOOLONG, ENOMEM, EINVAL, ENOSPC, EINTR, ENOSYS}};
constexpr Spec kShmUnlink = {"shm_unlink", Tells::MINUS_ONE, {EACCES, ENOENT, ENAMETOOLONG, EPERM, ENOSYS}};
constexpr Spec kClose = {"close", Tells::MINUS_ONE, {EINTR, EIO, ENOSPC, EDQUOT}};

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
    if (nError == kNothing) {
        return 0;
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

/// What is written of a piece of the log: all of it, nothing, or half.
std::size_t Written(std::size_t nSize, int nError) {
    return nError == 0 ? nSize : nError == kShort ? nSize / 2 : 0;
}

int KeepText(const std::string& text, int nError) {
    const std::lock_guard<std::mutex> lock(g_Guard);
    g_Log.push_back({text, text.substr(0, Written(text.size(), nError))});
    return nError != 0 ? -1 : static_cast<int>(text.size());
}

/// What the library logs is kept, not printed, by whichever call it is written.
std::size_t Fwrite(const void* pBuffer, std::size_t nSize, std::size_t nCount, std::FILE* pStream) {
    if (pStream == stderr) {
        const int nError = ErrorLeftFor(kWriteLine);
        KeepText(std::string(static_cast<const char*>(pBuffer), nSize * nCount), nError);
        return Written(nSize * nCount, nError) / nSize;
    }
    const int nError = ErrorFor(kFwrite);
    if (nError == kShort) {
        return std::fwrite(pBuffer, 1, nSize * nCount / 2, pStream) / nSize;
    }
    errno = nError != 0 ? nError : errno;
    return nError != 0 ? 0 : std::fwrite(pBuffer, nSize, nCount, pStream);
}

__attribute__((format(printf, 2, 0))) int KeepText(int nError, const char* pszFormat, va_list arguments) {
    char szText[4096];
    std::vsnprintf(szText, sizeof(szText), pszFormat, arguments);
    return KeepText(std::string(szText), nError);
}

__attribute__((format(printf, 2, 3))) int Fprintf(std::FILE*, const char* pszFormat, ...) {
    const int nError = ErrorLeftFor(kFprintf);
    va_list arguments;
    va_start(arguments, pszFormat);
    const int nLength = KeepText(nError, pszFormat, arguments);
    va_end(arguments);
    return nLength;
}

/// The form that hardened builds call.
__attribute__((format(printf, 3, 4))) int CheckedFprintf(std::FILE*, int, const char* pszFormat, ...) {
    const int nError = ErrorLeftFor(kCheckedFprintf);
    va_list arguments;
    va_start(arguments, pszFormat);
    const int nLength = KeepText(nError, pszFormat, arguments);
    va_end(arguments);
    return nLength;
}

/// It tells nobody that it failed.
void Perror(const char* pszText) {
    const std::string strError = std::strerror(errno);
    KeepText(pszText + (": " + strError + "\n"), ErrorLeftFor(kPerror));
}

/// Whether a text cannot be rendered. What is rendered into the log's buffer is a message of the log.
bool IsUnrendered(const Spec& spec, const char* pTarget, const void* pReturn = __builtin_return_address(0)) {
    if (pTarget != g_pDebugBuffer) {
        return Fails(spec, pReturn);
    }
    const bool fgFails = Fails(kRenderLine, pReturn);
    if (fgFails) {
        const std::lock_guard<std::mutex> lock(g_Guard);
        g_nUnrendered = static_cast<int>(g_Log.size());
    }
    return fgFails;
}

__attribute__((format(printf, 3, 0))) int Vsnprintf(char* pTarget, std::size_t nSize, const char* pszFormat,
                                                    va_list arguments) {
    return IsUnrendered(kVsnprintf, pTarget) ? -1 : std::vsnprintf(pTarget, nSize, pszFormat, arguments);
}

__attribute__((format(printf, 5, 0))) int CheckedVsnprintf(char* pTarget, std::size_t nSize, int, std::size_t,
                                                           const char* pszFormat, va_list arguments) {
    return IsUnrendered(kCheckedVsnprintf, pTarget) ? -1 : std::vsnprintf(pTarget, nSize, pszFormat, arguments);
}

__attribute__((format(scanf, 2, 0))) int Vsscanf(const char* pszText, const char* pszFormat, va_list arguments) {
    return Fails(kVsscanf) ? EOF : std::vsscanf(pszText, pszFormat, arguments);
}

// ------------------------------------------------------------------------------------------------------ Connections

constexpr Spec kSocket = {
    "socket", Tells::MINUS_ONE, {EMFILE, ENFILE, EACCES, ENOBUFS, ENOMEM, EINVAL, EAFNOSUPPORT, EPROTONOSUPPORT}};
constexpr Spec kBind = {
    "bind",
    Tells::MINUS_ONE,
    {EADDRINUSE, EACCES, EADDRNOTAVAIL, EINVAL, ENOENT, ENOMEM, EROFS, ENOTDIR, ELOOP, ENAMETOOLONG, ENOSPC, ENOBUFS}};
constexpr Spec kListen = {"listen", Tells::MINUS_ONE, {EADDRINUSE, EOPNOTSUPP, ENOTSOCK, EINVAL, ENOBUFS}};
/// Errors of the network that a connection had before it was accepted are passed on.
constexpr Spec kAccept = {"accept",
                          Tells::MINUS_ONE,
                          {EAGAIN, EMFILE, ENFILE, EINTR, ECONNABORTED, ENOBUFS, ENOMEM, EPROTO, EPERM, EINVAL,
                           ENETDOWN, ENOPROTOOPT, EHOSTDOWN, ENONET, EHOSTUNREACH, EOPNOTSUPP, ENETUNREACH, ETIMEDOUT}};
constexpr Spec kConnect = {"connect",
                           Tells::MINUS_ONE,
                           {EINPROGRESS,   ECONNREFUSED, EINTR,        ETIMEDOUT, ENETUNREACH,  EAGAIN, EALREADY,
                            EADDRNOTAVAIL, EISCONN,      EHOSTUNREACH, EACCES,    EPERM,        ENOENT, ECONNRESET,
                            EADDRINUSE,    EPROTOTYPE,   ENETDOWN,     ENOTDIR,   EAFNOSUPPORT, ENOBUFS}};
constexpr Spec kSetsockopt = {
    "setsockopt", Tells::MINUS_ONE, {ENOPROTOOPT, ENOBUFS, ENODEV, ENOMEM, EADDRINUSE, EADDRNOTAVAIL}};
constexpr Spec kFcntl = {"fcntl", Tells::MINUS_ONE, {EBADF, EPERM, EINTR}};
constexpr Spec kIoctl = {"ioctl", Tells::MINUS_ONE, {EBADF, ENOTTY, EINVAL}};
constexpr Spec kPoll = {"poll", Tells::MINUS_ONE, {EINTR, ENOMEM, EINVAL, kNothing, kSocketError, kHangUp, kNotOpen}};
constexpr Spec kSelect = {"select", Tells::MINUS_ONE, {EINTR, ENOMEM, EBADF, EINVAL, kNothing}};
constexpr Spec kRecv = {"recv",
                        Tells::MINUS_ONE,
                        {EINTR, EAGAIN, ECONNRESET, ECONNREFUSED, ETIMEDOUT, EHOSTUNREACH, ENETUNREACH, ENOTCONN,
                         ENOMEM, ENOBUFS, EINVAL, EBADF, kShort, kNothing}};
constexpr Spec kRecvfrom = {"recvfrom", Tells::MINUS_ONE, kRecv.errors};
constexpr Spec kSend = {"send",
                        Tells::MINUS_ONE,
                        {EINTR, EAGAIN, ECONNRESET, ECONNREFUSED, ETIMEDOUT, EHOSTUNREACH, ENETUNREACH, ENETDOWN, EPIPE,
                         ENOTCONN, EMSGSIZE, ENOMEM, ENOBUFS, EACCES, EPERM, EBADF, kShort}};
constexpr Spec kSendto = {"sendto",
                          Tells::MINUS_ONE,
                          {EINTR, EAGAIN, EACCES, EPERM, EHOSTUNREACH, ENETUNREACH, ENETDOWN, EMSGSIZE, ENOBUFS, EPIPE,
                           ECONNREFUSED, ECONNRESET, ETIMEDOUT, ENOTCONN, ENOMEM, EINVAL, EBADF}};
constexpr Spec kRead = {"read", Tells::MINUS_ONE, {EINTR, EAGAIN, EIO, ECONNRESET, ENOTCONN, EBADF, kShort, kNothing}};
constexpr Spec kWrite = {"write",
                         Tells::MINUS_ONE,
                         {EINTR, EAGAIN, EPIPE, ENOSPC, EIO, ECONNRESET, ENOTCONN, ENOBUFS, ENOMEM, EBADF, kShort}};
constexpr Spec kGethostname = {"gethostname", Tells::MINUS_ONE, {ENAMETOOLONG, EFAULT}};
constexpr Spec kLookUp = {"gethostbyname_r", Tells::ERROR_NUMBER, {EAGAIN, ENOENT, ENODATA, ENOMSG, EBADMSG, ERANGE}};
constexpr char kOwnName[] = "torture";

/// A transfer that may be short, or of nothing.
template <typename Transfer>
ssize_t Transferred(const Spec& spec, std::size_t nSize, Transfer transfer,
                    const void* pReturn = __builtin_return_address(0)) {
    const int nError = ErrorFor(spec, pReturn);
    if (nError > 0) {
        errno = nError;
        return -1;
    }
    return nError == kNothing ? 0 : transfer(nError == kShort ? nSize / 2 : nSize);
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
/// A datagram that fails to come, of which half comes, or that is empty.
ssize_t Recvfrom(int nSocket, void* pBuffer, std::size_t nSize, int nFlags, sockaddr* pSender, socklen_t* pnSender) {
    const int nError = ErrorFor(kRecvfrom);
    if (nError > 0) {
        errno = nError;
        return -1;
    }
    const ssize_t nReceived = recvfrom(nSocket, pBuffer, nSize, nFlags, pSender, pnSender);
    return nError == kNothing ? 0 : nError == kShort ? nReceived / 2 : nReceived;
}
/// What is meant for everybody, or for a group, stays on this machine, whatever networks it has.
ssize_t Sendto(int nSocket, const void* pBuffer, std::size_t nSize, int nFlags, const sockaddr* pTarget,
               socklen_t nTarget) {
    if (Fails(kSendto)) {
        return -1;
    }
    sockaddr_in target = {};
    std::memcpy(&target, pTarget, std::min<std::size_t>(nTarget, sizeof(target)));
    const in_addr_t nAddress = ntohl(target.sin_addr.s_addr);
    if (target.sin_family == AF_INET && (nAddress == INADDR_BROADCAST || IN_MULTICAST(nAddress))) {
        target.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return sendto(nSocket, pBuffer, nSize, nFlags, reinterpret_cast<const sockaddr*>(&target), sizeof(target));
    }
    return sendto(nSocket, pBuffer, nSize, nFlags, pTarget, nTarget);
}
int Socket(int nDomain, int nType, int nProtocol) {
    return Fails(kSocket) ? -1 : g_nLastSocket = socket(nDomain, nType, nProtocol);
}
int Bind(int nSocket, const sockaddr* pAddress, socklen_t nSize) {
    return Fails(kBind) ? -1 : bind(nSocket, pAddress, nSize);
}
int Connect(int nSocket, const sockaddr* pAddress, socklen_t nSize) {
    return Fails(kConnect) ? -1 : connect(nSocket, pAddress, nSize);
}
int Accept(int nSocket, sockaddr* pAddress, socklen_t* pnSize) {
    return Fails(kAccept) ? -1 : g_nLastSocket = accept(nSocket, pAddress, pnSize);
}
/// A group is joined where there is no network that has groups, too.
int Setsockopt(int nSocket, int nLevel, int nOption, const void* pValue, socklen_t nSize) {
    if (Fails(kSetsockopt)) {
        return -1;
    }
    const bool fgJoins = nLevel == IPPROTO_IP && nOption == IP_ADD_MEMBERSHIP;
    return fgJoins ? 0 : setsockopt(nSocket, nLevel, nOption, pValue, nSize);
}
int Fcntl(int nDescriptor, int nCommand, long nArgument) {
    return Fails(kFcntl) ? -1 : fcntl(nDescriptor, nCommand, nArgument);
}
int Ioctl(int nDescriptor, unsigned long nRequest, void* pArgument) {
    return Fails(kIoctl) ? -1 : ioctl(nDescriptor, nRequest, pArgument);
}
/// A wait that fails, that lasts as long as it may, or that ends for another reason than the one that is waited for.
int Poll(pollfd* pPolls, nfds_t nPolls, int nTimeOut) {
    const int nError = ErrorFor(kPoll);
    if (nError == kSocketError || nError == kHangUp || nError == kNotOpen) {
        pPolls[0].revents = static_cast<short>(nError == kHangUp ? POLLHUP : nError == kNotOpen ? POLLNVAL : POLLERR);
        return 1;
    }
    errno = nError > 0 ? nError : errno;
    return nError == 0 ? poll(pPolls, nPolls, nTimeOut) : nError == kNothing ? 0 : -1;
}
int Select(int nLimit, fd_set* pRead, fd_set* pWrite, fd_set* pExcept, timeval* pTimeOut) {
    const int nError = ErrorFor(kSelect);
    if (nError == kNothing) {
        for (fd_set* const pSet : {pRead, pWrite, pExcept}) {
            if (pSet != nullptr) {
                FD_ZERO(pSet);
            }
        }
        return 0;
    }
    errno = nError != 0 ? nError : errno;
    return nError == 0 ? select(nLimit, pRead, pWrite, pExcept, pTimeOut) : -1;
}

/// This machine has a name and two addresses that are the same everywhere, and no network is asked for them.
int Gethostname(char* pszName, std::size_t nSize) {
    if (Fails(kGethostname)) {
        return -1;
    }
    std::snprintf(pszName, nSize, "%s", kOwnName);
    return 0;
}

/// An entry with addresses, which may be none.
int Found(hostent& storage, hostent** ppEntry, const char* const* ppAddresses) {
    storage = hostent();
    storage.h_addrtype = AF_INET;
    storage.h_length = 4;
    storage.h_addr_list = const_cast<char**>(ppAddresses);
    *ppEntry = &storage;
    return 0;
}

/// What a look-up that fails returns, and what it says in the number of its own. Without an entry it returns 0.
struct LookUpFailure {
    int nWay;
    int nReturned;
    int nSaid;
};
constexpr LookUpFailure kLookUpFailures[] = {{EAGAIN, EAGAIN, TRY_AGAIN},
                                             {ENOENT, 0, HOST_NOT_FOUND},
                                             {ENOMSG, 0, NO_DATA},
                                             {EBADMSG, EBADMSG, NO_RECOVERY},
                                             {ERANGE, ERANGE, NETDB_INTERNAL}};

/// A look-up fails with an error, without an entry, with an entry that has no address, and for want of room as often as it
/// is tried.
int Gethostbyname(const char* pszHost, hostent* pStorage, char* pBuffer, std::size_t nSize, hostent** ppEntry,
                  int* pnError) {
    static constexpr const char* kNoAddress[] = {nullptr};
    static constexpr const char* kOwnAddresses[] = {"\xC0\x00\x02\x01", "\xC0\x00\x02\x02", nullptr};
    const int nError = ErrorFor(kLookUp);
    if (nError == ENODATA) {
        return Found(*pStorage, ppEntry, kNoAddress);
    }
    if (nError == 0 && std::strcmp(pszHost, kOwnName) == 0) {
        return Found(*pStorage, ppEntry, kOwnAddresses);
    }
    if (nError == 0 && *pszHost != '\0') {
        return gethostbyname_r(pszHost, pStorage, pBuffer, nSize, ppEntry, pnError);
    }
    *ppEntry = nullptr;
    for (const LookUpFailure& failure : kLookUpFailures) {
        if (failure.nWay == nError) {
            *pnError = failure.nSaid;
            return failure.nReturned;
        }
    }
    // The empty name.
    *pnError = HOST_NOT_FOUND;
    return 0;
}

// ------------------------------------------------------------------------------------ Threads, clock, loader, locale

constexpr Spec kAttributeInit = {"pthread_mutexattr_init", Tells::ERROR_NUMBER, {ENOMEM}};
constexpr Spec kAttributeType = {"pthread_mutexattr_settype", Tells::ERROR_NUMBER, {EINVAL}};
constexpr Spec kMutexInit = {"pthread_mutex_init", Tells::ERROR_NUMBER, {EAGAIN, ENOMEM, EPERM}};
constexpr Spec kMutexDestroy = {"pthread_mutex_destroy", Tells::ERROR_NUMBER, {EBUSY, EINVAL}};
constexpr Spec kTryLock = {"pthread_mutex_trylock", Tells::ERROR_NUMBER, {EBUSY, EAGAIN, EINVAL}};
constexpr Spec kTimedLock = {"pthread_mutex_timedlock", Tells::ERROR_NUMBER, {ETIMEDOUT, EINVAL, EAGAIN, EDEADLK}};
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
constexpr Spec kClock = {"gettimeofday", Tells::MINUS_ONE, {EFAULT}};
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
    const int nResult = nError != 0 ? nError : pthread_create(pThread, pAttribute, pBody, pArgument);
    if (nResult == 0) {
        const std::lock_guard<std::mutex> lock(g_Guard);
        g_Threads.insert(*pThread);
    }
    return nResult;
}

/// What is not waited for stays in the account.
int ThreadJoin(pthread_t thread, void** ppResult) {
    const int nError = ErrorFor(kThreadJoin);
    if (nError != 0) {
        return nError;
    }
    {
        // Before: the system may give its handle to another thread from then on.
        const std::lock_guard<std::mutex> lock(g_Guard);
        g_Threads.erase(thread);
    }
    return pthread_join(thread, ppResult);
}

void* Dlopen(const char* pszPath, int nFlags) {
    void* const pLibrary = Fails(kDlopen) ? nullptr : dlopen(pszPath, nFlags);
    if (pLibrary != nullptr) {
        const std::lock_guard<std::mutex> lock(g_Guard);
        g_Libraries.insert(pLibrary);
    }
    return pLibrary;
}

int Dlclose(void* pLibrary) {
    const int nResult = Fails(kDlclose) ? -1 : dlclose(pLibrary);
    if (nResult == 0) {
        const std::lock_guard<std::mutex> lock(g_Guard);
        const auto pEntry = g_Libraries.find(pLibrary);
        if (pEntry != g_Libraries.end()) {
            g_Libraries.erase(pEntry);
        }
    }
    return nResult;
}

int ShmOpen(const char* pszName, int nFlags, mode_t nMode) {
    const int nResult = Fails(kShmOpen) ? -1 : shm_open(pszName, nFlags, nMode);
    if (nResult >= 0) {
        const std::lock_guard<std::mutex> lock(g_Guard);
        g_SharedNames.insert(pszName);
    }
    return nResult;
}

int ShmUnlink(const char* pszName) {
    const int nResult = Fails(kShmUnlink) ? -1 : shm_unlink(pszName);
    if (nResult == 0) {
        const std::lock_guard<std::mutex> lock(g_Guard);
        g_SharedNames.erase(pszName);
    }
    return nResult;
}

/// A wait for a mutex fails where somebody else has it: the library then unlocks it under whoever that is.
int TimedLock(pthread_mutex_t* pMutex, const timespec* pDeadline) {
    const int nError = ErrorFor(kTimedLock);
    if (nError != 0) {
        static_cast<void>(pthread_mutex_trylock(pMutex));
    }
    return nError != 0 ? nError : pthread_mutex_timedlock(pMutex, pDeadline);
}

int Usleep(useconds_t nMicroseconds) {
    const bool fgFails = Fails(kUsleep);
    if (t_pWhileSleeping != nullptr) {
        t_pWhileSleeping();
    }
    return fgFails ? -1 : usleep(nMicroseconds);
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
    const std::lock_guard<std::mutex> lock(g_Guard);
    for (const std::string& strName : g_SharedNames) {
        shm_unlink(strName.c_str());
    }
    for (const std::string& strDirectory : g_Scratch) {
        std::error_code ignored;
        std::filesystem::remove_all(strDirectory, ignored);
    }
    // At once: a sanitizer would look for threads that were not waited for.
    syscall(SYS_exit_group, 0);
    std::abort();
}

// ------------------------------------------------------------------------------------------------- The import table

struct Hook {
    const char* pszName;
    void* pFunction;
    const Spec* pSpec;  ///< Null where nothing can fail, and the hook only keeps account.
};

template <typename Function>
void* Address(Function* pFunction) {
    return reinterpret_cast<void*>(pFunction);
}

template <const Spec& spec, typename Result, typename... Arguments>
Hook Simple(Result (*pReal)(Arguments...)) {
    InFront<spec, Result, Arguments...>::s_pReal = pReal;
    return {spec.pszName, Address(&InFront<spec, Result, Arguments...>::Call), &spec};
}

const Hook g_Hooks[] = {
    {"malloc", Address(&Malloc), &kMalloc},
    {"calloc", Address(&Calloc), &kCalloc},
    {"realloc", Address(&Realloc), &kRealloc},
    {"free", Address(&Free), nullptr},
    {"malloc_usable_size", Address(&UsableSize), nullptr},
    {"_ZnwmRKSt9nothrow_t", Address(&New), &kNew},
    {"_ZnwjRKSt9nothrow_t", Address(&New), &kNew},
    {"_ZnamRKSt9nothrow_t", Address(&NewArray), &kNewArray},
    {"_ZnajRKSt9nothrow_t", Address(&NewArray), &kNewArray},
    {"_ZdlPv", Address(&Delete), nullptr},
    {"_ZdlPvm", Address(&DeleteSized), nullptr},
    {"_ZdlPvj", Address(&DeleteSized), nullptr},
    {"_ZdlPvRKSt9nothrow_t", Address(&DeleteNothrow), nullptr},
    {"_ZdaPv", Address(&DeleteArray), nullptr},
    {"_ZdaPvm", Address(&DeleteArraySized), nullptr},
    {"_ZdaPvj", Address(&DeleteArraySized), nullptr},
    {"_ZdaPvRKSt9nothrow_t", Address(&DeleteArrayNothrow), nullptr},
    {"mmap", Address(&Mmap), &kMmap},
    {"munmap", Address(&Munmap), &kMunmap},
    Simple<kMadvise>(&madvise),
    Simple<kFopen>(&std::fopen),
    Simple<kFseek>(&std::fseek),
    Simple<kFtell>(&std::ftell),
    {"fread", Address(&Fread), &kFread},
    {"fwrite", Address(&Fwrite), &kFwrite},
    {"fclose", Address(&Fclose), &kFclose},
    {"fprintf", Address(&Fprintf), &kFprintf},
    {"__fprintf_chk", Address(&CheckedFprintf), &kCheckedFprintf},
    {"perror", Address(&Perror), &kPerror},
    {"vsnprintf", Address(&Vsnprintf), &kVsnprintf},
    {"__vsnprintf_chk", Address(&CheckedVsnprintf), &kCheckedVsnprintf},
    {"vsscanf", Address(&Vsscanf), &kVsscanf},
    Simple<kRemove>(&::remove),
    Simple<kRename>(&::rename),
    Simple<kUnlink>(&unlink),
    Simple<kMkdir>(&mkdir),
    Simple<kRmdir>(&rmdir),
    Simple<kStat>(&stat),
    Simple<kFstatat>(&fstatat),
    Simple<kUnlinkat>(&unlinkat),
    Simple<kFstat>(&fstat),
    {"openat", Address(&Openat), &kOpenat},
    {"opendir", Address(&Opendir), &kOpendir},
    {"fdopendir", Address(&Fdopendir), &kFdopendir},
    Simple<kReaddir>(&readdir),
    {"closedir", Address(&Closedir), &kClosedir},
    Simple<kDirfd>(&dirfd),
    {"mktemp", Address(&Mktemp), &kMktemp},
    Simple<kFtruncate>(&ftruncate),
    {"shm_open", Address(&ShmOpen), &kShmOpen},
    {"shm_unlink", Address(&ShmUnlink), &kShmUnlink},
    {"close", Address(&Close), &kClose},
    {"socket", Address(&Socket), &kSocket},
    {"bind", Address(&Bind), &kBind},
    Simple<kListen>(&listen),
    {"accept", Address(&Accept), &kAccept},
    {"connect", Address(&Connect), &kConnect},
    {"setsockopt", Address(&Setsockopt), &kSetsockopt},
    {"fcntl", Address(&Fcntl), &kFcntl},
    {"ioctl", Address(&Ioctl), &kIoctl},
    {"poll", Address(&Poll), &kPoll},
    {"select", Address(&Select), &kSelect},
    {"recv", Address(&Recv), &kRecv},
    {"recvfrom", Address(&Recvfrom), &kRecvfrom},
    {"send", Address(&Send), &kSend},
    {"sendto", Address(&Sendto), &kSendto},
    {"read", Address(&Read), &kRead},
    {"write", Address(&Write), &kWrite},
    {"gethostbyname_r", Address(&Gethostbyname), &kLookUp},
    {"gethostname", Address(&Gethostname), &kGethostname},
    Simple<kAttributeInit>(&pthread_mutexattr_init),
    Simple<kAttributeType>(&pthread_mutexattr_settype),
    Simple<kMutexInit>(&pthread_mutex_init),
    Simple<kMutexDestroy>(&pthread_mutex_destroy),
    Simple<kTryLock>(&pthread_mutex_trylock),
    {"pthread_mutex_timedlock", Address(&TimedLock), &kTimedLock},
    Simple<kThreadAttribute>(&pthread_attr_init),
    Simple<kDetach>(&pthread_attr_setdetachstate),
    Simple<kStackSize>(&pthread_attr_setstacksize),
    Simple<kGetParameter>(&pthread_attr_getschedparam),
    Simple<kSetParameter>(&pthread_attr_setschedparam),
    {"pthread_create", Address(&ThreadCreate), &kThreadCreate},
    {"pthread_join", Address(&ThreadJoin), &kThreadJoin},
    Simple<kThreadCancel>(&pthread_cancel),
    Simple<kThreadAttributeEnd>(&pthread_attr_destroy),
    {"usleep", Address(&Usleep), &kUsleep},
    {"gettimeofday", Address(&Gettimeofday), &kClock},
    Simple<kUname>(&uname),
    {"dlopen", Address(&Dlopen), &kDlopen},
    Simple<kDlsym>(&dlsym),
    {"dlclose", Address(&Dlclose), &kDlclose},
    Simple<kSetlocale>(&std::setlocale),
    Simple<kMbstowcs>(&std::mbstowcs),
    Simple<kWcrtomb>(&std::wcrtomb),
    {"__assert_fail", Address(&AssertFail), nullptr},
};

/// What cannot fail, or not by itself: it depends on its arguments alone.
const std::set<std::string> g_CannotFail = {
    // A mutex of the normal kind reports nothing; its attribute has nothing to release.
    "pthread_mutex_lock", "pthread_mutex_unlock", "pthread_mutexattr_destroy",
    // Renders numbers and texts alone, which takes no memory.
    "snprintf", "__snprintf_chk",
    // Refuses only numbers that are no signal's.
    "signal",
    // Looks at its arguments.
    "strcasecmp", "strcasestr", "strchr", "strcmp", "strlen", "strncasecmp", "strnlen", "strstr", "strcspn", "strspn",
    "strrchr", "tolower", "toupper", "wcslen", "bcmp", "memchr", "memcmp", "memcpy", "memmove", "memrchr", "memset",
    // Ends the process for a target that is too small, or a descriptor that no set has room for: the library looks first.
    "__memcpy_chk", "__fdelt_chk",
    // Looks at the process.
    "getenv", "getgid", "getuid", "stderr", "__errno_location", "__ctype_get_mb_cur_max"};

/// What the compiler and the language put in. By name, so that nothing slips through that could fail: an operator that
/// throws, for one, or another function that checks sizes.
const std::set<std::string> g_Machinery = {
    "_ITM_deregisterTMCloneTable", "_ITM_registerTMCloneTable", "_Unwind_Resume", "__cxa_atexit", "__cxa_begin_catch",
    "__cxa_end_cleanup", "__cxa_finalize", "__gmon_start__", "__gxx_personality_v0", "__stack_chk_fail",
    "__stack_chk_guard",
    // Types and constants.
    "_ZSt7nothrow", "_ZTVN10__cxxabiv117__class_type_infoE", "_ZTVN10__cxxabiv120__function_type_infoE",
    "_ZTVN10__cxxabiv120__si_class_type_infoE", "_ZTVN10__cxxabiv121__vmi_class_type_infoE",
    // The end of the process for an exception that nothing may throw, and for an array whose size no number holds: the
    // library asks for none.
    "_ZSt9terminatev", "__cxa_throw_bad_array_new_length",
    // Arithmetic and unwinding on ARM.
    "__aeabi_atexit", "__aeabi_idiv", "__aeabi_idivmod", "__aeabi_ldivmod", "__aeabi_uidiv", "__aeabi_uidivmod",
    "__aeabi_uldivmod", "__aeabi_unwind_cpp_pr0", "__aeabi_unwind_cpp_pr1"};

/// Whether a symbol belongs to the compiler, the language or a sanitizer. The sanitizers' names vary with the code; nothing
/// of libc begins as they do.
bool IsMachinery(const std::string& name) {
    for (const char* const pszPrefix : {"__asan_", "__ubsan_", "__tsan_"}) {
        if (name.rfind(pszPrefix, 0) == 0) {
            return true;
        }
    }
    return g_Machinery.count(name) != 0;
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

const Hook* HookFor(const std::string& name) {
    for (const Hook& hook : g_Hooks) {
        if (name == hook.pszName) {
            return &hook;
        }
    }
    return nullptr;
}

std::set<const Hook*> g_Used;
std::map<const void*, const Hook*> g_Slots;  ///< The places of the import table that hold a hook.
dl_phdr_info g_Library = {};
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
        // Places of the import table, and addresses in tables of the library's own.
        constexpr unsigned kFilledIn[] = {R_X86_64_GLOB_DAT,  R_X86_64_JUMP_SLOT,  R_X86_64_64,
                                          R_ARM_GLOB_DAT,     R_ARM_JUMP_SLOT,     R_ARM_ABS32,
                                          R_AARCH64_GLOB_DAT, R_AARCH64_JUMP_SLOT, R_AARCH64_ABS64};
        const bool fgFilledIn = std::find(std::begin(kFilledIn), std::end(kFilledIn), nType) != std::end(kFilledIn);
        const ElfW(Sym)& symbol = pSymbols[nSymbol];
        if (nSymbol == 0 || !fgFilledIn || symbol.st_shndx != SHN_UNDEF) {
            return;
        }
        const std::string name = PlainName(pStrings + symbol.st_name);
        const Hook* const pHook = HookFor(name);
        if (pHook != nullptr) {
            g_Used.insert(pHook);
            g_Slots[reinterpret_cast<const void*>(nBase + nOffset)] = pHook;
            Replace(reinterpret_cast<void**>(nBase + nOffset), pHook->pFunction);
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

    template <typename Relocation, typename Visitor>
    void VisitTable(ElfW(Addr) nTable, std::size_t nSize, Visitor visit) const {
        const Relocation* const pFirst = At<const Relocation*>(nTable);
        for (const Relocation* p = pFirst; p < pFirst + nSize / sizeof(Relocation); ++p) {
#if __ELF_NATIVE_CLASS == 64
            visit(*this, ELF64_R_SYM(p->r_info), static_cast<unsigned>(ELF64_R_TYPE(p->r_info)), p->r_offset);
#else
            visit(*this, ELF32_R_SYM(p->r_info), ELF32_R_TYPE(p->r_info), p->r_offset);
#endif
        }
    }
};

/// Calls `visit(imports, nSymbol, nType, nOffset)` for each place of an object that is filled in when it is loaded.
template <typename Visitor>
void VisitImports(const dl_phdr_info* pObject, Visitor visit) {
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
        imports.VisitTable<ElfW(Rela)>(entries[DT_RELA], entries[DT_RELASZ], visit);
    }
    if (entries.count(DT_REL) != 0) {
        imports.VisitTable<ElfW(Rel)>(entries[DT_REL], entries[DT_RELSZ], visit);
    }
    if (entries.count(DT_JMPREL) != 0) {
        if (entries[DT_PLTREL] == DT_RELA) {
            imports.VisitTable<ElfW(Rela)>(entries[DT_JMPREL], entries[DT_PLTRELSZ], visit);
        } else {
            imports.VisitTable<ElfW(Rel)>(entries[DT_JMPREL], entries[DT_PLTRELSZ], visit);
        }
    }
}

int RedirectLibrary(dl_phdr_info* pObject, std::size_t, void*) {
    if (std::strstr(pObject->dlpi_name, "libkalvoren-sharedd") == nullptr) {
        return 0;
    }
    g_Library = *pObject;
    VisitImports(pObject, [](const Imports& imports, std::size_t nSymbol, unsigned nType, ElfW(Addr) nOffset) {
        imports.Redirect(nSymbol, nType, nOffset);
    });
    return 1;
}

/// A symbol as it is written in C++.
std::string Readable(const char* pszName) {
    char* const pszReadable = abi::__cxa_demangle(pszName, nullptr, nullptr, nullptr);
    const std::string strReadable = pszReadable != nullptr ? pszReadable : pszName;
    std::free(pszReadable);
    return strReadable;
}

/// The first object that is told is the program.
int NoteImportsOfTheProgram(dl_phdr_info* pObject, std::size_t, void* pNames) {
    VisitImports(pObject, [pNames](const Imports& imports, std::size_t nSymbol, unsigned, ElfW(Addr)) {
        if (nSymbol != 0) {
            static_cast<std::set<std::string>*>(pNames)->insert(
                Readable(imports.pStrings + imports.pSymbols[nSymbol].st_name));
        }
    });
    return 1;
}

// NOLINTEND(performance-no-int-to-ptr)

#if defined(__x86_64__)
/// The library's machine code, as far as it calls through the import table. There is no need to take instructions apart:
/// an operation code in front of a distance to exactly such a place is no accident.
class Code {
 public:
    Code(const unsigned char* pBegin, std::size_t nSize) : m_pBegin(pBegin), m_pEnd(pBegin + nSize) {
        for (const unsigned char* p = m_pBegin; p + kIndirect <= m_pEnd; ++p) {
            const auto pSlot =
                p[0] == 0xFF && p[1] == 0x25 ? g_Slots.find(p + kIndirect + Distance(p + 2)) : g_Slots.end();
            if (pSlot != g_Slots.end()) {
                // A stub, which may begin with a mark of four bytes.
                m_Stubs[p] = pSlot->second;
                if (p - m_pBegin >= 4) {
                    m_Stubs[p - 4] = pSlot->second;
                }
            }
        }
    }

    /// Calls `visit(pReturn, hook)` for each call of a hook.
    template <typename Visitor>
    void VisitCalls(Visitor visit) const {
        for (const unsigned char* p = m_pBegin; p + kIndirect <= m_pEnd; ++p) {
            const auto pStub = p[0] == 0xE8 ? m_Stubs.find(p + kDirect + Distance(p + 1)) : m_Stubs.end();
            const auto pSlot =
                p[0] == 0xFF && p[1] == 0x15 ? g_Slots.find(p + kIndirect + Distance(p + 2)) : g_Slots.end();
            if (pStub != m_Stubs.end()) {
                visit(p + kDirect, *pStub->second);
            } else if (pSlot != g_Slots.end()) {
                visit(p + kIndirect, *pSlot->second);
            }
        }
    }

 private:
    static constexpr int kDirect = 5;
    static constexpr int kIndirect = 6;

    static std::int32_t Distance(const unsigned char* p) {
        std::int32_t nDistance = 0;
        std::memcpy(&nDistance, p, sizeof(nDistance));
        return nDistance;
    }

    const unsigned char* m_pBegin;
    const unsigned char* m_pEnd;
    std::map<const unsigned char*, const Hook*> m_Stubs;
};

/// A place in the library: the function, and where that is in the file.
std::string PlaceOf(const unsigned char* p) {
    Dl_info info = {};
    dladdr(p, &info);
    char szOffset[32];
    std::snprintf(szOffset, sizeof(szOffset), " at %#zx", reinterpret_cast<std::size_t>(p) - g_Library.dlpi_addr);
    return Readable(info.dli_sname != nullptr ? info.dli_sname : "?") + szOffset;
}
#endif

bool IsMemory(const std::string& function) {
    return function == "malloc" || function == "calloc" || function == "realloc" || function == "new" ||
           function == "new[]";
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

std::set<std::string> ImportsOfTheProgram() {
    std::set<std::string> names;
    dl_iterate_phdr(&NoteImportsOfTheProgram, &names);
    return names;
}

std::vector<std::string> UnreachedImports() {
    std::vector<std::string> unreached;
    for (const Hook* const pHook : g_Used) {
        if (pHook->pSpec != nullptr && !InCommon().WasReached(*pHook->pSpec)) {
            unreached.emplace_back(pHook->pszName);
        }
    }
    return unreached;
}

void ForgetWhatWasReached() {
    InCommon().reached = {};
    InCommon().returned = {};
}

std::vector<std::string> UnreachedCalls() {
    std::vector<std::string> unreached;
#if defined(__x86_64__)
    for (int i = 0; i < g_Library.dlpi_phnum; ++i) {
        const ElfW(Phdr)& segment = g_Library.dlpi_phdr[i];
        if (segment.p_type != PT_LOAD || (segment.p_flags & PF_X) == 0) {
            continue;
        }
        // NOLINTNEXTLINE(performance-no-int-to-ptr)
        const Code code(reinterpret_cast<const unsigned char*>(g_Library.dlpi_addr + segment.p_vaddr), segment.p_memsz);
        code.VisitCalls([&](const unsigned char* pReturn, const Hook& hook) {
            if (hook.pSpec != nullptr && !InCommon().Returned(reinterpret_cast<std::uintptr_t>(pReturn), false)) {
                unreached.push_back(std::string(hook.pSpec->pszName) + " in " + PlaceOf(pReturn));
            }
        });
    }
#endif
    return unreached;
}

void Begin(const Fault& fault, bool fgMayBeRefused) {
    g_Fault = fault;
    g_nCalls = 0;
    g_Left = {};
    SharedOutcome() = Outcome();
    SharedOutcome().fgMayBeRefused = fgMayBeRefused;
}

Outcome& TheOutcome() {
    return SharedOutcome();
}

bool Holdings::operator==(const Holdings& other) const {
    return nBlocks == other.nBlocks && nMappings == other.nMappings && nDescriptors == other.nDescriptors &&
           nThreads == other.nThreads && nLibraries == other.nLibraries && nSharedNames == other.nSharedNames;
}

Holdings operator+(const Holdings& left, const Holdings& right) {
    return {left.nBlocks + right.nBlocks,   left.nMappings + right.nMappings,   left.nDescriptors + right.nDescriptors,
            left.nThreads + right.nThreads, left.nLibraries + right.nLibraries, left.nSharedNames + right.nSharedNames};
}

void PrintTo(const Holdings& holdings, std::ostream* pOut) {
    *pOut << holdings.nBlocks << " blocks, " << holdings.nMappings << " mappings, " << holdings.nDescriptors
          << " descriptors, " << holdings.nThreads << " threads, " << holdings.nLibraries << " libraries, "
          << holdings.nSharedNames << " names of shared memory";
}

Holdings TakeStock() {
    constexpr int kDescriptors = 256;
    const std::lock_guard<std::mutex> lock(g_Guard);
    Holdings holdings = {g_Blocks.size(),  g_Mappings.size(),  0,
                         g_Threads.size(), g_Libraries.size(), g_SharedNames.size()};
    for (int i = 0; i < kDescriptors; ++i) {
        holdings.nDescriptors += fcntl(i, F_GETFD) >= 0 ? 1 : 0;
    }
    return holdings;
}

void LeavesBlocks(std::size_t nBlocks) {
    g_Left.nBlocks += nBlocks;
}

void LeavesMappings(std::size_t nMappings) {
    g_Left.nMappings += nMappings;
}

void LeavesDescriptors(std::size_t nDescriptors) {
    g_Left.nDescriptors += nDescriptors;
}

void LeavesThreads(std::size_t nThreads) {
    g_Left.nThreads += nThreads;
}

Holdings LeftBehind() {
    return g_Left;
}

void CleanUp() {
    const std::lock_guard<std::mutex> lock(g_Guard);
    for (DIR* const pDirectory : g_Directories) {
        closedir(pDirectory);
    }
    g_Directories.clear();
    for (const pthread_t thread : g_Threads) {
        pthread_join(thread, nullptr);
    }
    g_Threads.clear();
}

void GoesWithTheProcess(const std::string& strDirectory) {
    const std::lock_guard<std::mutex> lock(g_Guard);
    g_Scratch.insert(strDirectory);
}

void StaysNoMore(const std::string& strDirectory) {
    const std::lock_guard<std::mutex> lock(g_Guard);
    g_Scratch.erase(strDirectory);
}

int LastSocket() {
    return g_nLastSocket;
}

const void* LastDirectory() {
    return g_pLastDirectory;
}

void Forget(const void* pBlock) {
    LetGo(pBlock);
}

void WhileSleeping(void (*pDo)()) {
    t_pWhileSleeping = pDo;
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

bool Step::LostItsLine() const {
    return Failed({"fprintf", "perror", kWriteOfALine});
}

std::vector<std::string> MutexMakingRefusalsAnd(std::vector<std::string> others) {
    for (const char* const pszRefusal :
         {"new in KMutex::KMutex(): pInfo", "pthread_mutexattr_init in KMutex::KMutex(): nRet == 0",
          "pthread_mutexattr_settype in KMutex::KMutex(): nRet == 0",
          "pthread_mutex_init in KMutex::KMutex(): nRet == 0"}) {
        others.emplace_back(pszRefusal);
    }
    return others;
}

std::vector<std::string> MutexRefusalsAnd(std::vector<std::string> others) {
    others.emplace_back("pthread_mutex_destroy in virtual KMutex::~KMutex(): nRet == 0");
    return MutexMakingRefusalsAnd(std::move(others));
}

void PrintTo(const Scenario& scenario, std::ostream* pOut) {
    *pOut << scenario.pszName;
}

namespace {

int CountIn(const std::map<std::string, int>& calls, const std::string& function) {
    const auto pEntry = calls.find(function);
    return pEntry != calls.end() ? pEntry->second : 0;
}

/// The writes that a message takes, each with its mark and what was rendered.
std::vector<std::pair<std::string, std::string>> WritesOf(const std::string& message) {
    const std::string strStamp = "Log: ";
    if (message.rfind(strStamp, 0) == 0) {
        return {{strStamp, ""}, {"", message.substr(strStamp.size()) + "\n"}};
    }
    for (const std::string strMark : {"Error****: ", "Debug: "}) {
        if (message.rfind(strMark, 0) == 0) {
            return {{strMark, message.substr(strMark.size()) + "\n"}};
        }
    }
    return {{message + "\n", ""}};
}

}  // namespace

Step::~Step() {
    if (!m_fgLogExpected) {
        ExpectLog({});
    }
}

int Step::CallsBefore(const std::string& function) const {
    return CountIn(m_CallsBefore, function);
}

int Step::Calls(const std::string& function) const {
    return CountIn(m_Calls, function);
}

void Step::ExpectLog(const std::vector<std::string>& messages) const {
    m_fgLogExpected = true;
    std::string strExpected;
    int nWrite = 0;
    for (const std::string& message : messages) {
        for (const auto& [strMark, strText] : WritesOf(message)) {
            strExpected += strMark + (nWrite == m_nUnrendered ? "\n" : strText);
            ++nWrite;
        }
    }
    const std::string strMeant = support::WithoutStamps(m_Meant);
    if (strMeant != strExpected) {
        ADD_FAILURE_AT(m_pszFile, m_nLine) << "This step was to log:\n" << strExpected << "It logged:\n" << strMeant;
    }
}

void Step::Arm() {
    {
        const std::lock_guard<std::mutex> lock(g_Guard);
        g_Log.clear();
        g_nUnrendered = -1;
        g_Calls.clear();
    }
    m_nFailedCall = -g_nCalls;
    t_fgArmed = true;
}

void Step::Disarm() {
    t_fgArmed = false;
    m_fgFailed = HasFailed() && !m_fgBefore;
    m_nFailedCall = m_fgFailed ? m_nFailedCall + g_Fault.nCall : 0;
    m_Function = m_fgFailed ? SharedOutcome().szFunction : "";
    m_Calls = g_Calls;
    if (m_fgFailed) {
        m_CallsBefore = g_CallsBefore;
    }
    const std::lock_guard<std::mutex> lock(g_Guard);
    for (const Piece& piece : g_Log) {
        m_Meant += piece.text;
        m_Log += piece.written;
    }
    m_nUnrendered = g_nUnrendered;
}

}  // namespace torture
