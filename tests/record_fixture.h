// RAII holders for record types and records, and the type with one field of
// every kind that the record tests share.
#pragma once

#include <VomKwz.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace rectest {

// One field of every type, in type-code order.
constexpr const char* kAllDef =
    "ALL|11\r\nB|L1\r\nU8|B1\r\nS8|I1\r\nS16|I2\r\nS32|I4\r\nS64|I8\r\n"
    "F32|F4\r\nF64|F8\r\nName|CH20\r\nMemo|CM\r\nBlob|CB";
constexpr const char* kLoginDef = "_LOGIN|3\r\n_Login|CB\r\n_Password|CB\r\n_AddType|L1";

struct Type {
    KWRType t;
    explicit Type(const char* def, uint32_t id = 7) {
        KWRTypInit(&t);
        EXPECT_EQ(0u, KWRTypSet(&t, id, def)) << def;
    }
    ~Type() { KWRTypFree(&t); }
    Type(const Type&) = delete;
    Type& operator=(const Type&) = delete;
    const KWRField* F(const char* name) const {
        const KWRField* f = KWRFldByName(&t, name);
        EXPECT_NE(nullptr, f) << name;
        return f;
    }
};

struct Rec {
    KWRData r;
    Rec() { KWRRecInit(&r); }
    explicit Rec(const Type& type) : Rec() { EXPECT_EQ(0u, KWRRecNew(&type.t, &r)); }
    ~Rec() { KWRRecFree(&r); }
    Rec(const Rec&) = delete;
    Rec& operator=(const Rec&) = delete;
    uint8_t Header(const KWRField* f) const { return r.image[f->offset - 1]; }
    std::vector<uint8_t> Bytes() const { return {r.image, r.image + r.length}; }
};

// Adopts a malloc'd copy of bytes, as a receiver does with an image.
inline uint32_t Adopt(KWRData* record, const std::vector<uint8_t>& bytes) {
    void* block = std::malloc(bytes.size());
    std::memcpy(block, bytes.data(), bytes.size());
    uint32_t rc = KWRRecSet(record, block);
    if (rc != 0) std::free(block);
    return rc;
}

inline std::string Text(const KWRField* f, const KWRData* r) {
    uint32_t n = 0;
    const char* p = nullptr;
    KWRGetTextRef(f, r, &n, &p);
    return p ? std::string(p, n) : std::string();
}

inline KWRVal NumCell(uint8_t type, const void* v, size_t width) {
    KWRVal c{};
    c.type = type;
    std::memcpy(c.value, v, width);
    return c;
}
inline KWRVal TextCell(uint8_t type, const char* text, uint32_t n) {
    KWRVal c{};
    c.type = type;
    std::memcpy(c.value, &n, 4);
    std::memcpy(c.value + 4, &text, sizeof text);
    return c;
}

}  // namespace rectest
