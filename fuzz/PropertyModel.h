// The reader of property lists as its description tells it, without regard to cost: it copies and searches where the library
// goes over the text once. Both have to come to the same, at any depth: nothing here recurses.
#ifndef KALVOREN_FUZZ_PROPERTYMODEL_H
#define KALVOREN_FUZZ_PROPERTYMODEL_H

#include <strings.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <functional>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "CalendarModel.h"
#include "Fuzz.h"
#include "KPropertyList.h"

namespace fuzz {

/// A node of a tree, which may be of any depth.
struct ModelNode {
    ModelNode() = default;
    ModelNode(KPropertyNodeType eNodeType, std::string nodeText, std::size_t nNodePlace = 0)
        : eType(eNodeType), text(std::move(nodeText)), nPlace(nNodePlace) {}
    ModelNode(ModelNode&&) = default;
    ModelNode& operator=(ModelNode&&) = delete;
    /// What hangs below it is not left to the destructors of its children, which would call each other.
    ~ModelNode() {
        std::vector<ModelNode> waiting = std::move(children);
        while (!waiting.empty()) {
            std::vector<ModelNode> next = std::move(waiting.back().children);
            waiting.pop_back();
            std::move(next.begin(), next.end(), std::back_inserter(waiting));
        }
    }

    KPropertyNodeType eType = PROPERTY_NONE;
    std::string text;
    std::vector<ModelNode> children;
    std::size_t nPlace = 0;  ///< In the text: where the element begins that it was read from.
};

/// A tree as a text in which every difference shows.
inline std::string Dump(const ModelNode& root) {
    std::string text;
    // The nodes whose children are being told, the root first, and which of these is next.
    std::vector<std::pair<const ModelNode*, std::size_t>> open = {{&root, 0}};
    while (!open.empty()) {
        const ModelNode& node = *open.back().first;
        if (open.back().second == node.children.size()) {
            open.pop_back();
            text += open.empty() ? "" : ")";
            continue;
        }
        const ModelNode& child = node.children[open.back().second++];
        text += "(" + std::to_string(child.eType) + ":" + std::to_string(child.text.size()) + ":" + child.text;
        open.emplace_back(&child, 0);
    }
    return text;
}

constexpr std::size_t kNoPlace = std::string::npos;

/// What holds elements; the text as a whole is one too.
enum class ModelLevel { TOP, LIST, DICTIONARY, ARRAY };

/// An element that was read, and what was around it then.
struct ModelElement {
    std::size_t nPlace = 0;
    std::string tag;
    KPropertyNodeType eType = PROPERTY_NONE;  ///< None for a container,
    ModelLevel eOpened = ModelLevel::TOP;     ///< which this one opened.
    std::string text;                         ///< As the node has it.
    std::string written;                      ///< As it stands in the element.
    std::size_t nTextEnd = 0;                 ///< Where that ends,
    std::size_t nClosing = 0;                 ///< and where the closing tag begins.
    ModelLevel eAround = ModelLevel::TOP;     ///< What it stands in,
    int nAround = 0;                          ///< and which of these.
    std::size_t nKeyPlace = kNoPlace;         ///< The key before it at the same level,
    std::string key;                          ///< its text,
    int nValues = 0;                          ///< and how many values it had by then.
    bool fgBehindList = false;                ///< Whether a list was closed before it, and nothing was open.
};

/// A closing tag that closed a container.
struct ModelClosing {
    std::size_t nPlace;
    std::string tag;
    std::size_t nOpened;
    ModelLevel eOpened;
};

class ModelReader {
 public:
    explicit ModelReader(const std::string& text) : m_Text(fuzz::Plain(text)) {
        Begin(m_Root, ModelLevel::TOP);
        while (ReadElement()) {
        }
    }

    const ModelNode& Root() const { return m_Root; }
    const std::string& Header() const { return m_Header; }
    /// What was not read.
    std::string Rest() const { return m_Text.substr(m_nHere); }

    /// What was read, in the order of the text.
    const std::vector<ModelElement>& Elements() const { return m_Elements; }
    const std::vector<ModelClosing>& Closings() const { return m_Closings; }
    /// The places of containers that are still open, the outermost first.
    const std::vector<std::size_t>& Open() const { return m_Open; }
    /// The places of keys that got no value until the next key, or until what they stand in was closed.
    const std::vector<std::size_t>& KeysWithoutValue() const { return m_KeysWithoutValue; }
    /// The place of a closing tag that closed nothing, which ended the read.
    std::size_t ClosedNothing() const { return m_nClosedNothing; }
    /// Whether a list was closed and nothing is open.
    bool IsBehindList() const { return m_fgListClosed && m_Levels.size() == 1; }
    /// Declarations that end with the mark of something behind them: the place of each, and that of the mark.
    const std::vector<std::pair<std::size_t, std::size_t>>& LongDeclarations() const { return m_LongDeclarations; }

