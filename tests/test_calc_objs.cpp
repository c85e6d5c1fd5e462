// The scalar object types IntS, DblS and StrS: every cell of their operator
// promotion tables, every cast row, properties, constructors and new, images,
// registration and scripts.  Values are compared as text: "IntS(6,1)",
// "DblS(3.5,0)", "StrS('ab',1)", "Int 1", "Dbl 0.5", "Str 'x'", "[Int 1,Int 2]".
#include <gtest/gtest.h>

#include <VomKwz.h>

#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "test_calc_util.h"

using namespace calctest;

namespace {

constexpr int32_t kIS = 20, kDS = 21, kSS = 22;

Make IS(int64_t v, int32_t sign) {
    return [v, sign](CVar* x) { x->type = kIS; x->v.i = v; x->count = sign; };
}
Make DS(double d, int32_t sign) {
    return [d, sign](CVar* x) { x->type = kDS; x->v.d = d; x->count = sign; };
}
Make SS(std::string s, int32_t sign) {
    return [s, sign](CVar* x) {
        CVarSetStr(x, s.data(), int32_t(s.size()));
        x->type = kSS;
        x->spare = sign;
    };
}
// A Str that references text owned elsewhere.
Make StrRef(const char* s) {
    return [s](CVar* x) { x->type = 3; x->v.s = const_cast<char*>(s); x->count = int32_t(std::strlen(s)); x->ref = 1; };
}
const double kNaN = std::nan("");

std::string Num(double d) {
    char b[64];
    std::snprintf(b, sizeof b, "%g", d);
    return b;
}

std::string Show(const CVar* v) {
    const std::string sign = std::to_string(v->type == kSS ? v->spare : v->count);
    switch (v->type) {
    case 0: return "Empty";
    case 1: return "Int " + std::to_string(v->v.i + 0);
    case 2: return "Dbl " + Num(v->v.d);
    case 3: return "Str '" + Text(v) + "'";
    case 4: {
        std::string s = "[";
        for (int32_t i = 0; i < v->count; ++i) s += (i ? "," : "") + Show(&v->v.a[i]);
        return s + "]";
    }
    case kIS: return "IntS(" + std::to_string(v->v.i + 0) + "," + sign + ")";
    case kDS: return "DblS(" + Num(v->v.d) + "," + sign + ")";
    case kSS: return "StrS('" + Text(v) + "'," + sign + ")";
    default: return "tag " + std::to_string(v->type);
    }
}
std::string Show(const Make& m) {
    Val v;
    m(&v.v);
    return Show(&v.v);
}

class calcObjs : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(KWCalcConstCreate(&constants_, 32), 0);
        ASSERT_NE(IntSObjTypeReg(kIS, constants_), nullptr);
        ASSERT_NE(DblSObjTypeReg(kDS, constants_), nullptr);
        ASSERT_NE(StrSObjTypeReg(kSS, constants_), nullptr);
        ASSERT_EQ(KWCalcStackCreate(nullptr, &stack_, 16), 0);
    }
    void TearDown() override {
        KWCalcStackFree(stack_);
        IntSObjTypeReg(0, nullptr);
        DblSObjTypeReg(0, nullptr);
        StrSObjTypeReg(0, nullptr);
        KWCalcConstDestroy(constants_);
    }
    void Frame(const std::vector<Make>& values) {
        KWCalcStackClear(stack_);
        for (const auto& m : values) m(KWCalcStackPush(stack_));
    }
    // Evaluates a formula: "status: value".
    static std::string Eval(const char* text) {
        Val r;
        const int32_t st = KWCalcFormula(text, &r.v, nullptr, 0);
        return st ? std::to_string(st) : Show(&r.v);
    }
    KWCalcConst* constants_ = nullptr;
    KWCalcStack* stack_ = nullptr;
};

using Slot = int32_t (*KWCalcObjDef::*)(CVar*);
const std::map<std::string, Slot> kSlots = {
    {"+", &KWCalcObjDef::Sum},  {"-", &KWCalcObjDef::Sub},   {"*", &KWCalcObjDef::Mul},
    {"/", &KWCalcObjDef::Div},  {"\\", &KWCalcObjDef::DivI}, {"%", &KWCalcObjDef::Mod},
    {"==", &KWCalcObjDef::LE},  {"!=", &KWCalcObjDef::LNE},  {"<", &KWCalcObjDef::LL},
    {"<=", &KWCalcObjDef::LLE}, {">", &KWCalcObjDef::LG},    {">=", &KWCalcObjDef::LGE},
    {"&&", &KWCalcObjDef::LAnd}, {"||", &KWCalcObjDef::LOr}, {"&", &KWCalcObjDef::BAnd},
    {"^", &KWCalcObjDef::BXor}, {"|", &KWCalcObjDef::BOr},   {"<<", &KWCalcObjDef::Shl},
    {">>", &KWCalcObjDef::Shr}, {"neg", &KWCalcObjDef::UMin}, {"!", &KWCalcObjDef::LNot},
    {"~", &KWCalcObjDef::BDop},
};

// One operator call: the slot of `type` (0: the left operand's type when it
// is an object, else the right one's, as the engine chooses).
struct OpRow {
    int32_t type;
    const char* op;
    Make a, b;
    int32_t status;
    std::string result;  // A afterwards (unchanged on failure)
};

}  // namespace

