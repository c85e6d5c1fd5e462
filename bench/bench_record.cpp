// Records against their peers.
//   record_set/<T>, record_get/<T>   one typed setter / getter call
//   build/*   a ten-field message (seven scalars, three texts) from values to
//             its wire bytes: record (new + setters + KWRRecPack), record from
//             cells (KWRSetBuff into a buffer), protobuf (setters +
//             SerializeToArray), C struct (field stores + memcpy)
//   read/*    those wire bytes back to values, every field read: record
//             (copy into a block + KWRRecSet, with and without KWRRecCheck),
//             protobuf (ParseFromArray), C struct (memcpy)
// The C struct is the physical limit: it moves the same values with no
// format at all.  items_per_second is messages (or calls) per second.
#include <VomKwz.h>
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_record.pb.h"

namespace {

constexpr const char* kBenchDef =
    "Bench|10\r\nId|I8\r\nSeq|I4\r\nFlags|B1\r\nActive|L1\r\nPrice|F8\r\nQty|I4\r\nRatio|F4\r\n"
    "Code|CH16\r\nName|CM\r\nData|CB";
constexpr const char* kScalarDef =
    "Scalars|8\r\nB|L1\r\nU8|B1\r\nS8|I1\r\nS16|I2\r\nS32|I4\r\nS64|I8\r\nF32|F4\r\nF64|F8";

const std::string kCode = "ORD-2024-000117";
const std::string kName = "Anna Karenina, second edition";
const std::string kData("\x01\x02\x03\x04\x00\xff\xfe\xfd\x10\x20\x30\x40\x50\x60\x70\x80", 16);

struct Types {
    KWRType bench, scalars;
    Types() {
        KWRTypInit(&bench);
        KWRTypInit(&scalars);
        if (KWRTypSet(&bench, 1, kBenchDef) || KWRTypSet(&scalars, 2, kScalarDef)) std::abort();
    }
    const KWRField* F(int i) const { return &bench.fields[i]; }
};
const Types& T() {
    static const Types types;
    return types;
}

struct Record {
    KWRData r;
    Record() { KWRRecInit(&r); }
    ~Record() { KWRRecFree(&r); }
};

// ------------------------------------------------------------ typed access

template <typename V>
void RegisterScalar(const char* code, int field, uint32_t (*set)(const KWRField*, KWRData*, V),
                    uint32_t (*get)(const KWRField*, const KWRData*, V*), V value) {
    benchmark::RegisterBenchmark((std::string("record_set/") + code).c_str(), [=](benchmark::State& st) {
        Record rec;
        KWRRecNew(&T().scalars, &rec.r);
        const KWRField* f = &T().scalars.fields[field];
        for (auto _ : st) {
            set(f, &rec.r, value);
            benchmark::ClobberMemory();
        }
        st.SetItemsProcessed(st.iterations());
    });
    benchmark::RegisterBenchmark((std::string("record_get/") + code).c_str(), [=](benchmark::State& st) {
        Record rec;
        KWRRecNew(&T().scalars, &rec.r);
        const KWRField* f = &T().scalars.fields[field];
        set(f, &rec.r, value);
        V out{};
        for (auto _ : st) {
            get(f, &rec.r, &out);
            benchmark::DoNotOptimize(out);
        }
        st.SetItemsProcessed(st.iterations());
    });
}

const bool kRegistered = [] {
    RegisterScalar<uint8_t>("L1", 0, KWRSetAsBool, KWRGetAsBool, 1);
    RegisterScalar<uint8_t>("B1", 1, KWRSetAsByte, KWRGetAsByte, 200);
    RegisterScalar<int8_t>("I1", 2, KWRSetAsInt8, KWRGetAsInt8, -5);
    RegisterScalar<int16_t>("I2", 3, KWRSetAsInt16, KWRGetAsInt16, 300);
    RegisterScalar<int32_t>("I4", 4, KWRSetAsInt32, KWRGetAsInt32, 70000);
    RegisterScalar<int64_t>("I8", 5, KWRSetAsInt64, KWRGetAsInt64, int64_t{1} << 40);
    RegisterScalar<float>("F4", 6, KWRSetAsFloat, KWRGetAsFloat, 1.5f);
    RegisterScalar<double>("F8", 7, KWRSetAsDouble, KWRGetAsDouble, -2.25);
    return true;
}();

// ------------------------------------------------------------ the message

struct Plain {
    int64_t id;
    int32_t seq;
    uint8_t flags;
    bool active;
    double price;
    int32_t qty;
    float ratio;
    char code[17];
    uint32_t nameLength;
    char name[64];
    uint32_t dataLength;
    uint8_t data[32];
};

void FillRecord(KWRData* r, int64_t i) {
    const Types& t = T();
    KWRSetAsInt64(t.F(0), r, i);
    KWRSetAsInt32(t.F(1), r, static_cast<int32_t>(i));
    KWRSetAsByte(t.F(2), r, 7);
    KWRSetAsBool(t.F(3), r, 1);
    KWRSetAsDouble(t.F(4), r, 19.99);
    KWRSetAsInt32(t.F(5), r, 3);
    KWRSetAsFloat(t.F(6), r, 0.25f);
    KWRSetAsText(t.F(7), r, static_cast<int32_t>(kCode.size()), kCode.data());
    KWRSetAsText(t.F(8), r, static_cast<int32_t>(kName.size()), kName.data());
    KWRSetAsText(t.F(9), r, static_cast<int32_t>(kData.size()), kData.data());
}

void FillMessage(kwzbench::BenchRecord* m, int64_t i) {
    m->set_id(i);
    m->set_seq(static_cast<int32_t>(i));
    m->set_flags(7);
    m->set_active(true);
    m->set_price(19.99);
    m->set_qty(3);
    m->set_ratio(0.25f);
    m->set_code(kCode);
    m->set_name(kName);
    m->set_data(kData);
}

void FillPlain(Plain* p, int64_t i) {
    p->id = i;
    p->seq = static_cast<int32_t>(i);
    p->flags = 7;
    p->active = true;
    p->price = 19.99;
    p->qty = 3;
    p->ratio = 0.25f;
    std::memcpy(p->code, kCode.c_str(), kCode.size() + 1);
    p->nameLength = static_cast<uint32_t>(kName.size());
    std::memcpy(p->name, kName.data(), kName.size());
    p->dataLength = static_cast<uint32_t>(kData.size());
    std::memcpy(p->data, kData.data(), kData.size());
}

std::vector<uint8_t> PackedImage() {
    Record rec;
    KWRRecNew(&T().bench, &rec.r);
    FillRecord(&rec.r, 42);
    KWRRecPack(&T().bench, &rec.r, 1, 1);
    return {rec.r.image, rec.r.image + rec.r.length};
}

void BM_BuildRecord(benchmark::State& st) {
    Record rec;
    int64_t i = 0;
    for (auto _ : st) {
        KWRRecNew(&T().bench, &rec.r);
        FillRecord(&rec.r, ++i);
        KWRRecPack(&T().bench, &rec.r, 1, 1);
        benchmark::DoNotOptimize(rec.r.image);
    }
    st.SetItemsProcessed(st.iterations());
    st.counters["bytes"] = rec.r.length;
}
BENCHMARK(BM_BuildRecord)->Name("build/record_pack");

void BM_BuildSetBuff(benchmark::State& st) {
    KWRVal cells[10];
    {
        Record rec;
        KWRRecNew(&T().bench, &rec.r);
        FillRecord(&rec.r, 42);
        KWRGetRec(&T().bench, &rec.r, cells);  // text cells point at the constants below
    }
    auto text = [](KWRVal* c, const std::string& s) {
        const char* p = s.data();
        std::memcpy(c->value + 4, &p, sizeof p);
    };
    text(&cells[7], kCode);
    text(&cells[8], kName);
    text(&cells[9], kData);
    uint32_t size = 0;
    KWRSetBuff(&T().bench, nullptr, cells, &size);
    std::vector<uint8_t> buffer(size);
    int64_t i = 0;
    for (auto _ : st) {
        ++i;
        std::memcpy(cells[0].value, &i, 8);
        KWRSetBuff(&T().bench, buffer.data(), cells, &size);
        benchmark::DoNotOptimize(buffer.data());
    }
    st.SetItemsProcessed(st.iterations());
    st.counters["bytes"] = size;
}
BENCHMARK(BM_BuildSetBuff)->Name("build/record_setbuff");

void BM_BuildProtobuf(benchmark::State& st) {
    kwzbench::BenchRecord m;
    std::vector<uint8_t> buffer(256);
    int64_t i = 0;
    size_t size = 0;
    for (auto _ : st) {
        m.Clear();
        FillMessage(&m, ++i);
        size = m.ByteSizeLong();
        m.SerializeToArray(buffer.data(), static_cast<int>(size));
        benchmark::DoNotOptimize(buffer.data());
    }
    st.SetItemsProcessed(st.iterations());
    st.counters["bytes"] = static_cast<double>(size);
}
BENCHMARK(BM_BuildProtobuf)->Name("build/protobuf");

void BM_BuildPlain(benchmark::State& st) {
    Plain p;
    std::vector<uint8_t> buffer(sizeof p);
    int64_t i = 0;
    for (auto _ : st) {
        FillPlain(&p, ++i);
        benchmark::DoNotOptimize(&p);
        std::memcpy(buffer.data(), &p, sizeof p);
        benchmark::DoNotOptimize(buffer.data());
    }
    st.SetItemsProcessed(st.iterations());
    st.counters["bytes"] = sizeof p;
}
BENCHMARK(BM_BuildPlain)->Name("build/memcpy_struct");

// ------------------------------------------------------------ reading back

template <bool kCheck>
void BM_ReadRecord(benchmark::State& st) {
    const std::vector<uint8_t> image = PackedImage();
    const Types& t = T();
    Record rec;
    for (auto _ : st) {
        void* block = std::malloc(image.size());
        std::memcpy(block, image.data(), image.size());
        KWRRecSet(&rec.r, block);
        if (kCheck && KWRRecCheck(&t.bench, &rec.r) != 0) st.SkipWithError("image refused");
        int64_t id;
        int32_t seq, qty;
        uint8_t flags, active;
        double price;
        float ratio;
        uint32_t n[3];
        const char* p[3];
        KWRGetAsInt64(t.F(0), &rec.r, &id);
        KWRGetAsInt32(t.F(1), &rec.r, &seq);
        KWRGetAsByte(t.F(2), &rec.r, &flags);
        KWRGetAsBool(t.F(3), &rec.r, &active);
        KWRGetAsDouble(t.F(4), &rec.r, &price);
        KWRGetAsInt32(t.F(5), &rec.r, &qty);
        KWRGetAsFloat(t.F(6), &rec.r, &ratio);
        for (int k = 0; k < 3; ++k) KWRGetTextRef(t.F(7 + k), &rec.r, &n[k], &p[k]);
        benchmark::DoNotOptimize(id + seq + qty + flags + active + price + ratio + n[0] + n[1] + n[2]);
        benchmark::DoNotOptimize(p);
    }
    st.SetItemsProcessed(st.iterations());
}
BENCHMARK(BM_ReadRecord<false>)->Name("read/record_adopt");
BENCHMARK(BM_ReadRecord<true>)->Name("read/record_adopt_checked");

void BM_ReadProtobuf(benchmark::State& st) {
    kwzbench::BenchRecord m;
    FillMessage(&m, 42);
    const std::string wire = m.SerializeAsString();
    for (auto _ : st) {
        kwzbench::BenchRecord in;
        in.ParseFromArray(wire.data(), static_cast<int>(wire.size()));
        benchmark::DoNotOptimize(in.id() + in.seq() + in.qty() + in.flags() + in.active() + in.price() +
                                 in.ratio() + in.code().size() + in.name().size() + in.data().size());
        benchmark::DoNotOptimize(in.code().data());
    }
    st.SetItemsProcessed(st.iterations());
}
BENCHMARK(BM_ReadProtobuf)->Name("read/protobuf");

void BM_ReadPlain(benchmark::State& st) {
    Plain src;
    FillPlain(&src, 42);
    std::vector<uint8_t> wire(sizeof src);
    std::memcpy(wire.data(), &src, sizeof src);
    for (auto _ : st) {
        Plain p;
        benchmark::DoNotOptimize(wire.data());
        std::memcpy(&p, wire.data(), sizeof p);
        benchmark::DoNotOptimize(p.id + p.seq + p.qty + p.flags + p.active + p.price + p.ratio +
                                 p.nameLength + p.dataLength);
        benchmark::DoNotOptimize(&p);
    }
    st.SetItemsProcessed(st.iterations());
}
BENCHMARK(BM_ReadPlain)->Name("read/memcpy_struct");

}  // namespace

BENCHMARK_MAIN();
