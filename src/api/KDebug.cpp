#include "KDebug.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "Checks.h"
#include "KString.h"
#include "KTime.h"
#include "ScopedLock.h"

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

/// Renders a message and writes it in the line format given, one message at a time.
void Write(const char* pszLineFormat, const char* pszSignature, const tchar* format, va_list arguments) {
    const ScopedLock lock(g_Mutex);
    tchar* const pBuffer = __atomic_load_n(&g_pDebugBuffer, __ATOMIC_ACQUIRE);
    if (pBuffer == nullptr) {
        return;
    }
    // A message that libc cannot render to its end (a wide character that the locale lacks) is written up to there.
    *pBuffer = '\0';
    const int nLength = std::vsnprintf(pBuffer, kBufferSize, format, arguments);
    if (!g_Checks.Hold(nLength < static_cast<int>(kBufferSize), "0", pszSignature)) {
        return;
    }
    std::fprintf(stderr, pszLineFormat, pBuffer);
}

void WriteStamp(const char* pszFormat, const KTime& time) {
    const KHumanTime stamp = time.GetHumanTime(kStampOffset, kStampOffset);
    std::fprintf(stderr, pszFormat, stamp.year, stamp.month, stamp.day, stamp.hour, stamp.minute, stamp.second,
                 stamp.usec, stamp.weekDay);
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
    // The marker last: whoever sees it finds the buffer too.
    SetBuffer(g_pDebugBuffer, static_cast<tchar*>(std::malloc(kBufferSize)));
    SetBuffer(g_pDebugFormat, static_cast<tchar*>(std::malloc(kBufferSize)));
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
        Write("Error****: %s\n", "static bool KDebug::Error(const tchar*, ...)", format, arguments);
        va_end(arguments);
    }
    return true;
}

bool KDebug::Debug(const tchar* format, ...) {
    if (IsWritten(kDebugLevel)) {
        va_list arguments;
        va_start(arguments, format);
        Write("Debug: %s\n", "static bool KDebug::Debug(const tchar*, ...)", format, arguments);
        va_end(arguments);
    }
    return true;
}

bool KDebug::Log(const tchar* format, ...) {
    if (IsWritten(kLogLevel)) {
        WriteStamp("Log[%04d/%02d/%02d %02d:%02d:%02d:%06d %d]", KTime::GetCurrentTime());
        va_list arguments;
        va_start(arguments, format);
        Write("%s\n", "static bool KDebug::Log(const tchar*, ...)", format, arguments);
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
    WriteStamp("Time:%04d/%02d/%02d %02d:%02d:%02d:%06d %d\n", time);
    return true;
}
