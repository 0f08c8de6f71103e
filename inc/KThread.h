/// @file
/// The mutex and the thread.
#ifndef KALVOREN_KTHREAD_H
#define KALVOREN_KTHREAD_H

#include <atomic>

#include "KTypes.h"

/// One POSIX mutex of the normal kind.
///
/// It is not recursive: a thread that locks it twice blocks for good. Unlocking from a thread that does not hold it is
/// not noticed. A mutex must be unlocked when it is destroyed; otherwise, with the checks on, the destructor fails
/// the check "nRet == 0".
///
/// Every operation first checks "pInfo", the record that holds the POSIX mutex. Where the record is missing and the
/// checks are off, the operation does nothing and returns true.
///
/// Prefer Lock(), Unlock() and TryLock(). The two timed forms have a contract of their own that is kept because
/// programs depend on it; read LockWithTimeOut() before you use either.
class KALVOREN_API KMutex {
 public:
    /// Makes an unlocked mutex (`pthread_mutexattr_init`, `pthread_mutexattr_settype`, `pthread_mutex_init`). Each of
    /// the three must succeed: check "nRet == 0".
    KMutex();

    /// Destroys the mutex (`pthread_mutex_destroy`). It must be unlocked: check "nRet == 0".
    virtual ~KMutex();

    KMutex(const KMutex&) = delete;
    KMutex& operator=(const KMutex&) = delete;

    /// Takes the mutex, waiting for as long as another thread holds it (`pthread_mutex_lock`). Always returns true.
    /// Checks "nRet == 0".
    bool Lock() const;

    /// Releases the mutex (`pthread_mutex_unlock`). Always returns true. Checks "nRet == 0".
    bool Unlock() const;

    /// Takes the mutex if it is free (`pthread_mutex_trylock`). Returns true when the caller now holds it, false when
    /// it is held already, by whichever thread.
    bool TryLock();

    /// Takes the mutex with a deadline of "now" plus @p nTimeOut microseconds (`pthread_mutex_timedlock`).
    ///
    /// On a free mutex: takes it and returns true. On a held one, @b beware:
    /// - "Now" is the wall clock in microseconds cut to a signed 32-bit number. It wraps and changes sign about every
    ///   36 minutes and lies far in the past as the system counts, so that with everyday values of @p nTimeOut the
    ///   deadline is over before the wait begins.
    /// - Of the deadline, whole seconds are handed over as they are and the remaining microseconds as nanoseconds.
    /// - When the deadline passes, the operation @b unlocks @b the @b mutex @b of @b whoever @b holds @b it and returns
    ///   true although the caller does not hold it: a time-out cannot be told from success. Once the holder unlocks
    ///   too, libc's count of users is wrong, and the destructor's check "nRet == 0" fails.
    /// - Any other failure also unlocks, and returns false: a deadline of negative microseconds is refused by libc, by
    ///   newer versions only where its whole seconds are 0. So the result on a held mutex depends on the moment.
    bool LockWithTimeOut(long long nTimeOut);

    /// As LockWithTimeOut(), with the deadline counted from a reference moment instead of from now: with @p fgReset
    /// true the reference becomes now first; with false it stays where the last reset put it (0 before the first), so
    /// that a caller can wait repeatedly against one fixed schedule. One thread at a time may use this form of a given
    /// mutex: the reference moment is not protected.
    bool LockWithSystemTimeBasedTimeOut(long long nTimeOut, bool fgReset);

 private:
    struct MutexInfo;

    KALVOREN_LOCAL bool LockUntil(long long nDeadline);

    long long m_nBaseTime;
    MutexInfo* pInfo;
};

/// One POSIX thread that runs a loop of the caller's.
///
/// Derive from KThread, override ThreadMainLoop(), and poll IsRunning() in it:
///
/// @code
/// class Sampler : public KThread {
///  public:
///     ~Sampler() override { Stop(); }  // before the derived part is gone
///
///     int ThreadMainLoop() override {
///         while (IsRunning()) {
///             m_nSamples.fetch_add(1);
///             Sleep(GetSpeed());
///         }
///         return 0;
///     }
///
///     std::atomic<int> m_nSamples{0};
/// };
/// @endcode
///
/// The owner and the loop speak through one status word only: the loop polls it, Stop() and ForceStop() write it. A
/// loop that never looks at it makes Stop(), and so the destructor, wait for ever. A derived class must call Stop() in
/// its own destructor: the base's comes too late for a loop that uses the derived part.
///
/// Every operation that needs the thread record checks "pInfo". POSIX failures are reported through the checks alone
/// ("nRet == 0"); with the checks off they are ignored and the operation returns as if it had succeeded. Nothing is
/// logged.
///
/// Thread-safety: the status operations may be called from any thread. Start(), ReStart(), Stop() and ForceStop()
/// belong to one owner at a time.
///
/// A thread cannot be copied. A copy or an assignment fails the check "0"; with the checks off a copy is a fresh,
/// stopped thread, and an assignment does nothing.
class KALVOREN_API KThread {
 public:
    /// The life of a thread.
    enum Status : int {
        RUNNING = 0,   ///< The body is in its loop.
        PAUSED = 1,    ///< The owner asked the body to pause.
        STOPPING = 2,  ///< The owner asked the body to end.
        STOPPED = 3    ///< No body runs: the state at first, and again once the body has returned.
    };

