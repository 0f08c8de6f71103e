// The tool kplist: what it prints, and whether what it says of the reader is what the reader does.

#include <sys/wait.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "../tools/kplist/Linter.h"
#include "../tools/kplist/Tree.h"
#include "KPropertyList.h"
#include "support/Support.h"

namespace {

// ------------------------------------------------------------------------------------------------------ The program

struct Outcome {
    int nStatus;
    std::string output;
    std::string errors;
};

std::string Quoted(const std::string& argument) {
    std::string quoted = "'";
    for (const char ch : argument) {
        quoted += ch == '\'' ? std::string("'\\''") : std::string(1, ch);
    }
    return quoted + "'";
}

/// Runs kplist with arguments.
Outcome Kplist(const std::vector<std::string>& arguments, const std::string& redirection = "") {
    const support::ScopedDirectory scratch;
    std::string command = KPLIST_COMMAND;
    for (const std::string& argument : arguments) {
        command += " " + Quoted(argument);
    }
    command += (redirection.empty() ? " >" + scratch.Entry("output") : redirection) + " 2>" + scratch.Entry("errors");
    const int nStatus = std::system(command.c_str());
    return {WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1, support::ContentOf(scratch.Entry("output")),
            support::ContentOf(scratch.Entry("errors"))};
}

std::string Example(const std::string& name) {
    return std::string(KPLIST_EXAMPLES) + "/" + name;
}

// ------------------------------------------------------------------------------------------------------- The reader

/// What the reader makes of a text: the tree in short, and how far it read.
struct Reading {
    std::string tree;
    std::size_t nStop;
};

void Describe(KPropertyNode& node, std::string& description) {
    for (int i = 0; i < node.GetNodeCount(); ++i) {
        KPropertyNode& child = **node.GetNode(i);
        description += (description.empty() || description.back() == '(' ? "" : " ");
        description += child.GetValueType() == PROPERTY_KEY ? "" : std::to_string(child.GetValueType()) + ":";
        description += child.GetStringValue().GetBuffer();
        if (child.GetNodeCount() > 0) {
            description += "(";
            Describe(child, description);
            description += ")";
        }
    }
}

/// Frees a tree whole; its destructor would leave half of it.
void Free(KPropertyNode& node) {
    while (KPropertyNode** const ppChild = node.GetNode(0)) {
        KPropertyNode* const pChild = *ppChild;
        node.RemoveNode(0);
        Free(*pChild);
        delete pChild;
    }
}

Reading ReadAsTheReaderDoes(const std::string& text) {
    const support::ScopedChecks checks(false);
    const support::ScopedLevel level(3);
    KPropertyList list{KString()};
    KPropertyNode root;
    KString rest(text.data(), static_cast<int>(text.size()));
    list.Parshing(rest, &root);
    // What is left goes up to the first NUL, if there is one.
    const std::size_t nReadable = std::min(text.find('\0'), text.size());
    Reading reading = {
        "", rest.Length() == static_cast<int>(text.size()) ? 0 : nReadable - static_cast<std::size_t>(rest.Length())};
    Describe(root, reading.tree);
    Free(root);
    return reading;
}

std::string InList(const std::string& content) {
    return "<plist>\n<dict>\n" + content + "</dict>\n</plist>\n";
}

}  // namespace

// ------------------------------------------------------------------------------------------------------- The linter

struct LintCase {
    const char* pszName;
    std::string text;
    std::vector<std::string> findings;  ///< line:column: severity: text
    std::string tree;
};

class KplistLintTest : public testing::TestWithParam<LintCase> {};

