// Makes the library's calls of libc fail, one at a time. The calls are caught in the library's import table, so that exactly
// those that the library makes itself are counted: not libc's own, nor the test's.
#ifndef KALVOREN_TESTS_TORTURE_FAULTS_H
#define KALVOREN_TESTS_TORTURE_FAULTS_H

#include <cstddef>
#include <initializer_list>
#include <iosfwd>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace torture {

/// Which call is to fail, counted from 1 (0: none), and in which of the ways that the function called can fail.
struct Fault {
    int nCall;
    int nWay;
};

/// What came of a run. Kept where a child process can fill it in.
struct Outcome {
    bool fgFailed;         ///< Whether the call was made, and failed.
    int nWays;             ///< In how many ways the function can fail.
    char szFunction[64];   ///< Its name.
    int nError;            ///< The error number, or kShort, or kNothing.
    bool fgRefused;        ///< Whether a check of the library ended the process.
    char szRefusal[1024];  ///< "signature: condition" of the check.
    bool fgMayBeRefused;   ///< Whether a check may end the process: it is one of the run's own.
};

/// In place of an error number: half of the bytes are transferred.
constexpr int kShort = -1;
/// In place of an error number: the end of what there is to read, or the end of a wait.
constexpr int kNothing = -2;
/// In place of an error number: a wait that ends for an error of the socket, or because the peer hung up.
constexpr int kSocketError = -3;
constexpr int kHangUp = -4;
/// In place of an error number: a wait that ends because the descriptor is not open.
constexpr int kNotOpen = -5;

/// The names under which an `fwrite` to standard error and the rendering of a message of the log fail.
constexpr char kWriteOfALine[] = "fwrite of a line";
constexpr char kRenderingOfALine[] = "vsnprintf of a line";

/// Puts itself between the library and libc, once.
void Install();

/// The functions that the library imports and that are known neither to fail nor to be unable to.
std::vector<std::string> UnknownImports();

/// What this program has from other objects, as it is written in C++.
std::set<std::string> ImportsOfTheProgram();

/// The functions that the library imports, that can fail, and that no step of a run without faults has called since
/// ForgetWhatWasReached(), here or in a child process.
std::vector<std::string> UnreachedImports();
void ForgetWhatWasReached();

/// The calls of functions that can fail that no step has made since ForgetWhatWasReached(), with or without faults. They are
/// found in the library's machine code; where that is not of a known kind, none is.
std::vector<std::string> UnreachedCalls();

/// Starts a run, and gives its outcome so far.
void Begin(const Fault& fault, bool fgMayBeRefused);
Outcome& TheOutcome();

/// What the library holds: a run must leave as much behind as it found.
struct Holdings {
    std::size_t nBlocks;  ///< Of memory.
    std::size_t nMappings;
    std::size_t nDescriptors;
    std::size_t nThreads;      ///< That were made and not waited for.
    std::size_t nLibraries;    ///< That were loaded and not unloaded.
    std::size_t nSharedNames;  ///< Of shared memory.

    bool operator==(const Holdings& other) const;
};
Holdings operator+(const Holdings& left, const Holdings& right);
void PrintTo(const Holdings& holdings, std::ostream* pOut);
Holdings TakeStock();

/// Says that a run leaves exactly so many of something behind, where the library says that it does.
void LeavesBlocks(std::size_t nBlocks);
void LeavesMappings(std::size_t nMappings);
void LeavesDescriptors(std::size_t nDescriptors);
void LeavesThreads(std::size_t nThreads);
Holdings LeftBehind();
/// Takes a block out of the account that the test itself frees.
void Forget(const void* pBlock);
/// Once the account is made: closes the directories that a run left open, and waits for the threads that it did not.
void CleanUp();

/// A directory that has to go with the process if a failed check ends it.
void GoesWithTheProcess(const std::string& strDirectory);
void StaysNoMore(const std::string& strDirectory);

/// The last socket that the library made, and the last directory that it opened.
int LastSocket();
const void* LastDirectory();

