#include "Status.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace camera {

namespace {

using Word = std::atomic<std::uint32_t>;
constexpr std::size_t kWords = sizeof(KIPC::IPCData) / sizeof(Word);
constexpr std::size_t kRecordWords = (sizeof(StatusRecord) + sizeof(Word) - 1) / sizeof(Word);
static_assert(sizeof(Word) == 4 && kRecordWords < kWords, "the record fits behind the counting word");

bool IsAlive(int nProcess) {
    return nProcess > 0 && (kill(nProcess, 0) == 0 || errno == EPERM);
}

/// Reads the record from shared memory, unless it is never whole.
bool Copy(Word* pWords, StatusRecord& record) {
    constexpr int kAttempts = 1000;
    for (int i = 0; i < kAttempts; ++i) {
        const std::uint32_t nBefore = pWords[0].load(std::memory_order_acquire);
        std::uint32_t copy[kRecordWords];
        for (std::size_t n = 0; n < kRecordWords; ++n) {
            copy[n] = pWords[1 + n].load(std::memory_order_acquire);
        }
        if (nBefore % 2 == 0 && pWords[0].load(std::memory_order_relaxed) == nBefore) {
            std::memcpy(&record, copy, sizeof(record));
            // Whoever wrote this, the texts have an end.
            record.szName[sizeof(record.szName) - 1] = '\0';
            record.szLastEvent[sizeof(record.szLastEvent) - 1] = '\0';
            return record.nMagic == kStatusMagic && record.nVersion == kStatusVersion;
        }
    }
    return false;
}

}  // namespace

bool StatusChannel::Serve(int& nOwner) {
    // The name may be in use by another camera, or left over by one that ended badly: the record tells.
    StatusRecord record;
    nOwner = 0;
    if (Read(record) && record.nProcess != getpid() && IsAlive(record.nProcess)) {
        nOwner = record.nProcess;
        return false;
    }
    // A client's memory is for reading only, so that it is closed before the channel is made again as the server's. (Closing
    // what was never open would close descriptor 0.)
    Remove();
    m_pChannel->Create(true, KIPC::SHARED_MEMORY);
    // Create() is true as well when the memory could not be mapped.
    m_fgServing = m_pChannel->GetSharedMemory() != nullptr;
    return m_fgServing;
}

StatusChannel::~StatusChannel() {
    if (m_fgServing) {
        Publish(StatusRecord());  // Whoever is watching still has the memory.
        Remove();
    }
}

void StatusChannel::Publish(const StatusRecord& record) {
    std::uint32_t copy[kRecordWords] = {};
    std::memcpy(copy, &record, sizeof(record));
    Word* const pWords = static_cast<Word*>(m_pChannel->GetSharedMemory());
    pWords[0].fetch_add(1, std::memory_order_acq_rel);
    for (std::size_t n = 0; n < kRecordWords; ++n) {
        pWords[1 + n].store(copy[n], std::memory_order_release);
    }
    pWords[0].fetch_add(1, std::memory_order_release);
}

void StatusChannel::Remove() {
    if (m_pChannel->GetSharedMemory() != nullptr) {
        // Not KIPC::Deinit(), which removes channel 0 whatever it is told.
        m_pChannel->Close();
    }
}

bool StatusChannel::Read(StatusRecord& record) {
    if (m_pChannel == nullptr) {
        // Puts the channel into the table, also where there is no memory.
        KIPC::Init(m_nChannel, false, KIPC::SHARED_MEMORY, KPath());
        m_pChannel = KIPC::GetInstance(m_nChannel);
    }
    void* const pMemory = m_pChannel->GetSharedMemory();
    return pMemory != nullptr && Copy(static_cast<Word*>(pMemory), record);
}

}  // namespace camera
