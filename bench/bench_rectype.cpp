// Record types: parsing definitions (types/s) and looking fields up by name
// (lookups/s), against std::unordered_map<std::string, const KWRField*> with a
// case-insensitive hash and equality (names are compared ignoring case).
// Queries are spelled in upper case, so both sides have to fold; the map's
// queries are std::string objects built before the timed loop.
#include <VomKwz.h>
#include <benchmark/benchmark.h>
#include <strings.h>

#include <cctype>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

std::string FieldName(int i) { return "Field" + std::to_string(i) + "_Value"; }

// A definition of n fields cycling through the type codes.
std::string Definition(int n) {
    static const char* const kCodes[] = {"I4", "CH20", "F8", "I8", "CM", "L1", "I2", "CH64", "CB", "B1"};
    std::string d = "Bench|" + std::to_string(n) + "|benchmark type";
    for (int i = 0; i < n; ++i) d += "\r\n" + FieldName(i) + "|" + kCodes[i % 10];
    return d;
}

std::vector<std::string> UpperNames(int n) {
    std::vector<std::string> names;
    for (int i = 0; i < n; ++i) {
        std::string s = FieldName(i);
        for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        names.push_back(s);
    }
    return names;
}

void BM_ParseType(benchmark::State& state) {
    const std::string def = Definition(static_cast<int>(state.range(0)));
    KWRType type;
    KWRTypInit(&type);
    for (auto _ : state) {
        if (KWRTypSet(&type, 1, def.c_str()) != 0) state.SkipWithError("parse failed");
        benchmark::DoNotOptimize(type.fields);
    }
    KWRTypFree(&type);
    state.counters["types/s"] = benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_ParseType)->Arg(10)->Arg(200);

void BM_LookupKwz(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    KWRType type;
    KWRTypInit(&type);
    KWRTypSet(&type, 1, Definition(n).c_str());
    const std::vector<std::string> names = UpperNames(n);
    for (auto _ : state) {
        for (const auto& name : names) benchmark::DoNotOptimize(KWRFldByName(&type, name.c_str()));
    }
    KWRTypFree(&type);
    state.counters["lookups/s"] =
        benchmark::Counter(double(state.iterations()) * n, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_LookupKwz)->Arg(10)->Arg(200);

// FNV-1a over ASCII-lower-cased bytes; equality ignoring ASCII case, as the
// library's own lookup does.
struct CaseHash {
    size_t operator()(const std::string& s) const {
        uint64_t h = 1469598103934665603ull;
        for (unsigned char c : s) h = (h ^ (c >= 'A' && c <= 'Z' ? c + 32u : c)) * 1099511628211ull;
        return static_cast<size_t>(h);
    }
};
struct CaseEqual {
    bool operator()(const std::string& a, const std::string& b) const {
        return a.size() == b.size() && strcasecmp(a.c_str(), b.c_str()) == 0;
    }
};

void BM_LookupUnorderedMap(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    KWRType type;
    KWRTypInit(&type);
    KWRTypSet(&type, 1, Definition(n).c_str());
    std::unordered_map<std::string, const KWRField*, CaseHash, CaseEqual> map;
    for (int i = 0; i < n; ++i) map.emplace(type.fields[i].name, &type.fields[i]);
    const std::vector<std::string> names = UpperNames(n);
    for (auto _ : state) {
        for (const auto& name : names) benchmark::DoNotOptimize(map.find(name));
    }
    KWRTypFree(&type);
    state.counters["lookups/s"] =
        benchmark::Counter(double(state.iterations()) * n, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_LookupUnorderedMap)->Arg(10)->Arg(200);

}  // namespace

BENCHMARK_MAIN();
