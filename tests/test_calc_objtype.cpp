// The object-type registry and an object type of the test's own that
// exercises every slot the value operations call: Free, Copy, Cast, New,
// Get, Put, ToBuff and FromBuff.
#include <gtest/gtest.h>

#include <VomKwz.h>

#include <cstring>
#include <string>
#include <vector>

#include "test_calc_util.h"

using namespace calctest;

namespace {

// "Pair": the payload points at a heap pair (a, b); properties 1 "A" and
// 2 "B"; its image is the two 64-bit numbers.
struct Pair { int64_t a, b; };
int32_t g_pairTag = 0;
int g_livePairs = 0;
int g_copies = 0;

Pair* P(const CVar* v) { return static_cast<Pair*>(v->v.p); }
void SetPair(CVar* v, int64_t a, int64_t b) {
    CVarSetEmpty(v);
    v->type = g_pairTag;
    v->v.p = new Pair{a, b};
    ++g_livePairs;
}

void PairFree(CVar* v) {
    delete P(v);
    --g_livePairs;
}
void PairCopy(CVar* d, const CVar* s) {
    ++g_copies;
    EXPECT_EQ(d->type, g_pairTag);
    d->v.p = new Pair(*P(s));
    ++g_livePairs;
}
int32_t PairCast(CVar* v, int32_t to) {
    if (v->type == g_pairTag && to == 1) {
        const int64_t sum = P(v)->a + P(v)->b;
        CVarSetInt(v, sum);
        return 0;
    }
    if (v->type == 1 && to == g_pairTag) {
        SetPair(v, v->v.i, 0);
        return 0;
    }
    return v->type == to ? 0 : -44;
}
// A selector: 1 or "a" (any case) for A, 2 or "b" for B; 0 for none.
int Field(const CVar* sel) {
    if (sel->type == 1) return sel->v.i == 1 || sel->v.i == 2 ? int(sel->v.i) : 0;
    if (sel->type != 3) return 0;
    const uint32_t p = PropNameToInt(sel->v.s);
    return p == 'a' ? 1 : p == 'b' ? 2 : 0;
}
int32_t PairGet(KWCalcStack* s) {
    CVar* obj = KWCalcStackArg(s, 0);
    const CVar* sel = KWCalcStackArg(s, 1);
    int64_t sum = 0;
    const int32_t n = sel->type == 4 ? sel->count : 1;
    for (int32_t i = 0; i < n; ++i) {
        const int f = Field(sel->type == 4 ? &sel->v.a[i] : sel);
        if (!f) return -48;
        sum += f == 1 ? P(obj)->a : P(obj)->b;
    }
    CVarSetInt(obj, sum);
    return 0;
}
int32_t PairPut(KWCalcStack* s) {
    CVar* obj = KWCalcStackArg(s, 0);
    const int f = Field(KWCalcStackArg(s, 1));
    const CVar* value = KWCalcStackArg(s, 2);
    if (!f || value->type != 1) return -48;
    (f == 1 ? P(obj)->a : P(obj)->b) = value->v.i;
    return 0;
}
int32_t PairNew(KWCalcStack* s) {
    const CVar* init = KWCalcStackArg(s, 1);
    if (init->type != 1) return -44;
    SetPair(KWCalcStackArg(s, 0), init->v.i, -init->v.i);
    return 0;
}
int32_t PairToBuff(const CVar* v, void* dest, int32_t room) {
    if (dest) {
        EXPECT_EQ(room, 16);
        std::memcpy(dest, P(v), 16);
    }
    return 16;
}
int32_t PairFromBuff(CVar* v, const void* src) {
    Pair p;
    std::memcpy(&p, src, 16);
    v->v.p = new Pair(p);
    ++g_livePairs;
    return p.a == 666 ? 0 : 16;  // a refusal, to test that path
}

KWCalcObjDef MakeDef(const char* name) {
    KWCalcObjDef d{};
    d.name = name;
    return d;
}

class calcObjType : public ::testing::Test {
protected:
    void SetUp() override {
        pair_ = MakeDef("Pair");
        pair_.Free = PairFree;
        pair_.Copy = PairCopy;
        pair_.Cast = PairCast;
        pair_.New = PairNew;
        pair_.Get = PairGet;
        pair_.Put = PairPut;
        pair_.ToBuff = PairToBuff;
        pair_.FromBuff = PairFromBuff;
        g_pairTag = 42;
        ASSERT_EQ(KWCalcObjTypeReg(g_pairTag, &pair_), &pair_);
        raw_ = MakeDef("Raw");
        ASSERT_EQ(KWCalcObjTypeReg(43, &raw_), &raw_);
        high_ = MakeDef("High");
        ASSERT_EQ(KWCalcObjTypeReg(200, &high_), &high_);
        ASSERT_EQ(KWCalcStackCreate(nullptr, &stack_, 8), 0);
        g_livePairs = g_copies = 0;
    }
    void TearDown() override {
        KWCalcStackFree(stack_);
        EXPECT_EQ(g_livePairs, 0) << "pairs leaked or freed twice";
        for (int32_t tag = 5; tag <= 255; ++tag) KWCalcObjTypeReg(tag, nullptr);
    }

