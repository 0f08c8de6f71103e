// camera: a network camera's service. Starts the library, reads the configuration, runs the camera until it is told to stop,
// and shuts everything down in the opposite order.

#include <KAssert.h>
#include <KDebug.h>
#include <KEntry.h>
#include <getopt.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "Camera.h"
#include "Clock.h"
#include "Settings.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kBadUsage = 2;

constexpr int kErrorsOnly = 2;  // a level of the log

constexpr char kHelp[] =
    "Usage: camera [--config FILE] [--port N] [--seconds N]\n"
    "\n"
    "Serves a moving test card to browsers and records it, until SIGINT, SIGTERM or\n"
    "camera-ctl stop.\n"
    "\n"
    "  --config FILE  the configuration, a property list (default: camera.plist)\n"
    "  --port N       listen at port N, whatever the configuration says; 0 lets the\n"
    "                 system choose\n"
    "  --seconds N    stop after N seconds\n"
    "  --help         print this text\n"
    "\n"
    "Exit status: 0 when it was stopped, 1 when it could not start, 2 when the\n"
    "arguments are wrong.\n";

struct Options {
    const char* pszFile = "camera.plist";
    int nPort = -1;     ///< -1: as configured.
    int nSeconds = -1;  ///< -1: no end.
};

bool ReadNumber(const char* pszText, int nMost, int& nValue) {
    char* pEnd = nullptr;
    const long nRead = std::strtol(pszText, &pEnd, 10);
    nValue = static_cast<int>(nRead);
    return pEnd != pszText && *pEnd == '\0' && nRead >= 0 && nRead <= nMost;
}

/// Reads the options. Returns the exit status when the program is done by that, and -1 when it is to go on.
int ReadOptions(int argc, char** argv, Options& options) {
    static const option kOptions[] = {{"config", required_argument, nullptr, 'c'},
                                      {"port", required_argument, nullptr, 'p'},
                                      {"seconds", required_argument, nullptr, 's'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {nullptr, 0, nullptr, 0}};
    for (int ch = 0; (ch = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        if (ch == 'h') {
            std::fputs(kHelp, stdout);
            return kDone;
        }
        if (ch == 'c') {
            options.pszFile = optarg;
        } else if ((ch == 'p' && ReadNumber(optarg, 65535, options.nPort)) ||
                   (ch == 's' && ReadNumber(optarg, 1000000, options.nSeconds))) {
            continue;
        } else {
            std::fputs("camera: see camera --help\n", stderr);
            return kBadUsage;
        }
    }
    if (optind < argc) {
        std::fprintf(stderr, "camera: unknown argument %s; see camera --help\n", argv[optind]);
        return kBadUsage;
    }
    return -1;
}

/// Blocks the signals that end the camera, in this thread and in all that it starts, so that they can be waited for.
sigset_t BlockSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

int Run(const Options& options, const sigset_t& signals) {
    camera::Settings settings;
    std::vector<std::string> faults;
    if (!camera::ReadSettings(options.pszFile, settings, faults)) {
        for (const std::string& fault : faults) {
            KDebug::Error("%s", fault.c_str());
        }
        return kFailed;
    }
    settings.nPort = options.nPort >= 0 ? options.nPort : settings.nPort;
    // What keeps it from starting is told, whatever the level.
    g_eDebugLevel = std::min(settings.nLogLevel, kErrorsOnly);

    camera::Camera camera(settings);
    if (!camera.Start()) {
        return kFailed;
    }
    // Its threads read the level by now.
    __atomic_store_n(&g_eDebugLevel, settings.nLogLevel, __ATOMIC_RELAXED);
    std::printf("camera: http://127.0.0.1:%d/\n", camera.GetPort());
    std::fflush(stdout);

    const long long nEnd = camera::NowMs() + 1000LL * options.nSeconds;
    const timespec second = {1, 0};
    while (sigtimedwait(&signals, nullptr, &second) < 0 && (options.nSeconds < 0 || camera::NowMs() < nEnd)) {
        camera.Tick();
    }
    return kDone;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const int nDone = ReadOptions(argc, argv, options);
    if (nDone >= 0) {
        return nDone;
    }
    const sigset_t signals = BlockSignals();

    g_eDebugLevel = kErrorsOnly;  // Until the configuration says otherwise.
    KEntry::Init(argc, argv);
    const int nStatus = Run(options, signals);

    // The checks stay on while the camera runs: a condition that does not hold is a mistake in this program, which had
    // better end than go on. At shut-down they are turned off, because the registry of memory checks that nothing is left,
    // and the tables of the queues are: the leak report names these two, and they are all there is to be in it.
    KAssert::SetActive(false);
    KEntry::Deinit();
    return nStatus;
}
