// Record arrays at scale: 1,000,000 rows of (id I4, name CH20, value F8),
// in random id order into an array with a Unique key on id and a second key
// on name, two ways: posted (KWARecNew, the typed setters, KWARecPost) and
// added (KWARecAdd with value cells); seeks by id; packing and both
// unpackers.  Peers in the
// same run: std::map (id) + std::multimap (name) holding the same rows, and
// SQLite in memory (a table with a unique index on id and an index on name,
// inserts in one transaction, prepared point queries).
//
// Run: bench_recarr --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <VomKwz.h>
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int32_t kRows = 1000000;

struct Row {
    int32_t id;
    std::string name;
    double value;
};

// The same rows for everyone: ids 0..N-1 shuffled, random lowercase names.
const std::vector<Row>& Rows() {
    static const std::vector<Row> rows = [] {
        std::mt19937_64 rng(42);
        std::vector<int32_t> ids(kRows);
        std::iota(ids.begin(), ids.end(), 0);
        std::shuffle(ids.begin(), ids.end(), rng);
        std::vector<Row> out;
        out.reserve(kRows);
        for (int32_t id : ids) {
            std::string name(6 + rng() % 12, ' ');
            for (auto& c : name) c = static_cast<char>('a' + rng() % 26);
            out.push_back(Row{id, name, static_cast<double>(rng() % 1000000) / 100.0});
        }
        return out;
    }();
    return rows;
}

// Lookup order for the seeks: every id once, shuffled differently.
const std::vector<int32_t>& Probes() {
    static const std::vector<int32_t> probes = [] {
        std::vector<int32_t> p(kRows);
        std::iota(p.begin(), p.end(), 0);
        std::shuffle(p.begin(), p.end(), std::mt19937_64(7));
        return p;
    }();
    return probes;
}

// ---- VomKwz record array ---------------------------------------------------

KWRVal Cell(uint8_t type, const void* value, size_t size) {
    KWRVal v;
    std::memset(&v, 0, sizeof v);
    v.type = type;
    std::memcpy(v.value, value, size);
    return v;
}

KWArray* BuildArray() {
    KWArray* a = nullptr;
    KWACreate(&a, nullptr);
    KWRFieldDef fields[3];
    std::memset(fields, 0, sizeof fields);
    std::strcpy(fields[0].name, "id");
    fields[0].type = iFldType_Int32;
    std::strcpy(fields[1].name, "name");
    fields[1].type = iFldType_Char;
    fields[1].width = 20;
    std::strcpy(fields[2].name, "value");
    fields[2].type = iFldType_Double;
    KWAFldAdd(a, 3, fields);
    KWAKeyDef keys[2];
    std::memset(keys, 0, sizeof keys);
    std::strcpy(keys[0].expression, "id");
    keys[0].options = iKeyOpt_Unique;
    std::strcpy(keys[1].expression, "name");
    KWAKeyAdd(a, 2, keys);
    return a;
}

// KWARecNew, one setter per field, KWARecPost.
void PostAll(KWArray* a) {
    const KWRType* type = KWAType(a);
    const KWRField* id = KWRFldByName(type, "id");
    const KWRField* name = KWRFldByName(type, "name");
    const KWRField* value = KWRFldByName(type, "value");
    for (const Row& r : Rows()) {
        KWRData* rec = KWARecNew(a);
        if (!rec) std::abort();
        KWRSetAsInt32(id, rec, r.id);
        KWRSetAsText(name, rec, static_cast<int32_t>(r.name.size()), r.name.data());
        KWRSetAsDouble(value, rec, r.value);
        if (KWARecPost(rec, nullptr) != 0) std::abort();
    }
}

// KWARecAdd with a row of value cells.
void AddAll(KWArray* a) {
    for (const Row& r : Rows()) {
        const char* text = r.name.c_str();
        const uint32_t n = static_cast<uint32_t>(r.name.size());
        KWRVal cells[3] = {Cell(iFldType_Int32, &r.id, 4), Cell(iFldType_Char, &n, 4), Cell(iFldType_Double, &r.value, 8)};
        std::memcpy(cells[1].value + 4, &text, sizeof text);
        if (!KWARecAdd(a, cells)) std::abort();
    }
}

KWArray* SharedArray() {
    static KWArray* a = [] {
        KWArray* built = BuildArray();
        AddAll(built);
        return built;
    }();
    return a;
}

std::vector<uint8_t>& SharedTable() {
    static std::vector<uint8_t> table = [] {
        void* block = nullptr;
        const uint64_t n = KWAPack(SharedArray(), &block);
        std::vector<uint8_t> out(static_cast<uint8_t*>(block), static_cast<uint8_t*>(block) + n);
        KWMemFree(block);
        return out;
    }();
    return table;
}

// Fills a fresh array per iteration; destroying it is not timed.
void FillKwz(benchmark::State& state, void (*fill)(KWArray*)) {
    Rows();
    for (auto _ : state) {
        KWArray* a = BuildArray();
        fill(a);
        benchmark::DoNotOptimize(KWARecCount(a));
        state.PauseTiming();
        KWADestroy(a);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kRows);
}

void BM_Post_Kwz(benchmark::State& state) { FillKwz(state, PostAll); }
void BM_Add_Kwz(benchmark::State& state) { FillKwz(state, AddAll); }

