// Records: lifecycle, field flags, text access and its state transitions,
// value cells, and the typed getters and setters: the conversion table in
// both directions, null and text fields, and the marks a write leaves.
#include <cmath>
#include <functional>
#include <limits>
#include <stdexcept>
#include <tuple>

#include "kwz_test_util.h"
#include "record_fixture.h"

using namespace rectest;

namespace {

uint32_t SlotWord(const Rec& rec, const KWRField* f, int at) {
    uint32_t v = 0;
    std::memcpy(&v, rec.r.image + f->offset + at, 4);
    return v;
}

}  // namespace

// A new record, made in place or allocated without cells, has every field null.
TEST(record_life, NewRecordIsAllNull) {
    Type login(kLoginDef, 9);
    Rec rec(login);
    const std::vector<uint8_t> want = {26, 0, 0, 0, 0, 3, 0x8B, 0, 0, 0, 0, 0, 0, 0, 0,
                                       0x8B, 0, 0, 0, 0, 0, 0, 0, 0, 0x81, 0};
    EXPECT_EQ(want, rec.Bytes());
    EXPECT_EQ(std::make_tuple(rec.r.typeId, rec.r.fieldCount, rec.r.state), std::make_tuple(9, 3, 0));
    KWRData* blank = KWRRecAlloc(&login.t, nullptr);
    ASSERT_NE(nullptr, blank);
    EXPECT_EQ(want, std::vector<uint8_t>(blank->image, blank->image + blank->length));
    KWRRecRelease(blank);
}

TEST(record_life, FreeOfCorruptRecordThrowsAndLogs) {
    kwztest::LogCapture log(1);
    auto expectCorrupt = [&](KWRData* record) {
        log.Clear();
        try {
            KWRRecFree(record);
            ADD_FAILURE() << "no exception";
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ("KWRRecFree RE_DATACORRUPT", e.what());
        }
        const auto lines = log.Lines();
        EXPECT_TRUE(lines.size() == 1 && lines[0].level == 1 && log.Has("Kwz.kwRec.KWRRecFree", "REC DATA CORRUPT"));
    };
    expectCorrupt(nullptr);
    Type type(kAllDef);
    Rec rec(type);
    rec.r.guard = 1;
    expectCorrupt(&rec.r);
    EXPECT_NE(nullptr, rec.r.image);  // left alone
    EXPECT_EQ(KWR_CORRUPT, KWRRecNew(&type.t, &rec.r));
    rec.r.guard = 0;
}

// The slot walk runs only for a changed record and stops at a bad header
// (type 0 included) before freeing anything.
TEST(record_life, FreeStopsAtBadHeader) {
    Type type(kAllDef);
    Rec rec(type);
    const KWRField* s8 = type.F("S8");
    ASSERT_EQ(0u, KWRSetAsText(type.F("Memo"), &rec.r, 3, "abc"));  // owned block, state 255
    for (uint8_t bad : {0x00, 0x0C, 0x8F}) {
        rec.r.image[s8->offset - 1] = bad;
        EXPECT_EQ(KWR_CORRUPT, KWRRecFree(&rec.r)) << +bad;
        EXPECT_EQ("abc", Text(type.F("Memo"), &rec.r));
    }
    rec.r.image[s8->offset - 1] = 0x83;
    EXPECT_EQ(0u, KWRRecFree(&rec.r));  // now frees the block (leak check)
    EXPECT_EQ(nullptr, rec.r.image);
    // A packed record is not walked: a bad header does not stop its free.
    ASSERT_EQ(0u, KWRRecNew(&type.t, &rec.r));
    rec.r.image[s8->offset - 1] = 0x0C;
    EXPECT_EQ(0u, KWRRecFree(&rec.r));
    EXPECT_EQ(0u, rec.r.typeId);
}

TEST(record_life, AdoptImage) {
    Type type(kAllDef);
    Rec rec(type);
    uint8_t shortImage[6] = {5, 0, 0, 0, 0, 0};
    EXPECT_EQ(KWR_CORRUPT, KWRRecSet(&rec.r, shortImage));
    EXPECT_EQ(KWR_CORRUPT, KWRRecSet(&rec.r, nullptr));
    EXPECT_NE(nullptr, rec.r.image);  // refused: the record keeps its image
    ASSERT_EQ(0u, KWRSetAsInt32(type.F("S32"), &rec.r, -17));
    ASSERT_EQ(0u, KWRSetFlags(&rec.r, 0x5A));
    Rec copy;
    ASSERT_EQ(0u, Adopt(&copy.r, rec.Bytes()));
    EXPECT_EQ(rec.Bytes(), copy.Bytes());
    EXPECT_EQ(std::make_tuple(copy.r.flags, copy.r.fieldCount, copy.r.typeId, copy.r.state),
              std::make_tuple(0x5A, 11, 0, 0));
}

