#include "KPropertyList.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "KDebug.h"
#include "KPath.h"
#include "support/FailingMalloc.h"
#include "support/FailingNew.h"
#include "support/HeapUse.h"
#include "support/LogLines.h"
#include "support/PropertyTree.h"
#include "support/RandomPropertyTexts.h"
#include "support/Support.h"
#include "support/Texts.h"

using support::DestroyChildren;
using support::LogOf;
using support::RandomPropertyTexts;
using support::ReadList;
using support::Repeated;
using support::ScopedChecks;
using support::ScopedDirectory;
using support::ScopedLevel;
using support::TextOf;
using support::Tree;

namespace {

constexpr int kNoLines = 3;

KString StringOf(const std::string& text) {
    return KString(text.data(), static_cast<int>(text.size()));
}

/// The tree that the reader makes of a text.
std::string DumpOf(const std::string& text) {
    ReadList list(StringOf(text));
    return list.Dump();
}

/// What Parshing() leaves of a text.
std::string RestOf(const std::string& text) {
    Tree tree;
    KPropertyList list{KString()};
    KString rest = StringOf(text);
    EXPECT_TRUE(list.Parshing(rest, &tree.Root()));
    return rest.GetBuffer();
}

KPath PathOf(const std::string& text) {
    return KPath(text.c_str());
}

const char* const kDevice =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Kalvoren//DTD PLIST 1.0//EN\" \"plist.dtd\">\r\n"
    "<plist version=\"1.0\">\n"
    "<dict>\n"
    "\t<key>Name</key>\n"
    "\t<string>North gate</string>\n"
    "\t<key>Network</key>\n"
    "\t<dict>\n"
    "\t\t<key>DHCP</key>\n"
    "\t\t<false/>\n"
    "\t\t<key>Ports</key>\n"
    "\t\t<array>\n"
    "\t\t\t<integer>80</integer>\n"
    "\t\t\t<integer>554</integer>\n"
    "\t\t</array>\n"
    "\t</dict>\n"
    "\t<key>Recording</key>\n"
    "\t<true/>\n"
    "\t<key>Since</key>\n"
    "\t<date>2010-05-06T07:08:09Z</date>\n"
    "\t<key>Seal</key>\n"
    "\t<data>AQID</data>\n"
    "</dict>\n"
    "</plist>\n";

const char* const kDeviceTree =
    "key(Name){string(North gate)}"
    "key(Network){key(DHCP){boolean(FALSE)}key(Ports){integer(80)integer(554)}}"
    "key(Recording){boolean(TRUE)}"
    "key(Since){date(2010-05-06T07:08:09Z)}"
    "key(Seal){data(AQID)}";

}  // namespace

// ------------------------------------------------------------------------------------------------------ What it reads

TEST(KPropertyListTest, ReadsAConfiguration) {
    ReadList list{KString(kDevice)};
    EXPECT_EQ(list.Dump(), kDeviceTree);
    EXPECT_EQ(list.Root().GetValueType(), PROPERTY_NONE);
    EXPECT_EQ(TextOf(list.Root().GetStringValue()), "");
    KList<KString> path;
    path.Add(KString("Network"));
    path.Add(KString("Ports"));
    KPropertyNode** const ppPorts = list.Root().GetNode(path);
    ASSERT_NE(ppPorts, nullptr);
    EXPECT_EQ((*(*ppPorts)->GetNode(1))->GetStringValue().ToDigit(), 554);
}

TEST(KPropertyListTest, ReadsAConfigurationWhileTheChecksAreOn) {
    const ScopedChecks checks(true);
    ReadList list{KString(kDevice)};
    EXPECT_EQ(list.Dump(), kDeviceTree);
}

TEST(KPropertyListTest, AnEmptyTextGivesAnEmptyTree) {
    for (const char* const pszText : {"", "\n", "\r\n\t\t\n"}) {
        EXPECT_EQ(DumpOf(pszText), "");
        EXPECT_EQ(RestOf(pszText), "");
    }
}

