// Second processes for tests: code that runs in a child of the test's own, and signals between the two.
#ifndef KALVOREN_TESTS_PROCESS_H
#define KALVOREN_TESTS_PROCESS_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "LeaveProcess.h"

namespace support {

/// A piece of code in a process of its own: a copy of this one that ends with the code, without exit handlers. An
/// expectation that fails there is reported there and shows in the process's end.
class ChildProcess {
 public:
    static constexpr int kPassed = 0;
    static constexpr int kFailed = 1;
    static constexpr int kKilled = -1;

    template <typename Code>
    explicit ChildProcess(const Code& code) : m_nProcess((std::fflush(nullptr), fork())) {
        if (m_nProcess == 0) {
            // It must not outlive a test that was ended.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            code();
            std::fflush(nullptr);
            LeaveProcess(testing::Test::HasFailure() ? kFailed : kPassed);
        }
        EXPECT_GT(m_nProcess, 0);
    }
    ~ChildProcess() { Kill(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// Waits for the end: kPassed, kFailed or whatever else the code ended the process with; kKilled by a signal.
    int Wait() {
        int nStatus = 0;
        if (m_nProcess <= 0 || waitpid(m_nProcess, &nStatus, 0) != m_nProcess) {
            return kFailed;
        }
        m_nProcess = 0;
        m_nSignal = WIFSIGNALED(nStatus) ? WTERMSIG(nStatus) : 0;
        return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : kKilled;
    }

    /// The signal that ended the process, once that was waited for; 0 where none did.
    int Signal() const { return m_nSignal; }

    /// Ends the process wherever it is, as a crash or a power switch would, and waits for its end.
    void Kill() {
        if (m_nProcess > 0) {
            kill(m_nProcess, SIGKILL);
            Wait();
        }
    }

 private:
    pid_t m_nProcess;
    int m_nSignal = 0;
};

/// Runs a piece of code in a process of its own, so that what it does to the process ends with it.
template <typename Code>
void InChildProcess(const Code& code) {
    ChildProcess child(code);
    EXPECT_EQ(child.Wait(), ChildProcess::kPassed) << "see above for what failed in the child process";
}

/// Lets one process wait until the other has got somewhere. Made before the second process.
class Gate {
 public:
    Gate() { EXPECT_EQ(pipe2(m_nPipe, O_CLOEXEC), 0); }
    ~Gate() {
        close(m_nPipe[0]);
        close(m_nPipe[1]);
    }
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    /// Lets one call of Pass() return.
    void Open() { EXPECT_EQ(write(m_nPipe[1], "", 1), 1); }

    /// Waits for Open(). Fails rather than wait for a process that will never call it.
    void Pass() {
        constexpr int kPatience = 120 * 1000;
        pollfd poller = {m_nPipe[0], POLLIN, 0};
        char ch = 0;
        EXPECT_EQ(poll(&poller, 1, kPatience), 1) << "the other process never came this far";
        EXPECT_EQ(poller.revents & POLLIN ? read(m_nPipe[0], &ch, 1) : 0, 1);
    }

 private:
    int m_nPipe[2] = {-1, -1};
};

}  // namespace support

#endif  // KALVOREN_TESTS_PROCESS_H