// The user mark leaves the state alone, the edited mark raises it to 1, and
// each reader sees its own bit; KWRSetNull zeroes the value bytes and marks
// the field edited.
TEST(record_life, FlagBits) {
    Type type(kAllDef);
    Rec rec(type);
    const KWRField* f = type.F("U8");
    EXPECT_EQ(0u, KWRIsNull(f, &rec.r, nullptr));
    EXPECT_EQ(0u, KWRSetUser(f, &rec.r, 1));
    EXPECT_EQ(0, rec.r.state);
    EXPECT_EQ(0u, KWRSetEdit(f, &rec.r, 1));
    EXPECT_EQ(std::make_tuple(rec.Header(f), rec.r.state), std::make_tuple(0xE2, 1));
    rec.r.state = 0;
    EXPECT_EQ(0u, KWRSetEdit(f, &rec.r, 0));
    uint8_t user = 0, edit = 1;
    KWRIsUser(f, &rec.r, &user);
    KWRIsEdit(f, &rec.r, &edit);
    EXPECT_EQ(std::make_tuple(rec.Header(f), user, edit, rec.r.state), std::make_tuple(0xC2, 1, 0, 0));
    EXPECT_EQ(0u, KWRSetUser(f, &rec.r, 0));
    EXPECT_EQ(0x82, rec.Header(f));
    ASSERT_EQ(0u, KWRSetAsByte(f, &rec.r, 9));
    rec.r.state = 0;
    EXPECT_EQ(0u, KWRSetNull(f, &rec.r));
    uint8_t isNull = 0;
    KWRIsNull(f, &rec.r, &isNull);
    EXPECT_EQ(std::make_tuple(rec.Header(f), isNull, rec.r.image[f->offset], rec.r.state),
              std::make_tuple(0xA2, 1, 0, 1));
    Rec empty;
    EXPECT_EQ(KWR_NOIMAGE, KWRSetFlags(&empty.r, 1));
    EXPECT_EQ(KWR_NOIMAGE, KWRSetNull(f, &empty.r));
}

// "CH": cut to the capacity, no terminator when full, one when shorter.
TEST(record_text, CharField) {
    Type type(kAllDef);
    Rec rec(type);
    const KWRField* f = type.F("Name");
    EXPECT_EQ(0x89, rec.Header(f));
    const std::string thirty(30, 'x');
    ASSERT_EQ(0u, KWRSetAsText(f, &rec.r, 30, thirty.data()));
    const uint8_t* v = rec.r.image + f->offset;
    EXPECT_EQ(std::make_tuple(v[0], v[1]), std::make_tuple(20, 20));  // capacity (from the new record) and length
    EXPECT_EQ(std::string(20, 'x'), std::string(reinterpret_cast<const char*>(v + 2), 20));
    EXPECT_EQ(0, v[22]);  // the terminator byte of the slot, untouched
    char buf[32];
    std::memset(buf, '#', sizeof buf);
    EXPECT_EQ(0u, KWRGetAsText(f, &rec.r, 0, 25, buf));
    EXPECT_EQ(std::string(20, 'x'), std::string(buf));

    ASSERT_EQ(0u, KWRSetAsText(f, &rec.r, 2, "ab"));
    EXPECT_EQ(std::make_tuple(v[1], v[4]), std::make_tuple(2, 0));
    ASSERT_EQ(0u, KWRSetAsText(f, &rec.r, 3, nullptr));
    EXPECT_EQ(std::string(3, '\0'), Text(f, &rec.r));
    EXPECT_EQ(1, rec.r.state);
}

