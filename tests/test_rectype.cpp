// Record types: the definition grammar, layouts, the name index, the other
// builders (field-definition arrays, record images) and the text written back.
#include <VomKwz.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace {

struct Type {  // initialised, and always freed
    KWRType t;
    Type() { KWRTypInit(&t); }
    ~Type() { KWRTypFree(&t); }
    KWRType* operator->() { return &t; }
    KWRType* operator&() { return &t; }
};

// The state every failed build leaves (the id may already be set).
void ExpectEmpty(const KWRType& t) {
    EXPECT_TRUE(!t.name[0] && !t.fieldCount && !t.fields && !t.description && !t.dataLength);
}

void ExpectSameFields(const KWRType& a, const KWRType& b) {
    ASSERT_EQ(a.fieldCount, b.fieldCount);
    EXPECT_EQ(a.dataLength, b.dataLength);
    for (int i = 0; i < a.fieldCount; ++i) {
        const KWRField &x = a.fields[i], &y = b.fields[i];
        EXPECT_TRUE(!std::strcmp(x.name, y.name) && x.type == y.type && x.width == y.width &&
                    x.offset == y.offset) << "field " << i;
    }
}

std::string ManyFields(const std::string& count, int n) {  // F0..F(n-1), all I4
    std::string d = "T|" + count;
    for (int i = 0; i < n; ++i) d += "\r\nF" + std::to_string(i) + "|I4";
    return d;
}

// A definition, its field count, then the first field's name, type and width.
const struct { const char* def; int fields; const char* name0; uint8_t type0; uint32_t width0; } kAccepted[] = {
    {"T|0\r\nA|I4", 0, nullptr, 0, 0},           {"T|1\r\nA|I4\r\nB|I8", 1, "A", 5, 4},
    {"T|1\n\r\n\r\rA|I4\r\n\r\n", 1, "A", 5, 4}, {"T|1\r\nA|ch5", 1, "A", 9, 5},
    {"T|1\r\nA|cH +7x", 1, "A", 9, 7},           {"T|1\r\nA|i4x", 1, "A", 5, 4},
    {"T|1\r\n A B|I4", 1, " A B", 5, 4},         {"T|\t+1x\r\nA|CM", 1, "A", 10, 0},
    {"T|\r\n5\r\nA|I4", 0, nullptr, 0, 0},       {"T|-255\r\nA|F8", 1, "A", 8, 8},
};

const char* const kRefused[] = {
    "T|2\r\nA|I4", "|1\r\nA|I4", "T\r\n|1", "T", "", "T|1\r\n\r\n", "T|1\r\n|I4", "T|1\r\nAI4",
    "T|1\r\nA|X9", "T|1\r\nA|I", "T|1\r\nA|", "T|1\r\nA| I4", "T|1\r\nA|CH", "T|1\r\nA|CH0",
    "T|1\r\nA|CH256", "T|1\r\nA|CH99999999999999999999", "T|2\r\nName|I4\r\nNAME|I8",
    "D|3|d\r\nX|I4|x\r\nY|I4|y\r\nx|I4|z",  // duplicate found after descriptions were made
};

TEST(rectype_Grammar, AcceptedAndRefused) {
    Type t;
    for (const auto& c : kAccepted) {
        ASSERT_EQ(KWRTypSet(&t, 9, c.def), 0u) << c.def;
        ASSERT_EQ(t->fieldCount, c.fields) << c.def;
        EXPECT_TRUE(!c.name0 || (!std::strcmp(t->fields[0].name, c.name0) && t->fields[0].type == c.type0 &&
                                 t->fields[0].width == c.width0)) << c.def;
    }
    // Refused over a type holding descriptions: the leak checker proves that
    // nothing old or half-built stays allocated.
    for (const char* def : kRefused) {
        ASSERT_EQ(KWRTypSet(&t, 1, "Full|2|desc\r\nA|CM|a\r\nB|CH4|b"), 0u);
        EXPECT_EQ(KWRTypSet(&t, 9, def), 4u) << def;
        EXPECT_EQ(t->id, 9u);
        ExpectEmpty(t.t);
    }
    for (auto [count, n] : {std::pair{"300", 44}, {"-1", 255}, {"99999999999999999999", 255}}) {
        EXPECT_EQ(KWRTypSet(&t, 1, ManyFields(count, n).c_str()), 0u) << count;
        EXPECT_EQ(KWRTypSet(&t, 1, ManyFields(count, n - 1).c_str()), 4u) << count;
    }
    const std::string name(100, 'n'), desc(5000, 'd');
    ASSERT_EQ(KWRTypSet(&t, 1, (name + "|1|" + desc + "|x\r\n" + name + "|I2|d|x").c_str()), 0u);
    EXPECT_EQ(t->fields[0].name, name.substr(0, 63));
    EXPECT_EQ(t->description, desc);  // kept whole
    EXPECT_STREQ(t->fields[0].description, "d");
}

