// Allocation failures in the calculator's values: every failing allocation
// ends in -21 (or the documented state) and leaks nothing (the sanitizer
// build checks leaks).  Checks inside a run do not allocate, so that they do
// not meet the armed failure themselves.
#include <gtest/gtest.h>

#include <VomKwz.h>

#include <array>
#include <string>
#include <cstring>
#include <vector>

#include "calc/kwCalcObjGraph.h"
#include "calc/kwCalcVar.h"
#include "fault_harness.h"
#include "test_calc_util.h"

using namespace calctest;
using kwz::test::ForEachAllocationFailure;

namespace {

// The image of a small value in a fixed buffer (no allocation below 1,024).
struct SmallImage {
    std::array<uint8_t, 512> bytes{};
    int32_t size = 0;
    explicit SmallImage(const CVar* v) { size = CVarToBuff(v, bytes.data(), int32_t(bytes.size())); }
    bool operator==(const SmallImage& o) const {
        return size == o.size && std::memcmp(bytes.data(), o.bytes.data(), size_t(size)) == 0;
    }
};

const Make kNested = Arr({Int(1), Str("ab"), Arr({Str(std::string(200, 'x')), Arr({Dbl(2)})}),
                          Str("")});

}  // namespace

TEST(calcInternal, StringCapacityGrowsIn128ByteSteps) {
    struct Row { int32_t length; size_t capacity; };
    for (const Row& r : std::vector<Row>{{0, 128}, {126, 128}, {127, 256}, {128, 256},
                                         {254, 256}, {255, 384}, {1000, 1024}})
        EXPECT_EQ(kwz::calc::StrCapacity(r.length), r.capacity) << r.length;
}

TEST(calcInternal, DeepCopyFailsWhole) {
    Val src;
    kNested(&src.v);
    const SmallImage want(&src.v);
    const int64_t failures = ForEachAllocationFailure([&](auto fired) {
        Val dst;
        CVarSetInt(&dst.v, 5);
        CVarCopy(&dst.v, &src.v);
        if (fired()) {
            EXPECT_EQ(dst->type, 0);
        } else {
            EXPECT_TRUE(SmallImage(&dst.v) == want);
        }
    });
    EXPECT_EQ(failures, 6);  // three array blocks and three strings
}

TEST(calcInternal, CastsFailWithMinus21AndLeaveTheValue) {
    Val owner, arr;
    CVarSetStr(&owner.v, "12", 2);
    kNested(&arr.v);
    struct Row { const char* what; Make from; int32_t to; bool reference; };
    const std::vector<Row> rows = {
        {"Empty>Str", Empty(), 3, false},  {"Int>Str", Int(-5), 3, false},
        {"Dbl>Str long", Dbl(1e100), 3, false}, {"Int>Arr", Int(1), 4, false},
        {"Str>Arr", Str("ab"), 4, false},  {"ref Str>Str", nullptr, 3, true},
        {"ref Str>Arr", nullptr, 4, true}, {"ref Arr>Arr", nullptr, 40, true},
    };
    for (const auto& r : rows) {
        const int64_t failures = ForEachAllocationFailure([&](auto fired) {
            Val v;
            if (r.from)
                r.from(&v.v);
            else
                CVarCopyRef(&v.v, r.to == 40 ? &arr.v : &owner.v);
            if (fired()) return;  // the failure met the setup, not the cast
            const SmallImage before(&v.v);
            const int32_t refBefore = v->ref;
            const int32_t status = CVarCast(&v.v, r.to == 40 ? 4 : r.to);
            if (fired()) {
                EXPECT_EQ(status, -21) << r.what;
                EXPECT_TRUE(SmallImage(&v.v) == before) << r.what;
                EXPECT_EQ(v->ref, refBefore) << r.what;
            } else {
                EXPECT_EQ(status, 0) << r.what;
                EXPECT_TRUE(OwnsAll(&v.v)) << r.what;
            }
        });
        EXPECT_GE(failures, 1) << r.what;
    }
    ForEachAllocationFailure([&](auto fired) {
        Val v;
        CVarSetDbl(&v.v, 1);
        const int32_t status = CVar_TypeName(&v.v);
        EXPECT_EQ(status, fired() ? -21 : 0);
        EXPECT_EQ(v->type, fired() ? 2 : 3);
    });
}

