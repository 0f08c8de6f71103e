// One line to standard error, which goes to /dev/null or to a file.
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <string>

#include "KDebug.h"
#include "Peers.h"

#ifdef KALVOREN_PEER_GLIB
#include <glib.h>
#endif
#ifdef KALVOREN_PEER_POCO
#include <Poco/ConsoleChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/PatternFormatter.h>
#endif
#ifdef KALVOREN_PEER_SPDLOG
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#endif

namespace {

/// The figure behind a comparison's name: where the line goes.
enum Target : std::int64_t { TO_NULL = 0, TO_FILE = 1 };

void Targets(benchmark::internal::Benchmark* job) {
    job->ArgName("to")->Arg(TO_NULL)->Arg(TO_FILE);
}

/// For the length of a block, standard error goes elsewhere and the library logs every line.
class Redirected {
 public:
    explicit Redirected(const benchmark::State& state) : m_nSaved(dup(STDERR_FILENO)) {
        const std::string path = state.range(0) == TO_NULL ? "/dev/null" : m_Directory.Path() + "/log";
        const int nTarget = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        dup2(nTarget, STDERR_FILENO);
        close(nTarget);
        g_eDebugLevel = kAllLines;
    }
    ~Redirected() {
        g_eDebugLevel = kNoLines;
        dup2(m_nSaved, STDERR_FILENO);
        close(m_nSaved);
    }
    Redirected(const Redirected&) = delete;
    Redirected& operator=(const Redirected&) = delete;

 private:
    ScratchDirectory m_Directory;
    int m_nSaved;
};

constexpr const char* kFormat = "stream %d: %s";
constexpr const char* kText = "1920x1080 at 25 frames a second";

/// A stamp as the library writes it.
int Stamp(char* pszStamp, std::size_t nSize) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm fields = {};
    gmtime_r(&now.tv_sec, &fields);
    return std::snprintf(pszStamp, nSize, "Log[%04d/%02d/%02d %02d:%02d:%02d:%06d %d]", fields.tm_year + 1900,
                         fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec,
                         static_cast<int>(now.tv_nsec / 1000), fields.tm_wday);
}

void ErrorKalvoren(benchmark::State& state) {
    const Redirected redirected(state);
    int nStream = 0;
    for (auto _ : state) {
        KDebug::Error(kFormat, ++nStream, kText);
    }
}
BENCHMARK(ErrorKalvoren)->Name("log a line without a stamp|Kalvoren: Error")->Apply(Targets);

void DebugKalvoren(benchmark::State& state) {
    const Redirected redirected(state);
    int nStream = 0;
    for (auto _ : state) {
        KDebug::Debug(kFormat, ++nStream, kText);
    }
}
BENCHMARK(DebugKalvoren)->Name("log a line without a stamp|Kalvoren: Debug")->Apply(Targets);

void LineStdio(benchmark::State& state) {
    const Redirected redirected(state);
    int nStream = 0;
    for (auto _ : state) {
        std::fprintf(stderr, "Error****: stream %d: %s\n", ++nStream, kText);
    }
}
BENCHMARK(LineStdio)->Name("log a line without a stamp|fprintf")->Apply(Targets);

void LineLimit(benchmark::State& state) {
    const Redirected redirected(state);
    int nStream = 0;
    for (auto _ : state) {
        char szLine[128];
        const int nLine = std::snprintf(szLine, sizeof szLine, "Error****: stream %d: %s\n", ++nStream, kText);
        const auto nWritten = write(STDERR_FILENO, szLine, static_cast<std::size_t>(nLine));
        benchmark::DoNotOptimize(nWritten);
    }
}
BENCHMARK(LineLimit)->Name("log a line without a stamp|limit: snprintf, write")->Apply(Targets);

void LogKalvoren(benchmark::State& state) {
    const Redirected redirected(state);
    int nStream = 0;
    for (auto _ : state) {
        KDebug::Log(kFormat, ++nStream, kText);
    }
}
BENCHMARK(LogKalvoren)->Name("log a line with a stamp|Kalvoren: Log")->Apply(Targets);

void LogLimit(benchmark::State& state) {
    const Redirected redirected(state);
    int nStream = 0;
    for (auto _ : state) {
        char szStamp[64];
        char szLine[128];
        const int nStamp = Stamp(szStamp, sizeof szStamp);
        const int nLine = std::snprintf(szLine, sizeof szLine, "stream %d: %s\n", ++nStream, kText);
        auto nWritten = write(STDERR_FILENO, szStamp, static_cast<std::size_t>(nStamp));
        nWritten += write(STDERR_FILENO, szLine, static_cast<std::size_t>(nLine));
        benchmark::DoNotOptimize(nWritten);
    }
}
BENCHMARK(LogLimit)->Name("log a line with a stamp|limit: two bare writes and the formatting")->Apply(Targets);

