#include "KDebug.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Checks.h"
#include "KString.h"
#include "KTime.h"
#include "ScopedLock.h"
#include "TimeText.h"

int g_eDebugLevel = 0;
tchar* g_pDebugFormat = nullptr;
tchar* g_pDebugBuffer = nullptr;
KMutex g_Mutex;

namespace {

constexpr Checks g_Checks("src/api/KDebug");

constexpr std::size_t kBufferSize = 1048576;

// The highest level at which each grade is still written.
constexpr int kErrorLevel = 2;
constexpr int kDebugLevel = 1;
constexpr int kLogLevel = 0;

/// Zone and daylight-saving offset of every stamp, in quarter-hours.
constexpr char kStampOffset = static_cast<char>(129);

// The buffers and the level may be looked at by one thread while another sets them.

int Level() {
    return __atomic_load_n(&g_eDebugLevel, __ATOMIC_RELAXED);
}

bool HasBuffers() {
    return __atomic_load_n(&g_pDebugFormat, __ATOMIC_ACQUIRE) != nullptr;
}

void SetBuffer(tchar*& pBuffer, tchar* pValue) {
    __atomic_store_n(&pBuffer, pValue, __ATOMIC_RELEASE);
}

/// Makes the buffers if that has not been done, then says whether a message of this grade is to be written.
bool IsWritten(int nHighestLevel) {
    if (!HasBuffers()) {
        KDebug::Init();
    }
    return Level() <= nHighestLevel && HasBuffers();
}

/// Standard error has no buffer: each of these is one system call.
void WriteOut(const char* pText, std::size_t nLength) {
    std::fwrite(pText, 1, nLength, stderr);
}

/// Writes a mark, a message and a line feed. What most lines fit into is put together here: printf takes longer.
void WriteLine(const char* pszMark, const char* pszMessage) {
    char szLine[512];
    const std::size_t nMark = std::strlen(pszMark);
    const std::size_t nLength = std::strlen(pszMessage);
    if (nMark + nLength + 1 > sizeof szLine) {
        std::fprintf(stderr, "%s%s\n", pszMark, pszMessage);
        return;
    }
    std::memcpy(szLine, pszMark, nMark);
    std::memcpy(szLine + nMark, pszMessage, nLength);
    szLine[nMark + nLength] = '\n';
    WriteOut(szLine, nMark + nLength + 1);
}

/// Renders a message and writes it behind its mark, one message at a time.
void Write(const char* pszMark, const char* pszSignature, const tchar* format, va_list arguments) {
    const ScopedLock lock(g_Mutex);
    tchar* const pBuffer = __atomic_load_n(&g_pDebugBuffer, __ATOMIC_ACQUIRE);
    if (pBuffer == nullptr) {
        return;
    }
    // What libc cannot render to its end (a wide character that the locale lacks) is written up to there, and a message
    // with a NUL up to that.
    *pBuffer = '\0';
    const int nLength = std::vsnprintf(pBuffer, kBufferSize, format, arguments);
    if (g_Checks.Hold(nLength < static_cast<int>(kBufferSize), "0", pszSignature)) {
        WriteLine(pszMark, pBuffer);
    }
}

void WriteStamp(TimeText& text, const KTime& time, const char* pszEnd) {
    const KHumanTime stamp = time.GetHumanTime(kStampOffset, kStampOffset);
    text.Date(stamp, "/").Text(" ").TimeOfDay(stamp, ":").Text(":").Microseconds(stamp).Text(" ").WeekDay(stamp);
    text.Text(pszEnd);
    WriteOut(text.Begin(), text.Length());
}

}  // namespace

KDebug::KDebug() = default;
KDebug::KDebug(const KDebug&) {
    g_Checks.Fail("KDebug::KDebug(const KDebug&)");
}
KDebug::~KDebug() = default;

KDebug& KDebug::operator=(const KDebug&) {
    g_Checks.Fail("KDebug& KDebug::operator=(const KDebug&)");
    return *this;
}

void KDebug::Init() {
    auto* pBuffer = static_cast<tchar*>(std::malloc(kBufferSize));
    auto* pFormat = static_cast<tchar*>(std::malloc(kBufferSize));
    if (pBuffer == nullptr || pFormat == nullptr) {
        // One alone would be lost when the next message makes both again.
        std::free(pBuffer);
        std::free(pFormat);
        pBuffer = nullptr;
        pFormat = nullptr;
    }
    // The marker last: whoever sees it finds the buffer too.
    SetBuffer(g_pDebugBuffer, pBuffer);
    SetBuffer(g_pDebugFormat, pFormat);
}

void KDebug::Deinit() {
    std::free(g_pDebugFormat);
    SetBuffer(g_pDebugFormat, nullptr);
    std::free(g_pDebugBuffer);
    SetBuffer(g_pDebugBuffer, nullptr);
}

bool KDebug::Error(const tchar* format, ...) {
    if (IsWritten(kErrorLevel)) {
        va_list arguments;
        va_start(arguments, format);
        Write("Error****: ", "static bool KDebug::Error(const tchar*, ...)", format, arguments);
        va_end(arguments);
    }
    return true;
}

bool KDebug::Debug(const tchar* format, ...) {
    if (IsWritten(kDebugLevel)) {
        va_list arguments;
        va_start(arguments, format);
        Write("Debug: ", "static bool KDebug::Debug(const tchar*, ...)", format, arguments);
        va_end(arguments);
    }
    return true;
}

bool KDebug::Log(const tchar* format, ...) {
    if (IsWritten(kLogLevel)) {
        TimeText stamp;
        WriteStamp(stamp.Text("Log["), KTime::GetCurrentTime(), "]");
        va_list arguments;
        va_start(arguments, format);
        Write("", "static bool KDebug::Log(const tchar*, ...)", format, arguments);
        va_end(arguments);
    }
    return true;
}

bool KDebug::Error(const KString& text) {
    return Error("%s", text.GetBuffer());
}
bool KDebug::Debug(const KString& text) {
    return Debug("%s", text.GetBuffer());
}
bool KDebug::Log(const KString& text) {
    return Log("%s", text.GetBuffer());
}

bool KDebug::Time(const KTime& time) {
    TimeText stamp;
    WriteStamp(stamp.Text("Time:"), time, "\n");
    return true;
}
