// The linter against the reader: where it says that the reader stops, the reader stops; what it says the reader makes of a
// place, the reader makes of it, and of no other; and what it has nothing to say about is read whole, as it looks.
#include <algorithm>
#include <iterator>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "Fuzz.h"
#include "PropertyModel.h"
#include "kplist/Linter.h"

namespace {

using fuzz::kNoPlace;
using fuzz::ModelClosing;
using fuzz::ModelElement;
using fuzz::ModelLevel;
using fuzz::ModelNode;
using fuzz::ModelReader;

constexpr char kEnds[] = ": reading ends here";
constexpr char kWouldEnd[] = ": reading would end here";
constexpr char kEmpty[] = "takes the text before it, ";
constexpr char kNeverFound[] = "empty 'key' is never found";
constexpr char kAttributes[] = "are read only where the closing tag repeats them";
constexpr char kSkipped[] = "everything up to ";
constexpr char kSelfClosing[] = "is read as an opening tag: what follows up to the next closing tag goes into it";
constexpr char kTaken[] = " is taken for ";
constexpr char kEntity[] = " is not decoded";
constexpr char kDate[] = "and reads as an invalid one";
constexpr char kNoPath[] = "no key of its own leads to it";
constexpr char kOneMore[] = "is one more value of the key ";
constexpr char kAgain[] = "key paths find the one at ";
constexpr char kSideBySide[] = "dictionaries side by side are not kept apart, ";
constexpr char kNoValue[] = "has no value";
constexpr char kKeyInArray[] = "'key' in an array";
constexpr char kArrayInArray[] = "'array' within an array: its elements join those of the array around it";
constexpr char kCloses[] = " opened at ";
constexpr char kNotClosed[] = " is not closed";
constexpr char kNoList[] = "no 'plist' element";
constexpr char kBracket[] = ": is a '>' missing?";
constexpr char kBehind[] = "behind the closing tag of the list is read all the same";
constexpr char kUnclosedTag[] = "tag without '>'";
constexpr char kNothing[] = " closes nothing";
constexpr char kNul[] = "NUL byte: ";

/// What a finding is known by. A message with none of these is one that this target has to learn.
constexpr const char* kMarks[] = {kEnds,    kWouldEnd, kEmpty,  kNeverFound, kAttributes, kSkipped,      kSelfClosing,
                                  kTaken,   kEntity,   kDate,   kNoPath,     kOneMore,    kAgain,        kSideBySide,
                                  kNoValue, kCloses,   kBehind, kKeyInArray, kNotClosed,  kArrayInArray, kNoList,
                                  kBracket, kNothing,  kNul,    kUnclosedTag};

/// A finding at its place in the text.
struct Said {
    std::size_t nPlace;
    std::string message;

