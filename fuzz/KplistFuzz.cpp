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
    bool fgError = false;

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

/// Whether a tag is that of an element at all.
bool IsElementTag(const std::string& tag) {
    return !tag.empty() && tag[0] != '!' && tag[0] != '?';
}

/// Whether a text starts with a word in lower case.
bool Begins(const std::string& text, const std::string& word) {
    return Lower(text.substr(0, word.size())) == word;
}

/// What a tag is, in words.
std::string Described(const std::string& tag) {
    if (Begins(tag, "!--") || Begins(tag, "![cdata[")) {
        return Begins(tag, "!--") ? "comment" : "marked section";
    }
    const std::string kind = Begins(tag, "?")   ? "instruction "
                             : Begins(tag, "!") ? "declaration "
                             : Begins(tag, "/") ? "closing tag "
                                                : "element ";
    return kind + Quoted(Begins(tag, "/") ? tag : NameIn(tag));
}

/// Whether there is more in a tag than a name and a slash at its end.
bool HasAttributes(const std::string& tag) {
    const std::string behind = tag.substr(NameIn(tag).size());
    return !IsBlank(behind.substr(0, behind.size() - (!behind.empty() && behind.back() == '/' ? 1 : 0)));
}

/// A message about spaces without the number of places that it counts besides; any other message as it is.
std::string WithoutCount(const std::string& message) {
    constexpr char kCount[] = " (and ";
    const bool fgSpaces = Begins(message, "indented by spaces:") || Begins(message, "space between elements:");
    const std::size_t nCount = fgSpaces ? message.find(kCount) : kNoPlace;
    if (nCount == kNoPlace) {
        return message;
    }
    const std::string count = message.substr(nCount + std::strlen(kCount));
    const int nPlaces = std::atoi(count.c_str());
    fuzz::Expect(nPlaces >= 1, "there are places besides");
    fuzz::ExpectSame(count, std::to_string(nPlaces) + (nPlaces == 1 ? " place more)" : " places more)"),
                     "the number of places besides");
    return message.substr(0, nCount);
}

/// Why a read ends, and where the reason stands; what is said behind the mark. Nothing where no word is lost about it.
struct Ending {
    std::size_t nPlace = kNoPlace;
    std::string what = {};
    std::string more = {};
};

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

/// Whether a text is read as the moment that stands for what is no date.
bool ReadsAsInvalid(const std::string& text) {
    KPropertyNode node;
    node.Set(PROPERTY_DATE, fuzz::Made(text));
    fuzz::CompareGetters(node);
    return fuzz::ModelDate(text).Seconds() == fuzz::kNoDate;
}

/// What an element is taken for that its tag does not say; empty where the tag says it.
std::string TakenFor(const ModelElement& element) {
    const bool fgBoolean = element.eType == PROPERTY_BOOLEAN;
    const std::string name = ElementName(element) + (fgBoolean ? "/" : "");
    return Lower(fgBoolean ? element.tag : NameIn(element.tag)) != name ? name : "";
}

