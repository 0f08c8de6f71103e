#include "Linter.h"

#include <KPropertyList.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <deque>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace kplist {

namespace {

using std::string_view;

constexpr std::size_t kNowhere = string_view::npos;
constexpr std::size_t kLongestShown = 40;
/// After so many closing tags that were not there, no more are searched for: each search may go over the whole text.
constexpr int kFailedSearches = 16;

constexpr string_view kSkipped = "\r\n\t";  // by the reader, between elements
constexpr string_view kBlank = " \r\n\t\v\f";
constexpr string_view kByteOrderMark = "\xEF\xBB\xBF";

// ------------------------------------------------------------------------------------------------------------- Texts

bool IsSameLetter(char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
}

bool IsSame(string_view a, string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), IsSameLetter);
}

bool StartsWith(string_view text, string_view word) {
    return IsSame(text.substr(0, word.size()), word);
}

bool Contains(string_view text, string_view word) {
    return std::search(text.begin(), text.end(), word.begin(), word.end(), IsSameLetter) != text.end();
}

bool EndsWith(string_view text, char ch) {
    return !text.empty() && text.back() == ch;
}

bool IsBlank(string_view text) {
    return text.find_first_not_of(kBlank) == kNowhere;
}

/// The name in a tag: what stands before attributes and before a slash at the end.
string_view NameIn(string_view tag) {
    const std::size_t nEnd = tag.find_first_of(" \r\n\t\v\f/", 1);
    return tag.substr(0, nEnd);
}

bool IsSelfClosing(string_view tag) {
    return EndsWith(tag, '/');
}

bool HasAttributes(string_view tag) {
    string_view behindName = tag.substr(NameIn(tag).size());
    if (EndsWith(behindName, '/')) {
        behindName.remove_suffix(1);
    }
    return !IsBlank(behindName);
}

/// A part of the text in quotes, without control characters, cut where it is long but not within a UTF-8 character.
std::string Shown(string_view text) {
    std::size_t nShown = std::min(text.size(), kLongestShown);
    while (nShown > 0 && nShown < text.size() && (static_cast<unsigned char>(text[nShown]) & 0xC0u) == 0x80u) {
        --nShown;
    }
    std::string shown = "'";
    for (const char ch : text.substr(0, nShown)) {
        shown += std::iscntrl(static_cast<unsigned char>(ch)) != 0 ? ' ' : ch;
    }
    return shown + (nShown < text.size() ? "...'" : "'");
}

/// What a tag is, in words.
std::string Described(string_view tag) {
    if (StartsWith(tag, "!--")) {
        return "comment";
    }
    if (StartsWith(tag, "![CDATA[")) {
        return "marked section";
    }
    if (StartsWith(tag, "?")) {
        return "instruction " + Shown(NameIn(tag));
    }
    if (StartsWith(tag, "!")) {
        return "declaration " + Shown(NameIn(tag));
    }
    if (StartsWith(tag, "/")) {
        return "closing tag " + Shown(tag);
    }
    return "element " + Shown(NameIn(tag));
}

/// Where an entity like &amp; or &#38; stands in a text; kNowhere when there is none.
std::size_t FindEntity(string_view text) {
    for (std::size_t n = text.find('&'); n != kNowhere; n = text.find('&', n + 1)) {
        const std::size_t nName = n + (text.substr(n + 1, 1) == "#" ? 2 : 1);
        std::size_t nEnd = nName;
        while (nEnd < text.size() && std::isalnum(static_cast<unsigned char>(text[nEnd])) != 0) {
            ++nEnd;
        }
        if (nEnd > nName && nEnd < text.size() && text[nEnd] == ';') {
            return n;
        }
    }
    return kNowhere;
}

bool IsReadableDate(string_view text) {
    constexpr int kNoDate = -86400;
    KPropertyNode node;
    node.Set(PROPERTY_DATE, KString(text.data(), static_cast<int>(text.size())));
    return node.GetDateValue().sec != kNoDate;
}

// ---------------------------------------------------------------------------------------------------- What is being read

enum class Kind { Top, List, Dictionary, Array };

struct Container {
    const char* pszName;
    Kind eKind;
};

constexpr Container kContainers[] = {{"plist", Kind::List}, {"dict", Kind::Dictionary}, {"array", Kind::Array}};

/// The names of elements with a text, in the order in which the reader compares them.
constexpr const char* kTextElements[] = {"key", "string", "integer", "data", "date"};

