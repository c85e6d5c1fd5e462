// The "#LZ2" container against raw LZO over the same data in the same run.
//
// Data: 100 MB of mixed content, built once: 40 MB of word text, 35 MB of
// packed record arrays ("#RA2" tables from the public KWA API) and 25 MB of
// random bytes.  The raw peers call lzo1x_1_compress / lzo1x_decompress_safe
// on the same 64,480-byte chunks that the container uses, so the difference
// is the container's own cost (headers, the stored-chunk decision, checks).
//
//   bench_lzop                          run the benchmarks
//   bench_lzop --write_data=PATH        write the data set (for scripts/bench_lzop_cli.sh)
#include <VomKwz.h>
#include <benchmark/benchmark.h>
#include <lzo/lzo1x.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
constexpr size_t kMB = 1u << 20;
constexpr size_t kChunk = 64480;

void AppendText(Bytes* out, size_t n, std::mt19937* rng) {
    static const char* const words[] = {
        "the", "of", "and", "record", "table", "key", "value", "server", "client", "order",
        "shipment", "warehouse", "north", "south", "price", "quantity", "customer", "invoice",
        "stream", "packet", "a", "to", "in", "is", "for", "with", "on", "by", "from", "at",
        "status", "pending", "delivered", "cancelled", "2024", "March", "Monday", "total"};
    constexpr size_t kWords = sizeof words / sizeof words[0];
    size_t target = out->size() + n;
    int column = 0;
    while (out->size() < target) {
        const char* w = words[(*rng)() % kWords];
        out->insert(out->end(), w, w + std::strlen(w));
        column += int(std::strlen(w)) + 1;
        out->push_back(column > 72 ? '\n' : ' ');
        if (column > 72) column = 0;
    }
    out->resize(target);
}

void AppendRandom(Bytes* out, size_t n, std::mt19937* rng) {
    for (size_t i = 0; i < n; ++i) out->push_back(uint8_t((*rng)() >> 13));
}

KWRVal Int32Cell(int32_t v) {
    KWRVal c{};
    c.type = iFldType_Int32;
    std::memcpy(c.value, &v, 4);
    return c;
}

// One packed table of `records` records; empty when the record-array API
// refuses (then the caller falls back to raw record images).
Bytes PackedTable(int records, std::mt19937* rng) {
    KWArray* array = nullptr;
    if (KWACreate(&array, nullptr) != 0 || !array) return {};
    KWRFieldDef defs[5] = {};
    const struct {
        const char* name;
        uint8_t type, width;
    } fields[5] = {{"Id", iFldType_Int32, 0},
                   {"Code", iFldType_Char, 16},
                   {"Price", iFldType_Double, 0},
                   {"Qty", iFldType_Int32, 0},
                   {"Stamp", iFldType_Int64, 0}};
    for (int i = 0; i < 5; ++i) {
        std::strcpy(defs[i].name, fields[i].name);
        defs[i].type = fields[i].type;
        defs[i].width = fields[i].width;
    }
    KWAKeyDef key{};
    std::strcpy(key.expression, "Id");
    Bytes table;
    if (KWAFldAdd(array, 5, defs) == 0 && KWAKeyAdd(array, 1, &key) == 0) {
        char code[17];
        for (int i = 0; i < records; ++i) {
            KWRVal cells[5] = {};
            cells[0] = Int32Cell(i);
            int len = std::snprintf(code, sizeof code, "ART-%05u", unsigned((*rng)() % 20000));
            cells[1].type = iFldType_Char;
            uint32_t ulen = uint32_t(len);
            const char* p = code;
            std::memcpy(cells[1].value, &ulen, 4);
            std::memcpy(cells[1].value + 4, &p, 8);
            cells[2].type = iFldType_Double;
            double price = double((*rng)() % 100000) / 100.0;
            std::memcpy(cells[2].value, &price, 8);
            cells[3] = Int32Cell(int32_t((*rng)() % 500));
            cells[4].type = iFldType_Int64;
            int64_t stamp = 1700000000000 + int64_t(i) * 1000 + int64_t((*rng)() % 1000);
            std::memcpy(cells[4].value, &stamp, 8);
            if (!KWARecAdd(array, cells)) break;
        }
        void* block = nullptr;
        uint64_t size = KWAPack(array, &block);
        if (size && block) table.assign(static_cast<uint8_t*>(block), static_cast<uint8_t*>(block) + size);
        KWMemFree(block);
    }
    KWADestroy(array);
    return table;
}

