#include "KPropertyList.h"

#include <cctype>
#include <climits>
#include <cstring>
#include <memory>
#include <new>

#include "Checks.h"
#include "KDebug.h"
#include "KFile.h"
#include "ScopedLock.h"

template class KList<KPropertyNode*>;

namespace {

constexpr Checks g_Checks("src/KPropertyList");

/// The longest text that fits a line of the log.
constexpr std::size_t kLongestLogged = 1048575;

}  // namespace

// ---------------------------------------------------------------------------------------------------- KPropertyNode

KPropertyNode::KPropertyNode() : m_eType(PROPERTY_NONE) {}

KPropertyNode::~KPropertyNode() {
    const ScopedLock lock(m_Mutex);
    if (m_Children.GetCount() > 0) {
        DestroyDoomed();
    }
}

/// Destroys what dies with this node generation by generation instead of recursing: a tree may be as deep as a file is
/// long.
void KPropertyNode::DestroyDoomed() {
    KList<KPropertyNode*> generations[2];
    {
        KList<KPropertyNode*>::Appender parents(generations[0]);
        DetachDoomed(parents);
    }
    // The lists swap their parts: their locks are never held together, or there would be no order to them.
    for (int i = 0; generations[i].GetCount() > 0; i = 1 - i) {
        KList<KPropertyNode*>::End end;
        for (KPropertyNode* pNode = nullptr; generations[i].Pop(pNode, -1); pNode = nullptr) {
            if (pNode != nullptr) {
                {
                    KList<KPropertyNode*>::Appender parents(generations[1 - i], end);
                    pNode->DetachDoomed(parents);
                }
                delete pNode;
            }
        }
    }
}

/// Destroys those children that die with this node, hands over the ones among them that are parents themselves, and
/// forgets the others. The count falls as the index rises, so that the first half dies, rounded up. The list itself is
/// handed over, with nulls for those that are destroyed or forgotten: that takes no memory.
void KPropertyNode::DetachDoomed(KList<KPropertyNode*>::Appender& parents) {
    int nDoomed = (m_Children.GetCount() + 1) / 2;
    {
        KList<KPropertyNode*>::Reader children(m_Children);
        for (; KPropertyNode** const ppChild = children.Next(); --nDoomed) {
            if (nDoomed <= 0) {
                *ppChild = nullptr;
            } else if (*ppChild != nullptr && (*ppChild)->GetNodeCount() == 0) {
                delete *ppChild;
                *ppChild = nullptr;
            }
        }
    }
    parents.Take(m_Children);
}

bool KPropertyNode::Set(KPropertyNodeType eType, const KString& text) {
    const ScopedLock lock(m_Mutex);
    m_eType = eType;
    m_Text = text;
    return true;
}

KPropertyNodeType KPropertyNode::GetValueType() {
    return m_eType;
}

KString KPropertyNode::GetKey() {
    return m_Text;
}

KString KPropertyNode::GetStringValue() {
    return m_Text;
}

KString KPropertyNode::GetDataValue() {
    return m_Text;
}

int KPropertyNode::GetNumberValue() {
    return -1;
}

bool KPropertyNode::GetBooleanValue() {
    return m_Text.HasCaseIgnoreString("TRUE") == 0;
}

KTime KPropertyNode::GetDateValue() {
    int nYear = 0, nMonth = 0, nDay = 0, nHour = 0, nMinute = 0, nSecond = 0;
    constexpr int kFields = 6;
    if (m_Text.Scanf(0, "%04d-%02d-%02dT%02d:%02d:%02dZ", &nYear, &nMonth, &nDay, &nHour, &nMinute, &nSecond) !=
        kFields) {
        return KTime(0, 0, 0, 0, 0, 0, 0, 0, 0);
    }
    return KTime(nYear, nMonth, nDay, nHour, nMinute, nSecond, 0, 0, 0);
}

KPropertyNode** KPropertyNode::GetNode(int nIndex) {
    return m_Children[nIndex];
}

KPropertyNode** KPropertyNode::GetNode(KList<KString>& path) {
    KPropertyNode* pNode = this;
    KPropertyNode** ppFound = nullptr;
    KList<KString>::Reader keys(path);
    while (const KString* const pKey = keys.Next()) {
        KList<KPropertyNode*>::Reader children(pNode->m_Children);
        do {
            ppFound = children.Next();
        } while (ppFound != nullptr &&
                 (*ppFound == nullptr || (*ppFound)->m_eType != PROPERTY_KEY || *pKey != (*ppFound)->m_Text));
        if (ppFound == nullptr) {
            return nullptr;
        }
        pNode = *ppFound;
    }
    return ppFound;
}

