#include "Print.h"

#include <KPropertyList.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace kplist {

namespace {

constexpr std::size_t kIndent = 2;
/// From here on lines are indented no further: a file can nest as deep as it is long.
constexpr std::size_t kDeepestIndented = 100;

/// The sequences for the parts of a line; empty without colours.
struct Style {
    const char* pszKey;
    const char* pszType;
    const char* pszText;
    const char* pszEnd;
};

constexpr Style kPlain = {"", "", "", ""};
constexpr Style kColoured = {"\033[1m", "\033[36m", "\033[32m", "\033[0m"};

using Children = std::vector<KPropertyNode*>;

Children TakeChildren(KPropertyNode& node) {
    Children children;
    for (int nLeft = node.GetNodeCount(); nLeft > 0; --nLeft) {
        children.push_back(*node.GetNode(0));
        node.RemoveNode(0);
    }
    return children;
}

bool IsKey(KPropertyNode& node) {
    return node.GetValueType() == PROPERTY_KEY;
}

const char* TypeName(KPropertyNodeType eType) {
    constexpr const char* kNames[] = {"none", "key", "boolean", "data", "date", "string", "integer"};
    return kNames[eType];
}

void AppendEscaped(std::string& out, char ch) {
    constexpr char kFirstVisible = ' ';
    constexpr char kDelete = 0x7f;
    const auto nByte = static_cast<unsigned char>(ch);
    if (ch == '\n') {
        out += "\\n";
    } else if (ch == '\t') {
        out += "\\t";
    } else if (ch == '\\' || ch == '"') {
        out += '\\';
        out += ch;
    } else if (nByte < kFirstVisible || ch == kDelete) {
        char szCode[sizeof("\\xff")];
        std::snprintf(szCode, sizeof(szCode), "\\x%02x", nByte);
        out += szCode;
    } else {
        out += ch;
    }
}

/// A node's text in quotes, on one line and without control characters.
std::string Quoted(KPropertyNode& node) {
    const KString text = node.GetStringValue();
    std::string quoted = "\"";
    for (int i = 0; i < text.Length(); ++i) {
        AppendEscaped(quoted, text[i]);
    }
    return quoted + '"';
}

void Write(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
}

void WriteLine(const KString& text) {
    std::fwrite(text.GetBuffer(), 1, static_cast<std::size_t>(text.Length()), stdout);
    std::fputc('\n', stdout);
}

std::string TypeAndText(KPropertyNode& node, const Style& style) {
    return style.pszType + std::string(TypeName(node.GetValueType())) + style.pszEnd + " " +
           (IsKey(node) ? style.pszKey : style.pszText) + Quoted(node) + style.pszEnd;
}

/// The nodes below one that are still to be printed, and how they are numbered.
struct Generation {
    Children children;
    std::size_t nNext;
};

/// Prints generations of nodes without recursion: a tree may be as deep as a file is long.
class TreePrinter {
 public:
    explicit TreePrinter(const Style& style) : m_Style(style) {}

    void Print(Children&& children) {
        m_Generations.push_back({std::move(children), 0});
        while (!m_Generations.empty()) {
            Generation& generation = m_Generations.back();
            if (generation.nNext == generation.children.size()) {
                m_Generations.pop_back();
            } else {
                const std::size_t nIndex = generation.nNext++;
                PrintNode(*generation.children[nIndex], nIndex);
            }
        }
    }

 private:
    /// Prints a node's line, and its children after it unless it is a single value.
    void PrintNode(KPropertyNode& node, std::size_t nIndex) {
        const std::size_t nDepth = std::min(m_Generations.size() - 1, kDeepestIndented);
        std::string line(nDepth * kIndent, ' ');
        if (!IsKey(node)) {
            line += "[" + std::to_string(nIndex) + "] ";
        }
        line += TypeAndText(node, m_Style);
        Children children = TakeChildren(node);
        delete &node;
        if (children.size() == 1 && !IsKey(*children.front())) {
            line += ": " + TypeAndText(*children.front(), m_Style);
            delete children.front();
            children.clear();
        }
        Write(line + "\n");
        if (!children.empty()) {
            m_Generations.push_back({std::move(children), 0});
        }
    }

    const Style& m_Style;
    std::vector<Generation> m_Generations;
};

}  // namespace

bool WantsColour() {
    const char* const pszNoColour = std::getenv("NO_COLOR");
    const char* const pszTerminal = std::getenv("TERM");
    return isatty(STDOUT_FILENO) != 0 && (pszNoColour == nullptr || *pszNoColour == '\0') && pszTerminal != nullptr &&
           std::strcmp(pszTerminal, "dumb") != 0;
}

void PrintTree(KPropertyNode& node, bool fgColour) {
    TreePrinter(fgColour ? kColoured : kPlain).Print(TakeChildren(node));
}

void PrintValue(KPropertyNode& node, bool fgColour) {
    if (!IsKey(node)) {
        WriteLine(node.GetStringValue());
        return;
    }
    Children children = TakeChildren(node);
    if (std::any_of(children.begin(), children.end(), [](KPropertyNode* pChild) { return IsKey(*pChild); })) {
        TreePrinter(fgColour ? kColoured : kPlain).Print(std::move(children));
        return;
    }
    for (KPropertyNode* const pChild : children) {
        WriteLine(pChild->GetStringValue());
        delete pChild;
    }
}

}  // namespace kplist