TEST_F(calcObjs, OperatorsByPromotionTable) {
    const int64_t k2p32 = int64_t(1) << 32, k2p40 = int64_t(1) << 40;
    const std::vector<OpRow> rows = {
        // IntS + - *: one row per cell.
        {0, "+", IS(5, 1), Int(k2p32 + 1), 0, "IntS(6,1)"},
        {0, "+", IS(k2p40, 1), Int(1), 0, "IntS(1099511627777,1)"},
        {0, "+", IS(5, 1), Dbl(0.5), 0, "DblS(5.5,1)"},
        {0, "+", IS(3, 1), IS(4, 2), 0, "IntS(7,3)"},
        {0, "+", IS(k2p40, 0), IS(1, 0), 0, "IntS(1099511627777,0)"},
        {0, "+", IS(1, 1), DS(0.5, 2), 0, "DblS(1.5,3)"},
        {0, "+", Int(2147483647), IS(1, 4), 0, "IntS(-2147483648,4)"},
        {0, "+", Dbl(0.25), IS(1, 2), 0, "DblS(1.25,2)"},
        {kIS, "+", DS(0.5, 1), IS(2, 2), 0, "DblS(2.5,3)"},
        {0, "-", IS(5, 1), Int(k2p32 + 1), 0, "IntS(4,1)"},
        {0, "-", Int(1), IS(3, 8), 0, "IntS(-2,8)"},
        {0, "*", IS(5, 1), IS(3, 4), 0, "IntS(15,5)"},
        {0, "*", Int(k2p32), IS(2, 0), 0, "IntS(0,0)"},
        {0, "*", IS(5, 1), Dbl(0.5), 0, "DblS(2.5,1)"},
        {0, "+", Empty(), IS(1, 0), -44, "Empty"},
        {0, "+", Str("a"), IS(1, 0), -44, "Str 'a'"},
        {0, "+", Arr({}), IS(1, 0), -44, "[]"},
        {0, "+", IS(1, 0), Str("a"), -44, "IntS(1,0)"},
        {0, "+", IS(1, 0), SS("a", 0), -44, "IntS(1,0)"},
        {kIS, "+", Int(1), Int(2), 0, "Int 1"},  // neither side is IntS: A unchanged
        // IntS /: always DblS; zero divisors.
        {0, "/", IS(7, 0), Int(2), 0, "DblS(3.5,0)"},
        {0, "/", IS(7, 1), Dbl(0.5), 0, "DblS(14,1)"},
        {0, "/", IS(7, 1), IS(2, 2), 0, "DblS(3.5,3)"},
        {0, "/", IS(1, 1), DS(4, 2), 0, "DblS(0.25,3)"},
        {0, "/", Int(7), IS(2, 1), 0, "DblS(3.5,1)"},
        {0, "/", Dbl(1), IS(4, 2), 0, "DblS(0.25,2)"},
        {kIS, "/", DS(1, 1), IS(4, 2), 0, "DblS(0.25,3)"},
        {0, "/", IS(7, 0), Int(0), -43, "IntS(7,0)"},
        {0, "/", IS(7, 0), Dbl(0), -43, "IntS(7,0)"},
        {0, "/", IS(7, 0), IS(0, 1), -43, "IntS(7,0)"},
        {0, "/", Int(7), IS(0, 1), -43, "Int 7"},
        {0, "/", IS(7, 0), DS(-0.0, 1), -43, "IntS(7,0)"},
        // IntS \: IntS by a plain Int's low 32 bits only.
        {0, "\\", IS(7, 0), Int(2), 0, "IntS(3,0)"},
        {0, "\\", IS(7, 5), Int(k2p32 + 2), 0, "IntS(3,5)"},
        {0, "\\", IS(INT64_MIN, 0), Int(-1), 0, "IntS(-9223372036854775808,0)"},
        {0, "\\", IS(7, 0), Int(0), -43, "IntS(7,0)"},
        {0, "\\", IS(7, 0), Int(k2p32), -43, "IntS(7,0)"},
        {0, "\\", IS(7, 0), IS(2, 0), -44, "IntS(7,0)"},
        {0, "\\", IS(7, 0), Dbl(2), -44, "IntS(7,0)"},
        {0, "\\", Int(7), IS(2, 0), -44, "Int 7"},
        // IntS %: IntS on the left; no zero check, kept defined.
        {0, "%", IS(7, 1), Int(3), 0, "IntS(1,1)"},
        {0, "%", IS(-7, 1), Int(3), 0, "IntS(-1,1)"},
        {0, "%", IS(7, 1), IS(4, 2), 0, "IntS(3,3)"},
        {0, "%", IS(7, 1), Dbl(2.5), 0, "DblS(2,1)"},
        {0, "%", IS(7, 1), DS(4, 2), 0, "DblS(3,3)"},
        {0, "%", IS(7, 1), Int(0), 0, "IntS(7,1)"},
        {0, "%", IS(7, 1), IS(0, 2), 0, "IntS(7,3)"},
        {0, "%", IS(INT64_MIN, 0), Int(-1), 0, "IntS(0,0)"},
        {0, "%", Int(7), IS(2, 0), -44, "Int 7"},
        {0, "%", IS(7, 0), Str("2"), -44, "IntS(7,0)"},
        // IntS comparisons: Int 0 or 1.
        {0, "==", IS(5, 1), Int(5), 0, "Int 1"},
        {0, "==", Int(5), IS(5, 1), 0, "Int 1"},
        {0, "==", IS(5, 1), IS(5, 1), 0, "Int 1"},
        {0, "==", IS(5, 1), IS(5, 2), 0, "Int 0"},
        {0, "==", IS(5, 1), Dbl(5), 0, "Int 1"},
        {0, "==", IS(5, 0), DS(5, 3), 0, "Int 1"},
        {kIS, "==", DS(5, 0), IS(5, 1), 0, "Int 1"},
        {0, "==", Dbl(2), IS(1, 0), 0, "Int 0"},    // Dbl == IntS is B > A
        {0, "==", Dbl(0.5), IS(1, 0), 0, "Int 1"},
        {0, "==", IS(1, 0), Dbl(kNaN), 0, "Int 0"},
        {0, "!=", IS(5, 1), IS(5, 2), 0, "Int 1"},
        {0, "!=", Dbl(0.5), IS(1, 0), 0, "Int 0"},
        {0, "!=", IS(1, 0), Dbl(kNaN), 0, "Int 1"},
        {0, "<", IS(4, 0), Int(5), 0, "Int 1"},
        {0, "<", Int(k2p40), IS(5, 0), 0, "Int 0"},
        {0, "<=", IS(5, 0), Int(5), 0, "Int 1"},
        {0, ">", IS(5, 0), Int(5), 0, "Int 0"},
        {0, ">=", IS(5, 0), Int(5), 0, "Int 1"},
        {0, "<", IS(-1, 0), Dbl(-0.5), 0, "Int 1"},
        {0, "<", IS(1, 0), Dbl(kNaN), 0, "Int 0"},
        {0, ">", IS(1, 0), Dbl(kNaN), 0, "Int 1"},   // the negation of <=
        {0, ">=", IS(1, 0), Dbl(kNaN), 0, "Int 1"},  // the negation of <
        {0, "==", IS(1, 0), Str("1"), -44, "IntS(1,0)"},
        {0, "==", IS(1, 0), Empty(), -44, "IntS(1,0)"},
        // IntS unary: in place, the sign kept.
        {0, "neg", IS(5, 3), Empty(), 0, "IntS(-5,3)"},
        {0, "!", IS(0, 3), Empty(), 0, "IntS(1,3)"},
        {0, "!", IS(7, 3), Empty(), 0, "IntS(0,3)"},
        {0, "~", IS(0, 3), Empty(), 0, "IntS(-1,3)"},
        // IntS && ||: Int 0 or 1.
        {0, "&&", IS(1, 0), Int(0), 0, "Int 0"},
        {0, "&&", IS(2, 0), IS(3, 1), 0, "Int 1"},
        {0, "||", IS(0, 0), Dbl(2.5), 0, "Int 1"},
        {0, "||", IS(0, 0), DS(0, 1), 0, "Int 0"},
        {0, "&&", Int(1), IS(0, 1), 0, "Int 0"},
        {0, "||", Int(2), IS(0, 1), 0, "Int 1"},
        {0, "&&", IS(1, 0), Str("1"), -44, "IntS(1,0)"},
        {0, "&&", Dbl(1), IS(1, 0), -44, "Dbl 1"},
        // IntS & ^ | << >>.
        {0, "&", IS(12, 1), Int(10), 0, "IntS(8,1)"},
        {0, "^", IS(12, 1), Int(10), 0, "IntS(6,1)"},
        {0, "|", IS(12, 1), IS(3, 2), 0, "IntS(15,3)"},
        {0, "|", IS(k2p40, 1), Int(1), 0, "IntS(1099511627777,1)"},
        {0, "|", Int(k2p40 | 1), IS(2, 2), 0, "IntS(3,2)"},
        {0, "<<", IS(1, 0), Int(65), 0, "IntS(2,0)"},
        {0, ">>", IS(-8, 0), Int(1), 0, "IntS(-4,0)"},
        {0, "<<", Int(1), IS(40, 1), 0, "IntS(0,1)"},
        {0, "&", IS(1, 0), Dbl(1), -44, "IntS(1,0)"},
        // DblS + - * /: always DblS.
        {0, "+", DS(1.5, 1), Int(2), 0, "DblS(3.5,1)"},
        {0, "+", DS(1.5, 1), Dbl(0.25), 0, "DblS(1.75,1)"},
        {0, "+", DS(1.5, 1), IS(2, 2), 0, "DblS(3.5,3)"},
        {0, "+", DS(1.5, 1), DS(1, 2), 0, "DblS(2.5,3)"},
        {0, "+", Int(2), DS(1.5, 1), 0, "DblS(3.5,1)"},
        {0, "+", Dbl(0.5), DS(1.5, 1), 0, "DblS(2,1)"},
        {kDS, "+", IS(2, 2), DS(1.5, 1), 0, "DblS(3.5,3)"},
        {0, "-", Int(2), DS(0.5, 4), 0, "DblS(1.5,4)"},
        {0, "*", DS(1.5, 1), IS(2, 2), 0, "DblS(3,3)"},
        {0, "+", DS(1.5, 1), Str("1"), -44, "DblS(1.5,1)"},
        {0, "+", Empty(), DS(1.5, 1), -44, "Empty"},
        {0, "+", DS(1.5, 1), Arr({}), -44, "DblS(1.5,1)"},
        {0, "/", DS(3, 1), Int(2), 0, "DblS(1.5,1)"},
        {0, "/", Int(3), DS(2, 1), 0, "DblS(1.5,1)"},
        {0, "/", DS(3, 1), Int(0), -43, "DblS(3,1)"},
        {0, "/", DS(3, 1), Dbl(0), -43, "DblS(3,1)"},
        {0, "/", DS(3, 1), IS(0, 0), -43, "DblS(3,1)"},
        {0, "/", Int(3), DS(0, 0), -43, "Int 3"},
        // DblS \ and %.
        {0, "\\", DS(7.9, 1), Int(2), 0, "IntS(3,1)"},
        {0, "\\", DS(-7.9, 1), Int(2), 0, "IntS(-3,1)"},
        {0, "\\", DS(1e10, 1), Int(1), 0, "IntS(-2147483648,1)"},
        {0, "\\", DS(7, 1), Int(0), -43, "DblS(7,1)"},
        {0, "\\", DS(7, 1), Dbl(2), -44, "DblS(7,1)"},
        {0, "\\", DS(7, 1), IS(2, 0), -44, "DblS(7,1)"},
        {0, "%", DS(7.5, 1), Int(2), 0, "DblS(1.5,1)"},
        {0, "%", DS(7.5, 1), Dbl(2), 0, "DblS(1.5,1)"},
        {0, "%", DS(7.5, 1), IS(2, 2), 0, "DblS(1.5,3)"},
        {0, "%", DS(7.5, 1), DS(2, 4), 0, "DblS(1.5,5)"},
        {0, "%", Int(7), DS(2, 0), -44, "Int 7"},
        // DblS comparisons.
        {0, "==", DS(1.5, 1), Dbl(1.5), 0, "Int 1"},
        {0, "==", DS(2, 1), Int(2), 0, "Int 1"},
        {0, "==", DS(1.5, 1), DS(1.5, 2), 0, "Int 0"},
        {0, "==", DS(1.5, 2), DS(1.5, 2), 0, "Int 1"},
        {0, "==", Int(2), DS(2, 1), 0, "Int 1"},
        {kDS, "==", IS(2, 0), DS(2, 5), 0, "Int 1"},
        {0, "==", Dbl(2), DS(1, 0), 0, "Int 0"},  // Dbl == DblS is B > A
        {0, "==", Dbl(0.5), DS(1, 0), 0, "Int 1"},
        {0, "!=", DS(1, 0), Dbl(kNaN), 0, "Int 1"},
        // Two NaNs in + and *: the left one's, whichever side is the object.
        {0, "+", DS(kNaN, 1), Dbl(-kNaN), 0, "DblS(nan,1)"},
        {0, "+", Dbl(-kNaN), DS(kNaN, 1), 0, "DblS(-nan,1)"},
        {0, "*", DS(-kNaN, 2), DS(kNaN, 1), 0, "DblS(-nan,3)"},
        {0, "*", Dbl(kNaN), DS(-kNaN, 1), 0, "DblS(nan,1)"},
        {0, "-", DS(-kNaN, 0), Dbl(kNaN), 0, "DblS(-nan,0)"},
        {0, "<", DS(1, 0), Int(2), 0, "Int 1"},
        {0, ">=", Dbl(3), DS(2, 0), 0, "Int 1"},
        {0, "<=", DS(1, 0), Str("x"), -44, "DblS(1,0)"},
        {0, "neg", DS(1.5, 2), Empty(), 0, "DblS(-1.5,2)"},
        // DblS has no bitwise or logical slots; StrS no arithmetic beyond +.
        {kDS, "&", DS(1, 0), Int(1), -44, "DblS(1,0)"},
        {kSS, "-", SS("a", 0), Str("a"), -44, "StrS('a',0)"},
        // StrS +.
        {0, "+", SS("ab", 1), Str("cd"), 0, "StrS('abcd',1)"},
        {0, "+", SS("ab", 1), SS("cd", 2), 0, "StrS('abcd',3)"},
        {0, "+", Str("ab"), SS("cd", 2), 0, "Str 'abcd'"},
        {0, "+", StrRef("ab"), SS("cd", 2), -44, "Str 'ab'"},
        {0, "+", SS("ab", 1), Int(1), -44, "StrS('ab',1)"},
        {0, "+", Int(1), SS("ab", 1), -44, "Int 1"},
        {0, "+", SS("ab", 1), Empty(), -44, "StrS('ab',1)"},
        // StrS comparisons by CStrCmp.
        {0, "==", SS("ab", 1), Str("ab"), 0, "Int 1"},
        {0, "==", SS("ab", 1), SS("ab", 2), 0, "Int 0"},
        {0, "==", SS("ab", 1), SS("ab", 1), 0, "Int 1"},
        {0, "==", Str("ab"), SS("b", 0), 0, "Int 1"},  // Str == StrS is A <= B
        {0, "==", Str("b"), SS("ab", 0), 0, "Int 0"},
        {0, "!=", Str("ab"), SS("b", 0), 0, "Int 0"},
        {0, "==", SS("a", 0), Empty(), 0, "Int 0"},
        {0, "!=", SS("a", 0), Empty(), 0, "Int 1"},
        {0, "<", Empty(), SS("a", 0), 0, "Int 0"},
        {0, ">", SS("a", 0), Empty(), 0, "Int 0"},
        {0, "<", SS("a", 0), Str("b"), 0, "Int 1"},
        {0, ">", SS("ab", 0), Str("a"), 0, "Int 1"},
        {0, ">=", SS("ab", 0), SS("ab", 9), 0, "Int 1"},
        {0, "==", SS("1", 0), Int(1), -44, "StrS('1',0)"},
        {0, "==", Arr({}), SS("1", 0), -44, "[]"},
    };
    for (const OpRow& r : rows) {
        CVar* a = KWCalcStackPush(stack_);
        CVar* b = KWCalcStackPush(stack_);
        r.a(a);
        r.b(b);
        const std::string what = Show(a) + " " + r.op + " " + Show(b);
        const std::string bBefore = Show(b);
        const int32_t type = r.type ? r.type : a->type >= 5 ? a->type : b->type;
        const KWCalcObjDef* def = KWCalcObjType(type);
        ASSERT_NE(def, nullptr) << what;
        const Slot slot = kSlots.at(r.op);
        if (!(def->*slot)) {
            EXPECT_EQ(-44, r.status) << what << ": no slot";
        } else {
            EXPECT_EQ((def->*slot)(a), r.status) << what;
            EXPECT_EQ(Show(a), r.result) << what;
            if (r.status != 0) {
                EXPECT_EQ(Show(b), bBefore) << what;
            }
        }
        KWCalcStackClear(stack_);
    }
}