 private:
    /// A level that is open: what its elements hang under, and what was read of it.
    struct Level {
        ModelNode* pParent;
        ModelLevel eLevel;
        int nNumber;
        /// Elements hang under the parent itself, or the last of its keys.
        bool fgKey = false;
        std::size_t nKey = 0;
        std::string value{};  ///< The text of the element before.
        int nValues = 0;

        /// Children are added meanwhile: good until the next one.
        ModelNode& Holder() const { return fgKey ? pParent->children[nKey] : *pParent; }
    };

    static bool StartsWith(const std::string& text, const char* pszWord) {
        return strncasecmp(text.c_str(), pszWord, std::strlen(pszWord)) == 0;
    }
    static bool Contains(const std::string& text, const char* pszWord) {
        return strcasestr(text.c_str(), pszWord) != nullptr;
    }

    /// Goes behind the first occurrence of a word, in any case. False, and nowhere, without one.
    bool CutThrough(const std::string& word) {
        const char* const pHit = strcasestr(m_Text.c_str() + m_nHere, word.c_str());
        if (pHit == nullptr) {
            return false;
        }
        m_nHere = static_cast<std::size_t>(pHit - m_Text.c_str()) + word.size();
        return true;
    }

    void CutTag(const std::string& tag) { m_nHere = std::min(m_nHere + tag.size() + 2, m_Text.size()); }

    /// The text of the tag here: behind "<", at least one byte, as far as ">" or the end. Empty where there is none.
    std::string Tag() const {
        if (m_nHere == m_Text.size() || m_Text[m_nHere] != '<') {
            return "";
        }
        const std::size_t nEnd = m_Text.find('>', m_nHere);
        return m_Text.substr(m_nHere + 1, nEnd == std::string::npos ? nEnd : nEnd - m_nHere - 1);
    }

    void Begin(ModelNode& parent, ModelLevel eLevel) { m_Levels.push_back({&parent, eLevel, ++m_nLevels}); }

    static void NoteKeyWithoutValue(const Level& level, std::vector<std::size_t>& places) {
        if (level.fgKey && level.nValues == 0) {
            places.push_back(level.Holder().nPlace);
        }
    }

    /// Reads what comes next. False at the end of the read.
    bool ReadElement() {
        m_nHere = std::min(m_Text.find_first_not_of("\r\n\t", m_nHere), m_Text.size());
        const std::string tag = Tag();
        if (tag.empty()) {
            return false;
        }
        Level& level = m_Levels.back();
        ModelElement element;
        element.nPlace = m_nHere;
        element.tag = tag;
        element.eAround = level.eLevel;
        element.nAround = level.nNumber;
        element.nKeyPlace = level.fgKey ? level.Holder().nPlace : kNoPlace;
        element.key = level.fgKey ? level.Holder().text : "";
        element.nValues = level.nValues;
        element.fgBehindList = IsBehindList();
        if (StartsWith(tag, "?XML") || StartsWith(tag, "!DOCTYPE")) {
            return ReadDeclaration(tag);
        }
        if (StartsWith(tag, "PLIST") || StartsWith(tag, "DICT") || StartsWith(tag, "ARRAY")) {
            ReadOpening(element);
            return true;
        }
        if (StartsWith(tag, "/PLIST") || StartsWith(tag, "/DICT") || StartsWith(tag, "/ARRAY")) {
            return ReadClosing(tag);
        }
        if (TextType(tag) != PROPERTY_NONE) {
            element.eType = TextType(tag);
            return ReadText(element);
        }
        if (Contains(tag, "FALSE/") || Contains(tag, "TRUE/")) {
            CutTag(tag);
            element.eType = PROPERTY_BOOLEAN;
            element.text = Contains(tag, "FALSE/") ? "FALSE" : "TRUE";
            m_Elements.push_back(element);
            level.Holder().children.emplace_back(PROPERTY_BOOLEAN, element.text, element.nPlace);
            ++level.nValues;
            return true;
        }
        // A closing tag that closes nothing, and an element that is not known, end the read on every level.
        return false;
    }