void LogStdio(benchmark::State& state) {
    const Redirected redirected(state);
    int nStream = 0;
    for (auto _ : state) {
        char szStamp[64];
        Stamp(szStamp, sizeof szStamp);
        std::fprintf(stderr, "%sstream %d: %s\n", szStamp, ++nStream, kText);
    }
}
BENCHMARK(LogStdio)->Name("log a line with a stamp|fprintf, gmtime_r")->Apply(Targets);

#ifdef KALVOREN_PEER_GLIB
void LogGlib(benchmark::State& state) {
    const Redirected redirected(state);
    int nStream = 0;
    for (auto _ : state) {
        g_log_structured(G_LOG_DOMAIN, G_LOG_LEVEL_WARNING, "MESSAGE", kFormat, ++nStream, kText);
    }
}
BENCHMARK(LogGlib)->Name("log a line with a stamp|GLib: g_log_structured")->Apply(Targets);

void MessageGlib(benchmark::State& state) {
    const Redirected redirected(state);
    int nStream = 0;
    for (auto _ : state) {
        g_message(kFormat, ++nStream, kText);
    }
}
BENCHMARK(MessageGlib)->Name("log a line with a stamp|GLib: g_message")->Apply(Targets);

void LineGlib(benchmark::State& state) {
    const Redirected redirected(state);
    int nStream = 0;
    for (auto _ : state) {
        g_printerr("Error****: stream %d: %s\n", ++nStream, kText);
    }
}
BENCHMARK(LineGlib)->Name("log a line without a stamp|GLib: g_printerr")->Apply(Targets);
#endif

#ifdef KALVOREN_PEER_POCO
/// A logger of POCO's on standard error.
Poco::Logger& PocoLogger(const char* pszName, const char* pszPattern) {
    Poco::AutoPtr<Poco::PatternFormatter> formatter(new Poco::PatternFormatter(pszPattern));
    Poco::AutoPtr<Poco::Channel> console(new Poco::ConsoleChannel(std::cerr));
    Poco::AutoPtr<Poco::Channel> channel(new Poco::FormattingChannel(formatter, console));
    Poco::Logger& logger = Poco::Logger::get(pszName);
    logger.setChannel(channel);
    logger.setLevel(Poco::Message::PRIO_TRACE);
    return logger;
}

void LinePoco(benchmark::State& state) {
    const Redirected redirected(state);
    Poco::Logger& logger = PocoLogger("plain", "Error****: %t");
    int nStream = 0;
    for (auto _ : state) {
        logger.error(Poco::format("stream %d: %s", ++nStream, std::string(kText)));
    }
}
BENCHMARK(LinePoco)->Name("log a line without a stamp|POCO")->Apply(Targets);

void LogPoco(benchmark::State& state) {
    const Redirected redirected(state);
    Poco::Logger& logger = PocoLogger("stamped", "Log[%Y/%m/%d %H:%M:%S:%F %w]%t");
    int nStream = 0;
    for (auto _ : state) {
        logger.error(Poco::format("stream %d: %s", ++nStream, std::string(kText)));
    }
}
BENCHMARK(LogPoco)->Name("log a line with a stamp|POCO")->Apply(Targets);
#endif

#ifdef KALVOREN_PEER_SPDLOG
void LineSpdlog(benchmark::State& state) {
    const Redirected redirected(state);
    spdlog::logger logger("plain", std::make_shared<spdlog::sinks::stderr_sink_mt>());
    logger.set_pattern("Error****: %v");
    int nStream = 0;
    for (auto _ : state) {
        logger.error("stream {}: {}", ++nStream, kText);
    }
}
BENCHMARK(LineSpdlog)->Name("log a line without a stamp|spdlog")->Apply(Targets);

void LogSpdlog(benchmark::State& state) {
    const Redirected redirected(state);
    spdlog::logger logger("stamped", std::make_shared<spdlog::sinks::stderr_sink_mt>());
    logger.set_pattern("Log[%Y/%m/%d %H:%M:%S:%f %w]%v", spdlog::pattern_time_type::utc);
    int nStream = 0;
    for (auto _ : state) {
        logger.error("stream {}: {}", ++nStream, kText);
    }
}
BENCHMARK(LogSpdlog)->Name("log a line with a stamp|spdlog")->Apply(Targets);
#endif

}  // namespace