TEST_F(calcObjs, CastsBothWays) {
    struct Row { Make from; int32_t to; int32_t status; std::string result; };
    const std::vector<Row> rows = {
        {IS(5, 3), 0, 0, "Empty"},
        {IS(int64_t(1) << 40, 3), 1, 0, "Int 1099511627776"},
        {IS(5, 3), 2, 0, "Dbl 5"},
        {IS(5, 3), 3, 0, "Str '5 0x3'"},
        {IS(-5, -1), 3, 0, "Str '-5 0xffffffff'"},
        {IS(5, 3), 4, 0, "[Int 5,Int 3]"},
        {IS(5, 3), kDS, 0, "DblS(5,3)"},
        {IS(5, 3), kSS, 0, "StrS('5',3)"},
        {IS(5, 3), kIS, 0, "IntS(5,3)"},
        {IS(5, 3), 99, -44, "IntS(5,3)"},
        {DS(2.5, 4), 0, 0, "Empty"},
        {DS(2.5, 4), 1, 0, "Int 2"},
        {DS(-2.5, 4), 1, 0, "Int -2"},
        {DS(3e9, 4), 1, 0, "Int 3000000000"},
        {DS(2.5, 4), 2, 0, "Dbl 2.5"},
        {DS(2.5, 4), 3, 0, "Str '2.500000 0x4'"},
        {DS(2.5, 4), 4, 0, "[Dbl 2.5,Int 4]"},
        {DS(-3e9, 4), kIS, 0, "IntS(-3000000000,4)"},
        {DS(2.5, 4), kSS, 0, "StrS('2.500000',4)"},
        {DS(2.5, 4), kDS, 0, "DblS(2.5,4)"},
        {Empty(), kIS, 0, "IntS(0,0)"},
        {Int(int64_t(1) << 40), kIS, 0, "IntS(1099511627776,0)"},
        {Dbl(3e9), kIS, 0, "IntS(3000000000,0)"},
        {Str("12abc"), kIS, 0, "IntS(12,0)"},
        {Arr({Int(7), Int(2)}), kIS, 0, "IntS(7,2)"},
        {Arr({Dbl(2.9)}), kIS, 0, "IntS(2,0)"},
        {Arr({}), kIS, 0, "IntS(0,0)"},
        {Arr({Arr({})}), kIS, -44, "[[]]"},
        {Arr({Int(1), Arr({})}), kIS, -44, "[Int 1,[]]"},
        {SS("42x", 6), kIS, 0, "IntS(42,6)"},
        {Empty(), kDS, 0, "DblS(0,0)"},
        {Int(2), kDS, 0, "DblS(2,0)"},
        {Dbl(0.5), kDS, 0, "DblS(0.5,0)"},
        {Str("1.5e1"), kDS, 0, "DblS(15,0)"},
        {Arr({Dbl(1.5), Int(2)}), kDS, 0, "DblS(1.5,2)"},
        {SS("2.5", 1), kDS, 0, "DblS(2.5,1)"},
        {Empty(), kSS, 0, "StrS('',0)"},
        {Int(5), kSS, 0, "StrS('5',0)"},
        {Dbl(0.5), kSS, 0, "StrS('0.500000',0)"},
        {Str("x"), kSS, 0, "StrS('x',0)"},
        {StrRef("ref"), kSS, 0, "StrS('ref',0)"},
        {Arr({Str("x"), Int(3)}), kSS, 0, "StrS('x',3)"},
        {Arr({Int(5), Int(1)}), kSS, 0, "StrS('5',1)"},
        {SS("12", 3), 0, 0, "Empty"},
        {SS("12", 3), 1, 0, "Int 12"},
        {SS("2.5", 3), 2, 0, "Dbl 2.5"},
        {SS("ab", 3), 3, 0, "Str 'ab'"},
        {SS("ab", 3), 4, 0, "[Str 'ab',Int 3]"},
        {SS("ab", 3), kSS, 0, "StrS('ab',3)"},
        {SS("ab", 3), 99, -44, "StrS('ab',3)"},
    };
    for (const Row& r : rows) {
        Val v;
        r.from(&v.v);
        const std::string what = Show(&v.v) + " to " + std::to_string(r.to);
        EXPECT_EQ(CVarCast(&v.v, r.to), r.status) << what;
        EXPECT_EQ(Show(&v.v), r.result) << what;
        EXPECT_TRUE(OwnsAll(&v.v)) << what;
    }
}