    bool Has(const char* pszMark) const { return message.find(pszMark) != std::string::npos; }
    std::string Behind(const char* pszMark) const {
        const std::size_t nMark = message.find(pszMark);
        return nMark == std::string::npos ? "" : message.substr(nMark + std::strlen(pszMark));
    }
};

std::string WithoutControls(std::string text) {
    for (char& ch : text) {
        ch = static_cast<unsigned char>(ch) < ' ' || ch == '\x7F' ? ' ' : ch;
    }
    return text;
}

/// A text as a message quotes it: 40 bytes of it at most, no part of a character.
std::string Quoted(const std::string& text) {
    constexpr std::size_t kMost = 40;
    std::size_t nShown = text.size();
    if (nShown > kMost) {
        for (nShown = kMost; nShown > 0 && static_cast<unsigned char>(text[nShown]) / 64 == 2; --nShown) {
        }
    }
    return "'" + WithoutControls(text.substr(0, nShown)) + (nShown < text.size() ? "...'" : "'");
}

std::string Lower(std::string text) {
    for (char& ch : text) {
        ch = ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
    }
    return text;
}

bool IsLetter(char ch) {
    return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z');
}

bool IsBlank(const std::string& text) {
    return text.find_first_not_of(" \r\n\t\v\f") == kNoPlace;
}

/// The name in a tag: up to what is no part of a name, of which the first byte always is.
std::string NameIn(const std::string& tag) {
    return tag.substr(0, tag.empty() ? 0 : tag.find_first_of(" \r\n\t\v\f/", 1));
}

/// What an element is, whatever its tag looks like.
std::string ElementName(const ModelElement& element) {
    static const std::map<KPropertyNodeType, std::string> names = {{PROPERTY_KEY, "key"},
                                                                   {PROPERTY_STRING, "string"},
                                                                   {PROPERTY_INTEGER, "integer"},
                                                                   {PROPERTY_DATA, "data"},
                                                                   {PROPERTY_DATE, "date"}};
    static const std::map<ModelLevel, std::string> containers = {
        {ModelLevel::LIST, "plist"}, {ModelLevel::DICTIONARY, "dict"}, {ModelLevel::ARRAY, "array"}};
    if (element.eType == PROPERTY_BOOLEAN) {
        return Lower(element.text);
    }
    return element.eType != PROPERTY_NONE ? names.at(element.eType) : containers.at(element.eOpened);
}

bool IsContainer(const ModelElement& element) {
    return element.eType == PROPERTY_NONE;
}

bool IsText(const ModelElement& element) {
    return !IsContainer(element) && element.eType != PROPERTY_BOOLEAN;
}

/// The date in a text that is written as the description has it; false for any other text.
bool IsPlainDate(const std::string& text, long long& nSeconds) {
    static const char szForm[] = "dddd-dd-ddTdd:dd:dd";
    if (text.size() < std::strlen(szForm)) {
        return false;
    }
    int numbers[6] = {};
    std::size_t nNumber = 0;
    for (std::size_t n = 0; n < std::strlen(szForm); ++n) {
        const bool fgDigit = text[n] >= '0' && text[n] <= '9';
        if (fgDigit != (szForm[n] == 'd') || (!fgDigit && text[n] != szForm[n])) {
            return false;
        }
        if (fgDigit) {
            numbers[nNumber] = numbers[nNumber] * 10 + (text[n] - '0');
        } else {
            ++nNumber;
        }
    }
    nSeconds = KTime::MakeUnixTime(numbers[0], numbers[1], numbers[2], numbers[3], numbers[4], numbers[5], 0, 0);
    return true;
}

/// Whether the library reads a text as the moment that stands for what is no date.
bool ReadsAsInvalid(const std::string& text) {
    constexpr int kInvalid = -86400;
    KPropertyNode node;
    node.Set(PROPERTY_DATE, fuzz::Made(text));
    const KTime time = node.GetDateValue();
    long long nWanted = 0;
    if (IsPlainDate(text, nWanted)) {
        fuzz::ExpectSame(static_cast<long long>(time.sec), nWanted, "a date as it is described");
    }
    return time.sec == kInvalid;
}

/// A node of the model's tree, and where it hangs.
struct Hanging {
    const ModelNode* pNode;
    const ModelNode* pParent;
    int nIndex;
};

/// One text: what the linter says about it, what the library reads, and what the model saw on its way.
class Comparison {
 public:
    explicit Comparison(const std::string& text)
        : m_Text(text), m_Model(text), m_Report(kplist::Lint(text)), m_List(KString("")) {
        KString rest = fuzz::Made(text);
        m_List.Parshing(rest, m_List.GetRoot());
        m_Rest = rest.GetBuffer();
        m_nSeen = text.find('\0') == std::string::npos ? text.size() : text.find('\0');
        m_nRead = m_nSeen - m_Rest.size();
        NoteFindings();
        NoteNodes();
    }

    ~Comparison() { fuzz::TakeTree(*m_List.GetRoot()); }
    Comparison(const Comparison&) = delete;
    Comparison& operator=(const Comparison&) = delete;

