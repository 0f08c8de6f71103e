// camera-ctl: shows the state of a camera on this machine and sends it commands.

#include <KDebug.h>
#include <KEntry.h>
#include <signal.h>
#include <sys/time.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "Control.h"
#include "Settings.h"
#include "Status.h"

namespace {

using camera::Settings;
using camera::StatusRecord;

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kBadUsage = 2;
constexpr int kPatience = 10;  // seconds for an answer

constexpr char kHelp[] =
    "Usage: camera-ctl [--config FILE] status [--watch]\n"
    "       camera-ctl [--config FILE] snapshot | rotate | loglevel N | stop\n"
    "       camera-ctl --help\n"
    "\n"
    "  status      print the state of the camera; with --watch as one line that is\n"
    "              drawn anew every second\n"
    "  snapshot    save a picture, and print where\n"
    "  rotate      end the segment that is being recorded\n"
    "  loglevel N  log everything (0), no log lines (1), errors only (2), nothing (3)\n"
    "  stop        end the camera\n"
    "\n"
    "FILE is the camera's configuration (default: camera.plist): it names the channel\n"
    "and the control socket. Where that is a relative path, as it is at first, the\n"
    "commands other than status need the camera's working directory.\n"
    "\n"
    "Exit status: 0 when all went well; 1 when there is no camera, or it refuses or\n"
    "does not answer; 2 when the arguments are wrong.\n";

int Complain(const std::string& message, int nStatus) {
    std::fprintf(stderr, "camera-ctl: %s\n", message.c_str());
    return nStatus;
}

const char* RecordingOf(const StatusRecord& record) {
    return record.fgRecording == 0 ? "off" : record.fgPaused != 0 ? "paused" : "on";
}

/// Reads the state of a camera that is alive: what one left behind that ended badly does not count.
bool ReadStatus(camera::StatusChannel& channel, StatusRecord& record) {
    return channel.Read(record) && (kill(record.nProcess, 0) == 0 || errno == EPERM);
}

void PrintTable(const StatusRecord& record) {
    std::printf("name         %s\n", record.szName);
    std::printf("address      http://127.0.0.1:%d/\n", record.nPort);
    std::printf("process      %d, up for %u s\n", record.nProcess, record.nUptime);
    std::printf("pictures     %u, %.1f a second\n", record.nFrames, record.nFramesTenths / 10.0);
    std::printf("dropped      %u, %.1f a second\n", record.nDropped, record.nDropsTenths / 10.0);
    std::printf("queued       %d\n", record.nQueued);
    std::printf("clients      %d now, %u in all, %u refused\n", record.nClients, record.nJoined, record.nRefused);
    std::printf("skipped      %u pictures for slow clients\n", record.nSkipped);
    std::printf("recording    %s, %d segments closed, %u KB, %u pictures left out\n", RecordingOf(record),
                record.nSegments, record.nRecordedKilobytes, record.nNotRecorded);
    std::printf("motion       %s\n", record.fgMotion != 0 ? "yes" : "no");
    std::printf("commands     %u answered, log level %d\n", record.nCommands, record.nLogLevel);
    std::printf("last event   %s\n", record.szLastEvent);
}

int PrintStatus(const Settings& settings) {
    camera::StatusChannel channel(settings.nChannel);
    StatusRecord record;
    if (!ReadStatus(channel, record)) {
        return Complain("no camera on channel " + std::to_string(settings.nChannel), kFailed);
    }
    PrintTable(record);
    return kDone;
}

int WatchStatus(const Settings& settings) {
    camera::StatusChannel channel(settings.nChannel);
    StatusRecord record;
    while (ReadStatus(channel, record)) {
        std::printf(
            "\r\033[K%5u s  %4.1f pictures/s  %4.1f drops/s  %2d queued  %2d clients  recording %s %u KB  motion %s",
            record.nUptime, record.nFramesTenths / 10.0, record.nDropsTenths / 10.0, record.nQueued, record.nClients,
            RecordingOf(record), record.nRecordedKilobytes, record.fgMotion != 0 ? "yes" : "no");
        std::fflush(stdout);
        KThread::Sleep(1000);
    }
    std::printf("\n");
    return Complain("no camera on channel " + std::to_string(settings.nChannel), kFailed);
}

volatile std::sig_atomic_t g_fgLate = 0;

/// The channel knows no time limit; a signal ends its waits. It comes again, as one that comes just before a wait is lost
/// on it.
void LimitPatience() {
    struct sigaction action = {};
    action.sa_handler = [](int) { g_fgLate = 1; };  // And no SA_RESTART, which would let the wait go on.
    sigaction(SIGALRM, &action, nullptr);
    const itimerval timer = {{1, 0}, {kPatience, 0}};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

int Send(const Settings& settings, const std::string& command) {
    LimitPatience();
    KString answer;
    if (!camera::SendCommand(settings, command.c_str(), answer)) {
        if (g_fgLate != 0) {
            return Complain("the camera does not answer", kFailed);
        }
        return Complain(
            "no camera at " + std::string(settings.socket.GetBuffer()) + "_" + std::to_string(settings.nChannel),
            kFailed);
    }
    if (answer.Find("error: ", 0) == 0) {
        return Complain(answer.Sub(7, 0).GetBuffer(), kFailed);
    }
    std::puts(answer.GetBuffer());
    return kDone;
}

int Run(const char* pszFile, const std::vector<std::string>& words) {
    Settings settings;
    std::vector<std::string> faults;
    if (!camera::ReadSettings(pszFile, settings, faults)) {
        return Complain(faults.front(), kFailed);
    }
    if (words[0] != "status") {
        return Send(settings, words.size() == 2 ? words[0] + " " + words[1] : words[0]);
    }
    return words.size() == 2 ? WatchStatus(settings) : PrintStatus(settings);
}

/// Whether the words are a command: the camera knows the rest.
bool IsCommand(const std::vector<std::string>& words) {
    if (words.size() == 1) {
        return words[0] == "status" || words[0] == "snapshot" || words[0] == "rotate" || words[0] == "stop";
    }
    return words.size() == 2 && ((words[0] == "status" && words[1] == "--watch") || words[0] == "loglevel");
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> words(argv + 1, argv + argc);
    if (words.size() == 1 && words[0] == "--help") {
        std::fputs(kHelp, stdout);
        return kDone;
    }
    std::string file = "camera.plist";
    if (words.size() >= 2 && words[0] == "--config") {
        file = words[1];
        words.erase(words.begin(), words.begin() + 2);
    }
    if (!IsCommand(words)) {
        return Complain("see camera-ctl --help", kBadUsage);
    }
    g_eDebugLevel = 3;  // What goes wrong is told by this program.
    KEntry::Init(argc, argv);
    const int nStatus = Run(file.c_str(), words);
    KEntry::Deinit();
    return nStatus;
}