TEST_F(calcObjs, PropertiesByNumberAndName) {
    struct GetRow { Make obj; Make sel; int32_t status; std::string result; };
    const std::vector<GetRow> gets = {
        {IS(9, 2), Int(1), 0, "Int 9"},       {IS(9, 2), Str("val"), 0, "Int 9"},
        {IS(9, 2), Int(2), 0, "Int 2"},       {IS(9, 2), Str("SIGN"), 0, "Int 2"},
        {IS(9, 2), Int(3), -48, "Empty"},     {IS(9, 2), Str("Signal"), -48, "Empty"},
        {IS(9, 2), Str("Va"), -48, "Empty"},  {IS(9, 2), Dbl(1), -44, "Empty"},
        {DS(1.5, 4), Str("Val"), 0, "Dbl 1.5"}, {DS(1.5, 4), Str("Sign"), 0, "Int 4"},
        {SS("ab", 7), Int(1), 0, "Str 'ab'"}, {SS("ab", 7), Int(2), 0, "Int 7"},
        {SS("ab", 7), Int(0), -48, "Empty"},
    };
    for (const GetRow& r : gets) {
        Val obj;
        r.obj(&obj.v);
        Frame({r.sel});
        EXPECT_EQ(CVarGetObjVar(stack_, &obj.v, 1), r.status) << Show(&obj.v);
        EXPECT_EQ(Show(KWCalcStackArg(stack_, 0)), r.result) << Show(&obj.v);
    }
    struct PutRow { Make obj; Make sel; Make value; int32_t status; std::string result; };
    const std::vector<PutRow> puts = {
        {IS(9, 2), Str("Val"), Int((int64_t(1) << 32) + 7), 0, "IntS(7,2)"},
        {IS(9, 2), Int(1), Dbl(-3e9), 0, "IntS(-2147483648,2)"},
        {IS(9, 2), Str("sign"), Str("3"), 0, "IntS(9,3)"},
        {IS(9, 2), Int(1), Arr({}), -48, "IntS(9,2)"},
        {IS(9, 2), Int(3), Int(1), -48, "IntS(9,2)"},
        {IS(9, 2), Arr({}), Int(1), -44, "IntS(9,2)"},
        {DS(1.5, 4), Int(1), Int(2), 0, "DblS(2,4)"},
        {DS(1.5, 4), Int(2), DS(9.9, 0), 0, "DblS(1.5,9)"},
        {DS(1.5, 4), Int(1), Arr({}), -48, "DblS(1.5,4)"},
        {SS("ab", 7), Str("Val"), Int(12), 0, "StrS('12',7)"},
        {SS("ab", 7), Str("Sign"), Int(5), 0, "StrS('ab',5)"},
        {SS("ab", 7), Str("Val"), Arr({}), -48, "StrS('ab',7)"},
    };
    for (const PutRow& r : puts) {
        Val obj;
        r.obj(&obj.v);
        Frame({r.sel, r.value});
        EXPECT_EQ(CVarPutObjVar(stack_, &obj.v, 1), r.status) << Show(&obj.v);
        EXPECT_EQ(Show(&obj.v), r.result);
    }
    // Two selectors reach Get as one array: neither Int nor Str.
    Val obj;
    IS(1, 1)(&obj.v);
    Frame({Int(1), Int(2)});
    EXPECT_EQ(CVarGetObjVar(stack_, &obj.v, 2), -44);
}

