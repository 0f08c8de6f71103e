// Which sanitizer the tests are built with, as compilers tell it: KALVOREN_WITH_ASAN and KALVOREN_WITH_TSAN, 1 or 0. And what
// the sanitizers are told.
#ifndef KALVOREN_TESTS_SANITIZERS_H
#define KALVOREN_TESTS_SANITIZERS_H

#include <string>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define KALVOREN_WITH_ASAN 1
#elif defined(__SANITIZE_THREAD__)
#define KALVOREN_WITH_TSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KALVOREN_WITH_ASAN 1
#elif __has_feature(thread_sanitizer)
#define KALVOREN_WITH_TSAN 1
#endif
#endif

#ifndef KALVOREN_WITH_ASAN
#define KALVOREN_WITH_ASAN 0
#endif
#ifndef KALVOREN_WITH_TSAN
#define KALVOREN_WITH_TSAN 0
#endif

namespace support {

/// The environment in which the sanitizers of a program without the tests' main function halt at what those of the tests halt
/// at, and report nothing that they do not: "NAME=value".
std::vector<std::string> SanitizerVariables();

}  // namespace support

#endif  // KALVOREN_TESTS_SANITIZERS_H