    // Puts the values at slots 0.. of a fresh frame.
    void Frame(const std::vector<Make>& values) {
        KWCalcStackClear(stack_);
        for (const auto& m : values) m(KWCalcStackPush(stack_));
    }

    KWCalcObjDef pair_{}, raw_{}, high_{};
    KWCalcStack* stack_ = nullptr;
};

Make PairOf(int64_t a, int64_t b) { return [a, b](CVar* v) { SetPair(v, a, b); }; }

}  // namespace

TEST(calcRegistry, TagsOrderingUnregisteringAndNames) {
    KWCalcObjDef ints = MakeDef("IntS"), dbls = MakeDef("dblS"), strs = MakeDef("StrS"),
                 other = MakeDef("Other");
    for (int32_t tag : {-1, 0, 4, 256})
        EXPECT_EQ(KWCalcObjTypeReg(tag, &ints), nullptr) << tag;
    EXPECT_EQ(KWCalcObjTypeFromName("ints"), nullptr);
    EXPECT_EQ(KWCalcObjTypeReg(40, &strs), &strs);
    EXPECT_EQ(KWCalcObjTypeReg(10, &ints), &ints);
    EXPECT_EQ(KWCalcObjTypeReg(255, &dbls), &dbls);
    EXPECT_EQ(KWCalcObjTypeReg(5, &other), &other);
    struct Row { const char* name; KWCalcObjDef* found; };
    for (const Row& r : std::vector<Row>{{"ints", &ints}, {"INTS", &ints}, {"DBLS", &dbls},
                                         {"strs", &strs}, {"other", &other}, {"Int", nullptr},
                                         {"IntS2", nullptr}, {"", nullptr}, {nullptr, nullptr}})
        EXPECT_EQ(KWCalcObjTypeFromName(r.name), r.found) << (r.name ? r.name : "(null)");
    EXPECT_EQ(KWCalcObjType(10), &ints);
    EXPECT_EQ(KWCalcObjType(255), &dbls);
    for (int32_t tag : {-1, 0, 4, 11, 256}) EXPECT_EQ(KWCalcObjType(tag), nullptr) << tag;

    // A value's type name comes from its descriptor.
    CVar v{};
    v.type = 255;
    EXPECT_EQ(CVar_TypeName(&v), 0);
    EXPECT_EQ(Text(&v), "dblS");
    CVarSetEmpty(&v);

    EXPECT_EQ(KWCalcObjTypeReg(10, nullptr), nullptr);  // unregisters
    EXPECT_EQ(KWCalcObjType(10), nullptr);
    EXPECT_EQ(KWCalcObjTypeFromName("ints"), nullptr);
    EXPECT_EQ(KWCalcObjTypeFromName("strs"), &strs);
    EXPECT_EQ(KWCalcObjTypeFromName("other"), &other);

    // Of equal names, one of them (the first in sorted order) is found.
    KWCalcObjDef twin = MakeDef("STRS");
    EXPECT_EQ(KWCalcObjTypeReg(7, &twin), &twin);
    const KWCalcObjDef* found = KWCalcObjTypeFromName("Strs");
    EXPECT_TRUE(found == &strs || found == &twin);
    EXPECT_EQ(KWCalcObjTypeFromName("Strs"), found);
    for (int32_t tag = 5; tag <= 255; ++tag) KWCalcObjTypeReg(tag, nullptr);
    EXPECT_EQ(KWCalcObjTypeFromName("strs"), nullptr);
}