TEST_F(calcObjs, NewFromEverySource) {
    struct Row { Make type; Make init; int32_t status; std::string result; };
    const std::vector<Row> rows = {
        {Str("IntS"), Int(5), 0, "IntS(5,0)"},
        {Str("ints"), Int((int64_t(1) << 32) + 5), 0, "IntS(5,0)"},
        {Int(kIS), Dbl(3.9), 0, "IntS(3,0)"},
        {Str("IntS"), Dbl(-3e9), 0, "IntS(-2147483648,0)"},
        {Str("IntS"), Str("42"), 0, "IntS(42,0)"},
        {Str("IntS"), Arr({Dbl(3.9), Int(2)}), 0, "IntS(3,2)"},
        {Str("IntS"), Arr({}), 0, "IntS(0,0)"},
        {Str("IntS"), Arr({Str("1")}), -44, ""},
        {Str("IntS"), Arr({Int(1), Dbl(2)}), -44, ""},
        {Str("IntS"), DS(2.5, 3), 0, "IntS(2,3)"},
        {Str("IntS"), SS("17", 4), 0, "IntS(17,4)"},
        {Str("IntS"), IS(8, 1), 0, "IntS(8,1)"},
        {Str("IntS"), Empty(), -44, ""},
        {Str("DblS"), Int(2), 0, "DblS(2,0)"},
        {Str("DblS"), Str("1.5"), 0, "DblS(1.5,0)"},
        {Str("DblS"), Arr({Int(1), Int(2)}), 0, "DblS(1,2)"},
        {Str("DblS"), Arr({}), 0, "DblS(0,0)"},
        {Str("DblS"), IS(3, 1), 0, "DblS(3,1)"},
        {Str("DblS"), SS("0.25", 6), 0, "DblS(0.25,6)"},
        {Int(kDS), Empty(), -44, ""},
        {Str("StrS"), Int(5), 0, "StrS('5',0)"},
        {Str("StrS"), Dbl(0.5), 0, "StrS('0.500000',0)"},
        {Str("StrS"), Str("ab"), 0, "StrS('ab',0)"},
        {Str("StrS"), Arr({Str("ab"), Int(2)}), 0, "StrS('ab',2)"},
        {Str("StrS"), Arr({}), 0, "StrS('',0)"},
        {Str("StrS"), IS(5, 3), 0, "StrS('5',3)"},
        {Str("StrS"), DS(1.5, 1), 0, "StrS('1.500000',1)"},
        {Str("StrS"), SS("x", 9), 0, "StrS('x',9)"},
        {Str("StrS"), Arr({Arr({})}), -44, ""},
    };
    for (const Row& r : rows) {
        Frame({r.type, r.init});
        const std::string what = Show(r.type) + " from " + Show(r.init);
        EXPECT_EQ(CVar_New(stack_), r.status) << what;
        if (r.status == 0) {
            EXPECT_EQ(Show(KWCalcStackArg(stack_, 0)), r.result) << what;
        }
    }
}