namespace {

std::vector<LintCase> LintCases() {
    return {
        {"Clean", InList("\t<key>a</key>\n\t<string>x</string>\n\t<key>b</key>\n\t<true/>\n"), {}, "a(5:x) b(2:TRUE)"},
        {"CleanArray", InList("<key>a</key><array><string>x</string><string>y</string></array>"), {}, "a(5:x 5:y)"},
        {"CleanInAnyCase", "<PLIST><Dict><KEY>a</key><INTEGER>5</Integer></DICT></plist>", {}, "a(6:5)"},
        {"CleanDatesAndData",
         InList("<key>a</key><date>2010-05-06T07:08:09Z</date><key>b</key><data>AA==</data>"),
         {},
         "a(4:2010-05-06T07:08:09Z) b(3:AA==)"},
        {"CleanArrayOfDictionaries",
         InList("<key>a</key><array><dict><key>n</key><true/></dict><dict><key>n</key><false/></dict></array>"),
         {},
         "a(n(2:TRUE) n(2:FALSE))"},
        {"IndentedBySpaces",
         InList("<key>a</key><true/>\n  <key>b</key><true/>\n"),
         {"4:1: error: a space between elements (indent by tabs): the reader stops here"},
         "a(2:TRUE)"},
        {"SpacesAreReportedOnce",
         InList("  <key>a</key>\n  <true/>\n"),
         {"3:1: error: a space between elements (indent by tabs): the reader stops here"},
         ""},
        {"UnknownElement",
         InList("<key>a</key><real>1.5</real><key>b</key><true/>"),
         {"3:13: error: <real> is not known: the reader stops here"},
         "a"},
        {"UnknownBoolean",
         InList("<key>a</key><true />"),
         {"3:13: error: <true /> is not known (write <true/>): the reader stops here"},
         "a"},
        {"BooleanInTwoTags",
         InList("<key>a</key><true></true>"),
         {"3:13: error: <true> is not known (write <true/>): the reader stops here"},
         "a"},
        {"BooleanWithinAnotherTag",
         InList("<key>a</key><untrue/>"),
         {"3:13: error: <untrue/>: the reader takes it for <true/>"},
         "a(2:TRUE)"},
        {"Attributes",
         InList("<key>a</key><string lang=\"en\">x</string>"),
         {"3:13: error: attributes in <string lang=\"en\">: there is no closing tag with the same attributes: the "
          "reader "
          "stops here"},
         "a"},
        {"AttributesOfAList",
         "<plist version=\"1.0\"><dict id=\"1\"><key>a</key><true/></dict></plist>",
         {},
         "a(2:TRUE)"},
        {"EmptyValue",
         InList("<key>a</key><string></string>"),
         {"3:13: error: <string> is empty: the reader gives it the text before it at this level"},
         "a(5:a)"},
        {"FirstValueEmpty",
         InList("<key>a</key><array><string></string></array>"),
         {"3:20: error: <string> is empty: the reader gives it the empty text"},
         "a(5:)"},
        {"SelfClosingDictionary",
         InList("<key>a</key><dict/><key>b</key><true/>"),
         {"1:1: error: <plist> is not closed",
          "3:13: error: <dict/> is not closed by its slash: the reader takes it for an opening tag",
          "4:1: error: </plist> stands where <dict> of line 2 is to be closed: the reader takes it for that"},
         "a(b(2:TRUE))"},
        {"SelfClosingArray",
         InList("<key>a</key><array/>"),
         {"1:1: error: <plist> is not closed",
          "3:13: error: <array/> is not closed by its slash: the reader takes it for an opening tag",
          "3:21: error: </dict> stands where <array> of line 3 is to be closed: the reader takes it for that",
          "4:1: error: </plist> stands where <dict> of line 2 is to be closed: the reader takes it for that"},
         "a"},
        {"SelfClosingKey",
         InList("<key/><true/>"),
         {"3:1: error: <key/> has no closing tag: a self-closing <key/> is not known: the reader stops here",
          "3:7: error: <true/> before any key: no key finds it"},
         ""},
        {"SelfClosingString",
         InList("<key>a</key><string/>"),
         {"3:13: error: <string/> has no closing tag: a self-closing <string/> is not known: the reader stops here"},
         "a"},
        {"Entity",
         InList("<key>a</key><string>x &lt; y</string>"),
         {"3:23: warning: an entity is not decoded: the reader keeps the text as it is written"},
         "a(5:x &lt; y)"},
        {"Comment", InList("<!-- why --><key>a</key><true/>"), {"3:1: error: a comment: the reader stops here"}, ""},
        {"CommentThatHoldsABoolean",
         InList("<key>a</key><!-- true/ -->"),
         {"3:13: error: <!-- true/ -->: the reader takes it for <true/>"},
         "a(2:TRUE)"},
        {"MissingClosingTag",
         InList("<key>a</key><string>x"),
         {"3:13: error: <string> is not closed: the reader stops here"},
         "a"},
        {"MismatchedClosingTag",
         InList("<key>a</key><string>x</integer>"),
         {"3:13: error: <string> is closed by </integer>: the reader stops here"},
         "a"},
        {"ClosingTagFurtherOn",
         InList("<key>a</key><string>x<b>y</string>"),
         {"3:22: error: markup in <string>: the reader skips to its closing tag in line 3"},
         "a(5:x)"},
        {"StrayClosingTag", InList("</string>"), {"3:1: error: </string> closes nothing: the reader stops here"}, ""},
        {"MismatchedContainers",
         "<plist><dict></array></plist>",
         {"1:14: error: </array> stands where <dict> of line 1 is to be closed: the reader takes it for that"},
         ""},
        {"OneClosingTagTooMany",
         "<plist></plist></dict>",
         {"1:16: error: </dict> closes nothing: the reader stops behind it"},
         ""},
        {"NotClosed",
         "<plist><dict><key>a</key><true/>",
         {"1:1: error: <plist> is not closed", "1:8: error: <dict> is not closed"},
         "a(2:TRUE)"},
        {"ValueBeforeAnyKey",
         InList("<string>x</string><key>a</key><true/>"),
         {"3:1: error: <string> before any key: no key finds it"},
         "5:x a(2:TRUE)"},
        {"DuplicateKey",
         InList("<key>a</key><true/>\n<key>a</key><false/>"),
         {"4:1: error: key \"a\" again: the first one is found"},
         "a(2:TRUE) a(2:FALSE)"},
        {"KeyWithoutAValue",
         InList("<key>a</key>\n<key>b</key><true/>"),
         {"3:1: warning: key \"a\" has no value"},
         "a b(2:TRUE)"},
        {"TwoValues",
         InList("<key>a</key><true/><false/>"),
         {"3:20: warning: <false/> is a second value of key \"a\": the reader keeps both"},
         "a(2:TRUE 2:FALSE)"},
        {"TextBehindTheList",
         InList("") + "the end\n",
         {"5:1: error: text behind </plist>: the reader stops here"},
         ""},
        {"ElementsBehindTheList",
         InList("") + "<key>a</key>",
         {"5:1: error: <key> behind </plist>: the reader takes it for another part of the list",
          "5:1: warning: key \"a\" has no value"},
         "a"},
        {"NoList", "<dict><key>a</key><true/></dict>", {"1:1: error: no <plist> element"}, "a(2:TRUE)"},
        {"Empty", "", {"1:1: error: no <plist> element"}, ""},
        {"NoMarkup",
         "hello",
         {"1:1: error: text between elements: the reader stops here", "1:1: error: no <plist> element"},
         ""},
        {"EmptyTag", InList("<>"), {"3:1: error: an empty tag: the reader stops here"}, ""},
        {"LongerName",
         InList("<keys>a</keys><true/>"),
         {"3:1: error: <keys>: the reader takes it for <key>"},
         "a(2:TRUE)"},
        {"LongerContainer",
         "<plist><dictionary><key>a</key><true/></dict></plist>",
         {"1:8: error: <dictionary>: the reader takes it for <dict>"},
         "a(2:TRUE)"},
        {"UnfinishedTag",
         "<plist><dict",
         {"1:1: error: <plist> is not closed", "1:8: error: no '>' behind <dict", "1:8: error: <dict> is not closed"},
         ""},
        {"UnfinishedDeclaration",
         "<?xml version=\"1.0\"><plist></plist>",
         {"1:1: error: no '?>' behind <?xml version=\"1.0\">: the reader stops here"},
         ""},
        {"DeclarationThatSwallowsTheList",
         "<?xml version=\"1.0\"><plist>?><dict></dict>",
         {"1:1: error: <?xml version=\"1.0\"> does not end in '?>': the reader skips to line 1",
          "1:1: error: no <plist> element"},
         ""},
        {"NulByte", std::string("<plist></plist>\n\0", 17), {"2:1: error: a NUL byte: the reader stops here"}, ""},
    };
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Cases, KplistLintTest, testing::ValuesIn(LintCases()),
                         [](const auto& entry) { return std::string(entry.param.pszName); });

TEST_P(KplistLintTest, FindsWhatTheReaderDoes) {
    const LintReport report = Lint(GetParam().text);
    std::vector<std::string> findings;
    for (const Finding& finding : report.findings) {
        findings.push_back(std::to_string(finding.nLine) + ":" + std::to_string(finding.nColumn) + ": " +
                           (finding.fgError ? "error: " : "warning: ") + finding.text);
    }
    EXPECT_THAT(findings, testing::UnorderedElementsAreArray(GetParam().findings));
    const Reading reading = ReadAsTheReaderDoes(GetParam().text);
    EXPECT_EQ(reading.tree, GetParam().tree);
    EXPECT_EQ(report.nStop, reading.nStop);
}

namespace {

/// Makes property lists at random, mostly right ones, and knows the tree of a right one.
class Generator {
 public:
    explicit Generator(unsigned int nSeed) : m_Random(nSeed) {}