    void Compare() {
        CompareEnd();
        if (MentionsFindings()) {
            return;
        }
        for (const Said& said : m_Said) {
            fuzz::Expect(std::any_of(std::begin(kMarks), std::end(kMarks), [&](const char* p) { return said.Has(p); }),
                         said.message.c_str());
        }
        CompareWhyItEnds();
        ComparePaths();
        CompareTexts();
        CompareContainers();
        CompareValues();
        CompareKeys();
        CompareEndOfLevels();
        CompareTree();
    }

 private:
    // ------------------------------------------------------------------------------------------------------- Findings

    void NoteFindings() {
        std::vector<std::size_t> lines = {0};
        for (std::size_t n = 0; n < m_Text.size(); ++n) {
            if (m_Text[n] == '\n') {
                lines.push_back(n + 1);
            }
        }
        std::pair<std::size_t, std::size_t> before(1, 1);
        for (const kplist::Finding& finding : m_Report.findings) {
            const std::pair<std::size_t, std::size_t> place(finding.nLine, finding.nColumn);
            fuzz::Expect(before <= place && place.second >= 1, "findings are in the order of their places");
            fuzz::Expect(finding.nLine <= lines.size(), "the line of a finding is there");
            before = place;
            m_Said.push_back({lines[finding.nLine - 1] + finding.nColumn - 1, finding.message});
            const Said& said = m_Said.back();
            fuzz::Expect(said.nPlace <= m_Text.size(), "the place of a finding is in the text");
            if (said.nPlace < m_nRead && !said.Has(kEnds) && !said.Has(kWouldEnd)) {
                m_SaidOfRead.push_back(said);
            }
        }
    }

    void NoteNodes() {
        std::vector<const ModelNode*> waiting = {&m_Model.Root()};
        while (!waiting.empty()) {
            const ModelNode& node = *waiting.back();
            waiting.pop_back();
            int nIndex = 0;
            for (const ModelNode& child : node.children) {
                m_Nodes[child.nPlace] = {&child, &node, nIndex++};
                waiting.push_back(&child);
            }
        }
    }

    /// Whether the text has words of messages in it, which quote it: no telling then what is said and what is quoted.
    bool MentionsFindings() const {
        const std::string text = WithoutControls(m_Text);
        return std::any_of(std::begin(kMarks), std::end(kMarks), [&](const char* pszMark) {
            // Quotes have marks of their own, and may cut off what is behind.
            constexpr std::size_t kEnough = 12;
            const std::string mark(std::find_if(pszMark, pszMark + std::strlen(pszMark), IsLetter));
            return text.find(mark.substr(0, kEnough)) != std::string::npos;
        });
    }

    /// Line and column, as a message tells the place in the text.
    std::string PlaceText(std::size_t nPlace) const {
        const std::string before = m_Text.substr(0, nPlace);
        const std::size_t nBreak = before.rfind('\n');
        const auto nLine = 1 + std::count(before.begin(), before.end(), '\n');
        return std::to_string(nLine) + ":" + std::to_string(nPlace - (nBreak == kNoPlace ? 0 : nBreak + 1) + 1);
    }

    /// What is said with a mark about what was read.
    std::vector<Said> About(const char* pszMark) const {
        std::vector<Said> found;
        std::copy_if(m_SaidOfRead.begin(), m_SaidOfRead.end(), std::back_inserter(found),
                     [&](const Said& said) { return said.Has(pszMark); });
        return found;
    }

    /// Both have to say the same at the same places; of several at a place the order does not matter.
    static void ExpectSaid(const std::vector<Said>& said, const std::vector<Said>& wanted, const char* pszWhat) {
        const auto listed = [](const std::vector<Said>& all) {
            std::multiset<std::string> lines;
            for (const Said& one : all) {
                lines.insert(std::to_string(one.nPlace) + ": " + one.message + "\n");
            }
            std::string list;
            for (const std::string& line : lines) {
                list += line;
            }
            return list;
        };
        fuzz::ExpectSame(listed(said), listed(wanted), pszWhat);
    }