TEST_F(calcObjs, ImagesInsideArraysRoundTrip) {
    Val v;
    Arr({IS(5, 3), DS(1.5, 2), SS("ab", 7), Int(1), Arr({SS("", -1)})})(&v.v);
    const std::string hex =
        "04 05000000 14 0500000000000000 03000000 15 000000000000f83f 02000000"
        " 16 07000000 02000000 6162 01 0100000000000000 04 01000000 16 ffffffff 00000000";
    EXPECT_EQ(ImageHex(&v.v), ToHex(Hex(hex)));
    const std::vector<uint8_t> image = Image(&v.v);
    for (bool bounded : {false, true}) {
        Val back;
        const int32_t n = bounded ? CVarFromBuffN(&back.v, image.data(), int32_t(image.size()))
                                  : CVarFromBuff(&back.v, image.data());
        EXPECT_EQ(n, int32_t(image.size()));
        EXPECT_EQ(Show(&back.v), Show(&v.v));
        EXPECT_TRUE(OwnsAll(&back.v));
        EXPECT_EQ(Image(&back.v), image);
    }
    // Every truncation is refused without reading past the end.
    for (size_t cut = 0; cut < image.size(); ++cut) {
        std::vector<uint8_t> part(image.begin(), image.begin() + long(cut));
        Val back;
        EXPECT_EQ(CVarFromBuffN(&back.v, part.data(), int32_t(cut)), 0) << cut;
        EXPECT_EQ(back->type, 0);
    }
    // A StrS whose length is negative, and ToBuff into too little room.
    const std::vector<uint8_t> bad = Hex("16 00000000 ffffffff");
    Val back;
    EXPECT_EQ(CVarFromBuffN(&back.v, bad.data(), int32_t(bad.size())), 0);
    const KWCalcObjDef* strs = KWCalcObjType(kSS);
    uint8_t room[10];
    EXPECT_EQ(strs->ToBuff(&v->v.a[2], room, 9), 0);
    EXPECT_EQ(strs->ToBuff(&v->v.a[2], room, 10), 10);
    EXPECT_EQ(KWCalcObjType(kIS)->ToBuff(&v->v.a[0], room, 9), 0);
}