TEST(record_text, GetAsTextWindow) {
    Type type(kAllDef);
    Rec rec(type);
    const KWRField* f = type.F("Memo");
    ASSERT_EQ(0u, KWRSetAsText(f, &rec.r, 6, "abcdef"));
    struct Case { int32_t start, size; const char* want; bool terminated; };
    const Case cases[] = {{0, 10, "abcdef", true}, {2, 3, "cde", false}, {4, 5, "ef", true},
                          {6, 4, "", true},        {100, 4, "", true}, {0, 6, "abcdef", false}};
    for (const Case& c : cases) {
        char buf[16];
        std::memset(buf, '#', sizeof buf);
        EXPECT_EQ(0u, KWRGetAsText(f, &rec.r, c.start, c.size, buf));
        const size_t n = std::strlen(c.want);
        EXPECT_EQ(c.want, std::string(buf, n)) << c.start << "," << c.size;
        EXPECT_EQ(c.terminated ? '\0' : '#', buf[n]) << c.start << "," << c.size;
    }
    char buf[4] = "zz";
    EXPECT_EQ(KWR_BADARG, KWRGetAsText(f, &rec.r, -1, 4, buf));
    EXPECT_EQ(KWR_BADTYPE, KWRGetAsText(type.F("S32"), &rec.r, 0, 4, buf));
    EXPECT_EQ('\0', buf[0]);
    EXPECT_EQ(KWR_NULL, KWRGetAsText(type.F("Blob"), &rec.r, 0, 4, buf));
    EXPECT_EQ(KWR_BADTYPE, KWRSetAsText(type.F("S32"), &rec.r, 1, "a"));
    EXPECT_EQ(KWR_BADARG, KWRSetAsText(f, &rec.r, -1, "a"));
}

// "CM"/"CB" in the image: same length in place (state 1), shorter in place
// with a 0 byte (255), longer to an owned block (255); owned blocks resize
// and free; an empty text in the image reads as 6 through KWRGetAsText only.
TEST(record_text, MemoTransitions) {
    Type type(kAllDef);
    Rec rec(type);
    const KWRField* f = type.F("Memo");
    ASSERT_EQ(0u, KWRSetAsText(f, &rec.r, 5, "hello"));
    EXPECT_TRUE((rec.Header(f) & 0x10) && rec.r.state == 255);
    ASSERT_EQ(0u, KWRRecPack(&type.t, &rec.r, 0, 0));
    const uint32_t offset = SlotWord(rec, f, 4);
    EXPECT_EQ(type.t.dataLength, offset);

    ASSERT_EQ(0u, KWRSetAsText(f, &rec.r, 5, "HELLO"));
    EXPECT_EQ(std::make_tuple(rec.r.state, SlotWord(rec, f, 4)), std::make_tuple(1, offset));
    EXPECT_EQ("HELLO", Text(f, &rec.r));
    ASSERT_EQ(0u, KWRSetAsText(f, &rec.r, 2, "hi"));
    EXPECT_EQ(std::make_tuple(rec.r.state, SlotWord(rec, f, 0), rec.r.image[offset + 2]), std::make_tuple(255, 2, 0));
    ASSERT_EQ(0u, KWRRecPack(&type.t, &rec.r, 0, 0));
    ASSERT_EQ(0u, KWRSetAsText(f, &rec.r, 11, "hello world"));
    EXPECT_EQ(0x10, rec.Header(f) & 0x10);
    EXPECT_EQ("hello world", Text(f, &rec.r));

    const char* inBlock = nullptr;
    ASSERT_EQ(0u, KWRGetTextPtr(f, &rec.r, &inBlock));
    ASSERT_EQ(0u, KWRSetAsText(f, &rec.r, 5, inBlock + 6));  // from its own block
    EXPECT_EQ("world", Text(f, &rec.r));
    ASSERT_EQ(0u, KWRSetAsText(f, &rec.r, 9, "0123\0" "5678"));
    EXPECT_EQ(std::string("0123\0" "5678", 9), Text(f, &rec.r));

    ASSERT_EQ(0u, KWRSetAsText(f, &rec.r, 0, "ignored"));
    EXPECT_EQ(std::make_tuple(rec.Header(f) & 0x10, SlotWord(rec, f, 0), SlotWord(rec, f, 4)),
              std::make_tuple(0, 0, 0));
    char buf[4] = "zz";
    EXPECT_EQ(KWR_NOTEXT, KWRGetAsText(f, &rec.r, 0, 4, buf));
    uint32_t n = 9;
    const char* p = "x";
    EXPECT_EQ(0u, KWRGetTextRef(f, &rec.r, &n, &p));
    EXPECT_EQ(std::make_tuple(n, p), std::make_tuple(0u, nullptr));

    // A length without an offset: 6 and a null pointer.
    const uint32_t three = 3;
    std::memcpy(rec.r.image + f->offset, &three, 4);
    EXPECT_EQ(KWR_NOTEXT, KWRGetTextRef(f, &rec.r, &n, &p));
    EXPECT_EQ(nullptr, p);
    std::memset(rec.r.image + f->offset, 0, 4);

    // Dropping a text that was in the image leaves spare room.
    ASSERT_EQ(0u, KWRSetAsText(f, &rec.r, 3, "abc"));
    ASSERT_EQ(0u, KWRRecPack(&type.t, &rec.r, 0, 0));
    ASSERT_EQ(0u, KWRSetAsText(f, &rec.r, 0, nullptr));
    EXPECT_EQ(255, rec.r.state);
}

