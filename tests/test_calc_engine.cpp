// The calculator engine: formulas and script functions in, values or
// statuses out, one row per case; the name table, the host call protocol,
// the debug, error and call hooks, budgets and the depth limit on a 1 MiB
// thread.  The stop bit from another thread: test_calc_threads.cpp.
#include <gtest/gtest.h>

#include <VomKwz.h>
#include <pthread.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

// Values as short text: i:5 d:2.5 s:"ab" [i:1,i:2] e
std::string Show(const CVar* v) {
    char buf[64];
    switch (v->type) {
    case 0: return "e";
    case 1: std::snprintf(buf, sizeof buf, "i:%lld", static_cast<long long>(v->v.i + 0)); return buf;
    case 2: std::snprintf(buf, sizeof buf, "d:%.15g", v->v.d + 0); return buf;
    case 3: return "s:\"" + std::string(v->v.s ? v->v.s : "", size_t(v->count)) + "\"";
    case 4: {
        std::string r = "[";
        for (int32_t i = 0; i < v->count; ++i) r += (i ? "," : "") + Show(&v->v.a[i]);
        return r + "]";
    }
    default: return "obj";
    }
}

// Host functions for the rows.
int32_t HostAdd(KWCalcStack* s) {  // hadd(a, b): Int sum into slot 0
    CVar* a = KWCalcStackArg(s, 0);
    CVar* b = KWCalcStackArg(s, 1);
    if (a->type != 1 || b->type != 1) return -44;
    CVarSetInt(a, a->v.i + b->v.i);
    return 0;
}
int32_t HostFail(KWCalcStack* s) {  // hfail(n): fails with status n
    return int32_t(KWCalcStackArg(s, 0)->v.i);
}
int32_t HostThrow(KWCalcStack*) { throw std::runtime_error("host failure"); }
int32_t HostSeven(KWCalcStack* s) {  // hseven(): 7, with data checked
    if (KWCalcStackData(s) != reinterpret_cast<void*>(0x1234)) return -44;
    CVarSetInt(KWCalcStackArg(s, 0), 7);
    return 0;
}
int32_t HostBack(KWCalcStack* s) {  // hback(x): calls the script sq(x) through the stack
    CVar* x = KWCalcStackArg(s, 0);
    CVar* arg = KWCalcStackPush(s);
    if (!arg) return -47;
    CVarCopy(arg, x);
    const int32_t st = KWCalcFun2(s, "sq");
    if (st != 0) return st;
    return KWCalcStackPop(s, KWCalcStackArg(s, 0));
}

const char* const kScripts[] = {
    "sq(x){Result=x*x;}",
    "fact(n){if(n<=1){Result=1;}else{Result=n*fact(n-1);}}",
    "fib(n){if(n<2){Result=n;exit;}Result=fib(n-1)+fib(n-2);}",
    "sumto(n){var i,s;i=0;s=0;while(i<n){i=i+1;if(i==3){continue;}if(i>8){break;}s=s+i;}Result=s;}",
    "viahost(x){Result=hback(x)+1;}",
    "strs(){var s,i;s=\"\";i=0;while(i<5){s=s+chr(65+i);i=i+1;}Result=s;}",
    "arrs(){var a;a=[1,[2,3],\"xy\"];a[1][0]=20;a[2]=a[2]+\"Z\";Result=a;}",
    "forever(){while(1){}}",
    "deep(n){Result=deep(n+1);}",
    "noargs(){Result=42;}",
    "tryhost(){Result=[try(hfail(-30)),try(hthrow()),try(1/0),try(hadd(1,2))];}",
    "ld(){var e;Result=(e=3,ldexp(1.5));}",
    "shadow(a,b){a=a+b;b=0;Result=[a,b];}",
};

struct Calc {
    KWCalcDef* c = nullptr;
    Calc() {
        EXPECT_EQ(KWCalcCreate(&c, nullptr, nullptr), 0);
        EXPECT_EQ(KWCalcFunAdd(c, "hadd", 2, &HostAdd, nullptr, nullptr), 0);
        EXPECT_EQ(KWCalcFunAdd(c, "hfail", 1, &HostFail, nullptr, nullptr), 0);
        EXPECT_EQ(KWCalcFunAdd(c, "hthrow", 0, &HostThrow, nullptr, nullptr), 0);
        EXPECT_EQ(KWCalcFunAdd(c, "hseven", 0, &HostSeven, reinterpret_cast<void*>(0x1234), nullptr), 0);
        EXPECT_EQ(KWCalcFunAdd(c, "hback", 1, &HostBack, nullptr, nullptr), 0);
        for (const char* s : kScripts) EXPECT_EQ(KWCalcFunAddI(c, s, nullptr, 0, 0), 0) << s;
    }
    ~Calc() { KWCalcDestroy(c); }
};

struct Row {
    const char* expr;
    int32_t status;
    const char* value;  // Show() of the result when status is 0
};

void RunRows(const std::vector<Row>& rows, KWCalcDef* c) {
    for (const Row& r : rows) {
        CVar v{};
        const int32_t st = KWCalcFormula(r.expr, &v, c, 0);
        EXPECT_EQ(st, r.status) << r.expr;
        if (st == 0 && r.status == 0) {
            EXPECT_EQ(Show(&v), r.value) << r.expr;
        }
        if (st != 0) {
            EXPECT_EQ(v.type, 0) << r.expr;
        }
        CVarSetEmpty(&v);
    }
}

