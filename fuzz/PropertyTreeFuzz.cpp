// Trees that are written as property lists and read back. The input is a tree, not a text, and the mutator changes it as
// one: whatever comes of it is a list that the reader takes whole, unless a node of it is broken on purpose.
#include <functional>

#include "Fuzz.h"
#include "PropertyModel.h"

namespace {

/// The input, byte by byte: what to write next. Each byte's low bits choose, the rest varies.
enum Choice : int { CLOSE, KEY, STRING, INTEGER, DATA, DATE, TRUE_VALUE, FALSE_VALUE, OPEN_DICT, OPEN_ARRAY, CHOICES };

constexpr std::size_t kLongest = 2048;
constexpr int kDeepest = 64;

const char* const kNames[] = {"", "key", "string", "integer", "data", "date"};
const KPropertyNodeType kTypes[] = {PROPERTY_NONE,    PROPERTY_KEY,  PROPERTY_STRING,
                                    PROPERTY_INTEGER, PROPERTY_DATA, PROPERTY_DATE};

/// Letters in the case that a number's bits say: the reader takes either.
std::string InCaseOf(std::string name, int nBits) {
    for (char& ch : name) {
        if ((nBits & 1) != 0 && ch >= 'a' && ch <= 'z') {
            ch = static_cast<char>(ch - 'a' + 'A');
        }
        nBits >>= 1;
    }
    return name;
}

/// Writes a tree and, beside it, what has to be read.
class Writer {
 public:
    explicit Writer(fuzz::Input& input) : m_Input(input) {
        m_Text = "<?xml version=\"1.0\"?>\n<plist>";
        Level(m_Root, 0);
        m_Text += "</plist>";
    }

    const std::string& Text() const { return m_Text; }
    const fuzz::ModelNode& Root() const { return m_Root; }

 private:
    void Break() {
        static const char* const kBreaks[] = {"", "\n", "\r\n\t", "\t\t"};
        m_Text += kBreaks[m_Input.Range(0, 3)];
    }

    std::string Value() {
        std::string text = m_Input.PlainText();
        for (char& ch : text) {
            ch = ch == '<' ? '>' : ch;
        }
        return text;
    }

    void Element(const char* pszName, const std::string& text) {
        const int nCase = m_Input.Byte();
        m_Text += "<" + InCaseOf(pszName, nCase) + ">" + text + "</" + InCaseOf(pszName, ~nCase) + ">";
    }

    void Level(fuzz::ModelNode& parent, int nDepth) {
        bool fgKey = false;
        std::size_t nKey = 0;
        std::string last;
        while (!m_Input.IsEmpty() && m_Text.size() < kLongest) {
            Break();
            const int nChoice = m_Input.Byte() % CHOICES;
            fuzz::ModelNode& holder = fgKey ? parent.children[nKey] : parent;
            if (nChoice == CLOSE) {
                return;
            }
            if (nChoice >= OPEN_DICT) {
                if (nDepth < kDeepest) {
                    const char* const pszName = nChoice == OPEN_DICT ? "dict" : "array";
                    m_Text += std::string("<") + pszName + ">";
                    Level(holder, nDepth + 1);
                    m_Text += std::string("</") + pszName + ">";
                }
            } else if (nChoice >= TRUE_VALUE) {
                m_Text += nChoice == TRUE_VALUE ? "<true/>" : "<false/>";
                holder.children.emplace_back(PROPERTY_BOOLEAN, nChoice == TRUE_VALUE ? "TRUE" : "FALSE");
            } else {
                const std::string text = Value();
                Element(kNames[nChoice], text);
                last = text.empty() ? last : text;
                if (nChoice == KEY) {
                    parent.children.emplace_back(PROPERTY_KEY, last);
                    fgKey = true;
                    nKey = parent.children.size() - 1;
                } else {
                    holder.children.emplace_back(kTypes[nChoice], last);
                }
            }
        }
    }