    std::string List() { return "<plist>\n" + Dictionary(0) + "\n</plist>\n"; }

    /// Breaks a text in one place.
    std::string Broken(std::string text) {
        static const std::vector<std::string> s_Breaks = {
            " ",        "<",          ">",       "</",           "/>",      "<!-- x -->", "<real>1</real>",
            "</dict>",  "</key>",     "<dict>",  "<key>",        "<true/>", "</plist>",   "<string/>",
            "<array/>", "&amp;",      "<?xml?>", "<!DOCTYPE x>", "x",       "<>",         "TRUE/",
            "\n",       "<key></key>"};
        const std::size_t nWhere = Below(text.size() + 1);
        switch (Below(3)) {
            case 0:
                text.erase(nWhere, 1 + Below(8));
                break;
            case 1:
                text.insert(nWhere, s_Breaks[Below(s_Breaks.size())]);
                break;
            default:
                text.replace(nWhere, Below(4), s_Breaks[Below(s_Breaks.size())]);
                break;
        }
        return text;
    }

    std::size_t Below(std::size_t nEnd) { return static_cast<std::size_t>(m_Random()) % nEnd; }

 private:
    std::string Text() { return std::string(1 + Below(3), static_cast<char>('a' + Below(26))); }

    std::string Dictionary(int nDepth) {
        std::string text = "<dict>";
        for (std::size_t i = Below(4); i > 0; --i) {
            text += "\n\t<key>" + std::to_string(m_nKeys++) + "</key>\n\t" + Value(nDepth + 1);
        }
        return text + "\n</dict>";
    }

