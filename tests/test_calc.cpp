// Calculator values: strings, copies and references, arrays and indexing,
// and the cast table.
#include <gtest/gtest.h>

#include <VomKwz.h>

#include <climits>
#include <cstdio>
#include <cmath>
#include <string>
#include <vector>

#include "test_calc_util.h"

using namespace calctest;

namespace {

std::string Printed(double d) {
    char text[400];
    std::snprintf(text, sizeof text, "%f", d);
    return text;
}

int Sign(int32_t x) { return x < 0 ? -1 : x > 0 ? 1 : 0; }

CStr S(const std::string& s) {
    CStr c{const_cast<char*>(s.data()), int32_t(s.size()), 1};
    return c;
}

}  // namespace

TEST(calcStr, CompareBothWays) {
    struct Row { std::string a, b; int cmp, cmpi; };
    const std::vector<Row> rows = {
        {"abc", "ABCD", 1, 0},   // 'a' > 'A'; case-insensitive prefix is equal
        {"abc", "abc", 0, 0},
        {"ab", "abc", -1, 0},    // shorter orders first, but not ignoring case
        {"abc", "ab", 1, 0},
        {"", "x", -1, 0},        // an empty text equals anything ignoring case
        {"abd", "ABC", 1, 1},
        {"ABC", "abd", -1, -1},
        {"\xE0", "\xC0", 1, 0},  // Cyrillic small a folds to its capital
        {"\xFF", "\xDF", 1, 0},
        {"\xB8", "\xA8", 1, 1},  // yo is not folded
        {"[", "{", -1, -1},      // 0x7B is not a letter
        {"\x80", "\x01", 1, 1},  // bytes compare unsigned
        {std::string("a\0b", 3), std::string("a\0c", 3), -1, -1},
    };
    for (const auto& r : rows) {
        const CStr a = S(r.a), b = S(r.b);
        EXPECT_EQ(Sign(CStrCmp(&a, &b)), r.cmp) << r.a << " vs " << r.b;
        EXPECT_EQ(CStrCmpI(&a, &b), r.cmpi) << r.a << " vs " << r.b;
    }
}

TEST(calcStr, PropNameToInt) {
    struct Row { const char* name; uint32_t packed; };
    for (const Row& r : std::vector<Row>{{"Val", 0x0076616C}, {"", 0}, {nullptr, 0},
                                         {"VALUE", 0x76616C75}, {"Ab", 0x6162},
                                         {"x", 0x78}, {"\xC0Z", 0xC07A}, {"Sign", 0x7369676E}})
        EXPECT_EQ(PropNameToInt(r.name), r.packed) << (r.name ? r.name : "(null)");
}

TEST(calcStr, BlocksKeepATerminatorAndReferencesAreNeverResizedInPlace) {
    CStr s{};
    CStrAlloc(&s, 5);
    ASSERT_NE(s.text, nullptr);
    EXPECT_EQ(s.length, 5);
    EXPECT_EQ(s.text[5], 0);
    std::memcpy(s.text, "hello", 5);
    for (int32_t n : {127, 128, 300, 2}) {
        CStrReAlloc(&s, n);
        EXPECT_EQ(s.length, n);
        EXPECT_EQ(s.text[n], 0);
    }
    EXPECT_EQ(std::string(s.text, 2), "he");
    CStr alias{s.text, s.length, 1};
    CStrReAlloc(&alias, 4);  // becomes an owned copy; s keeps its block
    EXPECT_NE(alias.text, s.text);
    EXPECT_EQ(alias.ref, 0);
    EXPECT_EQ(std::string(alias.text, 4), std::string("he\0\0", 4));
    CStrFree(&alias);
    CStr ref{s.text, s.length, 1};
    CStrFree(&ref);  // frees nothing: the sanitizer build would see a double free
    CStrFree(&s);
    EXPECT_EQ(s.text, nullptr);
}