int KPropertyNode::GetNodeCount() const {
    return m_Children.GetCount();
}

bool KPropertyNode::AddNode(KPropertyNode* pNode) {
    g_Checks.Hold(pNode == nullptr, "pNode == __null", "bool KPropertyNode::AddNode(KPropertyNode*)");
    const ScopedLock lock(m_Mutex);
    m_Children.Add(pNode);
    return true;
}

bool KPropertyNode::RemoveNode(int nIndex) {
    const ScopedLock lock(m_Mutex);
    KPropertyNode* pRemoved = nullptr;
    if (nIndex >= 0) {
        m_Children.Pop(pRemoved, nIndex);
    }
    return true;
}

// ----------------------------------------------------------------------------------------------------------- Reader

namespace {

/// A run of bytes within the text that is being read.
struct Span {
    const char* p;
    std::size_t nLen;

    /// Whether a word stands at the beginning, in any case. Most do not, and their first byte says so.
    bool StartsWith(const char* pszWord) const {
        const std::size_t nWord = std::strlen(pszWord);
        return nLen >= nWord && Folded(*p) == Folded(*pszWord) && strncasecmp(p, pszWord, nWord) == 0;
    }

    /// Whether a word that ends in '/' occurs anywhere.
    bool ContainsSelfClosing(const char* pszWord) const {
        const std::size_t nWord = std::strlen(pszWord);
        const char* const pEnd = p + nLen;
        for (const char* pFrom = p; pFrom < pEnd; ++pFrom) {
            pFrom = static_cast<const char*>(std::memchr(pFrom, '/', static_cast<std::size_t>(pEnd - pFrom)));
            if (pFrom == nullptr) {
                return false;
            }
            const std::size_t nThrough = static_cast<std::size_t>(pFrom - p) + 1;
            if (nThrough >= nWord && strncasecmp(pFrom + 1 - nWord, pszWord, nWord) == 0) {
                return true;
            }
        }
        return false;
    }

    KString Text() const { return KString(p, static_cast<int>(nLen)); }

    /// As strncasecmp sees it in the locale in force.
    static int Folded(char ch) { return std::tolower(static_cast<unsigned char>(ch)); }
};

void LogSpan(const Span& span) {
    if (span.nLen <= kLongestLogged) {
        KDebug::Log("%.*s", static_cast<int>(span.nLen), span.p);
    }
}

/// The elements that hold a text, in the order in which a tag is compared with them.
struct TextElement {
    const char* pszName;
    KPropertyNodeType eType;
};

constexpr TextElement kTextElements[] = {{"KEY", PROPERTY_KEY},
                                         {"STRING", PROPERTY_STRING},
                                         {"INTEGER", PROPERTY_INTEGER},
                                         {"DATA", PROPERTY_DATA},
                                         {"DATE", PROPERTY_DATE}};

}  // namespace

/// One read of a text. It goes over the text once, with the levels of nesting on a stack of its own, and builds the tree
/// under a node that nobody else sees until the end.
class KPropertyList::Reader {
 public:
    /// @p fgMakesNodes false goes over the text alone.
    Reader(KString& header, const char* pszText, bool fgMakesNodes)
        : m_Header(header),
          m_p(pszText),
          m_pEnd(pszText + std::strlen(pszText)),
          m_fgMakesNodes(fgMakesNodes),
          m_pLevel(nullptr) {}

    ~Reader() {
        while (m_pLevel != nullptr) {
            Leave();
        }
    }

    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    /// Reads as far as it can and returns where it stopped.
    const char* Read() {
        Node top = {m_fgMakesNodes ? &m_Top : nullptr, {}};
        if (Enter(&top)) {
            while (m_pLevel != nullptr && ReadElement()) {
            }
        }
        return m_p;
    }

    /// Moves what was read under a node.
    void MoveTo(KPropertyNode& parent) {
        const ScopedLock lock(parent.m_Mutex);
        KList<KPropertyNode*>::Appender appender(parent.m_Children);
        appender.Take(m_Top.m_Children);
    }

 private:
    /// A node that is being filled, or null where nodes are not made, and where its children end.
    struct Node {
        KPropertyNode* pNode;
        KList<KPropertyNode*>::End end;
    };

    /// A list, dictionary or array that is open, or the text as a whole.
    struct Level {
        Level* pOuter;
        Node* pParent;  ///< Where keys go.
        Node key;       ///< The last key, once there is one.
        Node* pHolder;  ///< Where values go: the parent, or the last key.
        Span value;     ///< The last value or key, which an empty element repeats.
    };

