// Helpers shared by the record-array tests: building arrays, cells and
// reading members back in key order.
#pragma once

#include <VomKwz.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace recarrtest {

inline KWRFieldDef Field(const char* name, uint8_t type, uint8_t width = 0) {
    KWRFieldDef d{{}, width, type};
    std::strncpy(d.name, name, sizeof d.name - 1);
    return d;
}

inline KWAKeyDef Key(const char* expression, uint32_t options = 0) {
    KWAKeyDef k{{}, {}, options};
    std::strncpy(k.expression, expression, sizeof k.expression - 1);
    return k;
}

inline KWRVal Null() { return KWRVal{0, 1, {}}; }

template <typename T>
KWRVal Num(uint8_t type, T value) {
    KWRVal v{type, 0, {}};
    std::memcpy(v.value, &value, sizeof value);
    return v;
}
inline KWRVal I4(int32_t x) { return Num(iFldType_Int32, x); }
inline KWRVal I8(int64_t x) { return Num(iFldType_Int64, x); }
inline KWRVal F8(double x) { return Num(iFldType_Double, x); }

// A text cell; the pointer must outlive the cell's use.
inline KWRVal Text(const char* text, uint8_t type = iFldType_Char, int32_t length = -1) {
    KWRVal v{type, 0, {}};
    const uint32_t n = length >= 0 ? static_cast<uint32_t>(length) : static_cast<uint32_t>(std::strlen(text));
    std::memcpy(v.value, &n, 4);
    std::memcpy(v.value + 4, &text, sizeof text);
    return v;
}

// Owns an array for the length of a test.
class Array {
public:
    explicit Array(const std::vector<KWRFieldDef>& fields = {}, const std::vector<KWAKeyDef>& keys = {}) {
        KWACreate(&a_, nullptr);
        if (!fields.empty()) KWAFldAdd(a_, static_cast<int32_t>(fields.size()), fields.data());
        if (!keys.empty()) KWAKeyAdd(a_, static_cast<int32_t>(keys.size()), keys.data());
    }
    ~Array() { KWADestroy(a_); }
    Array(const Array&) = delete;
    Array& operator=(const Array&) = delete;
    operator KWArray*() const { return a_; }
    const KWRField* F(const char* name) const { return KWRFldByName(KWAType(a_), name); }

private:
    KWArray* a_ = nullptr;
};

inline KWRData* Add(KWArray* a, std::vector<KWRVal> cells) { return KWARecAdd(a, cells.data()); }

inline int64_t AsInt(KWArray* a, const KWRData* rec, const char* field) {
    int64_t v = 0;
    return KWRGetAsInt64(KWRFldByName(KWAType(a), field), rec, &v) == 0 ? v : INT64_MIN;
}

inline std::string AsText(KWArray* a, const KWRData* rec, const char* field) {
    uint32_t n = 0;
    const char* p = nullptr;
    const uint32_t rc = KWRGetTextRef(KWRFldByName(KWAType(a), field), rec, &n, &p);
    return rc == 2 ? "<null>" : p ? std::string(p, n) : std::string();
}

// The field's values in the order of a key, nulls as INT64_MIN.
inline std::vector<int64_t> Ints(KWArray* a, int32_t key, const char* field) {
    std::vector<int64_t> out;
    for (int32_t i = 0; KWRData* r = KWARec(a, key, i); ++i) out.push_back(AsInt(a, r, field));
    return out;
}
inline std::vector<std::string> Texts(KWArray* a, int32_t key, const char* field) {
    std::vector<std::string> out;
    for (int32_t i = 0; KWRData* r = KWARec(a, key, i); ++i) out.push_back(AsText(a, r, field));
    return out;
}

// The descriptor of a key with fields and members, as comparators see it.
inline KWAKey* KeyOf(KWArray* a, int32_t key) {
    KWAKey* desc = nullptr;
    KWARecSeekF(a, key, +[](void* k, void*, void* out) -> int32_t {
        *static_cast<KWAKey**>(out) = static_cast<KWAKey*>(k);
        return 0;
    }, &desc, nullptr);
    return desc;
}

// Seeks under `key` give what KWLSeek gives over the key's order of members,
// for each value of the key's first (Int32) field; with `field`, a seek by a
// record holding the value in that field agrees too.
inline void ExpectSeeksLikeList(KWArray* a, int32_t key, int32_t from, int32_t to, const char* field = nullptr) {
    KWList list;
    KWLInit(&list);
    for (int32_t i = 0; KWRData* r = KWARec(a, key, i); ++i) KWLAdd(&list, r);
    KWRData* probe = field ? KWARecNew(a) : nullptr;
    for (int32_t v = from; v <= to; ++v) {
        KWRVal cell = I4(v);
        int32_t pos = -1, listPos = -2, recPos = -3;
        KWRData* found = KWARecSeekV(a, key, &cell, &pos);
        const int32_t listFound = KWLSeek(KeyOf(a, key), &list, KWAVarComp, &cell, &listPos);
        ASSERT_EQ(pos, listPos) << "key " << key << " value " << v;
        ASSERT_EQ(found != nullptr, listFound == 1) << "key " << key << " value " << v;
        ASSERT_TRUE(!found || found == KWARec(a, key, pos));
        if (!probe) continue;
        KWRSetAsInt32(KWRFldByName(KWAType(a), field), probe, v);
        ASSERT_EQ(KWARecSeek(a, key, probe, &recPos), found);
        ASSERT_EQ(recPos, pos);
    }
    KWARecDel(probe);
    KWLClear(&list);
}

inline std::vector<uint8_t> ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// The packed table of an array as bytes.
inline std::vector<uint8_t> Pack(KWArray* a) {
    void* block = nullptr;
    const uint64_t n = KWAPack(a, &block);
    std::vector<uint8_t> out(static_cast<uint8_t*>(block), static_cast<uint8_t*>(block) + n);
    KWMemFree(block);
    return out;
}

// The table as KWZArrayPack gives it, in a container or not, as bytes.
inline std::vector<uint8_t> PackZ(KWArray* a, bool compress) {
    void* block = nullptr;
    int32_t n = 0;
    EXPECT_EQ(0, KWZArrayPack(a, &n, &block, compress));
    std::vector<uint8_t> out(static_cast<uint8_t*>(block), static_cast<uint8_t*>(block) + (block ? n : 0));
    KWMemFree(block);
    return out;
}

}  // namespace recarrtest
