// The camera's control channel: any bytes as the record that a client sends, and as the text that an answer is made of,
// against a table of the commands as the camera's description has them.
#include <algorithm>
#include <iterator>
#include <map>

#include "Command.h"
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
    const std::string wanted = whole.substr(0, whole.find('\0'));
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
    fuzz::ExpectSame(fuzz::TextOf(camera::TextOf(record)), cut.substr(0, cut.find('\0')), "there and back");
    CompareCommand(text, bytes);
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
    return 0;
}