    fuzz::Input& m_Input;
    std::string m_Text;
    fuzz::ModelNode m_Root;
};

/// Calls back for every path of keys in a tree.
void VisitKeys(const fuzz::ModelNode& node, KList<KString>& path,
               const std::function<void(const fuzz::ModelNode&)>& visit) {
    for (std::size_t i = 0; i < node.children.size(); ++i) {
        const fuzz::ModelNode& child = node.children[i];
        // An empty text equals none, and of two keys alike the first is found.
        bool fgFirst = child.eType == PROPERTY_KEY && !child.text.empty();
        for (std::size_t j = 0; j < i; ++j) {
            fgFirst = fgFirst && !(node.children[j].eType == PROPERTY_KEY && node.children[j].text == child.text);
        }
        if (fgFirst) {
            path.Add(fuzz::Made(child.text));
            visit(child);
            VisitKeys(child, path, visit);
            KString last;
            path.Pop(last, path.GetCount() - 1);
        }
    }
}

void ReadBack(const Writer& writer) {
    KPropertyList list{KString("")};
    KString rest = fuzz::Made(writer.Text());
    list.Parshing(rest, list.GetRoot());
    fuzz::ExpectSame(std::string(rest.GetBuffer()), std::string(), "rest");
    KList<KString> path;
    int nVisited = 0;
    VisitKeys(writer.Root(), path, [&](const fuzz::ModelNode& wanted) {
        constexpr int kEnough = 50;
        if (++nVisited < kEnough) {
            KPropertyNode** const ppFound = list.GetRoot()->GetNode(path);
            fuzz::Expect(ppFound != nullptr, "every key is found by its path");
            fuzz::ExpectSame(fuzz::TextOf((*ppFound)->GetKey()), wanted.text, "the key found");
            fuzz::ExpectSame((*ppFound)->GetNodeCount(), static_cast<int>(wanted.children.size()), "its children");
        }
    });
    fuzz::ExpectSame(fuzz::Dump(fuzz::TakeTree(*list.GetRoot())), fuzz::Dump(writer.Root()), "tree");
}

/// A list that something happened to: a byte that is gone, doubled or another one. The model tells what comes of it.
void ReadDamaged(std::string text, fuzz::Input& input) {
    const std::size_t nPlace = static_cast<std::size_t>(static_cast<unsigned>(input.Int())) % text.size();
    switch (input.Byte() % 3) {
        case 0:
            text.erase(nPlace, 1 + input.Byte() % 8u);
            break;
        case 1:
            text.insert(nPlace, text.substr(nPlace, 1 + input.Byte() % 16u));
            break;
        default:
            text[nPlace] = static_cast<char>(input.Byte());
            break;
    }
    const fuzz::ModelReader model(text);
    KPropertyList list(fuzz::Made(text));
    fuzz::ExpectSame(fuzz::Dump(fuzz::TakeTree(*list.GetRoot())), fuzz::Dump(model.Root()), "damaged");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes) {
    fuzz::BeQuiet();
    // What damages the list comes first, so that it stays what it is while the tree grows.
    constexpr std::size_t kDamage = 8;
    fuzz::Input damage(pBytes, nBytes < kDamage ? nBytes : kDamage);
    fuzz::Input input(pBytes + (nBytes < kDamage ? nBytes : kDamage), nBytes < kDamage ? 0 : nBytes - kDamage);
    const Writer writer(input);
    const fuzz::ModelReader model(writer.Text());
    fuzz::ExpectSame(fuzz::Dump(model.Root()), fuzz::Dump(writer.Root()), "the model against what was written");
    ReadBack(writer);
    ReadDamaged(writer.Text(), damage);
    return 0;
}

#ifdef KALVOREN_FUZZER
extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* pBytes, std::size_t nBytes, std::size_t nLargest);

/// Changes the tree: an element more, less, twice, or another; and now and then, bytes as they come.
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* pBytes, std::size_t nBytes, std::size_t nLargest,
                                               unsigned int nSeed) {
    constexpr std::size_t kDamage = 8;
    if (nBytes < kDamage + 4 || nSeed % 4 == 0) {
        return LLVMFuzzerMutate(pBytes, nBytes, nLargest);
    }
    const std::size_t nPlace = kDamage + nSeed / 16 % (nBytes - kDamage);
    const std::uint8_t element[] = {static_cast<std::uint8_t>(nSeed >> 8),
                                    static_cast<std::uint8_t>(1 + nSeed / 64 % 9),
                                    3,
                                    'a',
                                    static_cast<std::uint8_t>('a' + nSeed / 4096 % 26),
                                    'z',
                                    0};
    constexpr std::size_t kElement = sizeof(element);
    const bool fgRoom = nBytes + kElement <= nLargest;
    switch (nSeed / 4 % 4) {
        case 0:
            if (fgRoom) {
                std::memmove(pBytes + nPlace + kElement, pBytes + nPlace, nBytes - nPlace);
                std::memcpy(pBytes + nPlace, element, kElement);
                return nBytes + kElement;
            }
            return nBytes;
        case 1: {
            const std::size_t nGone = nBytes - nPlace < kElement ? nBytes - nPlace : kElement;
            std::memmove(pBytes + nPlace, pBytes + nPlace + nGone, nBytes - nPlace - nGone);
            return nBytes - nGone;
        }
        case 2:
            pBytes[nPlace] = element[1];
            return nBytes;
        default: {
            // A part of the tree once more.
            const std::size_t nPart = (nBytes - nPlace) / 2;
            if (nBytes + nPart > nLargest) {
                return nBytes;
            }
            std::memmove(pBytes + nPlace + nPart, pBytes + nPlace, nBytes - nPlace);
            return nBytes + nPart;
        }
    }
}
#endif