// A null field's value bytes are never trusted: a received image may hold a
// stale offset there (here one into the fixed part), which must not be
// written through.
TEST(record_text, NullFieldStaleOffsetIgnored) {
    Type type(kLoginDef);
    Rec rec(type);
    const KWRField* login = type.F("_Login");
    const uint32_t stale[2] = {5, 6};
    std::memcpy(rec.r.image + login->offset, stale, 8);
    ASSERT_EQ(0u, KWRSetAsText(login, &rec.r, 1, "x"));
    EXPECT_EQ(0x10, rec.Header(login) & 0x10);  // went to an owned block
    EXPECT_EQ("x", Text(login, &rec.r));
    ASSERT_EQ(0u, KWRRecPack(&type.t, &rec.r, 1, 1));
    EXPECT_EQ(0u, KWRRecCheck(&type.t, &rec.r));
}

TEST(record_cells, GetValAndSetVal) {
    Type type(kAllDef);
    Rec rec(type);
    KWRVal cell;
    EXPECT_EQ(0u, KWRGetVal(type.F("S16"), &rec.r, &cell));
    EXPECT_EQ(std::make_tuple(cell.type, cell.isNull), std::make_tuple(iFldType_Int16, 1));
    const KWRField* memo = type.F("Memo");
    KWRVal num = NumCell(iFldType_Int32, "\x05\0\0\0", 4);
    EXPECT_EQ(KWR_BADTYPE, KWRSetVal(memo, &rec.r, &num));
    KWRVal text = TextCell(iFldType_Char, "memo!", 5);  // any text cell type will do
    EXPECT_EQ(0u, KWRSetVal(memo, &rec.r, &text));
    EXPECT_EQ(0u, KWRGetVal(memo, &rec.r, &cell));
    uint32_t n = 0;
    const char* p = nullptr;
    std::memcpy(&n, cell.value, 4);
    std::memcpy(&p, cell.value + 4, sizeof p);
    EXPECT_EQ("memo!", std::string(p, n));
    EXPECT_EQ(0u, KWRSetVal(memo, &rec.r, nullptr));  // null cell: KWRSetNull
    EXPECT_EQ(0x80, rec.Header(memo) & 0x90);         // null, and the block freed
}

// A record copied cell by cell into another equals it; a null array nulls all.
TEST(record_cells, RecordRoundTrip) {
    Type type(kAllDef);
    Rec a(type), b(type);
    KWRSetAsBool(type.F("B"), &a.r, 1);
    KWRSetAsInt64(type.F("S64"), &a.r, -5);
    KWRSetAsDouble(type.F("F64"), &a.r, 0.125);
    KWRSetAsText(type.F("Name"), &a.r, 4, "name");
    KWRSetAsText(type.F("Blob"), &a.r, 3, "\x01\x02\x03");
    KWRVal cells[11];
    ASSERT_EQ(0u, KWRGetRec(&type.t, &a.r, cells));  // "F4" is left null: it cannot travel as a cell
    ASSERT_EQ(0u, KWRSetRec(&type.t, &b.r, cells));
    ASSERT_EQ(0u, KWRRecPack(&type.t, &a.r, 0, 0));
    ASSERT_EQ(0u, KWRRecPack(&type.t, &b.r, 0, 0));
    EXPECT_EQ(a.Bytes(), b.Bytes());

    const float f = 1.5f;
    cells[6] = NumCell(iFldType_Float, &f, 4);
    EXPECT_EQ(KWR_BADTYPE, KWRSetRec(&type.t, &b.r, cells));
    ASSERT_EQ(0u, KWRSetRec(&type.t, &b.r, nullptr));
    for (uint8_t i = 0; i < 11; ++i) EXPECT_EQ(0x80, b.Header(&type.t.fields[i]) & 0x80) << +i;
    // A text reference without an offset stops KWRGetRec with 6.
    const KWRField* blob = type.F("Blob");
    std::memset(a.r.image + blob->offset + 4, 0, 4);
    EXPECT_EQ(KWR_NOTEXT, KWRGetRec(&type.t, &a.r, cells));
}

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
