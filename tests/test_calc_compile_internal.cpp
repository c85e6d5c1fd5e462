// The formula compiler: source text in, byte code out, byte for byte; the
// precedence levels; stack need; errors with code, position and message.
#include <gtest/gtest.h>

#include <VomKwz.h>

#include <cstring>
#include <string>
#include <vector>

#include "calc/kwCalcOps.h"
#include "fault_harness.h"
#include "test_calc_util.h"

using namespace calctest;

namespace {

struct Result {
    int32_t status = 0;
    std::string hex;  // the code (and debug information), or the message
    int32_t need = 0, params = 0, position = 0;
    std::vector<std::string> externals;
};

// Size of the code up to and including its end instruction.
size_t CodeSize(const uint8_t* code) {
    size_t at = 0;
    while (code[at] != kwz::calcl::kOpEnd) {
        const size_t n = kwz::calcl::OpLength(code + at);
        if (n == 0) return 0;
        at += n;
    }
    return at + 1;
}

Result Compile(const std::string& text, bool debug = false, KWCalcConst* constants = nullptr) {
    KWFunDef* f = nullptr;
    Result r;
    r.status = KWFunCompile(text.c_str(), &f, debug, constants);
    EXPECT_NE(f, nullptr);
    if (!f) return r;
    if (r.status != 0) {
        EXPECT_EQ(f->paramCount, r.status);
        r.position = f->externCount;
        r.hex = reinterpret_cast<const char*>(f->code);
    } else {
        size_t n = CodeSize(f->code);
        if (debug) {  // params, others, names, point count, points
            int32_t params, others, points;
            std::memcpy(&params, f->code + n, 4);
            std::memcpy(&others, f->code + n + 4, 4);
            size_t at = n + 8;
            for (int32_t i = 0; i < params + others; ++i) at += std::strlen(reinterpret_cast<char*>(f->code + at)) + 1;
            std::memcpy(&points, f->code + at, 4);
            n = at + 4 + 4 * size_t(points);
        }
        r.hex = ToHex(std::vector<uint8_t>(f->code, f->code + n));
        r.need = f->stackNeed;
        r.params = f->paramCount;
        const auto* ext = static_cast<const KWFunExtern*>(f->externNames);
        for (int32_t i = 0; i < f->externCount; ++i)
            r.externals.push_back(std::string(ext[i].name) + "/" + std::to_string(ext[i].argCount));
    }
    KWFunFree(f);
    return r;
}

// Expected hex where "a", "b", "c" stand for loading parameter 0, 1, 2 and
// "i<n>" for the integer literal n.
std::string Expand(const std::string& text) {
    std::string out;
    size_t i = 0;
    while (i < text.size()) {
        if (text[i] == ' ') {
            ++i;
            continue;
        }
        size_t j = text.find(' ', i);
        if (j == std::string::npos) j = text.size();
        const std::string word = text.substr(i, j - i);
        i = j;
        if (word == "a" || word == "b" || word == "c") {
            out += "21 0" + std::to_string(word[0] - 'a') + "00 0000 ";
        } else if (word[0] == 'i') {
            char le[32];
            std::snprintf(le, sizeof le, "%02x00000000000000", std::stoi(word.substr(1)));
            out += "24 " + std::string(le) + " ";
        } else {
            out += word + " ";
        }
    }
    return ToHex(Hex(out));
}

}  // namespace

