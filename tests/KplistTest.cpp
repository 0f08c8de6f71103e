// The program kplist as it is started from a shell.

#include <fcntl.h>
#include <linux/capability.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "support/LogLines.h"
#include "support/Process.h"
#include "support/Support.h"

using support::ContentOf;
using support::ScopedDirectory;
using support::WithoutStamps;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

using Words = std::vector<std::string>;

/// What a run of the program gave.
struct Outcome {
    int nStatus;  ///< The exit status, or -1 when a signal ended it.
    std::string out;
    std::string err;
};

bool operator==(const Outcome& a, const Outcome& b) {
    return a.nStatus == b.nStatus && a.out == b.out && a.err == b.err;
}

std::ostream& operator<<(std::ostream& stream, const Outcome& outcome) {
    return stream << "status " << outcome.nStatus << "\n--- out\n" << outcome.out << "--- err\n" << outcome.err;
}

/// The program, or where it cannot be started by its own name the script that starts it in an emulator.
std::string Program() {
    const std::string launcher = KALVOREN_KPLIST ".launch";
    return access(launcher.c_str(), X_OK) == 0 ? launcher : KALVOREN_KPLIST;
}

std::string Example(const std::string& name) {
    return KALVOREN_EXAMPLES "/" + name;
}

/// Pointers to texts, with a null behind the last.
std::vector<char*> PointersTo(Words& words) {
    std::vector<char*> pointers;
    for (std::string& word : words) {
        pointers.push_back(&word[0]);
    }
    pointers.push_back(nullptr);
    return pointers;
}

/// Starts the program. The environment is this process's own but for what has to do with colours, and @p variables.
pid_t Start(const Words& arguments, const Words& variables, const posix_spawn_file_actions_t& actions) {
    Words words = {Program()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    Words environment = variables;
    for (char** ppVariable = environ; *ppVariable != nullptr; ++ppVariable) {
        const std::string variable = *ppVariable;
        if (variable.rfind("TERM=", 0) != 0 && variable.rfind("NO_COLOR=", 0) != 0) {
            environment.push_back(variable);
        }
    }
    pid_t nProcess = -1;
    EXPECT_EQ(posix_spawn(&nProcess, words[0].c_str(), &actions, nullptr, PointersTo(words).data(),
                          PointersTo(environment).data()),
              0);
    return nProcess;
}

int StatusOf(pid_t nProcess) {
    int nStatus = 0;
    EXPECT_EQ(waitpid(nProcess, &nStatus, 0), nProcess);
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
}

/// Runs the program with its output in files.
Outcome Kplist(const Words& arguments, const std::string& out = "", const Words& variables = {"TERM=xterm"}) {
    const ScopedDirectory directory;
    const std::string standardOut = out.empty() ? directory.Entry("out") : out;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, standardOut.c_str(), O_WRONLY | O_CREAT, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, directory.Entry("err").c_str(), O_WRONLY | O_CREAT, 0600);
    const int nStatus = StatusOf(Start(arguments, variables, actions));
    posix_spawn_file_actions_destroy(&actions);
    return {nStatus, out.empty() ? ContentOf(standardOut) : "", ContentOf(directory.Entry("err"))};
}

/// Runs the program on a terminal and returns what that got.
std::string RunOnTerminal(const Words& arguments, const Words& variables) {
    const int nMaster = posix_openpt(O_RDWR | O_NOCTTY);
    if (nMaster < 0 || grantpt(nMaster) != 0 || unlockpt(nMaster) != 0) {
        return "";
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, ptsname(nMaster), O_RDWR | O_NOCTTY, 0);
    const pid_t nProcess = Start(arguments, variables, actions);
    posix_spawn_file_actions_destroy(&actions);
    // Ends with an error once the program has closed its side.
    std::string text;
    char buffer[1024];
    for (ssize_t n = 0; (n = read(nMaster, buffer, sizeof(buffer))) > 0;) {
        text.append(buffer, static_cast<std::size_t>(n));
    }
    close(nMaster);
    EXPECT_EQ(StatusOf(nProcess), 0);
    return text;
}