TEST(calcInternal, SettersLeaveTheDocumentedState) {
    ForEachAllocationFailure([&](auto fired) {
        Val s, a;
        CVarSetStr(&s.v, "abc", 3);
        const bool strFailed = fired();
        EXPECT_EQ(s->type, 3);
        EXPECT_EQ(s->count, strFailed ? 0 : 3);
        CVarSetArr(&a.v, 4);
        EXPECT_EQ(a->type, 4);
        EXPECT_EQ(a->count, fired() && !strFailed ? 0 : 4);
    });
    ForEachAllocationFailure([&](auto fired) {
        CVar run[2] = {};
        CVarSetInt(&run[0], 1);
        CVarSetInt(&run[1], 2);
        CArrCopy(run, 2);
        EXPECT_EQ(run[0].type, fired() ? 1 : 4);
        CVarClear(run, 2);
    });
    ForEachAllocationFailure([&](auto fired) {
        Val a;
        CVarSetArr(&a.v, 2);
        if (fired()) return;
        CArr part{a->v.a, a->count, 0};
        CArrReAlloc(&part, 50);
        a->v.a = part.items;
        a->count = part.count;
        EXPECT_EQ(a->count, fired() ? 2 : 50);
    });
    ForEachAllocationFailure([&](auto fired) {
        Val owner, ref, idx, ch;
        CVarSetStr(&owner.v, "abc", 3);
        if (fired()) return;
        CVarCopyRef(&ref.v, &owner.v);
        CVarSetInt(&idx.v, 0);
        CVarSetInt(&ch.v, 'z');
        const int32_t status = CVarPutChar(&ref.v, &idx.v, &ch.v, nullptr);
        EXPECT_EQ(status, fired() ? -21 : 0);
        EXPECT_EQ(ref->ref, fired() ? 1 : 0);
        EXPECT_EQ(owner->v.s[0], 'a');
    });
}

TEST(calcInternal, ImagesFailWithZero) {
    // Past the 1,024-byte stack area the writer needs the heap.
    Val big;
    CVarSetArr(&big.v, 100);
    for (int i = 0; i < 100; ++i) CVarSetStr(&big->v.a[i], "0123456789abcdef", 16);
    const int32_t size = CVarToBuff(&big.v, nullptr, 0);
    std::vector<uint8_t> image(static_cast<size_t>(size)), out(static_cast<size_t>(size));
    ASSERT_EQ(CVarToBuff(&big.v, image.data(), size), size);
    // A destination with room for the whole image is written directly; a
    // shorter one makes the writer move to the heap part-way.
    struct Row { int32_t room; int64_t failures; };
    for (const Row& r : std::vector<Row>{{size, 0}, {1100, 1}, {0, 0}}) {
        const int64_t writes = ForEachAllocationFailure([&](auto fired) {
            const int32_t n = CVarToBuff(&big.v, r.room ? out.data() : nullptr, r.room);
            EXPECT_EQ(n, fired() ? 0 : size) << r.room;
        });
        EXPECT_EQ(writes, r.failures) << r.room;
    }
    const int64_t reads = ForEachAllocationFailure([&](auto fired) {
        Val v;
        const int32_t n = CVarFromBuffN(&v.v, image.data(), size);
        EXPECT_EQ(n, fired() ? 0 : size);
        if (fired()) {
            EXPECT_EQ(v->type, 0);
        }
    });
    EXPECT_EQ(reads, 101);
}