namespace {

struct Reading {
    const char* pszName;
    const char* pszText;
    const char* pszTree;
    const char* pszRest;
};

std::ostream& operator<<(std::ostream& out, const Reading& reading) {
    return out << reading.pszName;
}

const Reading kReadings[] = {
    // Values and their holders.
    {"a key holds what follows until the next key",
     "<dict><key>a</key><string>x</string><key>b</key><integer>5</integer></dict>",
     "key(a){string(x)}key(b){integer(5)}", ""},
    {"a key holds several values", "<key>a</key><string>x</string><string>y</string>", "key(a){string(x)string(y)}",
     ""},
    {"an array's elements hang under the key", "<key>a</key><array><string>x</string><string>y</string></array>",
     "key(a){string(x)string(y)}", ""},
    {"a dictionary's keys hang under the key", "<key>a</key><dict><key>b</key><true/></dict>",
     "key(a){key(b){boolean(TRUE)}}", ""},
    {"dictionaries in an array hang side by side",
     "<key>a</key><array><dict><key>b</key><true/></dict><dict><key>b</key><false/></dict></array><key>c</key>",
     "key(a){key(b){boolean(TRUE)}key(b){boolean(FALSE)}}key(c)", ""},
    {"values before any key hang under the level's own node",
     "<string>x</string><key>a</key><dict><integer>1</integer><key>b</key></dict>", "string(x)key(a){integer(1)key(b)}",
     ""},
    {"contents before any key hang under the level's own node", "<array><string>x</string></array><key>a</key>",
     "string(x)key(a)", ""},
    {"after a dictionary its key still holds", "<key>a</key><dict><key>b</key></dict><string>x</string>",
     "key(a){key(b)string(x)}", ""},
    {"lists nest without nodes of their own", "<plist><dict><dict><array><key>a</key></array></dict></dict></plist>",
     "key(a)", ""},
    {"each type of value", "<string>s</string><integer>1</integer><data>AA==</data><date>d</date><true/><false/>",
     "string(s)integer(1)data(AA==)date(d)boolean(TRUE)boolean(FALSE)", ""},
    {"a key without a value", "<key>a</key><key>b</key>", "key(a)key(b)", ""},

    // How tags are recognised.
    {"names in any case", "<PList><DICT><KeY>a</kEy><STRING>x</string><tRuE/></dIcT></PLIST>",
     "key(a){string(x)boolean(TRUE)}", ""},
    {"names are what a tag starts with", "<dictionary><keyword>a</keyword><strings>x</strings></dictator>",
     "key(a){string(x)}", ""},
    {"lists may have attributes", "<plist version=\"1.0\"><dict id='1'><array x><string>x</string>", "string(x)", ""},
    {"a date is tested after data", "<datum>x</datum>", "", "<datum>x</datum>"},
    {"a self-closing dictionary opens one", "<key>a</key><dict/><key>b</key></dict><key>c</key>",
     "key(a){key(b)}key(c)", ""},
    {"a self-closing list opens one", "<plist/><key>b</key></plist><key>c</key>", "key(b)key(c)", ""},
    {"a closing tag closes whatever is open", "<dict><key>a</key><array></dict><string>x</string></array>",
     "key(a){string(x)}", ""},
    {"booleans are recognised anywhere in a tag", "<a true/ b><x=FALSE/><!-- true/ --></true/>",
     "boolean(TRUE)boolean(FALSE)boolean(TRUE)boolean(TRUE)", ""},
    {"false is tested before true", "<true/false/>", "boolean(FALSE)", ""},
    {"a text element is tested before a boolean", "<string true/>x</string true/>", "string(x)", ""},
    {"a boolean with a blank is an unknown element", "<true /><true/>", "", "<true /><true/>"},
    {"booleans are not elements with a text", "<true>x</true>", "", "<true>x</true>"},
    {"a declaration is skipped up to its mark", "<?xml version='1.0'?><true/>", "boolean(TRUE)", ""},
    {"a declaration without a mark of its own takes the next", "<?XML><key>a</key><?><true/>", "boolean(TRUE)", ""},
    {"a declaration without any mark ends the read", "<?xml><true/>", "", "<?xml><true/>"},
    {"a document type is skipped", "<!doctype plist SYSTEM \"x\"><true/>", "boolean(TRUE)", ""},
    {"a document type with a subset ends the read behind its first element", "<!DOCTYPE plist [<!ELEMENT a>]><true/>",
     "", "]><true/>"},

    // Texts.
    {"a text is taken as it is written", "<string> a &amp; b\n\t</string><data>\n\tAQID\n\t</data>",
     "string( a &amp; b\n\t)data(\n\tAQID\n\t)", ""},
    {"a text may have any bytes but '<'", "<string>\x01\x7f\x80\xff > \" %s %n</string>",
     "string(\x01\x7f\x80\xff > \" %s %n)", ""},
    {"a text ends at the next '<', and the rest up to the closing tag is skipped", "<string>a<b>c</b>d</string><true/>",
     "string(a)boolean(TRUE)", ""},
    {"a comment in a text ends it", "<string>a<!-- b -->c</string>", "string(a)", ""},
    {"marked sections are skipped with what they hold", "<string><![CDATA[a]]></string><true/>",
     "string()boolean(TRUE)", ""},
    {"a text takes up to its own closing tag, whatever stands between",
     "<string>a</integer><key>b</key><string>c</string><true/>", "string(a)boolean(TRUE)", ""},
    {"a closing tag is found in any case", "<string>a</STRING><STRING>b</string>", "string(a)string(b)", ""},
    {"a closing tag has no blank", "<string>a</string ><string>b</string>", "string(a)", ""},
    {"attributes belong into the closing tag too", "<string a='1'>x</string a='1'>", "string(x)", ""},
    {"attributes in the opening tag alone end the read", "<true/><string a='1'>x</string><true/>", "boolean(TRUE)",
     "<string a='1'>x</string><true/>"},
    {"a self-closing key has no closing tag", "<true/><key/><string>x</string>", "boolean(TRUE)",
     "<key/><string>x</string>"},
    {"a self-closing key takes up to what would close it", "<key/><string>x</string></key/><true/>",
     "key(){boolean(TRUE)}", ""},

    // Empty texts.
    {"the first text of a level may be empty", "<key></key><dict><string></string></dict>", "key(){string()}", ""},
    {"an empty value takes the text before it", "<string>x</string><string></string><integer></integer>",
     "string(x)string(x)integer(x)", ""},
    {"an empty value takes its key's text", "<key>a</key><string></string>", "key(a){string(a)}", ""},
    {"an empty key takes the value before it", "<key>a</key><string>x</string><key></key>", "key(a){string(x)}key(x)",
     ""},
    {"a boolean's text is not taken", "<key>a</key><true/><string></string>", "key(a){boolean(TRUE)string(a)}", ""},
    {"each level has a text of its own",
     "<key>a</key><dict><string></string><string>x</string></dict><string></string>",
     "key(a){string()string(x)string(a)}", ""},
    {"a level starts afresh when it is opened again",
     "<array><string>x</string></array><array><string></string></array>", "string(x)string()", ""},
    {"a text that starts with '<' is empty", "<string>x</string><string><b>y</b></string>", "string(x)string(x)", ""},

    // Where the read ends.
    {"blanks end it", "<true/>\n  <true/>", "boolean(TRUE)", "  <true/>"},
    {"text outside of elements ends it", "<true/>\n\tx<true/>", "boolean(TRUE)", "x<true/>"},
    {"other space ends it", "<true/>\v<true/>", "boolean(TRUE)", "\v<true/>"},
    {"a byte order mark ends it", "\xEF\xBB\xBF<true/>", "", "\xEF\xBB\xBF<true/>"},
    {"an empty tag ends it", "<true/><><true/>", "boolean(TRUE)", "<><true/>"},
    {"a tag with a blank before its name ends it", "< true/>< string>x</ string>", "boolean(TRUE)",
     "< string>x</ string>"},
    {"an unknown element ends it", "<true/><real>1.5</real><true/>", "boolean(TRUE)", "<real>1.5</real><true/>"},
    {"a comment ends it", "<true/><!-- x --><true/>", "boolean(TRUE)", "<!-- x --><true/>"},
    {"another instruction ends it", "<?php x?><true/>", "", "<?php x?><true/>"},
    {"a stray closing tag ends it on every level", "<dict><dict><true/></string><true/></dict></dict><true/>",
     "boolean(TRUE)", "</string><true/></dict></dict><true/>"},
    {"an unknown element ends it on every level", "<dict><key>a</key><dict><true/><x><true/></dict></dict><true/>",
     "key(a){boolean(TRUE)}", "<x><true/></dict></dict><true/>"},
    {"the closing tag of the outermost level ends it", "<true/></dict><true/>", "boolean(TRUE)", "<true/>"},
    {"a second list is read when the first was closed within", "<plist><true/></plist><plist><false/></plist>",
     "boolean(TRUE)boolean(FALSE)", ""},
    {"a missing closing tag of a value ends it", "<key>a</key><string>x", "key(a)", "<string>x"},
    {"missing closing tags of lists do not matter", "<plist><dict><key>a</key><array><true/>", "key(a){boolean(TRUE)}",
     ""},

    // Tags that the text ends in.
    {"an unterminated list", "<true/><dict", "boolean(TRUE)", ""},
    {"an unterminated closing tag", "<dict><true/></dict", "boolean(TRUE)", ""},
    {"an unterminated boolean", "<true/><false/", "boolean(TRUE)boolean(FALSE)", ""},
    {"an unterminated value", "<true/><string", "boolean(TRUE)", "<string"},
    {"an unterminated closing tag of a value", "<true/><string>x</string", "boolean(TRUE)", "<string>x</string"},
    {"an unterminated declaration", "<?xml version='1.0'?", "", "<?xml version='1.0'?"},
    {"an unterminated document type", "<!DOCTYPE plist", "", "<!DOCTYPE plist"},
    {"a lone bracket", "<true/><", "boolean(TRUE)", "<"},
};

}  // namespace

