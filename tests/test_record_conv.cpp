// Typed getters and setters: the conversion table in both directions, null
// and text fields, and the marks a write leaves.
#include <cmath>
#include <functional>
#include <limits>
#include <tuple>

#include "record_fixture.h"

using namespace rectest;

namespace {

constexpr float kNanF = std::numeric_limits<float>::quiet_NaN();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr int64_t kMin64 = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax64 = std::numeric_limits<int64_t>::max();
constexpr double kTwo63 = 9223372036854775808.0;

// The value seen through each of the eight types, in type-code order.
struct Want { uint8_t b, u8; int8_t i8; int16_t i16; int32_t i32; int64_t i64; float f; double d; };

const char* const kScalarFields[] = {"B", "U8", "S8", "S16", "S32", "S64", "F32", "F64"};

// Reads the field through the getter of type code t, with an output and
// without, and compares with w: NaN matches NaN, and a zero's sign counts.
void ExpectType(uint8_t t, const KWRField* f, const KWRData* r, const Want& w, uint32_t rc,
                const std::string& what) {
    const std::string at = what + " as type " + std::to_string(t);
    auto check = [&](auto get, auto want) {
        decltype(want) out = 99;
        EXPECT_EQ(rc, get(f, r, &out)) << at;
        EXPECT_TRUE((std::isnan(want) && std::isnan(out)) || (want == out && std::signbit(want) == std::signbit(out)))
            << at << ": got " << +out << " want " << +want;
        EXPECT_EQ(rc, get(f, r, nullptr)) << at << " (null output)";
    };
    switch (t) {
        case 1: return check(KWRGetAsBool, w.b);
        case 2: return check(KWRGetAsByte, w.u8);
        case 3: return check(KWRGetAsInt8, w.i8);
        case 4: return check(KWRGetAsInt16, w.i16);
        case 5: return check(KWRGetAsInt32, w.i32);
        case 6: return check(KWRGetAsInt64, w.i64);
        case 7: return check(KWRGetAsFloat, w.f);
        default: return check(KWRGetAsDouble, w.d);
    }
}

using Setter = std::function<uint32_t(const KWRField*, KWRData*)>;
#define SET(fn, v) Setter([](const KWRField* f, KWRData* r) { return fn(f, r, v); })

const Want kZero{0, 0, 0, 0, 0, 0, 0.0f, 0.0};

}  // namespace