struct KeyPlace {
    std::size_t nPlace;
    int nLevel;
};

/// A node that values and keys are added to.
struct Node {
    std::unordered_map<string_view, KeyPlace> keys;
    int nValues = 0;
    bool fgKeysMixed = false;  ///< Whether it has been reported that it has the keys of several dictionaries.
};

/// A container that is open, or the text as a whole.
struct Level {
    Kind eKind;
    string_view name;
    std::size_t nOpened;
    int nNumber;  ///< Different for each level.
    bool fgSelfClosing;
    Node* pParent;
    bool fgHasKey;
    std::size_t nKey;  ///< Where the last key stands.
    string_view keyText;
    Node key;
    string_view value;  ///< The last text, which an empty element repeats.

    Node& Holder() { return fgHasKey ? key : *pParent; }
};

class Linter {
 public:
    explicit Linter(const std::string& text)
        : m_Whole(text), m_Text(text.c_str()), m_n(0), m_nEnd(kNowhere), m_nLevels(0) {}

    Report Lint() {
        m_LineStarts.push_back(0);
        for (std::size_t n = m_Text.find('\n'); n != kNowhere; n = m_Text.find('\n', n + 1)) {
            m_LineStarts.push_back(n + 1);
        }
        Open(Kind::Top, "", false);
        if (StartsWith(m_Text, kByteOrderMark)) {
            End(0, 0, "byte order mark");
            m_n = kByteOrderMark.size();
        }
        while (GoToElement()) {
            ReadElement();
        }
        FinishWhole();
        std::stable_sort(m_Findings.begin(), m_Findings.end(), [](const Finding& a, const Finding& b) {
            return std::make_pair(a.nLine, a.nColumn) < std::make_pair(b.nLine, b.nColumn);
        });
        return {std::move(m_Findings), m_nEnd != kNowhere ? m_nEnd : m_Text.size()};
    }

 private:
    // ------------------------------------------------------------------------------------------------------- Reports

    std::pair<std::size_t, std::size_t> Place(std::size_t n) const {
        const auto next = std::upper_bound(m_LineStarts.begin(), m_LineStarts.end(), n);
        return {static_cast<std::size_t>(next - m_LineStarts.begin()), n - *(next - 1) + 1};
    }

    std::string PlaceText(std::size_t n) const {
        const auto [nLine, nColumn] = Place(n);
        return std::to_string(nLine) + ":" + std::to_string(nColumn);
    }

    void Add(std::size_t n, Severity eSeverity, const std::string& message) {
        const auto [nLine, nColumn] = Place(n);
        m_Findings.push_back({nLine, nColumn, eSeverity, message});
    }
    void Error(std::size_t n, const std::string& message) { Add(n, Severity::Error, message); }
    void Warn(std::size_t n, const std::string& message) { Add(n, Severity::Warning, message); }

    /// Reports that the reader stops at @p nStop because of what stands at @p n.
    void End(std::size_t nStop, std::size_t n, const std::string& what, const std::string& more = "") {
        const char* const pszEnd = m_nEnd == kNowhere ? ": reading ends here" : ": reading would end here";
        Add(n, IsBehindTheList() ? Severity::Warning : Severity::Error, what + pszEnd + more);
        NoteEnd(nStop);
    }

    void NoteEnd(std::size_t nStop) {
        if (m_nEnd == kNowhere) {
            m_nEnd = nStop;
        }
    }

    /// The list is closed: what comes does not belong to it.
    bool IsBehindTheList() const { return m_fgListClosed && m_Levels.size() == 1; }

    // ----------------------------------------------------------------------------------------------- Between elements

    /// Goes to the next '<'. False at the end of the text.
    bool GoToElement() {
        while (true) {
            m_n = std::min(m_Text.find_first_not_of(kSkipped, m_n), m_Text.size());
            if (m_n == m_Text.size()) {
                return false;
            }
            if (m_Text[m_n] == '<') {
                return true;
            }
            const std::size_t nEnd = std::min(m_Text.find('<', m_n), m_Text.size());
            ReadBetween(m_Text.substr(m_n, nEnd - m_n));
            m_n = nEnd;
        }
    }

    void ReadBetween(string_view text) {
        if (!IsBlank(text)) {
            const std::size_t nFirst = m_n + text.find_first_not_of(kBlank);
            End(m_n, nFirst,
                IsBehindTheList() ? "text behind the closing tag of the list" : "text outside of an element");
        } else if (m_n + text.size() == m_Text.size() && m_Levels.size() == 1) {
            NoteEnd(m_n);  // Nothing is lost.
        } else {
            ReadSpaces();
        }
    }