    bool ReadDeclaration(const std::string& tag) {
        const std::size_t nPlace = m_nHere;
        const bool fgXml = StartsWith(tag, "?XML");
        m_Header = tag;
        if (!CutThrough(fgXml ? "?>" : ">")) {
            return false;
        }
        if (fgXml && m_nHere > nPlace + tag.size() + 2) {
            m_LongDeclarations.emplace_back(nPlace, m_nHere - 2);
        }
        return true;
    }

    void ReadOpening(ModelElement& element) {
        element.eOpened = StartsWith(element.tag, "PLIST")  ? ModelLevel::LIST
                          : StartsWith(element.tag, "DICT") ? ModelLevel::DICTIONARY
                                                            : ModelLevel::ARRAY;
        m_Elements.push_back(element);
        m_Open.push_back(element.nPlace);
        ++m_Levels.back().nValues;
        CutTag(element.tag);
        Begin(m_Levels.back().Holder(), element.eOpened);
    }

    /// Whatever a closing tag names, it closes the level that was opened last; where there is none, it ends the read.
    bool ReadClosing(const std::string& tag) {
        const std::size_t nPlace = m_nHere;
        CutTag(tag);
        if (m_Levels.size() == 1) {
            m_nClosedNothing = nPlace;
            return false;
        }
        const Level& level = m_Levels.back();
        m_Closings.push_back({nPlace, tag, m_Open.back(), level.eLevel});
        m_Open.pop_back();
        m_fgListClosed = m_fgListClosed || (m_Levels.size() == 2 && level.eLevel == ModelLevel::LIST);
        NoteKeyWithoutValue(level, m_KeysWithoutValue);
        m_Levels.pop_back();
        return true;
    }

    bool ReadText(ModelElement& element) {
        Level& level = m_Levels.back();
        const std::size_t nText = std::min(m_nHere + element.tag.size() + 2, m_Text.size());
        const std::string found = m_Text.substr(nText, std::min(m_Text.find('<', nText), m_Text.size()) - nText);
        // An empty element leaves what the element before it left.
        level.value = found.empty() ? level.value : found;
        if (!CutThrough("</" + element.tag + ">")) {
            return false;
        }
        element.text = level.value;
        element.written = found;
        element.nTextEnd = nText + found.size();
        element.nClosing = m_nHere - (element.tag.size() + 3);
        m_Elements.push_back(element);
        if (element.eType == PROPERTY_KEY) {
            NoteKeyWithoutValue(level, m_KeysWithoutValue);
            level.pParent->children.emplace_back(element.eType, element.text, element.nPlace);
            level.fgKey = true;
            level.nKey = level.pParent->children.size() - 1;
            level.nValues = 0;
        } else {
            level.Holder().children.emplace_back(element.eType, element.text, element.nPlace);
            ++level.nValues;
        }
        return true;
    }

    static KPropertyNodeType TextType(const std::string& tag) {
        static const struct {
            const char* pszName;
            KPropertyNodeType eType;
        } kElements[] = {{"KEY", PROPERTY_KEY},
                         {"STRING", PROPERTY_STRING},
                         {"INTEGER", PROPERTY_INTEGER},
                         {"DATA", PROPERTY_DATA},
                         {"DATE", PROPERTY_DATE}};
        for (const auto& element : kElements) {
            if (StartsWith(tag, element.pszName)) {
                return element.eType;
            }
        }
        return PROPERTY_NONE;
    }

    const std::string m_Text;
    std::size_t m_nHere = 0;      ///< How far it was read.
    std::vector<Level> m_Levels;  ///< Those that are open, the text as a whole first.
    std::string m_Header;
    ModelNode m_Root;
    std::vector<ModelElement> m_Elements;
    std::vector<ModelClosing> m_Closings;
    std::vector<std::size_t> m_Open;
    std::vector<std::size_t> m_KeysWithoutValue;
    std::vector<std::pair<std::size_t, std::size_t>> m_LongDeclarations;
    int m_nLevels = 0;
    bool m_fgListClosed = false;
    std::size_t m_nClosedNothing = kNoPlace;
};

/// The seconds that stand for what is no date.
constexpr int kNoDate = -86400;

/// Takes the fields of a date out of a text, as a scan by "%04d-%02d-%02dT%02d:%02d:%02dZ" does.
class ModelDate {
 public:
    explicit ModelDate(const std::string& text) : m_Text(text) {
        static const struct {
            std::size_t nWidth;
            const char* pszBehind;
        } kFields[] = {{4, "-"}, {2, "-"}, {2, "T"}, {2, ":"}, {2, ":"}, {2, ""}};
        int fields[6];
        for (std::size_t i = 0; i < 6; ++i) {
            if (!TakeField(kFields[i].nWidth, fields[i]) || !TakeText(kFields[i].pszBehind)) {
                return;
            }
        }
        short cut[6];
        std::transform(fields, fields + 6, cut, [](int n) { return static_cast<short>(n); });
        m_nSeconds = ModelSeconds(cut[0], cut[1], cut[2], cut[3], cut[4], cut[5]);
    }