/// From here on what this process starts may read only what its user may, also where that is the superuser: whose files and
/// directories stay its own, unlike another user's, who might not get as far as the program.
void DropReadingEverything() {
    if (geteuid() == 0) {
        EXPECT_EQ(prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE), 0);
        EXPECT_EQ(prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH), 0);
    }
}

Outcome Failure(int nStatus, const std::string& message) {
    return {nStatus, "", "kplist: " + message + "\n"};
}

Outcome Success(const std::string& out) {
    return {0, out, ""};
}

/// A scratch file of a list with a dictionary around some contents.
class ListFile {
 public:
    explicit ListFile(const std::string& contents)
        : m_Path(m_Directory.File("a.plist", "<plist><dict>" + contents + "</dict></plist>\n")) {}

    const std::string& Path() const { return m_Path; }

 private:
    ScopedDirectory m_Directory;
    std::string m_Path;
};

}  // namespace

// --------------------------------------------------------------------------------------------------------------- Trees

TEST(KplistTest, PrintsATree) {
    const ListFile file(
        "<key>a</key><string>x</string>"
        "<key>b</key><array><integer>1</integer><date>2010-05-06T07:08:09Z</date></array>"
        "<key>c</key><dict><key>d</key><true/><key>e</key><data>AQID</data></dict>"
        "<key>f</key><dict></dict>"
        "<key>g</key><dict><key>h</key><dict><key>i</key><false/></dict></dict>"
        "<key>j</key><true/>");
    EXPECT_EQ(Kplist({file.Path()}), Success("key \"a\": string \"x\"\n"
                                             "key \"b\"\n"
                                             "  [0] integer \"1\"\n"
                                             "  [1] date \"2010-05-06T07:08:09Z\"\n"
                                             "key \"c\"\n"
                                             "  key \"d\": boolean \"TRUE\"\n"
                                             "  key \"e\": data \"AQID\"\n"
                                             "key \"f\"\n"
                                             "key \"g\"\n"
                                             "  key \"h\"\n"
                                             "    key \"i\": boolean \"FALSE\"\n"
                                             "key \"j\": boolean \"TRUE\"\n"));
}

TEST(KplistTest, PrintsValuesWithoutAKey) {
    const ListFile file("<string>x</string><key>a</key><array><string>y</string><dict><key>b</key></dict></array>");
    EXPECT_EQ(Kplist({file.Path()}), Success("[0] string \"x\"\n"
                                             "key \"a\"\n"
                                             "  [0] string \"y\"\n"
                                             "  key \"b\"\n"));
}

TEST(KplistTest, PrintsTextsOfATreeOnOneLineAndWithoutControlCharacters) {
    const ListFile file("<key>a\nb</key><string>\t\"x\\\r\x1b[31m\x7f \xC3\xA9</string>");
    EXPECT_EQ(Kplist({file.Path()}), Success("key \"a\\nb\": string \"\\t\\\"x\\\\\\x0d\\x1b[31m\\x7f \xC3\xA9\"\n"));
}

