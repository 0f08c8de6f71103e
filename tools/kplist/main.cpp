// kplist: shows what the library reads in a property list, and where it would stop.

#include <Kalvoren.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Linter.h"
#include "Tree.h"

namespace {

enum ExitStatus { DONE = 0, FOUND_SOMETHING = 1, NOT_FOUND = 1, UNREADABLE = 2, MISUSED = 2 };

constexpr char kHelp[] =
    "Usage: kplist [--verbose] FILE [KEY...]\n"
    "       kplist [--verbose] --check FILE...\n"
    "\n"
    "Shows an XML property list as the Kalvoren library reads it.\n"
    "\n"
    "  FILE           print the tree: one node a line, with its type and text\n"
    "  FILE KEY...    print the value under a path of keys; a number (from 0) where\n"
    "                 there is no such key stands for a child of that place\n"
    "  --check FILE   say where the reader would stop or misread, one finding a line\n"
    "  --verbose      show the library's own log lines\n"
    "  --help         print this\n"
    "  --version      print the version\n"
    "\n"
    "Exit status: 0 done, or nothing found by --check; 1 no such value, or findings;\n"
    "2 a file that cannot be read, or a wrong call.\n";

struct Options {
    bool fgCheck = false;
    bool fgVerbose = false;
    std::vector<const char*> arguments;
};

int Misuse(const std::string& text) {
    std::fprintf(stderr, "kplist: %s\nTry 'kplist --help'.\n", text.c_str());
    return MISUSED;
}

/// Reads a whole file. False when it cannot be read, is a directory, or is longer than any text.
bool ReadFile(const char* pszPath, std::string& content) {
    constexpr std::size_t kLongestPath = 2046;
    if (std::strlen(pszPath) > kLongestPath) {
        return false;
    }
    KPath path;
    path.SetPath(KString(pszPath));  // as it stands: a backslash may be part of a name
    KFile file;
    if (!file.Open(path, false)) {
        return false;
    }
    const std::size_t nSize = file.GetSize();
    bool fgRead = nSize < INT_MAX;
    if (fgRead) {
        content.resize(nSize);
        fgRead = nSize == 0 || file.Read(0, &content[0], nSize);
    }
    file.Close();
    return fgRead;
}

bool ReadFileOrComplain(const char* pszPath, std::string& content) {
    const bool fgRead = ReadFile(pszPath, content);
    if (!fgRead) {
        std::fprintf(stderr, "kplist: cannot read %s\n", pszPath);
    }
    return fgRead;
}

/// Reads the list with the checks off: a closing tag that closes nothing fails one, and what is in a file must not end the
/// program. The list stays to the end, for a tree is never freed whole.
KPropertyList& Parse(const std::string& content) {
    const bool fgActive = KAssert::GetActive();
    KAssert::SetActive(false);
    static KPropertyList* const s_pList = new KPropertyList(KString(content.data(), static_cast<int>(content.size())));
    KAssert::SetActive(fgActive);
    return *s_pList;
}

int ShowTree(KPropertyNode& root) {
    PrintTree(root, isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr);
    return DONE;
}

int ShowValue(KPropertyNode& root, const char* pszFile, int nKeys, const char* const* ppszKeys) {
    KPropertyNode* const pNode = FindNode(root, nKeys, ppszKeys);
    const bool fgKey = pNode != nullptr && pNode->GetValueType() == PROPERTY_KEY;
    if (pNode == nullptr || (fgKey && pNode->GetNodeCount() == 0)) {
        std::fprintf(stderr, "kplist: %s has no value under", pszFile);
        for (int i = 0; i < nKeys; ++i) {
            std::fprintf(stderr, " %s", ppszKeys[i]);
        }
        std::fputc('\n', stderr);
        return NOT_FOUND;
    }
    if (!fgKey) {
        std::printf("%s\n", ValueOf(*pNode).c_str());
        return DONE;
    }
    KPropertyNode& first = **pNode->GetNode(0);
    if (first.GetValueType() == PROPERTY_KEY) {
        return ShowTree(*pNode);
    }
    for (int i = 0; i < pNode->GetNodeCount(); ++i) {
        std::printf("%s\n", ValueOf(**pNode->GetNode(i)).c_str());
    }
    return DONE;
}

int Check(const std::vector<const char*>& files) {
    int nStatus = DONE;
    for (const char* const pszFile : files) {
        std::string content;
        if (!ReadFileOrComplain(pszFile, content)) {
            nStatus = UNREADABLE;
            continue;
        }
        for (const Finding& finding : Lint(content).findings) {
            std::printf("%s:%d:%d: %s: %s\n", pszFile, finding.nLine, finding.nColumn,
                        finding.fgError ? "error" : "warning", finding.text.c_str());
            nStatus = nStatus == DONE ? FOUND_SOMETHING : nStatus;
        }
    }
    return nStatus;
}

int Show(const std::vector<const char*>& arguments) {
    std::string content;
    if (!ReadFileOrComplain(arguments[0], content)) {
        return UNREADABLE;
    }
    KPropertyNode& root = *Parse(content).GetRoot();
    const int nKeys = static_cast<int>(arguments.size()) - 1;
    return nKeys == 0 ? ShowTree(root) : ShowValue(root, arguments[0], nKeys, arguments.data() + 1);
}

int Run(const Options& options, int argc, char** argv) {
    // The reader's log lines would drown the output.
    g_eDebugLevel = options.fgVerbose ? 0 : 3;
    KEntry::Init(argc, argv);
    int nStatus = options.fgCheck ? Check(options.arguments) : Show(options.arguments);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        std::perror("kplist: standard output");
        nStatus = UNREADABLE;
    }
    KEntry::Deinit();
    return nStatus;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    bool fgOptions = true;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (!fgOptions || argument.compare(0, 1, "-") != 0) {
            options.arguments.push_back(argv[i]);
            fgOptions = fgOptions && options.fgCheck;  // behind a file, all is keys
        } else if (argument == "--") {
            fgOptions = false;
        } else if (argument == "--check") {
            options.fgCheck = true;
        } else if (argument == "--verbose") {
            options.fgVerbose = true;
        } else if (argument == "--help") {
            std::fputs(kHelp, stdout);
            return DONE;
        } else if (argument == "--version") {
            std::puts("kplist (Kalvoren) " KALVOREN_VERSION);
            return DONE;
        } else {
            return Misuse("unknown option " + argument);
        }
    }
    return options.arguments.empty() ? Misuse("no file given") : Run(options, argc, argv);
}
