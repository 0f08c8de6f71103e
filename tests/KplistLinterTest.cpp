#include <algorithm>
#include <cstring>
#include <functional>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "KPropertyList.h"
#include "kplist/Linter.h"
#include "support/PropertyTree.h"
#include "support/RandomPropertyTexts.h"
#include "support/Support.h"
#include "support/Texts.h"

using kplist::Finding;
using kplist::Lint;
using kplist::Severity;
using support::RandomPropertyTexts;
using support::Repeated;
using support::ScopedLevel;
using support::Tree;

namespace {

constexpr int kNoLines = 3;

/// What the library's reader makes of a text.
class Reading {
 public:
    explicit Reading(const std::string& text) {
        const ScopedLevel level(kNoLines);
        const std::size_t nLen = std::strlen(text.c_str());  // It ends at a NUL.
        KPropertyList list{KString()};
        KString rest(text.data(), static_cast<int>(nLen));
        list.Parshing(rest, &m_Tree.Root());
        m_nEnd = nLen - static_cast<std::size_t>(rest.Length());
    }

    std::string Dump() { return m_Tree.Dump(); }

    /// Where it stops.
    std::size_t End() const { return m_nEnd; }

 private:
    Tree m_Tree;
    std::size_t m_nEnd;
};

std::string Lines(const std::vector<Finding>& findings) {
    std::string lines;
    for (const Finding& finding : findings) {
        lines += std::to_string(finding.nLine) + ":" + std::to_string(finding.nColumn) +
                 (finding.eSeverity == Severity::Error ? ": error: " : ": warning: ") + finding.message + "\n";
    }
    return lines;
}

struct LinterCase {
    const char* pszName;
    std::string text;
    std::string findings;
    std::string tree;
};

std::ostream& operator<<(std::ostream& out, const LinterCase& test) {
    return out << test.pszName << "\n" << test.text;
}

/// A list with a dictionary around some contents, which start at the second line.
std::string InDictionary(const std::string& contents) {
    return "<plist><dict>\n" + contents + "\n</dict></plist>\n";
}

const LinterCase kCases[] = {
    // Clean files.
    {"a clean file", InDictionary("\t<key>a</key>\r\n\t<string>x</string>"), "", "key(a){string(x)}"},
    {"an ampersand alone is no entity", InDictionary("<key>a</key><string>x & y; &; &#; &-x;</string>"), "",
     "key(a){string(x & y; &; &#; &-x;)}"},
    {"blanks at the very end", "<plist></plist>\n  \n", "", ""},
    {"empty containers", InDictionary("<key>a</key><dict></dict><key>b</key><array></array>"), "", "key(a)key(b)"},
    {"the first text of an array may be empty", InDictionary("<key>a</key><array><string></string></array>"), "",
     "key(a){string()}"},
    {"an array of dictionaries without common keys",
     InDictionary("<key>a</key><array><dict><key>b</key><true/></dict><dict><key>c</key><true/></dict></array>"), "",
     "key(a){key(b){boolean(TRUE)}key(c){boolean(TRUE)}}"},
    {"names in any case", "<PLIST><Dict><KEY>a</key><True/></DICT></plist>", "", "key(a){boolean(TRUE)}"},
    {"attributes on a list", "<plist version=\"1.0\"><dict></dict></plist>", "", ""},

    // Between elements.
    {"indentation by spaces", InDictionary("  <key>a</key>\n  <true/>\n\t <key>b</key>\n\t<true/>"),
     "2:1: error: indented by spaces: reading ends here; indent by tabs (and 2 places more)\n", ""},
    {"one more place with spaces", InDictionary(" <key>a</key>\n <true/>"),
     "2:1: error: indented by spaces: reading ends here; indent by tabs (and 1 place more)\n", ""},
    {"spaces behind tabs", InDictionary("\t <key>a</key><true/>"),
     "2:2: error: indented by spaces: reading ends here; indent by tabs\n", ""},
    {"spaces behind an element", InDictionary("\t<key>a</key> <true/>"),
     "2:14: error: space between elements: reading ends here\n", "key(a)"},
    {"text outside of elements", InDictionary("\t<key>a</key>\n\t x<true/>"),
     "3:3: error: text outside of an element: reading ends here\n", "key(a)"},
    {"a byte order mark", "\xEF\xBB\xBF" + InDictionary("<key>a</key><true/>"),
     "1:1: error: byte order mark: reading ends here\n", ""},
    {"a NUL", InDictionary("<key>a</key><true/>") + std::string("\0", 1), "4:1: error: NUL byte: reading ends here\n",
     "key(a){boolean(TRUE)}"},
    {"a NUL within", "<plist><dict>\n<key>a</key>" + std::string("\0", 1) + "<true/></dict></plist>",
     "1:1: warning: 'plist' is not closed (nor are 1 more within it)\n2:13: error: NUL byte: reading ends here\n",
     "key(a)"},
    {"a NUL behind another end", "<plist></plist>x" + std::string("\0", 1),
     "1:16: warning: text behind the closing tag of the list: reading ends here\n"
     "1:17: error: NUL byte: reading would end here\n",
     ""},

    // Elements that are not known.
    {"an unknown element", InDictionary("<key>a</key>\n\t<real>1.5</real>\n<key>b</key><true/>"),
     "3:2: error: element 'real' is not known: reading ends here\n", "key(a)"},
    {"an unknown element with other elements", InDictionary("<key>a</key><x y='1'>\n<string>z</string></x>"),
     "2:13: error: element 'x' is not known: reading ends here\n"
     "3:1: warning: 'string' is one more value of the key 'a'\n"
     "3:19: error: closing tag '/x' closes nothing: reading would end here; in a program whose checks are on, the "
     "check "
     "\"0\" fails\n",
     "key(a)"},
    {"a boolean with a blank", InDictionary("<key>a</key><true /><key>b</key><FALSE />"),
     "2:13: error: element 'true' is not known: reading ends here; write <true/>\n"
     "2:33: error: element 'FALSE' is not known: reading would end here; write <FALSE/>\n",
     "key(a)"},
    {"a boolean with a closing tag", InDictionary("<key>a</key><true></true>"),
     "2:13: error: element 'true' is not known: reading ends here; write <true/>\n", "key(a)"},
    {"a comment", InDictionary("<!-- a > b --><key>a</key><!---->\n<true/>"),
     "2:1: error: comment: reading ends here\n2:27: error: comment: reading would end here\n", ""},
    {"a comment without an end", "<plist></plist><!-- x", "1:16: warning: comment: reading ends here\n", ""},
    {"a comment that holds a boolean", InDictionary("<key>a</key><string>x</string>\n<!-- <true/>-->"),
     "3:1: error: comment is taken for true/\n"
     "3:1: warning: 'true' is one more value of the key 'a'\n"
     "3:13: error: text outside of an element: reading ends here\n",
     "key(a){string(x)boolean(TRUE)}"},
    {"a marked section", InDictionary("<key>a</key><true/><![CDATA[<key>]]>"),
     "2:20: error: marked section: reading ends here\n", "key(a){boolean(TRUE)}"},
    {"an instruction", InDictionary("<?php x?>"), "2:1: error: instruction '?php': reading ends here\n", ""},
    {"a declaration", "<!DOCTYPE plist [<!ELEMENT a>]><plist></plist>",
     "1:30: error: text outside of an element: reading ends here\n", ""},
    {"a declaration on its own", "<!ELEMENT a><plist></plist>",
     "1:1: error: declaration '!ELEMENT': reading ends here\n", ""},
    {"a tag without a name", InDictionary("<>"), "2:1: error: tag without a name: reading ends here\n", ""},
    {"a long name", InDictionary("<" + std::string(50, 'x') + ">"),
     "2:1: error: element '" + std::string(40, 'x') + "...' is not known: reading ends here\n", ""},
    {"a long name is not cut within a character", InDictionary("<" + std::string(39, 'x') + "\xC3\xA9x>"),
     "2:1: error: element '" + std::string(39, 'x') + "...' is not known: reading ends here\n", ""},

    // Elements that are taken for others.
    {"names that start like others", "<plistx><dictionary><keys>a</keys><strings>x</strings></dictator></plist>",
     "1:1: warning: element 'plistx' is taken for plist\n"
     "1:9: warning: element 'dictionary' is taken for dict\n"
     "1:21: warning: element 'keys' is taken for key\n"
     "1:35: warning: element 'strings' is taken for string\n"
     "1:55: warning: '/dictator' closes the dict opened at 1:9\n",
     "key(a){string(x)}"},
    {"something with a boolean in it", InDictionary("<key>a</key><x true/>"),
     "2:13: error: element 'x' is taken for true/\n", "key(a){boolean(TRUE)}"},
    {"a closing boolean", InDictionary("<key>a</key></true/>"),
     "2:13: error: closing tag '/true/' is taken for true/\n", "key(a){boolean(TRUE)}"},

    // Texts.
    {"an entity", InDictionary("<key>a&amp;b</key>\n<string>x&#38;&lt;</string>"),
     "2:7: warning: entity '&amp;' is not decoded\n3:10: warning: entity '&#38;' is not decoded\n",
     "key(a&amp;b){string(x&#38;&lt;)}"},
    {"an empty value", InDictionary("<key>a</key>\n<string></string>\n<key>b</key><integer></integer>"),
     "3:1: error: empty 'string' takes the text before it, 'a'\n"
     "4:13: error: empty 'integer' takes the text before it, 'b'\n",
     "key(a){string(a)}key(b){integer(b)}"},
    {"an empty key", InDictionary("<key>a</key><string>x\n</string><key></key><true/>"),
     "3:10: error: empty 'key' takes the text before it, 'x '\n", "key(a){string(x\n)}key(x\n){boolean(TRUE)}"},
    {"an empty first key", InDictionary("<key></key><true/>"), "2:1: warning: empty 'key' is never found\n",
     "key(){boolean(TRUE)}"},
    {"a date of another form", InDictionary("<key>a</key><date>yesterday</date>"),
     "2:13: warning: date 'yesterday' is not of the form 2010-05-06T07:08:09Z and reads as an invalid one\n",
     "key(a){date(yesterday)}"},
    {"a date", InDictionary("<key>a</key><date>2010-05-06T07:08:09Z</date>"), "", "key(a){date(2010-05-06T07:08:09Z)}"},
    {"attributes on a value", InDictionary("<key>a</key>\n<string lang='en'>x</string>\n<key>b</key><true/>"),
     "3:1: error: attributes on 'string': reading ends here, looking for '</string lang='en'>'\n", "key(a)"},
    {"attributes on a key", InDictionary("<key a>a</key><true/>"),
     "2:1: error: attributes on 'key': reading ends here, looking for '</key a>'\n", ""},
    {"attributes that the closing tag repeats", InDictionary("<key>a</key><string a>x</string a>"),
     "2:13: warning: attributes on 'string' are read only where the closing tag repeats them\n", "key(a){string(x)}"},
    {"a comment in a text", InDictionary("<key>a</key><string>x<!-- y -->z</string>"),
     "2:22: error: comment within 'string': the text ends here, and everything up to the closing tag at 2:33 is "
     "skipped\n",
     "key(a){string(x)}"},
    {"a marked section for a text", InDictionary("<key>a</key><string><![CDATA[x]]></string>"),
     "2:13: error: empty 'string' takes the text before it, 'a'\n"
     "2:21: error: marked section within 'string': the text ends here, and everything up to the closing tag at 2:34 is "
     "skipped\n",
     "key(a){string(a)}"},
    {"a value closed by another's tag",
     InDictionary("<key>a</key><string>x</integer>\n<key>b</key>\n<string>y</string>"),
     "2:22: error: closing tag '/integer' within 'string': the text ends here, and everything up to the closing tag at "
     "4:10 is skipped\n",
     "key(a){string(x)}"},

    // Self-closing tags.
    {"a self-closing dictionary", InDictionary("<key>a</key><dict/>\n<key>b</key><true/>"),
     "2:13: error: self-closing 'dict/' is read as an opening tag: what follows up to the next closing tag goes into "
     "it\n",
     "key(a){key(b){boolean(TRUE)}}"},
    {"a self-closing array with a blank", InDictionary("<key>a</key><array />"),
     "2:13: error: self-closing 'array /' is read as an opening tag: what follows up to the next closing tag goes into "
     "it\n",
     "key(a)"},
    {"a self-closing key", InDictionary("<key/><true/>"),
     "2:1: error: self-closing 'key/': reading ends here, looking for '</key/>'\n", ""},
    {"a self-closing value", InDictionary("<key>a</key><string/>"),
     "2:13: error: self-closing 'string/': reading ends here, looking for '</string/>'\n", "key(a)"},

    // Closing tags.
    {"a missing closing tag of a value", InDictionary("<key>a</key><string>x"),
     "2:13: error: 'string' has no closing tag: reading ends here, looking for '</string>'\n", "key(a)"},
    {"a closing tag with a slip", InDictionary("<key>a</key><string>x</strng>\n<key>b</key><true/>"),
     "2:13: error: 'string' is closed by '/strng': reading ends here, looking for '</string>'\n", "key(a)"},
    {"a container closed by another's tag", "<plist>\n<dict><key>a</key><array><true/></dict></array></plist>",
     "2:33: warning: '/dict' closes the array opened at 2:19\n2:40: warning: '/array' closes the dict opened at 2:1\n",
     "key(a){boolean(TRUE)}"},
    {"a container that is not closed", "<plist>\n<dict>\n",
     "1:1: warning: 'plist' is not closed (nor are 1 more within it)\n", ""},
    {"a list that is not closed", "<plist>\n<dict>\n</dict>\n", "1:1: warning: 'plist' is not closed\n", ""},
    {"a closing tag that closes nothing", "<plist></plist>\n</dict>\n<plist></plist>",
     "2:1: warning: closing tag '/dict' closes nothing: reading ends here\n"
     "3:1: warning: 'plist' behind the closing tag of the list is read all the same\n",
     ""},
    {"a closing tag that closes nothing at the end", "<plist></plist>\n</plist>\n",
     "2:1: warning: closing tag '/plist' closes nothing\n", ""},
    {"a stray closing tag", InDictionary("<key>a</key></string><true/>"),
     "2:13: error: closing tag '/string' closes nothing: reading ends here; in a program whose checks are on, the "
     "check "
     "\"0\" fails\n",
     "key(a)"},

    // Tags without their bracket.
    {"a tag that takes in the next", InDictionary("<key>a</key><true/\n<key>b</key><true/>"),
     "2:13: error: element 'true' is taken for true/\n"
     "3:1: error: '<' within the tag of 'true': is a '>' missing?\n"
     "3:6: error: text outside of an element: reading ends here\n"
     "3:7: error: closing tag '/key' closes nothing: reading would end here; in a program whose checks are on, the "
     "check "
     "\"0\" fails\n"
     "3:13: warning: 'true' is one more value of the key 'a'\n",
     "key(a){boolean(TRUE)}"},
    {"a closing tag that takes in another", "<plist><dict></dict\n</plist>",
     "1:1: warning: 'plist' is not closed\n2:1: error: '<' within the tag of '/dict': is a '>' missing?\n", ""},
    {"a container's tag at the end", "<plist", "1:1: error: tag without '>'\n1:1: warning: 'plist' is not closed\n",
     ""},
    {"a container's closing tag at the end", "<plist></plist", "1:8: error: tag without '>'\n", ""},
    {"a boolean at the end", "<plist><dict><key>a</key><true/",
     "1:1: warning: 'plist' is not closed (nor are 1 more within it)\n1:26: error: tag without '>'\n",
     "key(a){boolean(TRUE)}"},
    {"a value at the end", "<plist></plist><string", "1:16: warning: tag without '>': reading ends here\n", ""},
    {"a document type at the end", "<plist></plist><!DOCTYPE plist",
     "1:16: warning: tag without '>': reading ends here\n", ""},

    // Headers.
    {"headers", "<?xml version=\"1.0\"?>\n<!DOCTYPE plist>\n<plist></plist>", "", ""},
    {"a declaration without its mark", "<?xml>\n<plist></plist>",
     "1:1: error: declaration without '?>': reading ends here\n", ""},
    {"a declaration with another's mark", "<?xml>\n<plist><?x?></plist>\n",
     "1:1: error: declaration without '?>' of its own: everything up to 2:11 is skipped\n"
     "1:1: warning: no 'plist' element\n"
     "2:13: warning: closing tag '/plist' closes nothing\n",
     ""},

    // Keys and values.
    {"a value before any key", InDictionary("<string>x</string>\n<key>a</key><true/>"),
     "2:1: warning: 'string' before any key: no key of its own leads to it\n", "string(x)key(a){boolean(TRUE)}"},
    {"a dictionary before any key", InDictionary("<dict><key>a</key><true/></dict>"),
     "2:1: warning: 'dict' before any key: no key of its own leads to it\n", "key(a){boolean(TRUE)}"},
    {"an array for the whole list", "<plist><array><string>x</string></array></plist>",
     "1:8: warning: 'array' before any key: no key of its own leads to it\n", "string(x)"},
    {"a second value", InDictionary("<key>a</key><string>x</string>\n<array><true/></array>"),
     "3:1: warning: 'array' is one more value of the key 'a'\n", "key(a){string(x)boolean(TRUE)}"},
    {"a key without a value", InDictionary("<key>a</key>\n<key>b</key>"),
     "2:1: warning: key 'a' has no value\n3:1: warning: key 'b' has no value\n", "key(a)key(b)"},
    {"a key in an array", InDictionary("<key>a</key><array><key>b</key><true/></array>"),
     "2:20: warning: 'key' in an array\n", "key(a){key(b){boolean(TRUE)}}"},
    {"a duplicate key", InDictionary("<key>a</key><true/>\n<key>A</key><true/>\n<key>a</key><false/>"),
     "4:1: warning: key 'a' again: key paths find the one at 2:1\n",
     "key(a){boolean(TRUE)}key(A){boolean(TRUE)}key(a){boolean(FALSE)}"},
    {"empty keys", "<plist><key></key><key></key><true/></plist>",
     "1:8: warning: empty 'key' is never found\n1:8: warning: key '' has no value\n"
     "1:19: warning: empty 'key' is never found\n",
     "key()key(){boolean(TRUE)}"},
    {"the same key in another dictionary", InDictionary("<key>a</key><dict><key>a</key><true/></dict>"), "",
     "key(a){key(a){boolean(TRUE)}}"},
    {"common keys in an array of dictionaries",
     InDictionary("<key>a</key><array>\n<dict><key>b</key><true/><key>c</key><true/></dict>\n"
                  "<dict><key>b</key><true/><key>c</key><true/></dict>\n</array>"),
     "4:7: warning: key 'b' again: dictionaries side by side are not kept apart, key paths find the one at 3:7\n",
     "key(a){key(b){boolean(TRUE)}key(c){boolean(TRUE)}key(b){boolean(TRUE)}key(c){boolean(TRUE)}}"},
    {"an array within an array", InDictionary("<key>a</key><array><array><true/></array>\n<true/></array>"),
     "2:20: warning: 'array' within an array: its elements join those of the array around it\n",
     "key(a){boolean(TRUE)boolean(TRUE)}"},

    // The list.
    {"text behind the list", "<plist></plist>\n end",
     "2:2: warning: text behind the closing tag of the list: reading ends here\n", ""},
    {"a comment behind the list", "<plist></plist><!-- end -->", "1:16: warning: comment: reading ends here\n", ""},
    {"elements behind the list", "<plist></plist>\n<key>a</key><string>x</string>",
     "2:1: warning: 'key' behind the closing tag of the list is read all the same\n", "key(a){string(x)}"},
    {"a second list", "<plist></plist><plist><dict><key>a</key><true/></dict></plist>",
     "1:16: warning: 'plist' behind the closing tag of the list is read all the same\n", "key(a){boolean(TRUE)}"},
    {"no list", "<dict><key>a</key><true/></dict>", "1:1: warning: no 'plist' element\n", "key(a){boolean(TRUE)}"},
    {"nothing", "", "1:1: warning: no 'plist' element\n", ""},
    {"no markup", "hello",
     "1:1: error: text outside of an element: reading ends here\n1:1: warning: no 'plist' element\n", ""},
};

}  // namespace

