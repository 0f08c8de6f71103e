// What the scenarios share.
#ifndef KALVOREN_TESTS_TORTURE_SCENARIOS_H
#define KALVOREN_TESTS_TORTURE_SCENARIOS_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "KMem.h"
#include "KPropertyList.h"
#include "KString.h"
#include "support/Support.h"
#include "support/Texts.h"
#include "torture/Faults.h"

namespace torture {

using support::TextOf;

inline std::vector<std::string> TextsOf(const KList<KString>& list) {
    std::vector<std::string> texts;
    for (int i = 0; i < list.GetCount(); ++i) {
        texts.push_back(TextOf(*list[i]));
    }
    return texts;
}

inline void AppendTexts(KPropertyNode& node, std::vector<std::string>& texts) {
    for (int i = 0; i < node.GetNodeCount(); ++i) {
        texts.push_back(TextOf((*node.GetNode(i))->GetStringValue()));
        AppendTexts(**node.GetNode(i), texts);
    }
}

/// The texts of all nodes below one, in the order of the document.
inline std::vector<std::string> TextsOf(KPropertyNode& node) {
    std::vector<std::string> texts;
    AppendTexts(node, texts);
    return texts;
}

/// Ends the registry, whatever earlier scenarios of this process left in it.
inline void DropRegistry() {
    const support::ScopedChecks checks(false);
    KMem::Deinit();
}

using Lines = std::vector<std::string>;

/// The line of an error where something failed; otherwise none.
inline Lines ErrorIf(bool fgFailed, const std::string& message) {
    return fgFailed ? Lines{"Error****: " + message} : Lines();
}

inline Lines operator+(Lines left, const Lines& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/// The error number of the run's failure, as a message tells it.
inline std::string ErrorNumber() {
    return std::to_string(TheOutcome().nError);
}

/// A scratch directory in which a scenario leaves exactly what it says that it does.
class Scratch : public support::ScopedDirectory {
 public:
    Scratch() { GoesWithTheProcess(Path()); }
    ~Scratch() {
        EXPECT_EQ(Content(), m_Left) << "other files were left behind than is stated";
        StaysNoMore(Path());
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    /// Says that an entry is there at the end of the scenario, where @p fgLeft.
    void Leaves(const std::string& strEntry, bool fgLeft = true) {
        if (fgLeft) {
            m_Left.insert(strEntry);
        }
    }

 private:
    std::set<std::string> Content() const {
        std::set<std::string> content;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(Path())) {
            content.insert(entry.path().string().substr(Path().size() + 1));
        }
        return content;
    }

    std::set<std::string> m_Left;
};

/// An object that is made and destroyed by steps of a scenario.
template <typename T>
class Made {
 public:
    template <typename... Arguments>
    explicit Made(Arguments&&... arguments)
        : m_Making([&] { m_Object.emplace(std::forward<Arguments>(arguments)...); }) {}
    ~Made() {
        const Step destroy([&] { m_Object.reset(); });
        destroy.ExpectLog(m_LastLines);
    }
    Made(const Made&) = delete;
    Made& operator=(const Made&) = delete;

    T& operator*() { return *m_Object; }
    T* operator->() { return &*m_Object; }
    const T* operator->() const { return &*m_Object; }
    /// The step that made it.
    const Step& Making() const { return m_Making; }
    bool LackedMemory() const { return m_Making.LackedMemory(); }
    /// Says what its end logs.
    void EndsWith(const Lines& lines) { m_LastLines = lines; }

 private:
    std::optional<T> m_Object;  // before the step that fills it
    Step m_Making;
    Lines m_LastLines;
};

/// What the reader of property lists makes of a document when one of its calls fails. It is told the document piece by
/// piece. Of each call that may lack memory it knows what is missing without it.
class Reading {
 public:
    /// @p nNews and @p nMallocs are how often the step called `new` and `malloc` before the reader did.
    explicit Reading(const Step& step, int nNews, int nMallocs = 0)
        : m_Step(step), m_nNews(nNews), m_nMallocs(nMallocs) {
        // The node that everything is read under has two mutexes, whose records are not missed; then the first level.
        m_nNews += 2;
        Enter();
    }

    /// A declaration, which is also the header.
    void Header(const std::string& strTag) {
        if (Log(strTag)) {
            m_strHeader = GetsText() ? strTag : "";
        }
    }
    /// A list, dictionary or array, without which the reading ends.
    void Open(const std::string& strTag) {
        if (Log(strTag)) {
            Enter();
        }
    }
    void Close(const std::string& strTag) { Log(strTag); }
    void Key(const std::string& strText) {
        if (Log("key") && Log(strText)) {
            m_fgKey = Add(true, strText);
        }
    }
    /// A value below the last key.
    void Value(const std::string& strTag, const std::string& strText) {
        if (Log(strTag) && Log(strText)) {
            Add(m_fgKey, strText);
        }
    }
    /// A value that is a tag.
    void Truth(const std::string& strTag, const std::string& strText) {
        if (Log(strTag)) {
            Add(m_fgKey, strText);
        }
    }

    const Lines& Logged() const { return m_Lines; }
    const std::string& HeaderText() const { return m_strHeader; }
    /// The texts of the nodes, in the order of the document.
    const std::vector<std::string>& Texts() const { return m_Texts; }
    bool HasEnded() const { return m_fgEnded; }

 private:
    bool Gets(const char* pszFunction, int nCall) const {
        return !m_Step.Failed(pszFunction) || m_Step.FailedOfItsKind() != nCall;
    }
    bool GetsText() { return Gets("malloc", ++m_nMallocs); }

    void Enter() { m_fgEnded = !Gets("new", ++m_nNews); }

    bool Log(const std::string& strText) {
        if (!m_fgEnded) {
            m_Lines.push_back("Log: " + strText);
        }
        return !m_fgEnded;
    }

    /// A node is a text, the node itself with the records of two mutexes, and a place in the list of children.
    bool Add(bool fgParent, const std::string& strText) {
        const bool fgText = GetsText();
        if (!fgParent || !Gets("new", ++m_nNews)) {
            return false;
        }
        m_nNews += 2;
        if (!Gets("malloc", ++m_nMallocs)) {
            return false;
        }
        m_Texts.push_back(fgText ? strText : "");
        return true;
    }

    const Step& m_Step;
    int m_nNews;
    int m_nMallocs;
    bool m_fgEnded = false;
    bool m_fgKey = true;  // without a key, values go where keys do
    Lines m_Lines;
    std::string m_strHeader;
    std::vector<std::string> m_Texts;
};

}  // namespace torture

#endif  // KALVOREN_TESTS_TORTURE_SCENARIOS_H
