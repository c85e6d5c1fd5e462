// Parsing XML documents of 1 MB and 50 MB: this library against pugixml and
// tinyxml2, in the same run.  The time is the parse alone (freeing the tree
// runs with the clock paused; BM_*Cycle counts parse and free together).
// Reports MB/s (bytes_per_second) and the memory
// that the parsed tree holds ("heap_MB": mallinfo2 before and after the
// parse, plus for this library its node pool, KWXmlPoolBytes; input text
// excluded), which is the peak for all three: none keeps a large temporary
// beyond its tree.  BM_KwzScaling parses and writes documents of 10 MB and
// 100 MB and reports how the time grows ("ratio_100_10": 10 is linear).
//   bench_xml --benchmark_min_time=0.5
#include <benchmark/benchmark.h>

#include <VomKwz.h>
#include <malloc.h>
#include <time.h>

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
    return m.uordblks + m.hblkhd + static_cast<size_t>(KWXmlPoolBytes());  // small chunks, mapped blocks, pool
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

// The records document of the library's tests: small elements with
// attributes and references, 62 bytes a row.
std::string Records(size_t bytes) {
    const std::string row = "<row id=\"12345\" name=\"n &amp; m\"><v>text &lt;1&gt;</v><w/></row>\n";
    std::string text = "<?xml version=\"1.0\"?>\n<table>\n";
    text.reserve(bytes + row.size() + 16);
    while (text.size() < bytes) text += row;
    text += "</table>\n";
    return text;
}

// CPU seconds of this thread.
double ThreadSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// Parse and write of 10 MB and of 100 MB: the time grows with the size, not
// faster (quadratic work would show as a ratio far above 10).
void BM_KwzScaling(benchmark::State& state) {
    double seconds[2] = {0, 0};
    for (auto _ : state) {
        for (int i = 0; i < 2; ++i) {
            const std::string text = Records((i ? size_t{100} : size_t{10}) << 20);
            const double start = ThreadSeconds();
            _tagXMLNode* doc = KWXmlNew(KWXML_DOCUMENT);
            if (KWXmlSetXml(doc, text.c_str(), nullptr) != 0) std::abort();
            char* written = KWXmlGetXml(doc, 0);
            KWMemFree(written);
            KWXmlFree(doc);
            seconds[i] = ThreadSeconds() - start;
        }
    }
    state.counters["s_10MB"] = seconds[0];
    state.counters["s_100MB"] = seconds[1];
    state.counters["ratio_100_10"] = seconds[1] / seconds[0];
}

}  // namespace

BENCHMARK(BM_KwzScaling)->Iterations(1)->Unit(benchmark::kMillisecond);

// Args: megabytes, and 1 to count the free with the parse.
#define KWZ_XML_SIZES \
    ->ArgsProduct({{1, 50}, {0, 1}})->ArgNames({"MB", "cycle"})->Unit(benchmark::kMillisecond)
BENCHMARK(BM_Kwz) KWZ_XML_SIZES;
BENCHMARK(BM_Pugixml) KWZ_XML_SIZES;
BENCHMARK(BM_Tinyxml2) KWZ_XML_SIZES;
BENCHMARK_MAIN();