/// What has to be said about an element for each of these marks, if anything, whatever is around it.
std::string SaidOfAny(const ModelElement& element, const char* pszMark) {
    const bool fgKey = element.eType == PROPERTY_KEY;
    std::string message;
    if (pszMark == kTaken && !TakenFor(element).empty()) {
        message = Described(element.tag) + kTaken + TakenFor(element);
    } else if (pszMark == kSelfClosing && IsContainer(element) && element.tag.back() == '/') {
        message = "self-closing " + Quoted(element.tag) + " " + kSelfClosing;
    } else if (pszMark == kAttributes && IsText(element) && HasAttributes(element.tag)) {
        message = "attributes on " + Quoted(NameIn(element.tag)) + " " + kAttributes;
    } else if (pszMark == kNeverFound && fgKey && element.text.empty()) {
        message = kNeverFound;
    } else if (pszMark == kDate && element.eType == PROPERTY_DATE && !element.written.empty() &&
               ReadsAsInvalid(element.text)) {
        message = "date " + Quoted(element.written) + " is not of the form 2010-05-06T07:08:09Z " + kDate;
    }
    return message;
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
        CompareWhyItWouldEnd();
        CompareBehindTheEnd();
        CompareTags();
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
            m_Said.push_back({lines[finding.nLine - 1] + finding.nColumn - 1, finding.message,
                              finding.eSeverity == kplist::Severity::Error});
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
            fuzz::Expect(IsBlank(m_Text.substr(m_nRead)), "what is clean is read whole, but for blanks at its end");
        }
    }

    /// The text of the tag that begins at a place.
    std::string TagAt(std::size_t nPlace) const {
        const std::size_t nEnd = std::min(m_Text.find('>', nPlace + 1), m_nSeen);
        return m_Text.substr(nPlace + 1, nEnd - nPlace - 1);
    }

    bool IsClosed(std::size_t nPlace, const std::string& tag) const { return nPlace + 1 + tag.size() < m_nSeen; }

    /// Blanks that the reader does not skip, or a text.
    Ending EndingBetween(std::size_t nHere, bool fgBehindList, bool fgOpen) const {
        const std::size_t nNext = std::min(m_Text.find('<', nHere), m_nSeen);
        const std::string between = m_Text.substr(nHere, nNext - nHere);
        if (!IsBlank(between)) {
            return {nHere + between.find_first_not_of(" \r\n\t\v\f"),
                    fgBehindList ? "text behind the closing tag of the list" : "text outside of an element"};
        }
        if (nNext == m_nSeen && !fgOpen) {
            return {};  // Nothing is lost.
        }
        const std::size_t nBreak = m_Text.rfind('\n', nHere);
        const std::size_t nLine = nBreak == kNoPlace ? 0 : nBreak + 1;
        const bool fgIndent = m_Text.substr(nLine, nHere - nLine).find_first_not_of('\t') == kNoPlace;
        return {nHere, fgIndent ? "indented by spaces" : "space between elements", fgIndent ? "; indent by tabs" : ""};
    }

    /// An element with a text whose closing tag is not there.
    Ending EndingOfText(std::size_t nHere, const std::string& tag) const {
        const std::string looking = ", looking for " + Quoted("</" + tag + ">");
        const std::string name = Quoted(NameIn(tag));
        if (!IsClosed(nHere, tag)) {
            return {nHere, kUnclosedTag};
        }
        if (tag.back() == '/') {
            return {nHere, "self-closing " + Quoted(tag), looking};
        }
        if (HasAttributes(tag)) {
            return {nHere, "attributes on " + name, looking};
        }
        const std::size_t nNext = std::min(m_Text.find('<', nHere + tag.size() + 2), m_nSeen);
        static const std::set<std::string> containers = {"plist", "dict", "array"};
        if (m_Text.compare(nNext, 2, "</") == 0) {
            const std::string closing = TagAt(nNext);
            if (containers.count(Lower(NameIn(closing.substr(1)))) == 0) {
                return {nHere, name + " is closed by " + Quoted(closing), looking};
            }
        }
        return {nHere, name + " has no closing tag", looking};
    }

    /// A tag that the reader does not read.
    Ending EndingOfTag(std::size_t nHere) const {
        const std::string tag = TagAt(nHere);
        if (tag.empty()) {
            return {nHere, "tag without a name"};
        }
        if (Begins(tag, "?xml") || Begins(tag, "!doctype")) {
            return {nHere, tag[0] == '?' ? "declaration without '?>'" : kUnclosedTag};
        }
        for (const char* const pszName : {"key", "string", "integer", "data", "date"}) {
            if (Begins(tag, pszName)) {
                return EndingOfText(nHere, tag);
            }
        }
        if (tag[0] == '/') {
            return {nHere, Described(tag) + kNothing, "; in a program whose checks are on, the check \"0\" fails"};
        }
        const std::string name = Lower(NameIn(tag));
        const bool fgBoolean = name == "true" || name == "false";
        return {nHere, Described(tag) + (IsElementTag(tag) ? " is not known" : ""),
                fgBoolean ? "; write <" + NameIn(tag) + "/>" : ""};
    }

    /// Where the read of the whole ends, and why.
    Ending WhyItEnds() const {
        const std::size_t nNothing = m_Model.ClosedNothing();
        if (nNothing != kNoPlace) {
            return IsBlank(m_Rest) ? Ending() : Ending{nNothing, Described(TagAt(nNothing)) + kNothing};
        }
        if (m_Text.compare(0, 3, "\xEF\xBB\xBF") == 0) {
            return {0, "byte order mark"};
        }
        if (m_nRead == m_nSeen) {
            return m_nSeen < m_Text.size() ? Ending{m_nSeen, "NUL byte"} : Ending();
        }
        return m_Text[m_nRead] == '<' ? EndingOfTag(m_nRead)
                                      : EndingBetween(m_nRead, m_Model.IsBehindList(), !m_Model.Open().empty());
    }

    void CompareWhyItEnds() const {
        std::vector<Said> said, wanted, nothing;
        for (const Said& one : m_Said) {
            if (one.Has(kEnds)) {
                said.push_back({one.nPlace, WithoutCount(one.message)});
                const bool fgError = one.nPlace == m_nSeen || !m_Model.IsBehindList();
                fuzz::ExpectSame(one.fgError, fgError, "whether it is an error that reading ends");
            }
        }
        const Ending ending = WhyItEnds();
        if (ending.nPlace != kNoPlace) {
            wanted.push_back({ending.nPlace, ending.what + kEnds + ending.more});
        }
        ExpectSaid(said, wanted, "why reading ends");
        const std::size_t nNothing = m_Model.ClosedNothing();
        if (nNothing != kNoPlace && IsBlank(m_Rest)) {
            nothing.push_back({nNothing, Described(TagAt(nNothing)) + kNothing});
        }
        ExpectSaid(About(kNothing), nothing, "what closes nothing, with nothing behind it");
    }

    /// A text as it stands from a place on.
    std::string From(std::size_t nPlace) const { return m_Text.substr(nPlace, m_nSeen - nPlace); }

    /// Where the linter goes on behind the end, a read would end that began there.
    void CompareWhyItWouldEnd() const {
        int nCompared = 0;
        for (const Said& said : m_Said) {
            constexpr int kEnough = 10;
            if (!said.Has(kWouldEnd) || ++nCompared > kEnough) {
                continue;
            }
            fuzz::Expect(said.nPlace >= m_nRead, "reading would end behind the end");
            if (said.nPlace == m_nSeen) {
                fuzz::ExpectSame(said.message, std::string("NUL byte") + kWouldEnd, "a NUL behind the end");
                continue;
            }
            Ending ending = EndingBetween(said.nPlace, said.Has("behind the closing tag"), true);
            if (m_Text[said.nPlace] == '<') {
                const ModelReader rest(From(said.nPlace));
                const bool fgNothing = rest.ClosedNothing() == 0;
                fuzz::Expect(fgNothing || rest.Rest().size() == m_nSeen - said.nPlace, "a read ends where it would");
                ending = fgNothing ? Ending{said.nPlace, Described(TagAt(said.nPlace)) + kNothing}
                                   : EndingOfTag(said.nPlace);
            }
            ExpectSaid({{said.nPlace, WithoutCount(said.message)}},
                       {{ending.nPlace, ending.what + kWouldEnd + ending.more}}, "why reading would end");
        }
    }

    /// What is said about elements behind the end holds for what is read from there on.
    void CompareBehindTheEnd() const {
        int nCompared = 0;
        std::size_t nBrackets =
            m_nRead < m_nSeen && m_Text[m_nRead] == '<' ? Brackets(m_nRead, TagAt(m_nRead)).size() : 0;
        for (const Said& said : m_Said) {
            if (said.nPlace < m_nRead || said.Has(kEnds) || said.Has(kWouldEnd)) {
                continue;
            }
            if (said.Has(kBracket)) {
                const std::size_t nTag = said.nPlace == 0 ? kNoPlace : m_Text.rfind('<', said.nPlace - 1);
                fuzz::Expect(nTag != kNoPlace, "a bracket behind the end is in a tag");
                ExpectSaid({said}, Brackets(nTag, TagAt(nTag)), "a bracket behind the end");
                nBrackets -= nTag == m_nRead ? nBrackets : 0;
            }
            for (const char* const pszMark : {kTaken, kSelfClosing, kAttributes, kNeverFound, kDate}) {
                constexpr int kEnough = 10;
                if (said.Has(pszMark) && ++nCompared <= kEnough) {
                    const ModelReader rest(From(said.nPlace));
                    fuzz::Expect(!rest.Elements().empty() && rest.Elements().front().nPlace == 0,
                                 "an element behind the end could be read");
                    fuzz::ExpectSame(said.message, SaidOfAny(rest.Elements().front(), pszMark),
                                     "an element behind the end");
                }
            }
        }
        fuzz::Expect(nBrackets == 0, "a bracket within the tag that ends the read is said");
    }

    /// What is said about a tag that seems to have taken in the next one.
    static std::vector<Said> Brackets(std::size_t nPlace, const std::string& tag) {
        const std::size_t nBracket = tag.find('<');
        if (nBracket == kNoPlace || !IsElementTag(tag)) {
            return {};
        }
        return {{nPlace + 1 + nBracket, "'<' within the tag of " + Quoted(NameIn(tag)) + kBracket}};
    }

    // -------------------------------------------------------------------------------------------------- What was read

    /// What is said about elements by themselves, and about the ends of tags.
    void CompareTags() const {
        for (const char* const pszMark : {kTaken, kSelfClosing, kAttributes, kNeverFound, kDate}) {
            std::vector<Said> wanted;
            for (const ModelElement& element : m_Model.Elements()) {
                const std::string message = SaidOfAny(element, pszMark);
                if (!message.empty()) {
                    wanted.push_back({element.nPlace, message});
                }
            }
            ExpectSaid(About(pszMark), wanted, pszMark);
        }
        std::vector<Said> brackets, unclosed;
        const auto note = [&](std::size_t nPlace, const std::string& tag, bool fgMustClose) {
            const std::vector<Said> found = Brackets(nPlace, tag);
            brackets.insert(brackets.end(), found.begin(), found.end());
            if (fgMustClose && !IsClosed(nPlace, tag)) {
                unclosed.push_back({nPlace, kUnclosedTag});
            }
        };
        for (const ModelElement& element : m_Model.Elements()) {
            note(element.nPlace, element.tag, true);
        }
        for (const ModelClosing& closing : m_Model.Closings()) {
            note(closing.nPlace, closing.tag, true);
        }
        if (m_Model.ClosedNothing() != kNoPlace) {
            note(m_Model.ClosedNothing(), TagAt(m_Model.ClosedNothing()), false);
        }
        ExpectSaid(About(kBracket), brackets, "brackets within tags");
        ExpectSaid(About(kUnclosedTag), unclosed, "tags that are not closed");
    }

    void CompareTexts() const {
        std::vector<Said> empty, skipped;
        for (const ModelElement& element : m_Model.Elements()) {
            if (!IsText(element)) {
                continue;
            }
            if (element.written.empty() && !element.text.empty()) {
                empty.push_back(
                    {element.nPlace, "empty " + Quoted(ElementName(element)) + " " + kEmpty + Quoted(element.text)});
            }
            if (element.nTextEnd != element.nClosing) {
                skipped.push_back({element.nTextEnd, PlaceText(element.nClosing) + " is skipped"});
            }
        }
        for (const auto& declaration : m_Model.LongDeclarations()) {
            skipped.push_back({declaration.first, PlaceText(declaration.second) + " is skipped"});
        }
        ExpectSaid(About(kEmpty), empty, "empty elements");
        std::vector<Said> said = About(kSkipped);
        for (Said& one : said) {
            one.message = one.Behind(kSkipped);
            one.message.erase(0, one.message.find("the closing tag at ") == 0 ? std::strlen("the closing tag at ") : 0);
        }
        ExpectSaid(said, skipped, "what is skipped");
        CompareEntities();
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
        std::vector<Said> arrays;
        std::size_t nFirstShifted = m_nRead;
        for (const ModelElement& element : m_Model.Elements()) {
            if (!SaidOfAny(element, kSelfClosing).empty()) {
                nFirstShifted = std::min(nFirstShifted, element.nPlace);
            }
            if (element.eOpened == ModelLevel::ARRAY && element.eAround == ModelLevel::ARRAY) {
                arrays.push_back({element.nPlace, kArrayInArray});
            }
        }
        ExpectSaid(About(kArrayInArray), arrays, "arrays within arrays");
        CompareClosings(nFirstShifted);
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
        fuzz::Expect(m_Model.Open().empty(), "what is clean is complete");
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