TEST(rectype_Layout, EveryTypeCode) {
    Type t;
    ASSERT_EQ(KWRTypSet(&t, 3, "All|11\r\nL|L1\r\nB|B1\r\nI1|I1\r\nI2|I2\r\nI4|I4\r\nI8|I8\r\n"
                               "F4|F4\r\nF8|F8\r\nC|CH20\r\nM|CM\r\nK|CB"), 0u);
    const uint32_t width[] = {1, 1, 1, 2, 4, 8, 4, 8, 20, 0, 0}, slot[] = {2, 2, 2, 3, 5, 9, 5, 9, 24, 9, 9};
    uint32_t size = 6;
    for (int i = 0; i < 11; ++i) {
        const KWRField& f = t->fields[i];
        EXPECT_TRUE(f.type == i + 1 && f.width == width[i] && f.number == uint32_t(i) &&
                    f.offset == size + 1) << "field " << i;
        size += slot[i];
    }
    EXPECT_EQ(t->dataLength, size);
}

TEST(rectype_Index, HashAndLookups) {
    // Reference over unsigned bytes: 0x80..0xFF add b - 256, 0x61..0x7F fold.
    auto reference = [](const std::string& s) {
        uint32_t h = 0;
        for (unsigned char b : s) h = h * 33u + (b >= 0x80 ? b - 256u : b > 96 ? b - 32u : b);
        return h;
    };
    EXPECT_TRUE(HashKey("abc") == HashKey("ABC") && HashKey("") == 0 && HashKey(nullptr) == 0);
    for (const char* s : {"_Login", "\xFF\x80z{~\x7F", "Name\xE9\xC9", "zzzzzzzzzzzzzzzzzzzzz"})
        EXPECT_EQ(HashKey(s), reference(s)) << s;

    Type t;  // "A" (65) and "C" (67) share bucket 1 of 2: the later field heads it
    ASSERT_EQ(KWRTypSet(&t, 1, "T|2\r\nA|I4\r\nC|I4"), 0u);
    EXPECT_TRUE(t->fields[1].bucketHead == &t->fields[1] && t->fields[1].chainNext == &t->fields[0]);
    ASSERT_EQ(KWRTypSet(&t, 1, ManyFields("40", 40).c_str()), 0u);
    KWRField* f = nullptr;
    EXPECT_TRUE(KWRTypFld(&t, "f39", &f) == 0 && f == &t->fields[39]);
    EXPECT_TRUE(KWRTypFld(&t, "F40", &f) == 3 && f == nullptr);
    int wide = 256;  // numbers are 8-bit: 256 reaches field 0
    EXPECT_EQ(KWRFldByNum(&t, static_cast<uint8_t>(wide)), &t->fields[0]);
    ASSERT_EQ(KWRTypSet(&t, 1, "T|2\r\n\xDF|I4\r\n\xFF|I4"), 0u);  // Я and я: only ASCII folds
    EXPECT_EQ(KWRFldByName(&t, "\xFF"), &t->fields[1]);
}

KWRFieldDef Def(const char* name, uint8_t type, uint8_t width = 0) {
    KWRFieldDef d{{}, width, type};
    std::memcpy(d.name, name, std::min(std::strlen(name) + 1, sizeof d.name));
    return d;
}

TEST(rectype_SetA, BuildsAndRefuses) {
    Type t;
    std::vector<KWRFieldDef> defs = {Def("Id", 6), Def("Name", 9, 30), Def("Note", 10), Def("Raw", 9, 0)};
    std::memset(defs[0].name, 'x', sizeof defs[0].name);  // no terminator: cut to 63
    ASSERT_EQ(KWRTypSetA(&t, 7, nullptr, 4, defs.data()), 0u);
    EXPECT_EQ(t->fields[0].name, std::string(63, 'x'));
    EXPECT_EQ(t->fields[3].width, 0u);  // "CH" capacity taken as given
    EXPECT_EQ(t->dataLength, 6u + 9 + 34 + 9 + 4);
    for (auto bad : {std::vector{Def("A", 5), Def("B", 0)}, std::vector{Def("A", 12)},
                     std::vector{Def("Same", 5), Def("SAME", 6)}}) {
        ASSERT_EQ(KWRTypSetA(&t, 1, "X", 2, defs.data()), 0u);
        EXPECT_EQ(KWRTypSetA(&t, 1, "X", uint8_t(bad.size()), bad.data()), 4u);
        ExpectEmpty(t.t);
    }
}