TEST(KplistLinterTest, SaysOfEachTextWhatTheReaderMakesOfIt) {
    for (const LinterCase& test : kCases) {
        const kplist::Report report = Lint(test.text);
        Reading reading(test.text);
        EXPECT_EQ(Lines(report.findings), test.findings) << test;
        EXPECT_EQ(reading.Dump(), test.tree) << test;
        EXPECT_EQ(report.nEnd, reading.End()) << test;
    }
}

// -------------------------------------------------------------------------------------------------- Texts made at random

namespace {

/// A property list made at random, as a text as it should be written and as the tree that it stands for.
class RandomList {
 public:
    explicit RandomList(std::mt19937& random) : m_Random(random), m_nName(0) {
        m_Text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist>\n<plist version=\"1.0\">";
        Space();
        m_Tree = WriteDictionary(4);
        m_Text += "</plist>\n";
    }

    const std::string& Text() const { return m_Text; }
    const std::string& ExpectedTree() const { return m_Tree; }

 private:
    std::size_t Below(std::size_t n) { return std::uniform_int_distribution<std::size_t>(0, n - 1)(m_Random); }

    void Space() {
        constexpr const char* kSpaces[] = {"\n", "\n\t", "\r\n\t\t", "\t"};
        m_Text += kSpaces[Below(std::size(kSpaces))];
    }