    const ModelElement* ElementAt(std::size_t nPlace) const {
        const std::vector<ModelElement>& all = m_Model.Elements();
        const auto found =
            std::lower_bound(all.begin(), all.end(), nPlace,
                             [](const ModelElement& element, std::size_t n) { return element.nPlace < n; });
        return found != all.end() && found->nPlace == nPlace ? &*found : nullptr;
    }

    // ------------------------------------------------------------------------------------------- Where the reader stops

    void CompareEnd() const {
        fuzz::ExpectSame(static_cast<long long>(m_Report.nEnd), static_cast<long long>(m_nRead),
                         "where the reader stops");
        const bool fgNul = m_nSeen < m_Text.size();
        const bool fgSaysNul = std::any_of(m_Said.begin(), m_Said.end(), [&](const Said& said) {
            return said.nPlace == m_nSeen && said.message.compare(0, std::strlen(kNul), kNul) == 0;
        });
        fuzz::ExpectSame(fgSaysNul, fgNul, "whether there is a NUL");
        if (m_Said.empty()) {
            fuzz::ExpectSame(static_cast<long long>(m_nRead), static_cast<long long>(m_Text.size()),
                             "what is clean is read whole");
        }
    }

    void CompareWhyItEnds() const {
        std::vector<Said> ends;
        std::copy_if(m_Said.begin(), m_Said.end(), std::back_inserter(ends),
                     [](const Said& s) { return s.Has(kEnds); });
        fuzz::Expect(ends.size() <= 1, "reading ends once");
        fuzz::Expect(IsBlank(m_Rest) || ends.size() == 1, "that something is left is said");
        if (ends.empty()) {
            return;
        }
        const std::size_t nPlace = ends.front().nPlace;
        if (ends.front().Has(kNothing) && nPlace < m_nRead) {
            fuzz::ExpectSame(m_Text[nPlace], '<', "a tag that closes nothing");
            fuzz::Expect(m_Text.find('>', nPlace) + 1 == m_nRead, "the reader stops behind a tag that closes nothing");
        } else {
            fuzz::Expect(nPlace >= m_nRead, "the reader stops before what it stops at");
            fuzz::Expect(IsBlank(m_Text.substr(m_nRead, nPlace - m_nRead)), "it stops where it is said to");
        }
    }

    // -------------------------------------------------------------------------------------------------- What was read

    void CompareTexts() const {
        std::vector<Said> empty, never, skipped, dates;
        for (const ModelElement& element : m_Model.Elements()) {
            if (!IsText(element)) {
                continue;
            }
            if (element.written.empty() && !element.text.empty()) {
                empty.push_back(
                    {element.nPlace, "empty " + Quoted(ElementName(element)) + " " + kEmpty + Quoted(element.text)});
            }
            if (element.eType == PROPERTY_KEY && element.text.empty()) {
                never.push_back({element.nPlace, kNeverFound});
            }
            if (element.nTextEnd != element.nClosing) {
                skipped.push_back({element.nTextEnd, PlaceText(element.nClosing) + " is skipped"});
            }
            if (element.eType == PROPERTY_DATE && !element.written.empty() && ReadsAsInvalid(element.text)) {
                dates.push_back({element.nPlace, "date " + Quoted(element.written) +
                                                     " is not of the form 2010-05-06T07:08:09Z " + kDate});
            }
        }
        for (const auto& declaration : m_Model.LongDeclarations()) {
            skipped.push_back({declaration.first, PlaceText(declaration.second) + " is skipped"});
        }
        ExpectSaid(About(kEmpty), empty, "empty elements");
        ExpectSaid(About(kNeverFound), never, "empty keys");
        ExpectSaid(About(kDate), dates, "dates");
        std::vector<Said> said = About(kSkipped);
        for (Said& one : said) {
            one.message = one.Behind(kSkipped);
            one.message.erase(0, one.message.find("the closing tag at ") == 0 ? std::strlen("the closing tag at ") : 0);
        }
        ExpectSaid(said, skipped, "what is skipped");
        CompareEntities();
        for (const Said& one : About(kAttributes)) {
            const ModelElement* const pElement = ElementAt(one.nPlace);
            fuzz::Expect(pElement != nullptr && IsText(*pElement), "an element with attributes is read");
        }
    }

