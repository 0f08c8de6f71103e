// What the scenarios share.
#ifndef KALVOREN_TESTS_TORTURE_SCENARIOS_H
#define KALVOREN_TESTS_TORTURE_SCENARIOS_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "KMem.h"
#include "KString.h"
#include "support/Support.h"
#include "torture/Faults.h"

namespace torture {

inline std::string TextOf(const KString& text) {
    return std::string(text.GetBuffer(), static_cast<std::size_t>(text.Length()));
}

inline std::vector<std::string> TextsOf(const KList<KString>& list) {
    std::vector<std::string> texts;
    for (int i = 0; i < list.GetCount(); ++i) {
        texts.push_back(TextOf(*list[i]));
    }
    return texts;
}

/// Ends the registry, whatever earlier scenarios of this process left in it.
inline void DropRegistry() {
    const support::ScopedChecks checks(false);
    KMem::Deinit();
}

/// An object that is made and destroyed by steps of a scenario.
template <typename T>
class Made {
 public:
    template <typename... Arguments>
    explicit Made(Arguments&&... arguments)
        : m_Making([&] { m_Object.emplace(std::forward<Arguments>(arguments)...); }) {}
    ~Made() {
        const Step destroy([&] { m_Object.reset(); });
    }
    Made(const Made&) = delete;
    Made& operator=(const Made&) = delete;

    T& operator*() { return *m_Object; }
    T* operator->() { return &*m_Object; }
    const T* operator->() const { return &*m_Object; }
    /// The step that made it.
    const Step& Making() const { return m_Making; }
    bool LackedMemory() const { return m_Making.LackedMemory(); }

 private:
    std::optional<T> m_Object;  // before the step that fills it
    Step m_Making;
};

/// Whether a step's failures are told by a line that begins like this; lost only where the line itself could not be written.
inline void ExpectLine(const Step& step, bool fgWanted, const std::string& line) {
    if (!step.LostItsLine() && !step.Failed("vsnprintf")) {
        EXPECT_EQ(step.Logged(line), fgWanted) << step.Log();
    }
}

}  // namespace torture

#endif  // KALVOREN_TESTS_TORTURE_SCENARIOS_H
