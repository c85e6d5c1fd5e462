// Parsing XML documents of 1 MB and 50 MB: this library against pugixml and
// tinyxml2, in the same run, on the same bytes (none of the three parses in
// place: pugixml and tinyxml2 copy the text, this library copies names and
// values), each into a full tree with the declaration, comments and CDATA
// sections (pugixml leaves out runs of blanks between tags, which this
// library keeps as values).
//
// cycle:0 times the parse alone: the tree is freed with the clock paused.
// cycle:1 times parse and free together.  All three are treated alike.
//
// Memory kept between parses is alike for all three: the node pool of this
// library keeps up to 8 MB of spare slabs, and the heap keeps up to 8 MB at
// its top (blocks up to 32 MB come from the heap, not mapped each time).
// Without this the peers' 1 MB times would be mostly the kernel's page
// faults; at 50 MB all three map most of their memory afresh each time.
//
// Memory is measured in one untimed parse before the timed ones, with every
// heap call counted: "peak_MB" is the most the parse held at once above what
// was held before (heap, plus this library's pool slabs), "tree_MB" what the
// parsed tree holds.  The input text is not counted.  BM_KwzScaling parses
// and writes documents of 10 MB and 100 MB and reports how the time grows
// ("ratio_100_10": 10 is linear).
//   bench_xml --benchmark_filter='MB:1/' --benchmark_repetitions=5
#include <benchmark/benchmark.h>

#include <VomKwz.h>
#include <malloc.h>
#include <time.h>

#include <pugixml.hpp>
#include <tinyxml2.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

// The heap, counted: the calls go to the C library's allocator and, while
// counting is on, the bytes held and their peak are kept (one thread only).
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);
}

namespace {
bool g_counting = false;
long g_held = 0;
long g_peak = 0;

void* Counted(void* block) {
    if (block && g_counting) {
        g_held += static_cast<long>(malloc_usable_size(block));
        g_peak = std::max(g_peak, g_held);
    }
    return block;
}
void Uncount(void* block) {
    if (block && g_counting) g_held -= static_cast<long>(malloc_usable_size(block));
}
}  // namespace

extern "C" {
void* malloc(size_t n) { return Counted(__libc_malloc(n)); }
void* calloc(size_t n, size_t size) { return Counted(__libc_calloc(n, size)); }
void* realloc(void* block, size_t n) {
    Uncount(block);
    void* moved = __libc_realloc(block, n);
    if (!moved && n) return Counted(block);  // the old block stays
    return Counted(moved);
}
void free(void* block) {
    Uncount(block);
    __libc_free(block);
}
void* memalign(size_t align, size_t n) { return Counted(__libc_memalign(align, n)); }
void* aligned_alloc(size_t align, size_t n) { return Counted(__libc_memalign(align, n)); }
int posix_memalign(void** out, size_t align, size_t n) {
    void* block = Counted(__libc_memalign(align, n));
    if (!block) return ENOMEM;
    *out = block;
    return 0;
}
}

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

// Bytes held by the heap (counted) and the pool.
long Held() { return g_held + static_cast<long>(KWXmlPoolBytes()); }

// parse(text) returns a tree; drop(tree) frees it.  One untimed parse with
// the heap counted gives the memory figures; then the timed runs.
template <typename Parse, typename Drop>
void Run(benchmark::State& state, Parse&& parse, Drop&& drop) {
    const std::string& text = Document(static_cast<size_t>(state.range(0)));
    const bool cycle = state.range(1) != 0;

    g_counting = true;
    g_held = g_peak = 0;
    const long before = Held();
    auto* tree = parse(text);
    const long pool = static_cast<long>(KWXmlPoolBytes());  // the pool only grows during a parse
    const long held = Held() - before;
    const long peak = g_peak + pool - before;
    drop(tree);
    g_counting = false;

    for (auto _ : state) {
        tree = parse(text);
        if (!cycle) state.PauseTiming();
        drop(tree);
        if (!cycle) state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
    state.counters["tree_MB"] = static_cast<double>(held) / (1 << 20);
    state.counters["peak_MB"] = static_cast<double>(peak) / (1 << 20);
}

void BM_Kwz(benchmark::State& state) {
    Run(
        state,
        [](const std::string& text) {
            _tagXMLNode* doc = KWXmlNew(KWXML_DOCUMENT);
            if (KWXmlSetXml(doc, text.c_str(), nullptr) != 0) std::abort();
            return doc;
        },
        [](_tagXMLNode* doc) { KWXmlFree(doc); });
}

void BM_Pugixml(benchmark::State& state) {
    Run(
        state,
        [](const std::string& text) {
            auto* doc = new pugi::xml_document;
            if (!doc->load_buffer(text.data(), text.size(), pugi::parse_default | pugi::parse_comments | pugi::parse_declaration))
                std::abort();
            return doc;
        },
        [](pugi::xml_document* doc) { delete doc; });
}

void BM_Tinyxml2(benchmark::State& state) {
    Run(
        state,
        [](const std::string& text) {
            auto* doc = new tinyxml2::XMLDocument;
            if (doc->Parse(text.data(), text.size()) != tinyxml2::XML_SUCCESS) std::abort();
            return doc;
        },
        [](tinyxml2::XMLDocument* doc) { delete doc; });
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

// Args: megabytes, and 1 to count the free with the parse.  With
// repetitions, "_min" is reported beside the median: on a machine that
// others share, the least time is the steadier figure.
static double Least(const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); }
#define KWZ_XML_SIZES                                                                             \
    ->ArgsProduct({{1, 50}, {0, 1}})->ArgNames({"MB", "cycle"})->Unit(benchmark::kMillisecond) \
        ->ComputeStatistics("min", Least)
BENCHMARK(BM_Kwz) KWZ_XML_SIZES;
BENCHMARK(BM_Pugixml) KWZ_XML_SIZES;
BENCHMARK(BM_Tinyxml2) KWZ_XML_SIZES;

int main(int argc, char** argv) {
    // The heap keeps 8 MB, as the pool keeps 8 MB of spare slabs.
    mallopt(M_TRIM_THRESHOLD, 8 << 20);
    mallopt(M_TOP_PAD, 8 << 20);
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
