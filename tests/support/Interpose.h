// For tests that put functions of their own in front of libc's, to see how they are called or to make them fail. A function
// that a test program defines is found before the one of a shared library, also by the library under test.
#ifndef KALVOREN_TESTS_INTERPOSE_H
#define KALVOREN_TESTS_INTERPOSE_H

#include <dlfcn.h>

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace support {

/// The function that a test's own stands in front of: libc's, or a sanitizer's wrapper round it.
template <typename Function>
__attribute__((no_sanitize("thread"))) Function* NextFunction(Function*, const char* pszName) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, pszName));
}

/// For the length of a block, notes this thread's calls of the functions that stand in front, and answers those it has
/// an answer for instead of passing them on.
class ScopedCalls {
 public:
    using Answers = std::map<std::string, int>;

    explicit ScopedCalls(Answers answers = {}) : m_Answers(std::move(answers)), m_pBefore(Current()) {
        Current() = this;
    }
    ~ScopedCalls() { Current() = m_pBefore; }
    ScopedCalls(const ScopedCalls&) = delete;
    ScopedCalls& operator=(const ScopedCalls&) = delete;

    /// The calls so far, in order, by name.
    const std::vector<std::string>& Names() const { return m_Names; }

    /// Notes a call; returns the answer if there is one.
    std::optional<int> Note(const char* pszName) {
        m_Names.emplace_back(pszName);
        const auto answer = m_Answers.find(pszName);
        return answer != m_Answers.end() ? std::optional<int>(answer->second) : std::nullopt;
    }

    /// The innermost one of this thread, or null.
    __attribute__((no_sanitize("thread"))) static ScopedCalls*& Current() {
        static thread_local ScopedCalls* t_pCurrent = nullptr;
        return t_pCurrent;
    }

 private:
    Answers m_Answers;
    std::vector<std::string> m_Names;
    ScopedCalls* m_pBefore;
};

/// What a function stands in front of, found the first time.
template <auto pOwn>
__attribute__((no_sanitize("thread", "address", "undefined"))) decltype(pOwn) Next(const char* pszName) {
    static decltype(pOwn) pFound = nullptr;
    auto pNext = __atomic_load_n(&pFound, __ATOMIC_RELAXED);
    if (pNext == nullptr) {
        pNext = NextFunction(pOwn, pszName);
        __atomic_store_n(&pFound, pNext, __ATOMIC_RELAXED);
    }
    return pNext;
}

/// The body of a function that stands in front: notes the call, then answers it or passes it on. Calls that libc or a
/// sanitizer makes in turn are not noted. The thread sanitizer calls some of these functions itself while it makes a
/// thread, when code that it instrumented could not run yet.
template <auto pOwn, typename... Arguments>
__attribute__((no_sanitize("thread"))) int NoteAndPassOn(const char* pszName, Arguments... arguments) {
    ScopedCalls* const pCalls = ScopedCalls::Current();
    if (pCalls != nullptr) {
        if (const std::optional<int> answer = pCalls->Note(pszName)) {
            return *answer;
        }
    }
    const auto pNext = Next<pOwn>(pszName);
    ScopedCalls::Current() = nullptr;
    const int nResult = pNext(arguments...);
    ScopedCalls::Current() = pCalls;
    return nResult;
}

}  // namespace support

#endif  // KALVOREN_TESTS_INTERPOSE_H