    void Write(const std::string& piece) {
        m_Text += piece;
        Space();
    }

    std::string RandomText() {
        constexpr const char* kPieces[] = {"a", "Z", "0", " ", "=", "%s", "\xC3\xA9", "&", ";", "\"", ">", "/", "\xFF"};
        std::string text = "t";
        for (std::size_t nPieces = Below(8); nPieces > 0; --nPieces) {
            text += kPieces[Below(std::size(kPieces))];
        }
        // Nothing that happens to be an entity.
        return text.find(';') != std::string::npos ? "t;" : text;
    }

    std::string WriteText(const std::string& element, const std::string& text) {
        Write("<" + element + ">" + text + "</" + element + ">");
        return element + "(" + text + ")";
    }

    std::string WriteDictionary(std::size_t nDepth) {
        Write("<dict>");
        std::string tree;
        for (std::size_t nKeys = Below(5) + 1; nKeys > 0; --nKeys) {
            const std::string key = WriteText("key", "name " + std::to_string(++m_nName));
            const std::string value = WriteValue(nDepth);
            tree += key + (value.empty() ? "" : "{" + value + "}");
        }
        Write("</dict>");
        return tree;
    }

    std::string WriteArray(std::size_t nDepth) {
        Write("<array>");
        std::string tree;
        const bool fgDictionaries = nDepth > 0 && Below(2) == 0;
        for (std::size_t nElements = Below(4); nElements > 0; --nElements) {
            tree += fgDictionaries ? WriteDictionary(nDepth - 1) : WriteText("string", RandomText());
        }
        Write("</array>");
        return tree;
    }

