/// @file
/// Start-up and shut-down.
#ifndef KALVOREN_KENTRY_H
#define KALVOREN_KENTRY_H

#include "KTypes.h"

/// Starts the library and shuts it down. A program calls Init() before anything else of the library, and Deinit() last.
///
/// @code
/// int main(int argc, char** argv) {
///     KEntry::Init(argc, argv);
///     // the program
///     KEntry::Deinit();
/// }
/// @endcode
///
/// Starting and stopping may be repeated any number of times. The log's buffers are made by the start, whether or not a line
/// that was logged before has made a pair: that first pair is lost, about 2 MB of address space of which little was touched.
///
/// Thread-safety: none. Call both from one thread, while no other uses the library.
///
/// It cannot be copied: a copy or an assignment fails the check "0"; with the checks off neither starts anything.
class KALVOREN_API KEntry {
 public:
    /// Starts the library, unless it is started, and returns the instance. The arguments are not used.
    ///
    /// In this order: the locale (English), the checks on, the log, the log line "KEntry Create", the allocation registry,
    /// the modules for directories, system information and sockets; then system information gathers hardware and operating
    /// system twice, the user, the disks and the storage paths. A step that fails does not stop the others.
    static KEntry* Init(int argc, char** argv);

    /// Shuts the library down, if it is started: the modules for sockets, directories and system information, the allocation
    /// registry, which writes its leak report into the log and checks that nothing is left, the log, and the checks off. The
    /// locale stays.
    static void Deinit();

    /// Starts the library; programs call Init().
    KEntry(int argc, char** argv);

    /// Copying fails the check "0". With the checks off, a copy is a new object and an assignment does nothing. The end of a
    /// copy shuts the library down like the end of the original.
    KEntry(const KEntry&);
    KEntry& operator=(const KEntry&);

    /// Shuts the library down; programs call Deinit().
    virtual ~KEntry();

 private:
    KALVOREN_LOCAL static KEntry* g_pHandle;
};

#endif  // KALVOREN_KENTRY_H
