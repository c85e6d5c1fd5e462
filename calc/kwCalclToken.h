// The formula language's tokenizer.  Token codes of operators double as the
// byte code's operation codes.
#pragma once

#include <VomKwz.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace kwz::calcl {

enum Token : int32_t {
    kTokParam = 1,     // a parameter's name
    kTokLocal = 2,     // "result" or a var
    kTokBuiltin = 3,   // a built-in function's name
    kTokName = 4,      // any other name: an external function
    kTokInt = 5,
    kTokDbl = 6,
    kTokStr = 7,
    kTokLParen = 8,
    kTokRParen = 9,
    kTokLBracket = 10,
    kTokRBracket = 11,
    kTokComma = 12,
    kTokSemicolon = 14,
    kTokLBrace = 15,
    kTokRBrace = 16,
    kTokIf = 17,
    kTokElse = 18,
    kTokElseIf = 19,
    kTokWhile = 20,
    kTokBreak = 21,
    kTokContinue = 22,
    kTokExit = 23,
    kTokVar = 24,
    kTokConst = 25,
    kTokEnd = 26,
    kTokAdd = 49,
    kTokSub = 50,
    kTokMul = 51,
    kTokDiv = 52,
    kTokDivI = 53,     // "\"
    kTokMod = 54,
    kTokEq = 65,
    kTokNe = 66,
    kTokLt = 67,
    kTokLe = 68,
    kTokGt = 69,
    kTokGe = 70,
    kTokNot = 82,
    kTokBNot = 83,
    kTokAnd = 84,
    kTokOr = 85,
    kTokBAnd = 86,
    kTokBXor = 87,
    kTokBOr = 88,
    kTokShl = 89,
    kTokShr = 90,
    kTokAssign = 246,
};

// Compiler error codes; the compiler's messages go with them.
constexpr int32_t kErrNoMem = -1;
constexpr int32_t kErrSyntax = -2;
constexpr int32_t kErrValue = -3;
constexpr int32_t kErrNoRParen = -4;
constexpr int32_t kErrNoRBracket = -5;
constexpr int32_t kErrNoExpr = -6;
constexpr int32_t kErrArgCount = -7;
constexpr int32_t kErrDuplicate = -8;

// Every compile error unwinds to KWFunCompile as this.
struct CompileError {
    int32_t code;
};

struct Builtin {
    const char* name;
    int32_t args;
    int32_t code;
};

// The built-in function of this name (any case), or null.
const Builtin* InnerFun(const char* name, size_t length);
// The built-in function of this code, or null.
const Builtin* BuiltinByCode(int32_t code);
// The reserved-word token of this name (any case), or 0.
int32_t ReservWord(const char* name, size_t length);

// What a name means beyond the reserved words and built-ins; the compiler
// answers from its locals and constant tables.
class NameResolver {
public:
    virtual ~NameResolver() = default;
    // kTokParam or kTokLocal with the local's index, or 0 for no local.
    virtual int32_t Local(const std::string& name, int32_t* index) = 0;
    // A constant visible here (the body only): kTokInt, kTokDbl or kTokStr
    // with the value set in the tokenizer's fields, or 0.
    virtual int32_t Constant(const std::string& name, int64_t* i, double* d, std::string* s) = 0;
};

class Tokenizer {
public:
    // text: zero-terminated; names may be null (no locals, no constants).
    Tokenizer(const char* text, NameResolver* names) : text_(text), pos_(text), names_(names) {}

    // Reads the next token into the fields below and returns its code;
    // throws CompileError(-3) for a bad number or string literal.
    int32_t Next();

    int32_t token = 0;
    size_t start = 0;      // byte offset of the token in the text
    std::string text;      // a name as written, or a string literal's bytes
    int64_t intValue = 0;  // integer literal; built-in: its code
    double dblValue = 0;
    int32_t args = 0;      // built-in: its argument count
    int32_t index = 0;     // parameter or local: its index

private:
    void SkipBlanks();
    int32_t Operator();
    int32_t Name();
    int32_t Number();
    int32_t String();

    const char* text_;
    const char* pos_;
    NameResolver* names_;
};

}  // namespace kwz::calcl