    std::string WriteValue(std::size_t nDepth) {
        switch (Below(nDepth > 0 ? 8 : 6)) {
            case 0:
                return WriteText("string", RandomText());
            case 1:
                return WriteText("integer", std::to_string(Below(100000)));
            case 2:
                return WriteText("data", "AQID\n\tBAUG");
            case 3:
                return WriteText("date", "2010-05-06T07:08:09Z");
            case 4:
                Write("<true/>");
                return "boolean(TRUE)";
            case 5:
                Write("<false/>");
                return "boolean(FALSE)";
            case 6:
                return WriteArray(nDepth - 1);
            default:
                return WriteDictionary(nDepth - 1);
        }
    }

    std::mt19937& m_Random;
    int m_nName;
    std::string m_Text;
    std::string m_Tree;
};

/// A way to break a property list: puts @p with in the place of some occurrence of @p what.
struct Damage {
    const char* pszName;
    std::string what;
    std::string with;
};

const Damage kDamages[] = {
    {"spaces between elements", ">\n<", ">\n <"},
    {"spaces for a tab", "\n\t<", "\n    <"},
    {"an unknown element", "<integer>", "<real>"},
    {"an unknown boolean", "<true/>", "<yes/>"},
    {"a blank in a boolean", "<false/>", "<false />"},
    {"a comment", "<key>", "<!-- x --><key>"},
    {"a comment behind a value", "</string>", "</string><!-- x -->"},
    {"a comment in a value", "</string>", "<!-- x --></string>"},
    {"text between elements", "<key>", "x<key>"},
    {"attributes", "<string>", "<string lang=\"en\">"},
    {"attributes on a key", "<key>", "<key id=\"1\">"},
    {"a self-closing dictionary", "<dict>", "<dict/>"},
    {"a self-closing array", "<array>", "<array/>"},
    {"a self-closing key", "<key>", "<key/>"},
    {"an entity", "</string>", "&amp;</string>"},
    {"a missing closing tag of a key", "</key>", ""},
    {"a missing closing tag of a value", "</integer>", ""},
    {"a missing closing tag of a dictionary", "</dict>", ""},
    {"a missing closing tag of an array", "</array>", ""},
    {"a mistaken closing tag", "</dict>", "</array>"},
    {"another mistaken closing tag", "</array>", "</dict>"},
    {"a mistaken closing tag of a value", "</date>", "</data>"},
    {"a stray closing tag", "<key>", "</string><key>"},
    {"a missing opening tag", "<dict>", ""},
    {"a missing opening tag of a value", "<string>", ""},
    {"a missing bracket", "/key>", "/key"},
    {"another missing bracket", "<key", "key"},
    {"a missing bracket of a dictionary", "<dict>", "<dict"},
    {"a missing bracket of a closing tag", "</dict>", "</dict"},
    {"a missing bracket of a boolean", "<true/>", "<true/"},
    {"an empty number", "<integer>", "<integer></integer><integer>"},
    {"an empty key", "<key>", "<key></key><true/><key>"},
    {"a value before any key", "<dict>", "<dict><true/>"},
    {"a value too many", "<true/>", "<true/><true/>"},
    {"a missing value", "<false/>", ""},
    {"a NUL", "<key>", std::string("\0<key>", 6)},
    {"no list", "<plist version=\"1.0\">", ""},
    {"text behind the list", "</plist>\n", "</plist>\nend"},
    {"a date of another form", "2010-05-06T", "May 6 "},
};

}  // namespace