TEST(calcInternal, StackCreationAndPropertyFrames) {
    ForEachAllocationFailure([&](auto fired) {
        KWCalcStack* s = nullptr;
        const int32_t status = KWCalcStackCreate(nullptr, &s, 16);
        EXPECT_EQ(status, fired() ? -21 : 0);
        EXPECT_EQ(s == nullptr, fired());
        KWCalcStackFree(s);
    });
    KWCalcObjDef def{};
    def.name = "Getter";
    def.Get = [](KWCalcStack* s) -> int32_t {
        CVarSetInt(KWCalcStackArg(s, 0), KWCalcStackArg(s, 1)->count);
        return 0;
    };
    ASSERT_EQ(KWCalcObjTypeReg(60, &def), &def);
    KWCalcStack* s = nullptr;
    ASSERT_EQ(KWCalcStackCreate(nullptr, &s, 8), 0);
    CVar obj{};
    obj.type = 60;
    ForEachAllocationFailure([&](auto fired) {
        KWCalcStackClear(s);
        CVarSetStr(KWCalcStackPush(s), "a", 1);
        CVarSetStr(KWCalcStackPush(s), "b", 1);
        if (fired()) return;
        const int32_t status = CVarGetObjVar(s, &obj, 2);
        EXPECT_EQ(status, fired() ? -21 : 0);
        EXPECT_EQ(KWCalcStackArg(s, 0)->type, fired() ? 0 : 1);
    });
    KWCalcStackFree(s);
    KWCalcObjTypeReg(60, nullptr);
}

TEST(calcInternal, RegistrationNeedsNoMemory) {
    KWCalcObjDef a{}, b{};
    a.name = "A";
    b.name = "b";
    const int64_t failures = ForEachAllocationFailure([&](auto) {
        EXPECT_EQ(KWCalcObjTypeReg(9, &a), &a);
        EXPECT_EQ(KWCalcObjTypeReg(8, &b), &b);
        EXPECT_EQ(KWCalcObjTypeFromName("B"), &b);
        KWCalcObjTypeReg(9, nullptr);
        KWCalcObjTypeReg(8, nullptr);
    });
    EXPECT_EQ(failures, 0);
}

namespace {

// The constants a table holds for these names, as "name=value" texts.
std::vector<std::string> Constants(KWCalcConst* table, const std::vector<std::string>& names) {
    std::vector<std::string> out;
    for (const auto& name : names) {
        CVar* v = nullptr;
        if (KWCalcConstGet(table, name.c_str(), &v) != 1) continue;
        out.push_back(name + "=" + (v->type == 1 ? std::to_string(v->v.i + 0)
                                                 : "\"" + Text(v) + "\""));
    }
    return out;
}

}  // namespace

TEST(calcInternal, RegistrationShapeOfEveryObjectType) {
    KWCalcObjDef ints{}, other{};
    ints.name = "IntS";
    other.name = "Other";
    int32_t intsTag = 0, otherTag = 0;
    static const char* const kProps[] = {"Val", "Sign"};
    const kwz::calc::ObjTypeInfo intsInfo{&ints, &intsTag, kProps, 2};
    const kwz::calc::ObjTypeInfo otherInfo{&other, &otherTag, nullptr, 0};
    const std::vector<std::string> names = {"itIntS", "stIntS", "ipIntS_Val", "spIntS_Val",
                                            "ipIntS_Sign", "spIntS_Sign"};
    KWCalcConst* constants = nullptr;
    ASSERT_EQ(KWCalcConstCreate(&constants, 16), 0);

    EXPECT_EQ(kwz::calc::RegisterObjType(intsInfo, 20, constants), &ints);
    EXPECT_EQ(intsTag, 20);
    EXPECT_EQ(KWCalcObjTypeFromName("ints"), &ints);
    const std::vector<std::string> defined = {"itIntS=20", "stIntS=\"IntS\"", "ipIntS_Val=1",
                                              "spIntS_Val=\"Val\"", "ipIntS_Sign=2",
                                              "spIntS_Sign=\"Sign\""};
    EXPECT_EQ(Constants(constants, names), defined);
    // The current tag again: the descriptor at once, nothing redefined.
    KWCalcConstDel(constants, "itIntS");
    EXPECT_EQ(kwz::calc::RegisterObjType(intsInfo, 20, constants), &ints);
    EXPECT_EQ(KWCalcConstGet(constants, "itIntS", nullptr), 0);
    // A tag that another type holds: null, and this type is unregistered.
    EXPECT_EQ(kwz::calc::RegisterObjType(otherInfo, 21, nullptr), &other);
    EXPECT_EQ(kwz::calc::RegisterObjType(intsInfo, 21, constants), nullptr);
    EXPECT_EQ(intsTag, 0);
    EXPECT_EQ(KWCalcObjType(20), nullptr);
    EXPECT_EQ(KWCalcObjType(21), &other);
    EXPECT_EQ(kwz::calc::RegisterObjType(intsInfo, 300, nullptr), nullptr);
    // Moving to a free tag, then tag 0 with a table deletes the constants.
    EXPECT_EQ(kwz::calc::RegisterObjType(intsInfo, 22, nullptr), &ints);
    EXPECT_EQ(kwz::calc::RegisterObjType(intsInfo, 23, nullptr), &ints);
    EXPECT_EQ(KWCalcObjType(22), nullptr);
    EXPECT_EQ(KWCalcObjType(23), &ints);
    EXPECT_EQ(kwz::calc::RegisterObjType(intsInfo, 0, constants), nullptr);
    EXPECT_EQ(intsTag, 0);
    EXPECT_EQ(KWCalcObjType(23), nullptr);
    EXPECT_TRUE(Constants(constants, names).empty());
    EXPECT_EQ(kwz::calc::RegisterObjType(otherInfo, 0, nullptr), nullptr);
    EXPECT_EQ(KWCalcObjType(21), nullptr);
    KWCalcConstDestroy(constants);
}

