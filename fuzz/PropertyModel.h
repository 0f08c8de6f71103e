// The reader of property lists as its description tells it, without regard to cost: it recurses, copies and searches where the
// library goes over the text once. Both have to come to the same.
#ifndef KALVOREN_FUZZ_PROPERTYMODEL_H
#define KALVOREN_FUZZ_PROPERTYMODEL_H

#include <strings.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "KPropertyList.h"

namespace fuzz {

/// A node of a tree.
struct ModelNode {
    KPropertyNodeType eType = PROPERTY_NONE;
    std::string text;
    std::vector<ModelNode> children;
    std::size_t nPlace = 0;  ///< In the text: where the element begins that it was read from.
};

/// A tree as a text in which every difference shows.
inline std::string Dump(const ModelNode& node) {
    std::string text;
    for (const ModelNode& child : node.children) {
        text += "(" + std::to_string(child.eType) + ":" + std::to_string(child.text.size()) + ":" + child.text +
                Dump(child) + ")";
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
    explicit ModelReader(const std::string& text) : m_Text(text.substr(0, text.find('\0'))), m_nWhole(m_Text.size()) {
        Parse(m_Root, 0, ModelLevel::TOP);
    }

    const ModelNode& Root() const { return m_Root; }
    const std::string& Header() const { return m_Header; }
    /// What was not read.
    const std::string& Rest() const { return m_Text; }
    /// Whether the model could follow: it is no match for the library where lists are nested deeply.
    bool IsSure() const { return m_fgSure; }

    /// What was read, in the order of the text.
    const std::vector<ModelElement>& Elements() const { return m_Elements; }
    const std::vector<ModelClosing>& Closings() const { return m_Closings; }
    /// The places of containers that are still open, the outermost first.
    const std::vector<std::size_t>& Open() const { return m_Open; }
    /// The places of keys that got no value until the next key, or until what they stand in was closed.
    const std::vector<std::size_t>& KeysWithoutValue() const { return m_KeysWithoutValue; }
    /// Declarations that end with the mark of something behind them: the place of each, and that of the mark.
    const std::vector<std::pair<std::size_t, std::size_t>>& LongDeclarations() const { return m_LongDeclarations; }

 private:
    static constexpr int kDeepest = 500;

    static bool StartsWith(const std::string& text, const char* pszWord) {
        return strncasecmp(text.c_str(), pszWord, std::strlen(pszWord)) == 0;
    }
    static bool Contains(const std::string& text, const char* pszWord) {
        return strcasestr(text.c_str(), pszWord) != nullptr;
    }

    /// Cuts the text behind the first occurrence of a word, in any case. False, with nothing cut, without one.
    bool CutThrough(const std::string& word) {
        const char* const pHit = strcasestr(m_Text.c_str(), word.c_str());
        if (pHit == nullptr) {
            return false;
        }
        m_Text.erase(0, static_cast<std::size_t>(pHit - m_Text.c_str()) + word.size());
        return true;
    }

    void CutTag(const std::string& tag) { m_Text.erase(0, tag.size() + 2); }

    /// The text of the tag here: behind "<", at least one byte, as far as ">" or the end. Empty where there is none.
    std::string Tag() const {
        if (m_Text.empty() || m_Text[0] != '<') {
            return "";
        }
        return m_Text.substr(1, m_Text.find('>') == std::string::npos ? std::string::npos : m_Text.find('>') - 1);
    }

    std::size_t Here() const { return m_nWhole - m_Text.size(); }

    void Parse(ModelNode& parent, int nDepth, ModelLevel eLevel) {
        m_fgSure = m_fgSure && nDepth < kDeepest;
        if (!m_fgSure) {
            return;
        }
        // Children are added while it is in use: the parent itself, or the last of its keys.
        bool fgKey = false;
        std::size_t nKey = 0;
        const auto holder = [&]() -> ModelNode& { return fgKey ? parent.children[nKey] : parent; };
        std::string value;
        const int nLevel = ++m_nLevels;
        int nValues = 0;
        const auto noteKeyWithoutValue = [&] {
            if (fgKey && nValues == 0) {
                m_KeysWithoutValue.push_back(holder().nPlace);
            }
        };
        for (;;) {
            const std::size_t nFirst = m_Text.find_first_not_of("\r\n\t");
            m_Text.erase(0, nFirst == std::string::npos ? m_Text.size() : nFirst);
            const std::string tag = Tag();
            if (tag.empty()) {
                return;
            }
            ModelElement element;
            element.nPlace = Here();
            element.tag = tag;
            element.eAround = eLevel;
            element.nAround = nLevel;
            element.nKeyPlace = fgKey ? holder().nPlace : kNoPlace;
            element.key = fgKey ? holder().text : "";
            element.nValues = nValues;
            element.fgBehindList = m_fgListClosed && nDepth == 0;
            if (StartsWith(tag, "?XML")) {
                m_Header = tag;
                if (!CutThrough("?>")) {
                    m_fgEnded = true;
                } else if (Here() > element.nPlace + tag.size() + 2) {
                    m_LongDeclarations.emplace_back(element.nPlace, Here() - 2);
                }
            } else if (StartsWith(tag, "!DOCTYPE")) {
                m_Header = tag;
                if (!CutThrough(">")) {
                    m_fgEnded = true;
                }
            } else if (StartsWith(tag, "PLIST") || StartsWith(tag, "DICT") || StartsWith(tag, "ARRAY")) {
                element.eOpened = StartsWith(tag, "PLIST")  ? ModelLevel::LIST
                                  : StartsWith(tag, "DICT") ? ModelLevel::DICTIONARY
                                                            : ModelLevel::ARRAY;
                m_Elements.push_back(element);
                m_Open.push_back(element.nPlace);
                ++nValues;
                CutTag(tag);
                Parse(holder(), nDepth + 1, element.eOpened);
            } else if (StartsWith(tag, "/PLIST") || StartsWith(tag, "/DICT") || StartsWith(tag, "/ARRAY")) {
                CutTag(tag);
                if (nDepth > 0) {
                    m_Closings.push_back({element.nPlace, tag, m_Open.back(), eLevel});
                    m_Open.pop_back();
                    m_fgListClosed = m_fgListClosed || (nDepth == 1 && eLevel == ModelLevel::LIST);
                    noteKeyWithoutValue();
                }
                return;
            } else if (KPropertyNodeType eType = TextType(tag); eType != PROPERTY_NONE) {
                const std::string strElement = m_Text;
                const std::size_t nText = tag.size() + 2;
                const std::string strRest = strElement.size() > nText ? strElement.substr(nText) : "";
                const std::string strFound = strRest.substr(0, strRest.find('<'));
                // An empty element leaves what the element before it left.
                value = strFound.empty() ? value : strFound;
                if (!CutThrough("</" + tag + ">")) {
                    m_fgEnded = true;
                    return;
                }
                element.eType = eType;
                element.text = value;
                element.written = strFound;
                element.nTextEnd = element.nPlace + nText + strFound.size();
                element.nClosing = Here() - (tag.size() + 3);
                m_Elements.push_back(element);
                if (eType == PROPERTY_KEY) {
                    noteKeyWithoutValue();
                    parent.children.push_back({eType, value, {}, element.nPlace});
                    fgKey = true;
                    nKey = parent.children.size() - 1;
                    nValues = 0;
                } else {
                    holder().children.push_back({eType, value, {}, element.nPlace});
                    ++nValues;
                }
            } else if (Contains(tag, "FALSE/") || Contains(tag, "TRUE/")) {
                CutTag(tag);
                element.eType = PROPERTY_BOOLEAN;
                element.text = Contains(tag, "FALSE/") ? "FALSE" : "TRUE";
                m_Elements.push_back(element);
                holder().children.push_back({PROPERTY_BOOLEAN, element.text, {}, element.nPlace});
                ++nValues;
            } else {
                // A closing tag that closes nothing, and an element that is not known, end the read on every level.
                m_fgEnded = true;
            }
            if (m_fgEnded || !m_fgSure) {
                return;
            }
        }
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

    std::string m_Text;
    std::size_t m_nWhole;
    std::string m_Header;
    ModelNode m_Root;
    std::vector<ModelElement> m_Elements;
    std::vector<ModelClosing> m_Closings;
    std::vector<std::size_t> m_Open;
    std::vector<std::size_t> m_KeysWithoutValue;
    std::vector<std::pair<std::size_t, std::size_t>> m_LongDeclarations;
    int m_nLevels = 0;
    bool m_fgListClosed = false;
    bool m_fgEnded = false;
    bool m_fgSure = true;
};

/// The tree that the library built, taken out of it and destroyed: a node's own destructor leaves half of it.
inline ModelNode TakeTree(KPropertyNode& node, KPropertyNodeType eType, const std::string& text) {
    ModelNode taken = {eType, text, {}};
    while (node.GetNodeCount() > 0) {
        KPropertyNode* const pChild = *node.GetNode(0);
        node.RemoveNode(0);
        const KString value = pChild->GetStringValue();
        taken.children.push_back(TakeTree(*pChild, pChild->GetValueType(),
                                          std::string(value.GetBuffer(), static_cast<std::size_t>(value.Length()))));
        delete pChild;
    }
    return taken;
}

}  // namespace fuzz

#endif  // KALVOREN_FUZZ_PROPERTYMODEL_H
