// The commands of the control channel, and the records they travel in.
#ifndef CAMERA_COMMAND_H
#define CAMERA_COMMAND_H

#include <KIPC.h>
#include <KString.h>

namespace camera {

struct Command {
    enum Verb { SNAPSHOT, ROTATE, LOG_LEVEL, STOP };

    Verb eVerb;
    int nLevel;  ///< Of LOG_LEVEL.
};

/// Reads a command: "snapshot", "rotate", "loglevel N" with 0 to 3, or "stop". Returns false for anything else.
bool ParseCommand(const KString& text, Command& command);

/// Puts a text into a record, cut to what fits with a NUL behind it.
KIPC::IPCData RecordOf(const KString& text);

/// Returns the text in a record, which need not have a NUL.
KString TextOf(const KIPC::IPCData& record);

}  // namespace camera

#endif  // CAMERA_COMMAND_H
