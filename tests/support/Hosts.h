// Hosts of a network of a test's own: each has its own network, names and host name (Linux namespaces), and nothing reaches
// the machine's network. Where the system does not allow them, the test is skipped with a message.
#ifndef KALVOREN_TESTS_HOSTS_H
#define KALVOREN_TESTS_HOSTS_H

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <queue>
#include <string>
#include <thread>
#include <utility>

#include "Support.h"

namespace support {

/// Where a host cannot be made, the step that failed: the exit status of the attempt.
enum class HostStep : int { NONE = 0, USER = 10, NAMESPACES = 11, MOUNTS = 12, LINK = 13 };

/// Lets the process make namespaces. Root can; anyone else becomes root of a user namespace, which takes a process of one
/// thread.
inline bool BecomeRoot() {
    if (geteuid() == 0) {
        return true;
    }
    const std::string strUser = std::to_string(geteuid());
    const std::string strGroup = std::to_string(getegid());
    if (unshare(CLONE_NEWUSER) != 0) {
        return false;
    }
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << strUser << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << strGroup << " 1";
    return geteuid() == 0;
}

/// Moves the calling thread into namespaces of its own, without any link to others.
inline HostStep LeaveTheMachine() {
    if (unshare(CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWUTS) != 0) {
        return HostStep::NAMESPACES;
    }
    return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 ? HostStep::NONE : HostStep::MOUNTS;
}

/// Runs a shell command in the calling thread's namespaces.
inline bool Shell(const std::string& strCommand) {
    return std::system((strCommand + " >/dev/null 2>&1").c_str()) == 0;
}

/// Why hosts cannot be made here; empty when they can.
inline std::string WhyNoHosts() {
    const pid_t nChild = fork();
    if (nChild == 0) {
        HostStep eStep = BecomeRoot() ? LeaveTheMachine() : HostStep::USER;
        if (eStep == HostStep::NONE && !Shell("ip link add here type veth peer name there")) {
            eStep = HostStep::LINK;
        }
        _exit(static_cast<int>(eStep));
    }
    int nStatus = -1;
    waitpid(nChild, &nStatus, 0);
    switch (static_cast<HostStep>(WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1)) {
        case HostStep::NONE:
            return "";
        case HostStep::USER:
            return "this user may not make user namespaces here";
        case HostStep::NAMESPACES:
            return "network namespaces may not be made here";
        case HostStep::MOUNTS:
            return "mounts cannot be made private here";
        case HostStep::LINK:
            return "virtual Ethernet links cannot be made here, or the program ip (Debian: iproute2) is missing";
    }
    return "the attempt to make a network namespace ended badly";
}

/// One host: a thread in namespaces of its own, which does what it is told.
class Host {
 public:
    /// @p strNames is the content of its file of host names.
    Host(const ScopedDirectory& directory, const std::string& strName, const std::string& strNames)
        : m_nThread(0), m_fgEnd(false), m_Thread([this] { Work(); }) {
        const std::string strFile = directory.File(strName, strNames);
        Do([&] {
            m_nThread = static_cast<pid_t>(syscall(SYS_gettid));
            EXPECT_EQ(LeaveTheMachine(), HostStep::NONE);
            EXPECT_EQ(mount(strFile.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr), 0);
            EXPECT_EQ(sethostname(strName.c_str(), strName.size()), 0);
        });
        Run("ip link set lo up");
    }

    ~Host() {
        Push([this] { m_fgEnd = true; });
        m_Thread.join();
    }

    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    /// Starts a piece of code on this host, after what was started before.
    template <typename Code>
    auto Start(Code code) -> std::future<decltype(code())> {
        auto pTask = std::make_shared<std::packaged_task<decltype(code())()>>(std::move(code));
        Push([pTask] { (*pTask)(); });
        return pTask->get_future();
    }

    /// Runs a piece of code on this host and waits for its result.
    template <typename Code>
    auto Do(Code code) -> decltype(code()) {
        return Start(std::move(code)).get();
    }

    /// Runs a shell command on this host.
    void Run(const std::string& strCommand) {
        EXPECT_TRUE(Do([&] { return Shell(strCommand); })) << strCommand;
    }

    /// Links this host to another one by a cable of two ends with addresses. The other end is called eth0.
    void LinkTo(Host& other, const std::string& strOwn, const std::string& strOwnAddress,
                const std::string& strOtherAddress) {
        Run("ip link add " + strOwn + " type veth peer name eth0 netns " + std::to_string(other.m_nThread));
        Run("ip address add " + strOwnAddress + "/24 broadcast + dev " + strOwn);
        Run("ip link set " + strOwn + " up");
        other.Run("ip address add " + strOtherAddress + "/24 broadcast + dev eth0");
        other.Run("ip link set eth0 up");
    }

 private:
    void Push(std::function<void()> task) {
        {
            const std::lock_guard<std::mutex> lock(m_Mutex);
            m_Tasks.push(std::move(task));
        }
        m_Changed.notify_one();
    }

    std::function<void()> Pop() {
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Changed.wait(lock, [this] { return !m_Tasks.empty(); });
        std::function<void()> task = std::move(m_Tasks.front());
        m_Tasks.pop();
        return task;
    }

    void Work() {
        while (!m_fgEnd) {
            Pop()();
        }
    }

    pid_t m_nThread;
    bool m_fgEnd;
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::queue<std::function<void()>> m_Tasks;
    std::thread m_Thread;
};

/// A centre with a cable to each of two leaves, "left" and "right" at its end. Nothing is passed on between them. Every host knows the names "centre", "left" and "right".
class Network {
 public:
    static constexpr const char* kCentreToLeft = "192.0.2.1";
    static constexpr const char* kLeft = "192.0.2.2";
    static constexpr const char* kCentreToRight = "198.51.100.1";
    static constexpr const char* kRight = "198.51.100.2";

    Network()
        : m_Centre(m_Directory, "centre", Names()),
          m_Left(m_Directory, "left", Names()),
          m_Right(m_Directory, "right", Names()) {
        m_Centre.LinkTo(m_Left, "left", kCentreToLeft, kLeft);
        m_Centre.LinkTo(m_Right, "right", kCentreToRight, kRight);
    }

    Host& Centre() { return m_Centre; }
    Host& Left() { return m_Left; }
    Host& Right() { return m_Right; }

 private:
    static std::string Names() {
        return std::string("127.0.0.1 localhost\n") + kCentreToLeft + " centre\n" + kCentreToRight + " centre\n" +
               kLeft + " left\n" + kRight + " right\n";
    }

    ScopedDirectory m_Directory;
    Host m_Centre;
    Host m_Left;
    Host m_Right;
};

/// Runs a test in a network. It runs in a process of its own, started afresh, which makes the namespaces while it has one
/// thread. It has to be all that the test does.
inline void InANetwork(const std::function<void(Network&)>& test) {
    const std::string strWhyNot = WhyNoHosts();
    if (!strWhyNot.empty()) {
        GTEST_SKIP() << strWhyNot;
    }
    const auto run = [&test] {
        EXPECT_TRUE(BecomeRoot());
        {
            Network network;
            test(network);
        }
        std::exit(testing::Test::HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

}  // namespace support

#endif  // KALVOREN_TESTS_HOSTS_H