    /// An entity stands in the node's text as it was written.
    void CompareEntities() const {
        std::map<std::size_t, std::string> messages;
        for (const Said& said : About(kEntity)) {
            messages[said.nPlace] = said.message;
        }
        for (const ModelElement& element : m_Model.Elements()) {
            if (!IsText(element)) {
                continue;
            }
            const std::size_t nText = element.nTextEnd - element.written.size();
            const auto first = messages.lower_bound(nText);
            const bool fgSaid = first != messages.end() && first->first < element.nTextEnd;
            const std::size_t nKnown = std::min(element.written.find("&amp;"), element.written.find("&#38;"));
            fuzz::Expect(fgSaid || nKnown == kNoPlace, "an entity is found");
            if (fgSaid) {
                const std::string entity = element.text.substr(first->first - nText);
                const std::string message = "entity " + Quoted(entity.substr(0, entity.find(';') + 1)) + kEntity;
                fuzz::ExpectSame(first->second, message, "an entity that is in the text as it is");
                fuzz::ExpectSame(entity[0], '&', "where it begins");
                messages.erase(first);
            }
        }
        fuzz::Expect(messages.empty(), "entities are in texts");
    }

    void CompareContainers() const {
        std::vector<Said> opened, arrays, taken;
        for (const ModelElement& element : m_Model.Elements()) {
            const bool fgBoolean = element.eType == PROPERTY_BOOLEAN;
            const std::string name = ElementName(element) + (fgBoolean ? "/" : "");
            if (Lower(fgBoolean ? element.tag : NameIn(element.tag)) != name) {
                taken.push_back({element.nPlace, name});
            }
            if (IsContainer(element) && element.tag.back() == '/') {
                opened.push_back({element.nPlace, "self-closing " + Quoted(element.tag) + " " + kSelfClosing});
            }
            if (element.eOpened == ModelLevel::ARRAY && element.eAround == ModelLevel::ARRAY) {
                arrays.push_back({element.nPlace, kArrayInArray});
            }
        }
        std::vector<Said> said = About(kTaken);
        for (Said& one : said) {
            one.message = one.Behind(kTaken);
        }
        ExpectSaid(said, taken, "what is taken for something else");
        ExpectSaid(About(kSelfClosing), opened, "self-closing tags that open");
        ExpectSaid(About(kArrayInArray), arrays, "arrays within arrays");
        CompareClosings(opened.empty() ? m_nRead : opened.front().nPlace);
    }

    /// As long as no self-closing tag has put them out of step.
    void CompareClosings(std::size_t nFirstShifted) const {
        std::vector<Said> wanted;
        for (const ModelClosing& closing : m_Model.Closings()) {
            const ModelElement* const pOpened = ElementAt(closing.nOpened);
            const std::string name = ElementName(*pOpened);
            if (closing.nPlace < nFirstShifted && Lower(NameIn(closing.tag.substr(1))) != name) {
                wanted.push_back({closing.nPlace,
                                  Quoted(closing.tag) + " closes the " + name + kCloses + PlaceText(closing.nOpened)});
            }
        }
        ExpectSaid(About(kCloses), wanted, "tags that close another element");
    }

    // ------------------------------------------------------------------------------------------------- Keys and values

    void CompareValues() const {
        std::vector<Said> early, more;
        const ModelElement* pBehind = nullptr;
        for (const ModelElement& element : m_Model.Elements()) {
            if (pBehind == nullptr && element.fgBehindList && element.eType != PROPERTY_BOOLEAN) {
                pBehind = &element;
            }
            const bool fgOuter = element.eOpened == ModelLevel::LIST ||
                                 (element.eOpened == ModelLevel::DICTIONARY &&
                                  element.eAround != ModelLevel::DICTIONARY && element.nKeyPlace == kNoPlace);
            if (element.eType == PROPERTY_KEY || element.eAround == ModelLevel::ARRAY || fgOuter) {
                continue;
            }
            const std::string name = Quoted(ElementName(element)) + " ";
            if (element.nKeyPlace == kNoPlace) {
                early.push_back({element.nPlace, name + "before any key: " + kNoPath});
            } else if (element.nValues > 0) {
                more.push_back({element.nPlace, name + kOneMore + Quoted(element.key)});
            }
        }
        ExpectSaid(About(kNoPath), early, "values before any key");
        ExpectSaid(About(kOneMore), more, "values of a key that has one");
        std::vector<Said> behind;
        if (pBehind != nullptr) {
            behind.push_back({pBehind->nPlace, Quoted(ElementName(*pBehind)) + " " + kBehind});
        }
        ExpectSaid(About(kBehind), behind, "what is behind the list");
    }