TEST(rectype_Get, GoldenTextAndRoundTrips) {
    std::ifstream in(KWZ_TEST_DATA_DIR "/typedef-order.txt", std::ios::binary);
    const std::string golden((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    Type t;
    ASSERT_EQ(KWRTypSet(&t, 5, golden.c_str()), 0u);
    char* text = nullptr;
    ASSERT_EQ(KWRTypGet(&t, &text), 0u);
    EXPECT_EQ(std::string(text), golden);  // byte for byte
    KWMemFree(text);
    ASSERT_EQ(KWRTypDefStrSet(&t, "new"), 0u);
    EXPECT_STREQ(t->description, "new");

    std::mt19937 rng(42);  // random types: written back and parsed again
    for (int round = 0; round < 200; ++round) {
        std::vector<KWRFieldDef> defs(rng() % 20);
        for (size_t i = 0; i < defs.size(); ++i) {
            std::string name = "f" + std::to_string(i) + std::string(rng() % 70, char('a' + i));
            defs[i] = Def(name.c_str(), uint8_t(1 + rng() % 11), uint8_t(1 + rng() % 255));
        }
        Type a, b;
        ASSERT_EQ(KWRTypSetA(&a, 1, "R", uint8_t(defs.size()), defs.data()), 0u);
        ASSERT_EQ(KWRTypGet(&a, &text), 0u);
        ASSERT_EQ(KWRTypSet(&b, 1, text), 0u) << text;
        KWMemFree(text);
        ExpectSameFields(a.t, b.t);
        KWRFieldDef back[20];  // and through _FldAddGet
        const bool variable = std::any_of(defs.begin(), defs.end(), [](auto& d) { return d.type >= 10; });
        EXPECT_EQ(_FldAddGet(&a, back), variable ? 1u : 0u);
        ASSERT_EQ(KWRTypSetA(&b, 1, "R", uint8_t(defs.size()), back), 0u);
        ExpectSameFields(a.t, b.t);
    }
    t->fields[1].type = 12;
    EXPECT_TRUE(KWRTypGet(&t, &text) == KWR_CORRUPT && text == nullptr);
}

// A record image built by hand: u32 length, flags, field count, slots.
struct Image {
    std::vector<uint8_t> bytes{0, 0, 0, 0, 0, 0};
    Image& Slot(uint8_t header, size_t zeros, std::vector<uint8_t> value = {}) {
        bytes.push_back(header);
        bytes.insert(bytes.end(), value.begin(), value.end());
        bytes.insert(bytes.end(), zeros, 0);
        ++bytes[5];
        return *this;
    }
    KWRData Record() {
        const uint32_t n = uint32_t(bytes.size());
        std::memcpy(bytes.data(), &n, 4);
        return KWRData{n, 77, nullptr, nullptr, bytes.data(), 0, bytes[5], 0, 0};  // type id 77
    }
};

TEST(rectype_Gen, FromImage) {
    Image img;  // flag bits above the type code are ignored
    img.Slot(0x81, 1).Slot(0x24, 2).Slot(0x46, 8).Slot(9, 6, {5, 0}).Slot(10, 8).Slot(0x9B, 8);
    img.bytes.insert(img.bytes.end(), {'t', 'x', 't', 0});  // variable part
    KWRData rec = img.Record();
    Type gen, parsed;
    ASSERT_EQ(KWRTypGen(&gen, "Unknown", &rec), 0u);
    ASSERT_EQ(KWRTypSet(&parsed, 77, "Unknown|6\r\nF0|L1\r\nF1|I2\r\nF2|I8\r\nF3|CH5\r\nF4|CM\r\nF5|CB"), 0u);
    EXPECT_EQ(gen->id, 77u);
    ExpectSameFields(gen.t, parsed.t);
    EXPECT_EQ(KWRFldByName(&gen, "f3"), &gen->fields[3]);

    // claimsMore: the count says one field more than the image holds.
    struct { const char* what; Image image; bool claimsMore; } invalid[] = {
        {"type code 0", Image().Slot(5, 4).Slot(0, 4), false}, {"type code 12", Image().Slot(12, 8), false},
        {"CH capacity 0", Image().Slot(9, 3), false},          {"slot past the end", Image().Slot(6, 7), false},
        {"CH text past the end", Image().Slot(9, 3, {10}), false},
        {"CH capacity missing", Image().Slot(9, 0), false},   {"header byte missing", Image().Slot(5, 4), true},
    };
    for (auto& c : invalid) {
        c.image.bytes[5] += c.claimsMore;
        rec = c.image.Record();
        ASSERT_EQ(KWRTypSet(&gen, 1, "Full|1|desc\r\nA|CM|a"), 0u);
        EXPECT_EQ(KWRTypGen(&gen, "G", &rec), 4u) << c.what;
        ExpectEmpty(gen.t);
    }
    rec = img.Record();  // the image's own length field bounds the walk too
    img.bytes[0] = 40;
    EXPECT_EQ(KWRTypGen(&gen, "G", &rec), 4u);
    img.bytes[0] = 5;
    rec.fieldCount = 0;
    EXPECT_EQ(KWRTypGen(&gen, "G", &rec), 4u);
    EXPECT_EQ(KWRTypGen(&gen, "G", nullptr), 4u);
}

}  // namespace