// Fallback: record images of the same shape written back to back.
void AppendImages(Bytes* out, size_t n, std::mt19937* rng) {
    KWRType type;
    KWRTypInit(&type);
    KWRTypSet(&type, 1, "Row|5\r\nId|I4\r\nCode|CH16\r\nPrice|F8\r\nQty|I4\r\nStamp|I8");
    size_t target = out->size() + n;
    std::vector<uint8_t> image(256);
    for (int i = 0; out->size() < target; ++i) {
        KWRVal cells[5] = {};
        cells[0] = Int32Cell(i);
        cells[1].isNull = 1;
        cells[1].type = iFldType_Char;
        cells[2].type = iFldType_Double;
        double price = double((*rng)() % 100000) / 100.0;
        std::memcpy(cells[2].value, &price, 8);
        cells[3] = Int32Cell(int32_t((*rng)() % 500));
        cells[4].type = iFldType_Int64;
        int64_t stamp = 1700000000000 + int64_t(i) * 1000;
        std::memcpy(cells[4].value, &stamp, 8);
        uint32_t size = uint32_t(image.size());
        if (KWRSetBuff(&type, image.data(), cells, &size) != 0) break;
        out->insert(out->end(), image.begin(), image.begin() + size);
    }
    out->resize(target);
    KWRTypFree(&type);
}

struct DataSet {
    Bytes data;
    bool kwaTables = false;
};

const DataSet& Data() {
    static const DataSet set = [] {
        DataSet s;
        std::mt19937 rng(20240601);
        s.data.reserve(100 * kMB + kChunk);
        AppendText(&s.data, 40 * kMB, &rng);
        // Tables of 100,000 records (about 5 MB each) until 35 MB are there.
        const size_t tablesEnd = s.data.size() + 35 * kMB;
        while (s.data.size() < tablesEnd) {
            Bytes t = PackedTable(100000, &rng);
            if (t.empty()) break;
            s.kwaTables = true;
            size_t take = std::min(t.size(), tablesEnd - s.data.size());
            s.data.insert(s.data.end(), t.begin(), t.begin() + long(take));
        }
        if (s.data.size() < tablesEnd) AppendImages(&s.data, tablesEnd - s.data.size(), &rng);
        AppendRandom(&s.data, 25 * kMB, &rng);
        return s;
    }();
    return set;
}

void Describe(benchmark::State& state, size_t outputBytes) {
    const size_t n = Data().data.size();
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(n));
    state.counters["ratio"] = double(outputBytes) / double(n);
    state.SetLabel(Data().kwaTables ? "text+#RA2 tables+random" : "text+record images+random");
}

// ------------------------------------------------------------ compression

void BM_ContainerCompress(benchmark::State& state) {
    const Bytes& in = Data().data;
    uint32_t bound = uint32_t(in.size() + kChunk / 64 + in.size() / kChunk * 8 + 32);
    Bytes out(bound);
    auto work = std::make_unique<uint8_t[]>(LZO1X_1_MEM_COMPRESS);
    uint32_t size = 0;
    for (auto _ : state) {
        size = bound;
        if (!LZOPCompress_(in.data(), uint32_t(in.size()), out.data(), &size, work.get()))
            state.SkipWithError("LZOPCompress_ failed");
        benchmark::DoNotOptimize(out.data());
    }
    Describe(state, size);
}
BENCHMARK(BM_ContainerCompress)->Unit(benchmark::kMillisecond);

// The same chunks through lzo1x_1_compress, each behind 8 bytes of room as
// in the container, and the same rule for chunks that do not shrink (the
// input is copied instead), but no headers, checks or bound.
void BM_RawLzoCompress(benchmark::State& state) {
    const Bytes& in = Data().data;
    Bytes out(in.size() + in.size() / 16 + (in.size() / kChunk + 1) * 80);
    auto work = std::make_unique<uint8_t[]>(LZO1X_1_MEM_COMPRESS);
    size_t total = 0;
    for (auto _ : state) {
        total = 0;
        for (size_t at = 0; at < in.size(); at += kChunk) {
            lzo_uint len = std::min(kChunk, in.size() - at), packed = 0;
            uint8_t* dst = out.data() + total + 8;
            lzo1x_1_compress(in.data() + at, len, dst, &packed, work.get());
            if (packed >= len) std::memcpy(dst, in.data() + at, len);
            total += 8 + std::min<size_t>(packed, len);
        }
        benchmark::DoNotOptimize(out.data());
    }
    Describe(state, total);
}
BENCHMARK(BM_RawLzoCompress)->Unit(benchmark::kMillisecond);

int32_t ReadMem(void* context, void* buffer, int32_t size);
int32_t WriteMem(void* context, const void* buffer, int32_t size);

struct MemPipe {
    const Bytes* in;
    size_t pos = 0;
    uint8_t* out;
    size_t written = 0;
};

int32_t ReadMem(void* context, void* buffer, int32_t size) {
    auto* p = static_cast<MemPipe*>(context);
    size_t n = std::min(size_t(size), p->in->size() - p->pos);
    std::memcpy(buffer, p->in->data() + p->pos, n);
    p->pos += n;
    return int32_t(n);
}

