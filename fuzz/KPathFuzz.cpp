// Paths: sequences of operations on a path and on a model made of std::string.
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
        for (std::size_t n = text.find(old); n != std::string::npos; n = text.find(old, n + ext.size())) {
            text.replace(n, old.size(), ext);
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

void Compare(KPath& path, const Model& model) {
    fuzz::ExpectSame(fuzz::TextOf(path.GetPath()), model.text, "text");
    fuzz::ExpectSame(static_cast<int>(path.GetType()), static_cast<int>(model.eType), "type");
    fuzz::ExpectSame(fuzz::TextOf(path.GetRootOnly()), model.Root(), "root");
    fuzz::ExpectSame(fuzz::TextOf(path.GetNameOnly()), model.Name(), "name");
    fuzz::ExpectSame(fuzz::TextOf(path.GetExt()), model.Ext(), "extension");
    fuzz::ExpectSame(fuzz::TextOf(path.GetSubPath().GetPath()), WithSlashes(model.Sub()), "last component");
    fuzz::ExpectSame(path.GetSystemPath(KPath::CONV_SLASH), model.System(false), "system path");
    fuzz::ExpectSame(path.GetSystemPath(KPath::CONV_BACKSLASH), model.System(true), "system path with backslashes");
}

void Change(KPath& path, Model& model, fuzz::Input& input) {
    const int nOperation = input.Range(0, 9);
    const std::string text = input.PlainText();
    const KString given = fuzz::Made(text);
    switch (nOperation) {
        case 0:
            path = given;
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
            path += given;
            if (model.text.empty()) {
                model.text = text;
            } else {
                model.Join(text);
            }
            break;
        case 4:
            path += KPath(given);
            model.Join(WithSlashes(text));
            break;
        case 5:
            path = path + given;
            model.Join(WithSlashes(text));
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
        default: {
            const KPath copy(path);
            fuzz::ExpectSame(copy == path, !model.text.empty(), "a copy equals what it was made of");
            path = KPath(text.c_str());
            model = {WithSlashes(text), KPath::TYPE_NONE};
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