TEST(calcVar, SettersAndEmptying) {
    Val v;
    CVarSetStr(&v.v, nullptr, 3);
    ASSERT_EQ(v->type, 3);
    EXPECT_EQ(Text(&v.v), std::string(3, '\0'));
    EXPECT_EQ(v->v.s[3], 0);
    CVarSetStr(&v.v, v->v.s, -1);  // a negative length leaves the value empty
    EXPECT_EQ(v->type, 0);
    CVarSetArr(&v.v, -2);
    EXPECT_EQ(v->type, 0);
    CVarSetArr(&v.v, 0);
    EXPECT_EQ(v->type, 4);
    EXPECT_EQ(v->count, 0);
    CVarSetEmpty(&v.v);
    v->type = 999;  // an impossible tag is just reset
    CVarSetEmpty(&v.v);
    EXPECT_EQ(v->type, 0);

    CVar* block = nullptr;
    ASSERT_EQ(CVarAlloc(3, &block), block);
    ASSERT_NE(block, nullptr);
    CVarSetStr(&block[0], "x", 1);
    Arr({Str("a"), Arr({Str("b")})})(&block[2]);
    CVarFree(block, 3);
}

TEST(calcVar, DeepCopiesOwnEverything) {
    const Make nested = Arr({Int(1), Str("ab"), Arr({Int(2), Arr({Dbl(3.5), Str("")})})});
    Val src, dst;
    nested(&src.v);
    CVarSetStr(&dst.v, "old", 3);
    CVarCopy(&dst.v, &src.v);
    EXPECT_EQ(ImageHex(&dst.v), ImageHex(nested));
    EXPECT_TRUE(OwnsAll(&dst.v));
    EXPECT_NE(dst->v.a + 0, src->v.a + 0);
    EXPECT_NE(dst->v.a[1].v.s + 0, src->v.a[1].v.s + 0);

    // A reference source still gives an owned copy.
    Val ref, copy;
    CVarCopyRef(&ref.v, &src.v);
    EXPECT_EQ(ref->ref, 1);
    EXPECT_EQ(ref->v.a + 0, src->v.a + 0);
    CVarCopy(&copy.v, &ref.v);
    EXPECT_TRUE(OwnsAll(&copy.v));
    EXPECT_EQ(ImageHex(&copy.v), ImageHex(nested));

    CVarCopy(&dst.v, nullptr);
    EXPECT_EQ(dst->type, 0);
}

TEST(calcVar, CopiesIntoAndOutOfTheirOwnArrays) {
    struct Row { const char* what; int into; int from; const char* expect; };
    // into/from: -1 the array itself, k its element k.
    const std::vector<Row> rows = {
        {"array into its array element", 1, -1, "[1,[1,[2]]]"},
        {"array into its scalar element", 0, -1, "[[1,[2]],[2]]"},
        {"element into its array", -1, 1, "[2]"},
        {"element into a sibling", 0, 1, "[[2],[2]]"},
    };
    auto pick = [](CVar* a, int k) { return k < 0 ? a : &a->v.a[k]; };
    auto text = [](const Make& m) { return ImageHex(m); };
    const std::vector<std::pair<std::string, Make>> expected = {
        {"[1,[1,[2]]]", Arr({Int(1), Arr({Int(1), Arr({Int(2)})})})},
        {"[[1,[2]],[2]]", Arr({Arr({Int(1), Arr({Int(2)})}), Arr({Int(2)})})},
        {"[2]", Arr({Int(2)})},
        {"[[2],[2]]", Arr({Arr({Int(2)}), Arr({Int(2)})})},
    };
    for (size_t i = 0; i < rows.size(); ++i) {
        Val a;
        Arr({Int(1), Arr({Int(2)})})(&a.v);
        CVarCopy(pick(&a.v, rows[i].into), pick(&a.v, rows[i].from));
        EXPECT_EQ(ImageHex(&a.v), text(expected[i].second)) << rows[i].what;
        EXPECT_TRUE(OwnsAll(&a.v)) << rows[i].what;
    }
}

