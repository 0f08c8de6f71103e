#include "KPath.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "Checks.h"

template class KList<KPath>;

namespace {

constexpr Checks g_Checks("src/KPath");

constexpr char kSlash = '/';
constexpr char kBackslash = '\\';
constexpr unsigned int kNoLength = UINT_MAX;  // which no text has

unsigned int LengthOf(const KString& text) {
    return static_cast<unsigned int>(text.Length());
}

}  // namespace

KPath::KPath() : m_eType(TYPE_NONE) {}

KPath::KPath(const char* pszPath) : m_eType(TYPE_NONE), m_Path(pszPath) {
    m_Path.Replace(kBackslash, kSlash);
}

KPath::KPath(const KString& path) : m_eType(TYPE_NONE), m_Path(path) {
    m_Path.Replace(kBackslash, kSlash);
}

KPath::KPath(const KPath& other) : m_eType(other.m_eType), m_Path(other.m_Path) {
    EmptyUnlessWhole(LengthOf(other.m_Path));
}

KPath::~KPath() = default;

KPath& KPath::operator=(const char* pszPath) {
    m_Path = pszPath;
    m_Path.Replace(kBackslash, kSlash);
    m_eType = TYPE_NONE;
    return *this;
}

KPath& KPath::operator=(const KString& path) {
    m_Path = path;
    m_Path.Replace(kBackslash, kSlash);
    m_eType = TYPE_NONE;
    return *this;
}

KPath& KPath::operator=(const KPath& other) {
    if (this != &other) {
        m_Path = other.m_Path;
        m_eType = other.m_eType;
        EmptyUnlessWhole(LengthOf(other.m_Path));
    }
    return *this;
}

/// Empties a path of which a part found no memory, which would name something else. It loses its type too: an empty
/// directory path names the root.
void KPath::EmptyUnlessWhole(unsigned int nLength) noexcept {
    if (static_cast<unsigned int>(m_Path.Length()) != nLength) {
        m_Path.Adopt(nullptr, 0);
        m_eType = TYPE_NONE;
    }
}

bool KPath::SetPath(const KString& path) {
    m_Path = path;
    EmptyUnlessWhole(LengthOf(path));
    return true;
}

bool KPath::SetType(Type eType) {
    m_eType = eType;
    return true;
}

bool KPath::operator==(const KPath& other) const {
    return m_Path == other.m_Path;
}

bool KPath::operator!=(const KPath& other) const {
    return m_Path != other.m_Path;
}

/// Appends so many bytes of a separator, and a text, which may be the path's own.
void KPath::Append(const char* pszSeparator, int nSeparator, const KString& text) {
    const int nText = text.Length();
    const unsigned int nLength =
        LengthOf(m_Path) + static_cast<unsigned int>(nSeparator) + static_cast<unsigned int>(nText);
    m_Path.Append(pszSeparator, nSeparator);
    m_Path.Append(text.GetBuffer(), nText);
    EmptyUnlessWhole(nLength);
}

/// Appends a text behind a separator. Whether the path ends in one already is not looked at: programs rely on the
/// doubled slash.
void KPath::Join(const KString& text) {
    Append("/", text[0] == kSlash ? 0 : 1, text);
}

KPath& KPath::operator+=(const KString& text) {
    if (m_Path.Length() == 0) {
        SetPath(text);
    } else {
        Join(text);
    }
    return *this;
}

KPath& KPath::operator+=(const char* pszText) {
    const KString text(pszText);
    if (text.Length() == KString::LengthOfString(pszText)) {
        *this += text;
    } else {
        EmptyUnlessWhole(kNoLength);
    }
    return *this;
}

KPath& KPath::operator+=(const KPath& other) {
    Join(other.m_Path);
    return *this;
}

/// This path and another behind it, which is whole at a length.
KPath KPath::Joined(const KPath& other, int nWhole) const {
    KPath joined(*this);
    if (joined.m_Path.Length() == m_Path.Length()) {
        joined.Join(other.m_Path);
    }
    if (other.m_Path.Length() != nWhole) {
        joined.EmptyUnlessWhole(kNoLength);
    }
    return joined;
}

