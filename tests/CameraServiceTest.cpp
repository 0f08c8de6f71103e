// The programs camera and camera-ctl as they are started, over sockets.

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Status.h"
#include "support/Hosts.h"
#include "support/Process.h"
#include "support/Sanitizers.h"
#include "support/Support.h"
#include "support/Texts.h"
#include "support/Threads.h"

using support::ContentOf;
using support::CountOf;
using support::ScopedDirectory;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

using Words = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

/// For how long something may take that is bound to happen.
constexpr std::chrono::seconds kPatience(120);

bool WaitUntil(const std::function<bool()>& fgHappened) {
    const auto end = Clock::now() + kPatience;
    while (!fgHappened()) {
        if (Clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

// ------------------------------------------------------------------------------------------------------------- Programs

/// A program, or where it cannot be started by its own name the script that starts it in an emulator.
std::string Startable(const std::string& program) {
    const std::string launcher = program + ".launch";
    return access(launcher.c_str(), X_OK) == 0 ? launcher : program;
}

std::vector<char*> PointersTo(Words& words) {
    std::vector<char*> pointers;
    for (std::string& word : words) {
        pointers.push_back(&word[0]);
    }
    pointers.push_back(nullptr);
    return pointers;
}

/// A running program with its output in files.
class Program {
 public:
    Program(const std::string& program, const Words& arguments, const std::string& directory, const std::string& name)
        : m_Out(directory + "/" + name + ".out"), m_Err(directory + "/" + name + ".err") {
        Words words = {Startable(program)};
        words.insert(words.end(), arguments.begin(), arguments.end());
        Words environment = support::SanitizerVariables();
        environment.emplace_back("LD_LIBRARY_PATH=" KALVOREN_ENCODERS);
        for (char** ppVariable = environ; *ppVariable != nullptr; ++ppVariable) {
            environment.emplace_back(*ppVariable);
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addchdir_np(&actions, directory.c_str());
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, m_Out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, m_Err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        EXPECT_EQ(posix_spawn(&m_nProcess, words[0].c_str(), &actions, nullptr, PointersTo(words).data(),
                              PointersTo(environment).data()),
                  0);
        posix_spawn_file_actions_destroy(&actions);
    }
    ~Program() {
        if (!HasEnded()) {
            Signal(SIGKILL);
            Wait();
        }
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    void Signal(int nSignal) const { kill(m_nProcess, nSignal); }

    /// Stops all threads of the program where they are, which takes a moment.
    void Hold() const {
        Signal(SIGSTOP);
        siginfo_t info = {};
        EXPECT_EQ(waitid(P_PID, static_cast<id_t>(m_nProcess), &info, WSTOPPED), 0);
    }

    bool HasEnded() {
        if (!m_fgEnded && waitpid(m_nProcess, &m_nStatus, WNOHANG) == m_nProcess) {
            m_fgEnded = true;
        }
        return m_fgEnded;
    }

    /// Waits for the end and returns the exit status, or -1 when a signal or our patience ended it.
    int Wait() {
        if (!WaitUntil([this] { return HasEnded(); })) {
            ADD_FAILURE() << "the program does not end";
            return -1;
        }
        return WIFEXITED(m_nStatus) ? WEXITSTATUS(m_nStatus) : -1;
    }

    std::string Out() const { return ContentOf(m_Out); }
    std::string Err() const { return ContentOf(m_Err); }

 private:
    std::string m_Out;
    std::string m_Err;
    pid_t m_nProcess = -1;
    int m_nStatus = 0;
    bool m_fgEnded = false;
};

// ------------------------------------------------------------------------------------------------------------ The camera

/// The number of a channel that no other test uses, for as long as this object lives. The numbers belong to the machine, and
/// so does the lock: a socket of that name. The test of channels removes the names of all; it waits for us.
class ScopedChannel {
 public:
    ScopedChannel() : m_nShared(open("/dev/shm", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        EXPECT_EQ(flock(m_nShared, LOCK_SH), 0);
        m_nSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        for (m_nNumber = 100 + getpid() % 800; !Take(); m_nNumber = m_nNumber == 999 ? 100 : m_nNumber + 1) {
        }
    }
    ~ScopedChannel() {
        close(m_nSocket);
        close(m_nShared);
    }
    ScopedChannel(const ScopedChannel&) = delete;
    ScopedChannel& operator=(const ScopedChannel&) = delete;

    int Number() const { return m_nNumber; }

 private:
    bool Take() const {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const std::string name = "kalvoren-test-camera-" + std::to_string(m_nNumber);
        std::memcpy(address.sun_path + 1, name.data(), name.size());
        return bind(m_nSocket, reinterpret_cast<sockaddr*>(&address),
                    static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size())) == 0;
    }

    int m_nShared;
    int m_nSocket;
    int m_nNumber;
};

using Values = std::map<std::string, std::string>;

std::string Integer(long long nValue) {
    return "<integer>" + std::to_string(nValue) + "</integer>";
}

std::string String(const std::string& value) {
    return "<string>" + value + "</string>";
}

/// A configuration with small pictures, so that any machine keeps up, and with other values by key where that is asked for.
std::string Configuration(int nChannel, const Values& others) {
    Values values = {
        {"Picture/Width", Integer(160)}, {"Picture/Height", Integer(120)}, {"Encoder/PlugIn", String("camera-stub")},
        {"Http/Port", Integer(0)},       {"Http/LocalOnly", "<true/>"},    {"Control/Channel", Integer(nChannel)}};
    for (const auto& other : others) {
        values[other.first] = other.second;
    }
    std::string text = "<plist version=\"1.0\">\n<dict>\n";
    std::string last;
    for (const auto& value : values) {
        const std::string section = value.first.substr(0, value.first.find('/'));
        if (section != last) {
            text += (last.empty() ? "" : "\t</dict>\n") + ("\t<key>" + section) + "</key>\n\t<dict>\n";
        }
        last = section;
        text += "\t\t<key>" + value.first.substr(section.size() + 1) + "</key>\n\t\t" + value.second + "\n";
    }
    return text + "\t</dict>\n</dict>\n</plist>\n";
}

/// A camera in a directory of its own.
class Camera {
 public:
    explicit Camera(const Values& values = {}, const Words& arguments = {})
        : m_File(m_Directory.File("camera.plist", Configuration(m_Channel.Number(), values))), m_Arguments(arguments) {
        Start();
    }

    void Start() { m_pProgram = std::make_unique<Program>(KALVOREN_CAMERA, m_Arguments, m_Directory.Path(), "camera"); }

    /// Waits until it serves and returns its port; 0 when it does not.
    int Port() {
        if (m_nPort == 0) {
            const std::string prefix = "camera: http://127.0.0.1:";
            WaitUntil([&] { return Process().Out().find("/\n") != std::string::npos || Process().HasEnded(); });
            EXPECT_THAT(Process().Out(), StartsWith(prefix)) << Process().Err();
            m_nPort = std::atoi(Process().Out().substr(std::min(prefix.size(), Process().Out().size())).c_str());
        }
        return m_nPort;
    }

    /// Runs camera-ctl for this camera. Returns its exit status, its output in @p out, both kinds.
    int Control(const Words& words, std::string& out) {
        Program program(KALVOREN_CAMERA_CTL, words, m_Directory.Path(), "ctl" + std::to_string(++m_nControls));
        const int nStatus = program.Wait();
        out = program.Out() + program.Err();
        return nStatus;
    }

    /// Ends it by a signal and returns the exit status.
    int End(int nSignal = SIGTERM) {
        Process().Signal(nSignal);
        return Process().Wait();
    }

    Program& Process() { return *m_pProgram; }
    const ScopedDirectory& Directory() const { return m_Directory; }
    std::string SharedMemory() const { return "/dev/shm/KALVOREN_IPC_" + std::to_string(m_Channel.Number()); }
    std::string SocketFile() const { return m_Directory.Entry("camera-control_" + std::to_string(m_Channel.Number())); }
    int Channel() const { return m_Channel.Number(); }

 private:
    ScopedChannel m_Channel;
    ScopedDirectory m_Directory;
    std::string m_File;
    Words m_Arguments;
    std::unique_ptr<Program> m_pProgram;
    int m_nPort = 0;
    int m_nControls = 0;
};

// --------------------------------------------------------------------------------------------------------------- Clients

/// A client's socket.
class Client {
 public:
    explicit Client(int nPort, int nReceiveBuffer = 0) : Client(nPort, nReceiveBuffer, false) {}
    Client(int nPort, const std::string& text) : Client(nPort) { Send(text); }

    /// One that may be refused.
    static std::unique_ptr<Client> Attempt(int nPort) { return std::unique_ptr<Client>(new Client(nPort, 0, true)); }

    /// One that comes to, and so from, another of the machine's addresses.
    static std::unique_ptr<Client> At(in_addr address, int nPort) {
        return std::unique_ptr<Client>(new Client(nPort, 0, false, address));
    }
    bool IsConnected() const { return m_fgConnected; }

    /// Whether the end was one, and not a reset, which may take the answer with it on its way.
    bool EndedInOrder() const { return m_fgEndedInOrder; }

    /// Whether there is something to read: bytes, or the end.
    bool HasHeard() const {
        pollfd poller = {m_nSocket, POLLIN, 0};
        return poll(&poller, 1, 0) > 0;
    }

    ~Client() { close(m_nSocket); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void Send(const std::string& text) {
        send(m_nSocket, text.data(), text.size(), MSG_NOSIGNAL);  // The camera may be gone already, and rightly.
    }

    /// Says that there is nothing more to come from here; what the camera has to send can still be read.
    void EndSending() const { shutdown(m_nSocket, SHUT_WR); }

    /// Reads until @p fgEnough or the end. What came before stays in the text.
    const std::string& ReadUntil(const std::function<bool(const std::string&)>& fgEnough) {
        const auto end = Clock::now() + kPatience;
        while (!fgEnough(m_Text)) {
            pollfd poller = {m_nSocket, POLLIN, 0};
            poll(&poller, 1, 1000);
            char buffer[65536];
            const ssize_t n = poller.revents != 0 ? recv(m_nSocket, buffer, sizeof(buffer), 0) : -1;
            if (n > 0) {
                m_Text.append(buffer, static_cast<std::size_t>(n));
            } else if (poller.revents != 0) {
                m_fgEndedInOrder = n == 0;
                return m_Text;
            } else if (Clock::now() > end) {
                ADD_FAILURE() << "the camera does not answer";
                return m_Text;
            }
        }
        return m_Text;
    }
    const std::string& ReadAll() {
        return ReadUntil([](const std::string&) { return false; });
    }

 private:
    Client(int nPort, int nReceiveBuffer, bool fgMayBeRefused, in_addr host = {htonl(INADDR_LOOPBACK)})
        : m_nSocket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        if (nReceiveBuffer != 0) {
            setsockopt(m_nSocket, SOL_SOCKET, SO_RCVBUF, &nReceiveBuffer, sizeof(nReceiveBuffer));
        }
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(nPort));
        address.sin_addr = host;
        m_fgConnected = connect(m_nSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
        EXPECT_TRUE(m_fgConnected || fgMayBeRefused) << std::strerror(errno);
    }

    bool m_fgConnected = false;
    bool m_fgEndedInOrder = false;
    int m_nSocket;
    std::string m_Text;
};

std::string Get(int nPort, const std::string& path) {
    Client client(nPort, "GET " + path + " HTTP/1.1\r\nHost: camera\r\n\r\n");
    return client.ReadAll();
}

std::string BodyOf(const std::string& answer) {
    const std::size_t n = answer.find("\r\n\r\n");
    return n != std::string::npos ? answer.substr(n + 4) : "";
}

/// A number in the camera's status, -1 where it is not there.
long long NumberInStatus(int nPort, const std::string& name) {
    const std::string json = BodyOf(Get(nPort, "/status.json"));
    const std::size_t n = json.find("\"" + name + "\":");
    return n != std::string::npos ? std::atoll(json.c_str() + n + name.size() + 3) : -1;
}

const std::string kPictureBegins = "\xFF\xD8";
const std::string kPictureEnds = "\xFF\xD9";

/// Expects an answer with a length, and returns its body.
std::string ExpectAnswer(const std::string& answer, const std::string& status, const std::string& type) {
    EXPECT_THAT(answer, AllOf(StartsWith("HTTP/1.1 " + status + "\r\n"),
                              HasSubstr("\r\nContent-Type: " + type + "\r\n"), HasSubstr("\r\nConnection: close\r\n")));
    std::string body = BodyOf(answer);
    EXPECT_THAT(answer, HasSubstr("\r\nContent-Length: " + std::to_string(body.size()) + "\r\n"));
    return body;
}

// --------------------------------------------------------------------------------------------------------------- Serving

TEST(CameraServiceTest, ServesThePageASnapshotAndTheStatus) {
    Camera camera({{"Identity/Name", String("North \"gate\"")}});
    const int nPort = camera.Port();
    EXPECT_THAT(ExpectAnswer(Get(nPort, "/"), "200 OK", "text/html; charset=utf-8"), StartsWith("<!DOCTYPE html>"));
    const std::string picture = ExpectAnswer(Get(nPort, "/snapshot.jpg?again"), "200 OK", "image/jpeg");
    EXPECT_EQ(picture.substr(0, 2), kPictureBegins);
    EXPECT_EQ(picture.substr(picture.size() - 2), kPictureEnds);
    EXPECT_THAT(ExpectAnswer(Get(nPort, "/status.json"), "200 OK", "application/json"),
                AllOf(StartsWith("{\"uptime\":"), HasSubstr("\"Identity/Name\":\"North \\\"gate\\\"\""),
                      HasSubstr("\"name\":\"configuration.read\"")));
    const long long nFrames = NumberInStatus(nPort, "frames");
    EXPECT_TRUE(WaitUntil([&] { return NumberInStatus(nPort, "frames") > nFrames; }));
    EXPECT_EQ(camera.End(), 0);
}

#if KALVOREN_CAMERA_HAS_JPEG
TEST(CameraServiceTest, MakesRealPicturesWithTheJpegPlugIn) {
    Camera camera({{"Encoder/PlugIn", String("camera-jpeg")}});
    const std::string picture = BodyOf(Get(camera.Port(), "/snapshot.jpg"));
    EXPECT_THAT(picture, AllOf(StartsWith(kPictureBegins), HasSubstr("JFIF")));
    // Height and width in the header of the frame.
    EXPECT_THAT(picture, HasSubstr(std::string("\xFF\xC0\x00\x11\x08\x00\x78\x00\xA0", 9)));
    EXPECT_EQ(picture.substr(picture.size() - 2), kPictureEnds);
    EXPECT_EQ(camera.End(), 0);
}
#endif

TEST(CameraServiceTest, StreamsPictureAfterPictureToSeveralClients) {
    Camera camera;
    const int nPort = camera.Port();
    const std::string request = "GET /stream.mjpg HTTP/1.1\r\n\r\n";
    Client first(nPort, request);
    Client second(nPort, request);
    const auto hasSome = [](const std::string& text) { return CountOf(text, "--picture\r\n") > 5; };
    for (Client* pClient : {&first, &second}) {
        const std::string& text = pClient->ReadUntil(hasSome);
        EXPECT_THAT(text,
                    StartsWith("HTTP/1.1 200 OK\r\nContent-Type: multipart/x-mixed-replace; boundary=picture\r\n"));
        EXPECT_GE(CountOf(text, "Content-Type: image/jpeg\r\nContent-Length: 32768\r\n\r\n\xFF\xD8"), 5);
        EXPECT_GE(CountOf(text, "\xFF\xD9\r\n--picture\r\n"), 4);
    }
    EXPECT_EQ(NumberInStatus(nPort, "clients"), 2);
    EXPECT_EQ(camera.End(), 0);
}

TEST(CameraServiceTest, TellsClientsThatComeAndGo) {
    Camera camera;
    const int nPort = camera.Port();
    {
        Client client(nPort, "GET /stream.mjpg HTTP/1.1\r\n\r\n");
        client.ReadUntil([](const std::string& text) { return CountOf(text, "--picture\r\n") > 1; });
        EXPECT_EQ(NumberInStatus(nPort, "clients"), 1);
        EXPECT_THAT(Get(nPort, "/status.json"), HasSubstr("\"name\":\"client.joined\",\"text\":\"127.0.0.1\""));
    }
    EXPECT_TRUE(WaitUntil([&] { return NumberInStatus(nPort, "clients") == 0; }));
    EXPECT_TRUE(WaitUntil([&] { return CountOf(Get(nPort, "/status.json"), "\"name\":\"client.left\"") == 1; }));
    EXPECT_EQ(camera.End(), 0);
}

TEST(CameraServiceTest, ASlowClientLosesPicturesAndNobodyElseDoes) {
    Camera camera;
    const int nPort = camera.Port();
    constexpr int kSmall = 4096;
    Client slow(nPort, kSmall);
    slow.Send("GET /stream.mjpg HTTP/1.1\r\n\r\n");
    Client good(nPort, "GET /stream.mjpg HTTP/1.1\r\n\r\n");
    // The good one gets picture after picture while the slow one reads none.
    int nWanted = 50;
    const auto hasEnough = [&](const std::string& text) { return CountOf(text, "--picture\r\n") > nWanted; };
    good.ReadUntil(hasEnough);
    // What the slow one lost is known once it has taken what was sent before.
    slow.ReadUntil([](const std::string& text) { return text.size() > std::size_t{1024} * 1024; });
    EXPECT_TRUE(WaitUntil([&] { return NumberInStatus(nPort, "skipped") > 0; }));
    nWanted += 10;
    EXPECT_TRUE(hasEnough(good.ReadUntil(hasEnough)));
    EXPECT_EQ(camera.End(), 0);
}

// What the stub encoder had been asked for when it made a picture.
struct Made {
    unsigned int nEncodings;
    unsigned int nPictures;  // different ones
};

/// The pictures of a stream, of which each is sent whole and nothing else is.
std::vector<Made> PicturesIn(const std::string& answer) {
    const std::string head = "--picture\r\nContent-Type: image/jpeg\r\nContent-Length: 32768\r\n\r\n" + kPictureBegins;
    const std::string end = kPictureEnds + "\r\n";
    const std::size_t nSize = head.size() - kPictureBegins.size() + 32768 + 2;
    const std::string stream = BodyOf(answer);
    std::vector<Made> pictures;
    for (std::size_t n = 0; n < stream.size(); n += nSize) {
        const std::string part = stream.substr(n, nSize);
        Made made = {};
        if (part.size() != nSize || part.compare(0, head.size(), head) != 0 ||
            part.compare(nSize - end.size(), end.size(), end) != 0 ||
            std::sscanf(&part[head.size()], "encodings %u pictures %u", &made.nEncodings, &made.nPictures) != 2) {
            ADD_FAILURE() << "byte " << n << " of " << stream.size() << " does not begin a picture";
            break;
        }
        pictures.push_back(made);
    }
    return pictures;
}

/// Watches the stream for some pictures, and takes all that were sent by then.
std::vector<Made> Watch(int nPort) {
    constexpr int kEnough = 10;
    Client client(nPort, "GET /stream.mjpg HTTP/1.1\r\n\r\n");
    client.ReadUntil([](const std::string& text) { return CountOf(text, "--picture\r\n") > kEnough; });
    client.EndSending();
    std::vector<Made> pictures = PicturesIn(client.ReadAll());
    EXPECT_GT(static_cast<int>(pictures.size()), kEnough);
    return pictures;
}

std::vector<std::vector<Made>> WatchTogether(int nPort, std::size_t nClients) {
    std::vector<std::vector<Made>> all(nClients);
    support::RunInThreads(static_cast<int>(nClients),
                          [&all, nPort](int nClient) { all[static_cast<std::size_t>(nClient)] = Watch(nPort); });
    return all;
}

/// How many pictures clients did not get, once none is left.
long long SkippedInTheEnd(int nPort) {
    EXPECT_TRUE(WaitUntil([&] { return NumberInStatus(nPort, "clients") == 0; }));
    // The camera gathers its figures once a second. The next ones may have been begun before, those after them were not.
    for (int i = 0; i < 2; ++i) {
        const long long nNow = NumberInStatus(nPort, "uptime");
        EXPECT_TRUE(WaitUntil([&] { return NumberInStatus(nPort, "uptime") > nNow; }));
    }
    return NumberInStatus(nPort, "skipped");
}

// Counted, not timed: a machine that is too slow for all pictures skips some, and says how many.
TEST(CameraServiceTest, EncodesAPictureOnceAndSendsItOnceToEachClient) {
    for (const std::size_t nClients : {std::size_t{1}, std::size_t{16}}) {
        // Wide enough for the picture's number to be in it, so that no two are the same.
        Camera camera({{"Picture/Width", Integer(320)}, {"Http/Clients", Integer(32)}});
        const int nPort = camera.Port();
        const std::vector<std::vector<Made>> all = WatchTogether(nPort, nClients);
        const long long nSkipped = SkippedInTheEnd(nPort);
        EXPECT_EQ(camera.End(), 0);
        long long nSent = 0;
        long long nDue = 0;
        for (const std::vector<Made>& pictures : all) {
            unsigned int nLast = 0;
            for (const Made& made : pictures) {
                ASSERT_EQ(made.nEncodings, made.nPictures) << nClients << " clients";
                ASSERT_GT(made.nEncodings, nLast) << "sent again";
                nLast = made.nEncodings;
            }
            ASSERT_FALSE(pictures.empty());
            nSent += static_cast<long long>(pictures.size());
            nDue += nLast - pictures.front().nEncodings + 1LL;
        }
        // From a client's first picture to its last each was sent, or found the client busy and was skipped.
        EXPECT_EQ(nSent + nSkipped, nDue) << nClients << " clients, " << nSkipped << " skipped";
    }
}

// --------------------------------------------------------------------------------------------------------- Bad clients

TEST(CameraServiceTest, AnswersWhatItDoesNotServeByAnError) {
    Camera camera;
    const int nPort = camera.Port();
    const struct {
        std::string request;
        std::string status;
    } cases[] = {{"GET /nothing HTTP/1.1\r\n\r\n", "404 Not Found"},
                 {"GET /../camera.plist HTTP/1.1\r\n\r\n", "404 Not Found"},
                 {"POST / HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc", "405 Method Not Allowed"},
                 {"\x16\x03\x01\x02\n\n", "400 Bad Request"},
                 {"GET\r\n\r\n", "400 Bad Request"},
                 {std::string("\0\0\0\n\n", 5), "400 Bad Request"},
                 {"GET / HTTP/1.1\r\nCookie: " + std::string(8192 - 24, 'x'), "431 Request Header Fields Too Large"}};
    for (const auto& c : cases) {
        Client client(nPort, c.request);
        ExpectAnswer(client.ReadAll(), c.status, "text/plain");
    }
    EXPECT_THAT(Get(nPort, "/"), StartsWith("HTTP/1.1 200 OK"));
    EXPECT_EQ(camera.End(), 0);
}

TEST(CameraServiceTest, TheAnswerStaysWhereTheClientHasMoreToSay) {
    Camera camera;
    const int nPort = camera.Port();
    const std::string rest(std::size_t{64} * 1024, 'x');
    const struct {
        std::string request;
        std::string status;
    } cases[] = {{"POST / HTTP/1.1\r\nContent-Length: 65536\r\n\r\n" + rest, "405 Method Not Allowed"},
                 {"GET\r\n\r\n" + rest, "400 Bad Request"},
                 {"GET / HTTP/1.1\r\nCookie: " + rest, "431 Request Header Fields Too Large"}};
    for (const auto& c : cases) {
        Client client(nPort, c.request);
        ExpectAnswer(client.ReadAll(), c.status, "text/plain");
        EXPECT_TRUE(client.EndedInOrder()) << c.status;
    }
    EXPECT_EQ(camera.End(), 0);
}

/// One of the machine's addresses that is not for itself alone; false where it has none.
bool OutwardAddress(in_addr& address) {
    ifaddrs* pFirst = nullptr;
    getifaddrs(&pFirst);
    bool fgFound = false;
    for (const ifaddrs* p = pFirst; p != nullptr && !fgFound; p = p->ifa_next) {
        if (p->ifa_addr != nullptr && p->ifa_addr->sa_family == AF_INET && (p->ifa_flags & IFF_UP) != 0) {
            address = reinterpret_cast<const sockaddr_in*>(p->ifa_addr)->sin_addr;
            fgFound = ntohl(address.s_addr) >> 24 != 127;
        }
    }
    freeifaddrs(pFirst);
    return fgFound;
}

TEST(CameraServiceTest, SendsOthersAwayWhereItIsForThisMachineAlone) {
    in_addr address = {};
    if (!OutwardAddress(address)) {
        GTEST_SKIP() << "this machine has no address but its own";
    }
    for (const bool fgLocalOnly : {true, false}) {
        Camera camera({{"Http/LocalOnly", std::string(fgLocalOnly ? "<true/>" : "<false/>")}});
        const int nPort = camera.Port();
        for (int i = 0; i < 2; ++i) {
            const std::unique_ptr<Client> pClient = Client::At(address, nPort);
            pClient->Send("GET / HTTP/1.1\r\n\r\n");
            EXPECT_THAT(pClient->ReadAll(),
                        StartsWith(fgLocalOnly ? "HTTP/1.1 403 Forbidden\r\n" : "HTTP/1.1 200 OK\r\n"));
        }
        EXPECT_THAT(Get(nPort, "/"), StartsWith("HTTP/1.1 200 OK\r\n"));
        EXPECT_EQ(camera.End(), 0);
        EXPECT_EQ(CountOf(camera.Process().Err(), "Http/LocalOnly is set"), fgLocalOnly ? 1 : 0);
    }
}

TEST(CameraServiceTest, SendsASilentClientAwayAndOneThatLeavesIsNoMatter) {
    Camera camera;
    const int nPort = camera.Port();
    Client silent(nPort);
    Client halting(nPort, "GET / HT");
    { Client hasty(nPort); }
    { Client hastier(nPort, "GET /stream.mjpg HTTP/1.1\r\n\r\n"); }
    EXPECT_THAT(Get(nPort, "/"), StartsWith("HTTP/1.1 200 OK"));
    EXPECT_THAT(silent.ReadAll(), StartsWith("HTTP/1.1 408 "));
    EXPECT_THAT(halting.ReadAll(), StartsWith("HTTP/1.1 408 "));
    EXPECT_EQ(camera.End(), 0);
}

TEST(CameraServiceTest, RefusesClientsBeyondItsNumber) {
    Camera camera({{"Http/Clients", Integer(2)}});
    const int nPort = camera.Port();
    const std::string request = "GET /stream.mjpg HTTP/1.1\r\n\r\n";
    const auto hasBegun = [](const std::string& text) { return CountOf(text, "--picture\r\n") > 0; };
    Client first(nPort, request);
    first.ReadUntil(hasBegun);
    {
        Client second(nPort, request);
        second.ReadUntil(hasBegun);
        EXPECT_THAT(ExpectAnswer(Get(nPort, "/"), "503 Service Unavailable", "text/plain"), "All places are taken.\n");
    }
    EXPECT_TRUE(WaitUntil([&] { return Get(nPort, "/").find("200 OK") != std::string::npos; }));
    EXPECT_TRUE(WaitUntil([&] { return NumberInStatus(nPort, "refused") >= 1; }));
    EXPECT_EQ(camera.End(), 0);
}

TEST(CameraServiceTest, SurvivesAThousandConnections) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit before = limit;
    if (limit.rlim_max < 1200) {
        GTEST_SKIP() << "a process may not have a thousand descriptors here";
    }
    // The camera has few more descriptors than it needs: refusing must not take any that last.
    limit.rlim_cur = 64;
    setrlimit(RLIMIT_NOFILE, &limit);
    Camera camera;
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
    setrlimit(RLIMIT_NOFILE, &limit);
    const int nPort = camera.Port();
    {
        std::vector<std::unique_ptr<Client>> clients;
        clients.reserve(1000);
        for (int i = 0; i < 1000; ++i) {
            clients.push_back(std::make_unique<Client>(nPort));
        }
        // Sixteen are waited for, the others are told at once.
        std::size_t nRefused = 0;
        for (const auto& pClient : clients) {
            nRefused += pClient->ReadAll().find("HTTP/1.1 503 ") == 0 ? 1 : 0;
        }
        EXPECT_GE(nRefused, 900U);
    }
    EXPECT_TRUE(WaitUntil([&] { return Get(nPort, "/").find("200 OK") != std::string::npos; }));
    EXPECT_TRUE(WaitUntil([&] { return NumberInStatus(nPort, "refused") >= 900; }));
    EXPECT_EQ(camera.End(), 0);
    EXPECT_EQ(CountOf(camera.Process().Err(), "was not accepted"), 0);
    setrlimit(RLIMIT_NOFILE, &before);
}

#if !KALVOREN_WITH_TSAN && !KALVOREN_WITH_ASAN
TEST(CameraServiceTest, ListensAnewWhenItRunsOutOfDescriptors) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit before = limit;
    limit.rlim_cur = 24;
    setrlimit(RLIMIT_NOFILE, &limit);
    Camera camera({{"Http/Clients", Integer(64)}, {"Recording/Enabled", "<false/>"}});
    setrlimit(RLIMIT_NOFILE, &before);
    const int nPort = camera.Port();
    const auto lines = [&] { return CountOf(camera.Process().Err(), "a client was not accepted; listening anew"); };
    {
        std::vector<std::unique_ptr<Client>> clients;
        clients.reserve(30);
        for (int i = 0; i < 30; ++i) {
            clients.push_back(Client::Attempt(nPort));  // refused while the camera has no listener
        }
        EXPECT_TRUE(WaitUntil([&] { return lines() > 0; }));
        const auto gone = [&] {
            return std::count_if(clients.begin(), clients.end(), [](const auto& p) { return p->HasHeard(); });
        };
        const auto nGone = gone();
        // Each of these comes to a listener of its own, and is dropped with it.
        int nDropped = 0;
        EXPECT_TRUE(WaitUntil([&] {
            const std::unique_ptr<Client> pClient = Client::Attempt(nPort);
            nDropped += pClient->IsConnected() && pClient->ReadAll().empty() ? 1 : 0;
            return nDropped == 6;
        }));
        // It says so again only where it accepted one in between, which takes the end of another.
        EXPECT_LE(lines(), 1U + static_cast<std::size_t>(gone() - nGone));
    }
    const auto answers = [&] {
        const std::unique_ptr<Client> pClient = Client::Attempt(nPort);
        if (!pClient->IsConnected()) {
            return false;
        }
        pClient->Send("GET / HTTP/1.1\r\n\r\n");
        return pClient->ReadAll().find("200 OK") != std::string::npos;
    };
    EXPECT_TRUE(WaitUntil(answers));
    EXPECT_EQ(camera.End(), 0);
}
#endif

// ------------------------------------------------------------------------------------------------------- Bad beginnings

/// Expects that a camera does not start, with exactly this for its log.
void ExpectRefusal(Camera& camera, const std::string& log) {
    EXPECT_EQ(camera.Process().Wait(), 1);
    EXPECT_EQ(camera.Process().Err(), log);
    EXPECT_EQ(camera.Process().Out(), "");
}

TEST(CameraServiceTest, ABusyPortIsRefusedWithOneLine) {
    Camera first;
    Camera second(Values(), Words{"--port", std::to_string(first.Port())});
    ExpectRefusal(second, "Error****: port " + std::to_string(first.Port()) + " is in use, or not for this user\n");
    EXPECT_EQ(access(second.SharedMemory().c_str(), F_OK), -1);
    EXPECT_EQ(first.End(), 0);
}

TEST(CameraServiceTest, AMissingPlugInIsRefusedWithOneLine) {
    Camera camera({{"Encoder/PlugIn", String("no-such-encoder")}});
    ExpectRefusal(camera, "Error****: encoder plug-in \"no-such-encoder\": libno-such-encoder.so cannot be loaded\n");
}

TEST(CameraServiceTest, APlugInOfAnotherVersionIsRefusedWithOneLine) {
    Camera camera({{"Encoder/PlugIn", String("camera-stranger")}});
    ExpectRefusal(
        camera,
        "Error****: encoder plug-in \"camera-stranger\": libcamera-stranger.so is no encoder for this camera\n");
}

TEST(CameraServiceTest, WhatKeepsItFromStartingIsToldAtAnyLogLevel) {
    Camera camera({{"Encoder/PlugIn", String("no-such-encoder")}, {"Log/Level", Integer(3)}});
    ExpectRefusal(camera, "Error****: encoder plug-in \"no-such-encoder\": libno-such-encoder.so cannot be loaded\n");
    Camera first({{"Log/Level", Integer(3)}});
    Camera second({{"Log/Level", Integer(3)}}, Words{"--port", std::to_string(first.Port())});
    ExpectRefusal(second, "Error****: port " + std::to_string(first.Port()) + " is in use, or not for this user\n");
    // From then on the level holds.
    std::string status;
    EXPECT_TRUE(WaitUntil([&] {
        return first.Control({"status"}, status) == 0 && status.find("log level 3\n") != std::string::npos;
    })) << status;
    EXPECT_EQ(first.End(), 0);
}

TEST(CameraServiceTest, AnotherCamerasChannelIsRefusedWithOneLine) {
    Camera first;
    first.Port();
    Camera second({{"Control/Channel", Integer(first.Channel())}});
    EXPECT_EQ(second.Process().Wait(), 1);
    EXPECT_THAT(
        second.Process().Err(),
        testing::MatchesRegex("Error....: channel [0-9]+ belongs to another camera \\(process [0-9]+\\); set another "
                              "Control/Channel\n"));
    EXPECT_EQ(access(first.SharedMemory().c_str(), F_OK), 0);
    EXPECT_EQ(first.End(), 0);
}

TEST(CameraServiceTest, ASocketFileThatCannotBeMadeIsRefused) {
    Camera camera({{"Control/Socket", String("/kalvoren-test/nowhere/control")}});
    EXPECT_EQ(camera.Process().Wait(), 1);
    EXPECT_THAT(camera.Process().Err(), HasSubstr("Error****: control socket /kalvoren-test/nowhere/control_" +
                                                  std::to_string(camera.Channel()) + " cannot be made\n"));
}

TEST(CameraServiceTest, ABadConfigurationIsRefusedWithFileAndKey) {
    const Values values = {{"Http/Port", Integer(70000)}, {"Picture/Wide", Integer(1)}};
    Camera camera(values);
    ExpectRefusal(camera,
                  "Error****: camera.plist: Http/Port: 70000 is not a number from 0 to 65535\n"
                  "Error****: camera.plist: Picture/Wide: there is no such setting\n");
}

TEST(CameraServiceTest, AConfigurationThatEndsEarlyIsRefusedWithFileAndLine) {
    Camera camera({{"Picture/Rate", std::string("<integer>25")}});
    EXPECT_EQ(camera.Process().Wait(), 1);
    EXPECT_THAT(camera.Process().Err(), StartsWith("Error****: camera.plist:"));
}

TEST(CameraServiceTest, BadArgumentsAreRefused) {
    for (const Words& words : std::vector<Words>{{"--port", "70000"}, {"--seconds", "x"}, {"--what"}, {"what"}}) {
        Camera camera({}, words);
        EXPECT_EQ(camera.Process().Wait(), 2);
        EXPECT_THAT(camera.Process().Err(), HasSubstr("--help"));
    }
    Camera camera(Values(), Words{"--help"});
    EXPECT_EQ(camera.Process().Wait(), 0);
    EXPECT_THAT(camera.Process().Out(), StartsWith("Usage: camera "));
}

// ------------------------------------------------------------------------------------------------------------- Recording

/// Expects that a camera serves although it cannot record, and says so once.
void ExpectServingWithoutRecording(Camera& camera, const std::string& line) {
    const int nPort = camera.Port();
    EXPECT_TRUE(
        WaitUntil([&] { return Get(nPort, "/status.json").find("\"recording\":\"paused\"") != std::string::npos; }));
    EXPECT_THAT(Get(nPort, "/snapshot.jpg"), StartsWith("HTTP/1.1 200 OK"));
    std::string answer;
    EXPECT_EQ(camera.Control({"snapshot"}, answer), 1);
    EXPECT_EQ(answer, "camera-ctl: the picture cannot be saved\n");
    EXPECT_EQ(camera.End(), 0);
    EXPECT_THAT(camera.Process().Err(), HasSubstr("Error****: recording is paused: directory " + line));
    EXPECT_EQ(CountOf(camera.Process().Err(), "recording is paused"), 1);
}

TEST(CameraServiceTest, ServesWithoutRecordingWhereTheDirectoryCannotBeMade) {
    Camera camera({{"Recording/Directory", String("camera.plist/below")}});
    ExpectServingWithoutRecording(camera, "camera.plist/below cannot be made\n");
}

TEST(CameraServiceTest, ServesWithoutRecordingWhereTheDirectoryCannotBeWritten) {
    // Nobody may make files there, not even the superuser.
    Camera camera({{"Recording/Directory", String("/proc")}});
    ExpectServingWithoutRecording(camera, "/proc cannot be written\n");
}

TEST(CameraServiceTest, ServesWithoutRecordingWhereFilesMayNotGrow) {
    // As on a full disk, writing fails; without one to fill.
    rlimit limit = {};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlim_t nBefore = limit.rlim_cur;
    limit.rlim_cur = 20000;
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &limit);
    Camera camera;
    limit.rlim_cur = nBefore;
    setrlimit(RLIMIT_FSIZE, &limit);
    std::signal(SIGXFSZ, handler);
    ExpectServingWithoutRecording(camera, "camera-data cannot be written; the disk may be full\n");
}

TEST(CameraServiceTest, ServesWithoutRecordingOnAFullDisk) {
    const std::string why = support::WhyNoHosts();
    if (!why.empty()) {
        GTEST_SKIP() << why;
    }
    // In a process of its own, whose mounts nobody else sees.
    support::InChildProcess([] {
        ScopedDirectory disk;
        ASSERT_TRUE(support::BecomeRoot());
        ASSERT_EQ(unshare(CLONE_NEWNS), 0);
        ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        ASSERT_EQ(mount("none", disk.Path().c_str(), "tmpfs", 0, "size=128k"), 0);
        Camera camera({{"Recording/Directory", String(disk.Path())}});
        ExpectServingWithoutRecording(camera, disk.Path() + " cannot be written; the disk may be full\n");
        umount(disk.Path().c_str());
    });
}

TEST(CameraServiceTest, KeepsItsDirectoryBelowItsSize) {
    Camera camera({{"Recording/LimitKilobytes", Integer(256)}});
    const int nPort = camera.Port();
    // Pictures of 32 KB: a segment has two, as it may be a quarter of the whole.
    EXPECT_TRUE(WaitUntil([&] { return NumberInStatus(nPort, "segments") > 12; }));
    EXPECT_EQ(camera.End(), 0);
    std::uintmax_t nSize = 0;
    for (const auto& entry : std::filesystem::directory_iterator(camera.Directory().Entry("camera-data"))) {
        const std::string content = ContentOf(entry.path().string());
        EXPECT_THAT(entry.path().filename().string(), testing::MatchesRegex("[0-9]{20}\\.mjpeg"));
        EXPECT_THAT(content, StartsWith(kPictureBegins));
        nSize += content.size();
    }
    EXPECT_LE(nSize, 256U * 1024);
    EXPECT_GT(nSize, 128U * 1024);
}

// --------------------------------------------------------------------------------------------------------------- Control

TEST(CameraServiceTest, TakesCommands) {
    Camera camera;
    const int nPort = camera.Port();
    EXPECT_TRUE(WaitUntil([&] { return NumberInStatus(nPort, "frames") > 2; }));
    std::string answer;
    EXPECT_EQ(camera.Control({"snapshot"}, answer), 0);
    EXPECT_THAT(answer, testing::MatchesRegex("ok camera-data/[0-9]{20}\\.jpg\n"));
    const std::string file = camera.Directory().Entry(answer.substr(3, answer.size() - 4));
    EXPECT_THAT(ContentOf(file), StartsWith(kPictureBegins));
    EXPECT_EQ(camera.Control({"rotate"}, answer), 0);
    EXPECT_EQ(answer, "ok\n");
    EXPECT_THAT(Get(nPort, "/status.json"), AllOf(HasSubstr("snapshot.saved"), HasSubstr("segment.closed")));
    EXPECT_EQ(camera.Control({"loglevel", "0"}, answer), 0);
    EXPECT_EQ(answer, "ok\n");
    EXPECT_EQ(camera.Control({"loglevel", "4"}, answer), 1);
    EXPECT_EQ(answer, "camera-ctl: no such command\n");
    EXPECT_EQ(camera.Control({"--config", "camera.plist", "loglevel", "2"}, answer), 0);
    EXPECT_TRUE(WaitUntil([&] { return NumberInStatus(nPort, "commands") == 4; }));
    EXPECT_EQ(camera.Control({"stop"}, answer), 0);
    EXPECT_EQ(answer, "ok\n");
    EXPECT_EQ(camera.Process().Wait(), 0);
}

TEST(CameraServiceTest, ShowsItsStatus) {
    Camera camera({{"Identity/Name", String("North gate")}});
    const int nPort = camera.Port();
    EXPECT_TRUE(WaitUntil([&] { return NumberInStatus(nPort, "uptime") > 0; }));
    std::string first;
    std::string second;
    EXPECT_EQ(camera.Control({"status"}, first), 0);
    EXPECT_THAT(first, AllOf(HasSubstr("name         North gate\n"),
                             HasSubstr("http://127.0.0.1:" + std::to_string(nPort) + "/\n"),
                             HasSubstr("recording    on,"), HasSubstr("last event   ")));
    // Reading does not take the state away from the next one.
    EXPECT_EQ(camera.Control({"status"}, second), 0);
    EXPECT_EQ(camera.End(), 0);
    EXPECT_EQ(camera.Control({"status"}, second), 1);
    EXPECT_EQ(second, "camera-ctl: no camera on channel " + std::to_string(camera.Channel()) + "\n");
    EXPECT_EQ(camera.Control({"rotate"}, second), 1);
    EXPECT_THAT(second, StartsWith("camera-ctl: no camera at camera-control_"));
}

TEST(CameraServiceTest, TheWatchedStatusIsOneLineDrawnAnewUntilTheCameraEnds) {
    Camera camera;
    camera.Port();
    Program watch(KALVOREN_CAMERA_CTL, Words{"status", "--watch"}, camera.Directory().Path(), "watch");
    EXPECT_TRUE(WaitUntil([&] { return CountOf(watch.Out(), "\r") >= 2; }));
    EXPECT_EQ(camera.End(), 0);
    EXPECT_EQ(watch.Wait(), 1);
    EXPECT_EQ(CountOf(watch.Out(), "\n"), 1);
    EXPECT_EQ(watch.Err(), "camera-ctl: no camera on channel " + std::to_string(camera.Channel()) + "\n");
}

TEST(CameraServiceTest, ACameraThatHangsDoesNotHoldUpItsControl) {
    Camera camera;
    camera.Port();
    camera.Process().Hold();
    std::string answer;
    EXPECT_EQ(camera.Control({"rotate"}, answer), 1);
    EXPECT_EQ(answer, "camera-ctl: the camera does not answer\n");
    camera.Process().Signal(SIGCONT);
    EXPECT_EQ(camera.Control({"loglevel", "1"}, answer), 0);
    EXPECT_EQ(camera.End(), 0);
}

TEST(CameraServiceTest, ControlRefusesBadArguments) {
    Camera camera;
    camera.Port();
    for (const Words& words : std::vector<Words>{{}, {"what"}, {"loglevel"}, {"status", "--wait"}, {"--config", "a"}}) {
        std::string answer;
        EXPECT_EQ(camera.Control(words, answer), 2);
        EXPECT_EQ(answer, "camera-ctl: see camera-ctl --help\n");
    }
    std::string answer;
    EXPECT_EQ(camera.Control({"--help"}, answer), 0);
    EXPECT_THAT(answer, StartsWith("Usage: camera-ctl "));
    EXPECT_EQ(camera.Control({"--config", "/no/such.plist", "status"}, answer), 1);
    EXPECT_EQ(answer, "camera-ctl: /no/such.plist: No such file or directory\n");
}

/// A client of the control channel that connects, sends some bytes, and stays.
class SilentPeer {
 public:
    SilentPeer(const std::string& file, const std::string& text)
        : m_nSocket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, file.c_str(), sizeof(address.sun_path) - 1);
        EXPECT_EQ(connect(m_nSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        send(m_nSocket, text.data(), text.size(), MSG_NOSIGNAL);
    }
    ~SilentPeer() { close(m_nSocket); }
    SilentPeer(const SilentPeer&) = delete;
    SilentPeer& operator=(const SilentPeer&) = delete;

 private:
    int m_nSocket;
};

TEST(CameraServiceTest, ASilentPeerOfTheControlChannelHoldsItUpForAMomentOnly) {
    Camera camera;
    camera.Port();
    const SilentPeer silent(camera.SocketFile(), "");
    const SilentPeer brief(camera.SocketFile(), "stop");
    std::string answer;
    EXPECT_EQ(camera.Control({"loglevel", "1"}, answer), 0);
    EXPECT_EQ(answer, "ok\n");
    EXPECT_EQ(camera.End(), 0);
}

// ------------------------------------------------------------------------------------------------------------------- End

TEST(CameraServiceTest, EndsBySignalsAndLeavesNothingButWhatTheLibraryKeeps) {
    for (const int nSignal : {SIGTERM, SIGINT}) {
        Camera camera({{"Log/Level", Integer(0)}});
        const int nPort = camera.Port();
        Client client(nPort, "GET /stream.mjpg HTTP/1.1\r\n\r\n");
        client.ReadUntil([](const std::string& text) { return CountOf(text, "--picture\r\n") > 1; });
        const Client silent(nPort);
        const SilentPeer peer(camera.SocketFile(), "");
        EXPECT_EQ(camera.End(nSignal), 0);
        const std::string log = camera.Process().Err();
        EXPECT_EQ(CountOf(log, "OBJ "), 2) << log;  // the tables of the two queues
        EXPECT_EQ(CountOf(log, "Error****"), 0) << log;
        EXPECT_EQ(access(camera.SharedMemory().c_str(), F_OK), -1);
        EXPECT_EQ(access(camera.SocketFile().c_str(), F_OK), -1);
    }
}

TEST(CameraServiceTest, EndsAfterTheSecondsItIsGiven) {
    Camera camera(Values(), Words{"--seconds", "1"});
    EXPECT_EQ(camera.Process().Wait(), 0);
}

TEST(CameraServiceTest, TakesOverFromACameraThatEndedBadly) {
    Camera camera;
    camera.Port();
    EXPECT_EQ(camera.End(SIGKILL), -1);
    EXPECT_EQ(access(camera.SharedMemory().c_str(), F_OK), 0);
    std::string answer;
    EXPECT_EQ(camera.Control({"status"}, answer), 1);
    EXPECT_THAT(answer, StartsWith("camera-ctl: no camera on channel "));
    camera.Start();
    EXPECT_TRUE(WaitUntil([&] { return camera.Control({"status"}, answer) == 0; }));
    EXPECT_EQ(camera.Control({"loglevel", "1"}, answer), 0);
    EXPECT_EQ(camera.End(), 0);
}

/// What a program leaves in the memory of a channel: the counting word and a record.
std::string Memory(const camera::StatusRecord& record) {
    std::string memory(520, '\0');
    std::memcpy(&memory[4], &record, sizeof(record));
    return memory;
}

TEST(CameraServiceTest, ARecordThatIsNoCamerasIsNoCamera) {
    Camera service;
    service.Port();
    EXPECT_EQ(service.End(), 0);
    camera::StatusRecord record = {};
    record.nMagic = camera::kStatusMagic + 1;
    record.nVersion = camera::kStatusVersion;
    record.nProcess = getpid();  // which is alive
    std::ofstream(service.SharedMemory()) << Memory(record);
    std::string answer;
    EXPECT_EQ(service.Control({"status"}, answer), 1);
    EXPECT_THAT(answer, StartsWith("camera-ctl: no camera on channel "));
    service.Start();
    EXPECT_TRUE(WaitUntil([&] { return service.Control({"status"}, answer) == 0; }));
    EXPECT_EQ(service.End(), 0);
}

TEST(CameraServiceTest, TheTextsOfARecordAreReadToTheirPlacesEnd) {
    Camera service;
    service.Port();
    EXPECT_EQ(service.End(), 0);
    camera::StatusRecord record = {};
    record.nMagic = camera::kStatusMagic;
    record.nVersion = camera::kStatusVersion;
    record.nProcess = getpid();
    std::memset(record.szName, 'n', sizeof(record.szName));
    std::memset(record.szLastEvent, 'e', sizeof(record.szLastEvent));
    std::ofstream(service.SharedMemory()) << Memory(record);
    std::string answer;
    EXPECT_EQ(service.Control({"status"}, answer), 0);
    EXPECT_THAT(answer, AllOf(HasSubstr("name         " + std::string(sizeof(record.szName) - 1, 'n') + "\n"),
                              HasSubstr("last event   " + std::string(sizeof(record.szLastEvent) - 1, 'e') + "\n")));
    std::filesystem::remove(service.SharedMemory());
}

}  // namespace