// One table for both directions.  Each row stores a value through a setter:
// into the setter's own field type, read back through every getter; and into
// every scalar field type, read back through that field's own getter.
TEST(record_conv, GetAndSetTable) {
    struct Case { const char* field; Setter store; Want want; };
    const Case cases[] = {
        {"B", SET(KWRSetAsBool, 0), kZero},
        {"B", SET(KWRSetAsBool, 7), {7, 7, 7, 7, 7, 7, 7.0f, 7.0}},  // L1 keeps the raw byte
        {"B", SET(KWRSetAsBool, 200), {200, 200, -56, 200, 200, 200, 200.0f, 200.0}},
        {"U8", SET(KWRSetAsByte, 200), {1, 200, -56, 200, 200, 200, 200.0f, 200.0}},
        {"S8", SET(KWRSetAsInt8, -1), {1, 255, -1, -1, -1, -1, -1.0f, -1.0}},
        {"S16", SET(KWRSetAsInt16, 300), {1, 44, 44, 300, 300, 300, 300.0f, 300.0}},
        {"S16", SET(KWRSetAsInt16, -32768), {1, 0, 0, -32768, -32768, -32768, -32768.0f, -32768.0}},
        {"S32", SET(KWRSetAsInt32, 70000), {1, 112, 112, 4464, 70000, 70000, 70000.0f, 70000.0}},
        {"S32", SET(KWRSetAsInt32, -70000), {1, 144, -112, -4464, -70000, -70000, -70000.0f, -70000.0}},
        {"S32", SET(KWRSetAsInt32, 0), kZero},
        {"S64", SET(KWRSetAsInt64, (int64_t{1} << 40) + 3),
         {1, 3, 3, 3, 3, (int64_t{1} << 40) + 3, 1099511627776.0f, 1099511627779.0}},
        {"S64", SET(KWRSetAsInt64, kMax64), {1, 255, -1, -1, -1, kMax64, float(kTwo63), kTwo63}},
        {"S64", SET(KWRSetAsInt64, kMin64), {1, 0, 0, 0, 0, kMin64, -float(kTwo63), -kTwo63}},
        {"S64", SET(KWRSetAsInt64, 16777217), {1, 1, 1, 1, 16777217, 16777217, 16777216.0f, 16777217.0}},
        {"S64", SET(KWRSetAsInt64, 4294967301), {1, 5, 5, 5, 5, 4294967301, 4294967296.0f, 4294967301.0}},
        {"F32", SET(KWRSetAsFloat, -2.9f), {1, 254, -2, -2, -2, -2, -2.9f, double(-2.9f)}},
        {"F32", SET(KWRSetAsFloat, -0.0f), {0, 0, 0, 0, 0, 0, -0.0f, -0.0}},
        {"F32", SET(KWRSetAsFloat, kNanF), {1, 0, 0, 0, 0, kMin64, kNanF, kNan}},
        {"F32", SET(KWRSetAsFloat, 3e9f), {1, 0, 0, 24064, -1294967296, 3000000000, 3e9f, 3e9}},
        {"F64", SET(KWRSetAsDouble, -2.9), {1, 254, -2, -2, -2, -2, -2.9f, -2.9}},
        {"F64", SET(KWRSetAsDouble, kNan), {1, 0, 0, 0, 0, kMin64, kNanF, kNan}},
        {"F64", SET(KWRSetAsDouble, 0.5), {1, 0, 0, 0, 0, 0, 0.5f, 0.5}},
        {"F64", SET(KWRSetAsDouble, 70000.7), {1, 112, 112, 4464, 70000, 70000, 70000.7f, 70000.7}},
        {"F64", SET(KWRSetAsDouble, 4294967301.9), {1, 5, 5, 5, 5, 4294967301, 4294967296.0f, 4294967301.9}},
        {"F64", SET(KWRSetAsDouble, 1e30), {1, 0, 0, 0, 0, kMin64, 1e30f, 1e30}},
        {"F64", SET(KWRSetAsDouble, 1e300), {1, 0, 0, 0, 0, kMin64, float(kInf), 1e300}},
        {"F64", SET(KWRSetAsDouble, -1e300), {1, 0, 0, 0, 0, kMin64, -float(kInf), -1e300}},
        {"F64", SET(KWRSetAsDouble, kInf), {1, 0, 0, 0, 0, kMin64, float(kInf), kInf}},
        {"F64", SET(KWRSetAsDouble, -1e-300), {1, 0, 0, 0, 0, 0, -0.0f, -1e-300}},
        {"F64", SET(KWRSetAsDouble, -0.0), {0, 0, 0, 0, 0, 0, -0.0f, -0.0}},
        {"F64", SET(KWRSetAsDouble, -kTwo63), {1, 0, 0, 0, 0, kMin64, -float(kTwo63), -kTwo63}},
        {"F64", SET(KWRSetAsDouble, kTwo63), {1, 0, 0, 0, 0, kMin64, float(kTwo63), kTwo63}},  // just out of range
    };
    Type type(kAllDef);
    for (const Case& c : cases) {
        const std::string what = std::string(c.field) + " row " + std::to_string(&c - cases);
        for (uint8_t t = 1; t <= 8; ++t) {
            Rec own(type), other(type);
            const KWRField *f = type.F(c.field), *g = type.F(kScalarFields[t - 1]);
            ASSERT_EQ(0u, c.store(f, &own.r)) << what;
            ExpectType(t, f, &own.r, c.want, 0, what + " get");
            ASSERT_EQ(0u, c.store(g, &other.r)) << what;
            ExpectType(t, g, &other.r, c.want, 0, what + " set");
        }
    }
}

