// The camera's state: counted by its threads, published once a second in shared memory.
#ifndef CAMERA_STATUS_H
#define CAMERA_STATUS_H

#include <KIPC.h>

#include <atomic>
#include <cstdint>

namespace camera {

/// What the threads count.
struct Counters {
    std::atomic<unsigned int> nFrames{0};       ///< Pictures encoded.
    std::atomic<unsigned int> nDropped{0};      ///< Pictures that found no buffer, or could not be encoded.
    std::atomic<unsigned int> nNotRecorded{0};  ///< Pictures that found no place in the recorder's queue.
    std::atomic<unsigned int> nSkipped{0};      ///< Pictures that slow clients did not get, all clients together.
    std::atomic<unsigned int> nJoined{0};       ///< Clients that asked for the stream.
    std::atomic<unsigned int> nRefused{0};      ///< Connections that found no place.
    std::atomic<unsigned int> nStrangers{0};    ///< Connections from other machines that Http/LocalOnly sent away.
    std::atomic<unsigned int> nCommands{0};     ///< Commands answered on the control channel.
    std::atomic<int> nClients{0};               ///< Clients that watch the stream now.
    std::atomic<bool> fgMotion{false};
};

/// What is published: plain numbers and texts of fixed places, as both sides are built from the same source.
struct StatusRecord {
    std::uint32_t nMagic;    ///< kStatusMagic
    std::uint32_t nVersion;  ///< kStatusVersion
    std::int32_t nProcess;
    std::uint32_t nUptime;        ///< Seconds.
    std::uint32_t nFramesTenths;  ///< Frames a second, in tenths.
    std::uint32_t nDropsTenths;
    std::uint32_t nFrames;
    std::uint32_t nDropped;
    std::uint32_t nNotRecorded;
    std::uint32_t nSkipped;
    std::uint32_t nJoined;
    std::uint32_t nRefused;
    std::uint32_t nCommands;
    std::int32_t nClients;
    std::int32_t nQueued;
    std::int32_t nSegments;
    std::uint32_t nRecordedKilobytes;
    std::int32_t nPort;
    std::int32_t nLogLevel;
    std::uint8_t fgMotion;
    std::uint8_t fgRecording;
    std::uint8_t fgPaused;  ///< Recording is wanted and does not work.
    std::uint8_t reserved;
    char szName[64];
    char szLastEvent[128];
};
constexpr std::uint32_t kStatusMagic = 0x43414D52;  // Other programs may have used the memory.
constexpr std::uint32_t kStatusVersion = 2;

/// The shared memory of one camera, 520 bytes that have no lock. The first word counts: it is odd while the record behind it
/// is being written, and a reader that meets an odd or a changed number reads again.
class StatusChannel {
 public:
    /// Both sides: @p nChannel is the channel's number.
    explicit StatusChannel(int nChannel) : m_nChannel(nChannel), m_pChannel(nullptr), m_fgServing(false) {}

    /// The camera's side says that it has ended, and removes the memory.
    ~StatusChannel();

    StatusChannel(const StatusChannel&) = delete;
    StatusChannel& operator=(const StatusChannel&) = delete;

    /// The camera's side: makes the memory. Returns false when the system refuses; with a process in @p nOwner when another
    /// camera has the channel.
    bool Serve(int& nOwner);

    /// The camera's side: publishes a record.
    void Publish(const StatusRecord& record);

    /// The reader's side: finds the memory and reads a record. Returns false when no camera publishes here.
    ///
    /// A reader never closes the channel: whoever closes shared memory removes its name, and the next reader would look for
    /// a camera in vain. The system takes the memory back when the reader ends.
    bool Read(StatusRecord& record);

 private:
    void Remove();

    const int m_nChannel;
    KIPC* m_pChannel;  ///< In the library's table of channels, which keeps it.
    bool m_fgServing;
};

}  // namespace camera

#endif  // CAMERA_STATUS_H