TEST_F(calcObjType, CopiesGoThroughTheCopySlotAndEmptyingThroughFree) {
    Val a, b, r, arr;
    SetPair(&a.v, 1, 2);
    CVarCopy(&b.v, &a.v);
    EXPECT_NE(P(&b.v), P(&a.v));
    EXPECT_EQ(P(&b.v)->b, 2);
    CVarCopyRef(&r.v, &a.v);  // the type decides: this one copies
    EXPECT_NE(P(&r.v), P(&a.v));
    Arr({PairOf(3, 4), Arr({PairOf(5, 6)})})(&arr.v);
    Val deep;
    CVarCopy(&deep.v, &arr.v);
    EXPECT_EQ(g_copies, 4);
    EXPECT_EQ(g_livePairs, 7);
    CVarSetEmpty(&deep.v);
    EXPECT_EQ(g_livePairs, 5);

    // A type without slots is copied and referenced bitwise.
    Val raw, rawCopy, rawRef;
    Raw(43, 0x5A)(&raw.v);
    CVarCopy(&rawCopy.v, &raw.v);
    CVarCopyRef(&rawRef.v, &raw.v);
    EXPECT_EQ(std::memcmp(&rawCopy.v, &raw.v, sizeof(CVar)), 0);
    EXPECT_EQ(std::memcmp(&rawRef.v, &raw.v, sizeof(CVar)), 0);
    // An unregistered tag copies to nothing.
    CVar ghost{};
    ghost.type = 99;
    CVarCopy(&rawCopy.v, &ghost);
    EXPECT_EQ(rawCopy->type, 0);
}

TEST_F(calcObjType, CastsChooseTheSlotOfTheObjectSide) {
    struct Row { const char* what; Make from; int32_t to; int32_t status; int32_t tag; };
    const std::vector<Row> rows = {
        {"pair to Int", PairOf(3, 4), 1, 0, 1},
        {"Int to pair", Int(9), 42, 0, 42},
        {"pair to pair", PairOf(1, 1), 42, 0, 42},
        {"pair to Str", PairOf(1, 1), 3, -44, 42},
        {"Str to pair", Str("x"), 42, -44, 3},
        {"raw to itself", Raw(43, 1), 43, 0, 43},
        {"raw to Int", Raw(43, 1), 1, -44, 43},
        {"Int to raw", Int(1), 43, -44, 1},
    };
    for (const auto& r : rows) {
        Val v;
        r.from(&v.v);
        EXPECT_EQ(CVarCast(&v.v, r.to), r.status) << r.what;
        EXPECT_EQ(v->type, r.tag) << r.what;
        if (v->type == 43) std::memset(&v.v, 0, sizeof(CVar));
    }
    Val v;
    SetPair(&v.v, 3, 4);
    ASSERT_EQ(CVarCast(&v.v, 1), 0);
    EXPECT_EQ(v->v.i + 0, 7);
}

