// The formula tokenizer: token codes, values, name classification and the
// literal errors.  Each row is source text in, tokens as text out.
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "calc/kwCalclToken.h"

using namespace kwz::calcl;

namespace {

// Locals and constants of a pretend function: parameter "a", locals
// "result", "v" and "sin"; constants N, PI and S.
class Names : public NameResolver {
public:
    int32_t Local(const std::string& name, int32_t* index) override {
        static const std::map<std::string, int32_t> locals = {{"a", 0}, {"result", 1}, {"v", 2}, {"sin", 3}};
        std::string lower;
        for (char c : name) lower += char(std::tolower(static_cast<unsigned char>(c)));
        const auto it = locals.find(lower);
        if (it == locals.end()) return 0;
        *index = it->second;
        return it->second < 1 ? kTokParam : kTokLocal;
    }
    int32_t Constant(const std::string& name, int64_t* i, double* d, std::string* s) override {
        if (name == "N") return *i = 7, kTokInt;
        if (name == "PI") return *d = 3.5, kTokDbl;
        if (name == "S") return *s = "txt", kTokStr;
        return 0;
    }
};

std::string Describe(const Tokenizer& t) {
    switch (t.token) {
    case kTokParam: return "param:" + std::to_string(t.index);
    case kTokLocal: return "local:" + std::to_string(t.index);
    case kTokBuiltin: return "fn:" + t.text + "/" + std::to_string(t.args) + "/" + std::to_string(t.intValue);
    case kTokName: return "name:" + t.text;
    case kTokInt: return "int:" + std::to_string(t.intValue);
    case kTokDbl: return "dbl:" + std::to_string(t.dblValue);
    case kTokStr: {
        std::string s = "str:";
        for (unsigned char c : t.text) s += c >= 32 && c < 127 ? std::string(1, char(c)) : "<" + std::to_string(c) + ">";
        return s;
    }
    default: return std::to_string(t.token);
    }
}

// All tokens up to the end, or "error:<code>@<offset>" in the place of the
// failing one.
std::string Tokens(const char* text, bool withNames = false) {
    Names names;
    Tokenizer t(text, withNames ? &names : nullptr);
    std::string out;
    for (;;) {
        try {
            if (t.Next() == kTokEnd) return out;
        } catch (const CompileError& e) {
            return out + "error:" + std::to_string(e.code) + "@" + std::to_string(t.start);
        }
        out += Describe(t) + " ";
    }
}

}  // namespace

TEST(calcToken, TextToTokens) {
    struct Row { const char* text; const char* tokens; };
    const std::vector<Row> rows = {
        {"", ""},
        {" \t\r\n\x01\x1f ", ""},
        {"/* c */ a // x\n b", "name:a name:b "},
        {"a /* unclosed", "name:a "},
        {"a.b _x1 A9 x.", "name:a.b name:_x1 name:A9 name:x. "},
        {"IF else ElseIf while break continue exit var const", "17 18 19 20 21 22 23 24 25 "},
        {"()[],;{}", "8 9 10 11 12 14 15 16 "},
        {"+ - * / \\ %", "49 50 51 52 53 54 "},
        {"== != < <= > >=", "65 66 67 68 69 70 "},
        {"! ~ && || & ^ | << >> =", "82 83 84 85 86 87 88 89 90 246 "},
        {"a<<=b!==c", "name:a 89 246 name:b 66 246 name:c "},  // longest operator first
        {"a/b//c", "name:a 52 name:b "},
        {"15 1.5 1e3 .5 1E+2 7.", "int:15 dbl:1.500000 dbl:1000.000000 dbl:0.500000 dbl:100.000000 dbl:7.000000 "},
        {"0x1f 0X1F 0xffffffffffffffff", "int:31 int:31 error:-3@10"},
        {"0x7fffffffffffffff", "int:9223372036854775807 "},
        {"12abc", "int:12 name:abc "},
        {"1e999", "error:-3@0"},
        {"x = #", "name:x 246 error:-3@4"},
        {"\"a\\tb\\x41\\X4a\\\"\\'\\?\\\\\\N\\V\"", "str:a<9>bAJ\"'?\\<10><11> "},
        {"\"\"", "str: "},
        {"\"\\x4\"", "error:-3@0"},
        {"\"\\q\"", "error:-3@0"},
        {"\"abc", "error:-3@0"},
        {"\"a\nb\"", "error:-3@0"},
        {"  \"\\", "error:-3@2"},
        {"sin LDEXP tmmake try Null", "fn:sin/1/113 fn:LDEXP/1/120 fn:tmmake/7/173 fn:try/1/250 fn:Null/0/135 "},
    };
    for (const auto& r : rows) EXPECT_EQ(Tokens(r.text), r.tokens) << r.text;
}

TEST(calcToken, NamesAreClassifiedInOrder) {
    struct Row { const char* text; const char* tokens; };
    const std::vector<Row> rows = {
        {"a A Result v", "param:0 param:0 local:1 local:2 "},
        {"sin cos", "local:3 fn:cos/1/114 "},   // a local hides a built-in
        {"N PI S n", "int:7 dbl:3.500000 str:txt name:n "},
        {"if", "17 "},                          // reserved words come first
    };
    for (const auto& r : rows) EXPECT_EQ(Tokens(r.text, true), r.tokens) << r.text;
}

TEST(calcToken, PositionsAreByteOffsets) {
    Tokenizer t("  ab /* x */ 12\n  \"s\"", nullptr);
    std::vector<size_t> starts;
    while (t.Next() != kTokEnd) starts.push_back(t.start);
    EXPECT_EQ(starts, (std::vector<size_t>{2, 13, 18}));
    EXPECT_EQ(t.start, 21u);
}

TEST(calcToken, BuiltinTable) {
    struct Row { const char* name; int32_t args, code; };
    for (const Row& r : std::vector<Row>{{"iif", 3, 97}, {"round", 2, 101}, {"abort", 1, 102},
                                         {"ldexp", 1, 120}, {"pow", 2, 124}, {"null", 0, 135},
                                         {"len", 1, 145}, {"tolower", 1, 158}, {"tmmsec", 1, 161},
                                         {"tmstr", 2, 175}, {"new", 2, 177}, {"call", 3, 180}}) {
        const Builtin* b = InnerFun(r.name, std::strlen(r.name));
        ASSERT_NE(b, nullptr) << r.name;
        EXPECT_EQ(b->args, r.args) << r.name;
        EXPECT_EQ(b->code, r.code) << r.name;
    }
    EXPECT_EQ(InnerFun("sinx", 4), nullptr);
    EXPECT_EQ(InnerFun("si", 2), nullptr);
    EXPECT_EQ(ReservWord("ELSE", 4), kTokElse);
    EXPECT_EQ(ReservWord("els", 3), 0);
}