TEST(calcVar, ReferencesAliasAndBecomeOwnedOnWrite) {
    Val owner, ref, ch, idx;
    CVarSetStr(&owner.v, "abc", 3);
    CVarCopyRef(&ref.v, &owner.v);
    EXPECT_EQ(ref->ref, 1);
    EXPECT_EQ(ref->v.s + 0, owner->v.s + 0);
    CVarSetInt(&idx.v, 1);
    CVarSetInt(&ch.v, 'X');
    EXPECT_EQ(CVarPutChar(&ref.v, &idx.v, &ch.v, nullptr), 0);
    EXPECT_EQ(ref->ref, 0);
    EXPECT_EQ(Text(&ref.v), "aXc");
    EXPECT_EQ(Text(&owner.v), "abc");

    // A reference cast to its own tag becomes owned; an owner is left as is.
    Val arr, aref;
    Arr({Str("x"), Arr({Int(1)})})(&arr.v);
    CVarCopyRef(&aref.v, &arr.v);
    const CVar* before = arr->v.a;
    EXPECT_EQ(CVarCast(&aref.v, 4), 0);
    EXPECT_TRUE(OwnsAll(&aref.v));
    EXPECT_NE(aref->v.a + 0, before);
    EXPECT_EQ(CVarCast(&arr.v, 4), 0);
    EXPECT_EQ(arr->v.a + 0, before);
    char* text = owner->v.s;
    EXPECT_EQ(CVarCast(&owner.v, 3), 0);
    EXPECT_EQ(owner->v.s + 0, text);

    // Freeing references frees nothing (the sanitizer build checks).
    Val r1, r2;
    CVarCopyRef(&r1.v, &owner.v);
    CVarCopyRef(&r2.v, &arr.v);
    CVarSetEmpty(&r1.v);
    CVarSetEmpty(&r2.v);
    EXPECT_EQ(Text(&owner.v), "abc");

    Val neg;
    CVarSetInt(&neg.v, 5);
    CVar bad{};
    bad.type = -3;
    CVarCopyRef(&neg.v, &bad);
    EXPECT_EQ(neg->type, 0);
}

TEST(calcVar, MovesAndPacking) {
    Val a, b;
    Arr({Str("keep"), Int(2)})(&a.v);
    CVarMove(&a.v, &a.v.v.a[0]);  // an element replaces its own array
    EXPECT_EQ(Text(&a.v), "keep");
    CVarSetStr(&b.v, "gone", 4);
    CVarMove(&b.v, &a.v);
    EXPECT_EQ(a->type, 0);
    EXPECT_EQ(Text(&b.v), "keep");

    CVar run[3] = {};
    CVarSetInt(&run[0], 1);
    CVarSetStr(&run[1], "s", 1);
    CVarSetDbl(&run[2], 2.5);
    CArrCopy(run, 3);
    EXPECT_EQ(ImageHex(&run[0]), ImageHex(Arr({Int(1), Str("s"), Dbl(2.5)})));
    EXPECT_EQ(run[1].type, 0);
    EXPECT_EQ(run[2].type, 0);
    CVarClear(run, 3);
}

TEST(calcVar, IndexingArraysAndStrings) {
    Val a;
    Arr({Arr({Int(10), Int(20)}), Arr({Str("xyz")})})(&a.v);
    struct Row { std::vector<Make> idx; int32_t status; const char* expect; };
    const std::vector<Row> rows = {
        {{Int(0), Int(1)}, 0, "01 1400000000000000"},
        {{Str("1"), Dbl(0.9)}, 0, "03 03000000 78797a"},  // indexes cast to Int
        {{Int(1)}, 0, "04 01000000 03 03000000 78797a"},
        {{}, 0, "04 02000000 04 02000000 01 0a00000000000000 01 1400000000000000 04 01000000 03 03000000 78797a"},
        {{Int(2)}, -49, ""},
        {{Int(-1)}, -49, ""},
        {{Int(0), Int(1), Int(0)}, -49, ""},  // an Int is not an array
        {{Arr({})}, -49, ""},                 // an array is no index
    };
    for (const auto& r : rows) {
        std::vector<CVar> idx(r.idx.size());
        for (size_t i = 0; i < idx.size(); ++i) {
            idx[i] = CVar{};
            r.idx[i](&idx[i]);
        }
        int32_t status = 7;
        CVar* item = CVarArrItm(&a.v, idx.data(), int32_t(idx.size()), &status);
        EXPECT_EQ(status, r.status) << r.expect;
        EXPECT_EQ(item ? ImageHex(item) : "", ToHex(Hex(r.expect)));
        CVarClear(idx.data(), int32_t(idx.size()));
    }

    Val s, out, i, nv;
    CVarSetStr(&s.v, "A\xFF", 2);
    struct CharRow { Make index; int32_t status; int64_t byte; };
    for (const CharRow& r : std::vector<CharRow>{{Int(0), 0, 'A'}, {Str("1"), 0, 0xFF},
                                                 {Int(2), -49, 0}, {Int(-1), -49, 0},
                                                 {Arr({}), -49, 0}}) {
        CVarSetEmpty(&i.v);
        r.index(&i.v);
        int32_t st = 7;
        EXPECT_EQ(CVarGetChar(&out.v, &s.v, &i.v, &st), r.status);
        EXPECT_EQ(st, r.status);
        if (r.status == 0) {
            EXPECT_EQ(out->v.i + 0, r.byte);
        }
    }
    struct PutRow { Make value; int32_t status; std::string text; };
    CVarSetInt(&i.v, 1);
    for (const PutRow& r : std::vector<PutRow>{{Int(0x142), 0, "AB"}, {Str("cd"), 0, "Ac"},
                                               {Str(""), 0, std::string("A\0", 2)},
                                               {Dbl(66), -44, ""}, {Empty(), -44, ""}}) {
        CVarSetEmpty(&nv.v);
        r.value(&nv.v);
        CVarSetStr(&s.v, "Az", 2);
        EXPECT_EQ(CVarPutChar(&s.v, &i.v, &nv.v, nullptr), r.status);
        if (r.status == 0) {
            EXPECT_EQ(Text(&s.v), r.text);
        }
    }
    CVarSetInt(&nv.v, 'q');
    CVarSetInt(&i.v, 2);
    EXPECT_EQ(CVarPutChar(&s.v, &i.v, &nv.v, nullptr), -49);
    EXPECT_EQ(CVarPutChar(&nv.v, &i.v, &nv.v, nullptr), -44);  // not a string
}