TEST(calcCompile, ExpressionsByteForByte) {
    // Each expression is compiled as "f(a,b,c){result=<expr>;}": push empty,
    // the expression, store into result (local 3), drop, end.
    struct Row { const char* expr; const char* code; };
    const std::vector<Row> rows = {
        {"1", "i1"},
        {"1.5", "25 000000000000f83f"},
        {"1e3", "25 0000000000408f40"},
        {"0x1f", "i31"},
        {"15", "i15"},
        {"\"ab\"", "26 0200 6162 00"},
        {"\"\"", "26 0000 00"},
        {"a + b * c", "a b c 33 31"},
        {"(a + b) * c", "a b 31 c 33"},
        {"a - b - c", "a b 32 c 32"},
        {"a / b \\ c % a", "a b 34 c 35 a 36"},
        {"a << b + c", "a b c 31 59"},
        {"a >> b <= c", "a b 5a c 44"},
        {"a < b > c >= a", "a b 43 c 45 a 46"},
        {"a == b < c", "a b c 43 41"},
        {"a != b == c", "a b 42 c 41"},
        {"a | b ^ c & a", "a b c a 56 57 58"},
        {"a & b | c", "a b 56 c 58"},
        {"-a", "a 51"},
        {"!a", "a 52"},
        {"~a", "a 53"},
        {"+a", "a"},
        {"-a * b", "a 51 b 33"},
        {"a && b", "a f3 0a000000 b 54"},
        {"a && b && c", "a f3 15000000 b 54 f3 0a000000 c 54"},
        {"a || b && c", "a f4 15000000 b f3 0a000000 c 54 55"},
        {"a | b || c", "a b 58 f4 0a000000 c 55"},
        {"sin(a)", "a 71"},
        {"Min(a, b)", "a b 63"},
        {"null", "23 87"},
        {"null()", "23 87"},
        {"iif(a, b, c)", "a b c 61"},
        {"ldexp(a)", "a 78"},
        {"tmmake(1,2,3,4,5,6,7)", "i1 i2 i3 i4 i5 i6 i7 ad"},
        {"g(a, b)", "a b f1 0000"},
        {"g + h(1)", "23 f1 0000 i1 f1 0100 31"},
        {"[a, 1]", "a i1 f9 02000000"},
        {"[]", "f9 00000000"},
        {"[a][0]", "a f9 01000000 i0 f8 0100"},
        {"\"a\"[0, 1][2]", "26 0100 61 00 i0 i1 i2 f8 0300"},
        {"a[1][2]", "i1 i2 21 0000 0200"},
        {"a[1, 2]", "i1 i2 21 0000 0200"},
        {"(a, b, c)", "a b c 27 0200"},
        {"(a)", "a"},
        {"try(a)", "fa 0b000000 a fb"},
        {"a = b = 1", "i1 f6 0100 0000 f6 0000 0000"},
        {"a[0] = b", "i0 b f6 0000 0100"},
    };
    for (const auto& r : rows) {
        const Result got = Compile(std::string("f(a,b,c){result=") + r.expr + ";}");
        ASSERT_EQ(got.status, 0) << r.expr << ": " << got.hex;
        EXPECT_EQ(got.hex, ToHex(Hex("23 " + Expand(r.code) + " f7 0300 0000 27 0000 fd"))) << r.expr;
    }
}

TEST(calcCompile, StatementsAndFunctionsByteForByte) {
    struct Row { const char* text; const char* code; int32_t need; };
    const std::vector<Row> rows = {
        {"f(){}", "23 fd", 1},
        {"f{}", "23 fd", 1},
        {"f(){ ; {} { ; } }", "23 fd", 1},
        {"f(){ result = 1; }", "23 i1 f7 0000 0000 27 0000 fd", 2},
        {"f(a){ result = a + 2 * 3; }", "23 a i2 i3 33 31 f7 0100 0000 27 0000 fd", 4},
        {"f(a){ a = 1; }", "23 i1 f6 0000 0000 27 0000 fd", 2},
        {"f(){ var x, y; x = y; }", "23 23 23 22 0200 0000 f7 0100 0000 27 0000 fd", 4},
        {"f(){ 1, 2; }", "23 i1 i2 27 0100 27 0000 fd", 3},
        {"f(){ exit; }", "23 fc fd", 1},
        {"f(){ if (1) exit; }", "23 i1 f5 05000000 fc fd", 2},
        {"f(){ if (1) ; else exit; }", "23 i1 f5 09000000 f2 05000000 fc fd", 2},
        {"f(){ if (1) ; elseif (2) ; else exit; }",
         "23 i1 f5 09000000 f2 18000000 i2 f5 09000000 f2 05000000 fc fd", 2},
        {"f(){ if (1) ; elseif (2) exit; }", "23 i1 f5 09000000 f2 13000000 i2 f5 05000000 fc fd", 2},
        {"f(){ while (1) break; }", "23 i1 f5 0e000000 f2 09000000 f2 ecffffff fd", 2},
        {"f(){ while (1) continue; }", "23 i1 f5 0e000000 f2 f1ffffff f2 ecffffff fd", 2},
        {"f(){ const k = 5, s = \"x\"; result = k + s; }",
         "23 i5 26 0100 78 00 31 f7 0000 0000 27 0000 fd", 3},
        {"f(){ const k = 5; k; }", "23 i5 27 0000 fd", 2},
        {"f(){ const d = 2.5; var v; v = d; }", "23 23 25 0000000000000440 f7 0100 0000 27 0000 fd", 3},
        {"f(x){ /* c */ result = x; // y\n }", "23 21 0000 0000 f7 0100 0000 27 0000 fd", 2},
    };
    for (const auto& r : rows) {
        const Result got = Compile(r.text);
        ASSERT_EQ(got.status, 0) << r.text << ": " << got.hex;
        EXPECT_EQ(got.hex, ToHex(Hex(Expand(r.code)))) << r.text;
        EXPECT_EQ(got.need, r.need) << r.text;
    }
    const Result calls = Compile("f(p, q){ result = g(1) + G(2) + h(); }");
    EXPECT_EQ(calls.params, 2);
    EXPECT_EQ(calls.externals, (std::vector<std::string>{"g/1", "h/0"}));
}

