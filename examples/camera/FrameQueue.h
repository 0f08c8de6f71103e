// A managed queue whose buffers have their size from the start.
#ifndef CAMERA_FRAMEQUEUE_H
#define CAMERA_FRAMEQUEUE_H

#include <KQueue.h>

#include <atomic>

namespace camera {

/// One of the process's managed queues, between one thread that writes and one that reads. Neither waits for the other: a
/// writer that finds no free buffer drops its picture.
///
/// Two things that KManagedDynamicDataQueue leaves to its user are done here. A buffer grows through KMem, whose registry is
/// for one thread, so that all of them get their size before the threads start. And the queue does not tell how many
/// buffers are waiting, so that they are counted.
class FrameQueue {
 public:
    /// Makes queue @p nIndex with @p nBuffers buffers of at least @p nSize bytes. Two buffers are the least: destroying a
    /// pool of one fails a check.
    FrameQueue(int nIndex, int nBuffers, unsigned int nSize);

    /// Destroys the queue. Its table of buffers stays for good, and is in the leak report.
    ~FrameQueue();

    FrameQueue(const FrameQueue&) = delete;
    FrameQueue& operator=(const FrameQueue&) = delete;

    /// Takes a free buffer, null when there is none, and puts it into the queue.
    KDynamicDataBuffer* BeginWrite() { return m_Queue.PopWrite(); }
    void EndWrite(KDynamicDataBuffer* pBuffer);

    /// Takes the oldest buffer from the queue, null when it is empty, and gives it back.
    KDynamicDataBuffer* BeginRead();
    void EndRead(KDynamicDataBuffer* pBuffer) { m_Queue.PushRead(pBuffer); }

    /// Returns the number of buffers that wait to be read.
    int GetDepth() const { return m_nDepth; }

 private:
    static KManagedDynamicDataQueue& Made(int nIndex, int nBuffers);

    const int m_nIndex;
    KManagedDynamicDataQueue& m_Queue;
    std::atomic<int> m_nDepth;
};

}  // namespace camera

#endif  // CAMERA_FRAMEQUEUE_H