TEST(CalcEngine, Operators) {
    const std::vector<Row> rows = {
        {"2+3", 0, "i:5"},
        {"2+3*4", 0, "i:14"},
        {"(2+3)*4", 0, "i:20"},
        {"4611686018427387904*2", 0, "i:-9223372036854775808"},
        {"1+0.5", 0, "d:1.5"},
        {"\"ab\"+\"cd\"", 0, "s:\"abcd\""},
        {"\"ab\"+1", -44, ""},
        {"[1]+1", -44, ""},
        {"7-10", 0, "i:-3"},
        {"2.5*2", 0, "d:5"},
        {"7/2", 0, "d:3.5"},
        {"7/0", -43, ""},
        {"7\\2", 0, "i:3"},
        {"-7\\2", 0, "i:-3"},
        {"7.9\\2", 0, "i:3"},
        {"7\\0", -43, ""},
        {"(4611686018427387904*2)\\-1", 0, "i:-9223372036854775808"},
        {"-7%3", 0, "i:-1"},
        {"7.5%2", 0, "d:1.5"},
        {"7%0", -43, ""},
        {"(4611686018427387904*2)%-1", 0, "i:0"},
        {"7%-1.0", 0, "d:0"},
        {"7.0\\0.5", -43, ""},
        {"1/0.0", -43, ""},
        {"5/2.5", 0, "d:2"},
        {"2<2.5", 0, "i:1"},
        {"2.5>=3", 0, "i:0"},
        {"1==1", 0, "i:1"},
        {"1==1.0", 0, "i:1"},
        {"1!=2", 0, "i:1"},
        {"\"a\"<\"b\"", 0, "i:1"},
        {"\"ab\"<\"a\"", 0, "i:0"},
        {"2<=2", 0, "i:1"},
        {"3>2.5", 0, "i:1"},
        {"2>=3", 0, "i:0"},
        {"null()==null()", 0, "i:1"},
        {"null()==0", 0, "i:0"},
        {"sqrt(-1)==sqrt(-1)", 0, "i:0"},
        {"sqrt(-1)!=sqrt(-1)", 0, "i:1"},
        {"sqrt(-1)<1", 0, "i:0"},
        {"\"a\"<1", -44, ""},
        {"6&3", 0, "i:2"},
        {"6^3", 0, "i:5"},
        {"6|3", 0, "i:7"},
        {"1<<65", 0, "i:2"},
        {"-8>>1", 0, "i:-4"},
        {"6.7&3", 0, "i:2"},
        {"~0", 0, "i:-1"},
        {"-(4611686018427387904*2)", 0, "i:-9223372036854775808"},
        {"-2.5", 0, "d:-2.5"},
        {"!0", 0, "i:1"},
        {"!0.0", 0, "i:1"},
        {"!\"\"", 0, "i:1"},
        {"!null()", 0, "i:1"},
        {"!5", 0, "i:0"},
        {"-\"a\"", -44, ""},
        {"1&&2", 0, "i:1"},
        {"0&&sqrt(\"x\")", 0, "i:0"},
        {"1||1/0", 0, "i:1"},
        {"0||0", 0, "i:0"},
        {"0||3", 0, "i:1"},
        {"1|2==2", 0, "i:1"},
        {"1+2<<1", 0, "i:6"},
        {"(1,2,3)", 0, "i:3"},
        {"[1,2,[3]][2][0]", 0, "i:3"},
        {"[1,2][5]", -49, ""},
        {"\"abc\"[1]", 0, "i:98"},
        {"[]", 0, "[]"},
    };
    Calc c;
    RunRows(rows, c.c);
}

TEST(CalcEngine, ScriptsAndCalls) {
    const std::vector<Row> rows = {
        {"sq(7)", 0, "i:49"},
        {"fact(20)", 0, "i:2432902008176640000"},
        {"fib(15)", 0, "i:610"},
        {"sumto(100)", 0, "i:33"},  // 1+2+4+5+6+7+8
        {"viahost(5)", 0, "i:26"},  // script -> host -> script
        {"hadd(sq(2),3)", 0, "i:7"},
        {"hseven()", 0, "i:7"},
        {"noargs()", 0, "i:42"},
        {"strs()", 0, "s:\"ABCDE\""},
        {"arrs()", 0, "[i:1,[i:20,i:3],s:\"xyZ\"]"},
        {"shadow(1,2)", 0, "[i:3,i:0]"},
        {"nosuch(1)", -45, ""},
        {"hfail(-30)", -30, ""},
        {"hthrow()", -53, ""},
        {"hadd(1,\"x\")", -44, ""},
        {"try(hfail(-30))", 0, "i:-30"},
        {"try([1][3])", 0, "i:-49"},
        {"try(1)", 0, "i:0"},
        {"tryhost()", 0, "[i:-30,i:-53,i:-43,i:0]"},
        {"deep(0)", -52, ""},
        {"try(deep(0))", -52, ""},
        {"1+", -2, ""},
    };
    Calc c;
    RunRows(rows, c.c);
}