TEST(KplistLinterTest, AFileWithoutFindingsIsReadWhole) {
    std::mt19937 random(2718);
    for (int i = 0; i < 500; ++i) {
        const RandomList list(random);
        const kplist::Report report = Lint(list.Text());
        Reading reading(list.Text());
        ASSERT_EQ(Lines(report.findings), "") << list.Text();
        ASSERT_EQ(reading.Dump(), list.ExpectedTree()) << list.Text();
        ASSERT_EQ(reading.End(), list.Text().size()) << list.Text();
        ASSERT_EQ(report.nEnd, list.Text().size()) << list.Text();
    }
}

TEST(KplistLinterTest, FindsWhateverIsBrokenInAFile) {
    std::mt19937 random(31415);
    for (const Damage& damage : kDamages) {
        int nDone = 0;
        for (int i = 0; i < 60; ++i) {
            std::string text = RandomList(random).Text();
            std::vector<std::size_t> places;
            for (std::size_t n = text.find(damage.what); n != std::string::npos; n = text.find(damage.what, n + 1)) {
                places.push_back(n);
            }
            if (places.empty()) {
                continue;
            }
            text.replace(places[random() % places.size()], damage.what.size(), damage.with);
            const kplist::Report report = Lint(text);
            ASSERT_FALSE(report.findings.empty()) << damage.pszName << "\n" << text;
            ASSERT_EQ(report.nEnd, Reading(text).End()) << damage.pszName << "\n" << Lines(report.findings) << text;
            ++nDone;
        }
        EXPECT_GT(nDone, 10) << damage.pszName;
    }
}

