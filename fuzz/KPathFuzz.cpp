// Paths: sequences of operations on a path and on a model made of std::string. Texts may hold NULs, which only what takes a
// plain pointer, and the extension's exchange, stop at.
#include "Fuzz.h"
#include "KPath.h"

namespace {

constexpr std::size_t kLongest = 3000;

std::string WithSlashes(std::string text) {
    for (char& ch : text) {
        ch = ch == '\\' ? '/' : ch;
    }
    return text;
}

/// A part of a text by the rule that an end of 0 means the end of the text.
std::string Part(const std::string& text, std::size_t nFrom, std::size_t nTo) {
    nTo = nTo == 0 ? text.size() : nTo;
    return nTo > nFrom ? text.substr(nFrom, nTo - nFrom) : "";
}

struct Model {
    std::string text;
    KPath::Type eType = KPath::TYPE_NONE;

    long long Last(char ch) const {
        const std::size_t nPlace = text.rfind(ch);
        return nPlace == std::string::npos ? -1 : static_cast<long long>(nPlace);
    }

    void Append(const std::string& other) {
        if (text.empty()) {
            text = other;
        } else {
            Join(other);
        }
    }

    void Join(const std::string& other) { text += (other.empty() || other[0] != '/' ? "/" : "") + other; }

    std::string Root() const { return Last('/') > 0 ? text.substr(0, static_cast<std::size_t>(Last('/'))) : ""; }

    std::string Name() const {
        const long long nSlash = Last('/');
        const long long nDot = Last('.');
        if (nSlash > 0) {
            return nDot > nSlash ? Part(text, static_cast<std::size_t>(nSlash) + 1, static_cast<std::size_t>(nDot))
                                 : text.substr(static_cast<std::size_t>(nSlash));
        }
        return nDot > 0 ? text.substr(0, static_cast<std::size_t>(nDot)) : text;
    }

    std::string Sub() const { return Last('/') < 0 ? "" : text.substr(static_cast<std::size_t>(Last('/')) + 1); }

    void RemoveSub() {
        if (Last('/') > 0) {
            text.erase(static_cast<std::size_t>(Last('/')));
        }
    }

    std::string Ext() const {
        const std::size_t nPlace = text.find_last_of("/.");
        return nPlace == std::string::npos || nPlace == 0 || text[nPlace] == '/' ? "" : text.substr(nPlace + 1);
    }

    void SetExt(const std::string& ext) {
        const std::string old = Ext();
        if (old.empty()) {
            text += "." + ext;
            return;
        }
        // As texts are replaced in strings.
        const std::string from = fuzz::Plain(old);
        const std::string to = fuzz::Plain(ext);
        text = from.empty() ? text : fuzz::Plain(text);
        for (std::size_t n = text.find(from); !from.empty() && n != std::string::npos;
             n = text.find(from, n + to.size())) {
            text.replace(n, from.size(), to);
        }
    }

    std::string System(bool fgBackslash) const {
        const char chSeparator = fgBackslash ? '\\' : '/';
        std::string system = text;
        for (char& ch : system) {
            ch = fgBackslash && ch == '/' ? '\\' : ch;
        }
        if (eType == KPath::TYPE_DIRECTORY && (system.empty() || system.back() != chSeparator)) {
            system += chSeparator;
        }
        return system.size() < 2048 ? system : "";
    }
};

/// What is rendered, to its last byte, and the NUL behind it.
void CompareSystemPath(KPath& path, KPath::ConvPathTo eConversion, std::string wanted, const char* pszWhat) {
    wanted += '\0';
    fuzz::ExpectSame(std::string(path.GetSystemPath(eConversion), wanted.size()), wanted, pszWhat);
}

void Compare(KPath& path, const Model& model) {
    fuzz::ExpectSame(fuzz::TextOf(path.GetPath()), model.text, "text");
    fuzz::ExpectSame(static_cast<int>(path.GetType()), static_cast<int>(model.eType), "type");
    fuzz::ExpectSame(fuzz::TextOf(path.GetRootOnly()), model.Root(), "root");
    fuzz::ExpectSame(fuzz::TextOf(path.GetNameOnly()), model.Name(), "name");
    fuzz::ExpectSame(fuzz::TextOf(path.GetExt()), model.Ext(), "extension");
    fuzz::ExpectSame(fuzz::TextOf(path.GetSubPath().GetPath()), WithSlashes(model.Sub()), "last component");
    CompareSystemPath(path, KPath::CONV_SLASH, model.System(false), "system path");
    CompareSystemPath(path, KPath::CONV_BACKSLASH, model.System(true), "system path with backslashes");
}

/// The operations that every byte below a bound stands for; those above stand for all, of texts with NULs.
constexpr int kFirstOperations = 10;
constexpr int kOperations = 14;
constexpr int kAllFrom = 180;

/// A path that is made of another and a text.
void Join(KPath& path, Model& model, const KPath& joined, const std::string& text) {
    fuzz::ExpectSame(fuzz::TextOf(path.GetPath()), model.text, "the left side of +");
    path = joined;
    model.Join(text);
}

void Change(KPath& path, Model& model, fuzz::Input& input) {
    const int nByte = input.Byte();
    const bool fgAll = nByte >= kAllFrom;
    const std::string text = fgAll ? input.Text() : input.PlainText();
    const std::string plain = fuzz::Plain(text);
    const KString given = fuzz::Made(text);
    switch (nByte % (fgAll ? kOperations : kFirstOperations)) {
        case 0:
            fuzz::Expect(&(path = given) == &path, "= returns its left side");
            model = {WithSlashes(text), KPath::TYPE_NONE};
            break;
        case 1:
            path.SetPath(given);
            model.text = text;
            break;
        case 2: {
            const auto eType = static_cast<KPath::Type>(input.Range(0, 4));
            path.SetType(eType);
            model.eType = eType;
            break;
        }
        case 3:
            fuzz::Expect(&(path += given) == &path, "+= returns its left side");
            model.Append(text);
            break;
        case 4:
            path += KPath(given);
            model.Join(WithSlashes(text));
            break;
        case 5:
            Join(path, model, path + given, WithSlashes(text));
            break;
        case 6:
            path.RemoveSubPath();
            model.RemoveSub();
            break;
        case 7:
            path.SetExt(given);
            model.SetExt(text);
            break;
        case 8:
            path += path;
            model.Join(std::string(model.text));
            break;
        case 10:
            fuzz::Expect(&(path += text.c_str()) == &path, "+= of a plain text returns its left side");
            model.Append(plain);
            break;
        case 11:
            Join(path, model, path + text.c_str(), WithSlashes(plain));
            break;
        case 12:
            Join(path, model, path + KPath(given), WithSlashes(text));
            break;
        case 13:
            fuzz::Expect(&(path = text.c_str()) == &path, "= of a plain text returns its left side");
            model = {WithSlashes(plain), KPath::TYPE_NONE};
            break;
        default: {
            const KPath copy(path);
            fuzz::ExpectSame(copy == path, !model.text.empty(), "a copy equals what it was made of");
            path = KPath(text.c_str());
            model = {WithSlashes(plain), KPath::TYPE_NONE};
            break;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes) {
    fuzz::BeQuiet();
    fuzz::Input input(pBytes, nBytes);
    KPath path;
    Model model;
    while (!input.IsEmpty() && model.text.size() < kLongest) {
        Change(path, model, input);
        Compare(path, model);
    }
    return 0;
}