TEST(calcCast, TableRowByRow) {
    constexpr int32_t kFail = -44;
    const double nan = std::nan("");
    struct Row { const char* what; Make from; int32_t to; int32_t status; Make expect; };
    const std::vector<Row> rows = {
        {"Empty>Empty", Empty(), 0, 0, Empty()},
        {"Empty>Int", Empty(), 1, 0, Int(0)},
        {"Empty>Dbl", Empty(), 2, 0, Dbl(0.0)},
        {"Empty>Str", Empty(), 3, 0, Str("")},
        {"Empty>Arr", Empty(), 4, 0, Arr({})},
        {"Int>Empty", Int(7), 0, 0, Empty()},
        {"Int>Int", Int(7), 1, 0, Int(7)},
        {"Int>Dbl", Int(-7), 2, 0, Dbl(-7.0)},
        {"Int>Str", Int(5), 3, 0, Str("5")},
        {"Int min>Str", Int(INT64_MIN), 3, 0, Str("-9223372036854775808")},
        {"Int>Arr", Int(7), 4, 0, Arr({Int(7)})},
        {"Dbl>Empty", Dbl(1.5), 0, 0, Empty()},
        {"Dbl 2.9>Int", Dbl(2.9), 1, 0, Int(2)},
        {"Dbl -2.9>Int", Dbl(-2.9), 1, 0, Int(-2)},
        {"Dbl 3e9>Int", Dbl(3e9), 1, 0, Int(INT32_MIN)},
        {"Dbl -3e9>Int", Dbl(-3e9), 1, 0, Int(INT32_MIN)},
        {"Dbl NaN>Int", Dbl(nan), 1, 0, Int(INT32_MIN)},
        {"Dbl max32>Int", Dbl(2147483647.9), 1, 0, Int(INT32_MAX)},
        {"Dbl min32>Int", Dbl(-2147483648.9), 1, 0, Int(INT32_MIN)},
        {"Dbl>Dbl", Dbl(1.25), 2, 0, Dbl(1.25)},
        {"Dbl 0.5>Str", Dbl(0.5), 3, 0, Str("0.500000")},
        {"Dbl 1e20>Str", Dbl(1e20), 3, 0, Str("100000000000000000000.000000")},
        {"Dbl 2^70>Str", Dbl(std::ldexp(1.0, 70)), 3, 0, Str("1180591620717411303424.000000")},
        {"Dbl 1e300>Str", Dbl(1e300), 3, 0, Str(Printed(1e300))},
        {"Dbl>Arr", Dbl(1.5), 4, 0, Arr({Dbl(1.5)})},
        {"Str>Empty", Str("abc"), 0, 0, Empty()},
        {"Str 12abc>Int", Str("12abc"), 1, 0, Int(12)},
        {"Str empty>Int", Str(""), 1, 0, Int(0)},
        {"Str ' -42'>Int", Str(" -42"), 1, 0, Int(-42)},
        {"Str x>Int", Str("x"), 1, 0, Int(0)},
        {"Str 2.5e1x>Dbl", Str("2.5e1x"), 2, 0, Dbl(25.0)},
        {"Str empty>Dbl", Str(""), 2, 0, Dbl(0.0)},
        {"Str>Str", Str("ab"), 3, 0, Str("ab")},
        {"Str>Arr", Str("ab"), 4, 0, Arr({Str("ab")})},
        {"Arr>Empty", Arr({Str("a")}), 0, 0, Empty()},
        {"Arr>Int", Arr({Int(1), Str("a")}), 1, kFail, Arr({Int(1), Str("a")})},
        {"Arr>Dbl", Arr({Int(1)}), 2, kFail, Arr({Int(1)})},
        {"Arr>Str", Arr({Int(1)}), 3, kFail, Arr({Int(1)})},
        {"Arr>Arr", Arr({Arr({})}), 4, 0, Arr({Arr({})})},
        {"Int>-1", Int(3), -1, kFail, Int(3)},
        {"Int>256", Int(3), 256, kFail, Int(3)},
        {"Int>unregistered 77", Int(3), 77, kFail, Int(3)},
        {"unregistered 77>77", Raw(77, 0xAB), 77, 0, Raw(77, 0xAB)},
        {"unregistered 77>Int", Raw(77, 0xAB), 1, kFail, Raw(77, 0xAB)},
    };
    for (const auto& r : rows) {
        Val v;
        r.from(&v.v);
        EXPECT_EQ(CVarCast(&v.v, r.to), r.status) << r.what;
        // Raw values have no image (unregistered): compare their bytes.
        if (v->type == 77) {
            Val e;
            r.expect(&e.v);
            EXPECT_EQ(std::memcmp(&v.v, &e.v, sizeof(CVar)), 0) << r.what;
            std::memset(&v.v, 0, sizeof(CVar));
            std::memset(&e.v, 0, sizeof(CVar));
            continue;
        }
        EXPECT_EQ(ImageHex(&v.v), ImageHex(r.expect)) << r.what;
        EXPECT_TRUE(OwnsAll(&v.v)) << r.what;
    }
}

