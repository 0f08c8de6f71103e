// The camera's control channel: any bytes as the record that a client sends, and as the text that an answer is made of,
// against a table of the commands as the camera's description has them; and any bytes as what a client sends over the socket.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <iterator>
#include <map>

#include "Command.h"
#include "Control.h"
#include "Fuzz.h"

namespace {

using camera::Command;

struct Meaning {
    int nVerb;
    int nLevel;
};

/// Every text that is a command, to the byte: no blanks around it, no other case, nothing behind it.
const std::map<std::string, Meaning>& Commands() {
    static const std::map<std::string, Meaning> commands = [] {
        std::map<std::string, Meaning> all = {
            {"snapshot", {Command::SNAPSHOT, 0}}, {"rotate", {Command::ROTATE, 0}}, {"stop", {Command::STOP, 0}}};
        for (int nLevel = 0; nLevel <= 3; ++nLevel) {
            all["loglevel " + std::to_string(nLevel)] = {Command::LOG_LEVEL, nLevel};
        }
        return all;
    }();
    return commands;
}

/// Reads a text as the camera does, into a command that already says something else.
void CompareCommand(const KString& given, const std::string& text) {
    constexpr Meaning kBefore = {Command::STOP, 77};
    Command command = {Command::STOP, kBefore.nLevel};
    const auto found = Commands().find(text);
    const bool fgKnown = found != Commands().end();
    const Meaning wanted = fgKnown ? found->second : kBefore;
    fuzz::ExpectSame(camera::ParseCommand(given, command), fgKnown, "whether it is a command");
    fuzz::ExpectSame(static_cast<int>(command.eVerb), wanted.nVerb, "verb");
    fuzz::ExpectSame(command.nLevel, wanted.nLevel, "level");
}

/// What a client sends: so many bytes as a record has, or fewer with the same byte behind them all the way.
void CompareRecord(const std::string& bytes, unsigned char chBehind) {
    KIPC::IPCData record;
    std::fill(std::begin(record.bytes), std::end(record.bytes), chBehind);
    std::string whole(sizeof(record.bytes), static_cast<char>(chBehind));
    for (std::size_t n = 0; n < bytes.size() && n < sizeof(record.bytes); ++n) {
        record.bytes[n] = static_cast<unsigned char>(bytes[n]);
        whole[n] = bytes[n];
    }
    const std::string wanted = fuzz::Plain(whole);
    const KString text = camera::TextOf(record);
    fuzz::ExpectSame(fuzz::TextOf(text), wanted, "the text in a record");
    CompareCommand(text, wanted);
}

/// What a client, or the camera, puts into a record, and what the other side takes out of it.
void CompareText(const std::string& bytes) {
    const KString text = fuzz::Made(bytes);
    const KIPC::IPCData record = camera::RecordOf(text);
    const std::string cut = bytes.substr(0, sizeof(record.bytes) - 1);
    std::string wanted = cut;
    wanted.resize(sizeof(record.bytes), '\0');
    fuzz::ExpectSame(std::string(std::begin(record.bytes), std::end(record.bytes)), wanted, "the record of a text");
    fuzz::ExpectSame(fuzz::TextOf(camera::TextOf(record)), fuzz::Plain(cut), "there and back");
    CompareCommand(text, bytes);
}

constexpr std::size_t kRecord = sizeof(KIPC::IPCData);
constexpr char kHeard[] = "heard: ";

/// What a client does when it has sent its bytes.
enum class Then { WAITS, STOPS_SENDING, LEAVES };

/// A control channel that answers what it heard. Its socket file is opened and removed at once: clients reach it through the
/// descriptor, and nothing is left of it, however the process ends.
class Channel {
 public:
    Channel()
        : m_Directory(MadeDirectory()), m_nAnswers(0), m_Control(Place(), [this](const KString& command) {
              ++m_nAnswers;
              return KString(kHeard) + command;
          }) {
        // As the camera does: a client may leave before its answer.
        signal(SIGPIPE, SIG_IGN);
        fuzz::Expect(ServeWithoutAlarms(), "the channel is made");
        const std::string file = m_Directory + "/control_0";
        const int nFile = open(file.c_str(), O_PATH | O_CLOEXEC);
        const bool fgGone = unlink(file.c_str()) == 0 && rmdir(m_Directory.c_str()) == 0;
        fuzz::Expect(nFile >= 0 && fgGone, "its socket file is there, and removed");
        m_Address.sun_family = AF_UNIX;
        std::snprintf(m_Address.sun_path, sizeof(m_Address.sun_path), "/proc/self/fd/%d", nFile);
    }
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    /// Sends bytes as a client, at once. Returns all that comes back until the channel closes the connection.
    std::string Exchange(const std::string& bytes, Then eThen) {
        const int nSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        fuzz::Expect(connect(nSocket, reinterpret_cast<const sockaddr*>(&m_Address), sizeof(m_Address)) == 0,
                     "the channel is reached");
        fuzz::Expect(send(nSocket, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()),
                     "the client sends");
        if (eThen == Then::STOPS_SENDING) {
            shutdown(nSocket, SHUT_WR);
        }
        std::string answer;
        char buffer[2 * kRecord];
        // The end may be an error: bytes that the channel did not read are lost.
        bool fgMore = eThen != Then::LEAVES;
        while (fgMore) {
            const ssize_t nRead = read(nSocket, buffer, sizeof(buffer));
            answer.append(buffer, nRead > 0 ? static_cast<std::size_t>(nRead) : 0);
            fgMore = nRead > 0 || (nRead < 0 && errno == EINTR);
        }
        close(nSocket);
        return answer;
    }