    std::string Array(int nDepth) {
        std::string text = "<array>";
        for (std::size_t i = Below(4); i > 0; --i) {
            text += Value(nDepth + 1);
        }
        return text + "</array>";
    }

    std::string Value(int nDepth) {
        switch (Below(nDepth < 5 ? 7 : 5)) {
            case 0:
                return "<string>" + Text() + "</string>";
            case 1:
                return "<integer>" + std::to_string(Below(1000)) + "</integer>";
            case 2:
                return "<true/>";
            case 3:
                return "<False/>";
            case 4:
                return "<data>" + Text() + "</data>";
            case 5:
                return Dictionary(nDepth);
            default:
                return Array(nDepth);
        }
    }

    std::mt19937 m_Random;
    int m_nKeys = 0;
};

}  // namespace

TEST(KplistTest, WhatTheLinterFindsNothingInTheReaderReadsWhole) {
    Generator generator(2100);
    for (int i = 0; i < 300; ++i) {
        const std::string text = generator.List();
        const LintReport report = Lint(text);
        EXPECT_TRUE(report.findings.empty()) << text;
        EXPECT_EQ(ReadAsTheReaderDoes(text).nStop, text.size()) << text;
    }
}

TEST(KplistTest, TheLinterKnowsWhereTheReaderStopsInBrokenLists) {
    Generator generator(4711);
    int nStopped = 0;
    for (int i = 0; i < 3000; ++i) {
        std::string text = generator.List();
        for (std::size_t nBreaks = 1 + generator.Below(3); nBreaks > 0; --nBreaks) {
            text = generator.Broken(text);
        }
        const LintReport report = Lint(text);
        const Reading reading = ReadAsTheReaderDoes(text);
        ASSERT_EQ(report.nStop, reading.nStop) << text;
        nStopped += reading.nStop < text.size() ? 1 : 0;
        if (reading.nStop < text.size()) {
            ASSERT_FALSE(report.findings.empty()) << text;
        }
    }
    EXPECT_GT(nStopped, 500);  // the breaks break something
}

TEST(KplistTest, TheLinterTakesLargeBrokenFilesInOneGo) {
    std::string text = "<plist>";
    for (int i = 0; i < 100000; ++i) {
        text += "<string>x\n";
    }
    EXPECT_EQ(Lint(text).nStop, 7u);
}

// ------------------------------------------------------------------------------------------------------ The program

TEST(KplistTest, PrintsTheTreeWithTypesAndNumbersAndWithoutColour) {
    const support::ScopedDirectory scratch;
    const std::string file = scratch.File(
        "a.plist",
        InList("<key>Name</key><string>North \"gate\"\x1b[31m</string><key>Ports</key><array><integer>80</integer>"
               "<integer>554</integer></array><key>On</key><true/>"));
    const Outcome outcome = Kplist({file});
    EXPECT_EQ(outcome.nStatus, 0);
    EXPECT_EQ(
        outcome.output,
        "key \"Name\"\n  string \"North \\\"gate\\\"\\x1b[31m\"\nkey \"Ports\"\n  [0] integer \"80\"\n  [1] integer "
        "\"554\"\nkey \"On\"\n  boolean \"TRUE\"\n");
    EXPECT_EQ(outcome.errors, "");
}

TEST(KplistTest, PrintsValuesAsTheAccessorsGiveThem) {
    const struct {
        std::vector<std::string> keys;
        std::string output;
    } cases[] = {{{"Network", "HostName"}, "camera-north-gate\n"},
                 {{"Network", "UseDHCP"}, "false\n"},
                 {{"Recording", "Enabled"}, "true\n"},
                 {{"Network", "Ports", "RTSP"}, "554\n"},
                 {{"Network", "DNS"}, "192.0.2.2\n192.0.2.3\n"},
                 {{"Network", "DNS", "1"}, "192.0.2.3\n"},
                 {{"Network", "Ports"}, "key \"HTTP\"\n  integer \"80\"\nkey \"RTSP\"\n  integer \"554\"\n"},
                 {{"Identity", "Manufactured"}, "2024/05/06 07:08:09\n"},
                 {{"Users", "guard", "PasswordHash"}, "c2FsdDo3YzZhMTgwYjM2ODk2YTBhOGMwMjc4N2VlYWZiMGU0Yw==\n"},
                 {{"Users", "1", "Role"}, "viewer\n"}};
    for (const auto& entry : cases) {
        std::vector<std::string> arguments = {Example("device.plist")};
        arguments.insert(arguments.end(), entry.keys.begin(), entry.keys.end());
        const Outcome outcome = Kplist(arguments);
        EXPECT_EQ(outcome.nStatus, 0);
        EXPECT_EQ(outcome.output, entry.output);
        EXPECT_EQ(outcome.errors, "");
    }
}

TEST(KplistTest, SaysThatThereIsNoSuchValue) {
    for (const std::vector<std::string>& keys :
         {std::vector<std::string>{"Nothing"}, {"Network", "Nothing"}, {"Network", "DNS", "2"}, {"", "x"}}) {
        std::vector<std::string> arguments = {Example("device.plist")};
        std::string expected = "kplist: " + arguments[0] + " has no value under";
        for (const std::string& key : keys) {
            arguments.push_back(key);
            expected += " " + key;
        }
        const Outcome outcome = Kplist(arguments);
        EXPECT_EQ(outcome.nStatus, 1);
        EXPECT_EQ(outcome.output, "");
        EXPECT_EQ(outcome.errors, expected + "\n");
    }
}

TEST(KplistTest, SaysThatAFileCannotBeRead) {
    const support::ScopedDirectory scratch;
    for (const std::string& file : {scratch.Entry("none.plist"), scratch.Path(), std::string(5000, 'x')}) {
        for (const std::vector<std::string>& arguments :
             {std::vector<std::string>{file}, {file, "Key"}, {"--check", file}}) {
            const Outcome outcome = Kplist(arguments);
            EXPECT_EQ(outcome.nStatus, 2);
            EXPECT_EQ(outcome.output, "");
            EXPECT_EQ(outcome.errors, "kplist: cannot read " + file + "\n");
        }
    }
}

TEST(KplistTest, ReadsAFileWhoseNameHasABackslash) {
    const support::ScopedDirectory scratch;
    EXPECT_EQ(Kplist({scratch.File("a\\b", InList("<key>a</key><true/>")), "a"}).output, "true\n");
}

TEST(KplistTest, FindsNothingInTheDevicesConfiguration) {
    const Outcome outcome = Kplist({"--check", Example("device.plist")});
    EXPECT_EQ(outcome.nStatus, 0);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.errors, "");
}