TEST(calcCast, ReferencesConvertWithoutFreeingWhatTheyAlias) {
    Val owner;
    CVarSetStr(&owner.v, "17", 2);
    for (int32_t to : {0, 1, 2, 3, 4}) {
        Val r;
        CVarCopyRef(&r.v, &owner.v);
        EXPECT_EQ(CVarCast(&r.v, to), 0) << to;
        EXPECT_TRUE(OwnsAll(&r.v)) << to;
    }
    EXPECT_EQ(Text(&owner.v), "17");
}

TEST(calcCast, TypeAndTypeName) {
    struct Row { Make v; int64_t tag; const char* name; };
    for (const Row& r : std::vector<Row>{{Empty(), 0, "Empty"}, {Int(1), 1, "Int"},
                                         {Dbl(1), 2, "Dbl"}, {Str("a"), 3, "Str"},
                                         {Arr({}), 4, "Arr"}}) {
        Val t, n;
        r.v(&t.v);
        r.v(&n.v);
        EXPECT_EQ(CVar_Type(&t.v), 0);
        EXPECT_EQ(t->v.i + 0, r.tag);
        EXPECT_EQ(CVar_TypeName(&n.v), 0);
        EXPECT_EQ(Text(&n.v), r.name);
    }
    CVar raw{};
    raw.type = 77;  // unregistered: refused, value unchanged
    EXPECT_EQ(CVar_Type(&raw), -44);
    EXPECT_EQ(CVar_TypeName(&raw), -44);
    EXPECT_EQ(raw.type, 77);
    raw.type = -1;
    EXPECT_EQ(CVar_Type(&raw), -44);
}

TEST(calcVar, DeepNestingIsFreedWithoutExhaustingTheStack) {
    // [[[ ... "leaf" ... ]]] a million arrays deep, as a script could build.
    Val top;
    CVar* cur = &top.v;
    for (int i = 0; i < 1000000; ++i) {
        CVarSetArr(cur, 2);
        CVarSetInt(&cur->v.a[1], i);
        cur = &cur->v.a[0];
    }
    CVarSetStr(cur, "leaf", 4);
    // Copies and images stop at 1,000 levels rather than overflow.
    Val copy;
    CVarSetInt(&copy.v, 1);
    CVarCopy(&copy.v, &top.v);
    EXPECT_EQ(copy->type, 0);
    EXPECT_EQ(CVarToBuff(&top.v, nullptr, 0), 0);
    CVarSetEmpty(&top.v);
    EXPECT_EQ(top->type, 0);
}
