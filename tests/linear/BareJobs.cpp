// What the library's jobs are counted beside: the same, done with the bare calls of libc and of the language's library.
#include <dirent.h>
#include <pthread.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <list>
#include <mutex>
#include <vector>

#include "LinearJobs.h"

namespace {

/// A value that the compiler must take for used.
template <class Value>
void Use(const Value& value) {
    asm volatile("" : : "g"(&value) : "memory");
}

void MakeText(int n) {
    const std::string text(static_cast<std::size_t>(n), 'x');
    Measured([&] {
        for (int i = 0; i < kRepetitions; ++i) {
            const char* pszText = text.c_str();
            Use(pszText);
            const std::size_t nSize = std::strlen(pszText) + 1;
            void* const pMade = std::malloc(nSize);
            std::memcpy(pMade, pszText, nSize);
            Use(pMade);
            std::free(pMade);
        }
    });
}

void CopyText(int n) {
    const std::string text(static_cast<std::size_t>(n), 'x');
    Measured([&] {
        for (int i = 0; i < kRepetitions; ++i) {
            void* const pCopy = std::malloc(text.size() + 1);
            std::memcpy(pCopy, text.c_str(), text.size() + 1);
            Use(pCopy);
            std::free(pCopy);
        }
    });
}

void CompareTexts(int n) {
    const std::string text(static_cast<std::size_t>(n), 'x');
    const std::string equal(text.c_str());
    Measured([&] {
        for (int i = 0; i < kRepetitions; ++i) {
            const int nCompared = std::strcmp(text.c_str(), equal.c_str());
            Use(nCompared);
        }
    });
}

void Append(int n) {
    char* pszText = nullptr;
    Measured([&] {
        std::size_t nSize = 0;
        for (int i = 0; i < n; ++i) {
            const std::size_t nPiece = std::strlen(kPiece);
            pszText = static_cast<char*>(std::realloc(pszText, nSize + nPiece + 1));
            std::memcpy(pszText + nSize, kPiece, nPiece + 1);
            nSize += nPiece;
            Use(pszText);
        }
    });
    std::free(pszText);
}

void Search(int n) {
    const std::string text = Repeated("one two ", n);
    Measured([&] {
        const char* const pszAt = std::strstr(text.c_str(), "three");
        Use(pszAt);
    });
}

void SearchRareLetter(int n) {
    const std::string text = Repeated("one two ", n);
    Measured([&] {
        const char* const pszAt = std::strstr(text.c_str(), kRareWord);
        Use(pszAt);
    });
}

void FillList(int n) {
    std::mutex mutex;
    std::list<int> list;
    Measured([&] {
        const std::lock_guard<std::mutex> guard(mutex);
        for (int i = 0; i < n; ++i) {
            list.push_back(i);
        }
    });
}

void WalkList(int n) {
    std::mutex mutex;
    std::list<int> list(static_cast<std::size_t>(n), 1);
    Measured([&] {
        const std::lock_guard<std::mutex> guard(mutex);
        int nSum = 0;
        for (const int nValue : list) {
            nSum += nValue;
        }
        Use(nSum);
    });
}

void PopList(int n) {
    std::mutex mutex;
    std::list<int> list(static_cast<std::size_t>(n), 1);
    Measured([&] {
        for (;;) {
            const std::lock_guard<std::mutex> guard(mutex);
            if (list.empty()) {
                break;
            }
            const int nValue = list.front();
            list.pop_front();
            Use(nValue);
        }
    });
}

void OpenDirectory(int n) {
    const FilledDirectory directory(n);
    Measured([&] {
        dirent** ppEntries = nullptr;
        const int nCount =
            scandir(directory.Path(), &ppEntries, nullptr, [](const dirent** ppOne, const dirent** ppOther) {
                return strcasecmp((*ppOne)->d_name, (*ppOther)->d_name);
            });
        for (int i = 0; i < nCount; ++i) {
            std::free(ppEntries[i]);
        }
        std::free(ppEntries);
    });
}

void ReuseABlock(int n) {
    std::vector<void*> blocks(static_cast<std::size_t>(n));
    for (void*& pBlock : blocks) {
        pBlock = std::malloc(64);
    }
    Measured([&] {
        for (int i = 0; i < kRepetitions; ++i) {
            std::free(blocks.back());
            blocks.back() = std::malloc(64);
            Use(blocks.back());
        }
    });
}

void Lock(int n) {
    pthread_mutex_t mutex;
    pthread_mutex_init(&mutex, nullptr);
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            pthread_mutex_lock(&mutex);
            pthread_mutex_unlock(&mutex);
        }
    });
    pthread_mutex_destroy(&mutex);
}

void StartThread(int n) {
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            pthread_t thread;
            pthread_create(
                &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr);
            pthread_join(thread, nullptr);
        }
    });
}

void Fields(int n) {
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            const auto nMoment = static_cast<std::time_t>(MomentOf(i));
            tm fields = {};
            gmtime_r(&nMoment, &fields);
            Use(fields);
        }
    });
}