TEST_F(calcObjType, PropertiesThroughTheStackProtocol) {
    Val obj;
    SetPair(&obj.v, 10, 20);
    struct Row { const char* what; std::vector<Make> selectors; int32_t status; int64_t result; };
    const std::vector<Row> rows = {
        {"by number", {Int(2)}, 0, 20},
        {"by name", {Str("a")}, 0, 10},
        {"by name ignoring case", {Str("B")}, 0, 20},
        {"two selectors packed", {Int(1), Str("b")}, 0, 30},
        {"three selectors packed", {Int(1), Int(1), Int(2)}, 0, 40},
        {"unknown property", {Str("zz")}, -48, 0},
        {"no selector", {}, -48, 0},
    };
    for (const auto& r : rows) {
        Frame(r.selectors);
        const int32_t n = int32_t(r.selectors.size());
        EXPECT_EQ(CVarGetObjVar(stack_, &obj.v, n), r.status) << r.what;
        if (r.status == 0) {
            EXPECT_EQ(KWCalcStackArg(stack_, 0)->v.i + 0, r.result) << r.what;
            CVar out{};
            EXPECT_EQ(KWCalcStackPop(stack_, &out), 0);
            EXPECT_EQ(out.v.i + 0, r.result);
            EXPECT_EQ(KWCalcStackPop(stack_, nullptr), -47);  // the frame held one value
        }
    }
    struct PutRow { const char* what; std::vector<Make> frame; int32_t n; int32_t status; int64_t a, b; };
    const std::vector<PutRow> puts = {
        {"one selector", {Int(1), Int(5)}, 1, 0, 5, 20},
        {"by name", {Str("b"), Int(6)}, 1, 0, 5, 6},
        {"failing put keeps the object", {Str("b"), Str("not an int")}, 1, -48, 5, 6},
        {"unknown property", {Str("q"), Int(1)}, 1, -48, 5, 6},
        {"packed selectors reach Put as one array", {Int(1), Int(2), Int(9)}, 2, -48, 5, 6},
        {"no selector", {Int(1)}, 0, -48, 5, 6},
    };
    for (const auto& r : puts) {
        Frame(r.frame);
        EXPECT_EQ(CVarPutObjVar(stack_, &obj.v, r.n), r.status) << r.what;
        EXPECT_EQ(P(&obj.v)->a, r.a) << r.what;
        EXPECT_EQ(P(&obj.v)->b, r.b) << r.what;
    }
    // Types without Get/Put, and a stack too small for the frame.
    Val raw;
    Raw(43, 0)(&raw.v);
    Frame({Int(1)});
    EXPECT_EQ(CVarGetObjVar(stack_, &raw.v, 1), -44);
    EXPECT_EQ(CVarPutObjVar(stack_, &raw.v, 1), -44);
    Val i;
    CVarSetInt(&i.v, 1);
    EXPECT_EQ(CVarGetObjVar(stack_, &i.v, 1), -44);
    std::memset(&raw.v, 0, sizeof(CVar));
    KWCalcStack* tiny = nullptr;
    ASSERT_EQ(KWCalcStackCreate(nullptr, &tiny, 2), 0);
    Int(1)(KWCalcStackPush(tiny));
    EXPECT_EQ(CVarGetObjVar(tiny, &obj.v, 1), 0);
    KWCalcStackClear(tiny);
    Int(1)(KWCalcStackPush(tiny));
    Int(2)(KWCalcStackPush(tiny));
    EXPECT_EQ(CVarPutObjVar(tiny, &obj.v, 1), -47);
    KWCalcStackFree(tiny);
}