TEST_F(calcObjs, UndefFunAndCopies) {
    struct Row { Make v; const char* name; int32_t status; std::string result; };
    const std::vector<Row> rows = {
        {IS(5, 1), "round", 0, "IntS(5,1)"},   {IS(16, 2), "sqrt", 0, "DblS(4,2)"},
        {IS(16, 2), "sin", -45, "IntS(16,2)"}, {DS(2, 3), "sqrt", 0, "DblS(1.41421,3)"},
        {DS(1, 3), "abs", -45, "DblS(1,3)"},   {SS("a", 1), "round", -45, "StrS('a',1)"},
    };
    for (const Row& r : rows) {
        Val v;
        r.v(&v.v);
        EXPECT_EQ(KWCalcObjType(v->type)->UndefFun(&v.v, r.name), r.status) << r.name;
        EXPECT_EQ(Show(&v.v), r.result) << r.name;
    }
    // StrS copies deeply, also through a reference copy.
    Val s, d, ref;
    SS("text", 4)(&s.v);
    CVarCopy(&d.v, &s.v);
    CVarCopyRef(&ref.v, &s.v);
    const char* texts[3] = {s->v.s, d->v.s, ref->v.s};  // CVar is packed: read by value
    EXPECT_NE(texts[1], texts[0]);
    EXPECT_NE(texts[2], texts[0]);
    EXPECT_EQ(Show(&d.v), "StrS('text',4)");
    EXPECT_EQ(Show(&ref.v), "StrS('text',4)");
}

TEST_F(calcObjs, Scripts) {
    struct Row { const char* text; std::string result; };
    const std::vector<Row> rows = {
        {"IntS(5, 1) + 4294967297", "IntS(6,1)"},
        {"IntS(3, 1) + IntS(4, 2)", "IntS(7,3)"},
        {"IntS(7, 0) / 2", "DblS(3.5,0)"},
        {"IntS(7, 0) \\ 2", "IntS(3,0)"},
        {"IntS(7, 0) / 0", "-43"},
        {"try(IntS(7, 0) / 0)", "Int -43"},
        {"IntS(7, 3) % 0", "IntS(7,3)"},
        {"2.0 == IntS(1, 0)", "Int 0"},
        {"0.5 == IntS(1, 0)", "Int 1"},
        {"IntS(5, 1) - 1 == IntS(4, 1)", "Int 1"},
        {"-IntS(5, 3)", "IntS(-5,3)"},
        {"IntS(2, 0) && 3", "Int 1"},
        {"IntS(4294967301, 2)", "IntS(5,2)"},
        {"IntS([1], 2)", "-44"},
        {"DblS(\"1.5\", 4) * 2", "DblS(3,4)"},
        {"DblS(7.9, 1) \\ 2", "IntS(3,1)"},
        {"StrS(\"ab\", 1) + \"cd\"", "StrS('abcd',1)"},
        {"StrS(12, 1)", "StrS('12',1)"},
        {"str(IntS(5, 3))", "Str '5 0x3'"},
        {"int(StrS(\"42\", 3))", "Int 42"},
        {"Val(IntS(9, 0))", "Int 9"},
        {"Sign(DblS(1.5, 4))", "Int 4"},
        {"Val(DblS(1.5, 4))", "Dbl 1.5"},
        {"Val(StrS(\"a\", 1))", "-44"},  // IntS has the lowest tag: its Val
        {"get(IntS(9, 3), \"Sign\")", "Int 3"},
        {"put(IntS(9, 3), 1, 4)", "IntS(4,3)"},
        {"new(\"IntS\", [3.9, 2])", "IntS(3,2)"},
        {"new(\"dbls\", IntS(3, 1))", "DblS(3,1)"},
        {"sqrt(IntS(16, 2))", "DblS(4,2)"},
        {"round(IntS(5, 1), 2)", "IntS(5,1)"},
        {"round(DblS(2.25, 1), 1)", "DblS(2.3,1)"},
        {"sqrt(DblS(2.25, 1))", "DblS(1.5,1)"},
        {"sin(IntS(1, 0))", "-45"},
        {"abs(StrS(\"a\", 1))", "-45"},
        {"typename(IntS(1, 1))", "Str 'IntS'"},
        {"type(StrS(\"\", 0)) == 22", "Int 1"},
    };
    for (const Row& r : rows) EXPECT_EQ(Eval(r.text), r.result) << r.text;
}