TEST(CalcEngine, Builtins) {
    const std::vector<Row> rows = {
        {"iif(1,\"a\",\"b\")", 0, "s:\"a\""},
        {"iif(0.0,\"a\",\"b\")", 0, "s:\"b\""},
        {"abs(-3)", 0, "i:3"},
        {"abs(-2.5)", 0, "d:2.5"},
        {"abs([1])", -44, ""},
        {"min(3,2)", 0, "i:2"},
        {"max(3,2.5)", 0, "d:3"},
        {"min(\"b\",\"a\")", 0, "s:\"a\""},
        {"round(2.345,2)", 0, "d:2.35"},
        {"round(-2.5,0)", 0, "d:-3"},
        {"round(1234,-2)", 0, "d:1200"},
        {"abort(-5)", -5, ""},
        {"abort(3)", -40, ""},
        {"try(abort(-5))", 0, "i:-5"},
        {"sin(0)", 0, "d:0"},
        {"cos(0)", 0, "d:1"},
        {"sqrt(16)", 0, "d:4"},
        {"pow(2,10)", 0, "d:1024"},
        {"exp(0)+log(1)+log10(100)", 0, "d:3"},
        {"tan(0)+asin(0)+acos(1)+atan(0)", 0, "d:0"},
        {"sin([1])", -44, ""},
        {"ld()", 0, "d:12"},  // the exponent is the value below the argument
        {"ldexp(1.5)", -47, ""},  // it would reach the function's result
        {"type(1.5)", 0, "i:2"},
        {"typename(\"x\")", 0, "s:\"Str\""},
        {"int(\"42\")", 0, "i:42"},
        {"dbl(2)", 0, "d:2"},
        {"str(12)", 0, "s:\"12\""},
        {"arr(5)", 0, "[i:5]"},
        {"null()", 0, "e"},
        {"len(\"abc\")", 0, "i:3"},
        {"len([1,2])", 0, "i:2"},
        {"len(5)", -44, ""},
        {"mid(\"abcdef\",2,3)", 0, "s:\"cde\""},
        {"mid(\"abcdef\",4,10)", 0, "s:\"ef\""},
        {"mid(\"abc\",-1,2)", 0, "s:\"ab\""},
        {"left(\"abc\",2)", 0, "s:\"ab\""},
        {"right(\"abc\",5)", 0, "s:\"abc\""},
        {"mid(1,2,3)", -44, ""},
        {"cmp(\"a\",\"b\")", 0, "i:-1"},
        {"cmpi(\"ABC\",\"abc\")", 0, "i:0"},
        {"pos(\"hello\",\"l\")", 0, "i:2"},
        {"pos(\"hello\",\"z\")", 0, "i:-1"},
        {"posi(\"HELLO\",\"lo\")", 0, "i:3"},
        {"chr(65)", 0, "s:\"A\""},
        {"ord(\"A\")", 0, "i:65"},
        {"ord(\"\")", 0, "i:0"},
        {"toupper(\"ab\xe0\")", 0, "s:\"AB\xc0\""},
        {"tolower(\"AB\xc0\")", 0, "s:\"ab\xe0\""},
        {"cmp(1,2)", -44, ""},
        {"printf(\"%d|%5.2f|%-4s|%x|%c|%%|%e\",[42,3.14159,\"ab\",255,65,1.5])", 0,
         "s:\"42| 3.14|ab  |ff|A|%|1.500000e+00\""},
        {"printf(\"%03i %o %X %g %u\",[7,8,255,0.5,3])", 0, "s:\"007 10 FF 0.5 3\""},
        {"printf(\"<%s>\",12)", 0, "s:\"<12>\""},
        {"printf(\"%d %d\",[1])", -49, ""},
        {"printf(\"%q\",[1])", -44, ""},
        {"printf(1,2)", -44, ""},
        {"scanf(\"12 ab 3.5 ff Z\",\"%d %s %f %x %c\")", 0, "[i:12,s:\"ab\",d:3.5,i:255,i:90]"},
        {"scanf(\"x=5,y=7\",\"x=%d,y=%d\")", 0, "[i:5,i:7]"},
        {"scanf(\"12345\",\"%2d%3d\")", 0, "[i:12,i:345]"},
        {"scanf(\"abc\",\"%d\")", 0, "[]"},
        {"scanf(1,\"%d\")", -44, ""},
    };
    Calc c;
    RunRows(rows, c.c);
}

TEST(CalcEngine, TimeAndObjectBuiltins) {
    setenv("TZ", "UTC", 1);
    tzset();
    // 2021-03-04 05:06:07.089 UTC, a Thursday, day 62 of the year.
    const std::vector<Row> rows = {
        {"tmmsec(1614834367089)", 0, "i:89"},
        {"tmsec(1614834367089)", 0, "i:7"},
        {"tmmin(1614834367089)", 0, "i:6"},
        {"tmhour(1614834367089)", 0, "i:5"},
        {"tmday(1614834367089)", 0, "i:4"},
        {"tmmon(1614834367089)", 0, "i:3"},
        {"tmyear(1614834367089)", 0, "i:2021"},
        {"tmwday(1614834367089)", 0, "i:4"},
        {"tmyday(1614834367089)", 0, "i:62"},
        {"tmisdst(1614834367089)", 0, "i:0"},
        {"tmmsec(-1)", 0, "i:999"},
        {"tmlocal(1614834367089)", 0, "[i:2021,i:3,i:4,i:5,i:6,i:7,i:89]"},
        {"tmgm(0)", 0, "[i:1970,i:1,i:1,i:0,i:0,i:0,i:0]"},
        {"tmmake(2021,3,4,5,6,7,89)", 0, "i:1614834367089"},
        {"(1,tmmake(2021,3,4,5,6,7,89))", 0, "i:1614834367089"},
        {"tmmakea([2021,3,4,5,6,7,89])", 0, "i:1614834367089"},
        {"tmmakea([1970])", 0, "i:0"},
        {"tmstr(1614834367089,\"%Y-%m-%d %H:%M\")", 0, "s:\"2021-03-04 05:06\""},
        {"tmsec(\"x\")", -44, ""},
        {"tmmakea(5)", -44, ""},
        {"new(1,2)", -44, ""},
        {"get(1,2)", -44, ""},
        {"put(1,2,3)", -44, ""},
        {"call(1,2,3)", -44, ""},
    };
    Calc c;
    RunRows(rows, c.c);
}