TEST(KPropertyListTest, ReadsEachTextAsFarAsItGoes) {
    const ScopedLevel level(kNoLines);
    for (const Reading& reading : kReadings) {
        EXPECT_EQ(DumpOf(reading.pszText), reading.pszTree) << reading;
        EXPECT_EQ(RestOf(reading.pszText), reading.pszRest) << reading;
    }
}

// --------------------------------------------------------------------------------------------------------- Its parts

TEST(KPropertyListTest, KeepsTheLastHeader) {
    const char* const pszDeclaration = "?xml version=\"1.0\" encoding=\"UTF-8\"?";
    EXPECT_EQ(TextOf(ReadList(KString()).List().GetHeader()), "");
    EXPECT_EQ(TextOf(ReadList(KString("<?xml version=\"1.0\" encoding=\"UTF-8\"?><true/>")).List().GetHeader()),
              pszDeclaration);
    EXPECT_EQ(TextOf(ReadList(KString("<?xml?><!DOCTYPE plist>")).List().GetHeader()), "!DOCTYPE plist");
    EXPECT_EQ(TextOf(ReadList(KString("<!DOCTYPE plist><?xml?>")).List().GetHeader()), "?xml?");
    EXPECT_EQ(TextOf(ReadList(KString("<?xml>")).List().GetHeader()), "?xml") << "also when the read ends there";
}

