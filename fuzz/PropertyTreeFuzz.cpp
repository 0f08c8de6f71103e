// Trees that are written as property lists and read back. The input is a tree, not a text, and the mutator changes it as
// one: whatever comes of it is a list that the reader takes whole, unless it is damaged on purpose.
#include <algorithm>
#include <functional>
#include <random>
#include <utility>
#include <vector>

#include "Fuzz.h"
#include "PropertyModel.h"

namespace {

/// What an element is. In the input each is a byte that varies the break before it and one that chooses; then a text's
/// length, its bytes and one that varies the case of its name, or what is in a container and CLOSE.
enum Choice : int { CLOSE, KEY, STRING, INTEGER, DATA, DATE, TRUE_VALUE, FALSE_VALUE, OPEN_DICT, OPEN_ARRAY, CHOICES };

constexpr std::size_t kLongest = 2048;
constexpr int kDeepest = 64;
constexpr std::size_t kDamage = 8;  ///< So many bytes come first and damage the list; the tree is behind them.

const char* const kBreaks[] = {"", "\n", "\r\n\t", "\t\t"};
constexpr int kLastBreak = 3;
const char* const kNames[] = {"", "key", "string", "integer", "data", "date"};
const KPropertyNodeType kTypes[] = {PROPERTY_NONE,    PROPERTY_KEY,  PROPERTY_STRING,
                                    PROPERTY_INTEGER, PROPERTY_DATA, PROPERTY_DATE};

/// An element of the input: what writes the list and what changes the tree see the same ones.
struct Element {
    bool IsContainer() const { return eChoice >= OPEN_DICT; }
    bool HasText() const { return eChoice >= KEY && eChoice <= DATE; }

    int nBreak = 0;
    Choice eChoice = STRING;
    std::string text;
    int nCase = 0;
    std::vector<Element> children;
    int nLastBreak = 0;  ///< Before the closing tag.
};

/// Takes the elements of a level, up to what closes it or the end of the input. Returns the break before its closing tag.
int TakeLevel(fuzz::Input& input, int nDepth, std::vector<Element>& level) {
    while (!input.IsEmpty()) {
        Element element;
        element.nBreak = input.Range(0, kLastBreak);
        element.eChoice = static_cast<Choice>(input.Byte() % CHOICES);
        if (element.eChoice == CLOSE) {
            return element.nBreak;
        }
        if (element.HasText()) {
            element.text = input.Text();
            element.nCase = input.Byte();
        } else if (element.IsContainer() && nDepth < kDeepest) {
            element.nLastBreak = TakeLevel(input, nDepth + 1, element.children);
        }
        level.push_back(std::move(element));
    }
    return 0;
}

/// The bytes that a level is taken from.
void PutLevel(const std::vector<Element>& level, int nDepth, std::string& bytes) {
    for (const Element& element : level) {
        bytes += {static_cast<char>(element.nBreak), static_cast<char>(element.eChoice)};
        if (element.HasText()) {
            bytes += static_cast<char>(element.text.size());
            bytes += element.text;
            bytes += static_cast<char>(element.nCase);
        } else if (element.IsContainer() && nDepth < kDeepest) {
            PutLevel(element.children, nDepth + 1, bytes);
            bytes += {static_cast<char>(element.nLastBreak), static_cast<char>(CLOSE)};
        }
    }
}

/// What stands in an input: what damages the list comes first, so that it stays what it is while the tree grows.
struct Tree {
    Tree(const std::uint8_t* pBytes, std::size_t nBytes)
        : damage(pBytes, pBytes + std::min(nBytes, kDamage)), nLastBreak(0) {
        fuzz::Input input(pBytes + damage.size(), nBytes - damage.size());
        nLastBreak = TakeLevel(input, 0, elements);
    }

    std::string Bytes() const {
        std::string bytes = damage;
        bytes.resize(kDamage);
        PutLevel(elements, 0, bytes);
        return bytes;
    }

    std::string damage;
    std::vector<Element> elements;
    int nLastBreak;
};

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
    explicit Writer(const Tree& tree) {
        m_Text = "<?xml version=\"1.0\"?>\n<plist>";
        Level(tree.elements, tree.nLastBreak, m_Root, 0);
        m_Text += "</plist>";
    }

    const std::string& Text() const { return m_Text; }
    const fuzz::ModelNode& Root() const { return m_Root; }

 private:
    /// Once the text is long enough, what is open is closed.
    bool IsFull() const { return m_Text.size() >= kLongest; }

    static std::string Value(const Element& element) {
        std::string text = fuzz::Plain(element.text);
        std::replace(text.begin(), text.end(), '<', '>');
        return text;
    }