    void CompareKeys() const {
        std::vector<Said> inArrays;
        for (const ModelElement& element : m_Model.Elements()) {
            if (element.eType == PROPERTY_KEY && element.eAround == ModelLevel::ARRAY) {
                inArrays.push_back({element.nPlace, kKeyInArray});
            }
        }
        ExpectSaid(About(kKeyInArray), inArrays, "keys in arrays");
        std::set<std::size_t> without;
        for (const Said& said : About(kNoValue)) {
            const auto found = m_Nodes.find(said.nPlace);
            fuzz::Expect(found != m_Nodes.end() && found->second.pNode->eType == PROPERTY_KEY, "a key without a value");
            fuzz::Expect(found->second.pNode->children.empty(), "a key without a value has none");
            fuzz::ExpectSame(said.message, "key " + Quoted(found->second.pNode->text) + " " + kNoValue, "its name");
            without.insert(said.nPlace);
        }
        for (const std::size_t nPlace : m_Model.KeysWithoutValue()) {
            fuzz::Expect(without.count(nPlace) == 1, "that a key has no value is said");
        }
        CompareKeysAgain();
    }

    void CompareKeysAgain() const {
        std::vector<Said> wanted, plain, mixed;
        for (const Said& said : About(kAgain)) {
            (said.Has(kSideBySide) ? mixed : plain).push_back(said);
        }
        std::set<const ModelNode*> mixedParents;
        for (const ModelElement& element : m_Model.Elements()) {
            if (element.eType != PROPERTY_KEY) {
                continue;
            }
            const Hanging& key = m_Nodes.at(element.nPlace);
            if (key.pNode->text.empty()) {
                continue;  // it is never found
            }
            const ModelNode& first = FirstOfItsName(key);
            if (&first == key.pNode) {
                continue;
            }
            const bool fgSameLevel = ElementAt(first.nPlace)->nAround == element.nAround;
            if (fgSameLevel || mixedParents.insert(key.pParent).second) {
                std::string message = "key " + Quoted(element.text) + " again: ";
                message += fgSameLevel ? "" : kSideBySide;
                message += kAgain + PlaceText(first.nPlace);
                wanted.push_back({element.nPlace, message});
            }
        }
        plain.insert(plain.end(), mixed.begin(), mixed.end());
        ExpectSaid(plain, wanted, "keys that are there already");
    }

    static const ModelNode& FirstOfItsName(const Hanging& key) {
        const auto& siblings = key.pParent->children;
        return *std::find_if(siblings.begin(), siblings.end(), [&](const ModelNode& sibling) {
            return sibling.eType == PROPERTY_KEY && sibling.text == key.pNode->text;
        });
    }

    // ----------------------------------------------------------------------------------------------------------- Paths

    /// Goes down from the top, as a program does that knows the names: keys that are said to be found are, and others not.
    void ComparePaths() {
        int nCompared = 0;
        KList<KString> path;
        ComparePathsBelow(m_Model.Root(), *m_List.GetRoot(), path, nCompared);
        // A value before any key hangs under what its level belongs to, and under no key of its own level.
        for (const Said& said : About(kNoPath)) {
            const auto found = m_Nodes.find(said.nPlace);
            if (found != m_Nodes.end() && found->second.pParent != &m_Model.Root()) {
                const ModelElement& key = *ElementAt(found->second.pParent->nPlace);
                fuzz::Expect(key.nAround != ElementAt(said.nPlace)->nAround, "a value before any key has none");
            }
        }
    }

