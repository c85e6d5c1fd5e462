// Parsing XML documents of 1 MB and 50 MB: this library against pugixml and
// tinyxml2, in the same run.  The time is the parse alone (freeing the tree
// runs with the clock paused; BM_*Cycle counts parse and free together).
// Reports MB/s (bytes_per_second) and the heap
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
        text += "  <item id=\"" + n + "\" sku=\"SKU-" + n +
                "-X\" available=\"true\">\n"
                "    <name>Item number " +
                n +
                " &amp; friends</name>\n"
                "    <price currency=\"EUR\">" +
                std::to_string(i % 1000) +
                ".99</price>\n"
                "    <tags><tag>alpha</tag><tag>beta</tag><tag>gamma</tag></tags>\n";
        if (i % 8 == 0) text += "    <!-- reviewed -->\n    <notes><![CDATA[a < b && c > d]]></notes>\n";
        text +=
            "    <description>A longer text that describes the item in a sentence or two, "
            "with &lt;markup&gt; written as references.</description>\n  </item>\n";
    }
    text += "</catalog>\n";
    return text;
}

size_t HeapInUse() {
    const struct mallinfo2 m = mallinfo2();
    return m.uordblks + m.hblkhd;  // small chunks and mapped blocks
}

// parse(text, before, state) parses, notes the heap held, pauses the clock
// (unless the cycle is measured) and frees.
template <typename Parse>
void Run(benchmark::State& state, Parse&& parse) {
    const std::string& text = Document(static_cast<size_t>(state.range(0)));
    const bool cycle = state.range(1) != 0;
    size_t held = 0;
    for (auto _ : state) {
        const size_t before = HeapInUse();
        held = parse(text, before, [&] {
            if (!cycle) state.PauseTiming();
        });
        if (!cycle) state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
    state.counters["heap_MB"] = static_cast<double>(held) / (1 << 20);
}

void BM_Kwz(benchmark::State& state) {
    Run(state, [](const std::string& text, size_t before, auto pause) {
        _tagXMLNode* doc = KWXmlNew(KWXML_DOCUMENT);
        if (KWXmlSetXml(doc, text.c_str(), nullptr) != 0) std::abort();
        const size_t held = HeapInUse() - before;
        pause();
        KWXmlFree(doc);
        return held;
    });
}

void BM_Pugixml(benchmark::State& state) {
    Run(state, [](const std::string& text, size_t before, auto pause) {
        pugi::xml_document doc;
        if (!doc.load_buffer(text.data(), text.size(), pugi::parse_default | pugi::parse_comments))
            std::abort();
        const size_t held = HeapInUse() - before;
        pause();
        return held;
    });
}

void BM_Tinyxml2(benchmark::State& state) {
    Run(state, [](const std::string& text, size_t before, auto pause) {
        tinyxml2::XMLDocument doc;
        if (doc.Parse(text.data(), text.size()) != tinyxml2::XML_SUCCESS) std::abort();
        const size_t held = HeapInUse() - before;
        pause();
        return held;
    });
}

}  // namespace

// Args: megabytes, and 1 to count the free with the parse.
#define KWZ_XML_SIZES \
    ->ArgsProduct({{1, 50}, {0, 1}})->ArgNames({"MB", "cycle"})->Unit(benchmark::kMillisecond)
BENCHMARK(BM_Kwz) KWZ_XML_SIZES;
BENCHMARK(BM_Pugixml) KWZ_XML_SIZES;
BENCHMARK(BM_Tinyxml2) KWZ_XML_SIZES;
BENCHMARK_MAIN();
