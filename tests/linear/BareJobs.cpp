// What the library's jobs are counted beside: the same, done with the bare calls of libc and of the language's library.
#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <pthread.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <list>
#include <mutex>
#include <random>
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
    const std::string equal(text.data(), text.size());  // a block of its own
    Measured([&] {
        for (int i = 0; i < kRepetitions; ++i) {
            const bool fgEqual =
                text.size() == equal.size() && std::memcmp(text.data(), equal.data(), text.size()) == 0;
            Use(fgEqual);
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

void SearchNearlyThere(int n) {
    const std::string text = Repeated(NearlyThere(), n);
    const std::string word = Repeated(NearlyThere(), n / 10) + "y";
    Measured([&] {
        const char* const pszAt = std::strstr(text.c_str(), word.c_str());
        Use(pszAt);
    });
}

void Divide(int n) {
    const std::string line = Repeated("field,", n);
    bare::Field* pFirst = nullptr;
    Measured([&] { pFirst = bare::Divide(line.c_str(), ','); });
    bare::Free(pFirst);
}

void FillList(int n) {
    Measured([&] {
        std::mutex mutex;
        std::list<int> list;
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

void CopyList(int n) {
    std::mutex mutex;
    const std::list<std::string> list(static_cast<std::size_t>(n), "text");
    Measured([&] {
        const std::lock_guard<std::mutex> guard(mutex);
        // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): it is what is measured
        const std::list<std::string> copy(list);
        Use(copy);
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

void SortPaths(int n) {
    std::mt19937 random(1);
    std::vector<std::string> texts;
    for (int i = 0; i < n; ++i) {
        texts.push_back(std::to_string(random() % 100));
    }
    std::vector<const char*> paths;
    for (const std::string& text : texts) {
        paths.push_back(text.c_str());
    }
    Measured([&] {
        std::qsort(paths.data(), paths.size(), sizeof(const char*), [](const void* pOne, const void* pOther) {
            return strcasecmp(*static_cast<const char* const*>(pOne), *static_cast<const char* const*>(pOther));
        });
        Use(paths);
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

/// What is done with a path's text, n times; what comes of it is freed.
template <class Piece>
void FromPath(int n, Piece piece) {
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            const char* pszPath = kPath;
            Use(pszPath);
            char* const pszPiece = piece(pszPath);
            Use(pszPiece);
            std::free(pszPiece);
        }
    });
}

void JoinPath(int n) {
    FromPath(n, [](const char*) {
        const char* pszDirectory = kPathDirectory;
        const char* pszName = kPathName;
        Use(pszDirectory);
        Use(pszName);
        return bare::Join(pszDirectory, pszName);
    });
}

void PathDirectory(int n) {
    FromPath(n, bare::Directory);
}

void PathName(int n) {
    FromPath(n, bare::Name);
}

void PathStem(int n) {
    FromPath(n, bare::Stem);
}

void PathExtension(int n) {
    FromPath(n, bare::Extension);
}

void GoUp(int n) {
    FromPath(n, bare::GoUp);
}

void SystemPath(int n) {
    char szSystem[2048];
    FromPath(n, [&](const char* pszPath) -> char* {
        // NOLINTNEXTLINE(clang-analyzer-security.insecureAPI.strcpy): there is room for kPath
        std::strcpy(szSystem, pszPath);
        Use(szSystem);
        return nullptr;
    });
}

void LogError(int n) {
    MeasuredWithLines([&] {
        for (int i = 0; i < n; ++i) {
            char szLine[128];
            const int nLine = std::snprintf(szLine, sizeof szLine, "Error****: stream %d: %s\n", i, kLogText);
            const auto nWritten = write(STDERR_FILENO, szLine, static_cast<std::size_t>(nLine));
            Use(nWritten);
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

/// A buffer over and back so many times, beside so many that wait.
void HandOverAmong(int nTimes, int nWaiting) {
    bare::Queue<int> empty;
    bare::Queue<int> full;
    std::vector<int> buffers(static_cast<std::size_t>(nWaiting) + 1);
    for (int& nBuffer : buffers) {
        full.Push(&nBuffer);
    }
    empty.Push(full.Pop());
    Measured([&] {
        for (int i = 0; i < nTimes; ++i) {
            full.Push(empty.Pop());
            empty.Push(full.Pop());
        }
    });
}

void HandOver(int n) {
    HandOverAmong(n, 0);
}

void HandOverBeside(int n) {
    HandOverAmong(kRepetitions, n);
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

/// So many bytes from one end of a connection to the other and back, n times.
template <std::size_t kSize>
void PassAlong(int nOne, int nOther, int n) {
    Measured([&] {
        char bytes[kSize] = {};
        for (int i = 0; i < n; ++i) {
            auto nSum = send(nOne, bytes, kSize, 0) + recv(nOther, bytes, kSize, MSG_WAITALL);
            nSum += send(nOther, bytes, kSize, 0) + recv(nOne, bytes, kSize, MSG_WAITALL);
            Use(nSum);
        }
    });
}

void PassRecord(int n) {
    int nEnds[2] = {};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, nEnds) != 0) {
        std::exit(2);
    }
    PassAlong<520>(nEnds[0], nEnds[1], n);
}

template <std::size_t kSize>
void PassBytes(int n) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const auto* const pAddress = reinterpret_cast<const sockaddr*>(&address);
    const int nServer = socket(AF_INET, SOCK_STREAM, 0);
    const int nClient = socket(AF_INET, SOCK_STREAM, 0);
    if (bind(nServer, pAddress, sizeof address) != 0 || listen(nServer, 1) != 0) {
        std::exit(2);
    }
    address.sin_port = htons(static_cast<std::uint16_t>(PortOf(nServer)));
    if (connect(nClient, pAddress, sizeof address) != 0) {
        std::exit(2);
    }
    PassAlong<kSize>(nClient, accept(nServer, nullptr, nullptr), n);
}

/// What the library's start has the system do, without the library: a locale, two buffers, a block as large as the
/// registry of allocations, a signal and, twice, the system's names.
void StartLibrary(int n) {
    constexpr std::size_t kSlots = 102400;
    constexpr std::size_t kCells = std::size_t{1} << 18;
    constexpr std::size_t kRegistry =
        kSlots * (3 * sizeof(void*) + sizeof(int) + sizeof(bool)) + 2 * (kCells * sizeof(std::int32_t) + kSlots / 8);
    constexpr std::size_t kLine = std::size_t{1} << 20;
    const auto name = [] {
        utsname names = {};
        uname(&names);
        for (const char* pszName : {names.sysname, names.version}) {
            char* const pszCopy = strdup(pszName);
            Use(pszCopy);
            std::free(pszCopy);
        }
    };
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            std::setlocale(LC_ALL, "en_US.UTF-8");
            void* const pBlocks[] = {std::malloc(kLine), std::malloc(kLine)};
            Use(pBlocks);
            void* const pZeroed = mmap(nullptr, kRegistry, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            Use(pZeroed);
            std::signal(SIGPIPE, SIG_IGN);
            name();
            name();
            for (void* const pBlock : pBlocks) {
                std::free(pBlock);
            }
            munmap(pZeroed, kRegistry);
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
                                                               {"SearchNearlyThere", SearchNearlyThere},
                                                               {"Divide", Divide},
                                                               {"FillList", FillList},
                                                               {"WalkList", WalkList},
                                                               {"CopyList", CopyList},
                                                               {"PopList", PopList},
                                                               {"OpenDirectory", OpenDirectory},
                                                               {"SortPaths", SortPaths},
                                                               {"ReuseABlock", ReuseABlock},
                                                               {"Lock", Lock},
                                                               {"StartThread", StartThread},
                                                               {"Fields", Fields},
                                                               {"Seconds", Seconds},
                                                               {"TimeText", TimeText},
                                                               {"JoinPath", JoinPath},
                                                               {"PathDirectory", PathDirectory},
                                                               {"PathName", PathName},
                                                               {"PathStem", PathStem},
                                                               {"PathExtension", PathExtension},
                                                               {"GoUp", GoUp},
                                                               {"SystemPath", SystemPath},
                                                               {"LogError", LogError},
                                                               {"LogStamped", LogStamped},
                                                               {"HandOver", HandOver},
                                                               {"HandOverBeside", HandOverBeside},
                                                               {"Dispatch", Dispatch},
                                                               {"DispatchAmong", DispatchAmong},
                                                               {"PassRecord", PassRecord},
                                                               {"PassBytes", PassBytes<64>},
                                                               {"PassBlocks", PassBytes<16 << 10>},
                                                               {"StartLibrary", StartLibrary}};
    return kJobs;
}