TEST(calcInternal, ConstantTablesUnderAllocationFailure) {
    ForEachAllocationFailure([&](auto fired) {
        KWCalcConst* table = nullptr;
        int32_t status = KWCalcConstCreate(&table, 4);
        if (fired()) {
            EXPECT_EQ(status, -21);
            return;
        }
        status = KWCalcConstStr(table, "Name", "a long enough text", 18, "the description");
        const bool strFailed = fired();
        EXPECT_EQ(status, strFailed ? -21 : 0);
        EXPECT_EQ(KWCalcConstGet(table, "NAME", nullptr), strFailed ? 0 : 1);
        KWCalcConst* copy = nullptr;
        if (KWCalcConstCreate(&copy, 1) == 0) {
            status = KWCalcConstCopy(copy, table);
            EXPECT_TRUE(status == 0 || (status == -21 && fired()));
            KWCalcConstDestroy(copy);
        }
        KWCalcConstDestroy(table);
    });
}

// The scalar object types when memory runs out: a failing operator, cast or
// copy leaves its operands as they were, an image reads whole or not at all,
// and a formula ends with a documented code; the sanitizer build sees no leak.
TEST(calcInternal, ScalarObjectsUnderAllocationFailure) {
    ASSERT_NE(IntSObjTypeReg(20, nullptr), nullptr);
    ASSERT_NE(StrSObjTypeReg(22, nullptr), nullptr);
    auto strs = [](CVar* v, const char* text, int32_t sign) {
        CVarSetStr(v, text, int32_t(std::strlen(text)));
        v->type = 22;
        v->spare = sign;
    };
    int32_t bad[5] = {};
    ForEachAllocationFailure([&](auto fired) {
        Val pair[2], cast, copy, back, result;
        strs(&pair[0].v, "ab", 1);
        CVarSetStr(&pair[1].v, "cd", 2);
        if (fired()) return;
        const int32_t sum = KWCalcObjType(22)->Sum(&pair[0].v);
        bad[0] += sum == 0 ? Text(&pair[0].v) != "abcd" : sum != -21 || Text(&pair[0].v) != "ab";
        cast->type = 20;
        cast->v.i = 5;
        cast->count = 3;
        const int32_t c = CVarCast(&cast.v, 3);
        bad[1] += c == 0 ? Text(&cast.v) != "5 0x3" : c != -21 || cast->type != 20;
        CVarCopy(&copy.v, &pair[0].v);
        bad[2] += copy->type == 22 && copy->count > 0 && copy->v.s == pair[0]->v.s;
        uint8_t image[64];  // no std:: allocation here: the armed one must be the library's
        const int32_t size = CVarToBuff(&pair[0].v, image, int32_t(sizeof image));
        const int32_t n = size ? CVarFromBuffN(&back.v, image, size) : 0;
        bad[3] += n == 0 ? back->type != 0 : n != size;
        const int32_t f = KWCalcFormula("str(IntS(7, 2)) + str(StrS(\"x\", 1))", &result.v, nullptr, 0);
        bad[4] += f == 0 ? Text(&result.v) != "7 0x2x" : f != -21 && f != -41 && f != -1;
    });
    for (int i = 0; i < 5; ++i) EXPECT_EQ(bad[i], 0) << "check " << i;
    IntSObjTypeReg(0, nullptr);
    StrSObjTypeReg(0, nullptr);
}

