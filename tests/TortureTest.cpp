// Every fallible call that the library makes is made to fail, one at a time, in every way it has. Whatever fails: the library
// gives the stated result, logs the stated line, leaves nothing behind, and neither crashes nor hangs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "KDebug.h"
#include "KMem.h"
#include "KString.h"
#include "support/Process.h"
#include "support/Support.h"
#include "torture/Faults.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using torture::Fault;
using torture::Outcome;
using torture::Scenario;

std::vector<Scenario> AllScenarios() {
    std::vector<Scenario> all;
    for (const auto& scenarios : {torture::ValueScenarios(), torture::FileScenarios(), torture::ConnectionScenarios(),
                                  torture::ProcessScenarios()}) {
        all.insert(all.end(), scenarios.begin(), scenarios.end());
    }
    return all;
}

std::string WayOf(int nError) {
    switch (nError) {
        case torture::kShort:
            return "came out short";
        case torture::kNothing:
            return "came to nothing";
        case torture::kSocketError:
            return "told of an error of the socket's";
        case torture::kHangUp:
            return "told that the other side is gone";
        case torture::kNotOpen:
            return "told that nothing is open there";
        default:
            return "failed with error " + std::to_string(nError);
    }
}

std::string Describe(const Fault& fault, const Outcome& outcome) {
    if (!outcome.fgFailed) {
        return "in the run in which nothing failed";
    }
    return "in the run in which call " + std::to_string(fault.nCall) + ", " + outcome.szFunction + ", " +
           WayOf(outcome.nError);
}

/// One run, with what it has to leave as it was.
void RunHere(const Scenario& scenario, const Fault& fault, bool fgMayBeRefused) {
    // The log's buffers are there before, where a scenario is not about them.
    KDebug::Error(KString());
    torture::Begin(fault, fgMayBeRefused);
    const torture::Holdings before = torture::TakeStock();
    scenario.pRun();
    const torture::Holdings after = torture::TakeStock();
    EXPECT_EQ(after, before + torture::LeftBehind()) << "something else was left behind than is stated";
    torture::CleanUp();
}

/// One run in a process of its own, which a failed check may end.
void RunApart(const Scenario& scenario, const Fault& fault) {
    torture::Begin(fault, true);
    support::ChildProcess child([&] { RunHere(scenario, fault, fault.nCall != 0); });
    EXPECT_EQ(child.Wait(), support::ChildProcess::kPassed);
}

/// Makes a call fail in one way. A scenario does not make the same calls in every run: what the system does at once in one
/// it may put off in another. So the run is repeated where the call was not made, or was another that has other ways.
template <typename RunOne>
Outcome RunUntilMet(RunOne runOne, const Fault& fault, int nWays) {
    constexpr int kTries = 3;
    Outcome outcome = {};
    for (int nTry = 0; nTry < kTries; ++nTry) {
        runOne(fault);
        outcome = torture::TheOutcome();
        if (testing::Test::HasFailure() || (outcome.fgFailed && (fault.nWay == 0 || outcome.nWays == nWays))) {
            return outcome;
        }
    }
    outcome.fgFailed = false;
    return outcome;
}

/// Goes through the faults of a scenario until a run sees none. Counts them, and returns the checks that ended runs.
template <typename RunOne>
std::set<std::string> RunAll(RunOne runOne, int& nFaults) {
    std::set<std::string> refusals;
    bool fgMore = true;
    for (int nCall = 1; fgMore; ++nCall) {
        int nWays = 1;
        for (int nWay = 0; nWay < nWays; ++nWay) {
            const Fault fault = {nCall, nWay};
            const Outcome outcome = RunUntilMet(runOne, fault, nWays);
            fgMore = outcome.fgFailed;
            if (testing::Test::HasFailure() || (nWay > 0 && !fgMore)) {
                ADD_FAILURE() << Describe(fault, outcome);
                return refusals;
            }
            nWays = fgMore ? outcome.nWays : 1;
            nFaults += fgMore ? 1 : 0;
            if (outcome.fgRefused) {
                const std::string strCause = outcome.fgFailed ? outcome.szFunction : "nothing";
                refusals.insert(strCause + " in " + outcome.szRefusal);
            }
        }
    }
    return refusals;
}

class TortureTest : public testing::TestWithParam<Scenario> {
 protected:
    static void SetUpTestSuite() {
        torture::Install();
        KMem::Init();
        s_nFaults = 0;
    }

    /// How much was made to fail, by all runs of this process. It varies a little: with what the system does at once, and
    /// with the lengths of the paths.
    static void TearDownTestSuite() {
        RecordProperty("faults", s_nFaults);
        std::cout << s_nFaults << " faults injected\n";
    }

    /// Runs the scenario with every fault; with the checks on they may end the runs, as far as they are listed.
    static void Torture(bool fgChecks) {
        const Scenario& scenario = GetParam();
        const support::ScopedChecks checks(fgChecks);
        if (!scenario.fgApart) {
            RunHere(scenario, {0, 0}, false);  // for what libc keeps from the first call on
        }
        const auto runOne = [&](const Fault& fault) {
            if (fgChecks || scenario.fgApart) {
                RunApart(scenario, fault);
            } else {
                RunHere(scenario, fault, false);
            }
        };
        int nFaults = 0;
        EXPECT_THAT(RunAll(runOne, nFaults), testing::UnorderedElementsAreArray(fgChecks || scenario.fgTurnsChecksOn
                                                                                    ? scenario.refusals
                                                                                    : std::vector<std::string>()));
        EXPECT_TRUE(nFaults > 0 || !scenario.refusals.empty())
            << "nothing was made to fail, nor is it there for a check";
        s_nFaults += nFaults;
    }