// Null scalar fields give 2, text fields 5 (null or not); the output is zeroed.
TEST(record_conv, GetNullAndText) {
    Type type(kAllDef);
    Rec rec(type);
    for (const char* name : kScalarFields)
        for (uint8_t t = 1; t <= 8; ++t) ExpectType(t, type.F(name), &rec.r, kZero, KWR_NULL, name);
    ASSERT_EQ(0u, KWRSetAsText(type.F("Memo"), &rec.r, 2, "12"));
    for (const char* name : {"Name", "Memo", "Blob"})
        for (uint8_t t = 1; t <= 8; ++t) ExpectType(t, type.F(name), &rec.r, kZero, KWR_BADTYPE, name);
}

// A successful write marks the field edited and not null and raises state 0
// to 1 (255 stays); a refused one changes nothing.
TEST(record_conv, SetMarksAndRefusals) {
    Type type(kAllDef);
    Rec rec(type);
    const KWRField* s16 = type.F("S16");
    ASSERT_EQ(0u, KWRSetAsInt32(s16, &rec.r, 70000));  // the value itself: see the table
    EXPECT_EQ(std::make_tuple(rec.Header(s16), rec.r.state), std::make_tuple(0x24, 1));  // I2 | edited
    rec.r.state = 255;
    EXPECT_EQ(0u, KWRSetAsDouble(type.F("B"), &rec.r, kNan));
    EXPECT_EQ(255, rec.r.state);

    Rec fresh(type);
    const auto before = fresh.Bytes();
    for (const char* name : {"Name", "Memo", "Blob"})  // every setter is the same function of its type code
        EXPECT_EQ(KWR_BADTYPE, KWRSetAsInt32(type.F(name), &fresh.r, 1)) << name;
    EXPECT_EQ(before, fresh.Bytes());
    EXPECT_EQ(0, fresh.r.state);
    fresh.r.image[type.F("S32")->offset - 1] = 0x0C;  // a damaged header: -2 both ways
    int32_t v = 5;
    EXPECT_TRUE(KWRGetAsInt32(type.F("S32"), &fresh.r, &v) == KWR_CORRUPT && v == 0);
    EXPECT_EQ(KWR_CORRUPT, KWRSetAsInt32(type.F("S32"), &fresh.r, 1));
    Rec empty;
    EXPECT_EQ(KWR_NOIMAGE, KWRGetAsInt32(s16, &empty.r, &v));
    EXPECT_EQ(KWR_NOIMAGE, KWRSetAsInt32(s16, &empty.r, 1));
}

// Cells of a type outside 1..8 on a scalar field store nothing yet mark the
// field written and succeed; "F4" fields refuse cells altogether.
TEST(record_conv, CellSourceQuirks) {
    Type type(kAllDef);
    Rec rec(type);
    const KWRField* s32 = type.F("S32");
    ASSERT_EQ(0u, KWRSetAsInt32(s32, &rec.r, 5));
    const int32_t seven = 7;
    for (uint8_t odd : {0, 9, 11, 12, 255}) {
        KWRVal cell = NumCell(odd, &seven, 4);
        EXPECT_EQ(0u, KWRSetVal(s32, &rec.r, &cell)) << +odd;
        ExpectType(iFldType_Int32, s32, &rec.r, {0, 0, 0, 0, 5, 0, 0, 0}, 0, "odd cell");
    }
    const KWRField* s16 = type.F("S16");
    KWRVal cell = NumCell(iFldType_Char, &seven, 4);
    ASSERT_EQ(0u, KWRSetVal(s16, &rec.r, &cell));
    EXPECT_EQ(0x24, rec.Header(s16));  // was null: now edited, not null, still zero
    const double d = 2.5;
    KWRVal dcell = NumCell(iFldType_Double, &d, 8);
    EXPECT_EQ(KWR_BADTYPE, KWRSetVal(type.F("F32"), &rec.r, &dcell));  // KWRSetAsFloat takes it: see the table
    EXPECT_EQ(0u, KWRSetVal(s32, &rec.r, &dcell));
    ExpectType(iFldType_Int32, s32, &rec.r, {0, 0, 0, 0, 2, 0, 0, 0}, 0, "double cell");
}
