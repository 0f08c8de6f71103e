// Any bytes as the text of a property list, and as a file: the library's reader against the model, and what the nodes
// make of their texts.
#include <sys/mman.h>
#include <unistd.h>

#include "Fuzz.h"
#include "PropertyModel.h"

namespace {

/// A file that is in memory alone and goes with the process, however that ends.
class ScratchFile {
 public:
    ScratchFile() : m_nFile(memfd_create("list", MFD_CLOEXEC)) {
        fuzz::Expect(m_nFile >= 0, "there is a scratch file");
        m_Path.SetPath(fuzz::Made("/proc/self/fd/" + std::to_string(m_nFile)));
    }

    /// Makes it hold some bytes, which need be no text.
    const KPath& Holding(const std::string& bytes) {
        const bool fgWritten = ftruncate(m_nFile, 0) == 0 &&
                               pwrite(m_nFile, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size());
        fuzz::Expect(fgWritten, "the scratch file is written");
        return m_Path;
    }

 private:
    int m_nFile;
    KPath m_Path;
};

std::string TreeOf(KPropertyList& list) {
    return fuzz::Dump(fuzz::TakeTree(*list.GetRoot()));
}

/// As programs do it: from a file, on their own or as the process's list, which is read once.
void CompareFile(const std::string& text, const fuzz::ModelReader& model) {
    static ScratchFile file;
    const KPath& path = file.Holding(text);
    KPropertyList list(path);
    fuzz::ExpectSame(TreeOf(list), fuzz::Dump(model.Root()), "tree of a file");
    fuzz::ExpectSame(fuzz::TextOf(list.GetHeader()), model.Header(), "header of a file");

    KPropertyList::Init(path);
    KPropertyList* const pList = KPropertyList::GetInstance();
    fuzz::Expect(pList != nullptr, "the process has a list");
    KPropertyList::Init(file.Holding("<plist><key>another</key></plist>"));
    fuzz::Expect(KPropertyList::GetInstance() == pList, "it is read once");
    fuzz::ExpectSame(TreeOf(*pList), fuzz::Dump(model.Root()), "tree of the process");
    fuzz::ExpectSame(fuzz::TextOf(pList->GetHeader()), model.Header(), "header of it");
    KPropertyList::Deinit();
    fuzz::Expect(KPropertyList::GetInstance() == nullptr, "it is gone");
}

void Compare(const std::string& text) {
    const fuzz::ModelReader model(text);
    // As one goes over a text by hand: what was not read is left.
    KPropertyList list{KString("")};
    KString rest = fuzz::Made(text);
    fuzz::Expect(list.Parshing(rest, list.GetRoot()), "Parshing is true");
    const fuzz::ModelNode tree = fuzz::TakeTree(*list.GetRoot(), fuzz::CompareGetters);
    fuzz::ExpectSame(fuzz::Dump(tree), fuzz::Dump(model.Root()), "tree");
    fuzz::ExpectSame(fuzz::TextOf(list.GetHeader()), model.Header(), "header");
    fuzz::ExpectSame(std::string(rest.GetBuffer()), model.Rest(), "rest");

    // As a program does that has the whole text.
    KPropertyList whole(fuzz::Made(text));
    fuzz::ExpectSame(TreeOf(whole), fuzz::Dump(model.Root()), "whole");

    // Going over a text without a node to fill leaves the same rest.
    KString again = fuzz::Made(text);
    list.Parshing(again, nullptr);
    fuzz::ExpectSame(std::string(again.GetBuffer()), model.Rest(), "rest without nodes");

    CompareFile(text, model);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes) {
    fuzz::BeQuiet();
    Compare(std::string(pBytes, pBytes + nBytes));
    return 0;
}