TEST(calcCompile, CallerConstantsBecomeLiterals) {
    KWCalcConst* table = nullptr;
    ASSERT_EQ(KWCalcConstCreate(&table, 4), 0);
    KWCalcConstDbl(table, "Pi", 2.5, nullptr);
    KWCalcConstInt(table, "N", 3, nullptr);
    KWCalcConstStr(table, "S", "q", 1, nullptr);
    // A built-in's name is no constant: sin without arguments fails its count.
    EXPECT_EQ(Compile("f(){ result = [PI, sin]; }", false, table).status, -7);
    // The function's own constant hides the caller's.
    EXPECT_EQ(Compile("f(){ result = [PI, n, s]; }", false, table).hex,
              ToHex(Hex(Expand("23 25 0000000000000440 i3 26 0100 71 00 f9 03000000 f7 0000 0000 27 0000 fd"))));
    EXPECT_EQ(Compile("f(){ const n = 9; result = n; }", false, table).hex,
              ToHex(Hex(Expand("23 i9 f7 0000 0000 27 0000 fd"))));
    KWCalcConstDestroy(table);
}

TEST(calcCompile, DebugPointsAndInformation) {
    struct Row { const char* text; const char* code; };
    const std::vector<Row> rows = {
        {"f(){}", "23 e1 0000 04000000 fd  00000000 01000000 726573756c7400 01000000 01000000"},
        {"f(a){ result = a; }",
         "23 e1 0000 06000000 a f7 0100 0000 27 0000 e1 0100 12000000 fd"
         " 01000000 01000000 6100 726573756c7400 02000000 01000000 15000000"},
        {"f(){ while (1) break; }",
         "23 e1 0000 0b000000 i1 f5 15000000 e1 0100 0f000000 f2 09000000 f2 deffffff"
         " e1 0200 16000000 fd 00000000 01000000 726573756c7400 03000000 01000000 16000000 27000000"},
    };
    for (const auto& r : rows) {
        const Result got = Compile(r.text, true);
        ASSERT_EQ(got.status, 0) << r.text << ": " << got.hex;
        EXPECT_EQ(got.hex, ToHex(Hex(Expand(r.code)))) << r.text;
    }
}

TEST(calcCompile, ErrorsWithCodePositionAndMessage) {
    const char* const messages[] = {
        "Недостаточно памяти", "Cинтаксическая ошибка", "Недопустимое значение",
        "Нет закрывающей круглой скобки", "Нет закрывающей квадратной скобки",
        "Нет ожидаемого выражение", "Неправильное количество параментов функции", "Имя дублируется",
    };
    EXPECT_EQ(messages[1][0], 'C');  // a Latin capital, kept as callers compare it
    struct Row { const char* text; int32_t code; int32_t position; };
    const std::vector<Row> rows = {
        {"", -2, 0},
        {"sin(){}", -2, 0},
        {"if(){}", -2, 0},
        {"f(a,){}", -2, 4},
        {"f(a b){}", -2, 4},
        {"f(1){}", -2, 2},
        {"f() result = 1;", -2, 4},
        {"f(){", -2, 4},
        {"f(a,a){}", -8, 4},
        {"f(result){}", -8, 2},
        {"f(f){}", -8, 2},
        {"f(a){var a;}", -8, 9},
        {"f(){var x, X;}", -8, 11},
        {"f(){ const f = 1; }", -8, 11},
        {"f(){ const k = 1, K = 2; }", -8, 18},
        {"f(){ const k = -1; }", -2, 15},
        {"f(){ const k 1; }", -2, 13},
        {"f(){ result = 1 }", -2, 16},
        {"f(){ result = sin(1,2); }", -7, 22},
        {"f(){ result = g(1) + g(1,2); }", -7, 27},
        {"f(){ result = g(1) + G(); }", -7, 24},
        {"f(){ result = try; }", -7, 17},
        {"f(){ result = (1; }", -4, 16},
        {"f(){ result = sin(1; }", -4, 19},
        {"f(){ result = [1; }", -5, 16},
        {"f(){ result = result[1; }", -5, 22},
        {"f(){ result = [1,]; }", -2, 17},
        {"f(){ result = (); }", -6, 15},
        {"f(){ result[] = 1; }", -6, 12},
        {"f(){ ; , ; }", -6, 7},
        {"f(){ result = \"\\x4\"; }", -3, 14},
        {"f(){ result = \"\\q\"; }", -3, 14},
        {"f(){ result = 1e999; }", -3, 14},
        {"f(){ result = - -1; }", -2, 16},
        {"f(){ result = -!1; }", -2, 15},
        {"f(){ if 1; }", -2, 8},
        {"f(){ while 1; }", -2, 11},
        {"f(){ break }", -2, 11},
        {"f(){ else; }", -2, 5},
    };
    for (const auto& r : rows) {
        const Result got = Compile(r.text);
        EXPECT_EQ(got.status, r.code) << r.text;
        EXPECT_EQ(got.position, r.position) << r.text;
        EXPECT_EQ(got.hex, messages[-r.code - 1]) << r.text;
    }
    KWFunDef* f = nullptr;
    EXPECT_EQ(KWFunCompile(nullptr, &f, 0, nullptr), -2);
    KWFunFree(f);
    EXPECT_EQ(KWFunCompile("f(){}", nullptr, 0, nullptr), -2);
    KWFunFree(nullptr);
}