TEST(KplistTest, PrintsTheExample) {
    const Outcome outcome = Kplist({Example("device.plist")});
    EXPECT_EQ(outcome.nStatus, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_THAT(outcome.out, HasSubstr("\n  key \"HostName\": string \"camera-north-gate\"\n"));
    EXPECT_THAT(outcome.out, HasSubstr("\n  key \"DNS\"\n    [0] string \"192.0.2.53\"\n"));
    EXPECT_THAT(outcome.out, HasSubstr("\n  key \"Sub\"\n    key \"Encoding\": string \"H.264\"\n"));
}

TEST(KplistTest, SaysWhenTheReaderStopped) {
    const ListFile file("<key>a</key><true/>  <key>b</key><true/>");
    const std::string message =
        "kplist: " + file.Path() + ": the reader stopped before the end; kplist --check tells where and why\n";
    EXPECT_EQ(Kplist({file.Path()}), (Outcome{0, "key \"a\": boolean \"TRUE\"\n", message}));
    EXPECT_EQ(Kplist({file.Path(), "b"}), (Outcome{1, "", "kplist: " + file.Path() + ": no \"b\"\n" + message}));
    EXPECT_EQ(Kplist({file.Path(), "a"}), Success("TRUE\n"));
}

TEST(KplistTest, DoesNotEndAtAStrayClosingTag) {
    const ListFile file("<key>a</key><true/></real>");
    EXPECT_EQ(Kplist({file.Path(), "a"}), Success("TRUE\n"));
}

TEST(KplistTest, PrintsNothingOfAnEmptyFile) {
    const ScopedDirectory directory;
    EXPECT_EQ(Kplist({directory.File("empty", "")}), Success(""));
}

TEST(KplistTest, PrintsATreeOfAnyDepth) {
    constexpr std::size_t kDepth = 20000;
    std::string contents;
    for (std::size_t i = 0; i < kDepth; ++i) {
        contents += "<key>a</key><dict>";
    }
    const ListFile file(contents + "<key>b</key><true/>");
    const Outcome outcome = Kplist({file.Path()});
    EXPECT_EQ(outcome.nStatus, 0);
    EXPECT_THAT(outcome.out.substr(0, 40), StartsWith("key \"a\"\n  key \"a\"\n    key \"a\"\n"));
    const std::string deepest = "\n" + std::string(200, ' ') + "key \"b\": boolean \"TRUE\"\n";
    ASSERT_GT(outcome.out.size(), deepest.size());
    EXPECT_EQ(outcome.out.substr(outcome.out.size() - deepest.size()), deepest);
}

// ------------------------------------------------------------------------------------------------------------- Colours

TEST(KplistTest, UsesColoursOnATerminalOnly) {
    const ListFile file("<key>a</key><string>x</string>");
    const std::string coloured = RunOnTerminal({file.Path()}, {"TERM=xterm"});
    if (coloured.empty()) {
        GTEST_SKIP() << "there are no pseudo-terminals";
    }
    EXPECT_EQ(coloured, "\033[36mkey\033[0m \033[1m\"a\"\033[0m: \033[36mstring\033[0m \033[32m\"x\"\033[0m\r\n");
    const std::string plain = "key \"a\": string \"x\"\r\n";
    EXPECT_EQ(RunOnTerminal({file.Path()}, {"TERM=xterm", "NO_COLOR=1"}), plain);
    EXPECT_EQ(RunOnTerminal({file.Path()}, {"TERM=dumb"}), plain);
    EXPECT_EQ(RunOnTerminal({file.Path()}, {}), plain);
    EXPECT_EQ(RunOnTerminal({file.Path()}, {"TERM=xterm", "NO_COLOR="}), coloured);
    EXPECT_EQ(Kplist({file.Path()}).out, "key \"a\": string \"x\"\n");
}

// -------------------------------------------------------------------------------------------------------------- Values

namespace {

struct LookUp {
    Words keys;
    const char* pszPrinted;
};

}  // namespace

TEST(KplistTest, PrintsTheValueUnderAPathOfKeys) {
    const ListFile file(
        "<key>name</key><string>North gate\n&amp; yard</string>"
        "<key>ports</key><array><integer>80</integer><integer>554</integer></array>"
        "<key>empty</key><dict></dict>"
        "<key>on</key><true/>"
        "<key>net</key><dict><key>off</key><false/><key>dns</key><array><string>a</string></array></dict>"
        "<key>twice</key><string>first</string><key>twice</key><string>second</string>"
        "<key>0</key><string>zero</string>"
        "<key>streams</key><array><dict><key>main</key><dict><key>rate</key><integer>25</integer></dict></dict>"
        "<dict><key>sub</key><dict><key>rate</key><integer>5</integer></dict></dict></array>");
    const LookUp lookUps[] = {
        {{"name"}, "North gate\n&amp; yard\n"},
        {{"ports"}, "80\n554\n"},
        {{"ports", "1"}, "554\n"},
        {{"empty"}, ""},
        {{"on"}, "TRUE\n"},
        {{"net", "off"}, "FALSE\n"},
        {{"net", "dns"}, "a\n"},
        {{"net", "dns", "0"}, "a\n"},
        {{"net"}, "key \"off\": boolean \"FALSE\"\nkey \"dns\": string \"a\"\n"},
        {{"twice"}, "first\n"},
        {{"0"}, "zero\n"},
        {{"1"}, "80\n554\n"},
        {{"streams"}, "key \"main\"\n  key \"rate\": integer \"25\"\nkey \"sub\"\n  key \"rate\": integer \"5\"\n"},
        {{"streams", "1"}, "key \"rate\": integer \"5\"\n"},
        {{"streams", "sub", "rate"}, "5\n"},
        {{"streams", "1", "rate"}, "5\n"},
    };
    for (const LookUp& lookUp : lookUps) {
        Words arguments = {file.Path()};
        arguments.insert(arguments.end(), lookUp.keys.begin(), lookUp.keys.end());
        EXPECT_EQ(Kplist(arguments), Success(lookUp.pszPrinted)) << testing::PrintToString(lookUp.keys);
    }
}

TEST(KplistTest, SaysWhichKeyIsNotThere) {
    const ListFile file("<key>a</key><dict><key>b</key><string>x</string></dict>");
    EXPECT_EQ(Kplist({file.Path(), "c"}), Failure(1, file.Path() + ": no \"c\""));
    EXPECT_EQ(Kplist({file.Path(), "A"}), Failure(1, file.Path() + ": no \"A\""));
    EXPECT_EQ(Kplist({file.Path(), "a", "c", "d"}), Failure(1, file.Path() + ": no \"c\" under \"a\""));
    EXPECT_EQ(Kplist({file.Path(), "a", "b", "x"}), Failure(1, file.Path() + ": no \"x\" under \"b\""));
    EXPECT_EQ(Kplist({file.Path(), "a", "b", "1"}), Failure(1, file.Path() + ": no \"1\" under \"b\""));
    for (const char* const pszNoNumber : {"-1", "+0", "0x0", " 0", "0 ", "", "99999999999"}) {
        EXPECT_EQ(Kplist({file.Path(), "a", "b", pszNoNumber}).nStatus, 1) << pszNoNumber;
    }
}

TEST(KplistTest, LooksValuesUpInTheExample) {
    const std::string device = Example("device.plist");
    EXPECT_EQ(Kplist({device, "Network", "HostName"}), Success("camera-north-gate\n"));
    EXPECT_EQ(Kplist({device, "Network", "DNS", "1"}), Success("198.51.100.53\n"));
    EXPECT_EQ(Kplist({device, "Streams", "Main", "Width"}), Success("1920\n"));
    EXPECT_EQ(Kplist({device, "Recording", "Enabled"}), Success("TRUE\n"));
}

// ------------------------------------------------------------------------------------------------------------ Checking

TEST(KplistTest, FindsNothingInACleanFile) {
    EXPECT_EQ(Kplist({"--check", Example("device.plist")}), Success(""));
}

TEST(KplistTest, ReportsFindingsAsCompilersDo) {
    const ScopedDirectory directory;
    const std::string path =
        directory.File("a.plist", "<plist>\n<dict>\n\t<key>a</key>\n  <true/>\n</dict></plist>\nx");
    EXPECT_EQ(Kplist({"--check", path}),
              (Outcome{1,
                       path + ":4:1: error: indented by spaces: reading ends here; indent by tabs\n" + path +
                           ":6:1: warning: text behind the closing tag of the list: reading would end here\n",
                       ""}));
}

TEST(KplistTest, FindsWhatIsWrongWithTheBrokenExample) {
    const std::string path = Example("broken.plist");
    const Outcome outcome = Kplist({"--check", path});
    EXPECT_EQ(outcome.nStatus, 1);
    EXPECT_EQ(outcome.err, "");
    for (const char* const pszFinding :
         {":5:2: warning: 'string' before any key", ":9:18: warning: entity '&amp;' is not decoded",
          ":11:3: error: empty 'string' takes the text before it, 'Domain'",
          ":15:34: error: comment: reading ends here", ":17:3: warning: key 'HostName' again",
          ":26:4: error: element 'real' is not known", ":30:4: error: attributes on 'string'",
          ":32:4: error: 'integer' is closed by '/intger'", ":35:1: error: indented by spaces",
          ":36:9: error: element 'true' is not known", ":38:2: warning: date '6 May 2024'",
          ":40:2: error: self-closing 'dict/'"}) {
        EXPECT_THAT(outcome.out, HasSubstr(path + pszFinding));
    }
}

TEST(KplistTest, ChecksSeveralFilesAndGivesTheWorstStatus) {
    const ScopedDirectory directory;
    const std::string clean = directory.File("clean", "<plist></plist>");
    const std::string broken = directory.File("broken", "");
    const std::string missing = directory.Entry("missing");
    const std::string finding = broken + ":1:1: warning: no 'plist' element\n";
    EXPECT_EQ(Kplist({"--check", clean, clean}), Success(""));
    EXPECT_EQ(Kplist({"--check", broken, clean}), (Outcome{1, finding, ""}));
    EXPECT_EQ(Kplist({"--check", missing, broken, clean}),
              (Outcome{2, finding, "kplist: " + missing + ": No such file or directory\n"}));
}

TEST(KplistTest, ChecksAFileOfTenMegabytes) {
    std::string contents;
    for (int i = 0; contents.size() < 10000000; ++i) {
        contents += "\n\t<key>name " + std::to_string(i) + "</key>\n\t<integer>1920</integer>";
    }
    const ListFile file(contents + "<key>last</key><true/>");
    EXPECT_EQ(Kplist({"--check", file.Path()}), Success(""));
    EXPECT_EQ(Kplist({file.Path(), "last"}), Success("TRUE\n"));
}

// ---------------------------------------------------------------------------------------------- Files and arguments

TEST(KplistTest, SaysWhyAFileCannotBeRead) {
    const ScopedDirectory directory;
    const std::string missing = directory.Entry("missing");
    const std::string fifo = directory.Entry("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string large = directory.File("large", "<plist></plist>");
    std::filesystem::resize_file(large, UINT64_C(3) << 30);
    for (const Words& options : {Words{}, Words{"--check"}}) {
        const auto run = [&](const std::string& path) {
            Words arguments = options;
            arguments.push_back(path);
            return Kplist(arguments);
        };
        EXPECT_EQ(run(missing), Failure(2, missing + ": No such file or directory"));
        EXPECT_EQ(run(missing + "/x"), Failure(2, missing + "/x: No such file or directory"));
        EXPECT_EQ(run(directory.Path()), Failure(2, directory.Path() + ": Is a directory"));
        EXPECT_EQ(run(fifo), Failure(2, fifo + ": Not a regular file"));
        EXPECT_EQ(run("/dev/null"), Failure(2, "/dev/null: Not a regular file"));
        EXPECT_EQ(run(large), Failure(2, large + ": Cannot be read, or is too large"));
        EXPECT_EQ(run(""), Failure(2, ": No such file or directory"));
    }
    EXPECT_EQ(Kplist({missing, "key"}), Failure(2, missing + ": No such file or directory"));
}

TEST(KplistTest, SaysThatAFileMayNotBeRead) {
    const ScopedDirectory directory;
    const std::string path = directory.File("secret", "<plist></plist>");
    ASSERT_EQ(chmod(path.c_str(), 0), 0);
    if (access(path.c_str(), R_OK) == 0 && prctl(PR_CAPBSET_READ, CAP_SETPCAP) != 1) {
        GTEST_SKIP() << "the superuser may read everything, and cannot give that up";
    }
    support::InChildProcess([&path] {
        DropReadingEverything();
        EXPECT_EQ(Kplist({path}), Failure(2, path + ": Permission denied"));
    });
}

TEST(KplistTest, RefusesNamesThatAreTooLong) {
    // One that is too long for a KPath alone, and one that is too long for the system.
    const std::string longer = std::string(2100, '/') + Example("device.plist");
    EXPECT_EQ(Kplist({longer}), Failure(2, longer + ": No such file or directory"));
    EXPECT_EQ(Kplist({std::string(5000, 'x')}).nStatus, 2);
}

TEST(KplistTest, TakesNamesWithBackslashes) {
    const ScopedDirectory directory;
    EXPECT_EQ(Kplist({directory.File("a\\b", "<key>a</key>")}), Success("key \"a\"\n"));
}

TEST(KplistTest, TakesNamesThatLookLikeOptionsBehindTwoHyphens) {
    EXPECT_EQ(Kplist({"--", "--check"}), Failure(2, "--check: No such file or directory"));
    EXPECT_EQ(Kplist({"-"}), Failure(2, "-: No such file or directory"));
    EXPECT_EQ(Kplist({Example("device.plist"), "--check"}), Failure(1, Example("device.plist") + ": no \"--check\""));
}

TEST(KplistTest, RefusesArgumentsItDoesNotKnow) {
    EXPECT_EQ(Kplist({}), Failure(2, "no file given; try kplist --help"));
    EXPECT_EQ(Kplist({"--check"}), Failure(2, "no file given; try kplist --help"));
    EXPECT_EQ(Kplist({"--verbose"}), Failure(2, "no file given; try kplist --help"));
    EXPECT_EQ(Kplist({"--chek", "x"}), Failure(2, "unknown option --chek; try kplist --help"));
    EXPECT_EQ(Kplist({"-x", "x"}), Failure(2, "unknown option -x; try kplist --help"));
}

TEST(KplistTest, ExplainsItself) {
    const Outcome help = Kplist({"--help"});
    EXPECT_EQ(help.nStatus, 0);
    EXPECT_EQ(help.err, "");
    EXPECT_THAT(help.out, StartsWith("Usage: kplist [--verbose] FILE [KEY...]\n"));
    for (const char* const pszOption : {"--check", "--verbose", "--help", "--version"}) {
        EXPECT_THAT(help.out, HasSubstr(std::string("\n  ") + pszOption));
    }
    EXPECT_EQ(Kplist({"-h"}), help);
    EXPECT_EQ(Kplist({"--version"}), Success("kplist " KALVOREN_VERSION "\n"));
}

TEST(KplistTest, ShowsTheLogWhenAsked) {
    const ListFile file("<key>a</key><true/>");
    EXPECT_EQ(Kplist({file.Path(), "a"}).err, "");
    const Outcome verbose = Kplist({"--verbose", file.Path(), "a"});
    EXPECT_EQ(verbose.out, "TRUE\n");
    const std::string log = WithoutStamps(verbose.err);
    EXPECT_THAT(log, StartsWith("Log: KEntry Create\n"));
    EXPECT_THAT(log, HasSubstr("Log: *********File Open\nLog: ****File Close\nLog: plist\nLog: dict\nLog: key\nLog: a\n"
                               "Log: true/\nLog: /dict\nLog: /plist\n"));
}

TEST(KplistTest, SaysThatItsOutputCannotBeWritten) {
    if (access("/dev/full", W_OK) != 0) {
        GTEST_SKIP() << "/dev/full is not there to refuse it";
    }
    for (const Words& arguments : {Words{Example("device.plist")}, Words{"--check", Example("broken.plist")},
                                   Words{"--help"}, Words{"--version"}}) {
        EXPECT_EQ(Kplist(arguments, "/dev/full"), Failure(2, "standard output cannot be written"));
    }
}