TEST_F(calcObjType, NewByTagOrName) {
    struct Row { const char* what; Make type; Make init; int32_t status; };
    const std::vector<Row> rows = {
        {"by tag", Int(42), Int(3), 0},
        {"by name", Str("PAIR"), Int(4), 0},
        {"the type refuses", Str("pair"), Str("x"), -44},
        {"type without New", Int(43), Int(1), -44},
        {"built-in tag", Int(1), Int(1), -44},
        {"unknown name", Str("nope"), Int(1), -44},
        {"neither tag nor name", Dbl(42), Int(1), -44},
    };
    for (const auto& r : rows) {
        Frame({r.type, r.init});
        EXPECT_EQ(CVar_New(stack_), r.status) << r.what;
        if (r.status == 0) {
            const CVar* made = KWCalcStackArg(stack_, 0);
            EXPECT_EQ(made->type, 42);
            EXPECT_EQ(P(made)->a, -P(made)->b);
        }
    }
    KWCalcStackClear(stack_);
}

TEST_F(calcObjType, ImagesThroughToBuffAndFromBuff) {
    Val v;
    Arr({PairOf(1, 2), Raw(43, 0x11)})(&v.v);
    const std::string hex = "04 02000000 2a 0100000000000000 0200000000000000 2b" +
                            std::string(" 11111111111111111111111111111111111111111");
    EXPECT_EQ(ImageHex(&v.v), ToHex(Hex(hex)));
    const std::vector<uint8_t> image = Image(&v.v);
    for (bool bounded : {false, true}) {
        Val back;
        const int32_t n = bounded ? CVarFromBuffN(&back.v, image.data(), int32_t(image.size()))
                                  : CVarFromBuff(&back.v, image.data());
        ASSERT_EQ(n, int32_t(image.size()));
        EXPECT_EQ(P(&back->v.a[0])->b, 2);
        EXPECT_EQ(Image(&back.v), image);
        std::memset(&back->v.a[1], 0, sizeof(CVar));
    }
    std::memset(&v->v.a[1], 0, sizeof(CVar));

    // The type's count is checked against the bytes there were; a refusal
    // empties the value through Free.
    Val w;
    EXPECT_EQ(CVarFromBuffN(&w.v, image.data() + 5, 10), 0);
    EXPECT_EQ(w->type, 0);
    const std::vector<uint8_t> refused = Hex("2a 9a02000000000000 0000000000000000");
    EXPECT_EQ(CVarFromBuffN(&w.v, refused.data(), int32_t(refused.size())), 0);
    EXPECT_EQ(w->type, 0);
    // Tags of 128 and more are written, never read back.
    Val high;
    Raw(200, 0)(&high.v);
    const std::vector<uint8_t> highImage = Image(&high.v);
    ASSERT_EQ(highImage.size(), 21u);
    EXPECT_EQ(highImage[0], 200);
    EXPECT_EQ(CVarFromBuffN(&w.v, highImage.data(), 21), 0);
    std::memset(&high.v, 0, sizeof(CVar));
}

TEST_F(calcObjType, ImagesOfUnregisteredOrRefusingTypesFail) {
    KWCalcObjDef refuse = MakeDef("Refuse");
    refuse.ToBuff = [](const CVar*, void*, int32_t) -> int32_t { return 0; };
    ASSERT_EQ(KWCalcObjTypeReg(50, &refuse), &refuse);
    Val v;
    Arr({Int(1), Raw(50, 0)})(&v.v);
    EXPECT_EQ(CVarToBuff(&v.v, nullptr, 0), 0);
    v->v.a[1].type = 51;  // unregistered
    EXPECT_EQ(CVarToBuff(&v.v, nullptr, 0), 0);
    std::memset(&v->v.a[1], 0, sizeof(CVar));
    KWCalcObjTypeReg(50, nullptr);  // the descriptor dies with this test
}

