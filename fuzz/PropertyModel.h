// The reader of property lists as its description tells it, without regard to cost: it recurses, copies and searches where the
// library goes over the text once. Both have to come to the same.
#ifndef KALVOREN_FUZZ_PROPERTYMODEL_H
#define KALVOREN_FUZZ_PROPERTYMODEL_H

#include <strings.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "KPropertyList.h"

namespace fuzz {

/// A node of a tree.
struct ModelNode {
    KPropertyNodeType eType = PROPERTY_NONE;
    std::string text;
    std::vector<ModelNode> children;
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

class ModelReader {
 public:
    explicit ModelReader(const std::string& text) : m_Text(text.substr(0, text.find('\0'))) { Parse(m_Root, 0); }

    const ModelNode& Root() const { return m_Root; }
    const std::string& Header() const { return m_Header; }
    /// What was not read.
    const std::string& Rest() const { return m_Text; }
    /// Whether the model could follow: it is no match for the library where lists are nested deeply.
    bool IsSure() const { return m_fgSure; }

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

    void Parse(ModelNode& parent, int nDepth) {
        m_fgSure = m_fgSure && nDepth < kDeepest;
        if (!m_fgSure) {
            return;
        }
        // Children are added while it is in use: the parent itself, or the last of its keys.
        bool fgKey = false;
        std::size_t nKey = 0;
        const auto holder = [&]() -> ModelNode& { return fgKey ? parent.children[nKey] : parent; };
        std::string value;
        for (;;) {
            const std::size_t nFirst = m_Text.find_first_not_of("\r\n\t");
            m_Text.erase(0, nFirst == std::string::npos ? m_Text.size() : nFirst);
            const std::string tag = Tag();
            if (tag.empty()) {
                return;
            }
            if (StartsWith(tag, "?XML")) {
                m_Header = tag;
                if (!CutThrough("?>")) {
                    m_fgEnded = true;
                }
            } else if (StartsWith(tag, "!DOCTYPE")) {
                m_Header = tag;
                if (!CutThrough(">")) {
                    m_fgEnded = true;
                }
            } else if (StartsWith(tag, "PLIST") || StartsWith(tag, "DICT") || StartsWith(tag, "ARRAY")) {
                CutTag(tag);
                Parse(holder(), nDepth + 1);
            } else if (StartsWith(tag, "/PLIST") || StartsWith(tag, "/DICT") || StartsWith(tag, "/ARRAY")) {
                CutTag(tag);
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
                if (eType == PROPERTY_KEY) {
                    parent.children.push_back({eType, value, {}});
                    fgKey = true;
                    nKey = parent.children.size() - 1;
                } else {
                    holder().children.push_back({eType, value, {}});
                }
            } else if (Contains(tag, "FALSE/")) {
                CutTag(tag);
                holder().children.push_back({PROPERTY_BOOLEAN, "FALSE", {}});
            } else if (Contains(tag, "TRUE/")) {
                CutTag(tag);
                holder().children.push_back({PROPERTY_BOOLEAN, "TRUE", {}});
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
    std::string m_Header;
    ModelNode m_Root;
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
