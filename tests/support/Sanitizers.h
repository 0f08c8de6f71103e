// Which sanitizer the tests are built with, as compilers tell it: KALVOREN_WITH_ASAN and KALVOREN_WITH_TSAN, 1 or 0.
#ifndef KALVOREN_TESTS_SANITIZERS_H
#define KALVOREN_TESTS_SANITIZERS_H

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

#endif  // KALVOREN_TESTS_SANITIZERS_H
