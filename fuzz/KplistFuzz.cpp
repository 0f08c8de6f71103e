// The linter against the reader: where it says that the reader stops, the reader stops, and what it has nothing to say about
// is read whole.
#include "Fuzz.h"
#include "PropertyModel.h"
#include "kplist/Linter.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes) {
    constexpr std::size_t kLongest = 16384;
    fuzz::BeQuiet();
    if (nBytes > kLongest) {
        return 0;
    }
    const std::string text(pBytes, pBytes + nBytes);
    const kplist::Report report = kplist::Lint(text);
    KPropertyList list{KString("")};
    KString rest = fuzz::Made(text);
    list.Parshing(rest, list.GetRoot());
    // Behind a NUL the reader sees nothing.
    const std::size_t nSeen = std::strlen(text.c_str());
    const std::size_t nRead = nSeen - std::strlen(rest.GetBuffer());
    if (nSeen == text.size()) {
        fuzz::ExpectSame(static_cast<long long>(report.nEnd), static_cast<long long>(nRead), "where the reader stops");
    }
    fuzz::Expect(report.nEnd <= text.size(), "the end is in the text");
    if (report.findings.empty()) {
        fuzz::ExpectSame(static_cast<long long>(nRead), static_cast<long long>(text.size()),
                         "what is clean is read whole");
    }
    std::size_t nLine = 1;
    for (const kplist::Finding& finding : report.findings) {
        fuzz::Expect(finding.nLine >= nLine && finding.nColumn >= 1, "findings are in the order of their places");
        nLine = finding.nLine;
    }
    fuzz::TakeTree(*list.GetRoot(), PROPERTY_NONE, "");
    return 0;
}