// Graph values when memory runs out: a script that builds, combines and reads
// graphs ends in 0 with the full answer or in an out-of-memory code, a graph
// image reads back whole or not at all, and no graph or holder leaks.
TEST(calcInternal, GraphValuesUnderAllocationFailure) {
    constexpr int32_t kGraph = 40;
    ASSERT_NE(GraphObjTypeReg(kGraph, nullptr), nullptr);
    KWCalcDef* calc = nullptr;
    ASSERT_EQ(KWCalcCreate(&calc, nullptr, nullptr), 0);
    ASSERT_EQ(KWCalcFunAddI(calc,
                            "gf(){var a,b;a=CGraphNew();CGraphAddNode(a,1);CGraphAddNode(a,2);"
                            "CGraphAddLink(a,1,2);CGraphGroupAddNode(a,2,9);b=a+a;"
                            "Result=[CGraphNodeCount(b),CGraphBuildPath(b,1,2)==a,get(b,[7,1]),"
                            "CGraphNodes(b-a),call(b,\"AddNode\",3),CGraphNodeCount(b)];}",
                            nullptr, 0, 0),
              0);
    Val expected, graph;
    ASSERT_EQ(KWCalcFormula("gf()", &expected.v, calc, 0), 0);
    const SmallImage want(&expected.v);
    ASSERT_GT(want.size, 0);
    ASSERT_EQ(KWCalcFormula("CGraphBuildPath(gf(), 1, 2) + CGraphNew()", &graph.v, calc, 0), -44);
    ASSERT_EQ(KWCalcFormula("new(\"Graph\", 0)", &graph.v, calc, 0), 0);
    {
        KWCalcStack* s = nullptr;
        ASSERT_EQ(KWCalcStackCreate(calc, &s, 4), 0);
        for (uint32_t id : {5u, 6u, 7u}) {
            CVarCopy(KWCalcStackPush(s), &graph.v);
            CVarSetInt(KWCalcStackPush(s), id);
            ASSERT_EQ(CGraphAddNode(s), 0);
            KWCalcStackClear(s);
        }
        KWCalcStackFree(s);
    }
    uint8_t image[256];
    const int32_t size = CVarToBuff(&graph.v, image, int32_t(sizeof image));
    ASSERT_EQ(size, 1 + 20 + 4 * 3 + 4);
    int32_t bad[2] = {};
    const int64_t failures = ForEachAllocationFailure([&](auto fired) {
        Val result, back;
        const int32_t f = KWCalcFormula("gf()", &result.v, calc, 0);
        bad[0] += f == 0 ? !(SmallImage(&result.v) == want) : f != -21 && f != -41 && f != -1;
        const int32_t n = CVarFromBuffN(&back.v, image, size);
        // The nodes come back in reverse list order: compare as graphs.
        const TGraphItem* got = kwz::calc::GraphOf(&back.v);
        bad[1] += n == 0 ? back->type != 0 : n != size || !got || !(*got == *kwz::calc::GraphOf(&graph.v));
        (void)fired;
    });
    EXPECT_GT(failures, 20);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(bad[i], 0) << "check " << i;
    CVarSetEmpty(&graph.v);
    KWCalcDestroy(calc);
    GraphObjTypeReg(0, nullptr);
}