TEST(KplistTest, PrintsFindingsAsCompilersDo) {
    const Outcome outcome = Kplist({"--check", Example("device.plist"), Example("broken.plist")});
    EXPECT_EQ(outcome.nStatus, 1);
    EXPECT_THAT(outcome.output, testing::HasSubstr(Example("broken.plist") +
                                                   ":13:2: error: <real> is not known: the reader stops here\n"));
    EXPECT_THAT(outcome.output, testing::Not(testing::HasSubstr("device.plist")));
    EXPECT_EQ(outcome.errors, "");
}

TEST(KplistTest, SurvivesWhatFailsTheReadersCheck) {
    const support::ScopedDirectory scratch;
    const Outcome outcome = Kplist({scratch.File("a.plist", InList("<key>a</key><true/></string>"))});
    EXPECT_EQ(outcome.nStatus, 0);
    EXPECT_EQ(outcome.output, "key \"a\"\n  boolean \"TRUE\"\n");
}

TEST(KplistTest, ShowsTheLibrarysLogWhenAsked) {
    EXPECT_EQ(Kplist({Example("device.plist"), "Network", "HostName"}).errors, "");
    const Outcome outcome = Kplist({"--verbose", Example("device.plist"), "Network", "HostName"});
    EXPECT_EQ(outcome.output, "camera-north-gate\n");
    EXPECT_THAT(outcome.errors, testing::ContainsRegex(support::StampPattern() + "KEntry Create\n"));
    EXPECT_THAT(outcome.errors, testing::ContainsRegex(support::StampPattern() + "camera-north-gate\n"));
}

