#include "Linter.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <set>

namespace {

constexpr char kBetweenElements[] = "\r\n\t";
constexpr char kBlanks[] = " \r\n\t";

const char* const kContainers[] = {"plist", "dict", "array"};
const char* const kTextElements[] = {"key", "string", "integer", "data", "date"};
const char* const kBooleans[] = {"false/", "true/"};

bool StartsWith(const std::string& text, const char* pszWord) {
    return strncasecmp(text.c_str(), pszWord, std::strlen(pszWord)) == 0;
}

bool IsSame(const std::string& text, const char* pszWord) {
    return strcasecmp(text.c_str(), pszWord) == 0;
}

/// The first word of the list that a tag starts with; null for none.
template <std::size_t nWords>
const char* WordAtStart(const std::string& tag, const char* const (&words)[nWords]) {
    for (const char* const pszWord : words) {
        if (StartsWith(tag, pszWord)) {
            return pszWord;
        }
    }
    return nullptr;
}

/// A tag in its brackets, cut where it would fill the screen.
std::string Shown(const std::string& tag) {
    constexpr std::size_t kLongest = 40;
    std::string shown = tag.size() > kLongest ? tag.substr(0, kLongest) + "..." : tag;
    std::replace_if(
        shown.begin(), shown.end(), [](char ch) { return static_cast<unsigned char>(ch) < ' ' || ch == '\x7f'; }, '?');
    return "<" + shown + ">";
}

/// The name that a tag gives its element: up to a blank or a slash at its end.
std::string NameIn(const std::string& tag) {
    std::string name = tag.substr(0, tag.find_first_of(kBlanks));
    if (!name.empty() && name.back() == '/') {
        name.pop_back();
    }
    return name;
}

bool IsSelfClosing(const std::string& tag) {
    return !tag.empty() && tag.back() == '/';
}

class Linter {
 public:
    explicit Linter(const std::string& text)
        : m_File(text),
          m_Text(text.substr(0, text.find('\0'))),
          m_nPosition(0),
          m_fgStopped(false),
          m_fgSawPlist(false),
          m_fgPlistClosed(false),
          m_fgSawSpace(false) {
        m_Report.nStop = text.size();
        for (std::size_t i = 0; i < m_File.size(); ++i) {
            if (m_File[i] == '\n') {
                m_LineEnds.push_back(i);
            }
        }
    }

    LintReport Run() {
        m_Levels.push_back(Level("", 0));
        while (!m_Levels.empty() && ReadOne()) {
        }
        m_nPosition = m_Text.size();
        ReportOpenLevels();
        if (m_Text.size() < m_File.size()) {
            Stop(m_Text.size(), "a NUL byte");
        }
        if (!m_fgSawPlist) {
            Add(0, true, "no <plist> element");
        }
        std::stable_sort(m_Report.findings.begin(), m_Report.findings.end(), [](const Finding& a, const Finding& b) {
            return a.nLine != b.nLine ? a.nLine < b.nLine : a.nColumn < b.nColumn;
        });
        return m_Report;
    }

 private:
    /// A container that is open; the first is the text as a whole.
    struct Level {
        Level(const char* pszName, std::size_t nWhere)
            : name(pszName), nStart(nWhere), fgKey(false), fgHasText(false), nKey(0), nValues(0) {}

        bool IsDict() const { return name == "dict"; }
        bool IsArray() const { return name == "array"; }

        std::string name;
        std::size_t nStart;
        bool fgKey;        ///< There was a key.
        bool fgHasText;    ///< There was a key or a value with a text, which an empty element takes.
        std::size_t nKey;  ///< Where the last key is.
        int nValues;       ///< How many values the last key has.
        std::string key;   ///< The last key.
        std::set<std::string> keys;
    };

    // --------------------------------------------------------------------------------------------------- Findings

    void Add(std::size_t nOffset, bool fgError, const std::string& text) {
        const auto line = std::lower_bound(m_LineEnds.begin(), m_LineEnds.end(), nOffset);
        const std::size_t nLineStart = line == m_LineEnds.begin() ? 0 : *(line - 1) + 1;
        m_Report.findings.push_back({static_cast<int>(line - m_LineEnds.begin()) + 1,
                                     static_cast<int>(nOffset - nLineStart) + 1, fgError, text});
    }

    void Warn(std::size_t nOffset, const std::string& text) { Add(nOffset, false, text); }
    void Fail(std::size_t nOffset, const std::string& text) { Add(nOffset, true, text); }

    /// Something at which the reader stops.
    void Stop(std::size_t nOffset, const std::string& text) {
        Fail(nOffset, text + (m_fgStopped ? ": the reader would stop here" : ": the reader stops here"));
        if (!m_fgStopped) {
            m_fgStopped = true;
            m_Report.nStop = nOffset;
        }
    }