    bool Enter(Node* pParent) {
        Level* const pLevel = new (std::nothrow) Level();
        if (pLevel == nullptr) {
            return false;
        }
        pLevel->pOuter = m_pLevel;
        pLevel->pParent = pParent;
        pLevel->pHolder = pParent;
        pLevel->value = {"", 0};
        m_pLevel = pLevel;
        return true;
    }

    void Leave() {
        Level* const pLevel = m_pLevel;
        m_pLevel = pLevel->pOuter;
        delete pLevel;
    }

    /// Reads one element or tag. False when the read ends here, on every level.
    bool ReadElement() {
        while (*m_p == '\r' || *m_p == '\n' || *m_p == '\t') {
            ++m_p;
        }
        const Span tag = Tag();
        if (tag.nLen == 0) {
            return false;
        }
        LogSpan(tag);
        if (tag.StartsWith("?XML")) {
            m_Header = tag.Text();
            return SkipDeclaration();
        }
        if (tag.StartsWith("!DOCTYPE")) {
            m_Header = tag.Text();
            if (!IsClosed(tag)) {
                return false;
            }
            SkipTag(tag);
            return true;
        }
        if (tag.StartsWith("PLIST") || tag.StartsWith("DICT") || tag.StartsWith("ARRAY")) {
            SkipTag(tag);
            return Enter(m_pLevel->pHolder);
        }
        if (tag.StartsWith("/PLIST") || tag.StartsWith("/DICT") || tag.StartsWith("/ARRAY")) {
            SkipTag(tag);
            Leave();
            return true;
        }
        for (const TextElement& element : kTextElements) {
            if (tag.StartsWith(element.pszName)) {
                return ReadText(tag, element.eType);
            }
        }
        if (tag.ContainsSelfClosing("FALSE/")) {
            SkipTag(tag);
            Add(*m_pLevel->pHolder, PROPERTY_BOOLEAN, KString("FALSE"));
            return true;
        }
        if (tag.ContainsSelfClosing("TRUE/")) {
            SkipTag(tag);
            Add(*m_pLevel->pHolder, PROPERTY_BOOLEAN, KString("TRUE"));
            return true;
        }
        if (tag.StartsWith("/")) {
            g_Checks.Fail("bool KPropertyList::Parshing(KString&, KPropertyNode*)");
            LogOnOuterLevels(tag);
        }
        return false;
    }

    /// A closing tag that closes nothing stays where it is: each level around meets it again, and ends too.
    void LogOnOuterLevels(const Span& tag) const {
        for (const Level* pLevel = m_pLevel->pOuter; pLevel != nullptr; pLevel = pLevel->pOuter) {
            LogSpan(tag);
        }
    }

    /// The text between the brackets of the tag here, whose closing bracket may be missing; empty when there is none.
    Span Tag() const {
        if (*m_p != '<') {
            return {m_p, 0};
        }
        return {m_p + 1, static_cast<std::size_t>(Find('>', m_p + 1) - m_p) - 1};
    }

    /// The first place of a byte at @p pFrom or later, or the end of the text.
    const char* Find(char ch, const char* pFrom) const {
        const void* const pFound = std::memchr(pFrom, ch, static_cast<std::size_t>(m_pEnd - pFrom));
        return pFound != nullptr ? static_cast<const char*>(pFound) : m_pEnd;
    }

    /// Whether a tag has its closing bracket.
    bool IsClosed(const Span& tag) const { return tag.p + tag.nLen != m_pEnd; }

    /// Goes behind a tag's closing bracket, or to the end where that is missing.
    void SkipTag(const Span& tag) { m_p = tag.p + tag.nLen + (IsClosed(tag) ? 1 : 0); }

    /// Goes behind the mark at the end of a declaration; false where that is missing.
    bool SkipDeclaration() {
        for (const char* p = Find('>', m_p); p != m_pEnd; p = Find('>', p + 1)) {
            if (p[-1] == '?') {
                m_p = p + 1;
                return true;
            }
        }
        return false;
    }

    /// Reads a key or a value.
    bool ReadText(const Span& tag, KPropertyNodeType eType) {
        const char* pText = tag.p + tag.nLen;
        if (IsClosed(tag)) {
            ++pText;
            const char* const pTextEnd = Find('<', pText);
            if (pTextEnd != pText) {
                m_pLevel->value = {pText, static_cast<std::size_t>(pTextEnd - pText)};
                pText = pTextEnd;
            }
        }
        LogSpan(m_pLevel->value);
        if (!SkipClosing(tag, pText)) {
            return false;
        }
        if (eType == PROPERTY_KEY) {
            m_pLevel->key = {Add(*m_pLevel->pParent, eType, m_pLevel->value.Text()), {}};
            m_pLevel->pHolder = &m_pLevel->key;
        } else {
            Add(*m_pLevel->pHolder, eType, m_pLevel->value.Text());
        }
        return true;
    }