TEST(calcCompile, OutOfMemoryGivesMinus1AndLeaksNothing) {
    const std::string text =
        "f(a, b){ const k = \"text\"; var i, s; i = 0; s = [];"
        " while (i < 10) { s = [s, g(i, k)]; i = i + 1; }"
        " if (a) result = try(s[0][1]); else result = sin(b) + h(); }";
    ASSERT_EQ(Compile(text, true).status, 0);
    const int64_t failures = kwz::test::ForEachAllocationFailure([&](auto fired) {
        KWFunDef* f = nullptr;
        const int32_t status = KWFunCompile(text.c_str(), &f, 1, nullptr);
        if (fired()) {
            EXPECT_EQ(status, -1);
            if (f) {
                EXPECT_EQ(f->paramCount, -1);
            }
        } else {
            EXPECT_EQ(status, 0);
        }
        KWFunFree(f);
    });
    EXPECT_GT(failures, 10);
}

TEST(calcCompile, DisassemblyOfEveryInstruction) {
    const char* text =
        "f(p){ var v; v = p[0] + 1.5 - \"a\\\"\\n\" * [] / (1, 2) \\ 3 % 4;"
        " v = p == 1 != (p < 2) <= (p > 3) >= -p;"
        " v = !p && ~p || (p & 1 ^ 2 | 3 << 4 >> 5);"
        " p = try(g([v][0])) + sin(null); if (v) exit; while (p) break; }";
    KWFunDef* f = nullptr;
    ASSERT_EQ(KWFunCompile(text, &f, 1, nullptr), 0);
    char* listing = KWFunDisassemble(f);
    ASSERT_NE(listing, nullptr);
    const std::string expect =
        "0000  nil\n"
        "0001  nil\n"
        "0002  dbg     0 @13\n"
        "0009  int     0\n"
        "0012  ldp     0, 1\n"
        "0017  dbl     1.5\n"
        "0020  add\n"
        "0021  str     \"a\\\"\\x0A\"\n"
        "0028  arr     0\n"
        "002d  mul\n"
        "002e  int     1\n"
        "0037  int     2\n"
        "0040  drop    1\n"
        "0043  div\n"
        "0044  int     3\n"
        "004d  divi\n"
        "004e  int     4\n"
        "0057  mod\n"
        "0058  sub\n"
        "0059  stl     2, 0\n"
        "005e  drop    0\n";
    EXPECT_EQ(std::string(listing).substr(0, expect.size()), expect);
    // Every mnemonic of the instruction table appears somewhere.
    for (const char* m : {"ldp", "ldl", "nil", "int", "dbl", "str", "drop", "add", "sub", "mul",
                          "div", "divi", "mod", "eq", "ne", "lt", "le", "gt", "ge", "neg", "not",
                          "bnot", "and", "or", "band", "bxor", "bor", "shl", "shr", "dbg", "call",
                          "jmp", "andt", "ort", "jf", "stp", "stl", "idx", "arr", "try", "endtry",
                          "exit", "end", "sin", "null"})
        EXPECT_NE(std::string(listing).find(std::string("  ") + m), std::string::npos) << m;
    EXPECT_NE(std::string(listing).find("call    0 (g/1)"), std::string::npos);
    EXPECT_NE(std::string(listing).find("stack need: "), std::string::npos);
    EXPECT_NE(std::string(listing).find("externals: g/1\n"), std::string::npos);
    KWMemFree(listing);
    KWFunFree(f);
}