    void Put(const Element& element, const std::string& text) {
        const char* const pszName = kNames[element.eChoice];
        m_Text += "<" + InCaseOf(pszName, element.nCase) + ">" + text + "</" + InCaseOf(pszName, ~element.nCase) + ">";
    }

    void Level(const std::vector<Element>& level, int nLastBreak, fuzz::ModelNode& parent, int nDepth) {
        bool fgKey = false;
        std::size_t nKey = 0;
        std::string last;
        for (std::size_t i = 0; i < level.size() && !IsFull(); ++i) {
            const Element& element = level[i];
            fuzz::ModelNode& holder = fgKey ? parent.children[nKey] : parent;
            m_Text += kBreaks[element.nBreak];
            if (element.IsContainer()) {
                if (nDepth < kDeepest) {
                    const char* const pszName = element.eChoice == OPEN_DICT ? "dict" : "array";
                    m_Text += std::string("<") + pszName + ">";
                    Level(element.children, element.nLastBreak, holder, nDepth + 1);
                    m_Text += std::string("</") + pszName + ">";
                }
            } else if (!element.HasText()) {
                const bool fgTrue = element.eChoice == TRUE_VALUE;
                m_Text += fgTrue ? "<true/>" : "<false/>";
                holder.children.emplace_back(PROPERTY_BOOLEAN, fgTrue ? "TRUE" : "FALSE");
            } else {
                const std::string text = Value(element);
                Put(element, text);
                last = text.empty() ? last : text;
                if (element.eChoice == KEY) {
                    parent.children.emplace_back(PROPERTY_KEY, last);
                    fgKey = true;
                    nKey = parent.children.size() - 1;
                } else {
                    holder.children.emplace_back(kTypes[element.eChoice], last);
                }
            }
        }
        m_Text += IsFull() ? "" : kBreaks[nLastBreak];
    }

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
            if (ppFound == nullptr) {
                return;  // The analyzer does not see that the process has ended.
            }
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
    const Tree tree(pBytes, nBytes);
    const Writer writer(tree);
    const fuzz::ModelReader model(writer.Text());
    fuzz::ExpectSame(fuzz::Dump(model.Root()), fuzz::Dump(writer.Root()), "the model against what was written");
    // Of what the mutator puts together, nothing is lost but a break behind the last element.
    const std::string bytes = tree.Bytes();
    const Tree again(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    fuzz::ExpectSame(again.Bytes(), bytes, "a tree that is put into bytes");
    fuzz::ExpectSame(fuzz::Dump(Writer(again).Root()), fuzz::Dump(writer.Root()), "what is written of it");
    ReadBack(writer);
    fuzz::Input damage(pBytes, std::min(nBytes, kDamage));
    ReadDamaged(writer.Text(), damage);
    return 0;
}

#ifdef KALVOREN_FUZZER
extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* pBytes, std::size_t nBytes, std::size_t nLargest);

namespace {

/// Changes a tree by whole elements, each with what is in it.
class Changer {
 public:
    Changer(Tree& tree, unsigned nSeed) : m_Tree(tree), m_Random(nSeed) { Look(); }

    /// One change of those that there are.
    void Change() {
        constexpr unsigned kChanges = 9;
        const unsigned nChange = m_Elements.empty() ? 0 : Below(kChanges);
        switch (nChange) {
            case 0:
                Insert(Made());
                break;
            case 1:
                TakeOut();
                break;
            case 2:
                Insert(Element(SomeElement()));
                break;
            case 3:
                Insert(TakeOut());
                break;
            case 4:
                Swap();
                break;
            case 5:
                Wrap();
                break;
            case 6:
                Unwrap();
                break;
            case 7:
                VaryText();
                break;
            default:
                VaryElement();
                break;
        }
    }

    void ChangeDamage() {
        m_Tree.damage.resize(kDamage);
        m_Tree.damage[Below(kDamage)] = static_cast<char>(Below(256));
    }

    /// Puts an element of another tree into this one, now and then in place of one.
    void Splice(Changer& other) {
        const Element element = other.m_Elements.empty() ? Made() : other.SomeElement();
        if (Below(2) == 0 && !m_Elements.empty()) {
            SomeElement() = element;
            Look();
        } else {
            Insert(element);
        }
    }

    /// Takes elements out until the rest fits.
    std::size_t Put(std::uint8_t* pBytes, std::size_t nLargest) {
        std::string bytes = m_Tree.Bytes();
        while (bytes.size() > nLargest && !m_Elements.empty()) {
            TakeOut();
            bytes = m_Tree.Bytes();
        }
        bytes.resize(std::min(bytes.size(), nLargest));
        std::memcpy(pBytes, bytes.data(), bytes.size());
        return bytes.size();
    }

 private:
    /// A place in a level: of an element, or where one can come.
    struct Place {
        std::vector<Element>* pLevel;
        std::size_t nIndex;
    };