    std::string LineOf(std::size_t nOffset) const {
        const auto line = std::lower_bound(m_LineEnds.begin(), m_LineEnds.end(), nOffset);
        return "line " + std::to_string(line - m_LineEnds.begin() + 1);
    }

    // ---------------------------------------------------------------------------------------------------- Reading

    Level& Top() { return m_Levels.back(); }

    std::size_t FirstNotOf(const char* pszSet, std::size_t nFrom) const {
        return std::min(m_Text.find_first_not_of(pszSet, nFrom), m_Text.size());
    }

    /// Reads one tag or element. False at the end.
    bool ReadOne() {
        m_nPosition = FirstNotOf(kBetweenElements, m_nPosition);
        if (m_nPosition == m_Text.size()) {
            return false;
        }
        if (m_Text[m_nPosition] != '<') {
            return SkipText();
        }
        const std::size_t nEnd = m_Text.find('>', m_nPosition);
        const std::string tag =
            m_Text.substr(m_nPosition + 1, nEnd == std::string::npos ? nEnd : nEnd - m_nPosition - 1);
        const std::size_t nBehind = nEnd == std::string::npos ? m_Text.size() : nEnd + 1;
        if (tag.empty()) {
            Stop(m_nPosition, "an empty tag");
            m_nPosition = nBehind;
            return true;
        }
        if (nEnd == std::string::npos) {
            Fail(m_nPosition, "no '>' behind " + Shown(tag).substr(0, Shown(tag).size() - 1));
        }
        CheckBehindPlist(tag);
        ReadTag(tag, nBehind);
        return true;
    }

    /// Text between elements: the reader stops at it. Goes on behind it.
    bool SkipText() {
        const bool fgSpace = m_Text[m_nPosition] == ' ';
        if (!fgSpace) {
            Stop(m_nPosition,
                 m_fgPlistClosed && m_Levels.size() == 1 ? "text behind </plist>" : "text between elements");
        } else if (!m_fgSawSpace) {
            m_fgSawSpace = true;
            Stop(m_nPosition, "a space between elements (indent by tabs)");
        }
        m_nPosition =
            fgSpace ? FirstNotOf(kBlanks, m_nPosition) : std::min(m_Text.find('<', m_nPosition), m_Text.size());
        return true;
    }

    /// What follows the closing tag of the whole list belongs to nothing, though the reader takes it.
    void CheckBehindPlist(const std::string& tag) {
        if (m_fgPlistClosed && m_Levels.size() == 1 && !StartsWith(tag, "/")) {
            Fail(m_nPosition, Shown(tag) + " behind </plist>: the reader takes it for another part of the list");
        }
    }

    void ReadTag(const std::string& tag, std::size_t nBehind) {
        if (StartsWith(tag, "?XML")) {
            SkipDeclaration(tag, "?>", nBehind);
        } else if (StartsWith(tag, "!DOCTYPE")) {
            SkipDeclaration(tag, ">", nBehind);
        } else if (const char* const pszContainer = WordAtStart(tag, kContainers)) {
            Open(tag, pszContainer, nBehind);
        } else if (tag[0] == '/' && WordAtStart(tag.substr(1), kContainers) != nullptr) {
            Close(tag, nBehind);
        } else if (const char* const pszElement = WordAtStart(tag, kTextElements)) {
            ReadElement(tag, pszElement, nBehind);
        } else if (const char* const pszBoolean = BooleanIn(tag)) {
            ReadBoolean(tag, pszBoolean, nBehind);
        } else {
            SkipUnknown(tag, nBehind);
        }
    }

    void SkipDeclaration(const std::string& tag, const char* pszEnd, std::size_t nBehind) {
        const std::size_t nMark = m_Text.find(pszEnd, m_nPosition);
        if (nMark == std::string::npos) {
            Stop(m_nPosition, "no '" + std::string(pszEnd) + "' behind " + Shown(tag));
            m_nPosition = nBehind;
            return;
        }
        const std::size_t nNext = nMark + std::strlen(pszEnd);
        if (nNext != nBehind) {
            Fail(m_nPosition, Shown(tag) + " does not end in '" + pszEnd + "': the reader skips to " + LineOf(nMark));
        }
        m_nPosition = nNext;
    }

    // -------------------------------------------------------------------------------------------------- Containers