    /// The priority asked for at the start. Under the system's default policy the adjusted value is refused by the
    /// system and the thread runs at the priority of its creator, whichever was asked for.
    enum Priority : int {
        HIGH = 0,    ///< The scheduling priority plus 5.
        NORMAL = 1,  ///< The scheduling priority as it is; so does any other value.
        LOW = 2      ///< The scheduling priority minus 5.
    };

    /// The type of the callback that Start() and ReStart() accept and never call.
    typedef int (*Callback)(void*, void*, int, void*, int);

    /// Makes a stopped thread with a speed of 10 milliseconds and the system's default stack size.
    KThread();

    /// Calls Stop(), and so waits for a running body to end.
    virtual ~KThread();

    /// Copying fails the check "0". With the checks off, a copy is a new object and an assignment does nothing.
    KThread(const KThread&);
    KThread& operator=(const KThread&);

    /// Starts the thread (`pthread_create`, joinable); its body calls ThreadMainLoop() once.
    ///
    /// @p nSpeed (milliseconds, see SetSpeed()) and @p nStackSize (bytes, -1 for the system's default) are stored
    /// first, even when the start is then refused. Returns false when the status is not STOPPED, true otherwise, also
    /// when the system could not create the thread and the checks are off. @p callback is accepted and never called.
    ///
    /// The status becomes RUNNING when the new thread takes its first step, not before. In the short time until then
    /// IsRunning() is false and a second Start() is accepted, which would run two bodies on one object: do not start
    /// twice. A Stop() in that time is not lost: the body then finds IsRunning() false.
    ///
    /// @b Beware: a body that has ended by itself keeps its stack until it is waited for. Call Stop() or ReStart() then too;
    /// after Start() alone nobody can wait for it any more.
    ///
    /// The thread's exit value is the address of the text "Thread END".
    bool Start(int nSpeed, Priority ePriority, int nStackSize, Callback callback);

    /// Stop(), then Start() with the same arguments. Returns false when either does.
    bool ReStart(int nSpeed, Priority ePriority, int nStackSize, Callback callback);

    /// Asks the body to end and waits until it has (`pthread_join`), however long that takes. Returns true, at once
    /// when the thread was never started or has been waited for already; false when the record is missing. Called
    /// by the body itself, it does not wait.
    bool Stop();

    /// Cancels the body at its next cancellation point (`pthread_cancel`; in the default loop that is the sleep) and
    /// waits until it has ended. Returns true; false when the record is missing. Cancelling a thread that was never
    /// started, or has been waited for already, is a failed cancel: check "nRet == 0". A failed wait fails the check
    /// "nRet == 0 || nRet == 3".
    ///
    /// @b Beware: a body that is cancelled within a destructor ends the process, as C++ has it (`std::terminate`): that of
    /// another KThread, which waits, or of a KIPC, which closes, among them.
    virtual bool ForceStop();

    /// The body. This default sleeps in steps of GetSpeed() while the thread runs; while it is paused it polls without
    /// sleeping and so keeps a processor busy. The result is ignored.
    virtual int ThreadMainLoop();

    /// Asks the body to pause. Returns false when the thread is stopping or stopped; true otherwise, also when it is
    /// paused already. A Stop() at the same moment is not undone.
    bool Pause();

    /// Returns true on a paused thread, which @b stays @b paused; false on any other. To let a paused body go on, call
    /// `SetStatus(KThread::RUNNING)`.
    bool Resume();

    /// Returns true while the status is PAUSED.
    bool IsPaused();

    /// Returns true while the status is RUNNING or PAUSED.
    bool IsRunning();

    /// Stores the status.
    void SetStatus(Status eStatus);

    /// Returns the status.
    Status GetStatus() const;

    /// Stores how many milliseconds the default loop sleeps between two looks at the status. Checks "milSec >= 0"; with
    /// the checks off a negative value is stored, and the default loop then sleeps for what is left of the microseconds in
    /// 32 bits: -1 is more than an hour, -4294967 is 296 microseconds.
    void SetSpeed(int nMilliseconds);

    /// Returns the speed in milliseconds.
    int GetSpeed() const;

    /// Stores the stack size in bytes for the next start; -1 keeps the system's default.
    void SetStackSize(int nBytes);

    /// Returns the stack size stored last.
    int GetStackSize() const;

    /// Sleeps for @p nMilliseconds (`usleep`). Returns what `usleep` returns: 0, or -1 when a signal ended it early.
    static int Sleep(int nMilliseconds);

 private:
    struct ThreadInfo;
    struct ThreadState;

    KALVOREN_LOCAL static void* Run(void* pArgument);
    KALVOREN_LOCAL ThreadState* State() const;

    std::atomic<Status> m_eStatus;
    std::atomic<int> m_nSpeed;
    int m_nStackSize;
    int m_nReserved[2] __attribute__((unused));
    ThreadInfo* pInfo;
};

#endif  // KALVOREN_KTHREAD_H