TEST(KplistTest, ExplainsItself) {
    const Outcome help = Kplist({"--help"});
    EXPECT_EQ(help.nStatus, 0);
    EXPECT_THAT(help.output, testing::StartsWith("Usage: kplist "));
    const Outcome version = Kplist({"--version"});
    EXPECT_EQ(version.nStatus, 0);
    EXPECT_EQ(version.output, "kplist (Kalvoren) 1.0.0\n");
}

TEST(KplistTest, RefusesAWrongCall) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{}, {"--check"}, {"--frob", "x"}, {"-x"}}) {
        const Outcome outcome = Kplist(arguments);
        EXPECT_EQ(outcome.nStatus, 2);
        EXPECT_EQ(outcome.output, "");
        EXPECT_THAT(outcome.errors, testing::EndsWith("Try 'kplist --help'.\n"));
    }
}

TEST(KplistTest, TakesWhatFollowsAFileForKeys) {
    const support::ScopedDirectory scratch;
    const std::string file = scratch.File("--a.plist", InList("<key>--check</key><string>x</string>"));
    EXPECT_EQ(Kplist({file, "--check"}).output, "x\n");
    EXPECT_EQ(Kplist({"--", file, "--check"}).output, "x\n");
}

TEST(KplistTest, SaysThatItCannotWrite) {
    const Outcome outcome = Kplist({Example("device.plist")}, " >/dev/full");
    EXPECT_EQ(outcome.nStatus, 2);
    EXPECT_THAT(outcome.errors, testing::StartsWith("kplist: standard output: "));
}