TEST_F(calcObjs, RegistrationOrdersConstantsAndUnregistering) {
    // The constants of each type, in the table given at registration.
    struct Row { const char* name; std::string value; };
    const std::vector<Row> rows = {
        {"itIntS", "Int 20"}, {"stIntS", "Str 'IntS'"}, {"ipIntS_Val", "Int 1"},
        {"spIntS_Val", "Str 'Val'"}, {"ipIntS_Sign", "Int 2"}, {"spIntS_Sign", "Str 'Sign'"},
        {"itDblS", "Int 21"}, {"ipdbls_sign", "Int 2"}, {"itStrS", "Int 22"},
        {"stStrS", "Str 'StrS'"}, {"spStrS_Val", "Str 'Val'"},
    };
    for (const Row& r : rows) {
        CVar* v = nullptr;
        ASSERT_EQ(KWCalcConstGet(constants_, r.name, &v), 1) << r.name;
        EXPECT_EQ(Show(v), r.value) << r.name;
    }
    // Scripts compiled with the table see them as literals.
    KWFunDef* f = nullptr;
    ASSERT_EQ(KWFunCompile("f(){result = itIntS + ipIntS_Sign; result = stDblS;}", &f, 0, constants_), 0);
    char* text = KWFunDisassemble(f);
    ASSERT_NE(text, nullptr);
    const std::string code = text;
    KWMemFree(text);
    KWFunFree(f);
    EXPECT_NE(code.find("int     20\n"), std::string::npos) << code;
    EXPECT_NE(code.find("int     2\n"), std::string::npos) << code;
    EXPECT_NE(code.find("str     \"DblS\""), std::string::npos) << code;

    // The current tag: the descriptor; a taken tag: null and unregistered.
    KWCalcObjDef* ints = KWCalcObjType(kIS);
    EXPECT_EQ(IntSObjTypeReg(kIS, nullptr), ints);
    EXPECT_EQ(IntSObjTypeReg(kDS, nullptr), nullptr);
    EXPECT_EQ(KWCalcObjType(kIS), nullptr);
    EXPECT_EQ(Eval("IntS(1, 1)"), "-45");
    EXPECT_EQ(IntSObjTypeReg(kIS, nullptr), ints);

    // Unregistering with the table removes the type's constants only.
    EXPECT_EQ(StrSObjTypeReg(0, constants_), nullptr);
    for (const char* name : {"itStrS", "stStrS", "ipStrS_Val", "spStrS_Val", "ipStrS_Sign", "spStrS_Sign"})
        EXPECT_EQ(KWCalcConstGet(constants_, name, nullptr), 0) << name;
    EXPECT_EQ(KWCalcConstGet(constants_, "itIntS", nullptr), 1);
    EXPECT_EQ(KWCalcObjTypeFromName("StrS"), nullptr);
    EXPECT_EQ(Eval("StrS(\"a\", 1)"), "-45");

    // StrS under a lower tag than IntS provides "Val" and "Sign": strings only.
    ASSERT_NE(StrSObjTypeReg(10, constants_), nullptr);
    CVar* tag = nullptr;
    ASSERT_EQ(KWCalcConstGet(constants_, "itStrS", &tag), 1);
    EXPECT_EQ(Show(tag), "Int 10");
    EXPECT_EQ(Eval("Val(StrS(\"a\", 1))"), "Str 'a'");
    EXPECT_EQ(Eval("Sign(StrS(\"a\", 1))"), "Int 1");
    EXPECT_EQ(Eval("Val(IntS(9, 0))"), "-44");
    EXPECT_EQ(Eval("Sign(DblS(1, 2))"), "-44");
    // StrS above IntS again: IntS's Val, which forwards to DblS.
    EXPECT_EQ(StrSObjTypeReg(30, nullptr), KWCalcObjTypeFromName("strs"));
    EXPECT_EQ(Eval("Val(DblS(1.5, 0)) + Val(IntS(2, 0))"), "Dbl 3.5");
    EXPECT_EQ(Eval("Sign(DblS(1, 6))"), "Int 6");
    EXPECT_EQ(Eval("Val(StrS(\"a\", 1))"), "-44");
}