    /// Spaces are reported once: where a file is indented by them, every line is.
    void ReadSpaces() {
        if (m_nSpaces++ > 0) {
            return;
        }
        const std::size_t nLine = m_n - (Place(m_n).second - 1);
        const bool fgIndent = m_Text.substr(nLine, m_n - nLine).find_first_not_of('\t') == kNowhere;
        End(m_n, m_n, fgIndent ? "indented by spaces" : "space between elements", fgIndent ? "; indent by tabs" : "");
        m_nSpacesFinding = m_Findings.size() - 1;
    }

    // ------------------------------------------------------------------------------------------------------- Elements

    std::size_t Find(string_view what, std::size_t nFrom) const {
        return std::min(m_Text.find(what, nFrom), m_Text.size());
    }

    /// The tag here, as the reader sees it: up to the next '>'.
    string_view Tag() const { return m_Text.substr(m_n + 1, Find(">", m_n + 1) - m_n - 1); }

    std::size_t TagEnd(string_view tag) const {
        return static_cast<std::size_t>(tag.data() - m_Text.data()) + tag.size();
    }
    bool IsClosed(string_view tag) const { return TagEnd(tag) < m_Text.size(); }
    std::size_t Behind(string_view tag) const { return TagEnd(tag) + (IsClosed(tag) ? 1 : 0); }

    void ReadElement() {
        const string_view tag = Tag();
        CheckForMissingBracket(tag);
        if (tag.empty()) {
            End(m_n, m_n, "tag without a name");
            m_n = Behind(tag);
        } else if (StartsWith(tag, "?xml")) {
            ReadDeclaration(tag);
        } else if (StartsWith(tag, "!doctype")) {
            ReadDocumentType(tag);
        } else if (!ReadContainer(tag) && !ReadClosingTag(tag) && !ReadTextElement(tag) &&
                   !ReadBoolean(tag, "false/") && !ReadBoolean(tag, "true/")) {
            if (tag[0] == '/') {
                ReadStrayClosingTag(tag);
            } else {
                ReadUnknown(tag);
            }
        }
    }

    /// A tag that lacks its '>' takes in the next one.
    void CheckForMissingBracket(string_view tag) {
        const std::size_t nNext = tag.find('<');
        if (nNext != kNowhere && IsElement(tag)) {
            Error(m_n + 1 + nNext, Shown("<") + " within the tag of " + Shown(NameIn(tag)) + ": is a '>' missing?");
        }
    }

    void ReadDeclaration(string_view tag) {
        const std::size_t nMark = m_Text.find("?>", m_n);
        if (nMark == kNowhere) {
            End(m_n, m_n, "declaration without '?>'");
            m_n = Behind(tag);
            return;
        }
        if (nMark + 1 != TagEnd(tag)) {
            Error(m_n, "declaration without '?>' of its own: everything up to " + PlaceText(nMark) + " is skipped");
        }
        m_n = nMark + std::strlen("?>");
    }

    void ReadDocumentType(string_view tag) {
        if (!IsClosed(tag)) {
            End(m_n, m_n, "tag without '>'");
        }
        m_n = Behind(tag);
    }

    bool ReadContainer(string_view tag) {
        for (const Container& container : kContainers) {
            if (StartsWith(tag, container.pszName)) {
                OpenContainer(tag, container);
                return true;
            }
        }
        return false;
    }

    void OpenContainer(string_view tag, const Container& container) {
        CheckTag(tag, container.pszName);
        const bool fgSelfClosing = IsSelfClosing(tag);
        if (fgSelfClosing) {
            Error(m_n, "self-closing " + Shown(tag) +
                           " is read as an opening tag: what follows up to the next closing tag " + "goes into it");
            m_fgShifted = true;
        }
        NoteContainer(container);
        Open(container.eKind, container.pszName, fgSelfClosing);
        m_n = Behind(tag);
    }

    void Open(Kind eKind, string_view name, bool fgSelfClosing) {
        Node& parent = m_Levels.empty() ? m_Root : m_Levels.back().Holder();
        m_Levels.push_back({eKind, name, m_n, ++m_nLevels, fgSelfClosing, &parent, false, 0, "", {}, ""});
        m_fgList = m_fgList || eKind == Kind::List;
    }

