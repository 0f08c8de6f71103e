// What the scenarios share.
#ifndef KALVOREN_TESTS_TORTURE_SCENARIOS_H
#define KALVOREN_TESTS_TORTURE_SCENARIOS_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>

#include "KMem.h"
#include "KString.h"
#include "support/Support.h"
#include "torture/Faults.h"

namespace torture {

inline std::string TextOf(const KString& text) {
    return std::string(text.GetBuffer(), static_cast<std::size_t>(text.Length()));
}

/// Ends the registry, whatever earlier scenarios of this process left in it.
inline void DropRegistry() {
    const support::ScopedChecks checks(false);
    KMem::Deinit();
}

/// Expects a whole result, or where memory was lacking in this run, another one.
template <typename Value>
void ExpectWholeOr(const Value& value, const Value& whole, const Value& without) {
    if (HasLackedMemory()) {
        EXPECT_THAT(value, testing::AnyOf(whole, without));
    } else {
        EXPECT_EQ(value, whole);
    }
}

/// An object that is made and destroyed by steps of a scenario.
template <typename T>
class Made {
 public:
    template <typename... Arguments>
    explicit Made(Arguments&&... arguments) {
        const Step make([&] { m_Object.emplace(std::forward<Arguments>(arguments)...); });
        m_fgLackedMemory = make.LackedMemory();
    }
    ~Made() {
        const Step destroy([&] { m_Object.reset(); });
    }
    Made(const Made&) = delete;
    Made& operator=(const Made&) = delete;

    T& operator*() { return *m_Object; }
    T* operator->() { return &*m_Object; }
    bool LackedMemory() const { return m_fgLackedMemory; }

 private:
    std::optional<T> m_Object;
    bool m_fgLackedMemory = false;
};

}  // namespace torture

#endif  // KALVOREN_TESTS_TORTURE_SCENARIOS_H