KPath KPath::operator+(const KPath& other) {
    return Joined(other, other.m_Path.Length());
}

KPath KPath::operator+(const KString& text) {
    return Joined(KPath(text), text.Length());
}

KPath KPath::operator+(const char* pszText) {
    return Joined(KPath(pszText), KString::LengthOfString(pszText));
}

KString KPath::GetRootOnly() const {
    const int nSlash = m_Path.FindR(kSlash, 0);
    return nSlash > 0 ? m_Path.Sub(0, nSlash) : KString();
}

KString KPath::GetNameOnly() const {
    const int nSlash = m_Path.FindR(kSlash, 0);
    const int nDot = m_Path.FindR('.', 0);
    if (nSlash > 0) {
        return nDot > nSlash ? m_Path.Sub(nSlash + 1, nDot) : m_Path.Sub(nSlash, m_Path.Length());
    }
    return nDot > 0 ? m_Path.Sub(0, nDot) : m_Path;
}

KPath KPath::GetSubPath() const {
    KPath name;
    const int nSlash = m_Path.FindR(kSlash, 0);
    if (nSlash >= 0) {
        name.m_Path.AssignText(m_Path.GetBuffer() + nSlash + 1, static_cast<std::size_t>(m_Path.Length() - nSlash - 1));
        name.m_Path.Replace(kBackslash, kSlash);
    }
    return name;
}

bool KPath::RemoveSubPath() {
    const int nSlash = m_Path.FindR(kSlash, 0);
    // In "/abc" the slash stays, and with it what follows.
    if (nSlash > 0) {
        m_Path.Shorten(nSlash);
    }
    return true;
}

/// Where the extension begins; the length where there is none.
int KPath::FindExt() const noexcept {
    // An extension is short: to look at each byte takes less than two searches.
    for (int i = m_Path.Length() - 1; i > 0 && m_Path[i] != kSlash; --i) {
        if (m_Path[i] == '.') {
            return i + 1;
        }
    }
    return m_Path.Length();
}

KString KPath::GetExt() const {
    return m_Path.Sub(FindExt(), m_Path.Length());
}

bool KPath::SetExt(const KString& ext) {
    const int nExt = FindExt();
    const char* const pszOld = m_Path.GetBuffer() + nExt;
    if (nExt == m_Path.Length()) {
        Append(".", 1, ext);
    } else if (*pszOld != '\0' && !m_Path.Replace(pszOld, ext.GetBuffer())) {
        EmptyUnlessWhole(kNoLength);
    }
    return true;
}

char* KPath::GetSystemPath(ConvPathTo eConversion) {
    const char* const pszSignature = "char* KPath::GetSystemPath(KPath::ConvPathTo)";
    const char chSeparator = eConversion == CONV_BACKSLASH ? kBackslash : kSlash;
    const int nText = m_Path.Length();
    // What the last character will be: with backslashes asked for, the text's slashes become separators.
    const char chLast = nText > 0 && m_Path[nText - 1] == kSlash ? chSeparator : m_Path[nText - 1];
    const bool fgAppend = m_eType == TYPE_DIRECTORY && chLast != chSeparator;
    const int nLen = nText + (fgAppend ? 1 : 0);
    if (!g_Checks.Hold(nLen < kBufferSize, "nLen < 2048", pszSignature)) {
        // A cut path could name another file.
        m_szSystemPath[0] = '\0';
        return m_szSystemPath;
    }
    std::memcpy(m_szSystemPath, m_Path.GetBuffer(), static_cast<std::size_t>(nText));
    if (eConversion == CONV_BACKSLASH) {
        std::replace(m_szSystemPath, m_szSystemPath + nText, kSlash, kBackslash);
    }
    if (fgAppend) {
        m_szSystemPath[nText] = chSeparator;
    }
    m_szSystemPath[nLen] = '\0';
    // Two terminators are written where they fit, and both must fit.
    if (g_Checks.Hold(nLen + 1 < kBufferSize, "nLen < 2048", pszSignature)) {
        m_szSystemPath[nLen + 1] = '\0';
    }
    return m_szSystemPath;
}