    /// Reads a closing tag of a container.
    bool ReadClosingTag(string_view tag) {
        if (tag[0] != '/' ||
            std::none_of(std::begin(kContainers), std::end(kContainers),
                         [&](const Container& container) { return StartsWith(tag.substr(1), container.pszName); })) {
            return false;
        }
        const std::size_t nBehind = Behind(tag);
        if (m_Levels.size() == 1) {
            ReadClosingTagOfNothing(tag, nBehind);
        } else {
            Close(tag);
        }
        m_n = nBehind;
        return true;
    }

    void ReadClosingTagOfNothing(string_view tag, std::size_t nBehind) {
        const std::string what = "closing tag " + Shown(tag) + " closes nothing";
        if (IsBlank(m_Text.substr(nBehind))) {
            Warn(m_n, what);
            NoteEnd(nBehind);
        } else {
            End(nBehind, m_n, what);
        }
    }

    void Close(string_view tag) {
        Level& level = m_Levels.back();
        const string_view name = NameIn(tag.substr(1));
        if (!IsSame(name, level.name) && !m_fgShifted) {
            Warn(m_n, Shown(tag) + " closes the " + std::string(level.name) + " opened at " + PlaceText(level.nOpened));
        }
        if (!IsClosed(tag)) {
            Error(m_n, "tag without '>'");
        }
        CheckKeyHasValue(level);
        m_fgListClosed = m_fgListClosed || (level.eKind == Kind::List && m_Levels.size() == 2);
        m_Levels.pop_back();
    }

    bool ReadBoolean(string_view tag, string_view name) {
        if (!Contains(tag, name)) {
            return false;
        }
        if (!IsSame(tag, name)) {
            Error(m_n, Described(tag) + " is taken for " + std::string(name));
        }
        if (!IsClosed(tag)) {
            Error(m_n, "tag without '>'");
        }
        NoteValue(name.substr(0, name.size() - 1));
        m_n = Behind(tag);
        return true;
    }

    void ReadStrayClosingTag(string_view tag) {
        End(m_n, m_n, "closing tag " + Shown(tag) + " closes nothing",
            "; in a program whose checks are on, the check \"0\" fails");
        m_n = Behind(tag);
    }

    // ----------------------------------------------------------------------------------------- Elements that end the read

    void ReadUnknown(string_view tag) {
        const string_view name = NameIn(tag);
        const bool fgBoolean = IsSame(name, "true") || IsSame(name, "false");
        End(m_n, m_n, Described(tag) + (IsElement(tag) ? " is not known" : ""),
            fgBoolean ? "; write <" + std::string(name) + "/>" : "");
        if (StartsWith(tag, "!--")) {
            SkipThrough("-->");
        } else if (StartsWith(tag, "![CDATA[")) {
            SkipThrough("]]>");
        } else {
            m_n = Behind(tag);
            if (IsElement(tag)) {
                ++m_Levels.back().Holder().nValues;
                SkipContents(tag);
            }
        }
    }

    static bool IsElement(string_view tag) { return tag[0] != '!' && tag[0] != '?'; }

    void SkipThrough(string_view mark) { m_n = std::min(Find(mark, m_n) + mark.size(), m_Text.size()); }

    /// Skips the text and the closing tag of an element that is not known, where they follow at once.
    void SkipContents(string_view tag) {
        const std::size_t nNext = Find("<", m_n);
        const std::string closing = "</" + std::string(NameIn(tag)) + ">";
        if (!IsSelfClosing(tag) && IsSame(m_Text.substr(nNext, closing.size()), closing)) {
            m_n = nNext + closing.size();
        }
    }

    // -------------------------------------------------------------------------------------------- Elements with a text

    bool ReadTextElement(string_view tag) {
        for (const char* const pszName : kTextElements) {
            if (StartsWith(tag, pszName)) {
                ReadText(tag, pszName);
                return true;
            }
        }
        return false;
    }

    void ReadText(string_view tag, string_view element) {
        if (!IsClosed(tag)) {
            End(m_n, m_n, "tag without '>'");
            m_n = m_Text.size();
            return;
        }
        const std::size_t nText = Behind(tag);
        const std::size_t nTextEnd = Find("<", nText);
        const string_view text = m_Text.substr(nText, nTextEnd - nText);
        const std::string closing = "</" + std::string(tag) + ">";
        const std::size_t nClosing = FindClosing(closing, nTextEnd);
        if (nClosing == kNowhere) {
            ReadTextWithoutClosingTag(tag, element, text);
            return;
        }
        CheckTag(tag, element);
        CheckText(element, text);
        if (HasAttributes(tag)) {
            Warn(m_n, "attributes on " + Shown(NameIn(tag)) + " are read only where the closing tag repeats them");
        }
        if (nClosing != nTextEnd) {
            const string_view found = TagAt(nTextEnd);
            Error(nTextEnd, Described(found) + " within " + Shown(NameIn(tag)) +
                                ": the text ends here, and everything up to " + "the closing tag at " +
                                PlaceText(nClosing) + " is skipped");
        }
        NoteText(element, text);
        m_n = nClosing + closing.size();
    }