TEST(KPropertyListTest, ParshingCutsOffWhatItRead) {
    KPropertyList list{KString()};
    Tree tree;
    KString text("\n<key>a</key><string>x</string></dict>\n<key>b</key>");
    EXPECT_TRUE(list.Parshing(text, &tree.Root()));
    EXPECT_EQ(tree.Dump(), "key(a){string(x)}");
    EXPECT_EQ(TextOf(text), "\n<key>b</key>");
    EXPECT_TRUE(list.Parshing(text, &tree.Root()));
    EXPECT_EQ(tree.Dump(), "key(a){string(x)}key(b)") << "behind the children that were there";
    EXPECT_EQ(TextOf(text), "");
    EXPECT_EQ(list.GetRoot()->GetNodeCount(), 0);
}

TEST(KPropertyListTest, ParshingWithoutANodeReadsOn) {
    KPropertyList list{KString()};
    KString text("<?xml?><dict><key>a</key><string>x</string><true/></dict></dict>rest");
    EXPECT_TRUE(list.Parshing(text, nullptr));
    EXPECT_EQ(TextOf(text), "rest");
    EXPECT_EQ(TextOf(list.GetHeader()), "?xml?");
}

TEST(KPropertyListTest, ParshingReadsIntoItsOwnRoot) {
    ReadList list{KString("<key>a</key>")};
    KString text("<key>b</key>");
    EXPECT_TRUE(list.List().Parshing(text, &list.Root()));
    EXPECT_EQ(list.Dump(), "key(a)key(b)");
}

TEST(KPropertyListTest, ATextEndsAtItsFirstNul) {
    const std::string text("<key>a</key>\0<key>b</key>", 25);
    EXPECT_EQ(DumpOf(text), "key(a)");
    KPropertyList list{KString()};
    Tree tree;
    KString rest = StringOf("x" + text);
    EXPECT_TRUE(list.Parshing(rest, &tree.Root()));
    EXPECT_EQ(TextOf(rest), "x" + text) << "nothing was read";
}

TEST(KPropertyListTest, AStrayClosingTagFailsACheck) {
    KPropertyList list{KString()};
    KString text("<dict></real>");
    EXPECT_CHECK_FAILS(list.Parshing(text, nullptr), "0", "src/KPropertyList",
                       "bool KPropertyList::Parshing(KString&, KPropertyNode*)");
}

TEST(KPropertyListTest, NothingElseInAFileFailsACheck) {
    const ScopedChecks checks(true);
    const ScopedLevel level(kNoLines);
    for (const Reading& reading : kReadings) {
        if (std::string(reading.pszName) != "a stray closing tag ends it on every level") {
            EXPECT_EQ(DumpOf(reading.pszText), reading.pszTree) << reading;
        }
    }
}

// ------------------------------------------------------------------------------------------------------------ The log

TEST(KPropertyListTest, LogsEachTagAndEachText) {
    EXPECT_EQ(LogOf([] {
                  const ScopedLevel level(0);
                  DumpOf("<?xml?><dict>\n\t<key>a</key>\n\t<string></string>\n\t<true/>\n</dict>");
              }),
              "Log: ?xml?\n"
              "Log: dict\n"
              "Log: key\nLog: a\n"
              "Log: string\nLog: a\n"
              "Log: true/\n"
              "Log: /dict\n");
}

TEST(KPropertyListTest, LogsTextsAsTheyAre) {
    EXPECT_EQ(LogOf([] { DumpOf("<string>%s%n%d</string><x %s>"); }), "Log: string\nLog: %s%n%d\nLog: x %s\n");
}

TEST(KPropertyListTest, LogsATextWhoseClosingTagIsMissing) {
    EXPECT_EQ(LogOf([] { DumpOf("<integer></integer><string>x"); }), "Log: integer\nLog: \nLog: string\nLog: x\n");
}

TEST(KPropertyListTest, LogsAStrayClosingTagOnEachLevelThatMeetsIt) {
    EXPECT_EQ(LogOf([] { DumpOf("</x>"); }), "Log: /x\n");
    EXPECT_EQ(LogOf([] { DumpOf("<dict><array></x>"); }), "Log: dict\nLog: array\nLog: /x\nLog: /x\nLog: /x\n");
}

TEST(KPropertyListTest, LogsNothingAtHigherLevels) {
    const ScopedLevel level(1);
    EXPECT_EQ(LogOf([] { DumpOf(kDevice); }), "");
}

