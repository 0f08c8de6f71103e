#include "FrameQueue.h"

#include <cstring>
#include <vector>

namespace camera {

KManagedDynamicDataQueue& FrameQueue::Made(int nIndex, int nBuffers) {
    KManagedDynamicDataQueue::Create(nIndex, nBuffers);
    return *KManagedDynamicDataQueue::GetInstance(nIndex);
}

FrameQueue::FrameQueue(int nIndex, int nBuffers, unsigned int nSize)
    : m_nIndex(nIndex), m_Queue(Made(nIndex, nBuffers)), m_nDepth(0) {
    std::vector<KDynamicDataBuffer*> buffers;
    while (KDynamicDataBuffer* const pBuffer = m_Queue.PopWrite()) {
        // Written once, so that the memory is there from the start, and not asked for when the machine is busy.
        std::memset(pBuffer->LockWriteBuffer(nSize, 0), 0, nSize);
        pBuffer->UnlockWriteBuffer();
        buffers.push_back(pBuffer);
    }
    for (KDynamicDataBuffer* const pBuffer : buffers) {
        m_Queue.PushRead(pBuffer);
    }
}

FrameQueue::~FrameQueue() {
    KManagedDynamicDataQueue::Delete(m_nIndex);
}

void FrameQueue::EndWrite(KDynamicDataBuffer* pBuffer) {
    ++m_nDepth;
    m_Queue.PushWrite(pBuffer);
}

KDynamicDataBuffer* FrameQueue::BeginRead() {
    KDynamicDataBuffer* const pBuffer = m_Queue.PopRead();
    m_nDepth -= pBuffer != nullptr ? 1 : 0;
    return pBuffer;
}

}  // namespace camera