    string_view TagAt(std::size_t n) const { return m_Text.substr(n + 1, Find(">", n + 1) - n - 1); }

    /// Where the closing tag of an element stands, nearly always at @p nFrom; kNowhere when it is not there.
    std::size_t FindClosing(const std::string& closing, std::size_t nFrom) {
        if (IsSame(m_Text.substr(nFrom, closing.size()), closing)) {
            return nFrom;
        }
        if (m_nFailedSearches >= kFailedSearches) {
            return kNowhere;
        }
        // The reader's own search; m_Text ends in a NUL.
        const char* const pFound = strcasestr(m_Text.data() + nFrom, closing.c_str());
        m_nFailedSearches += pFound == nullptr ? 1 : 0;
        return pFound != nullptr ? static_cast<std::size_t>(pFound - m_Text.data()) : kNowhere;
    }

    void ReadTextWithoutClosingTag(string_view tag, string_view element, string_view text) {
        const std::string looking = ", looking for " + Shown("</" + std::string(tag) + ">");
        const std::size_t nTextEnd = Behind(tag) + text.size();
        const bool fgClosingTag = m_Text.substr(nTextEnd, 2) == "</";
        if (IsSelfClosing(tag)) {
            End(m_n, m_n, "self-closing " + Shown(tag), looking);
            m_n = Behind(tag);
        } else {
            if (HasAttributes(tag)) {
                End(m_n, m_n, "attributes on " + Shown(NameIn(tag)), looking);
            } else if (fgClosingTag && !IsClosingTagOfContainer(nTextEnd)) {
                End(m_n, m_n, Shown(NameIn(tag)) + " is closed by " + Shown(TagAt(nTextEnd)), looking);
            } else {
                End(m_n, m_n, Shown(NameIn(tag)) + " has no closing tag", looking);
            }
            const bool fgSkipTag = fgClosingTag && !IsClosingTagOfContainer(nTextEnd);
            m_n = fgSkipTag ? Behind(TagAt(nTextEnd)) : nTextEnd;
        }
        NoteText(element, text);
    }

    bool IsClosingTagOfContainer(std::size_t n) const {
        const string_view name = NameIn(TagAt(n).substr(1));
        return std::any_of(std::begin(kContainers), std::end(kContainers),
                           [&](const Container& container) { return IsSame(name, container.pszName); });
    }

    /// Reports what is odd about a text that is read.
    void CheckText(string_view element, string_view text) {
        const string_view before = m_Levels.back().value;
        if (text.empty() && !before.empty()) {
            Error(m_n, "empty " + Shown(element) + " takes the text before it, " + Shown(before));
        } else if (text.empty() && element == "key") {
            Warn(m_n, "empty 'key' is never found");
        }
        const std::size_t nEntity = FindEntity(text);
        if (nEntity != kNowhere) {
            const string_view entity = text.substr(nEntity, text.find(';', nEntity) + 1 - nEntity);
            Warn(static_cast<std::size_t>(entity.data() - m_Text.data()),
                 "entity " + Shown(entity) + " is not decoded");
        }
        if (element == "date" && !text.empty() && !IsReadableDate(text)) {
            Warn(m_n, "date " + Shown(text) + " is not of the form 2010-05-06T07:08:09Z and reads as an invalid one");
        }
    }

    void NoteText(string_view element, string_view text) {
        Level& level = m_Levels.back();
        if (!text.empty()) {
            level.value = text;
        }
        if (element == "key") {
            NoteKey(level.value);
        } else {
            NoteValue(element);
        }
    }

    // -------------------------------------------------------------------------------------------------- Keys and values

    /// Reports a tag that the reader takes for another because it starts like it.
    void CheckTag(string_view tag, string_view element) {
        if (!IsSame(NameIn(tag), element)) {
            Warn(m_n, Described(tag) + " is taken for " + std::string(element));
        }
        if (!IsClosed(tag)) {
            Error(m_n, "tag without '>'");
        }
        if (IsBehindTheList() && !m_fgTrailing) {
            m_fgTrailing = true;
            Warn(m_n, Shown(element) + " behind the closing tag of the list is read all the same");
        }
    }