TEST(KPropertyListTest, ATextTooLongForTheLogIsNotLoggedAndFailsNoCheck) {
    constexpr std::size_t kLongest = 1048575;
    const ScopedChecks checks(true);
    const std::string longest(kLongest, 'x');
    EXPECT_EQ(LogOf([&] { DumpOf("<string>" + longest + "</string>"); }), "Log: string\nLog: " + longest + "\n");
    EXPECT_EQ(LogOf([&] { DumpOf("<string>" + longest + "x</string>"); }), "Log: string\n");
    EXPECT_EQ(LogOf([&] { DumpOf("<dict " + longest + "><true/>"); }), "Log: true/\n");
}

// -------------------------------------------------------------------------------------------------------------- Files

TEST(KPropertyListTest, ReadsAFileAndClosesIt) {
    const ScopedDirectory directory;
    const std::string path = directory.File("a.plist", "<key>a</key>\n<true/>\n");
    std::string tree;
    EXPECT_EQ(LogOf([&] { tree = ReadList(PathOf(path)).Dump(); }),
              "Log: *********File Open\nLog: key\nLog: a\nLog: true/\nLog: ****File Close\n");
    EXPECT_EQ(tree, "key(a){boolean(TRUE)}");
}

TEST(KPropertyListTest, AFileEndsAtItsFirstNul) {
    const ScopedDirectory directory;
    const std::string path = directory.File("a.plist", std::string("<key>a</key>\0<true/>", 20));
    EXPECT_EQ(ReadList(PathOf(path)).Dump(), "key(a)");
}

TEST(KPropertyListTest, AFileThatIsNotThereGivesAnEmptyTree) {
    const ScopedDirectory directory;
    const std::string path = directory.Entry("missing");
    std::string tree = "?";
    EXPECT_EQ(LogOf([&] { tree = ReadList(PathOf(path)).Dump(); }),
              "Log: *********File Open\nError****: File Open[" + path + "]\n\n");
    EXPECT_EQ(tree, "");
}

TEST(KPropertyListTest, AnEmptyFileGivesAnEmptyTreeAndAFailedRead) {
    const ScopedDirectory directory;
    const std::string path = directory.File("empty", "");
    std::string tree = "?";
    EXPECT_EQ(LogOf([&] { tree = ReadList(PathOf(path)).Dump(); }),
              "Log: *********File Open\nError****: File Read[" + path + "]\n\nLog: ****File Close\n");
    EXPECT_EQ(tree, "");
}