TEST(calcStack, CapacityPushPopAndArguments) {
    KWCalcStack* s = nullptr;
    EXPECT_EQ(KWCalcStackCreate(nullptr, &s, 0), -47);
    EXPECT_EQ(s, nullptr);
    ASSERT_EQ(KWCalcStackCreate(nullptr, &s, 4), 0);
    EXPECT_EQ(KWCalcStackTest(s, 3), 0);  // capacity n accepts n - 1, not n
    EXPECT_EQ(KWCalcStackTest(s, 4), -47);
    for (int i = 0; i < 4; ++i) CVarSetStr(KWCalcStackPush(s), "abc", 3);
    EXPECT_EQ(KWCalcStackPush(s), nullptr);
    EXPECT_EQ(KWCalcStackTest(s, 0), -47);
    EXPECT_EQ(Text(KWCalcStackArg(s, 3)), "abc");
    EXPECT_EQ(KWCalcStackArg(s, 4), nullptr);
    EXPECT_EQ(KWCalcStackArg(s, -1), nullptr);
    CVar out{};
    EXPECT_EQ(KWCalcStackPop(s, &out), 0);
    EXPECT_EQ(Text(&out), "abc");
    CVarSetEmpty(&out);
    EXPECT_EQ(KWCalcStackData(s), nullptr);
    KWCalcStackFree(s);  // frees the three strings left
}

TEST(calcConst, SetOnceIgnoringCaseAndCopies) {
    KWCalcConst* t = nullptr;
    EXPECT_EQ(KWCalcConstCreate(&t, 0), 0);  // a capacity below 1 makes nothing
    EXPECT_EQ(t, nullptr);
    ASSERT_EQ(KWCalcConstCreate(&t, 2), 0);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(KWCalcConstInt(t, "Answer", 42, "the answer"), 0);
    EXPECT_EQ(KWCalcConstInt(t, "ANSWER", 7, nullptr), 0);  // set once: 42 stays
    EXPECT_EQ(KWCalcConstDbl(t, "pi", 3.25, nullptr), 0);
    std::string text = "abc";
    EXPECT_EQ(KWCalcConstStr(t, "S", text.data(), 2, nullptr), 0);
    text = "zzz";  // the table holds its own copy
    EXPECT_EQ(KWCalcConstStr(t, "none", nullptr, 5, nullptr), 0);
    EXPECT_EQ(KWCalcConstInt(t, nullptr, 1, nullptr), -44);
    struct Row { const char* name; int32_t found; const char* image; };
    for (const Row& r : std::vector<Row>{{"answer", 1, "01 2a00000000000000"},
                                         {"PI", 1, "02 0000000000000a40"},
                                         {"s", 1, "03 02000000 6162"},
                                         {"NONE", 1, "03 00000000"},
                                         {"other", 0, ""}}) {
        CVar* v = reinterpret_cast<CVar*>(&text);
        EXPECT_EQ(KWCalcConstGet(t, r.name, &v), r.found) << r.name;
        EXPECT_EQ(v ? ImageHex(v) : "", ToHex(Hex(r.image))) << r.name;
    }
    KWCalcConst* copy = nullptr;
    ASSERT_EQ(KWCalcConstCreate(&copy, 1), 0);
    EXPECT_EQ(KWCalcConstInt(copy, "pi", 3, nullptr), 0);
    EXPECT_EQ(KWCalcConstCopy(copy, t), 0);
    CVar* v = nullptr;
    EXPECT_EQ(KWCalcConstGet(copy, "Pi", &v), 1);
    EXPECT_EQ(v->type, 1);  // the destination's own value stays
    EXPECT_EQ(KWCalcConstGet(copy, "S", &v), 1);
    EXPECT_EQ(Text(v), "ab");
    EXPECT_EQ(KWCalcConstDel(t, "s"), 0);
    EXPECT_EQ(KWCalcConstDel(t, "s"), -44);
    EXPECT_EQ(KWCalcConstGet(t, "S", nullptr), 0);
    EXPECT_EQ(KWCalcConstGet(copy, "S", nullptr), 1);
    KWCalcConstClear(t);
    EXPECT_EQ(KWCalcConstGet(t, "answer", nullptr), 0);
    KWCalcConstDestroy(t);
    KWCalcConstDestroy(copy);
    KWCalcConstDestroy(nullptr);
}
