// The record wire image: the "_LOGIN" golden image, packing, KWRSetBuff,
// KWRRecCheck and types generated from images, also at the edge of
// readable memory.
#include <fstream>
#include <functional>
#include <iterator>
#include <tuple>

#include "guard_page.h"
#include "record_fixture.h"

using namespace rectest;

namespace {

std::vector<uint8_t> ReadGolden(const char* name) {
    std::ifstream in(std::string(KWZ_TEST_DATA_DIR) + "/" + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void Put32(KWRData* r, uint32_t at, uint32_t v) { std::memcpy(r->image + at, &v, 4); }

// A record of kAllDef with every field set, packed; texts as given.
void FillAll(const Type& type, Rec& rec, const std::string& memo, const std::string& blob) {
    const double scalars[] = {1, 250, -3, 1234, -99999, double(int64_t{1} << 50), 1.25, -0.5};
    for (uint8_t i = 0; i < 8; ++i) ASSERT_EQ(0u, KWRSetAsDouble(&type.t.fields[i], &rec.r, scalars[i]));
    ASSERT_EQ(0u, KWRSetAsText(type.F("Name"), &rec.r, 3, "abc"));
    ASSERT_EQ(0u, KWRSetAsText(type.F("Memo"), &rec.r, int32_t(memo.size()), memo.data()));
    ASSERT_EQ(0u, KWRSetAsText(type.F("Blob"), &rec.r, int32_t(blob.size()), blob.data()));
    ASSERT_EQ(0u, KWRRecPack(&type.t, &rec.r, 1, 1));
}

// A record over guarded bytes, never freed: it owns nothing.
KWRData View(kwztest::GuardedBytes& guarded, size_t length, uint8_t fieldCount) {
    KWRData view;
    KWRRecInit(&view);
    view.image = guarded.data();
    view.length = static_cast<uint32_t>(length);
    view.fieldCount = fieldCount;
    return view;
}

}  // namespace

// Packing, KWRSetBuff and KWRRecAlloc all give the golden "_LOGIN" image.
TEST(record_image, LoginGolden) {
    Type type(kLoginDef);
    Rec rec(type);
    ASSERT_EQ(0u, KWRSetAsText(type.F("_Login"), &rec.r, 5, "abcde"));
    ASSERT_EQ(0u, KWRSetAsText(type.F("_Password"), &rec.r, 3, "xyz"));
    ASSERT_EQ(0u, KWRSetAsBool(type.F("_AddType"), &rec.r, 1));
    ASSERT_EQ(0u, KWRRecPack(&type.t, &rec.r, 1, 1));
    const auto golden = ReadGolden("login_record.bin");  // 36 bytes
    EXPECT_EQ(golden, rec.Bytes());

    KWRVal cells[3] = {TextCell(iFldType_Blob, "abcde", 5), TextCell(iFldType_Blob, "xyz", 3),
                       NumCell(iFldType_Bool, "\x01", 1)};
    uint32_t size = 0;
    EXPECT_EQ(0u, KWRSetBuff(&type.t, nullptr, cells, &size));
    EXPECT_EQ(36u, size);
    std::vector<uint8_t> buf(size, 0xEE);
    size = 0;
    ASSERT_EQ(0u, KWRSetBuff(&type.t, buf.data(), cells, &size));
    EXPECT_EQ(36u, size);
    auto want = golden;
    want[24] |= 0x20;  // a scalar written through the conversion table is edited
    EXPECT_EQ(want, buf);

    KWRData* alloc = KWRRecAlloc(&type.t, cells);  // set, then packed without the marks
    ASSERT_NE(nullptr, alloc);
    EXPECT_EQ(golden, std::vector<uint8_t>(alloc->image, alloc->image + alloc->length));
    KWRRecRelease(alloc);
    KWRRecRelease(nullptr);
    cells[1] = NumCell(iFldType_Int32, "\x01\0\0\0", 4);  // a number for a text field
    EXPECT_EQ(nullptr, KWRRecAlloc(&type.t, cells));  // and nothing leaks
}

// Packing a packed record copies nothing; pack(1, 0) of a state-0 record
// keeps even the edited bits; clearing user marks needs no copy either.
TEST(record_image, PackIsIdempotent) {
    Type type(kAllDef);
    Rec rec(type);
    ASSERT_EQ(0u, KWRSetAsText(type.F("Memo"), &rec.r, 4, "memo"));
    ASSERT_EQ(0u, KWRSetAsInt32(type.F("S32"), &rec.r, 1));
    ASSERT_EQ(0u, KWRSetUser(type.F("S32"), &rec.r, 1));
    ASSERT_EQ(0u, KWRRecPack(&type.t, &rec.r, 0, 0));
    const uint8_t* image = rec.r.image;
    const auto bytes = rec.Bytes();
    EXPECT_EQ(0u, KWRRecPack(&type.t, &rec.r, 0, 0));
    EXPECT_EQ(0u, KWRRecPack(&type.t, &rec.r, 1, 0));
    EXPECT_TRUE(image == rec.r.image && bytes == rec.Bytes());
    EXPECT_EQ(0u, KWRRecPack(&type.t, &rec.r, 0x100, 1));  // flags tested as bytes
    EXPECT_EQ(std::make_tuple(image, rec.Header(type.F("S32"))),
              std::make_tuple(rec.r.image, 0x25));  // user mark gone, edited kept
    Rec empty;
    EXPECT_EQ(KWR_NOIMAGE, KWRRecPack(&type.t, &empty.r, 0, 0));
}

// Texts go to the variable part in field order, whatever order they were
// set in and wherever they lived; shortening a text shrinks the image.
TEST(record_image, PackOrderAndShrink) {
    Type type(kAllDef);
    Rec rec(type);
    const KWRField* memo = type.F("Memo");
    const KWRField* blob = type.F("Blob");
    const uint32_t d = type.t.dataLength;
    auto variablePart = [&] {
        return rec.r.length < d ? "(short)" : std::string(reinterpret_cast<char*>(rec.r.image) + d, rec.r.length - d);
    };
    ASSERT_EQ(0u, KWRSetAsText(blob, &rec.r, 2, "BB"));
    ASSERT_EQ(0u, KWRSetAsText(memo, &rec.r, 4, "mmmm"));
    ASSERT_EQ(0u, KWRRecPack(&type.t, &rec.r, 0, 0));
    EXPECT_EQ(std::string("mmmm\0BB\0", 8), variablePart());

    ASSERT_EQ(0u, KWRSetAsText(blob, &rec.r, 6, "BBBBBB"));  // grows: owned block
    ASSERT_EQ(0u, KWRRecPack(&type.t, &rec.r, 0, 0));
    EXPECT_EQ(std::string("mmmm\0BBBBBB\0", 12), variablePart());

    const uint8_t* before = rec.r.image;
    ASSERT_EQ(0u, KWRSetAsText(memo, &rec.r, 1, "m"));
    ASSERT_EQ(0u, KWRRecPack(&type.t, &rec.r, 0, 0));
    EXPECT_NE(before, rec.r.image);
    EXPECT_EQ(std::string("m\0BBBBBB\0", 9), variablePart());
    EXPECT_EQ("BBBBBB", Text(blob, &rec.r));
    EXPECT_EQ(0u, KWRRecCheck(&type.t, &rec.r));

    ASSERT_EQ(0u, KWRSetNull(memo, &rec.r));
    ASSERT_EQ(0u, KWRRecPack(&type.t, &rec.r, 0, 0));
    EXPECT_EQ(std::string("BBBBBB\0", 7), variablePart());
}

// KWRSetBuff builds what KWRRecPack makes of the same values, except that
// text fields come out without the edited bit; KWRRecCheck accepts every
// packed image.
TEST(record_image, SetBuffMatchesPackAndCheckAccepts) {
    Type type(kAllDef);
    const std::string big(300, 'q');
    for (const auto& texts : std::vector<std::pair<std::string, std::string>>{
             {"", ""}, {"a memo", ""}, {"", std::string("\0\1\2", 3)}, {"m", "bb"}, {big, "yy"},
             {std::string(1, '\0'), big}}) {
        Rec src(type);
        FillAll(type, src, texts.first, texts.second);
        EXPECT_EQ(0u, KWRRecCheck(&type.t, &src.r));
        KWRVal cells[11];
        ASSERT_EQ(0u, KWRGetRec(&type.t, &src.r, cells));
        const double f = 1.25;  // a double cell for the "F4" field
        cells[6] = NumCell(iFldType_Double, &f, 8);
        uint32_t size = 0;
        ASSERT_EQ(0u, KWRSetBuff(&type.t, nullptr, cells, &size));
        ASSERT_EQ(src.r.length, size);
        std::vector<uint8_t> buf(size);
        ASSERT_EQ(0u, KWRSetBuff(&type.t, buf.data(), cells, &size));
        for (uint8_t i = 0; i < 11; ++i) {
            const KWRField* fld = KWRFldByNum(&type.t, i);
            EXPECT_EQ(fld->type >= iFldType_Char ? 0 : 0x20, buf[fld->offset - 1] & 0x20) << fld->name;
            buf[fld->offset - 1] &= 0xDF;
        }
        EXPECT_EQ(src.Bytes(), buf) << texts.first << "/" << texts.second;
    }
    // Without cells: the image of a new record.
    Rec fresh(type);
    std::vector<uint8_t> buf(type.t.dataLength, 0xEE);
    uint32_t size = 0;
    ASSERT_EQ(0u, KWRSetBuff(&type.t, buf.data(), nullptr, &size));
    EXPECT_EQ(fresh.Bytes(), buf);
    KWRVal bad[11] = {};
    bad[9] = NumCell(iFldType_Int32, "\x01\0\0\0", 4);
    EXPECT_EQ(KWR_BADTYPE, KWRSetBuff(&type.t, buf.data(), bad, &size));
}

TEST(record_check, RefusesDamagedImages) {
    Type type(kAllDef);
    const uint32_t d = type.t.dataLength;
    auto at = [&](const char* name) { return type.F(name)->offset; };
    struct Case { const char* what; std::function<void(KWRData*)> damage; };
    const Case cases[] = {
        {"L field", [&](KWRData* r) { Put32(r, 0, r->length - 1); }},
        {"record length", [&](KWRData* r) { r->length -= 1; }},
        {"below 6", [&](KWRData* r) { Put32(r, 0, 5); r->length = 5; }},
        {"below data length", [&](KWRData* r) { Put32(r, 0, d - 1); r->length = d - 1; }},
        {"field count", [&](KWRData* r) { r->image[5] = 10; }},
        {"type code", [&](KWRData* r) { r->image[at("S32") - 1] = 0x06; }},
        {"owned bit", [&](KWRData* r) { r->image[at("S8") - 1] |= 0x10; }},
        {"capacity", [&](KWRData* r) { r->image[at("Name")] = 19; }},
        {"char length", [&](KWRData* r) { r->image[at("Name") + 1] = 21; }},
        {"offset at L", [&](KWRData* r) { Put32(r, at("Memo") + 4, r->length); }},
        {"offset in fixed part", [&](KWRData* r) { Put32(r, at("Memo") + 4, d - 1); }},
        {"length past L", [&](KWRData* r) { Put32(r, at("Memo"), 6); }},
        {"huge length", [&](KWRData* r) { Put32(r, at("Blob"), 0xFFFFFFF0u); }},
        {"no 0 byte", [&](KWRData* r) { r->image[d + 5] = 'z'; }},
        {"length without offset", [&](KWRData* r) { Put32(r, at("Blob") + 4, 0); }},
        {"no image", [&](KWRData* r) { std::free(r->image); r->image = nullptr; }},
    };
    for (const Case& c : cases) {
        Rec rec(type);
        FillAll(type, rec, "hello", "xy");
        c.damage(&rec.r);
        EXPECT_EQ(KWR_CORRUPT, KWRRecCheck(&type.t, &rec.r)) << c.what;
    }
    Type login(kLoginDef);
    Rec rec(type);
    FillAll(type, rec, "hello", "xy");
    EXPECT_EQ(KWR_CORRUPT, KWRRecCheck(&login.t, &rec.r));  // another type's image
    EXPECT_EQ(KWR_CORRUPT, KWRRecCheck(&type.t, nullptr));
    // A null field's value bytes are not looked at.
    rec.r.image[at("Memo") - 1] |= 0x80;
    Put32(&rec.r, at("Memo") + 4, 0xFFFFFFFFu);
    EXPECT_EQ(0u, KWRRecCheck(&type.t, &rec.r));
}

// A type generated from a record (packed, or changed with texts in owned
// blocks) has the layout of the type it was made with; one of no fields is empty.  The walk
// over hand-made and damaged images is pinned in the record type tests.
TEST(record_typgen, FromRecordImages) {
    Type type(kAllDef), none("E|0");
    Rec rec(type), empty(none);
    FillAll(type, rec, "memo", "blob");
    KWRType gen;
    KWRTypInit(&gen);
    for (bool owned : {false, true}) {
        if (owned) { ASSERT_EQ(0u, KWRSetAsText(type.F("Memo"), &rec.r, 5, "memo!")); }
        ASSERT_EQ(0u, KWRTypGen(&gen, "GEN", &rec.r));
        EXPECT_STREQ("GEN", gen.name);
        ASSERT_EQ(type.t.fieldCount, gen.fieldCount);
        EXPECT_EQ(type.t.dataLength, gen.dataLength);
        for (uint8_t i = 0; i < gen.fieldCount; ++i) {
            const KWRField &a = type.t.fields[i], &g = gen.fields[i];
            EXPECT_EQ(a.type * 1000 + a.width * 10 + a.offset, g.type * 1000 + g.width * 10 + g.offset);
        }
    }
    EXPECT_EQ(0u, KWRTypGen(&gen, nullptr, &empty.r));
    EXPECT_EQ(std::make_tuple(gen.fieldCount, gen.dataLength, gen.name[0]), std::make_tuple(0, 6, 0));
    KWRTypFree(&gen);
}

// KWRRecCheck with the image ending where readable memory ends, so that a
// check reading image[L] faults instead of passing.  "CM" A = "abc", "CB" B =
// "xy", "CH5" C = "hi": the packed image ends with B's 0 byte.
TEST(record_bounds, CheckReadsNothingPastTheImage) {
    Type type("T|3\r\nA|CM\r\nB|CB\r\nC|CH5");
    Rec rec(type);
    ASSERT_EQ(0u, KWRSetAsText(type.F("A"), &rec.r, 3, "abc"));
    ASSERT_EQ(0u, KWRSetAsText(type.F("B"), &rec.r, 2, "xy"));
    ASSERT_EQ(0u, KWRSetAsText(type.F("C"), &rec.r, 2, "hi"));
    ASSERT_EQ(0u, KWRRecPack(&type.t, &rec.r, 1, 1));
    const std::vector<uint8_t> packed = rec.Bytes();
    const uint32_t L = static_cast<uint32_t>(packed.size());
    const uint32_t bValue = type.F("B")->offset;
    const uint32_t cValue = type.F("C")->offset;
    ASSERT_EQ(packed[L - 1], 0);
    using Bytes = std::vector<uint8_t>;
    auto put = [](Bytes& b, uint32_t at, uint32_t v) { std::memcpy(&b[at], &v, 4); };
    // change to the packed image -> refused (KWR_CORRUPT) or accepted
    const std::tuple<const char*, std::function<void(Bytes&)>, bool> cases[] = {
        {"as packed: the last text's 0 byte is the image's last byte", [](Bytes&) {}, false},
        {"last text one longer: its 0 byte would sit at L", [&](Bytes& b) { put(b, bValue, 3); }, true},
        {"last text ending on a byte that is not 0", [&](Bytes& b) { b[L - 1] = 'z'; }, true},
        {"last text's offset moved to the last byte (empty text there)",
         [&](Bytes& b) { put(b, bValue, 0); put(b, bValue + 4, L - 1); }, false},
        {"last text's offset at L", [&](Bytes& b) { put(b, bValue, 0); put(b, bValue + 4, L); }, true},
        {"\"CH\" length at its capacity", [&](Bytes& b) { b[cValue + 1] = 5; }, false},
        {"\"CH\" length one past its capacity", [&](Bytes& b) { b[cValue + 1] = 6; }, true},
        {"the length word one byte more than there is", [](Bytes& b) { b.pop_back(); }, true},
    };
    for (const auto& [what, change, refused] : cases) {
        Bytes bytes = packed;
        change(bytes);
        kwztest::GuardedBytes guarded(bytes);
        KWRData view = View(guarded, bytes.size(), bytes[5]);
        EXPECT_EQ(refused ? KWR_CORRUPT : 0u, KWRRecCheck(&type.t, &view)) << what;
    }
}

// KWRTypGen walks an image by its own header bytes, bounded by the record's
// length: the last slot ending on the last byte builds the type, an image
// one byte short of its last slot gives 4, neither reading past the bytes.
TEST(record_bounds, TypeGenerationStopsAtTheLength) {
    Type type("T|2\r\nA|I4\r\nC|CH5");
    Rec rec(type);
    ASSERT_EQ(0u, KWRSetAsText(type.F("C"), &rec.r, 2, "hi"));
    ASSERT_EQ(0u, KWRRecPack(&type.t, &rec.r, 1, 1));
    const std::vector<uint8_t> image = rec.Bytes();
    ASSERT_EQ(type.t.dataLength, image.size());
    for (size_t n : {image.size(), image.size() - 1}) {
        kwztest::GuardedBytes guarded(image.data(), n);
        KWRData view = View(guarded, n, 2);
        KWRType generated;
        KWRTypInit(&generated);
        EXPECT_EQ(n == image.size() ? 0u : KWR_SYNTAX, KWRTypGen(&generated, "G", &view)) << n;
        EXPECT_EQ(n == image.size() ? 2 : 0, generated.fieldCount);
        KWRTypFree(&generated);
    }
}