int32_t WriteMem(void* context, const void* buffer, int32_t size) {
    auto* p = static_cast<MemPipe*>(context);
    std::memcpy(p->out + p->written, buffer, size_t(size));
    p->written += size_t(size);
    return size;
}

void BM_StreamCompress(benchmark::State& state) {
    const Bytes& in = Data().data;
    Bytes out(in.size() + in.size() / 8);
    size_t written = 0;
    for (auto _ : state) {
        MemPipe pipe{&in, 0, out.data()};
        if (!LZOPCompress(&pipe, ReadMem, WriteMem)) state.SkipWithError("LZOPCompress failed");
        written = pipe.written;
    }
    Describe(state, written);
}
BENCHMARK(BM_StreamCompress)->Unit(benchmark::kMillisecond);

// ------------------------------------------------------------ decompression

struct Compressed {
    Bytes container;
    std::vector<std::pair<size_t, size_t>> chunks;  // offset and size in raw; size 0 = stored
    Bytes raw;
};

const Compressed& Packed() {
    static const Compressed c = [] {
        Compressed c;
        const Bytes& in = Data().data;
        int32_t len = 0;
        void* block = nullptr;
        KWZDataCompress(int32_t(in.size()), in.data(), &len, &block);
        c.container.assign(static_cast<uint8_t*>(block), static_cast<uint8_t*>(block) + len);
        KWMemFree(block);
        auto work = std::make_unique<uint8_t[]>(LZO1X_1_MEM_COMPRESS);
        Bytes tmp(kChunk + kChunk / 16 + 67);
        for (size_t at = 0; at < in.size(); at += kChunk) {
            lzo_uint n = std::min(kChunk, in.size() - at), packed = 0;
            lzo1x_1_compress(in.data() + at, n, tmp.data(), &packed, work.get());
            if (packed >= n) {
                c.chunks.push_back({c.raw.size(), 0});
                c.raw.insert(c.raw.end(), in.begin() + long(at), in.begin() + long(at + n));
                continue;
            }
            c.chunks.push_back({c.raw.size(), packed});
            c.raw.insert(c.raw.end(), tmp.begin(), tmp.begin() + long(packed));
        }
        return c;
    }();
    return c;
}

void BM_ContainerDecompress(benchmark::State& state) {
    const Compressed& c = Packed();
    Bytes out(Data().data.size());
    for (auto _ : state) {
        uint32_t room = uint32_t(out.size());
        if (!LZOPDecompress_(c.container.data(), out.data(), &room, 0))
            state.SkipWithError("LZOPDecompress_ failed");
        benchmark::DoNotOptimize(out.data());
    }
    Describe(state, c.container.size());
}
BENCHMARK(BM_ContainerDecompress)->Unit(benchmark::kMillisecond);

// The same chunks through lzo1x_decompress_safe (chunks that did not shrink
// are copied, as the container stores them), with no headers to parse.
void BM_RawLzoDecompress(benchmark::State& state) {
    const Compressed& c = Packed();
    Bytes out(Data().data.size());
    for (auto _ : state) {
        size_t at = 0;
        for (const auto& [offset, size] : c.chunks) {
            lzo_uint len = std::min(kChunk, out.size() - at);
            if (size == 0)
                std::memcpy(out.data() + at, c.raw.data() + offset, len);
            else
                lzo1x_decompress_safe(c.raw.data() + offset, size, out.data() + at, &len, nullptr);
            at += len;
        }
        benchmark::DoNotOptimize(out.data());
    }
    Describe(state, c.raw.size());
}
BENCHMARK(BM_RawLzoDecompress)->Unit(benchmark::kMillisecond);

void BM_StreamDecompress(benchmark::State& state) {
    const Compressed& c = Packed();
    Bytes out(Data().data.size());
    for (auto _ : state) {
        MemPipe pipe{&c.container, 0, out.data()};
        if (!LZOPDecompress(&pipe, ReadMem, WriteMem, 0)) state.SkipWithError("LZOPDecompress failed");
    }
    Describe(state, c.container.size());
}
BENCHMARK(BM_StreamDecompress)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    const std::string flag = "--write_data=";
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], flag.c_str(), flag.size()) != 0) continue;
        const Bytes& d = Data().data;
        FILE* f = std::fopen(argv[i] + flag.size(), "wb");
        if (!f || std::fwrite(d.data(), 1, d.size(), f) != d.size() || std::fclose(f) != 0) {
            std::perror(argv[i] + flag.size());
            return 1;
        }
        std::printf("%zu bytes (%s)\n", d.size(),
                    Data().kwaTables ? "text, #RA2 tables, random" : "text, record images, random");
        return 0;
    }
    if (lzo_init() != LZO_E_OK) return 1;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