void Seconds(int n) {
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            const Date date = DateOf(i);
            tm fields = {};
            fields.tm_year = date.nYear - 1900;
            fields.tm_mon = date.nMonth - 1;
            fields.tm_mday = date.nDay;
            fields.tm_hour = date.nHour;
            const std::time_t nSeconds = timegm(&fields);
            Use(nSeconds);
        }
    });
}

void TimeText(int n) {
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            const auto nMoment = static_cast<std::time_t>(MomentOf(i));
            tm fields = {};
            gmtime_r(&nMoment, &fields);
            char szText[64];
            std::strftime(szText, sizeof szText, "%Y/%m/%d %H:%M:%S", &fields);
            Use(szText);
        }
    });
}

void LogError(int n) {
    MeasuredWithLines([&] {
        for (int i = 0; i < n; ++i) {
            std::fprintf(stderr, "Error****: stream %d: %s\n", i, kLogText);
        }
    });
}

void LogStamped(int n) {
    MeasuredWithLines([&] {
        for (int i = 0; i < n; ++i) {
            timespec now = {};
            clock_gettime(CLOCK_REALTIME, &now);
            tm fields = {};
            gmtime_r(&now.tv_sec, &fields);
            char szStamp[64];
            const int nStamp =
                std::snprintf(szStamp, sizeof szStamp, "Log[%04d/%02d/%02d %02d:%02d:%02d:%06d %d]",
                              fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min,
                              fields.tm_sec, static_cast<int>(now.tv_nsec / 1000), fields.tm_wday);
            char szLine[128];
            const int nLine = std::snprintf(szLine, sizeof szLine, "stream %d: %s\n", i, kLogText);
            auto nWritten = write(STDERR_FILENO, szStamp, static_cast<std::size_t>(nStamp));
            nWritten += write(STDERR_FILENO, szLine, static_cast<std::size_t>(nLine));
            Use(nWritten);
        }
    });
}

void HandOver(int n) {
    struct Queue {
        std::mutex mutex;
        std::deque<int*> buffers;

        void Push(int* pBuffer) {
            const std::lock_guard<std::mutex> guard(mutex);
            buffers.push_back(pBuffer);
        }
        int* Pop() {
            const std::lock_guard<std::mutex> guard(mutex);
            int* const pBuffer = buffers.front();
            buffers.pop_front();
            return pBuffer;
        }
    };
    Queue empty;
    Queue full;
    int nBuffer = 0;
    empty.Push(&nBuffer);
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            full.Push(empty.Pop());
            empty.Push(full.Pop());
        }
    });
}

/// So many registrations of which some have the name.
void SendAmong(int nAll, int nOurs) {
    struct Handler {
        virtual ~Handler() = default;
        virtual int Handle() { return ++nCount; }
        int nCount = 0;
    };
    std::mutex mutex;
    std::vector<std::pair<std::string, Handler>> handlers;
    handlers.reserve(static_cast<std::size_t>(nAll));
    for (int i = 0; i < nAll; ++i) {
        handlers.emplace_back(i < nOurs ? "event" : "event " + std::to_string(i), Handler());
    }
    const std::string sought("event");
    Measured([&] {
        const std::lock_guard<std::mutex> guard(mutex);
        for (auto& [name, handler] : handlers) {
            if (name == sought) {
                Handler* pHandler = &handler;
                Use(pHandler);
                pHandler->Handle();
            }
        }
    });
}

void Dispatch(int n) {
    SendAmong(n, n);
}

void DispatchAmong(int n) {
    SendAmong(n, 1);
}

void PassRecord(int n) {
    int nEnds[2] = {};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, nEnds) != 0) {
        std::exit(2);
    }
    Measured([&] {
        char record[520] = {};
        for (int i = 0; i < n; ++i) {
            auto nSum = send(nEnds[0], record, sizeof record, 0) + recv(nEnds[1], record, sizeof record, 0);
            nSum += send(nEnds[1], record, sizeof record, 0) + recv(nEnds[0], record, sizeof record, 0);
            Use(nSum);
        }
    });
}

}  // namespace

const std::map<std::string, void (*)(int)>& BareJobs() {
    static const std::map<std::string, void (*)(int)> kJobs = {{"MakeText", MakeText},
                                                               {"CopyText", CopyText},
                                                               {"CompareTexts", CompareTexts},
                                                               {"Append", Append},
                                                               {"Search", Search},
                                                               {"SearchRareLetter", SearchRareLetter},
                                                               {"FillList", FillList},
                                                               {"WalkList", WalkList},
                                                               {"PopList", PopList},
                                                               {"OpenDirectory", OpenDirectory},
                                                               {"ReuseABlock", ReuseABlock},
                                                               {"Lock", Lock},
                                                               {"StartThread", StartThread},
                                                               {"Fields", Fields},
                                                               {"Seconds", Seconds},
                                                               {"TimeText", TimeText},
                                                               {"LogError", LogError},
                                                               {"LogStamped", LogStamped},
                                                               {"HandOver", HandOver},
                                                               {"Dispatch", Dispatch},
                                                               {"DispatchAmong", DispatchAmong},
                                                               {"PassRecord", PassRecord}};
    return kJobs;
}