    void Open(const std::string& tag, const char* pszName, std::size_t nBehind) {
        const std::string name = NameIn(tag);
        if (!IsSame(name, pszName)) {
            Fail(m_nPosition, Shown(tag) + ": the reader takes it for <" + pszName + ">");
        }
        if (IsSelfClosing(tag)) {
            Fail(m_nPosition, Shown(tag) + " is not closed by its slash: the reader takes it for an opening tag");
        }
        if (std::strcmp(pszName, "plist") == 0) {
            m_fgSawPlist = true;
        } else if (Top().IsDict()) {
            CheckValue(tag);
        }
        m_Levels.push_back(Level(pszName, m_nPosition));
        m_nPosition = nBehind;
    }

    void Close(const std::string& tag, std::size_t nBehind) {
        if (m_Levels.size() == 1) {
            // The reader returns here, with the tag read.
            Fail(m_nPosition, Shown(tag) + " closes nothing" + (m_fgStopped ? "" : ": the reader stops behind it"));
            if (!m_fgStopped) {
                m_fgStopped = true;
                m_Report.nStop = nBehind;
            }
        } else {
            const Level& level = Top();
            if (!IsSame(tag, ("/" + level.name).c_str())) {
                Fail(m_nPosition, Shown(tag) + " stands where <" + level.name + "> of " + LineOf(level.nStart) +
                                      " is to be closed: the reader takes it for that");
            }
            CheckLastKey();
            m_fgPlistClosed = m_fgPlistClosed || level.name == "plist";
            m_Levels.pop_back();
        }
        m_nPosition = nBehind;
    }

    void ReportOpenLevels() {
        while (m_Levels.size() > 1) {
            Fail(Top().nStart, "<" + Top().name + "> is not closed");
            CheckLastKey();
            m_Levels.pop_back();
        }
        CheckLastKey();
    }

    // ------------------------------------------------------------------------------------------- Keys and values

    void ReadElement(const std::string& tag, const char* pszName, std::size_t nBehind) {
        const std::size_t nStart = m_nPosition;
        const std::size_t nTextEnd = std::min(m_Text.find('<', nBehind), m_Text.size());
        const std::string text = m_Text.substr(nBehind, nTextEnd - nBehind);
        const std::size_t nClosing = FindClosing(tag, nTextEnd);
        if (nClosing == std::string::npos) {
            Stop(nStart, WhyNotClosed(tag, pszName, nTextEnd));
            ++Top().nValues;  // or the key before it would seem to have none
            m_nPosition = nBehind;
            if (!IsSelfClosing(tag)) {
                SkipBrokenElement(nTextEnd);
            }
            return;
        }
        if (!IsSame(tag, pszName)) {
            Fail(nStart, Shown(tag) + ": the reader takes it for <" + pszName + ">");
        }
        if (nClosing != nTextEnd) {
            Fail(nTextEnd, "markup in " + Shown(tag) + ": the reader skips to its closing tag in " + LineOf(nClosing));
        }
        CheckText(tag, text, nBehind);
        if (std::strcmp(pszName, "key") == 0) {
            TakeKey(text, nStart);
        } else {
            CheckValue(tag);
        }
        Top().fgHasText = Top().fgHasText || !text.empty();
        m_nPosition = nClosing + tag.size() + 3;
    }

    /// The closing tag as the reader looks for it: with everything that stands in the opening one, in any case.
    std::size_t FindClosing(const std::string& tag, std::size_t nFrom) {
        const std::string closing = "</" + tag + ">";
        // What is not there is not looked for again: a file may be full of it.
        if (m_Missing.count(closing) != 0) {
            return std::string::npos;
        }
        const char* const pHit = strcasestr(m_Text.c_str() + nFrom, closing.c_str());
        if (pHit == nullptr) {
            m_Missing.insert(closing);
            return std::string::npos;
        }
        return static_cast<std::size_t>(pHit - m_Text.c_str());
    }

    std::string WhyNotClosed(const std::string& tag, const char* pszName, std::size_t nTextEnd) const {
        if (IsSelfClosing(tag)) {
            return Shown(tag) + " has no closing tag: a self-closing <" + pszName + "/> is not known";
        }
        if (tag.find_first_of(kBlanks) != std::string::npos) {
            return "attributes in " + Shown(tag) + ": there is no closing tag with the same attributes";
        }
        const std::string closing = ClosingTagAt(nTextEnd);
        if (!closing.empty()) {
            return Shown(tag) + " is closed by " + Shown(closing);
        }
        return Shown(tag) + " is not closed";
    }

    /// The closing tag at a place, without its brackets; empty when there is none, or when it is that of a container.
    std::string ClosingTagAt(std::size_t nWhere) const {
        const std::size_t nEnd = m_Text.find('>', nWhere);
        if (m_Text.compare(nWhere, 2, "</") != 0 || nEnd == std::string::npos) {
            return "";
        }
        const std::string name = m_Text.substr(nWhere + 2, nEnd - nWhere - 2);
        return WordAtStart(name, kContainers) == nullptr ? "/" + name : "";
    }