 private:
    static int s_nFaults;
};

int TortureTest::s_nFaults = 0;

std::string NameOf(const testing::TestParamInfo<Scenario>& info) {
    return info.param.pszName;
}

TEST_P(TortureTest, WithoutChecksEveryFailureHasItsStatedResult) {
    Torture(false);
}

TEST_P(TortureTest, WithChecksTheListedOnesAndNoOthersEndTheProcess) {
    Torture(true);
}

INSTANTIATE_TEST_SUITE_P(Of, TortureTest, testing::ValuesIn(AllScenarios()), NameOf);

TEST(TortureImportsTest, EveryImportedFunctionIsMadeToFailOrKnownToBeUnableTo) {
#ifdef KALVOREN_COVERAGE
    GTEST_SKIP() << "what counts the lines is part of the library here, and imports functions of its own";
#endif
    torture::Install();
    EXPECT_THAT(torture::UnknownImports(), IsEmpty());
}

TEST(TortureImportsTest, EveryImportedFunctionThatCanFailIsCalledByAScenario) {
    torture::Install();
    KMem::Init();
    torture::ForgetWhatWasReached();
    EXPECT_THAT(torture::UnreachedImports(), testing::AllOf(Contains("malloc"), Contains("accept")));
    const support::ScopedChecks checks(false);
    for (const Scenario& scenario : AllScenarios()) {
        SCOPED_TRACE(scenario.pszName);
        if (scenario.fgApart) {
            RunApart(scenario, {0, 0});
        } else {
            RunHere(scenario, {0, 0}, false);
        }
    }
    EXPECT_THAT(torture::UnreachedImports(), IsEmpty());
}

/// Each place in the library that calls a function that can fail, and not only each function.
TEST(TortureImportsTest, EveryCallThatCanFailIsMadeByAScenario) {
#ifndef KALVOREN_LOOKS_AT_CALLS
    GTEST_SKIP() << "the compiler may have made several calls of one: the development build looks at them";
#endif
    torture::Install();
    KMem::Init();
    torture::ForgetWhatWasReached();
    EXPECT_THAT(torture::UnreachedCalls(), Contains(HasSubstr("malloc in KString::")));
    const support::ScopedChecks checks(false);
    for (const Scenario& scenario : AllScenarios()) {
        SCOPED_TRACE(scenario.pszName);
        int nFaults = 0;
        RunAll(
            [&](const Fault& fault) {
                if (scenario.fgApart) {
                    RunApart(scenario, fault);
                } else {
                    RunHere(scenario, fault, false);
                }
            },
            nFaults);
    }
    // The arguments of the program, which nobody gives: the list that is copied here has never an element.
    EXPECT_THAT(torture::UnreachedCalls(), AllOf(SizeIs(2), Each(HasSubstr("malloc in KSystem::GetAppInfo()"))));
}

/// The operations that the library exports, as abi/ lists them.
std::set<std::string> ExportedOperations() {
    std::set<std::string> operations;
    for (const char* const pszList : {"symbols.txt", "symbols-x86_64.txt"}) {
        std::ifstream list(std::string(KALVOREN_SOURCES "/abi/") + pszList);
        for (std::string line; std::getline(list, line);) {
            // Variables, tables and descriptions of types have no parameters.
            if (line.find('(') != std::string::npos) {
                operations.insert(line);
            }
        }
    }
    return operations;
}

/// The name of an operation of 64 bits on this target.
std::string NameHere(std::string operation) {
    const std::string strSize = "unsigned long";
    const auto nAt = sizeof(std::size_t) == 4 ? operation.find(strSize) : std::string::npos;
    return nAt == std::string::npos ? operation : operation.replace(nAt, strSize.size(), "unsigned int");
}

/// Each operation, and not only each place that calls a function that can fail: one place may serve several.
TEST(TortureImportsTest, EveryOperationHasAScenarioOrCannotFail) {
    std::set<std::string> scenarios;
    for (const Scenario& scenario : AllScenarios()) {
        scenarios.insert(scenario.pszName);
    }
    const std::set<std::string> called = torture::ImportsOfTheProgram();
    std::set<std::string> listed;
    std::ifstream list(KALVOREN_SOURCES "/tests/torture/operations.txt");
    for (std::string line; std::getline(list, line);) {
        const auto nBar = line.find(" | ");
        if (line.empty() || line[0] == '#') {
            continue;
        }
        ASSERT_NE(nBar, std::string::npos) << line;
        const std::string operation = line.substr(0, nBar);
        EXPECT_TRUE(listed.insert(operation).second) << "twice: " << line;
        std::istringstream words(line.substr(nBar + 3));
        std::string word;
        words >> word;
        if (word == "-") {
            EXPECT_TRUE(words >> word) << "without a reason: " << line;
            continue;
        }
        EXPECT_THAT(called, Contains(NameHere(operation))) << "no scenario calls it";
        do {
            EXPECT_THAT(scenarios, Contains(word)) << line;
        } while (words >> word);
    }
    EXPECT_THAT(listed, testing::ContainerEq(ExportedOperations()));
}

}  // namespace