    int Seconds() const { return m_nSeconds; }

 private:
    char Here() const { return m_nHere < m_Text.size() ? m_Text[m_nHere] : '\0'; }

    /// Blanks that do not count, then a sign and digits, or fewer of them: no more than the width together, and one digit.
    bool TakeField(std::size_t nWidth, int& nValue) {
        m_nHere = std::min(m_Text.find_first_not_of(" \t\n\v\f\r", m_nHere), m_Text.size());
        const std::size_t nEnd = m_nHere + nWidth;
        const bool fgMinus = Here() == '-';
        if (fgMinus || Here() == '+') {
            ++m_nHere;
        }
        int nDigits = 0;
        nValue = 0;
        for (; m_nHere < nEnd && Here() >= '0' && Here() <= '9'; ++m_nHere, ++nDigits) {
            nValue = nValue * 10 + (Here() - '0');
        }
        nValue = fgMinus ? -nValue : nValue;
        return nDigits > 0;
    }

    bool TakeText(const char* pszText) {
        const std::size_t nLength = std::strlen(pszText);
        const bool fgThere = m_Text.compare(m_nHere, nLength, pszText) == 0;
        m_nHere += fgThere ? nLength : 0;
        return fgThere;
    }

    const std::string m_Text;
    std::size_t m_nHere = 0;
    int m_nSeconds = kNoDate;
};

/// What a node says about its text, as a text, a number, a truth and a date. Its type does not matter.
inline void CompareGetters(KPropertyNode& node) {
    const std::string text = TextOf(node.GetStringValue());
    ExpectSame(TextOf(node.GetKey()), text, "GetKey");
    ExpectSame(TextOf(node.GetDataValue()), text, "GetDataValue");
    ExpectSame(node.GetNumberValue(), -1, "GetNumberValue");
    const bool fgTrue = text.size() >= 4 && strncasecmp(text.c_str(), "true", 4) == 0;
    ExpectSame(node.GetBooleanValue(), fgTrue, "GetBooleanValue");
    const KTime time = node.GetDateValue();
    ExpectSame(time.sec, ModelDate(text).Seconds(), "GetDateValue");
    ExpectSame(time.IsValid(), time.sec > 0, "whether a date is valid");
    Expect(time.usec == 0 && time.gmt15Min == 0 && time.dst15Min == 0, "a date is whole seconds in UTC");
}

/// The tree that the library built, taken out of it and destroyed: a node's own destructor leaves half of it. Every node is
/// shown to the callback before.
inline ModelNode TakeTree(
    KPropertyNode& root, const std::function<void(KPropertyNode&)>& visit = [](KPropertyNode&) {}) {
    ModelNode taken;
    std::vector<std::pair<KPropertyNode*, ModelNode*>> waiting = {{&root, &taken}};
    while (!waiting.empty()) {
        const auto [pNode, pTaken] = waiting.back();
        waiting.pop_back();
        // None is added later, so that they stay where they are.
        pTaken->children.reserve(static_cast<std::size_t>(pNode->GetNodeCount()));
        while (pNode->GetNodeCount() > 0) {
            KPropertyNode* const pChild = *pNode->GetNode(0);
            pNode->RemoveNode(0);
            visit(*pChild);
            const KString value = pChild->GetStringValue();
            pTaken->children.emplace_back(pChild->GetValueType(),
                                          std::string(value.GetBuffer(), static_cast<std::size_t>(value.Length())));
            waiting.emplace_back(pChild, &pTaken->children.back());
        }
        if (pNode != &root) {
            delete pNode;
        }
    }
    return taken;
}

}  // namespace fuzz

#endif  // KALVOREN_FUZZ_PROPERTYMODEL_H
