// Parsing XML documents of 1 MB and 50 MB: this library against pugixml and
// tinyxml2, in the same run.  Reports MB/s (bytes_per_second) and the heap
// that the parsed tree holds ("heap_MB", mallinfo2 before and after the
// parse, input text excluded), which is the peak for all three: none keeps
// a large temporary beyond its tree.
//   bench_xml --benchmark_min_time=0.5s
#include <benchmark/benchmark.h>

#include <VomKwz.h>
#include <malloc.h>

#include <pugixml.hpp>
#include <tinyxml2.h>

#include <string>

namespace {

// A catalogue: records with attributes, nested elements, text with
// references, comments and a CDATA section now and then.
const std::string& Document(size_t megabytes) {
    static std::string docs[64];
    std::string& text = docs[megabytes];
    if (!text.empty()) return text;
    const size_t bytes = megabytes << 20;
    text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<catalog>\n";
    for (size_t i = 0; text.size() < bytes; ++i) {
        const std::string n = std::to_string(i);
        text += "  <item id=\"" + n + "\" sku=\"SKU-" + n + "-X\" available=\"true\">\n"
                "    <name>Item number " + n + " &amp; friends</name>\n"
                "    <price currency=\"EUR\">" + std::to_string(i % 1000) + ".99</price>\n"
                "    <tags><tag>alpha</tag><tag>beta</tag><tag>gamma</tag></tags>\n";
        if (i % 8 == 0) text += "    <!-- reviewed -->\n    <notes><![CDATA[a < b && c > d]]></notes>\n";
        text += "    <description>A longer text that describes the item in a sentence or two, "
                "with &lt;markup&gt; written as references.</description>\n  </item>\n";
    }
    text += "</catalog>\n";
    return text;
}

size_t HeapInUse() { return mallinfo2().uordblks; }

template <typename Parse>
void Run(benchmark::State& state, Parse&& parse) {
    const std::string& text = Document(static_cast<size_t>(state.range(0)));
    size_t held = 0;
    for (auto _ : state) {
        const size_t before = HeapInUse();
        held = parse(text, before);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
    state.counters["heap_MB"] = static_cast<double>(held) / (1 << 20);
}

void BM_Kwz(benchmark::State& state) {
    Run(state, [](const std::string& text, size_t before) {
        _tagXMLNode* doc = KWXmlNew(KWXML_DOCUMENT);
        if (KWXmlSetXml(doc, text.c_str(), nullptr) != 0) std::abort();
        const size_t held = HeapInUse() - before;
        KWXmlFree(doc);
        return held;
    });
}

void BM_Pugixml(benchmark::State& state) {
    Run(state, [](const std::string& text, size_t before) {
        pugi::xml_document doc;
        if (!doc.load_buffer(text.data(), text.size(), pugi::parse_default | pugi::parse_comments)) std::abort();
        return HeapInUse() - before;
    });
}

void BM_Tinyxml2(benchmark::State& state) {
    Run(state, [](const std::string& text, size_t before) {
        tinyxml2::XMLDocument doc;
        if (doc.Parse(text.data(), text.size()) != tinyxml2::XML_SUCCESS) std::abort();
        return HeapInUse() - before;
    });
}

}  // namespace

BENCHMARK(BM_Kwz)->Arg(1)->Arg(50)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Pugixml)->Arg(1)->Arg(50)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Tinyxml2)->Arg(1)->Arg(50)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
