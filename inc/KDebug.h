/// @file
/// The debug log.
#ifndef KALVOREN_KDEBUG_H
#define KALVOREN_KDEBUG_H

#include "KThread.h"
#include "KTypes.h"

class KString;
class KTime;

/// Which lines are written. A program sets it directly, at any time:
///
/// | value | `Error` | `Debug` | `Log` |
/// |---|---|---|---|
/// | 0 or less (0 is the default) | written | written | written |
/// | 1 | written | written | dropped |
/// | 2 | written | dropped | dropped |
/// | 3 or more | dropped | dropped | dropped |
///
/// KDebug::Time is written at every level.
extern KALVOREN_API int g_eDebugLevel;

/// A block of 1,048,576 bytes that marks the log as initialised. Null before; its contents are never used.
extern KALVOREN_API tchar* g_pDebugFormat;

/// The block of 1,048,576 bytes into which every message is rendered. Null before the log is initialised.
extern KALVOREN_API tchar* g_pDebugBuffer;

/// Serialises the rendering and writing of messages. It is not recursive: a thread that holds it and logs blocks for
/// good.
extern KALVOREN_API KMutex g_Mutex;

/// The debug log: error, debug and log lines on standard error, filtered by ::g_eDebugLevel.
///
/// A line looks like this:
///
///     Error****: File Open[/etc/device.plist]
///     Debug: 3 streams
///     Log[2024/05/06 14:20:07:123456 1]KEntry Create
///     Time:2024/05/06 14:20:07:123456 1
///
/// The stamp is date, time, microseconds and week day (0 is Sunday). @b It @b runs @b 64 @b hours @b and @b 30
/// @b minutes @b ahead of UTC.
///
/// A message has at most 1,048,575 characters. A longer one fails the check "0"; with the checks off it is dropped.
/// `Log` has written its stamp by then, so that a dropped log message leaves its stamp behind. A message that libc cannot
/// render to its end (`%ls` with a character that the locale lacks) is written up to there.
///
/// The buffers are made by Init() or by the first message. If the memory for one of them is lacking, neither is made, the
/// message is dropped, and the next one asks for it again. No operation ever reports a failure: all return true.
///
/// Thread-safety: any thread may write a message; messages are not mixed. A log line's stamp is written before the
/// lock is taken, so that another thread's message may come between a stamp and its message. Init() and Deinit() are
/// not protected: call them while no other thread logs. So it is when a message makes the buffers: where several
/// threads write the first one at once, each makes a pair, and all but one are leaked. KEntry::Init() makes them.
///
/// The log cannot be copied: a copy or an assignment fails the check "0" and, with the checks off, does nothing.
class KALVOREN_API KDebug {
 public:
    KDebug();

    /// Copying fails the check "0". With the checks off, a copy is a new object and an assignment does nothing.
    KDebug(const KDebug&);
    KDebug& operator=(const KDebug&);

    virtual ~KDebug();

    /// Makes both blocks (`malloc`), or neither where memory is lacking. Called twice without Deinit() between, it leaks
    /// the first pair.
    static void Init();

    /// Frees both blocks. May be repeated. A message after it makes new ones.
    static void Deinit();

    /// Writes "Error****: ", the message and a line feed, at levels up to 2. Returns true.
    static bool Error(const tchar* format, ...) KALVOREN_PRINTF(1, 2);

    /// Writes "Debug: ", the message and a line feed, at levels up to 1. Returns true.
    static bool Debug(const tchar* format, ...) KALVOREN_PRINTF(1, 2);

    /// Writes the stamp, the message and a line feed, at levels up to 0. Returns true.
    static bool Log(const tchar* format, ...) KALVOREN_PRINTF(1, 2);

    /// The same with a text that is written as it stands: a `%` in it means itself.
    static bool Error(const KString& text);
    /// @copydoc Error(const KString&)
    static bool Debug(const KString& text);
    /// @copydoc Error(const KString&)
    static bool Log(const KString& text);

    /// Writes "Time:", the stamp of @p time and a line feed, at every level and without the lock. Returns true.
    static bool Time(const KTime& time);
};

#endif  // KALVOREN_KDEBUG_H
