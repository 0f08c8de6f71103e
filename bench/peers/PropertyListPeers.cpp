// A configuration's text made a tree, and destroyed.
#include <string>

#include "KPropertyList.h"
#include "Peers.h"

#ifdef KALVOREN_PEER_EXPAT
#include <expat.h>
#endif
#ifdef KALVOREN_PEER_PUGIXML
#include <pugixml.hpp>
#endif
#ifdef KALVOREN_PEER_LIBPLIST
#include <plist/plist.h>
#endif

namespace {

/// A configuration of about a size: streams of a device, one behind the other.
std::string Configuration(std::int64_t nSize) {
    const std::string stream =
        "\t\t<dict>\n\t\t\t<key>Name</key>\n\t\t\t<string>Main stream</string>\n\t\t\t<key>Width</key>\n"
        "\t\t\t<integer>1920</integer>\n\t\t\t<key>Bitrate</key>\n\t\t\t<integer>4096</integer>\n\t\t\t<key>Audio</"
        "key>\n"
        "\t\t\t<true/>\n\t\t</dict>\n";
    std::string text =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist "
        "version=\"1.0\">\n<dict>\n\t<key>Streams</key>\n\t<array>\n";
    while (static_cast<std::int64_t>(text.size()) < nSize) {
        text += stream;
    }
    return text + "\t</array>\n</dict>\n</plist>\n";
}

void Sizes(benchmark::internal::Benchmark* job) {
    job->Arg(10000)->Arg(100000)->Arg(1000000)->Arg(10000000)->Arg(30000000)->Unit(benchmark::kMicrosecond);
}

void ReadKalvoren(benchmark::State& state) {
    const KString text(Configuration(state.range(0)).c_str());
    for (auto _ : state) {
        KPropertyList list(text);
        benchmark::DoNotOptimize(list.GetRoot());
    }
}
BENCHMARK(ReadKalvoren)->Name("read a property list of n bytes|Kalvoren")->Apply(Sizes);

#ifdef KALVOREN_PEER_EXPAT
struct Seen {
    std::size_t nElements = 0;
    std::size_t nBytes = 0;
};

/// The elements and bytes are counted; no tree is made.
void ReadExpat(benchmark::State& state) {
    const std::string text = Configuration(state.range(0));
    for (auto _ : state) {
        Seen seen;
        XML_ParserStruct* const parser = XML_ParserCreate(nullptr);
        XML_SetUserData(parser, &seen);
        XML_SetElementHandler(
            parser, [](void* pSeen, const XML_Char*, const XML_Char**) { ++static_cast<Seen*>(pSeen)->nElements; },
            [](void*, const XML_Char*) {});
        XML_SetCharacterDataHandler(parser, [](void* pSeen, const XML_Char*, int nLength) {
            static_cast<Seen*>(pSeen)->nBytes += static_cast<std::size_t>(nLength);
        });
        if (XML_Parse(parser, text.data(), static_cast<int>(text.size()), XML_TRUE) != XML_STATUS_OK) {
            state.SkipWithError("the text was not read");
        }
        XML_ParserFree(parser);
        benchmark::DoNotOptimize(seen);
    }
}
BENCHMARK(ReadExpat)->Name("read a property list of n bytes|expat: no tree")->Apply(Sizes);
#endif

#ifdef KALVOREN_PEER_PUGIXML
void ReadPugixml(benchmark::State& state) {
    const std::string text = Configuration(state.range(0));
    for (auto _ : state) {
        pugi::xml_document document;
        if (!document.load_buffer(text.data(), text.size())) {
            state.SkipWithError("the text was not read");
        }
        benchmark::DoNotOptimize(document);
    }
}
BENCHMARK(ReadPugixml)->Name("read a property list of n bytes|pugixml")->Apply(Sizes);
#endif

#ifdef KALVOREN_PEER_LIBPLIST
void ReadLibplist(benchmark::State& state) {
    const std::string text = Configuration(state.range(0));
    for (auto _ : state) {
        plist_t list = nullptr;
        plist_from_xml(text.data(), static_cast<std::uint32_t>(text.size()), &list);
        if (list == nullptr) {
            state.SkipWithError("the text was not read");
        }
        benchmark::DoNotOptimize(list);
        plist_free(list);
    }
}
BENCHMARK(ReadLibplist)->Name("read a property list of n bytes|libplist")->Apply(Sizes);
#endif

}  // namespace
