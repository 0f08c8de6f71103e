#include "Recorder.h"

#include <KDebug.h>
#include <KDirectory.h>
#include <KTime.h>
#include <sys/stat.h>

#include <cstring>

#include "Clock.h"
#include "Events.h"
#include "Guard.h"

namespace camera {

namespace {

constexpr int kRetryMs = 10 * 1000;
constexpr char kSegmentEnding[] = ".mjpeg";
constexpr char kPictureEnding[] = ".jpg";
constexpr int kStampFormat = 16;  // 20240506142007123456
constexpr std::size_t kStampLength = 20;

KString NameForNow(const char* pszEnding) {
    return KTime::GetCurrentTime().GetHumanTimeString(kStampFormat, 0, 0) + pszEnding;
}

/// Whether a file is one of ours.
bool IsOurs(const char* pszName) {
    const char* const pszEnding = pszName + std::strspn(pszName, "0123456789");
    return pszEnding == pszName + kStampLength &&
           (std::strcmp(pszEnding, kSegmentEnding) == 0 || std::strcmp(pszEnding, kPictureEnding) == 0);
}

/// Tells whether there is a regular file, and how large it is. To open one would tell too, but for a pipe of such a name that
/// would wait for a writer.
bool FindFile(KPath path, long long& nSize) {
    struct stat status = {};
    const bool fgFound = stat(path.GetSystemPath(KPath::CONV_SLASH), &status) == 0 && S_ISREG(status.st_mode);
    nSize = status.st_size;
    return fgFound;
}

bool Exists(KPath path) {
    struct stat status = {};
    return lstat(path.GetSystemPath(KPath::CONV_SLASH), &status) == 0;
}

/// KFile::Write() wants bytes that may be changed, and does not change them.
char* Bytes(const unsigned char* pData) {
    return const_cast<char*>(reinterpret_cast<const char*>(pData));
}

}  // namespace

Recorder::Recorder(const KString& directory, int nSegmentSeconds, long long nLimit)
    : m_Directory(directory),
      m_nSegmentMs(1000LL * nSegmentSeconds),
      m_nLimit(nLimit),
      m_nSegmentBegan(0),
      m_nRetryAt(0),
      m_fgCounted(false),
      m_nSegments(0),
      m_nSize(0),
      m_fgPaused(false) {}

Recorder::~Recorder() {
    Rotate();
}

bool Recorder::Open() {
    const Guard guard(m_Mutex);
    return OpenLocked();
}

bool Recorder::OpenLocked() {
    if (!m_fgCounted) {
        KPath directory(m_Directory);
        if (!KDirectory::CreateDir(directory, KDirectory::DIR_RECURSIVE)) {
            Pause("cannot be made");
            return false;
        }
        CountFiles();
    }
    return m_fgCounted;
}

void Recorder::CountFiles() {
    KDirectory directory;
    KPath path(m_Directory);
    if (!directory.Open(path)) {
        Pause("cannot be read");
        return;
    }
    // All entries, not the files alone: where the file system does not tell kinds, there seem to be no files. The directory
    // sorts them. It is closed by its destructor, which logs an error where someone else did that before.
    m_Files.clear();
    m_nSize = 0;
    KList<KPath> entries;
    directory.ReadAll(entries);
    KList<KPath>::Reader reader(entries);
    while (const KPath* const pEntry = reader.Next()) {
        const KString name = pEntry->GetPath();
        long long nSize = 0;
        if (IsOurs(name.GetBuffer()) && FindFile(PathOf(name), nSize)) {
            m_Files.push_back({name, nSize});
            m_nSize += nSize;
        }
    }
    m_fgCounted = true;
}

bool Recorder::Write(const unsigned char* pData, unsigned int nSize) {
    const Guard guard(m_Mutex);
    if (m_fgPaused && NowMs() < m_nRetryAt) {
        return false;
    }
    if (!OpenLocked()) {
        return false;
    }
    if (m_Segment.IsValid() && NowMs() - m_nSegmentBegan >= m_nSegmentMs) {
        EndSegment();
    }
    if (!MakeRoom(nSize) || (!m_Segment.IsValid() && !BeginSegment())) {
        return false;
    }
    if (!m_Segment.Write(-1, Bytes(pData), nSize)) {
        EndSegment();
        Pause("cannot be written; the disk may be full");
        return false;
    }
    m_Files.back().nSize += nSize;
    m_nSize += nSize;
    Resume();
    return true;
}

/// Deletes the oldest files until @p nSize more bytes fit. The segment that is being written ends when its turn comes.
bool Recorder::MakeRoom(long long nSize) {
    // To delete all there is would not help.
    if (nSize > m_nLimit) {
        EndSegment();
        Pause("is too small for one picture");
        return false;
    }
    // A single segment must not fill the directory, or it would have to be deleted as a whole.
    if (m_Segment.IsValid() && m_Files.back().nSize + nSize > m_nLimit / 4) {
        EndSegment();
    }
    while (m_nSize + nSize > m_nLimit && !m_Files.empty()) {
        if (m_Files.size() == 1) {
            EndSegment();
        }
        KPath path = PathOf(m_Files.front().name);
        // One that is gone already is as good as deleted.
        if (!KFile::Delete(path) && Exists(path)) {
            EndSegment();
            Pause("cannot be kept below its size");
            return false;
        }
        m_nSize -= m_Files.front().nSize;
        m_Files.pop_front();
    }
    return true;
}

bool Recorder::BeginSegment() {
    const KString name = NameForNow(kSegmentEnding);
    if (!m_Segment.Open(PathOf(name), true)) {
        Pause("cannot be written");
        return false;
    }
    m_nSegmentBegan = NowMs();
    m_Files.push_back({name, 0});
    return true;
}

bool Recorder::EndSegment() {
    if (!m_Segment.IsValid()) {
        return false;
    }
    // The destructor of a KFile does not close it; closing also tells of what could not be written until then.
    if (!m_Segment.Close()) {
        Pause("cannot be written; the disk may be full");
    }
    if (m_Files.back().nSize == 0) {
        KPath path = PathOf(m_Files.back().name);
        KFile::Delete(path);
        m_Files.pop_back();
        return true;
    }
    ++m_nSegments;
    KString text;
    text.Sprintf("%s, %lld bytes", m_Files.back().name.GetBuffer(), m_Files.back().nSize);
    Announce(event::kSegmentClosed, text);
    return true;
}

bool Recorder::Rotate() {
    const Guard guard(m_Mutex);
    return EndSegment();
}

KString Recorder::Save(const unsigned char* pData, unsigned int nSize) {
    const Guard guard(m_Mutex);
    const KString name = NameForNow(kPictureEnding);
    KFile file;
    if (!OpenLocked() || !MakeRoom(nSize) || !file.Open(PathOf(name), true)) {
        return KString();
    }
    const bool fgWritten = file.Write(-1, Bytes(pData), nSize);
    if (!file.Close() || !fgWritten) {
        KPath path = PathOf(name);
        KFile::Delete(path);
        return KString();
    }
    // The segment that is being written stays the last one.
    m_Files.insert(m_Segment.IsValid() ? m_Files.end() - 1 : m_Files.end(), {name, nSize});
    m_nSize += nSize;
    Announce(event::kSnapshotSaved, name);
    return PathOf(name).GetPath();
}

KPath Recorder::PathOf(const KString& name) const {
    return KPath(m_Directory) + name;
}

/// Stops recording for a while, and counts the files anew before it goes on. Only the first of several failures is told.
void Recorder::Pause(const char* pszWhat) {
    m_fgCounted = false;
    m_nRetryAt = NowMs() + kRetryMs;
    if (!m_fgPaused.exchange(true)) {
        KDebug::Error("recording is paused: directory %s %s", m_Directory.GetBuffer(), pszWhat);
        Announce(event::kRecordingPaused, m_Directory);
    }
}

void Recorder::Resume() {
    if (m_fgPaused.exchange(false)) {
        Announce(event::kRecordingResumed, m_Directory);
    }
}

}  // namespace camera
