// LinearJobs JOB N: does one job on something of size N. What counts is done in Measured(), so that an instrument can
// count there alone.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "KAssert.h"
#include "KDebug.h"
#include "KDirectory.h"
#include "KMem.h"
#include "KMessage.h"
#include "KPropertyList.h"
#include "KString.h"

namespace {

using Job = std::function<void()>;

/// Everything behind the call is measured.
[[gnu::noinline]] void Measured(const Job& job) {
    job();
    std::fflush(stdout);
}

std::string Repeated(const std::string& piece, int nTimes) {
    std::string text;
    for (int i = 0; i < nTimes; ++i) {
        text += piece;
    }
    return text;
}

void Append(int n) {
    KString text;
    Measured([&] {
        for (int i = 0; i < n; ++i) {
            text += "sixteen letters.";
        }
    });
}

void Divide(int n) {
    const KString line(Repeated("field,", n).c_str());
    KList<KString> fields;
    Measured([&] { line.Divide(",", fields); });
}

void Replace(int n) {
    KString text(Repeated("one two ", n).c_str());
    Measured([&] { text.Replace("one", "three"); });
}

void Search(int n) {
    const KString text(Repeated("one two ", n).c_str());
    Measured([&] { text.Find("three", 0); });
}

void FillList(int n) {
    KList<int> list;
    Measured([&] {
        KList<int>::Appender appender(list);
        for (int i = 0; i < n; ++i) {
            appender.Add(i);
        }
    });
}

void CopyList(int n) {
    KList<KString> list;
    {
        KList<KString>::Appender appender(list);
        for (int i = 0; i < n; ++i) {
            appender.Add("text");
        }
    }
    Measured([&] { const KList<KString> copy(list); });
}

void PopList(int n) {
    KList<int> list;
    {
        KList<int>::Appender appender(list);
        for (int i = 0; i < n; ++i) {
            appender.Add(i);
        }
    }
    Measured([&] {
        for (int nValue = 0; list.Pop(nValue, 0);) {
        }
    });
}

void ReadPropertyList(const std::string& contents) {
    const KString text(("<plist>\n<dict>\n" + contents + "</dict>\n</plist>\n").c_str());
    Measured([&] { const KPropertyList list(text); });
}

void ReadFlat(int n) {
    ReadPropertyList(Repeated("\t<key>Width</key>\n\t<integer>1920</integer>\n\t<key>On</key>\n\t<true/>\n", n));
}

void ReadNested(int n) {
    ReadPropertyList(Repeated("<key>Level</key>\n<dict>\n", n) + Repeated("</dict>\n", n));
}

/// A tag without an end, and another, and another.
void ReadBroken(int n) {
    ReadPropertyList(Repeated("<string", n));
}

void OpenDirectory(int n) {
    std::string name = std::filesystem::temp_directory_path() / "kalvoren-linear-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        std::exit(2);
    }
    std::mt19937 random(1);
    for (int i = 0; i < n; ++i) {
        close(open((name + "/" + std::to_string(random())).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    }
    KPath path(name.c_str());
    KDirectory directory;
    Measured([&] { directory.Open(path); });
    directory.Close();
    std::filesystem::remove_all(name);
}

/// Names without an order, of which many are equal.
void SortPaths(int n) {
    KList<KPath> paths;
    {
        std::mt19937 random(1);
        KList<KPath>::Appender appender(paths);
        for (int i = 0; i < n; ++i) {
            appender.Add(KPath(std::to_string(random() % 100).c_str()));
        }
    }
    Measured([&] { KDirectory::Sort(paths, KDirectory::SORT_ASCENDING); });
}

/// The last of n blocks is freed and made again.
void ReuseABlock(int n) {
    KMem::Init();
    std::vector<void*> blocks(static_cast<std::size_t>(n));
    for (void*& pBlock : blocks) {
        pBlock = KMem::Malloc(64);
    }
    Measured([&] {
        for (int i = 0; i < 1000; ++i) {
            KMem::Free(&blocks.back());
            blocks.back() = KMem::Malloc(64);
        }
    });
}

class Counter : public KMessageHandler {
 public:
    virtual ~Counter() = default;
    int HandleMessage(const KMessage&) override { return ++m_nCount; }

 private:
    int m_nCount = 0;
};

void Dispatch(int n) {
    std::vector<std::unique_ptr<Counter>> handlers;
    KString name("event");
    for (int i = 0; i < n; ++i) {
        handlers.push_back(std::make_unique<Counter>());
        KMessageHandler::Register(handlers.back().get(), name);
    }
    Measured([&] { KMessageHandler::SendMessage(name, KMessage()); });
}

}  // namespace

int main(int argc, char** argv) {
    const std::map<std::string, void (*)(int)> jobs = {
        {"Append", Append},         {"Divide", Divide},          {"Replace", Replace},
        {"Search", Search},         {"FillList", FillList},      {"CopyList", CopyList},
        {"PopList", PopList},       {"ReadFlat", ReadFlat},      {"ReadNested", ReadNested},
        {"ReadBroken", ReadBroken}, {"SortPaths", SortPaths},    {"OpenDirectory", OpenDirectory},
        {"Dispatch", Dispatch},     {"ReuseABlock", ReuseABlock}};
    const auto job = argc == 3 ? jobs.find(argv[1]) : jobs.end();
    if (job == jobs.end()) {
        std::fprintf(stderr, "Usage: LinearJobs JOB N\n");
        return 2;
    }
    g_eDebugLevel = 3;
    KAssert::SetActive(false);
    job->second(std::atoi(argv[2]));
    return 0;
}