    void ComparePathsBelow(const ModelNode& model, KPropertyNode& node, KList<KString>& path, int& nCompared) {
        constexpr int kEnough = 30;
        fuzz::ExpectSame(node.GetNodeCount(), static_cast<int>(model.children.size()), "the number of children");
        for (std::size_t i = 0; i < model.children.size() && nCompared < kEnough; ++i) {
            const ModelNode& child = model.children[i];
            if (child.eType != PROPERTY_KEY) {
                continue;
            }
            ++nCompared;
            const Hanging& key = m_Nodes.at(child.nPlace);
            const ModelNode& first = FirstOfItsName(key);
            KPropertyNode** const ppFirst = node.GetNode(m_Nodes.at(first.nPlace).nIndex);
            path.Add(fuzz::Made(child.text));
            KPropertyNode** const ppFound = m_List.GetRoot()->GetNode(path);
            fuzz::Expect(ppFound == (child.text.empty() ? nullptr : ppFirst), "the key that a path finds");
            if (ppFound != nullptr && &first == &child) {
                ComparePathsBelow(child, **ppFound, path, nCompared);
            }
            KString last;
            path.Pop(last, path.GetCount() - 1);
        }
    }

    // --------------------------------------------------------------------------------------------------------- The end

    void CompareEndOfLevels() const {
        const bool fgList = std::any_of(m_Model.Elements().begin(), m_Model.Elements().end(),
                                        [](const ModelElement& e) { return e.eOpened == ModelLevel::LIST; });
        const bool fgNoList = std::any_of(m_Said.begin(), m_Said.end(), [](const Said& s) { return s.Has(kNoList); });
        fuzz::Expect(!(fgList && fgNoList), "a list that is there is not missed");
        if (!About(kUnclosedTag).empty()) {
            fuzz::Expect(m_nRead == m_nSeen, "a tag without an end takes the rest");
        }
        if (m_nRead < m_nSeen) {
            return;
        }
        fuzz::ExpectSame(fgNoList, !fgList, "whether there is a list");
        const bool fgShifted = !About(kSelfClosing).empty();
        std::vector<Said> wanted;
        const std::vector<std::size_t>& open = m_Model.Open();
        if (!open.empty() && !fgShifted) {
            const std::string more =
                open.size() > 1 ? " (nor are " + std::to_string(open.size() - 1) + " more within it)" : "";
            wanted.push_back({open.front(), Quoted(ElementName(*ElementAt(open.front()))) + kNotClosed + more});
        }
        ExpectSaid(About(kNotClosed), wanted, "what is not closed");
    }

    /// The tree is the model's; and without a word from the linter, nothing in it is anything but what was written.
    void CompareTree() {
        const ModelNode tree = fuzz::TakeTree(*m_List.GetRoot());
        fuzz::ExpectSame(fuzz::Dump(tree), fuzz::Dump(m_Model.Root()), "tree");
        if (!m_Said.empty()) {
            return;
        }
        fuzz::Expect(m_Model.Rest().empty() && m_Model.Open().empty(), "what is clean is complete");
        for (const ModelElement& element : m_Model.Elements()) {
            fuzz::Expect(!IsText(element) || element.text == element.written, "what is clean is read as it is written");
        }
    }

    const std::string m_Text;
    const ModelReader m_Model;
    const kplist::Report m_Report;
    KPropertyList m_List;
    std::string m_Rest;
    std::size_t m_nSeen = 0;  ///< How much of the text the reader sees: nothing behind a NUL.
    std::size_t m_nRead = 0;
    std::vector<Said> m_Said;
    std::vector<Said> m_SaidOfRead;  ///< Those about what the reader came to.
    std::map<std::size_t, Hanging> m_Nodes;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes) {
    fuzz::BeQuiet();
    Comparison(std::string(pBytes, pBytes + nBytes)).Compare();
    return 0;
}