    void NoteKey(string_view text) {
        Level& level = m_Levels.back();
        if (level.eKind == Kind::Array) {
            Warn(m_n, "'key' in an array");
        }
        CheckKeyHasValue(level);
        const auto [found, fgNew] = level.pParent->keys.emplace(text, KeyPlace{m_n, level.nNumber});
        if (!fgNew && !text.empty()) {
            ReportKeyAgain(text, found->second, level);
        }
        level.fgHasKey = true;
        level.nKey = m_n;
        level.keyText = text;
        level.key = Node();
    }

    void ReportKeyAgain(string_view text, const KeyPlace& first, const Level& level) {
        const std::string found = "key paths find the one at " + PlaceText(first.nPlace);
        if (first.nLevel == level.nNumber) {
            Warn(m_n, "key " + Shown(text) + " again: " + found);
        } else if (!level.pParent->fgKeysMixed) {
            level.pParent->fgKeysMixed = true;
            Warn(m_n, "key " + Shown(text) + " again: dictionaries side by side are not kept apart, " + found);
        }
    }

    void CheckKeyHasValue(const Level& level) {
        if (level.fgHasKey && level.key.nValues == 0) {
            Warn(level.nKey, "key " + Shown(level.keyText) + " has no value");
        }
    }

    void NoteContainer(const Container& container) {
        const Kind eAround = m_Levels.back().eKind;
        const bool fgTopDictionary = container.eKind == Kind::Dictionary && eAround != Kind::Dictionary;
        if (container.eKind == Kind::Array && eAround == Kind::Array) {
            Warn(m_n, "'array' within an array: its elements join those of the array around it");
        }
        if (container.eKind == Kind::List || (fgTopDictionary && !m_Levels.back().fgHasKey)) {
            ++m_Levels.back().Holder().nValues;
        } else {
            NoteValue(container.pszName);
        }
    }

    void NoteValue(string_view element) {
        Level& level = m_Levels.back();
        const int nBefore = level.Holder().nValues++;
        if (level.eKind == Kind::Array) {
            return;
        }
        if (!level.fgHasKey) {
            Warn(m_n, Shown(element) + " before any key: no key of its own leads to it");
        } else if (nBefore > 0) {
            Warn(m_n, Shown(element) + " is one more value of the key " + Shown(level.keyText));
        }
    }

    // ---------------------------------------------------------------------------------------------------------- The end

    void FinishWhole() {
        const std::size_t nOpen = m_Levels.size() - 1;
        if (nOpen > 0 && !m_fgShifted) {
            const std::string more = nOpen > 1 ? " (nor are " + std::to_string(nOpen - 1) + " more within it)" : "";
            Warn(m_Levels[1].nOpened, Shown(m_Levels[1].name) + " is not closed" + more);
        }
        if (!m_fgList) {
            Warn(0, "no 'plist' element");
        }
        if (m_nSpaces > 1) {
            m_Findings[m_nSpacesFinding].message +=
                " (and " + std::to_string(m_nSpaces - 1) + (m_nSpaces == 2 ? " place more)" : " places more)");
        }
        if (m_Text.size() < m_Whole.size()) {
            Error(m_Text.size(),
                  m_nEnd == kNowhere ? "NUL byte: reading ends here" : "NUL byte: reading would end here");
        }
    }

    const std::string& m_Whole;
    const string_view m_Text;  ///< Up to the first NUL, and followed by one.
    std::size_t m_n;           ///< Where it stands.
    std::size_t m_nEnd;        ///< Where the reader stops, once that is known.
    std::vector<Finding> m_Findings;
    std::vector<std::size_t> m_LineStarts;
    Node m_Root;
    std::deque<Level> m_Levels;  ///< Levels keep their addresses.
    int m_nLevels;
    int m_nFailedSearches = 0;
    int m_nSpaces = 0;
    std::size_t m_nSpacesFinding = 0;
    bool m_fgList = false;        ///< A list was opened.
    bool m_fgListClosed = false;  ///< The list was closed.
    bool m_fgTrailing = false;    ///< Something behind it was reported.
    bool m_fgShifted = false;     ///< A self-closing tag has put closing tags out of step.
};

}  // namespace

Report Lint(const std::string& text) {
    return Linter(text).Lint();
}

}  // namespace kplist
