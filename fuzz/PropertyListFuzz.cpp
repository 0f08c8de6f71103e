// Any bytes as the text of a property list: the library's reader against the model.
#include "Fuzz.h"
#include "PropertyModel.h"

namespace {

/// Deeper than the stack of the fuzzer's build can take apart by recursion.
bool IsTooDeep(const std::string& text) {
    constexpr std::size_t kTooLong = 16384;
    return text.size() > kTooLong;
}

void Compare(const std::string& text) {
    const fuzz::ModelReader model(text);
    if (!model.IsSure()) {
        return;
    }
    // As one goes over a text by hand: what was not read is left.
    KPropertyList list{KString("")};
    KString rest = fuzz::Made(text);
    fuzz::Expect(list.Parshing(rest, list.GetRoot()), "Parshing is true");
    const fuzz::ModelNode tree = fuzz::TakeTree(*list.GetRoot(), PROPERTY_NONE, "");
    fuzz::ExpectSame(fuzz::Dump(tree), fuzz::Dump(model.Root()), "tree");
    fuzz::ExpectSame(fuzz::TextOf(list.GetHeader()), model.Header(), "header");
    fuzz::ExpectSame(std::string(rest.GetBuffer()), model.Rest(), "rest");

    // As a program does that has the whole text.
    KPropertyList whole(fuzz::Made(text));
    fuzz::ExpectSame(fuzz::Dump(fuzz::TakeTree(*whole.GetRoot(), PROPERTY_NONE, "")), fuzz::Dump(model.Root()),
                     "whole");

    // Going over a text without a node to fill leaves the same rest.
    KString again = fuzz::Made(text);
    list.Parshing(again, nullptr);
    fuzz::ExpectSame(std::string(again.GetBuffer()), model.Rest(), "rest without nodes");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes) {
    fuzz::BeQuiet();
    const std::string text(pBytes, pBytes + nBytes);
    if (!IsTooDeep(text)) {
        Compare(text);
    }
    return 0;
}
