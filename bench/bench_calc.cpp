// Calculator values against their peers, on one data set: an array of 1,000
// strings of 16 bytes each (just past the small-string buffer of std::string,
// so both sides allocate per element).
//
//   copy       CVarCopy (deep)        vs copying std::vector<Value>
//   refcopy    CVarCopyRef            vs copying a std::shared_ptr to it
//   serialise  CVarToBuff (measure,   vs msgpack::pack into a reused sbuffer
//              then write)
//   parse      CVarFromBuffN          vs msgpack::unpack (its object tree)
//
// Value is the usual recursive variant: empty, int64, double, string, array.
#include <VomKwz.h>
#include <benchmark/benchmark.h>
#include <msgpack.hpp>

#include <cstdio>
#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace {

constexpr int kCount = 1000;

struct Value {
    std::variant<std::monostate, int64_t, double, std::string, std::vector<Value>> v;
};

std::string Item(int i) {
    char text[17];
    std::snprintf(text, sizeof text, "item-%011d", i);
    return std::string(text, 16);
}

struct Data {
    CVar value{};
    Value peer;
    std::vector<uint8_t> image;
    msgpack::sbuffer packed;

    Data() {
        CVarSetArr(&value, kCount);
        std::vector<Value> items(kCount);
        std::vector<std::string> strings;
        for (int i = 0; i < kCount; ++i) {
            const std::string s = Item(i);
            CVarSetStr(&value.v.a[i], s.data(), int32_t(s.size()));
            items[size_t(i)].v = s;
            strings.push_back(s);
        }
        peer.v = std::move(items);
        image.resize(size_t(CVarToBuff(&value, nullptr, 0)));
        CVarToBuff(&value, image.data(), int32_t(image.size()));
        msgpack::pack(packed, strings);
    }
    ~Data() { CVarSetEmpty(&value); }
};

Data& TheData() {
    static Data data;
    return data;
}

void BM_CalcCopy(benchmark::State& state) {
    const CVar& src = TheData().value;
    CVar dst{};
    for (auto _ : state) {
        CVarCopy(&dst, &src);
        benchmark::DoNotOptimize(dst.v.a);
    }
    CVarSetEmpty(&dst);
}

void BM_VariantCopy(benchmark::State& state) {
    const Value& src = TheData().peer;
    for (auto _ : state) {
        Value dst = src;
        benchmark::DoNotOptimize(dst);
    }
}

void BM_CalcRefCopy(benchmark::State& state) {
    const CVar& src = TheData().value;
    CVar dst{};
    for (auto _ : state) {
        CVarCopyRef(&dst, &src);
        benchmark::DoNotOptimize(dst.v.a);
    }
    CVarSetEmpty(&dst);
}

void BM_SharedPtrCopy(benchmark::State& state) {
    const auto src = std::make_shared<const Value>(TheData().peer);
    for (auto _ : state) {
        std::shared_ptr<const Value> dst = src;
        benchmark::DoNotOptimize(dst);
    }
}

void BM_CalcSerialise(benchmark::State& state) {
    const CVar& src = TheData().value;
    std::vector<uint8_t> out(TheData().image.size());
    for (auto _ : state) {
        const int32_t n = CVarToBuff(&src, nullptr, 0);
        benchmark::DoNotOptimize(CVarToBuff(&src, out.data(), n));
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(out.size()));
}

void BM_MsgpackPack(benchmark::State& state) {
    // The same strings as a std::vector<std::string> (msgpack's own array).
    std::vector<std::string> strings;
    for (int i = 0; i < kCount; ++i) strings.push_back(Item(i));
    msgpack::sbuffer buffer;
    for (auto _ : state) {
        buffer.clear();
        msgpack::pack(buffer, strings);
        benchmark::DoNotOptimize(buffer.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(buffer.size()));
}

void BM_CalcParse(benchmark::State& state) {
    const std::vector<uint8_t>& image = TheData().image;
    CVar v{};
    for (auto _ : state) {
        benchmark::DoNotOptimize(CVarFromBuffN(&v, image.data(), int32_t(image.size())));
    }
    CVarSetEmpty(&v);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(image.size()));
}

void BM_MsgpackUnpack(benchmark::State& state) {
    const msgpack::sbuffer& packed = TheData().packed;
    for (auto _ : state) {
        msgpack::object_handle oh = msgpack::unpack(packed.data(), packed.size());
        benchmark::DoNotOptimize(oh.get().via.array.size);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(packed.size()));
}

// Unpacking into owned strings, as the value reader does.
void BM_MsgpackUnpackConvert(benchmark::State& state) {
    const msgpack::sbuffer& packed = TheData().packed;
    for (auto _ : state) {
        msgpack::object_handle oh = msgpack::unpack(packed.data(), packed.size());
        std::vector<std::string> strings = oh.get().as<std::vector<std::string>>();
        benchmark::DoNotOptimize(strings.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(packed.size()));
}

}  // namespace

BENCHMARK(BM_CalcCopy);
BENCHMARK(BM_VariantCopy);
BENCHMARK(BM_CalcRefCopy);
BENCHMARK(BM_SharedPtrCopy);
BENCHMARK(BM_CalcSerialise);
BENCHMARK(BM_MsgpackPack);
BENCHMARK(BM_CalcParse);
BENCHMARK(BM_MsgpackUnpack);
BENCHMARK(BM_MsgpackUnpackConvert);

BENCHMARK_MAIN();