TEST(CalcEngine, FormulaIntDbl) {
    int64_t i = -1;
    EXPECT_EQ(KWCalcFormulaInt("2+3", &i), 0);
    EXPECT_EQ(i, 5);
    EXPECT_EQ(KWCalcFormulaInt("2+", &i), -2);
    EXPECT_EQ(i, 0);
    double d = -1;
    EXPECT_EQ(KWCalcFormulaDbl("1/4", &d), 0);
    EXPECT_EQ(d, 0.25);
    EXPECT_EQ(KWCalcFormulaDbl("1/0", &d), -43);
    EXPECT_EQ(d, 0);
}

TEST(CalcEngine, NameTable) {
    KWCalcDef* c = nullptr;
    ASSERT_EQ(KWCalcCreate(&c, nullptr, nullptr), 0);
    KWCalcNameDef* e = nullptr;
    EXPECT_EQ(KWCalcFunAdd(c, "Host", 1, &HostFail, nullptr, &e), 0);
    EXPECT_NE(e, nullptr);
    EXPECT_EQ(KWCalcFunAdd(c, "HOST", 1, &HostFail, nullptr, nullptr), -27);
    EXPECT_EQ(KWCalcFunAdd(c, "other", 1, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(KWCalcFunAdd(c, "OTHER", 2, &HostFail, nullptr, nullptr), -22);
    int32_t index = -2;
    EXPECT_EQ(KWCalcNameFind(c, "host", &index), e);
    EXPECT_EQ(index, 0);
    EXPECT_EQ(KWCalcNameFind(c, "none", &index), nullptr);
    EXPECT_EQ(index, -1);
    // A link from an entry without a function; a link with another count.
    KWCalcNameDef* other = KWCalcNameFind(c, "other", nullptr);
    EXPECT_EQ(KWCalcFunLink(other, "host", 1, nullptr), -26);
    EXPECT_EQ(KWCalcFunLink(e, "host", 2, nullptr), -22);
    // A compiled caller whose callee count differs is removed again.
    EXPECT_EQ(KWCalcFunAddI(c, "f(){Result=host(1,2);}", nullptr, 0, 0), -22);
    EXPECT_EQ(KWCalcNameFind(c, "f", nullptr), nullptr);
    EXPECT_EQ(KWCalcFunAddI(c, "f(", nullptr, 0, 0), -2);
    // Deleting a callee unlinks its callers: calling it then gives -45.
    ASSERT_EQ(KWCalcFunAddI(c, "g(x){Result=host(x);}", nullptr, 0, 0), 0);
    EXPECT_EQ(KWCalcFunAddI(c, "g(x){Result=1;}", nullptr, 0, 0), -27);
    EXPECT_EQ(KWCalcFunDel(c, "host"), 0);
    EXPECT_EQ(KWCalcFunDel(c, "host"), -45);
    CVar v{};
    EXPECT_EQ(KWCalcFormula("g(1)", &v, c, 0), -45);
    // Re-registering the name links new callers, not the old one.
    EXPECT_EQ(KWCalcFunAdd(c, "host", 1, &HostFail, nullptr, nullptr), 0);
    EXPECT_EQ(KWCalcFormula("g(1)", &v, c, 0), -45);
    EXPECT_EQ(KWCalcFunDel(c, "g"), 0);
    // The calculator's constant table: a name unknown without it, a value with it.
    KWCalcConst* table = nullptr;
    ASSERT_EQ(KWCalcConstCreate(&table, 4), 0);
    ASSERT_EQ(KWCalcConstInt(table, "Answer", 42, nullptr), 0);
    EXPECT_EQ(KWCalcFormula("answer + 1", &v, c, 0), -45);
    KWCalcSetConstants(c, table);
    ASSERT_EQ(KWCalcFormula("answer + 1", &v, c, 0), 0);
    EXPECT_EQ(v.type, 1);
    EXPECT_EQ(int64_t{v.v.i}, 43);  // a copy: the packed field is misaligned
    ASSERT_EQ(KWCalcFunAddI(c, "k(){Result=ANSWER;}", nullptr, 0, 0), 0);
    EXPECT_EQ(KWCalcFormula("k()", &v, c, 0), 0);
    EXPECT_EQ(int64_t{v.v.i}, 42);
    KWCalcDestroy(c);
    KWCalcConstDestroy(table);
}

TEST(CalcEngine, HostProtocolAndStack) {
    Calc c;
    KWCalcStack* s = nullptr;
    ASSERT_EQ(KWCalcStackCreate(c.c, &s, 4), 0);
    EXPECT_EQ(KWCalcStackTest(s, 3), 0);
    EXPECT_EQ(KWCalcStackTest(s, 4), -47);
    // hadd(2, 3) through push, call, pop.
    CVarSetInt(KWCalcStackPush(s), 2);
    CVarSetInt(KWCalcStackPush(s), 3);
    EXPECT_EQ(KWCalcFun2(s, "hadd"), 0);
    CVar out{};
    EXPECT_EQ(KWCalcStackPop(s, &out), 0);
    EXPECT_EQ(out.v.i + 0, 5);
    EXPECT_EQ(KWCalcStackPop(s, nullptr), -47);
    // A failure leaves the stack as before the arguments.
    CVarSetInt(KWCalcStackPush(s), 1);
    CVarSetStr(KWCalcStackPush(s), "x", 1);
    EXPECT_EQ(KWCalcFun2(s, "hadd"), -44);
    EXPECT_EQ(KWCalcStackPop(s, nullptr), -47);
    EXPECT_EQ(KWCalcFun2(s, "nosuch"), -45);
    // fib(10) needs more stack than 4 values.
    CVarSetInt(KWCalcStackPush(s), 10);
    EXPECT_EQ(KWCalcFun2(s, "fib"), -47);
    EXPECT_EQ(KWCalcStackPop(s, nullptr), -47);
    // A parameterless script called by the host.
    KWCalcNameDef* e = KWCalcNameFind(c.c, "noargs", nullptr);
    EXPECT_EQ(KWCalcFun1(s, e), 0);
    EXPECT_EQ(KWCalcStackPop(s, &out), 0);
    EXPECT_EQ(out.v.i + 0, 42);
    KWCalcStackFree(s);
}

// The host's push, set and pop on slots and values that hold blocks or
// numbers: what comes out, and (under the leak checker) that every block
// replaced or dropped is freed.
TEST(CalcEngine, PushSetPopWithBlocksAndNumbers) {
    struct Row {
        const char* pushed;  // formula of the value pushed
        const char* before;  // formula of the host's value before the pop; null: pop into none
        const char* want;    // the host's value after the pop
    };
    const Row rows[] = {
        {"2.5", "1", "d:2.5"},
        {"7", "null()", "i:7"},
        {"\"ab\"", "1.5", "s:\"ab\""},      // a block into a number
        {"1.5", "\"old\"", "d:1.5"},          // a number over a block
        {"[1,\"x\"]", "[2]", "[i:1,s:\"x\"]"},
        {"\"ab\"", nullptr, "e"},           // dropped
        {"3", nullptr, "e"},
    };
    Calc c;
    KWCalcStack* s = nullptr;
    ASSERT_EQ(KWCalcStackCreate(c.c, &s, 4), 0);
    for (const Row& r : rows) {
        CVar* slot = KWCalcStackPush(s);
        ASSERT_NE(slot, nullptr);
        ASSERT_EQ(KWCalcFormula(r.pushed, slot, c.c, 0), 0) << r.pushed;
        CVar out{};
        if (r.before) {
            ASSERT_EQ(KWCalcFormula(r.before, &out, c.c, 0), 0) << r.before;
        }
        EXPECT_EQ(KWCalcStackPop(s, r.before ? &out : nullptr), 0) << r.pushed;
        EXPECT_EQ(Show(&out), r.want) << r.pushed;
        // The slot is empty again, and a number set into a block frees it.
        CVar* again = KWCalcStackPush(s);
        EXPECT_EQ(again, slot);
        EXPECT_EQ(again->type, 0) << r.pushed;
        CVarSetDbl(&out, 0.25);
        EXPECT_EQ(Show(&out), "d:0.25");
        CVarSetDbl(again, -1.0);
        EXPECT_EQ(KWCalcStackPop(s, &out), 0);
        EXPECT_EQ(Show(&out), "d:-1");
    }
    CVarSetDbl(nullptr, 1.0);  // ignored
    EXPECT_EQ(KWCalcStackPop(s, nullptr), -47);
    KWCalcStackFree(s);
}

// The loop statements run as fused groups (load, load or literal, operator,
// then jf or store and drop) in the fast loop, with and without an
// instruction budget, and one by one in the full loop (under a memory
// budget); every pairing must give what the same operator gives on two
// pushed values, failures included.
class CalcEngineFused : public testing::TestWithParam<int> {};

TEST_P(CalcEngineFused, StatementsMatchSingleInstructions) {
    const char* const operands[] = {"7", "0", "2.5", "0.0", "sqrt(-1)", "(4611686018427387904*2)", "-1",
                                    "\"ab\""};
    const char* const ops[] = {"+", "-", "*", "/", "\\", "%", "==", "!=", "<", "<=", ">", ">="};
    Calc c;
    // 0: no budget; 1: an instruction budget; 2: a memory budget.
    ASSERT_EQ(KWCalcSetLimits(c.c, GetParam() == 1 ? 1000000000 : 0, GetParam() == 2 ? 1000000000 : 0, 0), 0);
    auto check = [&](const char* call, int32_t wantSt, const CVar& want, const std::string& note) {
        CVar v{};
        const int32_t st = KWCalcFormula(call, &v, c.c, 0);
        EXPECT_EQ(st, wantSt) << note << " " << call;
        if (st == 0 && wantSt == 0) {
            EXPECT_EQ(Show(&v), Show(&want)) << note << " " << call;
        }
        CVarSetEmpty(&v);
    };
    for (const char* a : operands)
        for (const char* b : operands)
            for (const char* op : ops) {
                const std::string ab = std::string(a) + op + b;
                // Reference: both operands computed, then the operator.
                CVar want{};
                const int32_t wantSt = KWCalcFormula(("(" + std::string(a) + ")" + op + "(" + b + ")").c_str(),
                                                     &want, c.c, 0);
                const std::string body = std::string("var x,y,r;x=") + a + ";y=" + b + ";";
                const std::string scripts[] = {
                    "f1(){" + body + "r=x" + op + "y;Result=r;}",
                    "f2(p){" + body + "r=p" + op + "y;Result=r;}",
                    "f3(){" + body + "if(x" + op + "y){Result=1;}else{Result=0;}}",
                };
                for (const std::string& text : scripts)
                    ASSERT_EQ(KWCalcFunAddI(c.c, text.c_str(), nullptr, 0, 0), 0) << text;
                check("f1()", wantSt, want, ab);
                check((std::string("f2(") + a + ")").c_str(), wantSt, want, ab);
                // A comparison's truth drives the branch.
                if (op[0] == '=' || op[0] == '!' || op[0] == '<' || op[0] == '>') check("f3()", wantSt, want, ab);
                CVarSetEmpty(&want);
                for (const char* name : {"f1", "f2", "f3"}) EXPECT_EQ(KWCalcFunDel(c.c, name), 0);
            }
    // A number in a literal on the right, and the truth of a Dbl (truncated:
    // 0.5 is false, NaN true).
    const std::vector<Row> rows = {
        {"lit(5)", 0, "[i:6,d:7.5,i:1,i:0]"},
        {"truth(0.5)", 0, "i:0"},
        {"truth(-1.0)", 0, "i:1"},
        {"truth(sqrt(-1))", 0, "i:1"},
        {"truth(null())", 0, "i:0"},
    };
    ASSERT_EQ(KWCalcFunAddI(c.c, "lit(x){var a,b,e,g;a=x+1;b=x+2.5;e=x==5;g=x<2;Result=[a,b,e,g];}", nullptr, 0, 0), 0);
    ASSERT_EQ(KWCalcFunAddI(c.c, "truth(x){if(x){Result=1;}else{Result=0;}}", nullptr, 0, 0), 0);
    RunRows(rows, c.c);
}

INSTANTIATE_TEST_SUITE_P(Budgets, CalcEngineFused, testing::Values(0, 1, 2));

// The instruction budget counts every instruction, those of fused groups
// too: sum(3) runs 17 + 15 * 3 instructions (prologue, two initialisations,
// four per test, ten per body, one jump, the result and its end).  The
// smallest budget that lets a call through is the same in the fast loop and
// in the full loop (which a memory budget selects).
TEST(CalcEngine, InstructionBudgetIsExact) {
    Calc c;
    ASSERT_EQ(KWCalcFunAddI(c.c, "sum(n){var i,s;i=0;s=0;while(i<n){i=i+1;s=s+i;}Result=s;}", nullptr, 0, 0), 0);
    ASSERT_EQ(KWCalcFunAddI(c.c, "mix(n){var d;d=0.5;while(n>0){d=d*2-n/4;n=n-1;if(!(n%2)){d=-d;}}Result=d+fib(4);}",
                            nullptr, 0, 0), 0);
    KWCalcStack* s = nullptr;
    ASSERT_EQ(KWCalcStackCreate(c.c, &s, 64), 0);
    // The smallest budget that runs name(arg), and its result.
    auto threshold = [&](const char* name, int64_t arg, int64_t memory, std::string* result) {
        for (int64_t limit = 1; limit < 2000; ++limit) {
            EXPECT_EQ(KWCalcSetLimits(c.c, limit, memory, 0), 0);
            CVarSetInt(KWCalcStackPush(s), arg);
            const int32_t st = KWCalcFun2(s, name);
            if (st == 0) {
                CVar out{};
                EXPECT_EQ(KWCalcStackPop(s, &out), 0);
                *result = Show(&out);
                CVarSetEmpty(&out);
                return limit;
            }
            EXPECT_EQ(st, -50) << name << " " << limit;
            EXPECT_EQ(KWCalcStackPop(s, nullptr), -47) << name << " " << limit;
        }
        return int64_t(-1);
    };
    std::string fast, full;
    EXPECT_EQ(threshold("sum", 3, 0, &fast), 62);
    EXPECT_EQ(fast, "i:6");
    EXPECT_EQ(threshold("sum", 3, 1 << 20, &full), 62);
    const int64_t mixFast = threshold("mix", 5, 0, &fast);
    EXPECT_GT(mixFast, 0);
    EXPECT_EQ(threshold("mix", 5, 1 << 20, &full), mixFast);
    EXPECT_EQ(fast, full);
    KWCalcStackFree(s);
}

TEST(CalcEngine, Budgets) {
    Calc c;
    CVar v{};
    ASSERT_EQ(KWCalcSetLimits(c.c, 10000, 0, 0), 0);
    EXPECT_EQ(KWCalcFormula("forever()", &v, c.c, 0), -50);
    EXPECT_EQ(KWCalcFormula("try(forever())", &v, c.c, 0), -50);
    EXPECT_EQ(KWCalcFormula("fib(10)", &v, c.c, 0), 0);  // counted per run
    EXPECT_EQ(KWCalcFormula("fib(10)", &v, c.c, 0), 0);
    ASSERT_EQ(KWCalcSetLimits(c.c, 0, 100000, 0), 0);
    ASSERT_EQ(KWCalcFunAddI(c.c, "grow(){var s;s=\"x\";while(1){s=s+s;}}", nullptr, 0, 0), 0);
    EXPECT_EQ(KWCalcFormula("grow()", &v, c.c, 0), -51);
    ASSERT_EQ(KWCalcSetLimits(c.c, 0, 0, 10), 0);
    EXPECT_EQ(KWCalcFormula("fact(9)", &v, c.c, 0), 0);
    EXPECT_EQ(KWCalcFormula("fact(12)", &v, c.c, 0), -52);
    EXPECT_EQ(KWCalcSetLimits(c.c, -1, 0, 0), -44);
    CVarSetEmpty(&v);
}

// Runs "t(){Result=EXPR;}" on the stack through the host protocol; the
// result's Show() or "status N".
std::string RunOnStack(KWCalcDef* c, KWCalcStack* s, const std::string& expr) {
    const std::string text = "t(){Result=" + expr + ";}";
    if (const int32_t st = KWCalcFunAddI(c, text.c_str(), nullptr, 0, 0); st != 0)
        return "compile " + std::to_string(st);
    const int32_t st = KWCalcFun2(s, "t");
    std::string shown = "status " + std::to_string(st);
    if (st == 0) {
        CVar v{};
        EXPECT_EQ(KWCalcStackPop(s, &v), 0);
        shown = Show(&v);
        CVarSetEmpty(&v);
    }
    EXPECT_EQ(KWCalcStackPop(s, nullptr), -47) << expr << ": the stack holds more";
    KWCalcFunDel(c, "t");
    return shown;
}

// What the hooks saw: debug calls (failing at call number failAt), error
// calls as "function:opcode:status", call hook calls.
struct HookLog {
    int debugCalls = 0;
    int failAt = 0;
    std::string errors;
    int hooked = 0;
} gHooks;

int32_t DebugHook(KWCalcStack*) {
    return ++gHooks.debugCalls == gHooks.failAt ? -60 : 0;
}
int32_t ErrorHook(KWCalcStack* s, int32_t position, int32_t status) {
    const auto* f = static_cast<const KWFunDef*>(KWCalcStackData(s));
    gHooks.errors += std::string(gHooks.errors.empty() ? "" : ",") + f->name + ":" +
                     std::to_string(f->code[position]) + ":" + std::to_string(status);
    return 0;
}
// Compiled entries run their own code and gain 1000; host entries give 999.
int32_t CallHook(KWCalcStack* s) {
    ++gHooks.hooked;
    if (!KWCalcStackData(s)) {
        CVarSetInt(KWCalcStackArg(s, 0), 999);
        return 0;
    }
    if (const int32_t st = KWFunProc(s); st != 0) return st;
    CVar* r = KWCalcStackArg(s, 0);
    CVarSetInt(r, r->v.i + 1000);
    return 0;
}

TEST(CalcEngine, DebugHookBeforeAndAfterEachCall) {
    struct HookRow {
        const char* expr;
        int failAt;  // the debug call that fails with -60 (0: none)
        const char* shown;
        int calls;   // debug calls made
    };
    // t before, sq before, sq after, t after.
    const HookRow rows[] = {
        {"sq(3)", 0, "i:9", 4},
        {"sq(3)", 1, "status -60", 1},
        {"sq(3)", 2, "status -60", 2},
        {"sq(3)", 3, "status -60", 3},
        {"sq(3)", 4, "status -60", 4},
        {"try(sq(3))", 2, "i:-60", 3},
        {"hadd(1,2)+sq(2)", 0, "i:7", 6},
    };
    Calc c;
    KWCalcStack* s = nullptr;
    ASSERT_EQ(KWCalcStackCreate(c.c, &s, 64), 0);
    KWCalcStackSetHooks(s, &DebugHook, nullptr);
    for (const HookRow& r : rows) {
        gHooks = HookLog{};
        gHooks.failAt = r.failAt;
        EXPECT_EQ(RunOnStack(c.c, s, r.expr), r.shown) << r.expr << " failing at " << r.failAt;
        EXPECT_EQ(gHooks.debugCalls, r.calls) << r.expr << " failing at " << r.failAt;
    }
    KWCalcStackSetHooks(s, nullptr, nullptr);
    gHooks = HookLog{};
    EXPECT_EQ(RunOnStack(c.c, s, "sq(3)"), "i:9");
    EXPECT_EQ(gHooks.debugCalls, 0);
    KWCalcStackFree(s);
}

TEST(CalcEngine, ErrorHookOutsideTry) {
    struct ErrRow {
        const char* expr;
        const char* shown;
        const char* errors;  // function:opcode of the failing instruction:status
    };
    const ErrRow rows[] = {
        {"1/0", "status -43", "t:52:-43"},
        {"sq(\"a\")", "status -44", "sq:51:-44,t:241:-44"},
        {"hfail(-30)", "status -30", "t:241:-30"},
        {"try(1/0)", "i:-43", ""},
        {"try(sq(\"a\"))", "i:-44", "sq:51:-44"},  // sq has no try of its own
        {"forever()", "status -50", ""},           // budgets pass the hook by
        {"sq(4)", "i:16", ""},
    };
    Calc c;
    ASSERT_EQ(KWCalcSetLimits(c.c, 100000, 0, 0), 0);
    KWCalcStack* s = nullptr;
    ASSERT_EQ(KWCalcStackCreate(c.c, &s, 64), 0);
    KWCalcStackSetHooks(s, nullptr, &ErrorHook);
    for (const ErrRow& r : rows) {
        gHooks = HookLog{};
        EXPECT_EQ(RunOnStack(c.c, s, r.expr), r.shown) << r.expr;
        EXPECT_EQ(gHooks.errors, r.errors) << r.expr;
    }
    KWCalcStackFree(s);
}

TEST(CalcEngine, CallHookForFlaggedEntries) {
    struct CallRow {
        const char* flagged;  // the name whose flag is set for this row ("" none)
        const char* expr;
        const char* shown;
        int hooked;
    };
    const CallRow rows[] = {
        {"", "sq(3)+hadd(1,2)", "i:12", 0},
        {"sq", "sq(3)", "i:1009", 1},
        {"SQ", "hadd(1,2)", "i:3", 0},
        {"sq", "fact(3)+sq(2)", "i:1010", 1},
        {"hadd", "hadd(1,2)", "i:999", 1},
        {"fact", "fact(3)", "i:10006", 3},  // the recursive calls go through it too
    };
    Calc c;
    KWCalcStack* s = nullptr;
    ASSERT_EQ(KWCalcStackCreate(c.c, &s, 64), 0);
    // Without a call hook a flag changes nothing.
    ASSERT_EQ(KWCalcFunSetHook(c.c, "sq", 1), 0);
    EXPECT_EQ(RunOnStack(c.c, s, "sq(3)"), "i:9");
    ASSERT_EQ(KWCalcFunSetHook(c.c, "sq", 0), 0);
    KWCalcSetCallHook(c.c, &CallHook);
    for (const CallRow& r : rows) {
        gHooks = HookLog{};
        if (*r.flagged) {
            ASSERT_EQ(KWCalcFunSetHook(c.c, r.flagged, 1), 0);
        }
        EXPECT_EQ(RunOnStack(c.c, s, r.expr), r.shown) << r.flagged << " " << r.expr;
        EXPECT_EQ(gHooks.hooked, r.hooked) << r.flagged << " " << r.expr;
        if (*r.flagged) {
            ASSERT_EQ(KWCalcFunSetHook(c.c, r.flagged, 0), 0);
        }
    }
    EXPECT_EQ(KWCalcFunSetHook(c.c, "nosuch", 1), -45);
    EXPECT_EQ(KWCalcFunSetHook(c.c, nullptr, 1), -44);
    EXPECT_EQ(KWCalcFunSetHook(nullptr, "sq", 1), -44);
    KWCalcSetCallHook(c.c, nullptr);
    ASSERT_EQ(KWCalcFunSetHook(c.c, "sq", 1), 0);
    EXPECT_EQ(RunOnStack(c.c, s, "sq(3)"), "i:9");
    KWCalcStackFree(s);
}

// Endless recursion, directly and through a host function, ends with -52
// on a thread with a 1 MiB stack under the default depth.
void* DeepOnSmallThread(void* arg) {
    auto* result = static_cast<std::vector<int32_t>*>(arg);
    Calc c;
    EXPECT_EQ(KWCalcFunAddI(c.c, "ping(n){Result=hback(n);}", nullptr, 0, 0), 0);
    EXPECT_EQ(KWCalcFunAddI(c.c, "sq(n){Result=ping(n+1);}", nullptr, 0, 0), -27);
    KWCalcFunDel(c.c, "sq");
    EXPECT_EQ(KWCalcFunAddI(c.c, "sq(n){Result=ping(n+1);}", nullptr, 0, 0), 0);
    CVar v{};
    result->push_back(KWCalcFormula("deep(0)", &v, c.c, 0));
    result->push_back(KWCalcFormula("ping(0)", &v, c.c, 0));
    // A plan recurses on frames of its own, not on the C stack: once the
    // host allows it, far deeper than the interpreter could on this thread.
    EXPECT_EQ(KWCalcFunAddI(c.c, "down(n){if(n==0){Result=0;exit;}Result=down(n-1)+1;}", nullptr, 0, 0), 0);
    EXPECT_EQ(KWCalcSetLimits(c.c, 0, 0, 60000), 0);
    KWCalcStack* s = nullptr;
    EXPECT_EQ(KWCalcStackCreate(c.c, &s, 250000), 0);
    CVarSetInt(KWCalcStackPush(s), 50000);
    result->push_back(KWCalcFun2(s, "down"));
    CVar out{};
    KWCalcStackPop(s, &out);
    result->push_back(int32_t(out.v.i));
    KWCalcStackFree(s);
    return nullptr;
}

TEST(CalcEngine, DepthOnOneMebibyteThread) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 1 << 20);
    pthread_t t;
    std::vector<int32_t> result;
    ASSERT_EQ(pthread_create(&t, &attr, &DeepOnSmallThread, &result), 0);
    pthread_join(t, nullptr);
    pthread_attr_destroy(&attr);
    EXPECT_EQ(result, (std::vector<int32_t>{-52, -52, 0, 50000}));
}

}  // namespace