    int Answers() const { return m_nAnswers; }

 private:
    static std::string MadeDirectory() {
        const char* const pszParent = std::getenv("TMPDIR");
        std::string path = std::string(pszParent != nullptr ? pszParent : "/tmp") + "/kalvoren-fuzz-XXXXXX";
        fuzz::Expect(mkdtemp(&path[0]) != nullptr, "there is a directory");
        return path;
    }

    /// The fuzzer looks at its clock by an alarm, which would end a wait of the channel's thread.
    bool ServeWithoutAlarms() {
        sigset_t alarms, before;
        sigemptyset(&alarms);
        sigaddset(&alarms, SIGALRM);
        pthread_sigmask(SIG_BLOCK, &alarms, &before);
        const bool fgServes = m_Control.Serve();
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        return fgServes;
    }

    camera::Settings Place() const {
        camera::Settings settings;
        settings.socket = fuzz::Made(m_Directory + "/control");
        settings.nChannel = 0;
        return settings;
    }

    const std::string m_Directory;
    std::atomic<int> m_nAnswers;
    camera::Control m_Control;
    sockaddr_un m_Address = {};
};

/// A client gets an answer exactly when its first bytes are a whole record: the answer to that.
void CompareExchange(Channel& channel, const std::string& bytes, Then eThen) {
    static int nAnswers = 0;
    const bool fgWhole = bytes.size() >= kRecord;
    const std::string command = bytes.substr(0, kRecord);
    std::string wanted = (kHeard + fuzz::Plain(command)).substr(0, kRecord - 1);
    wanted.resize(kRecord, '\0');
    nAnswers += fgWhole ? 1 : 0;
    const std::string got = channel.Exchange(bytes, eThen);
    fuzz::ExpectSame(got, fgWhole && eThen != Then::LEAVES ? wanted : "", "what comes back");
    if (eThen != Then::LEAVES) {
        // Clients come one after the other, so that those who left have been heard by now.
        fuzz::ExpectSame(channel.Answers(), nAnswers, "commands that were heard");
    }
}

/// Bytes as they come; a whole record, alone and with the bytes once more behind it; and clients that do not wait. No client
/// stays silent: that would take the channel two seconds.
void CompareChannel(const std::string& bytes) {
    static Channel channel;
    std::string record = bytes;
    record.resize(kRecord, '\0');
    CompareExchange(channel, bytes, Then::LEAVES);
    CompareExchange(channel, record, Then::LEAVES);
    CompareExchange(channel, bytes, bytes.empty() ? Then::STOPS_SENDING : Then::WAITS);
    CompareExchange(channel, record, Then::WAITS);
    CompareExchange(channel, record + bytes, Then::WAITS);
    CompareExchange(channel, record.substr(0, kRecord - 1), Then::STOPS_SENDING);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes) {
    fuzz::BeQuiet();
    const std::string bytes(pBytes, pBytes + nBytes);
    CompareRecord(bytes, '\0');
    CompareRecord(bytes, ' ');
    CompareRecord(bytes, bytes.empty() ? 0xFF : static_cast<unsigned char>(bytes.back()));
    CompareText(bytes);
    // As long as a record and longer, which few inputs are.
    std::string longer;
    while (!bytes.empty() && longer.size() <= sizeof(KIPC::IPCData)) {
        longer += bytes;
    }
    CompareText(longer);
    // More than a connection has room for would have to be sent in pieces.
    constexpr std::size_t kMost = 8 * kRecord;
    CompareChannel(bytes.substr(0, kMost));
    return 0;
}
