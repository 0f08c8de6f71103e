// What libc's bare calls do where the library stands beside them, in the jobs that are counted and in those that are timed.
#ifndef KALVOREN_BARECALLS_H
#define KALVOREN_BARECALLS_H

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>

/// What the jobs about paths work on.
constexpr const char* kPath = "/var/lib/camera/records/2024-05-06/segment-000123.mjpeg";
constexpr const char* kPathDirectory = "/var/lib/camera/records/2024-05-06";
constexpr const char* kPathName = "segment-000123.mjpeg";

/// The pieces of a path that has all of them, each in a block for free().
namespace bare {

inline std::size_t Distance(const char* pszFrom, const char* pszTo) {
    return static_cast<std::size_t>(pszTo - pszFrom);
}

inline char* Join(const char* pszDirectory, const char* pszName) {
    const std::size_t nDirectory = std::strlen(pszDirectory);
    const std::size_t nName = std::strlen(pszName);
    char* const pszJoined = static_cast<char*>(std::malloc(nDirectory + nName + 2));
    std::memcpy(pszJoined, pszDirectory, nDirectory);
    pszJoined[nDirectory] = '/';
    std::memcpy(pszJoined + nDirectory + 1, pszName, nName + 1);
    return pszJoined;
}

inline char* Directory(const char* pszPath) {
    return strndup(pszPath, Distance(pszPath, std::strrchr(pszPath, '/')));
}

inline char* Name(const char* pszPath) {
    return strdup(std::strrchr(pszPath, '/') + 1);
}

inline char* Stem(const char* pszPath) {
    const char* const pszName = std::strrchr(pszPath, '/') + 1;
    return strndup(pszName, Distance(pszName, std::strrchr(pszName, '.')));
}

inline char* Extension(const char* pszPath) {
    return strdup(std::strrchr(std::strrchr(pszPath, '/'), '.') + 1);
}

inline char* GoUp(const char* pszPath) {
    char* const pszUp = strdup(pszPath);
    *std::strrchr(pszUp, '/') = '\0';
    return pszUp;
}

/// A list of texts, each in a block of its own, as bare as it can be.
struct Field {
    Field* pNext;
    char* pszText;
};

inline Field* Divide(const char* pszLine, char chBetween) {
    Field* pFirst = nullptr;
    Field** ppLast = &pFirst;
    for (bool fgMore = true; fgMore;) {
        const char* const pszEnd = strchrnul(pszLine, chBetween);
        *ppLast = static_cast<Field*>(std::malloc(sizeof(Field)));
        **ppLast = {nullptr, strndup(pszLine, Distance(pszLine, pszEnd))};
        ppLast = &(*ppLast)->pNext;
        fgMore = *pszEnd != '\0';
        pszLine = pszEnd + 1;
    }
    return pFirst;
}

inline void Free(Field* pFirst) {
    while (pFirst != nullptr) {
        Field* const pNext = pFirst->pNext;
        std::free(pFirst->pszText);
        std::free(pFirst);
        pFirst = pNext;
    }
}

/// A queue of buffers that belong to somebody else.
template <class Buffer>
class Queue {
 public:
    void Push(Buffer* pBuffer) {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        m_Buffers.push_back(pBuffer);
    }
    /// Null when there is none.
    Buffer* Pop() {
        const std::lock_guard<std::mutex> guard(m_Mutex);
        if (m_Buffers.empty()) {
            return nullptr;
        }
        Buffer* const pBuffer = m_Buffers.front();
        m_Buffers.pop_front();
        return pBuffer;
    }

 private:
    std::mutex m_Mutex;
    std::deque<Buffer*> m_Buffers;
};

}  // namespace bare

/// The port that a socket of this machine is bound to.
inline int PortOf(int nSocket) {
    sockaddr_in address = {};
    socklen_t nSize = sizeof address;
    getsockname(nSocket, reinterpret_cast<sockaddr*>(&address), &nSize);
    return ntohs(address.sin_port);
}

#endif  // KALVOREN_BARECALLS_H