TEST(KplistLinterTest, SaysOfRandomTextsWhereTheReaderStops) {
    RandomPropertyTexts texts(1618);
    for (int i = 0; i < 5000; ++i) {
        const std::string text = texts.Next();
        const kplist::Report report = Lint(text);
        ASSERT_EQ(report.nEnd, Reading(text).End()) << Lines(report.findings) << text;
        const bool fgRest = text.find_first_not_of(" \t\r\n", report.nEnd) != std::string::npos;
        ASSERT_FALSE(fgRest && report.findings.empty()) << text;
    }
}

TEST(KplistLinterTest, TakesAnyBytes) {
    RandomPropertyTexts texts(577);
    for (int i = 0; i < 2000; ++i) {
        const std::string text = "<plist>" + texts.NextBytes(200);
        ASSERT_EQ(Lint(text).nEnd, Reading(text).End()) << text;
    }
}

// -------------------------------------------------------------------------------------------------------- Large texts

namespace {

constexpr std::size_t kMany = 100000;

}  // namespace

TEST(KplistLinterTest, GoesThroughLargeAndBrokenTexts) {
    const std::vector<std::string> texts = {
        Repeated("<dict>", kMany),
        Repeated("<dict", kMany),
        Repeated("<key>a</key><dict>", kMany) + Repeated("</dict>", kMany),
        Repeated("<string>x", kMany),
        Repeated("<string>a<b/></string>", 1000),
        Repeated("<!--", kMany),
        Repeated(" ", kMany) + Repeated("<x> ", kMany),
        "<key>" + std::string(10 * kMany, '&'),
        "<" + std::string(10 * kMany, 'x'),
        std::string(10 * kMany, '<'),
    };
    for (const std::string& text : texts) {
        EXPECT_EQ(Lint(text).nEnd, Reading(text).End()) << text.substr(0, 40);
    }
}

TEST(KplistLinterTest, GivesUpSearchingForClosingTagsThatAreNeverThere) {
    std::string text = "<plist>";
    for (std::size_t i = 0; i < kMany; ++i) {
        text += "<string" + std::to_string(i) + ">x";
    }
    EXPECT_EQ(Lint(text).nEnd, std::strlen("<plist>"));
}
