#include "Tree.h"

#include <cstdio>
#include <vector>

namespace {

const char* const kTypeNames[] = {"none", "key", "boolean", "data", "date", "string", "integer"};

constexpr char kKeyColor[] = "\x1b[36m";
constexpr char kTypeColor[] = "\x1b[2m";
constexpr char kNoColor[] = "\x1b[0m";

const char* TypeName(KPropertyNode& node) {
    const std::size_t nType = static_cast<std::size_t>(node.GetValueType());
    return nType < sizeof(kTypeNames) / sizeof(kTypeNames[0]) ? kTypeNames[nType] : "?";
}

/// A text in quotes, on one line, without anything that a terminal would act on.
std::string Quoted(const KString& text) {
    std::string quoted = "\"";
    for (int i = 0; i < text.Length(); ++i) {
        const char ch = text[i];
        if (ch == '"' || ch == '\\') {
            quoted += {'\\', ch};
        } else if (ch == '\n') {
            quoted += "\\n";
        } else if (ch == '\t') {
            quoted += "\\t";
        } else if (static_cast<unsigned char>(ch) < ' ' || ch == '\x7f') {
            char szEscape[8];
            std::snprintf(szEscape, sizeof(szEscape), "\\x%02x", static_cast<unsigned int>(ch));
            quoted += szEscape;
        } else {
            quoted += ch;
        }
    }
    return quoted + "\"";
}

void PrintNode(KPropertyNode& node, int nDepth, int nNumber, bool fgColor) {
    const bool fgKey = node.GetValueType() == PROPERTY_KEY;
    const char* const pszOff = fgColor ? kNoColor : "";
    std::printf("%*s", 2 * nDepth, "");
    if (nNumber >= 0) {
        std::printf("[%d] ", nNumber);
    }
    std::printf("%s%s%s %s%s%s\n", fgColor ? kTypeColor : "", TypeName(node), pszOff, fgColor && fgKey ? kKeyColor : "",
                Quoted(node.GetStringValue()).c_str(), fgColor && fgKey ? kNoColor : "");
}

KPropertyNode* Child(KPropertyNode& node, int nIndex) {
    KPropertyNode** const ppChild = node.GetNode(nIndex);
    return ppChild != nullptr ? *ppChild : nullptr;
}

/// The number of a value among several of one key; -1 for keys, and for the only value.
int NumberOf(KPropertyNode& parent, KPropertyNode& child, int nIndex) {
    return parent.GetNodeCount() > 1 && child.GetValueType() != PROPERTY_KEY ? nIndex : -1;
}

}  // namespace

void PrintTree(KPropertyNode& root, bool fgColor) {
    // A tree may be as deep as its file is long, so the way down is kept here and not on the stack.
    struct Step {
        KPropertyNode* pNode;
        int nNext;
    };
    std::vector<Step> way = {{&root, 0}};
    while (!way.empty()) {
        KPropertyNode& parent = *way.back().pNode;
        const int nIndex = way.back().nNext++;
        KPropertyNode* const pChild = Child(parent, nIndex);
        if (pChild == nullptr) {
            way.pop_back();
            continue;
        }
        PrintNode(*pChild, static_cast<int>(way.size()) - 1, NumberOf(parent, *pChild, nIndex), fgColor);
        way.push_back({pChild, 0});
    }
}

std::string ValueOf(KPropertyNode& node) {
    if (node.GetValueType() == PROPERTY_BOOLEAN) {
        return node.GetBooleanValue() ? "true" : "false";
    }
    if (node.GetValueType() == PROPERTY_DATE && node.GetDateValue().IsValid()) {
        return node.GetDateValue().GetHumanTimeString(3, 0, 0).GetBuffer();
    }
    const KString text = node.GetStringValue();
    return std::string(text.GetBuffer(), static_cast<std::size_t>(text.Length()));
}

KPropertyNode* FindNode(KPropertyNode& root, int nKeys, const char* const* ppszKeys) {
    KPropertyNode* pNode = &root;
    for (int i = 0; i < nKeys && pNode != nullptr; ++i) {
        KList<KString> path;
        path.Add(KString(ppszKeys[i]));
        KPropertyNode** const ppKey = pNode->GetNode(path);
        if (ppKey != nullptr) {
            pNode = *ppKey;
        } else {
            const std::string key = ppszKeys[i];
            const bool fgNumber =
                !key.empty() && key.size() < 10 && key.find_first_not_of("0123456789") == std::string::npos;
            pNode = fgNumber ? Child(*pNode, KString(ppszKeys[i]).ToDigit()) : nullptr;
        }
    }
    return pNode;
}