void BM_Seek_Kwz(benchmark::State& state) {
    KWArray* a = SharedArray();
    const auto& probes = Probes();
    size_t i = 0;
    for (auto _ : state) {
        const int32_t id = probes[i++ % probes.size()];
        KWRVal cell = Cell(iFldType_Int32, &id, 4);
        benchmark::DoNotOptimize(KWARecSeekV(a, 0, &cell, nullptr));
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_Pack_Kwz(benchmark::State& state) {
    KWArray* a = SharedArray();
    for (auto _ : state) {
        void* block = nullptr;
        benchmark::DoNotOptimize(KWAPack(a, &block));
        KWMemFree(block);
    }
    state.SetItemsProcessed(state.iterations() * kRows);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(SharedTable().size()));
}

void BM_Unpack_Kwz(benchmark::State& state) {
    const auto& table = SharedTable();
    for (auto _ : state) {
        KWArray* a = nullptr;
        KWACreate(&a, nullptr);
        benchmark::DoNotOptimize(KWAUnpack(a, table.data()));
        state.PauseTiming();
        KWADestroy(a);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kRows);
}

void BM_UnpackForRead_Kwz(benchmark::State& state) {
    const auto& table = SharedTable();
    for (auto _ : state) {
        KWArray* a = nullptr;
        KWACreate(&a, nullptr);
        benchmark::DoNotOptimize(KWAUnpackForRead(a, table.data()));
        state.PauseTiming();
        KWADestroy(a);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kRows);
}

// ---- std::map / std::multimap ------------------------------------------------

struct MapRow {
    int32_t id;
    char name[21];
    double value;
};
struct MapTable {
    std::map<int32_t, MapRow> byId;
    std::multimap<std::string, const MapRow*> byName;
};

void FillMaps(MapTable* t) {
    for (const Row& r : Rows()) {
        MapRow row{r.id, {}, r.value};
        std::strncpy(row.name, r.name.c_str(), 20);
        auto [it, fresh] = t->byId.emplace(r.id, row);
        if (!fresh) std::abort();
        t->byName.emplace(r.name, &it->second);
    }
}

void BM_Post_StdMap(benchmark::State& state) {
    Rows();
    for (auto _ : state) {
        auto t = std::make_unique<MapTable>();
        FillMaps(t.get());
        benchmark::DoNotOptimize(t->byId.size());
        state.PauseTiming();
        t.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kRows);
}

void BM_Seek_StdMap(benchmark::State& state) {
    static MapTable* t = [] {
        auto* m = new MapTable;
        FillMaps(m);
        return m;
    }();
    const auto& probes = Probes();
    size_t i = 0;
    for (auto _ : state) {
        auto it = t->byId.find(probes[i++ % probes.size()]);
        benchmark::DoNotOptimize(it);
    }
    state.SetItemsProcessed(state.iterations());
}

// ---- SQLite in memory ------------------------------------------------------

sqlite3* OpenSqlite() {
    sqlite3* db = nullptr;
    sqlite3_open(":memory:", &db);
    sqlite3_exec(db,
                 "PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF;"
                 "CREATE TABLE t(id INTEGER NOT NULL, name TEXT, value REAL);"
                 "CREATE UNIQUE INDEX t_id ON t(id); CREATE INDEX t_name ON t(name);",
                 nullptr, nullptr, nullptr);
    return db;
}

void FillSqlite(sqlite3* db) {
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(db, "INSERT INTO t(id, name, value) VALUES (?, ?, ?)", -1, &insert, nullptr);
    sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
    for (const Row& r : Rows()) {
        sqlite3_bind_int(insert, 1, r.id);
        sqlite3_bind_text(insert, 2, r.name.c_str(), static_cast<int>(r.name.size()), SQLITE_STATIC);
        sqlite3_bind_double(insert, 3, r.value);
        if (sqlite3_step(insert) != SQLITE_DONE) std::abort();
        sqlite3_reset(insert);
    }
    sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_finalize(insert);
}

void BM_Post_Sqlite(benchmark::State& state) {
    Rows();
    for (auto _ : state) {
        sqlite3* db = OpenSqlite();
        FillSqlite(db);
        state.PauseTiming();
        sqlite3_close(db);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kRows);
}

void BM_Seek_Sqlite(benchmark::State& state) {
    static sqlite3* db = [] {
        sqlite3* d = OpenSqlite();
        FillSqlite(d);
        return d;
    }();
    sqlite3_stmt* query = nullptr;
    sqlite3_prepare_v2(db, "SELECT value FROM t WHERE id = ?", -1, &query, nullptr);
    const auto& probes = Probes();
    size_t i = 0;
    for (auto _ : state) {
        sqlite3_bind_int(query, 1, probes[i++ % probes.size()]);
        if (sqlite3_step(query) != SQLITE_ROW) std::abort();
        benchmark::DoNotOptimize(sqlite3_column_double(query, 0));
        sqlite3_reset(query);
    }
    sqlite3_finalize(query);
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_Post_Kwz)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_Add_Kwz)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_Post_StdMap)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_Post_Sqlite)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_Seek_Kwz)->Unit(benchmark::kNanosecond)->Iterations(kRows);
BENCHMARK(BM_Seek_StdMap)->Unit(benchmark::kNanosecond)->Iterations(kRows);
BENCHMARK(BM_Seek_Sqlite)->Unit(benchmark::kNanosecond)->Iterations(kRows);
BENCHMARK(BM_Pack_Kwz)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_Unpack_Kwz)->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_UnpackForRead_Kwz)->Unit(benchmark::kMillisecond)->Iterations(1);

BENCHMARK_MAIN();