    unsigned Below(std::size_t nLimit) { return static_cast<unsigned>(m_Random() % nLimit); }

    /// Notes all places; they are good until the next change.
    void Look() {
        m_Elements.clear();
        m_Gaps.clear();
        LookInto(m_Tree.elements, 0);
    }

    void LookInto(std::vector<Element>& level, int nDepth) {
        for (std::size_t i = 0; i < level.size(); ++i) {
            m_Elements.push_back({&level, i});
            m_Gaps.push_back({&level, i});
            if (level[i].IsContainer() && nDepth < kDeepest) {
                LookInto(level[i].children, nDepth + 1);
            }
        }
        m_Gaps.push_back({&level, level.size()});
    }

    static Element& At(const Place& place) { return (*place.pLevel)[place.nIndex]; }
    Place SomePlace() { return m_Elements[Below(m_Elements.size())]; }
    Element& SomeElement() { return At(SomePlace()); }

    Element Made() {
        Element element;
        element.nBreak = static_cast<int>(Below(kLastBreak + 1));
        element.eChoice = static_cast<Choice>(1 + Below(CHOICES - 1));
        if (element.HasText()) {
            constexpr std::size_t kShort = 4;
            for (std::size_t n = Below(kShort); n > 0; --n) {
                element.text += static_cast<char>('a' + Below(26));
            }
            element.nCase = static_cast<int>(Below(256));
        }
        return element;
    }

    void Insert(const Element& element) {
        const Place gap = m_Gaps[Below(m_Gaps.size())];
        gap.pLevel->insert(gap.pLevel->begin() + static_cast<std::ptrdiff_t>(gap.nIndex), element);
        Look();
    }

    Element TakeOut() {
        const Place place = SomePlace();
        Element element = std::move(At(place));
        place.pLevel->erase(place.pLevel->begin() + static_cast<std::ptrdiff_t>(place.nIndex));
        Look();
        return element;
    }

    /// Two of a level.
    void Swap() {
        const Place place = SomePlace();
        std::swap(At(place), (*place.pLevel)[Below(place.pLevel->size())]);
        Look();
    }

    /// A container around an element.
    void Wrap() {
        Element& element = SomeElement();
        Element around;
        around.eChoice = Below(2) == 0 ? OPEN_DICT : OPEN_ARRAY;
        around.children.push_back(std::move(element));
        element = std::move(around);
        Look();
    }

    /// What is in an element instead of it.
    void Unwrap() {
        const Place place = SomePlace();
        const std::vector<Element> children = std::move(At(place).children);
        const auto here = place.pLevel->erase(place.pLevel->begin() + static_cast<std::ptrdiff_t>(place.nIndex));
        place.pLevel->insert(here, children.begin(), children.end());
        Look();
    }

    void VaryText() {
        constexpr std::size_t kMost = 255;
        std::uint8_t bytes[kMost];
        Element& element = SomeElement();
        std::copy(element.text.begin(), element.text.end(), bytes);
        element.text.assign(bytes, bytes + LLVMFuzzerMutate(bytes, element.text.size(), kMost));
    }

    /// Another kind of the same element, another break, another case. What is in it comes back with a container.
    void VaryElement() {
        Element other = Made();
        Element& element = SomeElement();
        std::swap(other.text, element.text);
        std::swap(other.children, element.children);
        other.nLastBreak = static_cast<int>(Below(kLastBreak + 1));
        element = std::move(other);
        Look();
    }

    Tree& m_Tree;
    std::minstd_rand m_Random;
    std::vector<Place> m_Elements;
    std::vector<Place> m_Gaps;
};

}  // namespace

/// Changes the tree, and now and then what damages its list, or bytes as they come.
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* pBytes, std::size_t nBytes, std::size_t nLargest,
                                               unsigned int nSeed) {
    constexpr unsigned kSeldom = 16;
    if (nSeed % kSeldom == 0) {
        return LLVMFuzzerMutate(pBytes, nBytes, nLargest);
    }
    Tree tree(pBytes, nBytes);
    Changer changer(tree, nSeed);
    if (nSeed % kSeldom == 1) {
        changer.ChangeDamage();
    } else {
        changer.Change();
    }
    return changer.Put(pBytes, nLargest);
}

/// An element of one tree in the other.
extern "C" std::size_t LLVMFuzzerCustomCrossOver(const std::uint8_t* pBytes, std::size_t nBytes,
                                                 const std::uint8_t* pOther, std::size_t nOther, std::uint8_t* pResult,
                                                 std::size_t nLargest, unsigned int nSeed) {
    Tree tree(pBytes, nBytes);
    Tree other(pOther, nOther);
    Changer changer(tree, nSeed);
    Changer source(other, nSeed);
    changer.Splice(source);
    return changer.Put(pResult, nLargest);
}
#endif