    /// Goes behind the closing tag of an element: the first one at @p pFrom or later. Neither the opening tag nor the text
    /// can hold one. Nearly always it stands right there.
    bool SkipClosing(const Span& tag, const char* pFrom) {
        if (pFrom[0] == '<' && pFrom[1] == '/' && strncasecmp(pFrom + 2, tag.p, tag.nLen) == 0 &&
            pFrom[2 + tag.nLen] == '>') {
            m_p = pFrom + 2 + tag.nLen + 1;
            return true;
        }
        const KString closing = KString("</") + tag.Text() + ">";
        const bool fgWhole = static_cast<std::size_t>(closing.Length()) == tag.nLen + 3;
        const char* const pClosing = fgWhole ? strcasestr(pFrom, closing.GetBuffer()) : nullptr;
        if (pClosing == nullptr) {
            return false;
        }
        m_p = pClosing + closing.Length();
        return true;
    }

    /// Makes a child of a node and returns it; null where nodes are not made.
    KPropertyNode* Add(Node& parent, KPropertyNodeType eType, KString&& text) {
        KPropertyNode* const pChild = parent.pNode != nullptr ? new (std::nothrow) KPropertyNode() : nullptr;
        if (pChild == nullptr) {
            return nullptr;
        }
        pChild->m_eType = eType;
        pChild->m_Text = static_cast<KString&&>(text);
        // Nobody else sees the tree yet: the list's own lock is all that this takes.
        KList<KPropertyNode*>::Appender appender(parent.pNode->m_Children, parent.end);
        if (!appender.Add(pChild)) {
            delete pChild;
            return nullptr;
        }
        return pChild;
    }

    KString& m_Header;
    const char* m_p;
    const char* const m_pEnd;
    const bool m_fgMakesNodes;
    KPropertyNode m_Top;
    Level* m_pLevel;
};

// ----------------------------------------------------------------------------------------------------- KPropertyList

KPropertyList* KPropertyList::g_pHandle = nullptr;

void KPropertyList::Init(const KPath& path) {
    if (g_pHandle == nullptr) {
        g_pHandle = new (std::nothrow) KPropertyList(path);
    }
}

KPropertyList* KPropertyList::GetInstance() {
    g_Checks.Hold(g_pHandle != nullptr, "false", "static KPropertyList* KPropertyList::GetInstance()");
    return g_pHandle;
}

void KPropertyList::Deinit() {
    delete g_pHandle;
    g_pHandle = nullptr;
}

KPropertyList::KPropertyList() = default;

KPropertyList::KPropertyList(const KPath& path) {
    KFile file;
    if (!file.Open(path, false)) {
        return;
    }
    const std::size_t nSize = file.GetSize();
    // A directory's size, or that of a file that no text could hold, is not worth asking memory for.
    if (nSize < INT_MAX) {
        const std::unique_ptr<char[]> pBuffer(new (std::nothrow) char[nSize + 1]);
        if (pBuffer != nullptr && file.Read(0, pBuffer.get(), nSize)) {
            pBuffer[nSize] = '\0';
            Reader reader(m_Header, pBuffer.get(), true);
            reader.Read();
            reader.MoveTo(m_Root);
        }
    }
    file.Close();
}

KPropertyList::KPropertyList(const KString& text) {
    Reader reader(m_Header, text.GetBuffer(), true);
    reader.Read();
    reader.MoveTo(m_Root);
}

KPropertyList::KPropertyList(const KPropertyList&) : KPropertyList() {
    g_Checks.Fail("KPropertyList::KPropertyList(const KPropertyList&)");
}

KPropertyList& KPropertyList::operator=(const KPropertyList&) {
    g_Checks.Fail("KPropertyList& KPropertyList::operator=(const KPropertyList&)");
    return *this;
}

KPropertyList::~KPropertyList() = default;

bool KPropertyList::Parshing(KString& text, KPropertyNode* pParent) {
    Reader reader(m_Header, text.GetBuffer(), pParent != nullptr);
    const char* const pRest = reader.Read();
    if (pParent != nullptr) {
        reader.MoveTo(*pParent);
    }
    if (pRest != text.GetBuffer()) {
        text = pRest;
    }
    return true;
}
