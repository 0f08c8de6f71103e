// kplist: prints property lists, looks values up in them, and checks what the library's reader makes of them.

#include <KDebug.h>
#include <KEntry.h>
#include <KPropertyList.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include "Input.h"
#include "Linter.h"
#include "Lookup.h"
#include "Print.h"

namespace {

constexpr int kDone = 0;
constexpr int kFound = 1;    // by --check
constexpr int kMissing = 1;  // a key
constexpr int kFailed = 2;

constexpr int kAllLogLines = 0;
constexpr int kNoLogLines = 3;

constexpr char kHelp[] =
    "Usage: kplist [--verbose] FILE [KEY...]\n"
    "       kplist [--verbose] --check FILE...\n"
    "       kplist --help | --version\n"
    "\n"
    "Prints the property list in FILE as the Kalvoren library reads it: as a tree,\n"
    "or the value under a path of KEYs. Where no key has that name, a number stands\n"
    "for an element, counted from 0.\n"
    "\n"
    "  --check    report where and why the reader would stop in each FILE, lose\n"
    "             something, or take it for something else\n"
    "  --verbose  write the library's log lines to standard error\n"
    "  --help     print this text\n"
    "  --version  print the version\n"
    "\n"
    "Exit status: 0 when all went well; 1 when a key is not there, or --check found\n"
    "something; 2 when a FILE cannot be read or the arguments are wrong.\n"
    "\n"
    "Examples: kplist device.plist\n"
    "          kplist device.plist Network DNS 0\n"
    "          kplist --check *.plist\n";

struct Options {
    bool fgCheck = false;
    bool fgVerbose = false;
    char** ppArguments = nullptr;  ///< Files and keys.
    int nArguments = 0;
};

void Complain(const std::string& message) {
    std::fprintf(stderr, "kplist: %s\n", message.c_str());
}

/// Reads the options. Returns the exit status when the program is done by that, and -1 when it is to go on.
int ReadOptions(int argc, char** argv, Options& options) {
    int i = 1;
    for (; i < argc && argv[i][0] == '-' && argv[i][1] != '\0'; ++i) {
        const std::string option = argv[i];
        if (option == "--") {
            ++i;
            break;
        }
        if (option == "--help" || option == "-h") {
            std::fputs(kHelp, stdout);
            return kDone;
        }
        if (option == "--version") {
            std::puts("kplist " KALVOREN_VERSION);
            return kDone;
        }
        if (option == "--check") {
            options.fgCheck = true;
        } else if (option == "--verbose") {
            options.fgVerbose = true;
        } else {
            Complain("unknown option " + option + "; try kplist --help");
            return kFailed;
        }
    }
    options.ppArguments = argv + i;
    options.nArguments = argc - i;
    if (options.nArguments == 0) {
        Complain("no file given; try kplist --help");
        return kFailed;
    }
    return -1;
}

bool ReadFile(const char* pszFile, std::string& text) {
    std::string reason;
    if (kplist::ReadText(pszFile, text, reason)) {
        return true;
    }
    Complain(std::string(pszFile) + ": " + reason);
    return false;
}

int Check(const char* pszFile) {
    std::string text;
    if (!ReadFile(pszFile, text)) {
        return kFailed;
    }
    const kplist::Report report = kplist::Lint(text);
    for (const kplist::Finding& finding : report.findings) {
        const char* const pszSeverity = finding.eSeverity == kplist::Severity::Error ? "error" : "warning";
        std::printf("%s:%zu:%zu: %s: %s\n", pszFile, finding.nLine, finding.nColumn, pszSeverity,
                    finding.message.c_str());
    }
    return report.findings.empty() ? kDone : kFound;
}

int CheckAll(char** ppFiles, int nFiles) {
    int nWorst = kDone;
    for (int i = 0; i < nFiles; ++i) {
        const int nStatus = Check(ppFiles[i]);
        nWorst = nStatus > nWorst ? nStatus : nWorst;
    }
    return nWorst;
}

void MentionTheRest(const char* pszFile, const kplist::ReadTree& tree) {
    if (!tree.fgWhole) {
        Complain(std::string(pszFile) + ": the reader stopped before the end; kplist --check tells where and why");
    }
}

int Show(const char* pszFile, char** ppKeys, int nKeys) {
    std::string text;
    if (!ReadFile(pszFile, text)) {
        return kFailed;
    }
    const kplist::ReadTree tree = kplist::ParseText(text);
    if (nKeys == 0) {
        kplist::PrintTree(*tree.pRoot, kplist::WantsColour());
        MentionTheRest(pszFile, tree);
        return kDone;
    }
    int nMissing = 0;
    KPropertyNode* const pNode = kplist::Find(*tree.pRoot, ppKeys, nKeys, nMissing);
    if (pNode == nullptr) {
        const std::string where = nMissing > 0 ? " under \"" + std::string(ppKeys[nMissing - 1]) + "\"" : "";
        Complain(std::string(pszFile) + ": no \"" + ppKeys[nMissing] + "\"" + where);
        MentionTheRest(pszFile, tree);
        return kMissing;
    }
    kplist::PrintValue(*pNode, kplist::WantsColour());
    return kDone;
}

/// The exit status, once everything is written.
int Finish(int nStatus) {
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        Complain("standard output cannot be written");
        return kFailed;
    }
    return nStatus;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const int nDone = ReadOptions(argc, argv, options);
    if (nDone >= 0) {
        return Finish(nDone);
    }
    g_eDebugLevel = options.fgVerbose ? kAllLogLines : kNoLogLines;
    KEntry::Init(argc, argv);
    // Start-up makes the process ignore it; a tool ends with the reader of its output.
    std::signal(SIGPIPE, SIG_DFL);
    const int nStatus = options.fgCheck ? CheckAll(options.ppArguments, options.nArguments)
                                        : Show(options.ppArguments[0], options.ppArguments + 1, options.nArguments - 1);
    KEntry::Deinit();
    return Finish(nStatus);
}