TEST(KPropertyListTest, DirectoriesAndDevicesGiveAnEmptyTree) {
    const ScopedLevel level(kNoLines);
    const ScopedDirectory directory;
    const std::string fifo = directory.Entry("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int nKeptOpen = open(fifo.c_str(), O_RDWR);
    for (const std::string& path : {directory.Path(), fifo, std::string("/dev/null"), std::string("/dev/zero"),
                                    std::string("/proc"), std::string("/proc/self/cmdline")}) {
        EXPECT_EQ(ReadList(PathOf(path)).Dump(), "") << path;
    }
    close(nKeptOpen);
}

TEST(KPropertyListTest, AFileLargerThanATextCanBeGivesAnEmptyTree) {
    const ScopedLevel level(kNoLines);
    const ScopedDirectory directory;
    const std::string path = directory.File("large.plist", "<true/>");
    std::error_code error;
    // Nothing is written: the file is a hole.
    std::filesystem::resize_file(path, UINT64_C(3) << 30, error);
    if (error) {
        GTEST_SKIP() << "a file of 3 GiB cannot be made here: " << error.message();
    }
    EXPECT_EQ(ReadList(PathOf(path)).Dump(), "");
}

// ----------------------------------------------------------------------------------------------- The process's own list

namespace {

/// Removes the process's property list at the end of the block.
class ScopedInstance {
 public:
    explicit ScopedInstance(const std::string& path) { KPropertyList::Init(PathOf(path)); }
    ~ScopedInstance() { KPropertyList::Deinit(); }
    ScopedInstance(const ScopedInstance&) = delete;
    ScopedInstance& operator=(const ScopedInstance&) = delete;
};

std::string DumpOfInstance() {
    return support::DumpChildren(*KPropertyList::GetInstance()->GetRoot());
}

}  // namespace

TEST(KPropertyListTest, TheProcessHasNoListBeforeInit) {
    EXPECT_EQ(KPropertyList::GetInstance(), nullptr);
    KPropertyList::Deinit();
    EXPECT_EQ(KPropertyList::GetInstance(), nullptr);
}

TEST(KPropertyListTest, AskingForTheProcesssListBeforeInitFailsACheck) {
    EXPECT_CHECK_FAILS(KPropertyList::GetInstance(), "false", "src/KPropertyList",
                       "static KPropertyList* KPropertyList::GetInstance()");
}

TEST(KPropertyListTest, InitReadsTheProcesssListOnce) {
    const ScopedDirectory directory;
    const std::string first = directory.File("first", "<key>first</key>");
    const std::string second = directory.File("second", "<key>second</key>");
    {
        const ScopedInstance instance(first);
        KPropertyList* const pList = KPropertyList::GetInstance();
        ASSERT_NE(pList, nullptr);
        EXPECT_EQ(DumpOfInstance(), "key(first)");
        EXPECT_EQ(LogOf([&] { KPropertyList::Init(PathOf(second)); }), "");
        EXPECT_EQ(KPropertyList::GetInstance(), pList);
        EXPECT_EQ(DumpOfInstance(), "key(first)");
    }
    EXPECT_EQ(KPropertyList::GetInstance(), nullptr);
    const ScopedInstance instance(second);
    const ScopedChecks checks(true);
    EXPECT_EQ(DumpOfInstance(), "key(second)");
}

TEST(KPropertyListTest, ANodeWithoutMemoryForItsPlaceInTheTreeIsGivenBack) {
    const ScopedLevel silent(kNoLines);
    // The log has its buffers before memory is lacking: with one of them alone it would make both again.
    KDebug::Deinit();
    KDebug::Init();
    EXPECT_EQ(support::BytesLeftBy([] {
                  // Each block is refused in turn, with all that are asked for after it.
                  for (int nWorks = 0, nRefused = 1; nRefused > 0; ++nWorks) {
                      Tree tree;
                      KPropertyList list{KString()};
                      KString text("<dict><key>a</key><string>b</string></dict>");
                      const support::ScopedNoMalloc none(nWorks);
                      list.Parshing(text, &tree.Root());
                      nRefused = none.Refused();
                  }
              }),
              0u);
    KDebug::Deinit();
}

TEST(KPropertyListTest, WhereThereIsNoMemoryForWhatATagOpensTheReadEnds) {
    const ScopedChecks checks(false);
    // The reader itself makes three objects, and one for each tag that opens something.
    constexpr int kBefore = 3;
    const std::string opened = "Log: plist\nLog: dict\nLog: array\n";
    const std::string expected[] = {"Log: plist\n", "Log: plist\nLog: dict\n", opened,
                                    opened + "Log: /array\nLog: /dict\nLog: /plist\n"};
    for (int nOpened = 0; nOpened < 4; ++nOpened) {
        KPropertyList list{KString()};
        KPropertyNode root;
        KString text("<plist><dict><array></array></dict></plist>");
        EXPECT_EQ(LogOf([&] {
                      const support::ScopedNoMemory noMemory(kBefore + nOpened);
                      list.Parshing(text, &root);
                  }),
                  expected[nOpened]);
    }
}

TEST(KPropertyListTest, WhatWasReadGivesItsMemoryBackWhereverTheReadEnded) {
    const ScopedChecks checks(false);
    const ScopedLevel silent(kNoLines);
    const ScopedDirectory directory;
    const std::string text = "<plist><dict><key>a</key><array><string>x</string><true/></array></dict></plist>";
    for (std::size_t nLength = 0; nLength <= text.size(); ++nLength) {
        const KString part = StringOf(text.substr(0, nLength));
        EXPECT_EQ(support::BytesLeftBy([&part] { const ReadList list(part); }), 0u) << part.GetBuffer();
    }
    const KPath file(directory.File("list", text).c_str());
    EXPECT_EQ(support::BytesLeftBy([&file] { const ReadList list(file); }), 0u);
    EXPECT_EQ(support::BytesLeftBy([&file] {
                  KPropertyList::Init(file);
                  DestroyChildren(*KPropertyList::GetInstance()->GetRoot());
                  KPropertyList::Deinit();
              }),
              0u);
}

TEST(KPropertyListTest, InitFromAFileThatIsNotThereMakesAnEmptyList) {
    const ScopedInstance instance("/no/such/file");
    ASSERT_NE(KPropertyList::GetInstance(), nullptr);
    EXPECT_EQ(DumpOfInstance(), "");
}

TEST(KPropertyListTest, ACopyWithTheChecksOffIsEmpty) {
    ReadList list{KString("<?xml?><key>a</key>")};
    KPropertyList copy(list.List());
    EXPECT_EQ(copy.GetRoot()->GetNodeCount(), 0);
    EXPECT_EQ(TextOf(copy.GetHeader()), "");
    copy = list.List();
    EXPECT_EQ(copy.GetRoot()->GetNodeCount(), 0);
    EXPECT_EQ(list.Dump(), "key(a)");
}

TEST(KPropertyListTest, CopyingFailsACheck) {
    KPropertyList list{KString()};
    EXPECT_CHECK_FAILS(KPropertyList copy(list), "0", "src/KPropertyList",
                       "KPropertyList::KPropertyList(const KPropertyList&)");
    KPropertyList other{KString()};
    EXPECT_CHECK_FAILS(other = list, "0", "src/KPropertyList",
                       "KPropertyList& KPropertyList::operator=(const KPropertyList&)");
}

// ----------------------------------------------------------------------------------------------- Against a plain model

namespace {

/// The reader's steps taken one by one on a text that is shortened as it is read, with a call for each level: slow, and
/// simple enough to be seen to be right.
class Model {
 public:
    explicit Model(std::string text) : m_Rest(std::move(text)), m_fgEnded(false) {}

    /// Reads one level and returns its children as DumpChildren() would show them.
    std::string Read() {
        Node root;
        ReadLevel(root);
        return Dump(root);
    }

    const std::string& Rest() const { return m_Rest; }
    const std::string& Header() const { return m_Header; }
    const std::string& Log() const { return m_Log; }

 private:
    struct Node {
        std::string what;
        std::vector<std::unique_ptr<Node>> children;
    };

    static std::string Dump(const Node& node) {
        std::string text;
        for (const auto& child : node.children) {
            text += child->what + (child->children.empty() ? "" : "{" + Dump(*child) + "}");
        }
        return text;
    }

    static std::string Upper(std::string text) {
        for (char& ch : text) {
            ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
        }
        return text;
    }
    static std::size_t Find(const std::string& text, const std::string& what) { return Upper(text).find(Upper(what)); }
    static bool Starts(const std::string& text, const std::string& what) { return Find(text, what) == 0; }
    static bool Contains(const std::string& text, const std::string& what) {
        return Find(text, what) != std::string::npos;
    }

    static Node& Add(Node& parent, const std::string& what) {
        parent.children.push_back(std::make_unique<Node>());
        parent.children.back()->what = what;
        return *parent.children.back();
    }

    void Cut(std::size_t n) { m_Rest.erase(0, std::min(n, m_Rest.size())); }

    /// Cuts the rest after a text; ends the whole read where it is not there.
    void CutAfter(const std::string& what) {
        const std::size_t n = Find(m_Rest, what);
        if (n == std::string::npos) {
            m_fgEnded = true;
        } else {
            Cut(n + what.size());
        }
    }

    void LogLine(const std::string& text) { m_Log += "Log: " + text + "\n"; }

    void ReadLevel(Node& parent) {
        Node* pHolder = &parent;
        std::string value;
        while (!m_fgEnded) {
            Cut(std::min(m_Rest.find_first_not_of("\r\n\t"), m_Rest.size()));
            if (m_Rest.size() < 2 || m_Rest[0] != '<' || m_Rest[1] == '>') {
                return;
            }
            const std::string tag = m_Rest.substr(1, m_Rest.find('>') - 1);
            LogLine(tag);
            if (Starts(tag, "?XML")) {
                m_Header = tag;
                CutAfter("?>");
            } else if (Starts(tag, "!DOCTYPE")) {
                m_Header = tag;
                CutAfter(">");
            } else if (Starts(tag, "PLIST") || Starts(tag, "DICT") || Starts(tag, "ARRAY")) {
                Cut(tag.size() + 2);
                ReadLevel(*pHolder);
            } else if (Starts(tag, "/PLIST") || Starts(tag, "/DICT") || Starts(tag, "/ARRAY")) {
                Cut(tag.size() + 2);
                return;
            } else if (Starts(tag, "KEY") || Starts(tag, "STRING") || Starts(tag, "INTEGER") || Starts(tag, "DATA") ||
                       Starts(tag, "DATE")) {
                ReadText(tag, value, parent, pHolder);
            } else if (Contains(tag, "FALSE/")) {
                Cut(tag.size() + 2);
                Add(*pHolder, "boolean(FALSE)");
            } else if (Contains(tag, "TRUE/")) {
                Cut(tag.size() + 2);
                Add(*pHolder, "boolean(TRUE)");
            } else if (Starts(tag, "/")) {
                return;
            } else {
                m_fgEnded = true;
            }
        }
    }

    void ReadText(const std::string& tag, std::string& value, Node& parent, Node*& pHolder) {
        const std::size_t nText = std::min(tag.size() + 2, m_Rest.size());
        const std::string text = m_Rest.substr(nText, m_Rest.find('<', nText) - nText);
        if (!text.empty()) {
            value = text;
        }
        LogLine(value);
        CutAfter("</" + tag + ">");
        if (m_fgEnded) {
            return;
        }
        if (Starts(tag, "KEY")) {
            pHolder = &Add(parent, "key(" + value + ")");
            return;
        }
        for (const char* const pszName : {"string", "integer", "data", "date"}) {
            if (Starts(tag, pszName)) {
                Add(*pHolder, std::string(pszName) + "(" + value + ")");
                return;
            }
        }
    }

    std::string m_Rest;
    std::string m_Header;
    std::string m_Log;
    bool m_fgEnded;
};

}  // namespace

TEST(KPropertyListTest, AgreesWithAPlainModelOnRandomTexts) {
    const ScopedLevel level(kNoLines);
    RandomPropertyTexts texts(5150);
    for (int i = 0; i < 5000; ++i) {
        const std::string text = texts.Next();
        Model model(text);
        const std::string expected = model.Read();
        KPropertyList list{KString()};
        Tree tree;
        KString rest = StringOf(text);
        EXPECT_TRUE(list.Parshing(rest, &tree.Root()));
        ASSERT_EQ(tree.Dump(), expected) << text;
        ASSERT_EQ(TextOf(rest), model.Rest()) << text;
        ASSERT_EQ(TextOf(list.GetHeader()), model.Header()) << text;
    }
}

TEST(KPropertyListTest, AgreesWithAPlainModelOnTheLog) {
    RandomPropertyTexts texts(1984);
    for (int i = 0; i < 200; ++i) {
        const std::string text = texts.Next();
        Model model(text);
        model.Read();
        ASSERT_EQ(LogOf([&] { DumpOf(text); }), model.Log()) << text;
    }
}

TEST(KPropertyListTest, AgreesWithAPlainModelOnEveryBeginningOfAConfiguration) {
    const ScopedLevel level(kNoLines);
    const std::string device = kDevice;
    for (std::size_t nLen = 0; nLen <= device.size(); ++nLen) {
        const std::string text = device.substr(0, nLen);
        Model model(text);
        ASSERT_EQ(DumpOf(text), model.Read()) << text;
        ASSERT_EQ(RestOf(text), model.Rest()) << text;
    }
}

// ------------------------------------------------------------------------------------------------------ Hostile texts

namespace {

constexpr std::size_t kTenMegabytes = 10000000;
constexpr std::size_t kMillion = 1000000;

/// Reads a text and destroys the tree; returns how many nodes there were.
std::size_t CountNodes(const std::string& text) {
    const ScopedLevel level(kNoLines);
    Tree tree;
    KPropertyList list{KString()};
    KString rest = StringOf(text);
    EXPECT_TRUE(list.Parshing(rest, &tree.Root()));
    return DestroyChildren(tree.Root());
}

}  // namespace

TEST(KPropertyListTest, ReadsATenMegabyteConfiguration) {
    const std::string entry = "\t<key>k</key>\n\t<dict>\n\t\t<key>v</key>\n\t\t<integer>1</integer>\n\t</dict>\n";
    const std::size_t nEntries = kTenMegabytes / entry.size();
    const std::string text = "<plist>\n<dict>\n" + Repeated(entry, nEntries) + "</dict>\n</plist>\n";
    EXPECT_EQ(CountNodes(text), 3 * nEntries);
}

TEST(KPropertyListTest, ReadsTagsOfTenMegabytes) {
    const std::string longName(kTenMegabytes, 'x');
    EXPECT_EQ(CountNodes("<dict " + longName + "><true/></dict " + longName + ">"), 1u);
    EXPECT_EQ(CountNodes("<string" + longName + ">v</string" + longName + ">"), 1u);
    EXPECT_EQ(CountNodes("<key" + longName + ">v</key>"), 0u);
    EXPECT_EQ(CountNodes("<true/><" + longName), 1u);
    EXPECT_EQ(CountNodes("<true/><true/" + longName), 2u);
    EXPECT_EQ(CountNodes("<" + std::string(kTenMegabytes, '/') + "true/>"), 1u);
}

TEST(KPropertyListTest, ReadsTextsOfTenMegabytes) {
    const std::string longText(kTenMegabytes, 'x');
    EXPECT_EQ(CountNodes("<key>" + longText + "</key><string>" + longText + "</string>"), 2u);
    EXPECT_EQ(CountNodes("<key>" + longText), 0u);
    EXPECT_EQ(CountNodes("<string>" + Repeated("<strin", kMillion) + "</string>"), 1u);
}

TEST(KPropertyListTest, ReadsAMillionSiblings) {
    EXPECT_EQ(CountNodes("<dict>" + Repeated("<key>a</key>", kMillion)), kMillion);
}

TEST(KPropertyListTest, ReadsAMillionLevels) {
    EXPECT_EQ(CountNodes(Repeated("<dict>", kMillion)), 0u);
    EXPECT_EQ(CountNodes(Repeated("<dict>", kMillion) + "<true/>" + Repeated("</array>", kMillion) + "<true/>"), 2u);
    EXPECT_EQ(CountNodes(Repeated("<array>", kMillion) + "</x>"), 0u);
    EXPECT_EQ(CountNodes(Repeated("<array", kMillion)), 0u);
}

TEST(KPropertyListTest, ReadsAHundredThousandKeysWithinOneAnother) {
    constexpr std::size_t kDepth = 100000;
    EXPECT_EQ(CountNodes(Repeated("<key>a</key><dict>", kDepth)), kDepth);
    EXPECT_EQ(CountNodes(Repeated("<key>a</key><dict>", kDepth) + Repeated("</dict><true/>", kDepth)), 2 * kDepth);
}

TEST(KPropertyListTest, EmptyTextsAfterALongOneAreRead) {
    const std::string longText(kMillion / 10, 'x');
    EXPECT_EQ(CountNodes("<string>" + longText + "</string>" + Repeated("<string></string>", 50)), 51u);
}

TEST(KPropertyListTest, ReadsManyHeaders) {
    EXPECT_EQ(CountNodes(Repeated("<?xml?>", kMillion) + "<true/>"), 1u);
    EXPECT_EQ(CountNodes(Repeated("<!DOCTYPE>", kMillion) + "<true/>"), 1u);
    EXPECT_EQ(CountNodes(Repeated("<?xml>", kMillion)), 0u);
}

TEST(KPropertyListTest, ReadsAnyBytes) {
    RandomPropertyTexts texts(77);
    for (int i = 0; i < 2000; ++i) {
        CountNodes("<dict>" + texts.NextBytes(300));
    }
}
