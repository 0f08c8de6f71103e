#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Sanitizers.h"

#ifndef KALVOREN_LSAN_OPTIONS
#define KALVOREN_LSAN_OPTIONS ""
#endif
#ifndef KALVOREN_TSAN_OPTIONS
#define KALVOREN_TSAN_OPTIONS ""
#endif
// What other programs that the tests start are told too.
#define KALVOREN_LSAN_OPTIONS_OF_ALL "print_suppressions=0" KALVOREN_LSAN_OPTIONS
#define KALVOREN_TSAN_OPTIONS_OF_ALL "halt_on_error=1" KALVOREN_TSAN_OPTIONS

// The sanitizers ask the program for its options by these names. Set here, they hold however the program is started; the
// environment (ASAN_OPTIONS and so on) still has the last word.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
const char* __asan_default_options() {
    return "halt_on_error=1:detect_leaks=1:detect_stack_use_after_return=1:strict_string_checks=1:"
           "allocator_may_return_null=1";
}
const char* __lsan_default_options() {
    return KALVOREN_LSAN_OPTIONS_OF_ALL;
}
const char* __ubsan_default_options() {
    return "halt_on_error=1:print_stacktrace=1";
}
const char* __tsan_default_options() {
    return "detect_deadlocks=1:second_deadlock_stack=1:allocator_may_return_null=1:" KALVOREN_TSAN_OPTIONS_OF_ALL;
}
}
// NOLINTEND(bugprone-reserved-identifier)

std::vector<std::string> support::SanitizerVariables() {
    return {"LSAN_OPTIONS=" KALVOREN_LSAN_OPTIONS_OF_ALL, "TSAN_OPTIONS=" KALVOREN_TSAN_OPTIONS_OF_ALL};
}

namespace {

/// The name under which this program can be started: its own, or where it runs in an emulator and cannot be started by its
/// own name, that of the script beside it, "<program>.launch", which starts the emulator.
std::string StartableName(const std::string& strProgram) {
    const std::string strLauncher = strProgram + ".launch";
    return access(strLauncher.c_str(), X_OK) == 0 ? strLauncher : strProgram;
}

}  // namespace

/// The main function of every test program. A death test starts the program afresh for the statement that is to die, so
/// that no lock and no thread of the tests before it is there.
int main(int argc, char** argv) {
    std::string strName = StartableName(argv[0]);
    argv[0] = &strName[0];
    testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    return RUN_ALL_TESTS();
}
