/// @file
/// The switch for the library's precondition checks.
#ifndef KALVOREN_KASSERT_H
#define KALVOREN_KASSERT_H

#include "KTypes.h"

/// The process-wide switch that every precondition check of the library consults.
///
/// While the switch is on, an operation whose precondition does not hold ends the process through libc's
/// `__assert_fail`, which prints the condition's text, the source (`src/api/KString`), the line and the operation's
/// full signature, and aborts. While it is off, the same operation takes the quiet way that its own documentation
/// states: usually a false result, or a true result with nothing done.
///
/// The switch is off when the library is loaded, on from KEntry::Init to KEntry::Deinit, and read afresh at every
/// check, so a program may turn it off at any time to silence all later checks.
///
/// Thread-safety: every operation may be called from any thread. A change is seen by other threads soon, in no
/// particular order with anything else.
class KALVOREN_API KAssert {
 public:
    /// The kind of checking asked for. It is accepted everywhere and has no effect.
    enum KAssertType : int {
        ASSERT_DEFAULT = 0  ///< What start-up passes.
    };

    KAssert();
    virtual ~KAssert();

    /// Turns the checks on. @p type has no effect.
    static void Init(KAssertType type);

    /// Turns the checks off.
    static void Deinit();

    /// Turns the checks on (true) or off (false).
    static void SetActive(bool fgActive);

    /// Returns true while the checks are on.
    static bool GetActive();

    /// Does nothing: no value of @p type changes anything, and GetActive() stays as it is.
    static void SetType(KAssertType type);

 private:
    KALVOREN_LOCAL static bool g_fgAssertActive;
};

#endif  // KALVOREN_KASSERT_H