    /// Goes behind the text of an element and the closing tag that was meant for it.
    void SkipBrokenElement(std::size_t nTextEnd) {
        const std::string closing = ClosingTagAt(nTextEnd);
        m_nPosition = closing.empty() ? nTextEnd : nTextEnd + closing.size() + 2;
    }

    void CheckText(const std::string& tag, const std::string& text, std::size_t nWhere) {
        if (text.empty()) {
            Fail(m_nPosition, Shown(tag) + " is empty: the reader gives it " +
                                  (Top().fgHasText ? "the text before it at this level" : "the empty text"));
        }
        const std::size_t nEntity = text.find('&');
        if (nEntity != std::string::npos) {
            Warn(nWhere + nEntity, "an entity is not decoded: the reader keeps the text as it is written");
        }
    }

    void TakeKey(const std::string& text, std::size_t nStart) {
        CheckLastKey();
        Level& level = Top();
        if (!level.keys.insert(text).second && !text.empty()) {
            Fail(nStart, "key \"" + text + "\" again: the first one is found");
        }
        level.fgKey = true;
        level.key = text;
        level.nKey = nStart;
        level.nValues = 0;
    }

    void CheckLastKey() {
        if (Top().fgKey && Top().nValues == 0) {
            Warn(Top().nKey, "key \"" + Top().key + "\" has no value");
        }
    }

    /// A value at this place: a dictionary wants a key before it, and one value a key.
    void CheckValue(const std::string& tag) {
        Level& level = Top();
        if (!level.fgKey && !level.IsArray()) {
            Fail(m_nPosition, Shown(tag) + " before any key: no key finds it");
        } else if (level.fgKey && ++level.nValues == 2) {
            Warn(m_nPosition, Shown(tag) + " is a second value of key \"" + level.key + "\": the reader keeps both");
        }
    }

    const char* BooleanIn(const std::string& tag) const {
        for (const char* const pszBoolean : kBooleans) {
            if (strcasestr(tag.c_str(), pszBoolean) != nullptr) {
                return pszBoolean;
            }
        }
        return nullptr;
    }

    void ReadBoolean(const std::string& tag, const char* pszBoolean, std::size_t nBehind) {
        if (!IsSame(tag, pszBoolean)) {
            Fail(m_nPosition, Shown(tag) + ": the reader takes it for <" + pszBoolean + ">");
        }
        CheckValue(tag);
        m_nPosition = nBehind;
    }

    // ----------------------------------------------------------------------------------------------- The unknown

    void SkipUnknown(const std::string& tag, std::size_t nBehind) {
        if (StartsWith(tag, "!--")) {
            Stop(m_nPosition, "a comment");
            const std::size_t nEnd = m_Text.find("-->", m_nPosition);
            m_nPosition = nEnd == std::string::npos ? m_Text.size() : nEnd + 3;
            return;
        }
        m_nPosition = SkipUnknownElement(tag, nBehind);
    }

    /// Goes behind an element that is not known, with its text and closing tag, or a stray tag.
    std::size_t SkipUnknownElement(const std::string& tag, std::size_t nBehind) {
        if (tag[0] == '/') {
            Stop(m_nPosition, Shown(tag) + " closes nothing");
            return nBehind;
        }
        const std::string name = NameIn(tag);
        const bool fgBoolean = IsSame(name, "true") || IsSame(name, "false");
        Stop(m_nPosition, Shown(tag) + " is not known" + (fgBoolean ? " (write <" + name + "/>)" : ""));
        ++Top().nValues;
        const std::string closing = "</" + name + ">";
        const std::size_t nTextEnd = m_Text.find('<', nBehind);
        return nTextEnd != std::string::npos && m_Text.compare(nTextEnd, closing.size(), closing) == 0
                   ? nTextEnd + closing.size()
                   : nBehind;
    }

    const std::string& m_File;
    const std::string m_Text;  ///< Up to the first NUL.
    std::vector<std::size_t> m_LineEnds;
    std::size_t m_nPosition;
    std::vector<Level> m_Levels;
    bool m_fgStopped;
    bool m_fgSawPlist;
    bool m_fgPlistClosed;
    bool m_fgSawSpace;
    std::set<std::string> m_Missing;  ///< Closing tags that are nowhere in the rest of the text.
    LintReport m_Report;
};

}  // namespace

LintReport Lint(const std::string& text) {
    return Linter(text).Run();
}