/// Lets each call of usleep on this thread run a piece of code first, in place of a clock; null for none.
void WhileSleeping(void (*pDo)());

/// Whether something was made to fail in this run so far.
bool HasFailed();
/// Whether that was an allocation.
bool HasLackedMemory();

/// A piece of a scenario: while its code runs, this thread's calls are counted and what the library logs is kept. Another
/// thread's are not: which call is the third one must not depend on who is faster. A thread that the library makes has steps
/// of its own in its body, while the one that made it has none.
///
/// What the library logs in a step is compared as a whole with what ExpectLog() says; with nothing where it says nothing.
class Step {
 public:
    template <typename Code>
    explicit Step(const Code& code, const char* pszFile = __builtin_FILE(), int nLine = __builtin_LINE())
        : m_fgBefore(HasFailed()), m_pszFile(pszFile), m_nLine(nLine) {
        Arm();
        code();
        Disarm();
    }
    ~Step();
    Step(const Step&) = delete;
    Step& operator=(const Step&) = delete;

    /// Whether something failed in this step.
    bool Failed() const { return m_fgFailed; }
    /// Whether it was this function.
    bool Failed(const char* pszFunction) const { return m_fgFailed && m_Function == pszFunction; }
    /// Whether it was one of these.
    bool Failed(std::initializer_list<const char*> functions) const;
    /// Whether it was an allocation.
    bool LackedMemory() const;
    /// Whether it was the writing of a line of the log, of which then half is written or none.
    bool LostItsLine() const;
    /// Which of the step's calls failed, counted from 1; 0 for none.
    int FailedCall() const { return m_nFailedCall; }
    /// Which of the step's calls of the function that failed it was, counted from 1; 0 for none.
    int FailedOfItsKind() const { return m_fgFailed ? CallsBefore(m_Function) + 1 : 0; }
    /// How often the step had called a function when one of its calls failed.
    int CallsBefore(const std::string& function) const;
    /// How often the step called a function in all.
    int Calls(const std::string& function) const;

    /// Says what the library has to have logged, message by message: "Error****: ", "Debug: " or "Log: " (for a stamp) and
    /// the message. What could not be written counts as logged: it was to be. A message that could not be rendered is an
    /// empty one.
    void ExpectLog(const std::vector<std::string>& messages) const;
    /// What the library wrote to standard error.
    const std::string& Log() const { return m_Log; }

 private:
    void Arm();
    void Disarm();

    bool m_fgBefore;
    bool m_fgFailed = false;
    int m_nFailedCall = 0;
    std::string m_Function;
    std::map<std::string, int> m_CallsBefore;
    std::map<std::string, int> m_Calls;
    std::string m_Log;
    std::string m_Meant;     ///< With what could not be written.
    int m_nUnrendered = -1;  ///< The number of the write whose message could not be rendered.
    const char* m_pszFile;
    int m_nLine;
    mutable bool m_fgLogExpected = false;
};

/// A scenario: what it does, and the checks that end the process in it when they are on and something fails.
struct Scenario {
    const char* pszName;
    void (*pRun)();
    std::vector<std::string> refusals;
    bool fgApart = false;          ///< Changes its process for good: every run is made in one of its own.
    bool fgTurnsChecksOn = false;  ///< Whether they were on before or not. It is also apart.
};

/// The checks that end the process where a mutex cannot be made, and others.
std::vector<std::string> MutexMakingRefusalsAnd(std::vector<std::string> others);
/// The same where it cannot be destroyed either.
std::vector<std::string> MutexRefusalsAnd(std::vector<std::string> others);

/// How the test framework shows one.
void PrintTo(const Scenario& scenario, std::ostream* pOut);

/// Each list is in a file of its own.
std::vector<Scenario> ValueScenarios();
std::vector<Scenario> FileScenarios();
std::vector<Scenario> ConnectionScenarios();
std::vector<Scenario> ProcessScenarios();

}  // namespace torture

#endif  // KALVOREN_TESTS_TORTURE_FAULTS_H
