#include "Command.h"

#include <algorithm>
#include <cstring>

namespace camera {

bool ParseCommand(const KString& text, Command& command) {
    struct Word {
        const char* pszText;
        Command command;
    };
    static constexpr Word kWords[] = {
        {"snapshot", {Command::SNAPSHOT, 0}},
        {"rotate", {Command::ROTATE, 0}},
        {"loglevel 0", {Command::LOG_LEVEL, 0}},
        {"loglevel 1", {Command::LOG_LEVEL, 1}},
        {"loglevel 2", {Command::LOG_LEVEL, 2}},
        {"loglevel 3", {Command::LOG_LEVEL, 3}},
        {"stop", {Command::STOP, 0}},
    };
    for (const Word& word : kWords) {
        if (text == word.pszText) {
            command = word.command;
            return true;
        }
    }
    return false;
}

KIPC::IPCData RecordOf(const KString& text) {
    KIPC::IPCData record = {};
    const std::size_t nSize = std::min(static_cast<std::size_t>(text.Length()), sizeof(record.bytes) - 1);
    std::memcpy(record.bytes, text.GetBuffer(), nSize);
    return record;
}

KString TextOf(const KIPC::IPCData& record) {
    const char* const pText = reinterpret_cast<const char*>(record.bytes);
    return KString(pText, static_cast<int>(strnlen(pText, sizeof(record.bytes))));
}

}  // namespace camera
