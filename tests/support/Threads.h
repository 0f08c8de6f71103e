// The same code in several threads.
#ifndef KALVOREN_TESTS_THREADS_H
#define KALVOREN_TESTS_THREADS_H

#include <cstddef>
#include <thread>
#include <vector>

namespace support {

/// Runs the same code in several threads and waits for all of them. It is told which of them it is, from 0.
template <typename Code>
void RunInThreads(int nThreads, const Code& code) {
    std::vector<std::thread> threads;
    threads.reserve(static_cast<std::size_t>(nThreads));
    for (int i = 0; i < nThreads; ++i) {
        threads.emplace_back([&code, i] { code(i); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace support

#endif  // KALVOREN_TESTS_THREADS_H
