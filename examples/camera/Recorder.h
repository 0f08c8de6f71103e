// Keeps pictures in files.
#ifndef CAMERA_RECORDER_H
#define CAMERA_RECORDER_H

#include <KFile.h>
#include <KPath.h>
#include <KThread.h>

#include <atomic>
#include <deque>

namespace camera {

/// Records pictures into segments, files of concatenated JPEGs, in a directory that it keeps below a size: before a write
/// would take it above, the oldest files go. Files are named after the moment of their first picture, in UTC and down to
/// microseconds ("20240506142007123456.mjpeg"), so that the order of their names is their order in time. Other files in the
/// directory are neither counted nor touched.
///
/// What keeps it from writing pauses the recording: a directory that cannot be made or written, a disk that is full, a file
/// that cannot be deleted, a picture larger than the directory may be. There is one line in the log and one event, and a new
/// attempt every ten seconds until it works again. The library's own error line stands beside it, for each attempt that it
/// sees fail.
///
/// Any thread may call any operation.
class Recorder {
 public:
    /// @p nLimit is the size of the directory, in bytes.
    Recorder(const KString& directory, int nSegmentSeconds, long long nLimit);
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    /// Makes the directory, if need be, and counts what is in it. On failure returns false; the recording is then paused.
    bool Open();

    /// Appends a picture to the segment, or begins one. Returns false when it is not recorded.
    bool Write(const unsigned char* pData, unsigned int nSize);

    /// Ends the segment; the next picture begins another. Returns false when there was none.
    bool Rotate();

    /// Saves a single picture ("20240506142007123456.jpg") and returns its path; an empty one when that fails.
    KString Save(const unsigned char* pData, unsigned int nSize);

    /// Return what is recorded: segments closed so far, bytes in the directory, whether the recording is paused.
    int GetSegmentCount() const { return m_nSegments; }
    long long GetSize() const { return m_nSize; }
    bool IsPaused() const { return m_fgPaused; }

 private:
    struct Entry {
        KString name;
        long long nSize;
    };

    bool OpenLocked();
    void CountFiles();
    bool MakeRoom(long long nSize);
    bool BeginSegment();
    bool EndSegment();
    KPath PathOf(const KString& name) const;
    void Pause(const char* pszWhat);
    void Resume();

    const KString m_Directory;
    const long long m_nSegmentMs;
    const long long m_nLimit;

    KMutex m_Mutex;
    KFile m_Segment;
    long long m_nSegmentBegan;
    long long m_nRetryAt;
    bool m_fgCounted;
    std::deque<Entry> m_Files;  ///< The oldest first; the last one may be the segment being written.
    std::atomic<int> m_nSegments;
    std::atomic<long long> m_nSize;
    std::atomic<bool> m_fgPaused;
};

}  // namespace camera

#endif  // CAMERA_RECORDER_H
